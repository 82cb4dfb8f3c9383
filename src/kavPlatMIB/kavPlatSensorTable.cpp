// Every sensor.
#include "kavPlatMIB/platform_table.h"

namespace kavplat
{

namespace
{

constexpr column columns[] = {
    integer<&phys_entry::sensorKind>(1, "kavPlatSensorClass"),
    integer<&phys_entry::sensorCol2>(2, "kavPlatSensorType"),
    gauge<&phys_entry::sensorCol3>(3, "kavPlatSensorUpdateInterval"),
};

} // namespace

constinit const table kavPlatSensorTable = {
    .name = "kavPlatSensorTable",
    .source = KAVPLAT_ROOM,
    .root = platform_oid<6>,
    .columns = columns,
    .rows = rows_of_class<PHYSICAL_CLASS_SENSOR>,
    .before_serving = read_sensor_first<failed_read::any_but_0>,
    .get_first = kavPlatSensorTable_get_first_data_point,
    .get_next = kavPlatSensorTable_get_next_data_point,
    .handler = kavPlatSensorTable_handler,
};

} // namespace kavplat

KAV_PLAT_DEFINE_TABLE(kavPlatSensorTable)

// Every sensor.
#include "kavPlatMIB/sensor_table.h"

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

} // namespace kavplat

KAV_PLAT_TABLE(kavPlatSensorTable, 6, .columns = columns,
               .rows = rows_of_class<PHYSICAL_CLASS_SENSOR>,
               .before_serving = read_sensor_first<failed_read::any_but_0>)

// Sensors with two states.
#include "kavPlatMIB/platform_table.h"

namespace kavplat
{

namespace
{

constexpr column columns[] = {
    integer<&phys_entry::binarySensorValue1>(1, "kavPlatBinarySensorCurrent"),
    integer<&phys_entry::binarySensorValue2>(2, "kavPlatBinarySensorExpected"),
    text<&phys_entry::binarySensorText1>(3, "kavPlatBinarySensorTextTrue"),
    text<&phys_entry::binarySensorText2>(4, "kavPlatBinarySensorTextFalse"),
};

} // namespace

constinit const table kavPlatBinarySensorTable = {
    .name = "kavPlatBinarySensorTable",
    .source = KAVPLAT_ROOM,
    .root = platform_oid<7>,
    .columns = columns,
    .rows = rows_where<is_sensor_of_kind<SENSOR_KIND_BINARY>>,
    .trace = walk_trace::dump_next_row,
    .before_serving = read_sensor_first<failed_read::minus_1>,
    .get_first = kavPlatBinarySensorTable_get_first_data_point,
    .get_next = kavPlatBinarySensorTable_get_next_data_point,
    .handler = kavPlatBinarySensorTable_handler,
};

} // namespace kavplat

KAV_PLAT_DEFINE_TABLE(kavPlatBinarySensorTable)

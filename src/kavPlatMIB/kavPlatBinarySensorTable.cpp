// Sensors with two states.
#include "kavPlatMIB/sensor_table.h"

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

} // namespace kavplat

KAV_PLAT_TABLE(kavPlatBinarySensorTable, 7, .columns = columns,
               .rows = rows_where<is_sensor_of_kind<SENSOR_KIND_BINARY>>,
               .trace = walk_trace::dump_next_row,
               .before_serving = read_sensor_first<failed_read::minus_1>)

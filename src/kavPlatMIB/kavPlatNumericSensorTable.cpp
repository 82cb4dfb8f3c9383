// Sensors with a number for a reading, and their thresholds.
#include "kavPlatMIB/sensor_table.h"

namespace kavplat
{

namespace
{

constexpr column columns[] = {
    integer<&phys_entry::numericSensorCol1>(1, "kavPlatNumericSensorBaseUnits"),
    integer<&phys_entry::numericSensorCol2>(2, "kavPlatNumericSensorExponent"),
    integer<&phys_entry::numericSensorCol3>(3, "kavPlatNumericSensorRateUnits"),
    integer<&phys_entry::numericSensorCol4>(4, "kavPlatNumericSensorReading"),
    integer<&phys_entry::numericSensorCol5>(5, "kavPlatNumericSensorNominal"),
    integer<&phys_entry::numericSensorCol6>(6, "kavPlatNumericSensorNormalMax"),
    integer<&phys_entry::numericSensorCol7>(7, "kavPlatNumericSensorNormalMin"),
    integer<&phys_entry::numericSensorCol8>(8, "kavPlatNumericSensorLowerNonCrit"),
    integer<&phys_entry::numericSensorCol11>(9, "kavPlatNumericSensorUpperNonCrit"),
    integer<&phys_entry::numericSensorCol9>(10, "kavPlatNumericSensorLowerCrit"),
    integer<&phys_entry::numericSensorCol12>(11, "kavPlatNumericSensorUpperCrit"),
    integer<&phys_entry::numericSensorCol10>(12, "kavPlatNumericSensorLowerFatal"),
    integer<&phys_entry::numericSensorCol13>(13, "kavPlatNumericSensorUpperFatal"),
    gauge<&phys_entry::numericSensorCol14>(14, "kavPlatNumericSensorHysteresis"),
    octet<&phys_entry::thresholdMask>(15, "kavPlatNumericSensorThresholds"),
    constant<1>(16, "kavPlatNumericSensorReserved"),
};

} // namespace

} // namespace kavplat

KAV_PLAT_TABLE(kavPlatNumericSensorTable, 8, .columns = columns,
               .rows = rows_where<is_sensor_of_kind<SENSOR_KIND_NUMERIC>>,
               .empty = empty_rule::next_only, .trace = walk_trace::dump_next_row,
               .unsupported_mode = "%s:unsupported mode(%d)\n",
               .before_serving = read_sensor_first<failed_read::any_but_0>)

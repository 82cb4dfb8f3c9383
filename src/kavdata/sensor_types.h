// What units and sensor types of the platform become in the MIB's terms.
// Every value here must have a label in the MIB modules; a test compares them.
#ifndef KAVPLAT_KAVDATA_SENSOR_TYPES_H
#define KAVPLAT_KAVDATA_SENSOR_TYPES_H

#include "kavdata/codes.h"
#include "platform/capi.h"

#include <cstdint>

namespace kavplat
{

struct units_row {
    int32_t units;     // enum capi_sensor_units
    int32_t type;      // sensor type, 0: stays
    int32_t base_unit; // base units
};

inline constexpr units_row units_rows[] = {
    {CAPI_UNITS_DEGREES_C, kavPlatSensorType::temperature, kavPlatNumericSensorBaseUnits::degreesC},
    {CAPI_UNITS_DEGREES_F, kavPlatSensorType::temperature, kavPlatNumericSensorBaseUnits::degreesF},
    {CAPI_UNITS_KELVIN, kavPlatSensorType::temperature, kavPlatNumericSensorBaseUnits::kelvin},
    {CAPI_UNITS_VOLTS, kavPlatSensorType::voltage, kavPlatNumericSensorBaseUnits::volts},
    {CAPI_UNITS_AMPS, kavPlatSensorType::electricCurrent, kavPlatNumericSensorBaseUnits::amps},
    {CAPI_UNITS_WATTS, 0, kavPlatNumericSensorBaseUnits::watts},
    {CAPI_UNITS_RPM, kavPlatSensorType::tachometer, kavPlatNumericSensorBaseUnits::rpm},
    {CAPI_UNITS_HERTZ, 0, kavPlatNumericSensorBaseUnits::hertz},
    {CAPI_UNITS_PERCENT, 0, kavPlatNumericSensorBaseUnits::percent},
    {CAPI_UNITS_HOURS, kavPlatSensorType::other, kavPlatNumericSensorBaseUnits::hours},
};

struct binary_type_row {
    int32_t sensor_type; // enum capi_sensor_type
    const char *trace;
    int32_t type;
};

inline constexpr binary_type_row binary_type_rows[] = {
    {CAPI_SENSOR_PRESENCE, "%s:PRESENCE\n", kavPlatSensorType::presence},
    {CAPI_SENSOR_VOLTAGE, "%s:VOLTAGE\n", kavPlatSensorType::voltage},
    {CAPI_SENSOR_TEMPERATURE, "%s:TEMPERATURE\n", kavPlatSensorType::temperature},
    {CAPI_SENSOR_CURRENT, "%s:CURRENT\n", kavPlatSensorType::electricCurrent},
    {CAPI_SENSOR_TACHOMETER, "%s:TACHOMETER\n", kavPlatSensorType::tachometer},
};

} // namespace kavplat

#endif

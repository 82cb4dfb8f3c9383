// What units and sensor types of the platform become in the MIB's terms.
// Every value here must have a label in the MIB modules; a test compares them.
#ifndef KAVPLAT_KAVDATA_SENSOR_TYPES_H
#define KAVPLAT_KAVDATA_SENSOR_TYPES_H

#include "kavdata/phys_entry.h"
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
    {CAPI_UNITS_DEGREES_C, 3, 3}, {CAPI_UNITS_DEGREES_F, 3, 4}, {CAPI_UNITS_KELVIN, 3, 5},
    {CAPI_UNITS_VOLTS, 4, 6},     {CAPI_UNITS_AMPS, 5, 7},      {CAPI_UNITS_WATTS, 0, 8},
    {CAPI_UNITS_RPM, 6, 20},      {CAPI_UNITS_HERTZ, 0, 21},    {CAPI_UNITS_PERCENT, 0, 66},
    {CAPI_UNITS_HOURS, 1, 24},
};

struct binary_type_row {
    int32_t sensor_type; // enum capi_sensor_type
    const char *trace;
    int32_t type;
};

inline constexpr binary_type_row binary_type_rows[] = {
    {CAPI_SENSOR_PRESENCE, "%s:PRESENCE\n", 12},      {CAPI_SENSOR_VOLTAGE, "%s:VOLTAGE\n", 4},
    {CAPI_SENSOR_TEMPERATURE, "%s:TEMPERATURE\n", 3}, {CAPI_SENSOR_CURRENT, "%s:CURRENT\n", 5},
    {CAPI_SENSOR_TACHOMETER, "%s:TACHOMETER\n", 6},
};

} // namespace kavplat

#endif

// What component types and sensor codes of the platform become in the MIB's terms.
// Every value here must have a label in the MIB modules; a test compares them.
#ifndef KAVPLAT_KAVDATA_SENSOR_TYPES_H
#define KAVPLAT_KAVDATA_SENSOR_TYPES_H

#include "kavdata/phys_entry.h"
#include "platform/capi.h"

#include <array>
#include <cstdint>

namespace kavplat
{

// Component types by PhysicalClass; a type that is in no row is class other(1).
// The midplane (59) is other too, though it takes the chassis texts: meant.
struct class_row {
    int32_t physical_class;
    std::array<uint8_t, 25> types; // 0 fills the rest
};

inline constexpr class_row class_rows[] = {
    {PHYSICAL_CLASS_CONTAINER, {6,   7,   8,   14,  33,  34,  35,  41,  55,  56,  82,  104, 105,
                                138, 139, 152, 153, 154, 155, 156, 157, 159, 160, 163, 176}},
    {PHYSICAL_CLASS_CHASSIS, {2, 3}},
    {PHYSICAL_CLASS_BACKPLANE, {48, 158, 164}},
    {PHYSICAL_CLASS_MODULE,
     {9, 10, 15, 29, 40, 47, 52, 83, 88, 89, 90, 95, 98, 103, 115, 149, 161, 162, 165, 173, 174}},
    {PHYSICAL_CLASS_POWER_SUPPLY, {4, 44, 45, 94}},
    {PHYSICAL_CLASS_FAN, {12, 13, 42, 43, 106, 107, 108}},
    {PHYSICAL_CLASS_UNKNOWN, {92, 99}}, // and type 0
};

constexpr auto make_class_of_type()
{
    std::array<uint8_t, 177> classes{};
    for (uint8_t &c : classes) {
        c = PHYSICAL_CLASS_OTHER;
    }
    for (const class_row &row : class_rows) {
        for (const uint8_t type : row.types) {
            if (type != 0) {
                classes[type] = static_cast<uint8_t>(row.physical_class);
            }
        }
    }
    classes[0] = PHYSICAL_CLASS_UNKNOWN;
    return classes;
}

inline constexpr std::array<uint8_t, 177> class_of_type = make_class_of_type();

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

/*
 * The names that a description may use in place of a code of the component
 * API, one line a name.
 */
#ifndef KAVPLAT_DESCRIBED_CODES_H
#define KAVPLAT_DESCRIBED_CODES_H

#include "platform/capi.h"

#include <cstdint>
#include <span>
#include <string_view>

namespace described_platform
{

struct named_code {
    std::string_view name;
    double value;
};
using code_table = std::span<const named_code>;

struct named_capability {
    std::string_view name;
    uint8_t byte;
    uint8_t mask;
};

inline constexpr named_capability capability_names[] = {
    {"stateful", CAPI_CAP_STATEFUL_BYTE, CAPI_CAP_STATEFUL},
    {"field-replaceable", CAPI_CAP_FIELD_REPLACEABLE_BYTE, CAPI_CAP_FIELD_REPLACEABLE},
    {"holder", CAPI_CAP_HOLDER_BYTE, CAPI_CAP_HOLDER},
    {"power-readable", CAPI_CAP_POWER_BYTE, CAPI_CAP_POWER_READABLE},
    {"power-controllable", CAPI_CAP_POWER_BYTE, CAPI_CAP_POWER_CONTROLLABLE},
    {"power-standby", CAPI_CAP_POWER_BYTE, CAPI_CAP_POWER_STANDBY},
    {"fru-info", CAPI_CAP_FRU_INFO_BYTE, CAPI_CAP_FRU_INFO},
    {"hot-pluggable", CAPI_CAP_HOT_PLUGGABLE_BYTE, CAPI_CAP_HOT_PLUGGABLE},
    {"enable-state", CAPI_CAP_ENABLE_STATE_BYTE, CAPI_CAP_ENABLE_STATE},
    {"resettable", CAPI_CAP_RESETTABLE_BYTE, CAPI_CAP_RESETTABLE},
};

inline constexpr named_code power_codes[] = {
    {"off", CAPI_POWER_OFF},
    {"on", CAPI_POWER_ON},
    {"standby", CAPI_POWER_STANDBY},
    {"shutting-down", CAPI_POWER_SHUTTING_DOWN},
};

/* The truth values read as the answer to "ready to remove?". */
inline constexpr named_code ready_codes[] = {
    {"ready", CAPI_READY_TO_REMOVE},
    {"not-ready", CAPI_NOT_READY_TO_REMOVE},
    {"true", CAPI_READY_TO_REMOVE},
    {"false", CAPI_NOT_READY_TO_REMOVE},
};

inline constexpr named_code enable_codes[] = {
    {"disabled", CAPI_DISABLED},
    {"enabled", CAPI_ENABLED},
};

inline constexpr named_code indicator_codes[] = {
    {"off", CAPI_INDICATOR_OFF},
    {"on", CAPI_INDICATOR_ON},
    {"slow-blink", CAPI_INDICATOR_SLOW_BLINK},
    {"fast-blink", CAPI_INDICATOR_FAST_BLINK},
    {"standby-blink", CAPI_INDICATOR_STANDBY_BLINK},
};

/* What it means that an indicator is on. */
inline constexpr named_code meaning_codes[] = {
    {"service", CAPI_MEANS_SERVICE},
    {"fault", CAPI_MEANS_FAULT},
};

inline constexpr named_code sensor_class_codes[] = {
    {"threshold", CAPI_SENSOR_THRESHOLD},
    {"discrete", CAPI_SENSOR_DISCRETE},
};

inline constexpr named_code sensor_type_codes[] = {
    {"other", 0},
    {"temperature", CAPI_SENSOR_TEMPERATURE},
    {"voltage", CAPI_SENSOR_VOLTAGE},
    {"current", CAPI_SENSOR_CURRENT},
    {"tachometer", CAPI_SENSOR_TACHOMETER},
    {"presence", CAPI_SENSOR_PRESENCE},
    {"humidity", CAPI_SENSOR_HUMIDITY},
};

inline constexpr named_code sensor_units_codes[] = {
    {"none", 0},
    {"degrees-c", CAPI_UNITS_DEGREES_C},
    {"degrees-f", CAPI_UNITS_DEGREES_F},
    {"kelvin", CAPI_UNITS_KELVIN},
    {"volts", CAPI_UNITS_VOLTS},
    {"amps", CAPI_UNITS_AMPS},
    {"watts", CAPI_UNITS_WATTS},
    {"rpm", CAPI_UNITS_RPM},
    {"hertz", CAPI_UNITS_HERTZ},
    {"percent", CAPI_UNITS_PERCENT},
    {"hours", CAPI_UNITS_HOURS},
};

/* A discrete sensor is true at exactly 2.0. */
inline constexpr double reading_asserted = 2.0;
inline constexpr double reading_deasserted = 1.0;

/* Readings of a discrete sensor. */
inline constexpr named_code discrete_codes[] = {
    {"asserted", reading_asserted},
    {"deasserted", reading_deasserted},
    {"present", reading_asserted},
    {"absent", reading_deasserted},
};

inline constexpr named_code state_codes[] = {
    {"ok", 0.0},
    {"failed", 1.0},
};

inline constexpr named_code truth_codes[] = {
    {"true", 1.0},
    {"false", 0.0},
};

} // namespace described_platform

#endif

// The six thresholds of a numeric sensor: where the platform gives each, where it is
// kept, its bit in the mask, and what a reading beyond it is worth.
#ifndef KAVPLAT_KAVDATA_THRESHOLDS_H
#define KAVPLAT_KAVDATA_THRESHOLDS_H

#include "kavdata/codes.h"
#include "kavdata/phys_entry.h"
#include "platform/capi.h"

namespace kavplat
{

struct threshold {
    float capi_sensor_record::*source;
    int32_t phys_entry::*field;
    unsigned valid_flag; // in the record's flags
    unsigned bit;        // of the BITS: kavPlatNumericSensorThresholds
    bool is_upper;       // crossed by a reading at or above it, else at or below
    int32_t severity;    // kavPlatEquipmentSeverity of a reading that crossed it

    // The first bit of BITS is the highest of the octet.
    constexpr unsigned mask_bit() const { return 0x80U >> bit; }
};

inline constexpr threshold thresholds[] = {
    {&capi_sensor_record::upper_fatal, &phys_entry::numericSensorCol13, CAPI_UPPER_FATAL_VALID,
     kavPlatNumericSensorThresholds::upperFatal, true, kavPlatEquipmentSeverity::critical},
    {&capi_sensor_record::upper_critical, &phys_entry::numericSensorCol12,
     CAPI_UPPER_CRITICAL_VALID, kavPlatNumericSensorThresholds::upperCritical, true,
     kavPlatEquipmentSeverity::major},
    {&capi_sensor_record::upper_non_critical, &phys_entry::numericSensorCol11,
     CAPI_UPPER_NON_CRITICAL_VALID, kavPlatNumericSensorThresholds::upperNonCritical, true,
     kavPlatEquipmentSeverity::warning},
    {&capi_sensor_record::lower_fatal, &phys_entry::numericSensorCol10, CAPI_LOWER_FATAL_VALID,
     kavPlatNumericSensorThresholds::lowerFatal, false, kavPlatEquipmentSeverity::critical},
    {&capi_sensor_record::lower_critical, &phys_entry::numericSensorCol9, CAPI_LOWER_CRITICAL_VALID,
     kavPlatNumericSensorThresholds::lowerCritical, false, kavPlatEquipmentSeverity::major},
    {&capi_sensor_record::lower_non_critical, &phys_entry::numericSensorCol8,
     CAPI_LOWER_NON_CRITICAL_VALID, kavPlatNumericSensorThresholds::lowerNonCritical, false,
     kavPlatEquipmentSeverity::warning},
};

inline constexpr uint8_t all_thresholds = [] {
    unsigned mask = 0;
    for (const threshold &t : thresholds) {
        mask |= t.mask_bit();
    }
    return static_cast<uint8_t>(mask);
}();

} // namespace kavplat

#endif

// The MIB's words for its numbers, as object::word. A test compares them with the
// labels of the modules, so nobody has to look a number up.
#ifndef KAVPLAT_KAVDATA_CODES_H
#define KAVPLAT_KAVDATA_CODES_H

#include <cstdint>

// clang-format off
#define KAV_CODES(OBJECT)                                                                          \
    OBJECT(kavPlatEquipmentAdminState, locked = 1, unlocked = 2, shuttingDown = 3)                 \
    OBJECT(kavPlatEquipmentOperState, disabled = 1, enabled = 2)                                   \
    OBJECT(kavPlatEquipmentSeverity, critical = 1, major = 2, minor = 3, indeterminate = 4,        \
           warning = 5, pending = 6, cleared = 7)                                                  \
    OBJECT(kavPlatHolderType, bay = 1, shelf = 2, drawer = 3, slot = 4, rack = 5)                  \
    OBJECT(kavPlatHolderOccupancy, holderEmpty = 1, inTheAcceptableList = 2,                       \
           notInTheAcceptableList = 3, unknownType = 4)                                            \
    OBJECT(kavPlatHolderPowerState, other = 1, unknown = 2, on = 3, off = 4)                       \
    OBJECT(kavPlatPhysicalClass, other = 1, alarm = 2, watchdog = 3)                               \
    OBJECT(kavPlatSensorType, other = 1, unknown = 2, temperature = 3, voltage = 4,                \
           electricCurrent = 5, tachometer = 6, counter = 7, switch_ = 8, lock = 9, humidity = 10, \
           smokeDetection = 11, presence = 12)                                                     \
    OBJECT(kavPlatNumericSensorBaseUnits, other = 1, unknown = 2, degreesC = 3, degreesF = 4,      \
           kelvin = 5, volts = 6, amps = 7, watts = 8, rpm = 20, hertz = 21, hours = 24,           \
           percent = 66)                                                                           \
    OBJECT(kavPlatNumericSensorRateUnits, none = 1)                                                \
    OBJECT(kavPlatNumericSensorThresholds, lowerNonCritical = 0, upperNonCritical = 1,             \
           lowerCritical = 2, upperCritical = 3, lowerFatal = 4, upperFatal = 5)                   \
    OBJECT(kavPlatFanKind, unknown = 2)                                                            \
    OBJECT(kavPlatAlarmKind, other = 1, visible = 3)                                               \
    OBJECT(kavPlatAlarmState, unknown = 1, off = 2, steady = 3, alternating = 4)                   \
    OBJECT(kavPlatAlarmUrgency, notKnown = 3, usual = 4)                                           \
    OBJECT(kavPlatPowerSupplyKind, notBattery = 2, battery = 3)                                    \
    OBJECT(kavPlatBatteryKind, unknown = 2)                                                        \
    OBJECT(entStateAdmin, unknown = 1, locked = 2, shuttingDown = 3, unlocked = 4)                 \
    OBJECT(entStateOper, unknown = 1, disabled = 2, enabled = 3, testing = 4)                      \
    OBJECT(entStateUsage, unknown = 1, idle = 2, active = 3, busy = 4)                             \
    OBJECT(entStateAlarm, unknown = 0, underRepair = 1, critical = 2, major = 3, minor = 4,        \
           warning = 5, indeterminate = 6)                                                         \
    OBJECT(entStateStandby, unknown = 1, hotStandby = 2, coldStandby = 3, providingService = 4)
// clang-format on

namespace kavplat
{

#define KAV_CODES_OF(object, ...)                                                                  \
    namespace object                                                                               \
    {                                                                                              \
    enum : int32_t { __VA_ARGS__ };                                                                \
    }
KAV_CODES(KAV_CODES_OF)
#undef KAV_CODES_OF

} // namespace kavplat

#endif

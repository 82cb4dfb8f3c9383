// How ENTITY-SENSOR-MIB measures a sensor: type, precision and unit by what the
// sensor is, never by what it reads. Managers take precision and scale once, when
// they discover a sensor, and several ignore the scale; so both stay for the life of
// a row, and the scale is units(9) everywhere.
#ifndef KAVPLAT_KAVDATA_MEASURE_H
#define KAVPLAT_KAVDATA_MEASURE_H

#include "kavdata/phys_entry.h"

#include <cstdint>

namespace kavplat
{

// EntitySensorDataType (RFC 3433), as far as it is served.
enum class sensor_data_type : int32_t {
    other = 1,
    voltsAC = 3,
    voltsDC = 4,
    amperes = 5,
    watts = 6,
    hertz = 7,
    celsius = 8,
    percentRH = 9,
    rpm = 10,
    truthvalue = 12
};

// EntitySensorStatus (RFC 3433).
enum class sensor_status : int32_t { ok = 1, unavailable = 2, nonoperational = 3 };

inline constexpr int32_t scale_units = 9; // EntitySensorDataScale units(9)

// The ends of EntitySensorValue's range: what is beyond is served as this.
inline constexpr int32_t largest_value = 1000000000;

struct measure {
    sensor_data_type type;
    int precision;       // decimals of the value
    const char *display; // entPhySensorUnitsDisplay
};

// The same for an entry for as long as it lives.
const measure &measure_of(const phys_entry &sensor);

// What the last look at the sensor is worth.
sensor_status status_of(const phys_entry &sensor);

// reading x 10^precision in the measure's unit, rounded half away from zero; 0
// unless the status is ok.
int32_t value_of(const phys_entry &sensor);

// The same of any number in the platform's units, such as a limit of the sensor; 0 for
// no number.
int32_t scaled(const phys_entry &sensor, float number);

} // namespace kavplat

#endif

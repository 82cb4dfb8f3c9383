#include "kavdata/measure.h"

#include "kavdata/codes.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <iterator>

namespace kavplat
{

namespace
{

double as_it_is(double reading)
{
    return reading;
}

double from_fahrenheit(double reading)
{
    return (reading - 32) * 5 / 9;
}

double from_kelvin(double reading)
{
    return reading - 273.15;
}

// By the base units that the platform's numeric table serves for the sensor.
struct unit_row {
    int32_t base_units;
    measure served;
    double (*convert)(double reading);
};

using enum sensor_data_type;
namespace units = kavPlatNumericSensorBaseUnits;

constexpr unit_row by_base_units[] = {
    {units::degreesC, {celsius, 1, "degrees C"}, as_it_is},
    {units::degreesF, {celsius, 1, "degrees C"}, from_fahrenheit},
    {units::kelvin, {celsius, 1, "degrees C"}, from_kelvin},
    {units::volts, {voltsDC, 3, "volts"}, as_it_is},
    {units::amps, {amperes, 3, "amperes"}, as_it_is},
    {units::watts, {watts, 1, "watts"}, as_it_is},
    {units::rpm, {rpm, 0, "RPM"}, as_it_is},
    {units::hertz, {hertz, 2, "hertz"}, as_it_is}, // of the mains,
    {units::hours, {other, 0, "hours"}, as_it_is},
    {units::percent, {other, 1, "%"}, as_it_is},
};

constexpr unit_row humidity = {units::percent, {percentRH, 1, "%"}, as_it_is};
constexpr unit_row alternating_volts = {units::volts, {voltsAC, 3, "volts AC"}, as_it_is};
constexpr unit_row without_unit = {units::other, {other, 0, ""}, as_it_is};
constexpr measure yes_or_no = {truthvalue, 0, ""};

const unit_row &unit_of(const phys_entry &sensor)
{
    const auto *row =
        std::ranges::find(by_base_units, sensor.numericSensorCol1, &unit_row::base_units);
    if (row == std::end(by_base_units)) {
        return without_unit;
    }
    const bool is_humidity =
        row->base_units == humidity.base_units && sensor.sensorCol2 == kavPlatSensorType::humidity;
    if (is_humidity) {
        return humidity;
    }
    return row->base_units == units::volts && sensor.isAlternating ? alternating_volts : *row;
}

// The number that was meant: 0.35 as a float is 0.349999994, half of a tenth less
// than nothing, and would be rounded down.
double shortest_decimal(float number)
{
    char text[64];
    const std::to_chars_result end = std::to_chars(text, std::end(text) - 1, number);
    *end.ptr = '\0';
    return strtod(text, nullptr);
}

} // namespace

const measure &measure_of(const phys_entry &sensor)
{
    return sensor.sensorKind == SENSOR_KIND_BINARY ? yes_or_no : unit_of(sensor).served;
}

sensor_status status_of(const phys_entry &sensor)
{
    const sensor_look &look = sensor.look;
    if (look.disabled || look.outcome == LOOK_INVALID) {
        return sensor_status::nonoperational;
    }
    if (look.outcome != LOOK_READ || std::isnan(look.reading)) {
        return sensor_status::unavailable;
    }
    return sensor_status::ok;
}

int32_t value_of(const phys_entry &sensor)
{
    if (status_of(sensor) != sensor_status::ok) {
        return 0;
    }
    if (sensor.sensorKind == SENSOR_KIND_BINARY) {
        return sensor.look.reading == 2.0F ? TRUTH_TRUE : TRUTH_FALSE;
    }
    return scaled(sensor, sensor.look.reading);
}

int32_t scaled(const phys_entry &sensor, float number)
{
    if (std::isnan(number)) {
        return 0;
    }
    const unit_row &unit = unit_of(sensor);
    const double exact =
        unit.convert(shortest_decimal(number)) * std::pow(10.0, unit.served.precision);
    // A half that a conversion made a little less of is a half all the same.
    constexpr double conversion_error = 1e-9;
    const double rounded = std::round(exact + std::copysign(conversion_error, exact));
    return static_cast<int32_t>(std::clamp(rounded, -double{largest_value}, double{largest_value}));
}

} // namespace kavplat

#include "kavdata/severity.h"

#include "kavdata/cache.h"
#include "kavdata/measure.h"
#include "kavdata/thresholds.h"

#include <algorithm>
#include <iterator>

namespace kavplat
{

namespace
{

namespace severities = kavPlatEquipmentSeverity;

bool is_reached(const phys_entry &sensor, size_t place)
{
    const threshold &t = thresholds[place];
    if (!(relaxed_load(sensor.thresholdMask) & t.mask_bit())) {
        return false;
    }
    const float limit = relaxed_load(sensor.limits[place]);
    return t.is_upper ? sensor.look.reading >= limit : sensor.look.reading <= limit;
}

int32_t numeric_severity(const phys_entry &sensor)
{
    int32_t gravest = severities::cleared;
    for (size_t i = 0; i < std::size(thresholds); i++) {
        if (is_reached(sensor, i)) {
            gravest = std::min(gravest, thresholds[i].severity);
        }
    }
    return gravest;
}

int32_t binary_severity(const phys_entry &sensor)
{
    if (sensor.binarySensorValue1 == sensor.binarySensorValue2) {
        return severities::cleared;
    }
    switch (sensor.capiComponentType) {
    case CAPI_TYPE_FAULT_SENSOR:
        return severities::major;
    case CAPI_TYPE_PREDICTIVE_SENSOR:
        return severities::warning;
    default:
        return severities::cleared;
    }
}

} // namespace

int32_t severity_at_last_look(const phys_entry &entry)
{
    if (entry.entPhysicalClass != PHYSICAL_CLASS_SENSOR ||
        entry.capiComponentType == CAPI_TYPE_SLOT_IDENTITY) {
        return severities::cleared;
    }
    if (status_of(entry) != sensor_status::ok) {
        return severities::indeterminate;
    }
    switch (entry.sensorKind) {
    case SENSOR_KIND_NUMERIC:
        return numeric_severity(entry);
    case SENSOR_KIND_BINARY:
        return binary_severity(entry);
    default:
        return severities::cleared;
    }
}

int reached_limit(const phys_entry &sensor, int32_t severity)
{
    for (size_t i = 0; i < std::size(thresholds); i++) {
        if (thresholds[i].severity == severity && is_reached(sensor, i)) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

} // namespace kavplat

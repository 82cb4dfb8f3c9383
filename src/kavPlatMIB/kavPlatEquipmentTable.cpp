// Operational state of most physical entities.
#include "kavPlatMIB/platform_table.h"

#include "kavdata/live.h"
#include "kavdata/thresholds.h"
#include "trace/trace.h"

#include <algorithm>

namespace kavplat
{

namespace
{

constexpr char handler[] = "kavPlatEquipmentTable_handler";

// X.731 states and X.733 severities, as far as they are served.
namespace oper = kavPlatEquipmentOperState;
namespace severities = kavPlatEquipmentSeverity;

// Other, and chassis to module: not unknown, port or stack.
bool is_row(const phys_entry &entry)
{
    return entry.entPhysicalClass == PHYSICAL_CLASS_OTHER ||
           (entry.entPhysicalClass >= PHYSICAL_CLASS_CHASSIS &&
            entry.entPhysicalClass <= PHYSICAL_CLASS_MODULE);
}

int32_t admin_state(phys_entry &entry)
{
    const uint32_t now = agent_uptime();
    if (has_admin_state(entry) && !is_renewed(entry.adminTime, now)) {
        apply_admin_state(handler, entry, ask_admin_state(entry.entPhysicalName), now);
    }
    return entry.equipmentCol1;
}

// The stamp of the last read is shared with sensor and indicator reads, so a
// sensor whose enable state was just read is not read for ten seconds: meant.
int32_t oper_state(phys_entry &entry)
{
    const bool supplies = entry.entPhysicalClass == PHYSICAL_CLASS_POWER_SUPPLY ||
                          entry.entPhysicalClass == PHYSICAL_CLASS_FAN;
    if (supplies && entry.sensorKind == SENSOR_KIND_DISCRETE) {
        entry.equipmentCol2 = entry.discreteSensorValue == 2 ? oper::disabled : oper::enabled;
    }
    if (has_enable_state(entry)) {
        const uint32_t now = agent_uptime();
        if (!is_renewed(entry.look.state_time, now) && !is_fresh(entry.lastReadTime, now)) {
            apply_enable_state(handler, entry, ask_enable_state(entry.entPhysicalName), now);
        }
    }
    return entry.equipmentCol2;
}

// The gravest of the thresholds that the reading crossed, if any; the lower the
// number, the graver.
int32_t numeric_severity(const phys_entry &entry)
{
    const int32_t reading = entry.numericSensorCol4;
    const uint8_t mask = relaxed_load(entry.thresholdMask);
    int32_t gravest = severities::cleared;
    for (const threshold &t : thresholds) {
        const int32_t limit = relaxed_load(entry.*t.field);
        if ((mask & t.mask_bit()) && (t.is_upper ? reading >= limit : reading <= limit)) {
            gravest = std::min(gravest, t.severity);
        }
    }
    return gravest;
}

int32_t discrete_severity(const phys_entry &entry)
{
    if (entry.capiComponentType == CAPI_TYPE_FAULT_SENSOR) {
        // Asked by name where a read asks with the record: meant.
        const int32_t value = entry.discreteSensorValue;
        if ((value == 2 && capi_is_sensor_with_OK_semantics(entry.entPhysicalName) == 0) ||
            (value == 1 && capi_is_sensor_with_OK_semantics(entry.entPhysicalName) == 1)) {
            return severities::major;
        }
    } else if (entry.capiComponentType == CAPI_TYPE_PREDICTIVE_SENSOR &&
               entry.discreteSensorValue == 1) {
        return severities::warning;
    }
    return severities::cleared;
}

int32_t binary_severity(const phys_entry &entry)
{
    if (entry.binarySensorValue1 != entry.binarySensorValue2) {
        if (entry.capiComponentType == CAPI_TYPE_FAULT_SENSOR) {
            return severities::major;
        }
        if (entry.capiComponentType == CAPI_TYPE_PREDICTIVE_SENSOR) {
            return severities::warning;
        }
    }
    return severities::cleared;
}

int32_t compute_severity(phys_entry &entry) KAV_REQUIRES(cache_lock)
{
    if (entry.entPhysicalClass != PHYSICAL_CLASS_SENSOR ||
        entry.sensorCol2 == kavPlatSensorType::unknown || snmp_read_sensor(&entry) != 0) {
        return severities::indeterminate;
    }
    switch (entry.sensorKind) {
    case SENSOR_KIND_NUMERIC:
        return numeric_severity(entry);
    case SENSOR_KIND_DISCRETE:
        return discrete_severity(entry);
    case SENSOR_KIND_BINARY:
        return binary_severity(entry);
    default:
        return severities::cleared;
    }
}

int32_t severity(phys_entry &entry) KAV_REQUIRES(cache_lock)
{
    entry.equipmentCol3 = compute_severity(entry);
    return entry.equipmentCol3;
}

const char *container_name(phys_entry &entry)
{
    const auto container = static_cast<uint32_t>(entry.entPhysicalContainedIn);
    const phys_entry *holder = container != 0 ? entry_at(container) : nullptr;
    return holder && holder->entPhysicalName ? holder->entPhysicalName : "unknown";
}

constexpr column columns[] = {
    integer_from<admin_state>(1, "kavPlatEquipmentAdminState"),
    integer_from<oper_state>(2, "kavPlatEquipmentOperState"),
    integer_from<severity>(3, "kavPlatEquipmentSeverity"),
    integer<&phys_entry::equipmentCol4>(4, "kavPlatEquipmentStateUnknown"),
    text_from<container_name>(5, "kavPlatEquipmentContainerName"),
};

} // namespace

} // namespace kavplat

KAV_PLAT_TABLE(kavPlatEquipmentTable, 2, .columns = columns, .rows = rows_where<is_row>,
               .trace = walk_trace::dump_steps)

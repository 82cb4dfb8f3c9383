// Operational state of most physical entities.
#include "kavPlatMIB/platform_table.h"

#include "kavdata/cache.h"
#include "trace/trace.h"

namespace kavplat
{

namespace
{

constexpr char handler[] = "kavPlatEquipmentTable_handler";

// X.731 administrative states, as far as they are served.
enum { LOCKED = 1, UNLOCKED = 2, SHUTTING_DOWN = 3 };

// X.731 operational states.
enum { DISABLED = 1, ENABLED = 2 };

// X.733 perceived severities, as far as they are served.
enum { CRITICAL = 1, MAJOR = 2, INDETERMINATE = 4, WARNING = 5, CLEARED = 7 };

// Other, and chassis to module: not unknown, port or stack.
bool is_row(const phys_entry &entry)
{
    return entry.entPhysicalClass == PHYSICAL_CLASS_OTHER ||
           (entry.entPhysicalClass >= PHYSICAL_CLASS_CHASSIS &&
            entry.entPhysicalClass <= PHYSICAL_CLASS_MODULE);
}

int32_t admin_state(phys_entry &entry)
{
    if (entry.capiCaps[CAPI_CAP_FIELD_REPLACEABLE_BYTE] & CAPI_CAP_FIELD_REPLACEABLE) {
        int32_t value = 0;
        if (capi_get_rdy2rm_status(0, entry.entPhysicalName, &value) == 0) {
            entry.equipmentCol1 = value == CAPI_NOT_READY_TO_REMOVE ? UNLOCKED : LOCKED;
        } else if (!has_failed(handler, polled_call::power_state, entry,
                               capi_get_power_state(0, entry.entPhysicalName, &value))) {
            // That one of the two is not known is no failure.
            entry.equipmentCol1 = value == CAPI_POWER_ON              ? UNLOCKED
                                  : value == CAPI_POWER_SHUTTING_DOWN ? SHUTTING_DOWN
                                                                      : LOCKED;
        }
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
        entry.equipmentCol2 = entry.discreteSensorValue == 2 ? DISABLED : ENABLED;
    }
    if (entry.capiCaps[CAPI_CAP_ENABLE_STATE_BYTE] & CAPI_CAP_ENABLE_STATE) {
        const uint32_t now = agent_uptime();
        int32_t state = 0;
        char reason[20];
        if (!is_fresh(entry.lastReadTime, now) &&
            !has_failed(handler, polled_call::enable_state, entry,
                        capi_get_enable_disable_state(entry.entPhysicalName, &state, reason,
                                                      sizeof reason))) {
            entry.lastReadTime = now;
            entry.equipmentCol2 = state == CAPI_DISABLED ? DISABLED : ENABLED;
        }
    }
    return entry.equipmentCol2;
}

// A later match overrides an earlier one; a crossed lower fatal threshold ends it.
int32_t numeric_severity(const phys_entry &entry)
{
    const int32_t reading = entry.numericSensorCol4;
    const uint8_t mask = relaxed_load(entry.thresholdMask);
    const auto at_most = [&](unsigned bit, const int32_t &threshold) {
        return (mask & bit) && reading <= relaxed_load(threshold);
    };
    const auto at_least = [&](unsigned bit, const int32_t &threshold) {
        return (mask & bit) && reading >= relaxed_load(threshold);
    };
    if (at_most(0x08, entry.numericSensorCol10) || at_least(0x04, entry.numericSensorCol13)) {
        return CRITICAL;
    }
    if (at_most(0x20, entry.numericSensorCol9) || at_least(0x10, entry.numericSensorCol12)) {
        return MAJOR;
    }
    if (at_most(0x80, entry.numericSensorCol8) || at_least(0x40, entry.numericSensorCol11)) {
        return WARNING;
    }
    return CLEARED;
}

int32_t discrete_severity(const phys_entry &entry)
{
    if (entry.capiComponentType == CAPI_TYPE_FAULT_SENSOR) {
        // Asked by name where a read asks with the record: meant.
        const int32_t value = entry.discreteSensorValue;
        if ((value == 2 && capi_is_sensor_with_OK_semantics(entry.entPhysicalName) == 0) ||
            (value == 1 && capi_is_sensor_with_OK_semantics(entry.entPhysicalName) == 1)) {
            return MAJOR;
        }
    } else if (entry.capiComponentType == CAPI_TYPE_PREDICTIVE_SENSOR &&
               entry.discreteSensorValue == 1) {
        return WARNING;
    }
    return CLEARED;
}

int32_t binary_severity(const phys_entry &entry)
{
    if (entry.binarySensorValue1 != entry.binarySensorValue2) {
        if (entry.capiComponentType == CAPI_TYPE_FAULT_SENSOR) {
            return MAJOR;
        }
        if (entry.capiComponentType == CAPI_TYPE_PREDICTIVE_SENSOR) {
            return WARNING;
        }
    }
    return CLEARED;
}

int32_t compute_severity(phys_entry &entry)
{
    if (entry.entPhysicalClass != PHYSICAL_CLASS_SENSOR || entry.sensorCol2 == 2 ||
        snmp_read_sensor(&entry) != 0) {
        return INDETERMINATE;
    }
    switch (entry.sensorKind) {
    case SENSOR_KIND_NUMERIC:
        return numeric_severity(entry);
    case SENSOR_KIND_DISCRETE:
        return discrete_severity(entry);
    case SENSOR_KIND_BINARY:
        return binary_severity(entry);
    default:
        return CLEARED;
    }
}

int32_t severity(phys_entry &entry)
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

constinit const table kavPlatEquipmentTable = {
    .name = "kavPlatEquipmentTable",
    .source = KAVPLAT_ROOM,
    .root = platform_oid<2>,
    .columns = columns,
    .rows = rows_where<is_row>,
    .trace = walk_trace::dump_steps,
    .get_first = kavPlatEquipmentTable_get_first_data_point,
    .get_next = kavPlatEquipmentTable_get_next_data_point,
    .handler = kavPlatEquipmentTable_handler,
};

} // namespace kavplat

KAV_PLAT_DEFINE_TABLE(kavPlatEquipmentTable)

// Live sensor readings and thresholds.
#include "kavdata/cache_internal.h"
#include "kavdata/live.h"
#include "kavdata/thresholds.h"
#include "trace/trace.h"

#include <cmath>
#include <cstdio>
#include <cstring>

namespace kavplat
{

namespace
{

// Exponent, mask and thresholds are written here without the lock by a refresh, so all
// of them are accessed atomically.

// Truncated toward zero; what does not fit saturates, no number is the lowest.
int32_t truncate(double value)
{
    if (std::isnan(value)) {
        return INT32_MIN;
    }
    if (value >= 2147483647.0) {
        return INT32_MAX;
    }
    if (value <= -2147483648.0) {
        return INT32_MIN;
    }
    return static_cast<int32_t>(value);
}

int32_t thousandths(float value)
{
    return truncate(double{value} * 1000.0);
}

void write_text(char *field, const char *text)
{
    if (field) {
        snprintf(field, SENSOR_TEXT_SIZE, "%s", text);
    }
}

void set_binary_texts(phys_entry *entry, const char *when_true, const char *when_false)
{
    write_text(entry->binarySensorText1, when_true);
    write_text(entry->binarySensorText2, when_false);
}

void read_numeric(phys_entry *entry, const capi_sensor_record &record)
{
    const int32_t current = truncate(record.reading);
    KAV_TRACE_AS("snmp_read_sensor", KAVPLAT_ROOM, "kavdata::sensor", "%s:numeric current=%d\n",
                 "snmp_read_sensor", current);
    entry->numericSensorCol4 = current;
    // Decided anew at each read and never undone here, though exponent and
    // thresholds may be those of a scaled read: meant.
    if (record.reading == static_cast<float>(record.raw_reading) ||
        entry->sensorCol2 == kavPlatSensorType::tachometer) {
        return;
    }
    KAV_TRACE_AS("snmp_read_sensor", KAVPLAT_ROOM, "kavdata::sensor", "%s:threshold adjust\n",
                 "snmp_read_sensor");
    relaxed_store(entry->numericSensorCol2, -3);
    entry->numericSensorCol4 = thousandths(record.reading);
    for (const threshold &t : thresholds) {
        relaxed_store(entry->*t.field, thousandths(record.*t.source));
    }
}

// Whether only the platform can say what such a sensor's states mean.
bool needs_semantics(const capi_sensor_record &record, uint32_t component_type)
{
    return component_type != CAPI_TYPE_SLOT_IDENTITY &&
           record.sensor_class == CAPI_SENSOR_DISCRETE && !(record.flags & CAPI_STATE_SEMANTICS) &&
           record.sensor_type != CAPI_SENSOR_PRESENCE;
}

void read_discrete(phys_entry *entry, const sensor_answer &answer)
{
    const capi_sensor_record &record = answer.record;
    entry->binarySensorValue1 = record.reading == 2.0F ? TRUTH_TRUE : TRUTH_FALSE;
    if (record.flags & CAPI_STATE_SEMANTICS) {
        if (record.state == 1.0F) {
            set_binary_texts(entry, "fail", "ok");
            entry->binarySensorValue2 = TRUTH_FALSE;
        } else {
            set_binary_texts(entry, "ok", "fail");
            entry->binarySensorValue2 = TRUTH_TRUE;
        }
    } else if (record.sensor_type == CAPI_SENSOR_PRESENCE) {
        entry->sensorCol2 = kavPlatSensorType::presence;
        set_binary_texts(entry, "Present", "Absent");
        entry->binarySensorValue2 = TRUTH_TRUE;
    } else if (answer.has_ok_semantics) {
        // The expected value stays as it was: meant.
        set_binary_texts(entry, "ok", "fail");
    } else if (strstr(record.name, "/SYS/IOX") && strstr(record.name, "SWITCH")) {
        set_binary_texts(entry, "on", "standby");
        entry->binarySensorValue2 = TRUTH_TRUE;
    } else {
        set_binary_texts(entry, "fail", "ok");
        entry->binarySensorValue2 = TRUTH_FALSE;
    }
}

// Asks the platform, whatever is known already: 0, or -1 without a valid reading.
int read_anew(phys_entry *entry, uint32_t now)
{
    const sensor_answer answer = ask_sensor(entry->entPhysicalName, entry->capiComponentType);
    if (answer.status != 0) {
        log_failed_sensor(entry->entPhysicalName, answer.status);
    }
    return apply_sensor(*entry, answer, now);
}

} // namespace

sensor_answer ask_sensor(const char *name, uint32_t component_type, const between_calls &between)
{
    sensor_answer answer = {};
    answer.status = capi_get_sensor(0, name, &answer.record);
    if (answer.status != 0) {
        return answer;
    }
    terminate(answer.record.name);
    if (answer.record.reading_status != CAPI_READING_INVALID &&
        needs_semantics(answer.record, component_type)) {
        between();
        answer.has_ok_semantics = capi_is_sensor_with_OK_semantics(&answer.record) != 0;
    }
    return answer;
}

void log_failed_sensor(const char *name, int status)
{
    snmp_log(LOG_ERR, "%s:FAILED:%s %s, status=%d\n", "snmp_read_sensor", "capi_get_sensor", name,
             status);
}

int apply_sensor(phys_entry &row, const sensor_answer &answer, uint32_t now)
{
    phys_entry *entry = &row;
    const capi_sensor_record &record = answer.record;
    entry->look.time = now;
    if (answer.status != 0) {
        entry->look.outcome = LOOK_FAILED;
        return -1;
    }
    if (record.reading_status == CAPI_READING_INVALID) {
        KAV_TRACE_AS("snmp_read_sensor", KAVPLAT_ROOM, "kavdata::sensor",
                     "%s:SENSOR_READING_INVALID\n", "snmp_read_sensor");
        entry->look.outcome = LOOK_INVALID;
        entry->equipmentCol4 = TRUTH_TRUE;
        entry->equipmentCol3 = kavPlatEquipmentSeverity::indeterminate;
        entry->equipmentCol2 = kavPlatEquipmentOperState::disabled;
        return -1;
    }
    entry->look.outcome = LOOK_READ;
    entry->look.reading = record.reading;
    entry->equipmentCol4 = TRUTH_FALSE;
    entry->lastReadTime = now;
    entry->equipmentCol2 = kavPlatEquipmentOperState::enabled;
    entry->equipmentCol3 = kavPlatEquipmentSeverity::cleared;
    if (entry->capiComponentType == CAPI_TYPE_SLOT_IDENTITY) {
        entry->numericSensorCol4 = truncate(record.reading);
        KAV_TRACE_AS("snmp_read_sensor", KAVPLAT_ROOM, "kavdata::sensor", "%s:SLOTID current=%d\n",
                     "snmp_read_sensor", entry->numericSensorCol4);
    } else if (record.sensor_class == CAPI_SENSOR_THRESHOLD) {
        read_numeric(entry, record);
    } else if (record.sensor_class == CAPI_SENSOR_DISCRETE) {
        read_discrete(entry, answer);
    }
    return 0;
}

void look_at_sensor(phys_entry &entry)
{
    const uint32_t now = agent_uptime();
    // Not by the stamp of the last read: that one is kept from moving by a failure,
    // and moved by a read of the enable state.
    if (!is_current(entry.look.time, now)) {
        read_anew(&entry, now);
    }
    if (!has_enable_state(entry) || is_current(entry.look.state_time, now)) {
        return;
    }
    const call_answer answer = ask_enable_state(entry.entPhysicalName);
    const bool is_known =
        !has_failed("look_at_sensor", polled_call::enable_state, entry, answer.status);
    entry.look.state_time = now;
    entry.look.disabled = is_known && answer.value == CAPI_DISABLED;
}

} // namespace kavplat

int snmp_read_sensor(phys_entry *entry)
{
    using namespace kavplat;

    if (!entry) {
        log_failure("snmp_read_sensor", "entry NULL");
        return -1;
    }
    if (!entry->entPhysicalName) {
        log_failure("snmp_read_sensor", "entPhysicalName NULL");
        return -1;
    }
    const uint32_t now = agent_uptime();
    if (is_renewed(entry->look.time, now)) {
        return entry->look.outcome == LOOK_READ ? 0 : -1;
    }
    return is_fresh(entry->lastReadTime, now) ? 0 : read_anew(entry, now);
}

void set_sensor_thresholds(phys_entry *entry, const struct capi_sensor_record *record)
{
    using namespace kavplat;

    unsigned mask = all_thresholds;
    relaxed_store(entry->numericSensorCol2, 0);
    float *limit = entry->limits;
    for (const threshold &t : thresholds) {
        relaxed_store(entry->*t.field, truncate(record->*t.source));
        relaxed_store(*limit++, record->*t.source);
        if (!(record->flags & t.valid_flag)) {
            mask &= ~t.mask_bit();
        }
    }
    relaxed_store(entry->thresholdMask, static_cast<uint8_t>(mask));
    KAV_TRACE("kavdata::sensor", "utf=%ld, utc=%ld, utnc=%ld, ltf=%ld, ltc=%ld, ltnc=%ld\n",
              long{relaxed_load(entry->numericSensorCol13)},
              long{relaxed_load(entry->numericSensorCol12)},
              long{relaxed_load(entry->numericSensorCol11)},
              long{relaxed_load(entry->numericSensorCol10)},
              long{relaxed_load(entry->numericSensorCol9)},
              long{relaxed_load(entry->numericSensorCol8)});
}

void reload_thresholds(const char *nac_name)
{
    using namespace kavplat;

    const unlocked_read reading;
    if (!std::atomic_ref(physicalTable).load(std::memory_order_acquire)) {
        return;
    }
    const uint32_t index = hash_nac(nac_name);
    phys_entry *entry = index != 0 ? entry_at(index) : nullptr;
    if (!entry) {
        return;
    }
    capi_sensor_record record = {};
    const int status = capi_get_sensor_info(entry->entPhysicalName, CAPI_SENSOR_INFO_ALL, &record);
    KAV_TRACE("kavdata::sensor", "name=%s,status=%d,sensor_class/type:%u/%u\n",
              entry->entPhysicalName, status, static_cast<unsigned>(record.sensor_class),
              static_cast<unsigned>(record.sensor_type));
    if (!has_failed("reload_thresholds", polled_call::sensor_info, *entry, status)) {
        set_sensor_thresholds(entry, &record);
    }
    relaxed_store(entLastChangeTime, agent_uptime());
}

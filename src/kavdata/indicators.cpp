// Live indicator (LED) states.
#include "kavdata/cache_internal.h"
#include "kavdata/codes.h"
#include "kavdata/live.h"
#include "trace/trace.h"

namespace kavplat
{

call_answer ask_indicator(const char *name)
{
    capi_indicator_record record = {};
    const int status = capi_get_indicator(0, name, &record);
    return {status, record.state};
}

void log_failed_indicator(const char *name)
{
    snmp_log(LOG_ERR, "%s:FAILED:%s(%s)\n", "snmp_read_led", "capi_get_indicator", name);
}

int apply_indicator(phys_entry &entry, const call_answer &answer, uint32_t now)
{
    entry.look.time = now;
    if (answer.status != 0) {
        entry.look.outcome = LOOK_FAILED;
        return -1;
    }
    entry.look.outcome = LOOK_READ;
    entry.lastReadTime = now;
    switch (answer.value) {
    case CAPI_INDICATOR_OFF:
        entry.alarmCol2 = kavPlatAlarmState::off;
        break;
    case CAPI_INDICATOR_ON:
        entry.alarmCol2 = kavPlatAlarmState::steady;
        break;
    case CAPI_INDICATOR_SLOW_BLINK:
    case CAPI_INDICATOR_FAST_BLINK:
    case CAPI_INDICATOR_STANDBY_BLINK:
        entry.alarmCol2 = kavPlatAlarmState::alternating;
        break;
    default:
        entry.alarmCol2 = kavPlatAlarmState::unknown;
        entry.alarmCol1 = kavPlatAlarmKind::other;
        entry.alarmCol3 = kavPlatAlarmUrgency::notKnown;
        break;
    }
    return 0;
}

} // namespace kavplat

int snmp_read_led(phys_entry *entry)
{
    using namespace kavplat;

    if (!entry) {
        log_failure("snmp_read_led", "entry NULL");
        return -1;
    }
    if (!entry->entPhysicalName) {
        log_failure("snmp_read_led", "entPhysicalName NULL");
        return -1;
    }
    const uint32_t now = agent_uptime();
    KAV_TRACE("kavdata::time", "%s:%s:n=%d:l=%d:d=%d\n", "snmp_read_led", entry->entPhysicalName,
              static_cast<int>(now), static_cast<int>(entry->lastReadTime),
              static_cast<int>(now - entry->lastReadTime));
    if (is_renewed(entry->look.time, now)) {
        return entry->look.outcome == LOOK_READ ? 0 : -1;
    }
    if (is_fresh(entry->lastReadTime, now)) {
        return 0;
    }
    const call_answer answer = ask_indicator(entry->entPhysicalName);
    if (answer.status != 0) {
        log_failed_indicator(entry->entPhysicalName);
    }
    return apply_indicator(*entry, answer, now);
}

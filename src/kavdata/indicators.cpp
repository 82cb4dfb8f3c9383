// Live indicator (LED) states.
#include "kavdata/cache_internal.h"
#include "kavdata/codes.h"
#include "trace/trace.h"

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
    if (is_fresh(entry->lastReadTime, now)) {
        return 0;
    }
    capi_indicator_record record = {};
    if (capi_get_indicator(0, entry->entPhysicalName, &record) != 0) {
        snmp_log(LOG_ERR, "%s:FAILED:%s(%s)\n", "snmp_read_led", "capi_get_indicator",
                 entry->entPhysicalName);
        return -1;
    }
    entry->lastReadTime = now;
    switch (record.state) {
    case CAPI_INDICATOR_OFF:
        entry->alarmCol2 = kavPlatAlarmState::off;
        break;
    case CAPI_INDICATOR_ON:
        entry->alarmCol2 = kavPlatAlarmState::steady;
        break;
    case CAPI_INDICATOR_SLOW_BLINK:
    case CAPI_INDICATOR_FAST_BLINK:
    case CAPI_INDICATOR_STANDBY_BLINK:
        entry->alarmCol2 = kavPlatAlarmState::alternating;
        break;
    default:
        entry->alarmCol2 = kavPlatAlarmState::unknown;
        entry->alarmCol1 = kavPlatAlarmKind::other;
        entry->alarmCol3 = kavPlatAlarmUrgency::notKnown;
        break;
    }
    return 0;
}

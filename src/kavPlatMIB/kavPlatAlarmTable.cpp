// The alarm indicators (LEDs).
#include "kavPlatMIB/platform_table.h"

namespace kavplat
{

namespace
{

bool is_indicator(const phys_entry &entry)
{
    return entry.entPhysicalClass == PHYSICAL_CLASS_OTHER &&
           entry.platPhysicalClass == kavPlatPhysicalClass::alarm;
}

// An indicator that can not be read is served as it was.
int32_t indicator_state(phys_entry &entry) KAV_REQUIRES(cache_lock)
{
    snmp_read_led(&entry);
    return entry.alarmCol2;
}

constexpr column columns[] = {
    integer<&phys_entry::alarmCol1>(1, "kavPlatAlarmKind"),
    integer_from<indicator_state>(2, "kavPlatAlarmState"),
    integer<&phys_entry::alarmCol3>(3, "kavPlatAlarmUrgency"),
};

} // namespace

} // namespace kavplat

KAV_PLAT_TABLE(kavPlatAlarmTable, 12, .columns = columns, .rows = rows_where<is_indicator>,
               .trace = walk_trace::dump_steps)

// Watchdogs. No component is marked as one, so there are no rows: meant.
#include "kavPlatMIB/platform_table.h"

#include <arpa/inet.h>

namespace kavplat
{

namespace
{

bool is_watchdog(const phys_entry &entry)
{
    return entry.entPhysicalClass == PHYSICAL_CLASS_OTHER &&
           entry.platPhysicalClass == kavPlatPhysicalClass::watchdog;
}

// One word serves both as a text and as a number: meant. The text is that of the
// word's big-endian image, so that every host answers the same.
cell shared_word_text(phys_entry &entry)
{
    const uint32_t image = htonl(static_cast<uint32_t>(entry.watchdogCol3));
    cell text;
    memcpy(text.octets, &image, sizeof image);
    text.length = strnlen(reinterpret_cast<const char *>(text.octets), sizeof image);
    return text;
}

constexpr column columns[] = {
    integer<&phys_entry::watchdogCol1>(1, "kavPlatWatchdogTimeout"),
    integer<&phys_entry::watchdogCol2>(2, "kavPlatWatchdogAction"),
    octets_from<shared_word_text>(3, "kavPlatWatchdogText"),
    integer<&phys_entry::watchdogCol3>(4, "kavPlatWatchdogMonitored"),
};

} // namespace

} // namespace kavplat

KAV_PLAT_TABLE(kavPlatWatchdogTable, 13, .columns = columns, .rows = rows_where<is_watchdog>,
               .empty = empty_rule::neither)

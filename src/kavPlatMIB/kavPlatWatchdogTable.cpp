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

constinit const table kavPlatWatchdogTable = {
    .name = "kavPlatWatchdogTable",
    .source = KAVPLAT_ROOM,
    .root = platform_oid<13>,
    .columns = columns,
    .rows = rows_where<is_watchdog>,
    .empty = empty_rule::neither,
    .get_first = kavPlatWatchdogTable_get_first_data_point,
    .get_next = kavPlatWatchdogTable_get_next_data_point,
    .handler = kavPlatWatchdogTable_handler,
};

} // namespace kavplat

KAV_PLAT_DEFINE_TABLE(kavPlatWatchdogTable)

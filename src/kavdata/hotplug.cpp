// Changes of the cache while the agent runs. All but free_local_cache run with
// the cache lock held.
#include "kavdata/cache_internal.h"
#include "trace/trace.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace kavplat
{

namespace
{

constexpr size_t child_prefix_size = 255;

uint32_t highest_given()
{
    return std::max(maxPhysicalIndex, highest_remembered());
}

void stamp_change()
{
    relaxed_store(entLastChangeTime, agent_uptime());
}

// Makes room for `added` more rows. Without memory the whole cache is dropped
// rather than part of it kept, and the next event builds it anew.
bool grow(const char *caller, uint32_t added) KAV_REQUIRES(cache_lock)
{
    if (uint64_t{highest_given()} + added <= localCacheSize) {
        return true;
    }
    // The highest index counts in, beside the old size: meant.
    const uint64_t size = uint64_t{localCacheSize} + maxPhysicalIndex + 2 * uint64_t{added};
    snmp_log(LOG_INFO, "%s:realloc local cache by %u, from %u\n", caller, 2 * added,
             localCacheSize);
    cache_valid = 0;
    const bool replaced = size <= UINT32_MAX && replace_slots(static_cast<uint32_t>(size));
    localCacheSize = static_cast<uint32_t>(size);
    KAV_TRACE_AS(caller, KAVPLAT_ROOM, "kavdata::cache",
                 "%s:physicalTable=0x%08x, localCacheSize=%u\n", caller,
                 printable(replaced ? physicalTable : nullptr), localCacheSize);
    if (!replaced) {
        snmp_log(LOG_ERR, "%s:realloc FAILED\n", caller);
        drop_cache();
        forget_name_parts();
        return false;
    }
    cache_valid = 1;
    return true;
}

// Nobody looks whether the component already has a row: a repeated insert gives
// it another. Meant.
void append(const char *caller, const capi_inventory_record &record) KAV_REQUIRES(cache_lock)
{
    KAV_TRACE_AS(caller, KAVPLAT_ROOM, "kavdata::cache", "%s:new cache entry %s\n", caller,
                 record_name(record));
    const uint32_t index = give_index(record);
    append_row(caller, index, record, row_origin::event);
    publish_index(index);
    trace_index(index, entry_at(index), caller);
}

void remove_named(uint32_t index, const char *text) KAV_REQUIRES(cache_lock)
{
    const phys_entry *entry = entry_at(index);
    if (entry && strstr(entry->entPhysicalName, text)) {
        free_local_cache_entry(index);
    }
}

} // namespace

} // namespace kavplat

void free_local_cache_entry(uint32_t index)
{
    using namespace kavplat;

    KAV_TRACE("kavdata::cache", "%s:removing entry, index %u\n", "free_local_cache_entry", index);
    if (index > maxPhysicalIndex) {
        snmp_log(LOG_ERR, "%s:index %u out of bounds (0..%u)\n", "free_local_cache_entry", index,
                 maxPhysicalIndex);
        return;
    }
    phys_entry *entry = entry_at(index);
    if (!entry) {
        snmp_log(LOG_ERR, "%s:cache entry at index %u already NULL\n", "free_local_cache_entry",
                 index);
        return;
    }
    if (!remove_name(entry)) {
        snmp_log(LOG_ERR, "can not free hash item %s\n", printable(entry->entPhysicalName));
    }
    unlink_from_container(entry);
    store_slot(index, nullptr);
    retire(entry);
}

int free_local_cache(void)
{
    kavplat::take_cache_lock();
    for (uint32_t i = 1; i <= maxPhysicalIndex; i++) {
        free_local_cache_entry(i);
    }
    return monitor_fru_unlock();
}

void set_fru_absent(const char *nac)
{
    using namespace kavplat;

    KAV_TRACE("kavdata::cache", "%s:nacname=%s\n", "set_fru_absent", printable(nac));
    if (!nac) {
        return;
    }
    if (!cache_is_built()) {
        snmp_log(LOG_ERR, "%s:realloc failure recovery\n", "set_fru_absent");
        init_local_cache();
    }
    const uint32_t index = find_name(nac);
    if (index == 0) {
        snmp_log(LOG_ERR, "%s: can not find entry %s\n", "set_fru_absent", nac);
        return;
    }
    // Before the row goes, since nac may be its name.
    char prefix[child_prefix_size];
    snprintf(prefix, sizeof prefix, "%s%s", nac, "/");
    free_local_cache_entry(index);
    // Anywhere in the name, and only behind the component itself: meant.
    if (const auto rows = rows_with_parts_of(prefix, index)) {
        for (const uint32_t i : *rows) {
            remove_named(i, prefix);
        }
    } else {
        for (uint32_t i = index; i < maxPhysicalIndex;) {
            remove_named(++i, prefix);
        }
    }
    stamp_change();
}

void set_fru_prsnt(const char *nac)
{
    using namespace kavplat;

    KAV_TRACE("kavdata::cache", "%s:nacname=%s\n", "set_fru_prsnt", printable(nac));
    if (!nac) {
        return;
    }
    if (!cache_is_built()) {
        init_local_cache();
    }
    inventory list;
    if (!list.fetch(nac, CAPI_INVENTORY_SUBTREE)) {
        snmp_log(LOG_ERR, "%s: can not get inventory %s\n", "set_fru_prsnt", nac);
        return;
    }
    if (list.records().empty()) {
        // An empty list is not given back here: meant.
        list.keep();
        return;
    }
    if (!grow("set_fru_prsnt", static_cast<uint32_t>(list.records().size()))) {
        return;
    }
    for (const capi_inventory_record &record : list.records()) {
        append("set_fru_prsnt", record);
    }
    stamp_change();
}

void partial_reconfigure(const char *nac)
{
    using namespace kavplat;

    KAV_TRACE("kavdata::cache", "%s:\n", "partial_reconfigure");
    if (!nac) {
        return;
    }
    if (!cache_is_built()) {
        snmp_log(LOG_INFO, "%s: processing realloc failure\n", "partial_reconfigure");
        init_local_cache();
        return;
    }
    inventory list;
    if (!list.fetch(nac, CAPI_INVENTORY_SUBTREE)) {
        // The root is named, not the component that was asked for: meant.
        snmp_log(LOG_ERR, "%s: can not get inventory %s\n", "partial_reconfigure", root_nac);
        return;
    }
    if (list.records().empty()) {
        return;
    }
    std::unique_ptr<uint32_t[], decltype(&free)> listed{
        static_cast<uint32_t *>(calloc(size_t{maxPhysicalIndex} + 1, sizeof(uint32_t))), free};
    if (!listed) {
        snmp_log(LOG_ERR, "%s:calloc FAILED\n", "partial_reconfigure");
        return;
    }
    uint32_t added = 0;
    for (const capi_inventory_record &record : list.records()) {
        KAV_TRACE("kavdata::cache", "%s:new cache entry %s\n", "partial_reconfigure",
                  record_name(record));
        if (const uint32_t index = find_name(record_name(record))) {
            listed[index] = 1;
        } else {
            added++;
        }
    }
    if (int64_t{added} > (int64_t{1} << 31) - int64_t{highest_given()}) {
        snmp_log(LOG_ERR, "%s: maxPhysicalIndex reconfigure\n", "partial_reconfigure");
        cache_valid = 0;
        drop_cache();
        forget_name_parts();
        return;
    }
    if (strcmp(nac, root_nac) == 0) {
        for (uint32_t i = 1; i <= maxPhysicalIndex; i++) {
            if (listed[i] != 1) {
                free_local_cache_entry(i);
            }
        }
    }
    listed.reset();
    if (!grow("partial_reconfigure", added)) {
        return;
    }
    for (const capi_inventory_record &record : list.records()) {
        KAV_TRACE("kavdata::cache", "%s:new cache entry %s\n", "partial_reconfigure",
                  record_name(record));
        if (find_name(record_name(record)) == 0) {
            append("partial_reconfigure", record);
        }
    }
    stamp_change();
}

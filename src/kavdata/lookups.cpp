#include "kavdata/cache_internal.h"
#include "trace/trace.h"

#include <net-snmp/net-snmp-includes.h>

#include <algorithm>

namespace kavplat
{

void trace_index(uint32_t index, const phys_entry *entry, const char *caller)
{
    KAV_TRACE_AS("DEBUGINDEX", KAVPLAT_ROOM, "kavdata:index", "%4u %4lu %4lu 0x%8x %s %s\n", index,
                 static_cast<unsigned long>(entry ? entry->entPhysicalIndex : 0),
                 static_cast<unsigned long>(getMaxPhysicalIndex()), printable(entry),
                 printable(entry ? entry->entPhysicalName : nullptr), caller);
}

} // namespace kavplat

using kavplat::entry_at;
using kavplat::table_is_empty;
using kavplat::trace_index;

phys_entry *get_entry(uint32_t index)
{
    KAV_TRACE("IDX", "%s:idx=%u\n", "get_entry", index);
    if (table_is_empty()) {
        KAV_TRACE("IDX", "Table is empty\n");
        return nullptr;
    }
    if (index > getMaxPhysicalIndex()) {
        KAV_TRACE("IDX", "%s:index %u out of range\n", "get_entry", index);
        return nullptr;
    }
    phys_entry *entry = entry_at(index);
    if (!entry) {
        KAV_TRACE("IDX", "%s NOT FOUND\n", "get_entry");
        return nullptr;
    }
    trace_index(index, entry, "get_entry");
    return entry;
}

phys_entry *getnext_entry(uint32_t index)
{
    if (table_is_empty()) {
        KAV_TRACE("IDX", "Table is empty\n");
        return nullptr;
    }
    const uint32_t last = getMaxPhysicalIndex();
    if (index > last) {
        KAV_TRACE("IDX", "%s:index %u out of range\n", "getnext_entry", index);
        return nullptr;
    }
    for (uint32_t i = index; i < last;) {
        if (phys_entry *entry = entry_at(++i)) {
            trace_index(i, entry, "getnext_entry");
            return entry;
        }
    }
    KAV_TRACE("IDX", "%s:index %u NOT FOUND\n", "getnext_entry", last + 1);
    return nullptr;
}

phys_entry *get_entry_by_ent_class(uint32_t index, int32_t physical_class)
{
    KAV_TRACE("IDX", "%s idx=%u, class=%d\n", "get_entry_by_ent_class", index, physical_class);
    phys_entry *entry = get_entry(index);
    if (!entry || entry->entPhysicalClass != physical_class) {
        KAV_TRACE("IDX", "%s: index %u for class %d NOT FOUND\n", "get_entry_by_ent_class", index,
                  physical_class);
        return nullptr;
    }
    trace_index(index, entry, "get_entry_by_ent_class");
    return entry;
}

phys_entry *getnext_entry_by_ent_class(uint32_t index, int32_t physical_class)
{
    KAV_TRACE("IDX", "%s idx=%u, maxPhysicalIndex=%u\n", "getnext_entry_by_ent_class", index,
              getMaxPhysicalIndex());
    if (table_is_empty()) {
        KAV_TRACE("IDX", "Table is empty\n");
        return nullptr;
    }
    // An index at or above the maximum is not out of range here, it only finds
    // nothing.
    const uint32_t last = getMaxPhysicalIndex();
    for (uint32_t i = index; i < last;) {
        phys_entry *entry = entry_at(++i);
        if (entry && entry->entPhysicalClass == physical_class) {
            trace_index(i, entry, "getnext_entry_by_ent_class");
            return entry;
        }
    }
    // Behind the last number that there is comes 0.
    KAV_TRACE("IDX", "%s: index %u for class %d NOT FOUND\n", "getnext_entry_by_ent_class",
              std::max(index, last) + 1, physical_class);
    return nullptr;
}

uint32_t kav_plat_mib_find_by_nac(const char *nac)
{
    KAV_TRACE("kavdata::hash", "%s:nac=%s\n", "kav_plat_mib_find_by_nac", kavplat::printable(nac));
    if (!nac) {
        kavplat::log_failure("kav_plat_mib_find_by_nac", "nac NULL");
        return 0;
    }
    kavplat::take_cache_lock();
    const uint32_t index = hash_nac(nac);
    monitor_fru_unlock();
    return index;
}

netsnmp_variable_list *snmp_setcontext(void **loop_context, void **data_context,
                                       netsnmp_variable_list *index_varbind, phys_entry *entry)
{
    *loop_context = reinterpret_cast<void *>(static_cast<uintptr_t>(entry->entPhysicalIndex));
    *data_context = entry;
    snmp_set_var_value(index_varbind, &entry->entPhysicalIndex, sizeof entry->entPhysicalIndex);
    return index_varbind;
}

// What the cache's source files share and nobody else needs.
#ifndef KAVPLAT_KAVDATA_CACHE_H
#define KAVPLAT_KAVDATA_CACHE_H

#include "kavdata/kavdata.h"

#include <atomic>

namespace kavplat
{

// The agent's up-time in hundredths of a second, modulo 2^32 as TimeTicks are.
uint32_t agent_uptime();

// Live reads are good for ten seconds: whether one at `stamp` still is at `now`.
// A stamp of 0 is "never". The signed difference holds across the wrap.
inline bool is_fresh(uint32_t stamp, uint32_t now)
{
    return stamp != 0 && static_cast<int32_t>(now - stamp) <= 999;
}

// Fields that a sensor refresh writes without the lock, and globals that are read
// without it, go through these.
template <class T>
T relaxed_load(const T &field)
{
    return std::atomic_ref<T>(const_cast<T &>(field)).load(std::memory_order_relaxed);
}

template <class T>
void relaxed_store(T &field, T value)
{
    std::atomic_ref<T>(field).store(value, std::memory_order_relaxed);
}

// ---- Slots ----

// The entry at index, or null: for a hole, an index out of range, a cache that is
// not built. The only way in which the cache's slots are read.
phys_entry *entry_at(uint32_t index);

bool table_is_empty();

// Puts a row that is not served yet into its slot; raising the maximum serves it.
void store_slot(uint32_t index, phys_entry *entry);
void publish_max_index(uint32_t index);

// Whether there is a cache that an event can change; if not, it builds one anew.
bool cache_is_built();

// Replaces the slots by room for `size` entries, the old rows kept: the new array
// is complete before it is seen. False when there is no memory; nothing changed.
bool replace_slots(uint32_t size);

// Takes the whole cache out of service, its rows and name index included, and
// leaves it empty and unbuilt; cache_valid is the caller's.
void drop_cache();

// ---- Names (each takes the leaf lock that guards htab; nothing else is taken
// under it) ----

bool name_index_exists();
bool create_name_index();
void destroy_name_index(bool free_values);

// The index stored for a name, or 0 without a word.
uint32_t find_name(const char *nac);

// Maps an entry's name to its index. A failure leaves the entry unnamed.
bool insert_name(phys_entry *entry);

// Takes out the mapping of this very entry, not that of a namesake. False when
// there is none.
bool remove_name(const phys_entry *entry);

// In the child of a fork, where no other thread is left to release the lock.
void renew_names_lock_after_fork();

// ---- Rows ----

// Appends the row of one inventory record at index, where it is not yet served.
// caller is the operation that it is done for. False when there was no memory:
// the slot stays empty.
enum class row_origin { first_build, event };
bool append_row(const char *caller, uint32_t index, const capi_inventory_record &record,
                row_origin origin);

// The name that a record gives its row: a component without one is "Unknown".
const char *record_name(const capi_inventory_record &record);

// The index dump of a row under "kavdata:index".
void trace_index(uint32_t index, const phys_entry *entry, const char *caller);

// "%s:FAILED:%s\n" at error level.
void log_failure(const char *function, const char *cause);

// A call of the platform failed and the row goes without what it would have told;
// about is what was asked for.
void warn_failed_call(const char *function, const char *call, const char *about, int status);

// A text in a platform's record ends within its field, whatever was written there.
template <size_t N>
void terminate(char (&text)[N])
{
    text[N - 1] = '\0';
}

} // namespace kavplat

#endif

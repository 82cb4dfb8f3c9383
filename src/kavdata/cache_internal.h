// What the cache's source files share and no other room includes.
#ifndef KAVPLAT_KAVDATA_CACHE_INTERNAL_H
#define KAVPLAT_KAVDATA_CACHE_INTERNAL_H

#include "kavdata/cache.h"

#include <optional>
#include <span>
#include <string_view>

// NOLINTBEGIN(readability-redundant-declaration): the headers for C say no such words
extern uint32_t localCacheSize KAV_GUARDED_BY(kavplat::cache_lock);
extern uint8_t cache_valid KAV_GUARDED_BY(kavplat::cache_lock);
void free_local_cache_entry(uint32_t index) KAV_REQUIRES(kavplat::cache_lock);
// NOLINTEND(readability-redundant-declaration)

namespace kavplat
{

// ---- Slots ----

// The block that physicalTable points into.
struct slot_array {
    slot_array *next_retired;
    phys_entry *slots[1]; // as many as it was allocated for
};

// Puts a row that is not served yet into its slot; raising the maximum serves it.
void store_slot(uint32_t index, phys_entry *entry) KAV_REQUIRES(cache_lock);
void publish_max_index(uint32_t index) KAV_REQUIRES(cache_lock);

// Raises the maximum to an index; a row with a lower one is served already.
void publish_index(uint32_t index) KAV_REQUIRES(cache_lock);

// Whether there is a cache that an event can change; if not, it builds one anew.
bool cache_is_built() KAV_REQUIRES(cache_lock);

// Replaces the slots by room for `size` entries, the old rows kept: the new array
// is complete before it is seen. False when there is no memory; nothing changed.
bool replace_slots(uint32_t size) KAV_REQUIRES(cache_lock);

// Takes the whole cache out of service, its rows and name index included, and
// leaves it empty and unbuilt; cache_valid and the parts of names are the caller's.
void drop_cache() KAV_REQUIRES(cache_lock);

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

// ---- The parts of names ----

// Empties it, or gives it up: what is not known of every row is known of none.
void begin_name_parts() KAV_REQUIRES(cache_lock);
void forget_name_parts() KAV_REQUIRES(cache_lock);

// Of each row before it is stored. Without memory for it, it is given up.
void note_name_parts(const phys_entry &entry) KAV_REQUIRES(cache_lock);

// Indexes above `after`, ascending, among which are those of all rows that have text in
// their name; good until the next row is noted. Nothing: look at all rows.
std::optional<std::span<const uint32_t>> rows_with_parts_of(std::string_view text, uint32_t after)
    KAV_REQUIRES(cache_lock);

// ---- When a row's memory may be freed ----
//
// The iterator callbacks of a table look rows up without the lock and hand one
// to a handler that takes the lock later; a sensor refresh does not take it at
// all. In between, the event thread may remove that very row. So a removal
// unlinks a row at once but frees it only when nobody can still hold it:
//
//  - Only one thread serves requests, so a flag says whether a pass of the agent's
//    thread (kavdata/cache.h) is under way.
//  - An unlocked read is counted, by the period in which it began, so that reads
//    which overlap without end keep no more than what two periods retired.
//  - A removal, with the lock held, unlinks first and looks at flag and count
//    afterwards; a reader sets flag or count first and looks at slots afterwards.
//    Both in sequentially consistent order: either the remover sees the reader
//    and retires the row, or the reader sees the empty slot.
//
// With nobody reading, memory is given back at once, so it stays flat when nobody
// asks. The same holds for an array of slots that was replaced by a larger one.

// Around a use of rows on another thread without the lock.
class unlocked_read
{
  public:
    unlocked_read();
    ~unlocked_read();
    unlocked_read(const unlocked_read &) = delete;
    unlocked_read &operator=(const unlocked_read &) = delete;

  private:
    const unsigned period_;
};

// With the cache lock held: gives back, now or later, what is no longer reachable.
void retire(phys_entry *row) KAV_REQUIRES(cache_lock);
void retire(slot_array *array) KAV_REQUIRES(cache_lock);

// ---- The cache lock ----

// Whether this thread took the lock with monitor_fru_lock.
bool this_thread_holds_cache_lock();

// ---- What each file does in the child of a fork, where no other thread is left to
// release a lock or to read ----

void renew_cache_lock();
void renew_names_lock();
void forget_names();
void leave_name_parts();
void forget_slots();
void forget_indexes();
void forget_retired(); // what waits is left to the process

// ---- Indexes (under a lock of their own, and under it only that of the names) ----

// Before the first is given: reads the file that the environment names, if it names one,
// and holds its lock from then on. Again does nothing.
void prepare_indexes();

// The index of the row of a component that is not served yet, whose container is: the one
// that its name had before, or else the next above every one that was given. It is the
// name's from now on.
uint32_t give_index(const capi_inventory_record &record);

// The highest index that the file says was ever given, or that was given since; 0
// without a file. No index that is given soon lies above it by more than the rows added.
uint32_t highest_remembered();

// ---- The inventory ----

// A list of the platform's, given back at the end of its scope.
class inventory
{
  public:
    inventory() = default;
    ~inventory() { release(); }
    inventory(const inventory &) = delete;
    inventory &operator=(const inventory &) = delete;

    // Once. False when the call failed, or gave what can be no list: null with a
    // count, or more records than there are indexes or addresses.
    bool fetch(const char *nac, int mode);
    void release();
    void keep() { owned_ = false; } // never given back

    std::span<const capi_inventory_record> records() const { return {items_, count_}; }

  private:
    uint32_t count_ = 0;
    capi_inventory_record *items_ = nullptr;
    bool owned_ = false;
};

// Between two steps of a work that takes long: a fork need not wait for all of it.
void let_fork_by();

// ---- Rows ----

// Appends the row of one inventory record at index, where it is not yet served.
// caller is the operation that it is done for. False when there was no memory:
// the slot stays empty.
enum class row_origin { first_build, event };
bool append_row(const char *caller, uint32_t index, const capi_inventory_record &record,
                row_origin origin) KAV_REQUIRES(cache_lock);

// Puts a complete row among what its container holds, takes it out again.
void link_into_container(phys_entry *entry) KAV_REQUIRES(cache_lock);
void unlink_from_container(phys_entry *entry) KAV_REQUIRES(cache_lock);

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

// strlcpy that does not cut a UTF-8 character in two: its bytes go with it. Bytes
// that are no UTF-8 are cut wherever the field ends.
void copy_text(char *field, const char *text, size_t size);

} // namespace kavplat

#endif

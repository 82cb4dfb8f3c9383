// When a row's memory may be freed.
//
// The iterator callbacks of a table look rows up without the lock and hand one
// to a handler that takes the lock later; a sensor refresh does not take it at
// all. In between, the event thread may remove that very row. So a removal
// unlinks a row at once but frees it only when nobody can still hold it:
//
//  - A pass of the agent's thread lasts from a get-first callback to the end of
//    the handler. Only one thread serves requests, so a flag says whether one is
//    under way.
//  - An unlocked read is counted.
//  - A removal, with the lock held, unlinks first and looks at flag and count
//    afterwards; a reader sets flag or count first and looks at slots afterwards.
//    Both in sequentially consistent order: either the remover sees the reader
//    and retires the row, or the reader sees the empty slot.
//
// With nobody reading, memory is given back at once, so it stays flat when nobody
// asks. The same holds for an array of slots that was replaced by a larger one.
#ifndef KAVPLAT_KAVDATA_CACHE_PASS_H
#define KAVPLAT_KAVDATA_CACHE_PASS_H

#include "kavdata/phys_entry.h"

namespace kavplat
{

// The block that physicalTable points into.
struct slot_array {
    slot_array *next_retired;
    phys_entry *slots[1]; // as many as it was allocated for
};

// On the agent's thread: before a get-first callback reads a slot.
void begin_agent_pass();

// On the agent's thread, with the cache lock held: at the end of a handler call,
// when no row is outstanding.
void end_agent_pass();

// Around a use of rows on another thread without the lock.
class unlocked_read
{
  public:
    unlocked_read();
    ~unlocked_read();
    unlocked_read(const unlocked_read &) = delete;
    unlocked_read &operator=(const unlocked_read &) = delete;
};

// With the cache lock held: gives back, now or later, what is no longer reachable.
void retire(phys_entry *row);
void retire(slot_array *array);

// In the child of a fork: nobody reads, and what waits is left to the process.
void forget_retired();

} // namespace kavplat

#endif

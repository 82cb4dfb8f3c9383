// What the cache lends to the rooms above it, beside the exported calls of
// kavdata/kavdata.h: reading rows while events change them, failures of the
// platform, the lock's start, and a fork.
#ifndef KAVPLAT_KAVDATA_CACHE_H
#define KAVPLAT_KAVDATA_CACHE_H

#include "kavdata/kavdata.h"

#include <atomic>
#include <chrono>

namespace kavplat
{

// ---- Time ----

// The agent's up-time in hundredths of a second, modulo 2^32 as TimeTicks are.
uint32_t agent_uptime();

// Live reads are good for ten seconds: whether one at `stamp` still is at `now`.
// A stamp of 0 is "never". The signed difference holds across the wrap.
inline bool is_fresh(uint32_t stamp, uint32_t now)
{
    return stamp != 0 && static_cast<int32_t>(now - stamp) <= 999;
}

// ---- Rows ----

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

// The entry at index, or null: for a hole, an index out of range, a cache that is
// not built. The only way in which the cache's slots are read.
phys_entry *entry_at(uint32_t index);

bool table_is_empty();

// A pass of the agent's thread lasts from a get-first callback, which looks rows up
// without the lock, to the end of the handler that takes the lock later. What an
// event removes in between is not freed before the pass ends.

// On the agent's thread: before a get-first callback reads a slot.
void begin_agent_pass();

// On the agent's thread, with the cache lock held: at the end of a handler call,
// when no row is outstanding.
void end_agent_pass();

// ---- Sensors ----

// Asks the platform for a sensor's reading, and for its enable state if it has one,
// unless each was asked for within the last ten seconds, with whatever result:
// entry.look is current afterwards. Lock held.
void look_at_sensor(phys_entry &entry);

// ---- Failures of the platform ----

// Calls that are made again and again for one row, by requests and refreshes.
enum class polled_call { sensor_info, power_state, enable_state };

// Whether such a call failed. That it did is logged once, and again when it fails in
// another way or after it succeeded, however often and for whom it is made.
bool has_failed(const char *function, polled_call call, phys_entry &entry, int status);

// ---- The cache lock ----

// Initialises the cache lock, once for the process whoever comes first: a
// reconnect must not touch a lock that another thread holds. Returns the result
// of that one initialisation.
int prepare_cache_lock();

// ---- The modules ----

// What of this library the agent has loaded; of its thread alone. An agent that
// reloads and is not ended by that loads both again, while the handlers, the monitor
// and the cache of the first time are still there: the second time adds nothing.
struct loaded_modules {
    bool entityMIB;
    bool kavPlatMIB;
    bool entitySensorMIB;
};
extern loaded_modules loaded;

// ---- A fork of the agent ----
//
// snmpd without -f loads its modules, forks and goes on in the child. That has the
// locks of the process as they were (of the system's log, the time zone, the
// platform) and none of the threads that held them. So a thread beside the agent's
// is at work in whatever it does for us but wait; and a fork waits until none is,
// for this long at most. After a wait in vain the next forks do not wait.
extern std::chrono::milliseconds longest_wait_before_fork;

// Before the first thread is started; again does nothing.
void watch_forks();

// Around what a thread does; one may stand in another.
class at_work
{
  public:
    at_work();
    ~at_work();
    at_work(const at_work &) = delete;
    at_work &operator=(const at_work &) = delete;
};

// Around a wait of a thread at work, on others it does nothing. Its end may wait
// for a fork, so no lock is held there that another thread at work may want.
class at_rest
{
  public:
    at_rest();
    ~at_rest();
    at_rest(const at_rest &) = delete;
    at_rest &operator=(const at_rest &) = delete;
};

// Whether this process is a fork of the one that built the cache. Locks that
// another thread may have held were renewed.
bool was_left_behind_by_fork();

// In such a process, on the agent's thread, before a new build: the cache starts
// from nothing. Its builder may have stopped half-way through anything, so what it
// had allocated is left to the process.
void forget_cache_after_fork();

} // namespace kavplat

#endif

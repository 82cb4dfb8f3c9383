// What the cache lends to the rooms above it, beside the exported calls of
// kavdata/kavdata.h: reading rows while events change them, failures of the
// platform, the lock's start, and a fork.
#ifndef KAVPLAT_KAVDATA_CACHE_H
#define KAVPLAT_KAVDATA_CACHE_H

#include "kavdata/kavdata.h"
#include "kavdata/mutex.h"

#include <atomic>
#include <chrono>
#include <optional>

namespace kavplat
{

// What fru_mutex is called where the use of locks is checked; there is no such object.
struct KAV_CAPABILITY cache_lock_name {
};
extern cache_lock_name cache_lock;

} // namespace kavplat

// NOLINTBEGIN(readability-redundant-declaration): the headers for C say no such words
int monitor_fru_lock(void) KAV_ACQUIRE_IF_ZERO(kavplat::cache_lock);
int monitor_fru_unlock(void) KAV_RELEASE(kavplat::cache_lock);
uint32_t kav_plat_mib_find_by_nac(const char *nac) KAV_EXCLUDES(kavplat::cache_lock);
int free_local_cache(void) KAV_EXCLUDES(kavplat::cache_lock);
void set_fru_absent(const char *nac) KAV_REQUIRES(kavplat::cache_lock);
void set_fru_prsnt(const char *nac) KAV_REQUIRES(kavplat::cache_lock);
void partial_reconfigure(const char *nac) KAV_REQUIRES(kavplat::cache_lock);
int snmp_read_sensor(phys_entry *entry) KAV_REQUIRES(kavplat::cache_lock);
int snmp_read_led(phys_entry *entry) KAV_REQUIRES(kavplat::cache_lock);
// NOLINTEND(readability-redundant-declaration)

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

// The components that this one holds, one step down, in the order in which their rows
// were made; null: no more. Lock held.
phys_entry *first_held(const phys_entry &container);
phys_entry *next_held(const phys_entry &held);

// Counts the changes to which rows there are. What was worked out of the rows holds
// while the count that was taken before them stays.
uint32_t shape_of_cache();

// A pass of the agent's thread lasts from a get-first callback, which looks rows up
// without the lock, to the end of the handler that takes the lock later. What an
// event removes in between is not freed before the pass ends.

// On the agent's thread: before a get-first callback reads a slot.
void begin_agent_pass();

// On the agent's thread, with the cache lock held: at the end of a handler call,
// when no row is outstanding.
void end_agent_pass() KAV_REQUIRES(cache_lock);

// ---- Indexes that outlive the agent ----

// Writes the file of indexes if a change of the cache gave any since it was written. On
// the thread that made the change, without the cache lock: it waits for the disk.
void save_indexes();

// ---- Sensors ----

// Asks the platform for a sensor's reading, and for its enable state if it has one,
// unless each was asked for within the last ten seconds, with whatever result:
// entry.look is current afterwards. Lock held.
void look_at_sensor(phys_entry &entry) KAV_REQUIRES(cache_lock);

// ---- States (ENTITY-STATE-MIB) ----
//
// Who wants an entity's states asks the platform for what they depend on, has them
// computed from what the cache holds then, and notes them: three calls, so that the
// asking can be done by somebody else or at another time. Lock held in all of them.

// Asks the platform for what the entity's states depend on and was not asked for within
// the last ten seconds, with whatever result: the administrative and the enable state
// where there are such; of a sensor a look at it; of a component a look at each sensor
// that it holds, and at each indicator of which is known what it means.
void look_at_states(phys_entry &entry) KAV_REQUIRES(cache_lock);

// The states by what the cache holds now; asks nobody.
entity_states states_of(const phys_entry &entry);

// Whether all that the states depend on was asked for at least once. Until then they
// may lack what nobody asked yet.
bool are_states_known(const phys_entry &entry);

// Two states, as one became the other.
struct states_change {
    entity_states before;
    entity_states after;
};

// Remembers the states as they are now, and if they are others than those remembered
// the time of day too (entry.noted), and tells what changed. The first that is known of
// an entity is no change. Does nothing while the states are not known.
std::optional<states_change> note_states(phys_entry &entry) KAV_REQUIRES(cache_lock);

// For one who tells of changes of the operational state: whether the state noted is
// known and another than the last known one of a call, whoever noted it in between; before
// has that one and else the same as after. The first known state is no change.
std::optional<states_change> take_oper_change(phys_entry &entry) KAV_REQUIRES(cache_lock);

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

// monitor_fru_lock where a failure, which a plain mutex has none of, changes nothing.
void take_cache_lock() KAV_ACQUIRE(cache_lock);

// Says that the lock is held where that cannot be seen, or not needed since nobody else
// can change the cache: in the first build and in the child of a fork. Does nothing.
inline void assume_cache_lock() KAV_ASSUME_HELD(cache_lock) {}

// ---- The modules ----

// What of this library the agent has loaded; of its thread alone. An agent that
// reloads and is not ended by that loads both again, while the handlers, the monitor
// and the cache of the first time are still there: the second time adds nothing.
struct loaded_modules {
    bool entityMIB;
    bool kavPlatMIB;
    bool entitySensorMIB;
    bool entityStateMIB;
    bool entityMappingMIB;
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

// A thread of ours, which leaves all signals to the agent: one that it took would not
// wake that. As pthread_create gives.
int start_thread(pthread_t *id, void *(*body)(void *), void *argument);

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

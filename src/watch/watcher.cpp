#include "watch/watcher.h"

#include "kavdata/cache.h"
#include "kavdata/live.h"
#include "kavdata/mutex.h"
#include "trace/trace.h"
#include "watch/look.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <iterator>
#include <new>
#include <unistd.h>
#include <utility>

namespace kavplat
{

namespace
{

using std::chrono::steady_clock;

constexpr char token[] = "kavplatWatchInterval";
constexpr unsigned alarm_seconds = 1;

// What is sent in one go; the agent has its turn before the next.
constexpr size_t most_at_a_time = 100;

// ---- What the thread and the agent share ----

mutex watch_mutex; // a leaf: nothing is taken under it
condition changed;
bool runs KAV_GUARDED_BY(watch_mutex) = false;
bool is_to_end KAV_GUARDED_BY(watch_mutex) = false;
bool has_new_rows KAV_GUARDED_BY(watch_mutex) = false;
bool tells_oper KAV_GUARDED_BY(watch_mutex) = false;
std::chrono::seconds interval KAV_GUARDED_BY(watch_mutex){default_watch_interval};

// Never destroyed: the thread may outlive what is destroyed at exit.
std::deque<notice> &notices() KAV_REQUIRES(watch_mutex)
{
    static auto *all = new std::deque<notice>;
    return *all;
}

// ---- The thread ----

bool may_go_on()
{
    {
        const at_rest rest; // a fork need not wait for all rows
    }
    const lock_guard lock(watch_mutex);
    return !is_to_end;
}

void hand_over(std::vector<notice> &found)
{
    const lock_guard lock(watch_mutex);
    notices().insert(notices().end(), std::make_move_iterator(found.begin()),
                     std::make_move_iterator(found.end()));
    found.clear();
}

// Of the thread while it runs, and kept for the next one: what was raised and went while
// nobody looked is cleared. Never destroyed, as the notices.
look_memory *remembered = new look_memory;

// What was found before there was no memory is told all the same.
void look_and_tell(look_memory &memory, look_at which, std::vector<notice> &found)
{
    static bool was_told = false;
    {
        const lock_guard lock(watch_mutex);
        memory.tells_oper = tells_oper;
    }
    try {
        look(memory, which, may_go_on, found);
        hand_over(found);
        was_told = false;
    } catch (const std::bad_alloc &) {
        if (!was_told) {
            snmp_log(LOG_ERR, "watch: no memory to look at all rows, the next look tries again\n");
        }
        was_told = true;
    }
}

enum class next_step { end, look_at_all, look_at_new };

// Waits until so long after the last look.
next_step wait_for_next(const look_memory &memory, steady_clock::time_point last)
{
    std::chrono::seconds pause;
    {
        const lock_guard lock(watch_mutex);
        pause = interval;
    }
    constexpr uint32_t hundredths = 100;
    rest_for(memory, static_cast<uint32_t>(pause.count()) * hundredths);
    const at_rest rest; // ends behind the lock
    const lock_guard lock(watch_mutex);
    while (!is_to_end && !has_new_rows && pause == interval) {
        if (!changed.wait_until(watch_mutex, last + interval)) {
            return next_step::look_at_all;
        }
    }
    return is_to_end                            ? next_step::end
           : std::exchange(has_new_rows, false) ? next_step::look_at_new
                                                : next_step::look_at_all;
}

void end_promise()
{
    take_cache_lock();
    renew_no_more();
    monitor_fru_unlock();
}

void *watch(void *)
{
    pthread_detach(pthread_self());
    {
        const at_work work;
        KAV_TRACE("watch", "%s\n", "watch");
        look_memory &memory = *remembered;
        memory.has_begun = false; // what a thread before it read is old
        std::vector<notice> found;
        look_and_tell(memory, look_at::all_rows, found);
        steady_clock::time_point last = steady_clock::now();
        for (;;) {
            const next_step next = wait_for_next(memory, last);
            if (next == next_step::end) {
                break;
            }
            if (next == next_step::look_at_new) {
                look_and_tell(memory, look_at::new_rows, found);
            } else {
                look_and_tell(memory, look_at::all_rows, found);
                last = steady_clock::now();
            }
        }
        end_promise();
    }
    const lock_guard lock(watch_mutex);
    runs = false;
    changed.notify_all();
    return nullptr;
}

// ---- The agent's thread ----

bool is_wanted = false;
bool has_alarm = false;
bool could_not_start = false;
pid_t process_of_thread = -1;
config_change_memory config_changes;
uint32_t known_change = 0;
uint32_t known_maximum = 0;

void begin_thread()
{
    {
        const lock_guard lock(watch_mutex);
        is_to_end = false;
        has_new_rows = false;
        runs = true;
    }
    process_of_thread = getpid();
    known_change = relaxed_load(entLastChangeTime);
    known_maximum = getMaxPhysicalIndex();
    pthread_t id;
    if (const int status = start_thread(&id, watch, nullptr); status != 0) {
        const lock_guard lock(watch_mutex);
        runs = false;
        if (!could_not_start) {
            snmp_log(LOG_ERR,
                     "watch: no thread (status %d): readings are asked for by requests, and no "
                     "severity is told, until one can be started\n",
                     status);
        }
        could_not_start = true;
        return;
    }
    could_not_start = false;
}

// In the child of a fork the thread is not there, and what it had may be as it left it.
void notice_fork()
{
    if (process_of_thread != -1 && process_of_thread != getpid()) {
        process_of_thread = -1;
        watch_mutex.renew();
        changed.renew();
        remembered = new look_memory; // the rows are made anew as well
        const lock_guard lock(watch_mutex);
        runs = false;
    }
}

void begin_or_end_thread()
{
    bool has_to_begin = false;
    {
        const lock_guard lock(watch_mutex);
        const bool shall_run = is_wanted && interval.count() != 0;
        has_to_begin = shall_run && !runs;
        if (runs && is_to_end == shall_run) {
            // One that is ending already ends first.
            is_to_end = is_to_end || !shall_run;
            changed.notify_all();
        }
    }
    if (has_to_begin) {
        begin_thread();
    }
}

// Modules are loaded while the thread runs, too.
void look_for_modules()
{
    const lock_guard lock(watch_mutex);
    tells_oper = loaded.entityStateMIB;
}

void look_for_new_rows()
{
    const uint32_t change = relaxed_load(entLastChangeTime);
    const uint32_t maximum = getMaxPhysicalIndex();
    if (change == known_change && maximum == known_maximum) {
        return;
    }
    known_change = change;
    known_maximum = maximum;
    const lock_guard lock(watch_mutex);
    has_new_rows = true;
    changed.notify_all();
}

void send_notices()
{
    for (size_t i = 0; i < most_at_a_time; i++) {
        notice next;
        {
            const lock_guard lock(watch_mutex);
            if (notices().empty()) {
                return;
            }
            next = std::move(notices().front());
            notices().pop_front();
        }
        std::visit([](const auto &n) { send_notice(n); }, next);
    }
}

void on_alarm(unsigned, void *)
{
    notice_fork();
    look_for_modules();
    begin_or_end_thread();
    look_for_new_rows();
    if (judge_config_change(config_changes, relaxed_load(entLastChangeTime), agent_uptime())) {
        send_config_change();
    }
    send_notices();
}

void set_interval(unsigned seconds)
{
    const lock_guard lock(watch_mutex);
    interval = std::chrono::seconds(seconds);
    changed.notify_all();
}

void read_interval(const char *, char *line)
{
    char *end = nullptr;
    errno = 0;
    const unsigned long seconds = strtoul(line, &end, 10);
    end += strspn(end, " \t\r\n");
    if (*line < '0' || *line > '9' || *end != '\0' || errno != 0 ||
        seconds > longest_watch_interval) {
        config_perror("kavplatWatchInterval takes a whole number of seconds from 0 (which turns "
                      "the watcher off) to 86400; it stays as it was");
        return;
    }
    set_interval(static_cast<unsigned>(seconds));
}

// A line that is no longer there when the configuration is read again counts no more.
void forget_interval()
{
    set_interval(default_watch_interval);
}

} // namespace

std::chrono::milliseconds longest_wait_for_watcher = std::chrono::seconds(5);

void start_watching()
{
    if (!is_wanted) {
        snmpd_register_config_handler(token, read_interval, forget_interval, "SECONDS");
    }
    is_wanted = true;
    if (!has_alarm) {
        config_changes = {};
        config_changes.told_change = relaxed_load(entLastChangeTime);
        has_alarm = snmp_alarm_register(alarm_seconds, SA_REPEAT, on_alarm, nullptr) != 0;
    }
}

void stop_watching()
{
    is_wanted = false;
    notice_fork();
    const auto until = steady_clock::now() + longest_wait_for_watcher;
    const lock_guard lock(watch_mutex);
    is_to_end = true;
    changed.notify_all();
    while (runs && changed.wait_until(watch_mutex, until)) {
    }
}

} // namespace kavplat

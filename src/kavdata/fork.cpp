// What a fork of the agent waits for, and what it leaves of the cache.
#include "kavdata/cache_internal.h"

#include <chrono>
#include <csignal>

namespace kavplat
{

std::chrono::milliseconds longest_wait_before_fork{5000};

namespace
{

mutex work_mutex;
condition changed;
unsigned threads_at_work KAV_GUARDED_BY(work_mutex) = 0;
bool forking KAV_GUARDED_BY(work_mutex) = false;
bool waited_in_vain KAV_GUARDED_BY(work_mutex) = false;

thread_local unsigned depth = 0;

std::atomic<bool> left_behind{false};

void begin_work()
{
    const lock_guard lock(work_mutex);
    while (forking) {
        changed.wait(work_mutex);
    }
    threads_at_work++;
}

void end_work()
{
    const lock_guard lock(work_mutex);
    if (--threads_at_work == 0) {
        waited_in_vain = false;
        changed.notify_all();
    }
}

// Keeps the mutex until the fork is over.
void before_fork() KAV_ACQUIRE(work_mutex)
{
    work_mutex.lock();
    // A platform may fork inside a call of ours: who waits for that must not be
    // waited for.
    if (depth != 0 || this_thread_holds_cache_lock()) {
        return;
    }
    forking = true;
    const auto until = std::chrono::steady_clock::now() + longest_wait_before_fork;
    while (threads_at_work != 0 && !waited_in_vain) {
        waited_in_vain = !changed.wait_until(work_mutex, until);
    }
}

void after_fork_in_parent() KAV_RELEASE(work_mutex)
{
    forking = false;
    changed.notify_all();
    work_mutex.unlock();
}

void after_fork_in_child() KAV_RELEASE(work_mutex)
{
    changed.renew();
    threads_at_work = depth != 0 ? 1 : 0;
    forking = false;
    waited_in_vain = false;
    work_mutex.unlock(); // this thread has held it since before the fork
    renew_cache_lock();
    renew_names_lock();
    left_behind = true;
}

} // namespace

void watch_forks()
{
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once,
                 [] { pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child); });
}

int start_thread(pthread_t *id, void *(*body)(void *), void *argument)
{
    watch_forks();
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const int result = pthread_create(id, nullptr, body, argument);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return result;
}

at_work::at_work()
{
    if (depth++ == 0) {
        begin_work();
    }
}

at_work::~at_work()
{
    if (--depth == 0) {
        end_work();
    }
}

at_rest::at_rest()
{
    if (depth != 0) {
        end_work();
    }
}

at_rest::~at_rest()
{
    if (depth != 0) {
        begin_work();
    }
}

void let_fork_by()
{
    if (!this_thread_holds_cache_lock()) {
        const at_rest rest;
    }
}

bool was_left_behind_by_fork()
{
    return left_behind;
}

void forget_cache_after_fork()
{
    left_behind = false;
    forget_slots();
    forget_names();
    leave_name_parts();
    forget_indexes();
    forget_retired();
}

} // namespace kavplat

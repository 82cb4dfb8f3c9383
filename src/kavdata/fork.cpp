// What a fork of the agent waits for, and what it leaves of the cache.
#include "kavdata/cache_internal.h"

#include <chrono>
#include <csignal>
#include <ctime>

namespace kavplat
{

std::chrono::milliseconds longest_wait_before_fork{5000};

namespace
{

pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t changed = PTHREAD_COND_INITIALIZER;
// Guarded by the mutex.
unsigned threads_at_work = 0;
bool forking = false;
bool waited_in_vain = false;

thread_local unsigned depth = 0;

std::atomic<bool> left_behind{false};

void begin_work()
{
    pthread_mutex_lock(&mutex);
    while (forking) {
        pthread_cond_wait(&changed, &mutex);
    }
    threads_at_work++;
    pthread_mutex_unlock(&mutex);
}

void end_work()
{
    pthread_mutex_lock(&mutex);
    if (--threads_at_work == 0) {
        waited_in_vain = false;
        pthread_cond_broadcast(&changed);
    }
    pthread_mutex_unlock(&mutex);
}

// Keeps the mutex until the fork is over.
void before_fork()
{
    pthread_mutex_lock(&mutex);
    // A platform may fork inside a call of ours: who waits for that must not be
    // waited for.
    if (depth != 0 || this_thread_holds_cache_lock()) {
        return;
    }
    forking = true;
    const auto until = std::chrono::nanoseconds(
        std::chrono::steady_clock::now().time_since_epoch() + longest_wait_before_fork);
    constexpr long nanoseconds = 1000000000;
    const timespec deadline = {static_cast<time_t>(until.count() / nanoseconds),
                               static_cast<long>(until.count() % nanoseconds)};
    while (threads_at_work != 0 && !waited_in_vain) {
        waited_in_vain = pthread_cond_clockwait(&changed, &mutex, CLOCK_MONOTONIC, &deadline) != 0;
    }
}

void after_fork_in_parent()
{
    forking = false;
    pthread_cond_broadcast(&changed);
    pthread_mutex_unlock(&mutex);
}

void after_fork_in_child()
{
    changed = PTHREAD_COND_INITIALIZER; // who waited for it is not in this process
    threads_at_work = depth != 0 ? 1 : 0;
    forking = false;
    waited_in_vain = false;
    pthread_mutex_unlock(&mutex); // this thread has held it since before the fork
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
    forget_indexes();
    forget_retired();
}

} // namespace kavplat

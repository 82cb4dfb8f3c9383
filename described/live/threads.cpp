#include "described/live/threads.h"

#include <csignal>
#include <ctime>
#include <pthread.h>

namespace described_platform
{

std::chrono::milliseconds longest_wait_before_fork{5000};

namespace
{

/* Not of the C++ library: a child makes the condition anew in its place. */
pthread_mutex_t work_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t work_changed = PTHREAD_COND_INITIALIZER;
/* Guarded by work_mutex. */
unsigned working = 0;
bool forking = false;
bool waited_in_vain = false;

thread_local bool counted = false;

enum class while_forking { wait, go_on };

void begin_work(while_forking how)
{
    pthread_mutex_lock(&work_mutex);
    while (forking && how == while_forking::wait) {
        pthread_cond_wait(&work_changed, &work_mutex);
    }
    ++working;
    pthread_mutex_unlock(&work_mutex);
}

void end_work()
{
    pthread_mutex_lock(&work_mutex);
    if (--working == 0) {
        waited_in_vain = false;
        pthread_cond_broadcast(&work_changed);
    }
    pthread_mutex_unlock(&work_mutex);
}

} // namespace

/* The mutex is held until the fork is over. */
void stop_work_before_fork()
{
    pthread_mutex_lock(&work_mutex);
    forking = true;
    const auto until = std::chrono::nanoseconds(
        std::chrono::steady_clock::now().time_since_epoch() + longest_wait_before_fork);
    const timespec until_spec{static_cast<time_t>(until.count() / 1000000000),
                              static_cast<long>(until.count() % 1000000000)};
    /* A thread that forks does not wait for itself. */
    while (working > (counted ? 1U : 0U) && !waited_in_vain) {
        waited_in_vain =
            pthread_cond_clockwait(&work_changed, &work_mutex, CLOCK_MONOTONIC, &until_spec) != 0;
    }
}

void resume_work_in_parent()
{
    forking = false;
    pthread_cond_broadcast(&work_changed);
    pthread_mutex_unlock(&work_mutex);
}

void forget_work_in_child()
{
    work_changed = PTHREAD_COND_INITIALIZER; /* who waited for it is not in this process */
    working = counted ? 1 : 0;
    forking = waited_in_vain = false;
    pthread_mutex_unlock(&work_mutex); /* this thread has held it since before the fork */
}

at_rest::at_rest()
{
    if (counted) {
        end_work();
    }
}

at_rest::~at_rest()
{
    if (counted) {
        begin_work(while_forking::wait);
    }
}

std::thread start_thread(const char *name, std::function<void()> body)
{
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    /* The new thread inherits the mask, so that there is no moment at which it
     * could take a signal. */
    pthread_sigmask(SIG_SETMASK, &all, &before);
    struct restore_mask {
        const sigset_t &mask;
        ~restore_mask() { pthread_sigmask(SIG_SETMASK, &mask, nullptr); }
    } restore{before};
    /* Without a wait: the caller may hold what others work with. */
    begin_work(while_forking::go_on);
    try {
        std::thread thread([body = std::move(body)] {
            counted = true;
            body();
            counted = false;
            end_work();
        });
        pthread_setname_np(thread.native_handle(), name);
        return thread;
    } catch (...) {
        end_work();
        throw;
    }
}

} // namespace described_platform

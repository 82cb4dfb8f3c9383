#include "described/live/threads.h"

#include "described/live/mutex.h"

#include <csignal>

namespace described_platform
{

std::chrono::milliseconds longest_wait_before_fork{5000};

namespace
{

mutex work_mutex;
condition work_changed;
unsigned working GUARDED_BY(work_mutex) = 0;
bool forking GUARDED_BY(work_mutex) = false;
bool waited_in_vain GUARDED_BY(work_mutex) = false;

thread_local bool counted = false;

enum class while_forking { wait, go_on };

void begin_work(while_forking how)
{
    const scoped_lock lock(work_mutex);
    while (forking && how == while_forking::wait) {
        work_changed.wait(work_mutex);
    }
    ++working;
}

void end_work()
{
    const scoped_lock lock(work_mutex);
    if (--working == 0) {
        waited_in_vain = false;
        work_changed.notify_all();
    }
}

} // namespace

/* The mutex is held until the fork is over. */
void stop_work_before_fork() ACQUIRE(work_mutex)
{
    work_mutex.lock();
    forking = true;
    const auto until = std::chrono::steady_clock::now() + longest_wait_before_fork;
    /* A thread that forks does not wait for itself. */
    while (working > (counted ? 1U : 0U) && !waited_in_vain) {
        waited_in_vain = !work_changed.wait_until(work_mutex, until);
    }
}

void resume_work_in_parent() RELEASE(work_mutex)
{
    forking = false;
    work_changed.notify_all();
    work_mutex.unlock();
}

void forget_work_in_child() RELEASE(work_mutex)
{
    work_changed.renew();
    working = counted ? 1 : 0;
    forking = waited_in_vain = false;
    work_mutex.unlock(); /* this thread has held it since before the fork */
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

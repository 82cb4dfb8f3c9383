/*
 * Mutexes that clang checks the use of: what is guarded says by which, and a function
 * says what it takes, gives back or wants held. For other compilers these words are
 * nothing. Of pthread, since the child of a fork makes a condition anew in its place.
 */
#ifndef KAVPLAT_DESCRIBED_MUTEX_H
#define KAVPLAT_DESCRIBED_MUTEX_H

#include <chrono>
#include <ctime>
#include <pthread.h>

#ifdef __clang__
#define DESCRIBED_ANALYSIS(...) __attribute__((__VA_ARGS__))
#else
#define DESCRIBED_ANALYSIS(...)
#endif

#define GUARDED_BY(mutex) DESCRIBED_ANALYSIS(guarded_by(mutex))
#define REQUIRES(mutex) DESCRIBED_ANALYSIS(requires_capability(mutex))
#define ACQUIRE(...) DESCRIBED_ANALYSIS(acquire_capability(__VA_ARGS__))
#define RELEASE(...) DESCRIBED_ANALYSIS(release_capability(__VA_ARGS__))
#define NOT_ANALYSED DESCRIBED_ANALYSIS(no_thread_safety_analysis)

namespace described_platform
{

class DESCRIBED_ANALYSIS(capability("mutex")) mutex
{
  public:
    constexpr mutex() = default;
    mutex(const mutex &) = delete;
    mutex &operator=(const mutex &) = delete;

    void lock() ACQUIRE() NOT_ANALYSED { pthread_mutex_lock(&mutex_); }
    void unlock() RELEASE() NOT_ANALYSED { pthread_mutex_unlock(&mutex_); }

  private:
    friend class condition;
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

/* For a scope; unlock and lock make a pause in it. */
class DESCRIBED_ANALYSIS(scoped_lockable) scoped_lock
{
  public:
    explicit scoped_lock(mutex &m) ACQUIRE(m) : mutex_(m) { m.lock(); }
    ~scoped_lock() RELEASE() NOT_ANALYSED
    {
        if (held_) {
            mutex_.unlock();
        }
    }
    scoped_lock(const scoped_lock &) = delete;
    scoped_lock &operator=(const scoped_lock &) = delete;

    void lock() ACQUIRE() NOT_ANALYSED
    {
        mutex_.lock();
        held_ = true;
    }
    void unlock() RELEASE() NOT_ANALYSED
    {
        held_ = false;
        mutex_.unlock();
    }

  private:
    mutex &mutex_;
    bool held_ = true;
};

class condition
{
  public:
    constexpr condition() = default;
    condition(const condition &) = delete;
    condition &operator=(const condition &) = delete;

    void wait(mutex &m) REQUIRES(m) { pthread_cond_wait(&condition_, &m.mutex_); }

    /* False: it is later than that. */
    bool wait_until(mutex &m, std::chrono::steady_clock::time_point when) REQUIRES(m)
    {
        const auto since_boot = when.time_since_epoch();
        const auto seconds = std::chrono::floor<std::chrono::seconds>(since_boot);
        const std::chrono::nanoseconds rest = since_boot - seconds;
        const timespec deadline{static_cast<time_t>(seconds.count()),
                                static_cast<long>(rest.count())};
        return pthread_cond_clockwait(&condition_, &m.mutex_, CLOCK_MONOTONIC, &deadline) == 0;
    }

    void notify_one() { pthread_cond_signal(&condition_); }
    void notify_all() { pthread_cond_broadcast(&condition_); }

    /* In the child of a fork: whoever waited for it is not in this process. */
    void renew() { condition_ = PTHREAD_COND_INITIALIZER; }

  private:
    pthread_cond_t condition_ = PTHREAD_COND_INITIALIZER;
};

} // namespace described_platform

#endif

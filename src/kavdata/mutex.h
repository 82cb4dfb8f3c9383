// Mutexes that clang checks the use of: what is guarded says by which, and a function
// says what it takes, gives back or wants held. For other compilers these words are
// nothing.
#ifndef KAVPLAT_KAVDATA_MUTEX_H
#define KAVPLAT_KAVDATA_MUTEX_H

#include <chrono>
#include <ctime>
#include <pthread.h>

#ifdef __clang__
#define KAV_ANALYSIS(...) __attribute__((__VA_ARGS__))
#else
#define KAV_ANALYSIS(...)
#endif

#define KAV_CAPABILITY KAV_ANALYSIS(capability("mutex"))
#define KAV_SCOPED_CAPABILITY KAV_ANALYSIS(scoped_lockable)
#define KAV_GUARDED_BY(mutex) KAV_ANALYSIS(guarded_by(mutex))
#define KAV_REQUIRES(mutex) KAV_ANALYSIS(requires_capability(mutex))
#define KAV_EXCLUDES(mutex) KAV_ANALYSIS(locks_excluded(mutex))
#define KAV_ACQUIRE(...) KAV_ANALYSIS(acquire_capability(__VA_ARGS__))
#define KAV_RELEASE(...) KAV_ANALYSIS(release_capability(__VA_ARGS__))
// Of a call whose result is false, or 0, where it took the mutex.
#define KAV_ACQUIRE_IF_ZERO(mutex) KAV_ANALYSIS(try_acquire_capability(false, mutex))
#define KAV_ASSUME_HELD(mutex) KAV_ANALYSIS(assert_capability(mutex))
#define KAV_NOT_ANALYSED KAV_ANALYSIS(no_thread_safety_analysis)

namespace kavplat
{

class KAV_CAPABILITY mutex
{
  public:
    constexpr mutex() = default;
    mutex(const mutex &) = delete;
    mutex &operator=(const mutex &) = delete;

    void lock() KAV_ACQUIRE() KAV_NOT_ANALYSED { pthread_mutex_lock(&mutex_); }
    void unlock() KAV_RELEASE() KAV_NOT_ANALYSED { pthread_mutex_unlock(&mutex_); }

    // In the child of a fork: whoever held it is not in this process.
    void renew() { mutex_ = PTHREAD_MUTEX_INITIALIZER; }

  private:
    friend class condition;
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

class KAV_SCOPED_CAPABILITY lock_guard
{
  public:
    explicit lock_guard(mutex &m) KAV_ACQUIRE(m) : mutex_(m) { m.lock(); }
    ~lock_guard() KAV_RELEASE() { mutex_.unlock(); }
    lock_guard(const lock_guard &) = delete;
    lock_guard &operator=(const lock_guard &) = delete;

  private:
    mutex &mutex_;
};

class condition
{
  public:
    constexpr condition() = default;
    condition(const condition &) = delete;
    condition &operator=(const condition &) = delete;

    void wait(mutex &m) KAV_REQUIRES(m) { pthread_cond_wait(&condition_, &m.mutex_); }

    // False: it is later than that.
    bool wait_until(mutex &m, std::chrono::steady_clock::time_point when) KAV_REQUIRES(m)
    {
        const auto since_boot = when.time_since_epoch();
        const auto seconds = std::chrono::floor<std::chrono::seconds>(since_boot);
        const std::chrono::nanoseconds rest = since_boot - seconds;
        const timespec deadline = {static_cast<time_t>(seconds.count()),
                                   static_cast<long>(rest.count())};
        return pthread_cond_clockwait(&condition_, &m.mutex_, CLOCK_MONOTONIC, &deadline) == 0;
    }

    void notify_all() { pthread_cond_broadcast(&condition_); }

    // In the child of a fork: whoever waited for it is not in this process.
    void renew() { condition_ = PTHREAD_COND_INITIALIZER; }

  private:
    pthread_cond_t condition_ = PTHREAD_COND_INITIALIZER;
};

} // namespace kavplat

#endif

/*
 * The system calls of the rooms, replaced when a test is linked: the target
 * kavplat_wraps passes --wrap for each name below, so that a call from an object
 * of the program comes here, while libc, libstdc++ and net-snmp keep the real
 * one. (An object of the program is a room's, a fake's or the test's own, and
 * gtest's, which is a static library.)
 *
 *     fake_system::scope system;                   // everything put back at both ends
 *     fake_system::fail_allocation(2);             // the second allocation from here on
 *     fake_system::on_fopen.set([](const char *, const char *) { return nullptr; });
 *     EXPECT_EQ(fake_system::sleeps(), std::vector<unsigned>(9, 5));
 *
 * Without a replacement a call goes to the real function, but for three:
 *  - system records the command and gives 0. It never reaches the real one.
 *  - setrlimit records the call and gives 0, since lowering a limit cannot be
 *    undone for the next test.
 *  - sleep records the seconds, takes a millisecond and gives 0.
 *
 * A replacement may be called from any thread. What it calls itself under the
 * name that it replaces goes to the real function (for those three: is
 * recorded). A compiler may make one calloc of malloc and memset, so fail
 * allocations by number or size rather than by function.
 */
#ifndef KAVPLAT_TESTS_FAKES_FAKE_SYSTEM_H
#define KAVPLAT_TESTS_FAKES_FAKE_SYSTEM_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <functional>
#include <memory>
#include <pthread.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <utility>
#include <vector>

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

namespace fake_system
{

/* One bit for each hook that the thread is inside of. */
inline constinit thread_local uint64_t active_hooks = 0;

template <class Signature>
class hook;

/* One replaceable function. Constant initialised and without locks of pthread,
 * since it stands behind malloc and pthread_mutex_lock themselves. */
template <class Result, class... Args>
class hook<Result(Args...)>
{
  public:
    using function = std::function<Result(Args...)>;

    explicit constexpr hook(unsigned bit) : mask_(uint64_t{1} << bit) {}
    hook(const hook &) = delete;
    hook &operator=(const hook &) = delete;

    void set(function replacement)
    {
        swap_in(std::make_shared<const function>(std::move(replacement)));
    }
    void clear() { swap_in(nullptr); }

    /* Calls since the scope began; those of the replacement itself not counted. */
    unsigned calls() const { return calls_.load(); }
    void forget_calls() { calls_.store(0); }

    /* For the replaced function. */
    Result call(Result (*otherwise)(Args...), Args... args)
    {
        if ((active_hooks & mask_) != 0) {
            return otherwise(args...);
        }
        calls_.fetch_add(1, std::memory_order_relaxed);
        if (!is_set_.load(std::memory_order_acquire)) {
            return otherwise(args...);
        }
        const std::shared_ptr<const function> replacement = copy();
        if (replacement == nullptr) {
            return otherwise(args...);
        }
        struct inside {
            explicit inside(uint64_t m) : mask(m) { active_hooks |= mask; }
            ~inside() { active_hooks &= ~mask; }
            inside(const inside &) = delete;
            inside &operator=(const inside &) = delete;
            uint64_t mask;
        } const guard(mask_);
        return (*replacement)(args...);
    }

  private:
    void lock()
    {
        while (busy_.test_and_set(std::memory_order_acquire)) {
            std::this_thread::yield();
        }
    }
    void unlock() { busy_.clear(std::memory_order_release); }

    std::shared_ptr<const function> copy()
    {
        lock();
        std::shared_ptr<const function> current = current_;
        unlock();
        return current;
    }
    void swap_in(std::shared_ptr<const function> next)
    {
        lock();
        current_.swap(next);
        is_set_.store(current_ != nullptr, std::memory_order_release);
        unlock();
        // The old replacement dies here, outside the lock: its end may well
        // free memory through a hook.
    }

    uint64_t mask_;
    std::atomic<unsigned> calls_{0};
    std::atomic<bool> is_set_{false};
    std::atomic_flag busy_ = ATOMIC_FLAG_INIT;
    std::shared_ptr<const function> current_;
};

extern hook<unsigned(unsigned)> on_sleep;
extern hook<int(const char *, struct stat *)> on_stat;
extern hook<FILE *(const char *, const char *)> on_fopen;
extern hook<int(const char *)> on_system;
extern hook<int(int, const struct rlimit *)> on_setrlimit;
extern hook<time_t(time_t *)> on_time;

extern hook<void *(size_t)> on_malloc;
extern hook<void *(size_t, size_t)> on_calloc;
extern hook<void *(void *, size_t)> on_realloc;
extern hook<char *(const char *)> on_strdup;
extern hook<void(void *)> on_free;

using thread_body = void *(*)(void *);
extern hook<int(pthread_t *, const pthread_attr_t *, thread_body, void *)> on_pthread_create;
extern hook<int(pthread_t)> on_pthread_detach;
extern hook<int(pthread_t, void **)> on_pthread_join;
/* Every mutex of the program comes by, std::mutex included: look at the address,
 * or use fail_mutex. */
extern hook<int(pthread_mutex_t *, const pthread_mutexattr_t *)> on_pthread_mutex_init;
extern hook<int(pthread_mutex_t *)> on_pthread_mutex_lock;
extern hook<int(pthread_mutex_t *)> on_pthread_mutex_unlock;

/* A replacement that refuses a registration frees it as net-snmp would, with
 * netsnmp_handler_registration_free. */
extern hook<u_long()> on_netsnmp_get_agent_uptime;
extern hook<netsnmp_handler_registration *(const char *, Netsnmp_Node_Handler *, const oid *,
                                           size_t, int)>
    on_netsnmp_create_handler_registration;
extern hook<int(netsnmp_handler_registration *, netsnmp_iterator_info *)>
    on_netsnmp_register_table_iterator;
extern hook<int(netsnmp_handler_registration *)> on_netsnmp_register_scalar;
extern hook<int(netsnmp_handler_registration *, netsnmp_mib_handler *)> on_netsnmp_inject_handler;
extern hook<unsigned(unsigned, unsigned, SNMPAlarmCallback *, void *)> on_snmp_alarm_register;
extern hook<void(netsnmp_variable_list *)> on_send_v2trap;

/* Puts every function and every record back, when it begins and when it ends. */
class scope
{
  public:
    scope();
    ~scope();
    scope(const scope &) = delete;
    scope &operator=(const scope &) = delete;
};

/* ---- Allocation: malloc, calloc, realloc, strdup ---------------------- */

/* Allocation number nth from now (1 is the next) fails, and count - 1 after it. */
void fail_allocation(unsigned nth, unsigned count = 1);
/* Every allocation of this size (strdup: with the NUL) or more fails. */
void fail_allocations_from(size_t size);
/* Ends both. */
void allow_allocations();
/* Attempts since the scope began, or since the last fail_allocation. */
unsigned allocations();
unsigned failed_allocations();

/* A block that no switch touches and no counter sees, for free(). */
char *heap_text(const char *text);
void *heap_block(size_t size);

/* ---- Files, time, commands -------------------------------------------- */

/* stat and fopen of one path go to another. */
void redirect_path(const std::string &from, const std::string &to);
/* Hundredths of a second that the agent says it is up. */
void set_uptime(u_long hundredths);
/* What was asked of sleep (without a replacement), in order, in seconds. */
std::vector<unsigned> sleeps();
std::vector<std::string> commands();
struct rlimit_call {
    int resource = 0;
    struct rlimit limit = {};
};
std::vector<rlimit_call> rlimits();

/* ---- Threads ----------------------------------------------------------- */

enum class mutex_call { init, lock, unlock };
/* This call on this mutex gives rc and does nothing else, times times; all other
 * mutexes are served. Replaces the hook of the call. */
void fail_mutex(mutex_call call, const pthread_mutex_t *mutex, int rc, unsigned times = ~0U);

/* Waits until condition() holds; false when it does not within the time. */
bool eventually(const std::function<bool()> &condition,
                std::chrono::milliseconds longest = std::chrono::seconds(20));

} // namespace fake_system

#endif

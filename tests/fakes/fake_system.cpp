#include "fakes/fake_system.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <map>
#include <mutex>
#include <string>

namespace fake_system
{

constinit hook<unsigned(unsigned)> on_sleep(0);
constinit hook<int(const char *, struct stat *)> on_stat(1);
constinit hook<FILE *(const char *, const char *)> on_fopen(2);
constinit hook<int(const char *)> on_system(3);
constinit hook<int(int, const struct rlimit *)> on_setrlimit(4);
constinit hook<time_t(time_t *)> on_time(5);
constinit hook<void *(size_t)> on_malloc(6);
constinit hook<void *(size_t, size_t)> on_calloc(7);
constinit hook<void *(void *, size_t)> on_realloc(8);
constinit hook<char *(const char *)> on_strdup(9);
constinit hook<void(void *)> on_free(10);
constinit hook<int(pthread_t *, const pthread_attr_t *, thread_body, void *)> on_pthread_create(11);
constinit hook<int(pthread_t)> on_pthread_detach(12);
constinit hook<int(pthread_t, void **)> on_pthread_join(13);
constinit hook<int(pthread_mutex_t *, const pthread_mutexattr_t *)> on_pthread_mutex_init(14);
constinit hook<int(pthread_mutex_t *)> on_pthread_mutex_lock(15);
constinit hook<int(pthread_mutex_t *)> on_pthread_mutex_unlock(16);
constinit hook<u_long()> on_netsnmp_get_agent_uptime(17);
constinit hook<netsnmp_handler_registration *(const char *, Netsnmp_Node_Handler *, const oid *,
                                              size_t, int)>
    on_netsnmp_create_handler_registration(18);
constinit hook<int(netsnmp_handler_registration *, netsnmp_iterator_info *)>
    on_netsnmp_register_table_iterator(19);
constinit hook<int(netsnmp_handler_registration *)> on_netsnmp_register_scalar(20);
constinit hook<int(netsnmp_handler_registration *, netsnmp_mib_handler *)>
    on_netsnmp_inject_handler(21);
constinit hook<unsigned(unsigned, unsigned, SNMPAlarmCallback *, void *)>
    on_snmp_alarm_register(22);
constinit hook<void(netsnmp_variable_list *)> on_send_v2trap(23);

} // namespace fake_system

extern "C" {
int __real_stat(const char *, struct stat *);
FILE *__real_fopen(const char *, const char *);
time_t __real_time(time_t *);
void *__real_malloc(size_t);
void *__real_calloc(size_t, size_t);
void *__real_realloc(void *, size_t);
char *__real_strdup(const char *);
void __real_free(void *);
int __real_pthread_create(pthread_t *, const pthread_attr_t *, fake_system::thread_body, void *);
int __real_pthread_detach(pthread_t);
int __real_pthread_join(pthread_t, void **);
int __real_pthread_mutex_init(pthread_mutex_t *, const pthread_mutexattr_t *);
int __real_pthread_mutex_lock(pthread_mutex_t *);
int __real_pthread_mutex_unlock(pthread_mutex_t *);
u_long __real_netsnmp_get_agent_uptime();
netsnmp_handler_registration *__real_netsnmp_create_handler_registration(const char *,
                                                                         Netsnmp_Node_Handler *,
                                                                         const oid *, size_t, int);
int __real_netsnmp_register_table_iterator(netsnmp_handler_registration *, netsnmp_iterator_info *);
int __real_netsnmp_register_scalar(netsnmp_handler_registration *);
int __real_netsnmp_inject_handler(netsnmp_handler_registration *, netsnmp_mib_handler *);
unsigned __real_snmp_alarm_register(unsigned, unsigned, SNMPAlarmCallback *, void *);
void __real_send_v2trap(netsnmp_variable_list *);
}

namespace
{

// What was recorded, behind a lock of its own that no hook can reach.
struct records {
    std::vector<unsigned> sleeps;
    std::vector<std::string> commands;
    std::vector<fake_system::rlimit_call> rlimits;
    std::map<std::string, std::string> paths;
};

constinit std::atomic_flag records_busy = ATOMIC_FLAG_INIT;

records &all_records()
{
    static auto *all = new records;
    return *all;
}

template <class Use>
auto with_records(Use use)
{
    struct hold {
        hold()
        {
            while (records_busy.test_and_set(std::memory_order_acquire)) {
                std::this_thread::yield();
            }
        }
        ~hold() { records_busy.clear(std::memory_order_release); }
        hold(const hold &) = delete;
        hold &operator=(const hold &) = delete;
    } const held;
    return use(all_records());
}

constexpr unsigned never = std::numeric_limits<unsigned>::max();
constinit std::atomic<unsigned> attempts{0};
constinit std::atomic<unsigned> failures{0};
constinit std::atomic<unsigned> first_to_fail{never}; // attempt number, 1 the first
constinit std::atomic<unsigned> failing_attempts{0};
constinit std::atomic<size_t> refused_size{SIZE_MAX};

// Counts the attempt and says whether it has to fail.
bool refused(size_t size)
{
    const unsigned attempt = attempts.fetch_add(1) + 1;
    const unsigned first = first_to_fail.load();
    const bool by_number = attempt >= first && attempt - first < failing_attempts.load();
    if (!by_number && size < refused_size.load()) {
        return false;
    }
    failures.fetch_add(1);
    errno = ENOMEM;
    return true;
}

unsigned recorded_sleep(unsigned seconds)
{
    with_records([&](records &r) { r.sleeps.push_back(seconds); });
    const struct timespec moment = {0, 1'000'000};
    nanosleep(&moment, nullptr);
    return 0;
}

int recorded_system(const char *command)
{
    with_records([&](records &r) { r.commands.emplace_back(command != nullptr ? command : ""); });
    return 0;
}

int recorded_setrlimit(int resource, const struct rlimit *limit)
{
    with_records([&](records &r) {
        r.rlimits.push_back({resource, limit != nullptr ? *limit : rlimit{}});
    });
    return 0;
}

std::string redirected(const char *path)
{
    return with_records([&](records &r) {
        const auto found = r.paths.find(path);
        return found == r.paths.end() ? std::string(path) : found->second;
    });
}

int redirected_stat(const char *path, struct stat *status)
{
    return path == nullptr ? __real_stat(path, status)
                           : __real_stat(redirected(path).c_str(), status);
}

FILE *redirected_fopen(const char *path, const char *mode)
{
    return path == nullptr ? __real_fopen(path, mode)
                           : __real_fopen(redirected(path).c_str(), mode);
}

void reset()
{
    using namespace fake_system;
    auto clear = [](auto &...hooks) { ((hooks.clear(), hooks.forget_calls()), ...); };
    clear(on_sleep, on_stat, on_fopen, on_system, on_setrlimit, on_time, on_malloc, on_calloc,
          on_realloc, on_strdup, on_free, on_pthread_create, on_pthread_detach, on_pthread_join,
          on_pthread_mutex_init, on_pthread_mutex_lock, on_pthread_mutex_unlock,
          on_netsnmp_get_agent_uptime, on_netsnmp_create_handler_registration,
          on_netsnmp_register_table_iterator, on_netsnmp_register_scalar, on_netsnmp_inject_handler,
          on_snmp_alarm_register, on_send_v2trap);
    allow_allocations();
    attempts = 0;
    failures = 0;
    with_records([](records &r) { r = records(); });
}

} // namespace

namespace fake_system
{

scope::scope()
{
    reset();
}
scope::~scope()
{
    reset();
}

void fail_allocation(unsigned nth, unsigned count)
{
    first_to_fail = never;
    attempts = 0;
    failing_attempts = count;
    first_to_fail = nth;
}

void fail_allocations_from(size_t size)
{
    refused_size = size;
}

void allow_allocations()
{
    first_to_fail = never;
    failing_attempts = 0;
    refused_size = SIZE_MAX;
}

unsigned allocations()
{
    return attempts;
}
unsigned failed_allocations()
{
    return failures;
}

char *heap_text(const char *text)
{
    return __real_strdup(text);
}
void *heap_block(size_t size)
{
    return __real_malloc(size);
}

void redirect_path(const std::string &from, const std::string &to)
{
    with_records([&](records &r) { r.paths[from] = to; });
}

void set_uptime(u_long hundredths)
{
    on_netsnmp_get_agent_uptime.set([hundredths] { return hundredths; });
}

std::vector<unsigned> sleeps()
{
    return with_records([](records &r) { return r.sleeps; });
}

std::vector<std::string> commands()
{
    return with_records([](records &r) { return r.commands; });
}

std::vector<rlimit_call> rlimits()
{
    return with_records([](records &r) { return r.rlimits; });
}

void fail_mutex(mutex_call call, const pthread_mutex_t *mutex, int rc, unsigned times)
{
    auto left = std::make_shared<std::atomic<unsigned>>(times);
    auto fails = [mutex, left](const pthread_mutex_t *which) {
        if (which != mutex) {
            return false;
        }
        unsigned now = left->load();
        while (now != 0 && !left->compare_exchange_weak(now, now == never ? never : now - 1)) {
        }
        return now != 0;
    };
    switch (call) {
    case mutex_call::init:
        on_pthread_mutex_init.set(
            [fails, rc](pthread_mutex_t *which, const pthread_mutexattr_t *attributes) {
                return fails(which) ? rc : __real_pthread_mutex_init(which, attributes);
            });
        break;
    case mutex_call::lock:
        on_pthread_mutex_lock.set([fails, rc](pthread_mutex_t *which) {
            return fails(which) ? rc : __real_pthread_mutex_lock(which);
        });
        break;
    case mutex_call::unlock:
        on_pthread_mutex_unlock.set([fails, rc](pthread_mutex_t *which) {
            return fails(which) ? rc : __real_pthread_mutex_unlock(which);
        });
        break;
    }
}

bool eventually(const std::function<bool()> &condition, std::chrono::milliseconds longest)
{
    const auto end = std::chrono::steady_clock::now() + longest;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace fake_system

using namespace fake_system;

// Visible, since the linker believes that the shared libraries of net-snmp ask
// for them too; those keep calling the real functions.
#pragma GCC visibility push(default)

extern "C" {

unsigned __wrap_sleep(unsigned seconds)
{
    return on_sleep.call(recorded_sleep, seconds);
}

int __wrap_stat(const char *path, struct stat *status)
{
    return on_stat.call(redirected_stat, path, status);
}

FILE *__wrap_fopen(const char *path, const char *mode)
{
    return on_fopen.call(redirected_fopen, path, mode);
}

int __wrap_system(const char *command)
{
    return on_system.call(recorded_system, command);
}

int __wrap_setrlimit(int resource, const struct rlimit *limit)
{
    return on_setrlimit.call(recorded_setrlimit, resource, limit);
}

time_t __wrap_time(time_t *result)
{
    return on_time.call(__real_time, result);
}

void *__wrap_malloc(size_t size)
{
    return refused(size) ? nullptr : on_malloc.call(__real_malloc, size);
}

void *__wrap_calloc(size_t count, size_t size)
{
    size_t total = 0;
    if (__builtin_mul_overflow(count, size, &total)) {
        total = SIZE_MAX;
    }
    return refused(total) ? nullptr : on_calloc.call(__real_calloc, count, size);
}

void *__wrap_realloc(void *block, size_t size)
{
    return refused(size) ? nullptr : on_realloc.call(__real_realloc, block, size);
}

char *__wrap_strdup(const char *text)
{
    const size_t size = text != nullptr ? strlen(text) + 1 : 0;
    return refused(size) ? nullptr : on_strdup.call(__real_strdup, text);
}

void __wrap_free(void *block)
{
    on_free.call(__real_free, block);
}

int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, thread_body body,
                          void *argument)
{
    return on_pthread_create.call(__real_pthread_create, thread, attributes, body, argument);
}

int __wrap_pthread_detach(pthread_t thread)
{
    return on_pthread_detach.call(__real_pthread_detach, thread);
}

int __wrap_pthread_join(pthread_t thread, void **result)
{
    return on_pthread_join.call(__real_pthread_join, thread, result);
}

int __wrap_pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes)
{
    return on_pthread_mutex_init.call(__real_pthread_mutex_init, mutex, attributes);
}

int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex)
{
    return on_pthread_mutex_lock.call(__real_pthread_mutex_lock, mutex);
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex)
{
    return on_pthread_mutex_unlock.call(__real_pthread_mutex_unlock, mutex);
}

u_long __wrap_netsnmp_get_agent_uptime()
{
    return on_netsnmp_get_agent_uptime.call(__real_netsnmp_get_agent_uptime);
}

netsnmp_handler_registration *
__wrap_netsnmp_create_handler_registration(const char *name, Netsnmp_Node_Handler *handler,
                                           const oid *root, size_t length, int modes)
{
    return on_netsnmp_create_handler_registration.call(__real_netsnmp_create_handler_registration,
                                                       name, handler, root, length, modes);
}

int __wrap_netsnmp_register_table_iterator(netsnmp_handler_registration *registration,
                                           netsnmp_iterator_info *iterator)
{
    return on_netsnmp_register_table_iterator.call(__real_netsnmp_register_table_iterator,
                                                   registration, iterator);
}

int __wrap_netsnmp_register_scalar(netsnmp_handler_registration *registration)
{
    return on_netsnmp_register_scalar.call(__real_netsnmp_register_scalar, registration);
}

int __wrap_netsnmp_inject_handler(netsnmp_handler_registration *registration,
                                  netsnmp_mib_handler *handler)
{
    return on_netsnmp_inject_handler.call(__real_netsnmp_inject_handler, registration, handler);
}

unsigned __wrap_snmp_alarm_register(unsigned when, unsigned flags, SNMPAlarmCallback *callback,
                                    void *argument)
{
    return on_snmp_alarm_register.call(__real_snmp_alarm_register, when, flags, callback, argument);
}

void __wrap_send_v2trap(netsnmp_variable_list *varbinds)
{
    on_send_v2trap.call(__real_send_v2trap, varbinds);
}

} // extern "C"

#pragma GCC visibility pop

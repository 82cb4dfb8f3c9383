#include "contract.h"

#include <algorithm>
#include <cstring>
#include <dlfcn.h>
#include <list>
#include <map>
#include <mutex>

using clock_type = std::chrono::steady_clock;

namespace
{

struct thread_record {
    std::mutex mutex; // between its thread and the watchdog
    const char *call = nullptr;
    char argument[128] = "";
    std::chrono::milliseconds since{0};
};

struct watch_book {
    std::mutex mutex;
    std::list<thread_record> threads; // kept when a thread ends: there are few
    std::map<std::string, call_time> worst;
    clock_type::time_point last_beat; // none until the first
    std::chrono::milliseconds stalled{0};
};

// Never destroyed: the platform's threads run until the process ends.
watch_book &book()
{
    static auto *b = new watch_book;
    return *b;
}

thread_local thread_record *own = nullptr;

thread_record &own_record()
{
    if (own == nullptr) {
        watch_book &b = book();
        const std::lock_guard lock(b.mutex);
        own = &b.threads.emplace_back();
    }
    return *own;
}

std::string described(const char *call, const char *argument)
{
    return std::string(call) + "(" + argument + ")";
}

std::chrono::milliseconds stall_since_beat(const watch_book &b, clock_type::time_point now)
{
    if (b.last_beat == clock_type::time_point()) {
        return std::chrono::milliseconds(0);
    }
    const auto late = now - b.last_beat - heartbeat;
    return std::max(std::chrono::duration_cast<std::chrono::milliseconds>(late),
                    std::chrono::milliseconds(0));
}

// The time that this program had, whatever the machine did meanwhile. With the
// book's lock held.
std::chrono::milliseconds time_had(const watch_book &b)
{
    const auto now = clock_type::now();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()) -
           b.stalled - stall_since_beat(b, now);
}

std::chrono::milliseconds time_had()
{
    watch_book &b = book();
    const std::lock_guard lock(b.mutex);
    return time_had(b);
}

template <class Function>
void find(void *library, contract_call<Function> &call, std::vector<std::string> &missing)
{
    call.function = reinterpret_cast<Function *>(dlsym(library, call.name));
    if (call.function == nullptr) {
        missing.emplace_back(call.name);
    }
}

} // namespace

watched_call::watched_call(const char *call, const char *argument) : since_(time_had())
{
    thread_record &record = own_record();
    const std::lock_guard lock(record.mutex);
    outer_call_ = record.call;
    outer_since_ = record.since;
    record.call = call;
    record.since = since_;
    const size_t length = argument == nullptr ? 0 : strnlen(argument, sizeof record.argument - 1);
    if (length != 0) {
        memcpy(record.argument, argument, length);
    }
    record.argument[length] = '\0';
}

watched_call::~watched_call()
{
    thread_record &record = own_record();
    {
        watch_book &b = book();
        const std::lock_guard lock(b.mutex);
        const auto took = time_had(b) - since_;
        call_time &worst = b.worst[record.call];
        if (worst.what.empty() || took > worst.took) {
            worst = {described(record.call, record.argument), took};
        }
    }
    const std::lock_guard lock(record.mutex);
    record.call = outer_call_;
    record.since = outer_since_;
}

int load_platform(const char *path, platform_calls &calls, std::vector<std::string> &missing,
                  std::string &why)
{
    void *library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        why = dlerror();
        return -1;
    }
    std::vector<std::string> done_without;
    find(library, calls.capi_get_inventory, missing);
    find(library, calls.capi_free_inventory, missing);
    find(library, calls.capi_get_component_desc_str, missing);
    find(library, calls.capi_is_sensor_type, missing);
    find(library, calls.capi_is_indicator_type, missing);
    find(library, calls.capi_get_sensor, missing);
    find(library, calls.capi_get_sensor_info, missing);
    find(library, calls.capi_is_sensor_with_OK_semantics, missing);
    find(library, calls.capi_get_indicator, missing);
    find(library, calls.capi_get_indicator_meaning, done_without);
    find(library, calls.capi_get_power_state, missing);
    find(library, calls.capi_get_rdy2rm_status, missing);
    find(library, calls.capi_get_enable_disable_state, missing);
    find(library, calls.capi_get_fru_info, missing);
    find(library, calls.capi_get_interface_name, done_without);
    find(library, calls.capi_get_product_ops_info, missing);
    find(library, calls.capi_get_chassis_ops_info, missing);
    find(library, calls.capi_get_product_vantor_id, missing);
    find(library, calls.capi_get_chassis_vantor_id, missing);
    find(library, calls.event_mgr_get_handle, missing);
    find(library, calls.event_mgr_subscribe_event_class, missing);
    find(library, calls.event_mgr_subscribe_event, missing);
    return 0;
}

void note_heartbeat()
{
    watch_book &b = book();
    const std::lock_guard lock(b.mutex);
    const auto now = clock_type::now();
    b.stalled += stall_since_beat(b, now);
    b.last_beat = now;
}

bool inside_a_call()
{
    return own != nullptr && own->call != nullptr;
}

std::vector<call_time> worst_times()
{
    watch_book &b = book();
    const std::lock_guard lock(b.mutex);
    std::vector<call_time> all;
    for (const auto &[call, time] : b.worst) {
        all.push_back(time);
    }
    return all;
}

bool longest_under_way(std::chrono::milliseconds longer_than, call_time &found)
{
    watch_book &b = book();
    const std::lock_guard lock(b.mutex);
    found.took = longer_than;
    bool any = false;
    for (thread_record &record : b.threads) {
        const std::lock_guard record_lock(record.mutex);
        if (record.call != nullptr && time_had(b) - record.since > found.took) {
            found = {described(record.call, record.argument), time_had(b) - record.since};
            any = true;
        }
    }
    return any;
}

const char *call_under_way()
{
    return own != nullptr ? own->call : nullptr;
}

const char *argument_under_way()
{
    return own != nullptr ? own->argument : "";
}

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
    clock_type::time_point since;
};

struct watch_book {
    std::mutex mutex;
    std::list<thread_record> threads; // kept when a thread ends: there are few
    std::map<std::string, call_time> worst;
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

std::chrono::milliseconds elapsed(clock_type::time_point since)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(clock_type::now() - since);
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

watched_call::watched_call(const char *call, const char *argument) : since_(clock_type::now())
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
    const auto took = elapsed(since_);
    {
        watch_book &b = book();
        const std::lock_guard lock(b.mutex);
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
    find(library, calls.capi_get_inventory, missing);
    find(library, calls.capi_free_inventory, missing);
    find(library, calls.capi_get_component_desc_str, missing);
    find(library, calls.capi_is_sensor_type, missing);
    find(library, calls.capi_is_indicator_type, missing);
    find(library, calls.capi_get_sensor, missing);
    find(library, calls.capi_get_sensor_info, missing);
    find(library, calls.capi_is_sensor_with_OK_semantics, missing);
    find(library, calls.capi_get_indicator, missing);
    find(library, calls.capi_get_power_state, missing);
    find(library, calls.capi_get_rdy2rm_status, missing);
    find(library, calls.capi_get_enable_disable_state, missing);
    find(library, calls.capi_get_fru_info, missing);
    find(library, calls.capi_get_product_ops_info, missing);
    find(library, calls.capi_get_chassis_ops_info, missing);
    find(library, calls.capi_get_product_vantor_id, missing);
    find(library, calls.capi_get_chassis_vantor_id, missing);
    find(library, calls.event_mgr_get_handle, missing);
    find(library, calls.event_mgr_subscribe_event_class, missing);
    find(library, calls.event_mgr_subscribe_event, missing);
    return 0;
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
        if (record.call != nullptr && elapsed(record.since) > found.took) {
            found = {described(record.call, record.argument), elapsed(record.since)};
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

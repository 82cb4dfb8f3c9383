/*
 * The calls of platform/capi.h and platform/event_mgr.h as found in a loaded
 * library. Every call through here is watched: which one is under way on which
 * thread, for a crash and for a call that does not return, and how long it took.
 */
#ifndef KAVPLAT_CONFORMANCE_CONTRACT_H
#define KAVPLAT_CONFORMANCE_CONTRACT_H

#include <chrono>
#include <string>
#include <type_traits>
#include <vector>

#include "platform/capi.h"
#include "platform/event_mgr.h"

/* Thrown, within this program only, by a call that the library does not export. */
struct missing_call {
    const char *name;
};

/* Of the calling thread, from its construction to its end. argument may be null. */
class watched_call
{
  public:
    watched_call(const char *call, const char *argument);
    ~watched_call();
    watched_call(const watched_call &) = delete;
    watched_call &operator=(const watched_call &) = delete;

  private:
    const char *outer_call_;
    std::chrono::milliseconds outer_since_;
    std::chrono::milliseconds since_;
};

inline const char *name_among()
{
    return nullptr;
}
template <class First, class... Rest>
const char *name_among(First first, Rest... rest)
{
    if constexpr (std::is_same_v<First, const char *> || std::is_same_v<First, const void *>) {
        return static_cast<const char *>(first);
    } else {
        return name_among(rest...);
    }
}

template <class Function>
struct contract_call {
    const char *name;
    Function *function = nullptr;

    template <class... Arguments>
    auto operator()(Arguments... arguments) const
    {
        if (function == nullptr) {
            throw missing_call{name};
        }
        const watched_call watch(name, name_among(arguments...));
        return function(arguments...);
    }
};

#define KAVPLAT_CONTRACT_CALL(call)                                                                \
    contract_call<decltype(::call)> call                                                           \
    {                                                                                              \
#call                                                                                      \
    }
struct platform_calls {
    KAVPLAT_CONTRACT_CALL(capi_get_inventory);
    KAVPLAT_CONTRACT_CALL(capi_free_inventory);
    KAVPLAT_CONTRACT_CALL(capi_get_component_desc_str);
    KAVPLAT_CONTRACT_CALL(capi_is_sensor_type);
    KAVPLAT_CONTRACT_CALL(capi_is_indicator_type);
    KAVPLAT_CONTRACT_CALL(capi_get_sensor);
    KAVPLAT_CONTRACT_CALL(capi_get_sensor_info);
    KAVPLAT_CONTRACT_CALL(capi_is_sensor_with_OK_semantics);
    KAVPLAT_CONTRACT_CALL(capi_get_indicator);
    KAVPLAT_CONTRACT_CALL(capi_get_indicator_meaning); /* null in a platform without it */
    KAVPLAT_CONTRACT_CALL(capi_get_power_state);
    KAVPLAT_CONTRACT_CALL(capi_get_rdy2rm_status);
    KAVPLAT_CONTRACT_CALL(capi_get_enable_disable_state);
    KAVPLAT_CONTRACT_CALL(capi_get_fru_info);
    KAVPLAT_CONTRACT_CALL(capi_get_interface_name); /* as well */
    KAVPLAT_CONTRACT_CALL(capi_get_product_ops_info);
    KAVPLAT_CONTRACT_CALL(capi_get_chassis_ops_info);
    KAVPLAT_CONTRACT_CALL(capi_get_product_vantor_id);
    KAVPLAT_CONTRACT_CALL(capi_get_chassis_vantor_id);
    KAVPLAT_CONTRACT_CALL(event_mgr_get_handle);
    KAVPLAT_CONTRACT_CALL(event_mgr_subscribe_event_class);
    KAVPLAT_CONTRACT_CALL(event_mgr_subscribe_event);
};
#undef KAVPLAT_CONTRACT_CALL

/* 0, or -1 with why. What the library does not export stays null and its name
 * goes to missing. The library stays loaded until the process ends. */
int load_platform(const char *path, platform_calls &calls, std::vector<std::string> &missing,
                  std::string &why);

/*
 * To be called about every heartbeat, on a thread that does nothing else. When it
 * comes late the machine had no time for this program, and that is not counted
 * against the calls that were under way.
 */
constexpr std::chrono::milliseconds heartbeat{50};
void note_heartbeat();

/* Whether the calling thread is inside a call; calls nest by way of events. */
bool inside_a_call();

struct call_time {
    std::string what; /* "capi_get_sensor(/SYS/T0)" */
    std::chrono::milliseconds took{0};
};
/* The worst so far, of each call that was made. */
std::vector<call_time> worst_times();
/* The call that has been under way for longest, if for longer than that. */
bool longest_under_way(std::chrono::milliseconds longer_than, call_time &found);

/* The same of the calling thread, for a signal handler: null when there is none. */
const char *call_under_way();
const char *argument_under_way();

#endif

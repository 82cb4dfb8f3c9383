#include "table/turns.h"

#include <chrono>
#include <ctime>
#include <deque>
#include <memory>
#include <new>

namespace kavplat
{

namespace
{

// A table without a platform to wait for takes some microseconds. More than one tick
// of the slowest clock there is: one may end at any time.
constexpr std::chrono::milliseconds slow{15};

// As of the last tick. The exact time takes a good part of what a row takes.
std::chrono::nanoseconds recent_time()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

// For how long the agent reads what has come in meanwhile, a packet at a time.
constexpr timeval pause_length = {0, 2000};

// What waits here is no longer bounded by the socket's buffer. When it is as much
// as this, requests are served at once, and what comes in waits there again.
constexpr size_t most_waiting = 100;

struct free_cache {
    void operator()(netsnmp_delegated_cache *cache) const { netsnmp_free_delegated_cache(cache); }
};
using waiting_request = std::unique_ptr<netsnmp_delegated_cache, free_cache>;

// Of the agent's thread alone.
bool is_pausing = false;

// Never destroyed: at exit the agent may be gone, and what it would free with it.
std::deque<waiting_request> &waiting()
{
    static auto *all = new std::deque<waiting_request>;
    return *all;
}

void go_on(unsigned, void *);

// An alarm that is run by a signal's handler may not serve requests.
bool are_alarms_run_by_the_loop()
{
    return netsnmp_ds_get_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_ALARM_DONT_USE_SIG) != 0;
}

int serve(netsnmp_mib_handler *handler, netsnmp_handler_registration *registration,
          netsnmp_agent_request_info *reqinfo, netsnmp_request_info *request)
{
    const auto begin = recent_time();
    const int status =
        netsnmp_call_next_handler_one_request(handler, registration, reqinfo, request);
    if (recent_time() - begin >= slow && !is_pausing && are_alarms_run_by_the_loop()) {
        is_pausing = snmp_alarm_register_hr(pause_length, 0, go_on, nullptr) != 0;
    }
    return status;
}

// False when it cannot wait and is to be served now.
bool put_off(netsnmp_mib_handler *handler, netsnmp_handler_registration *registration,
             netsnmp_agent_request_info *reqinfo, netsnmp_request_info *request)
try {
    if (waiting().size() >= most_waiting) {
        return false;
    }
    waiting_request cache(
        netsnmp_create_delegated_cache(handler, registration, reqinfo, request, nullptr));
    if (!cache) {
        return false;
    }
    waiting().push_back(std::move(cache));
    request->delegated = 1;
    return true;
} catch (const std::bad_alloc &) {
    return false;
}

// The agent sends the answer once none of its requests is delegated any more.
void go_on(unsigned, void *)
{
    is_pausing = false;
    while (!is_pausing && !waiting().empty()) {
        const waiting_request next = std::move(waiting().front());
        waiting().pop_front();
        // Null when the agent has given the whole PDU up.
        if (const netsnmp_delegated_cache *cache = netsnmp_handler_check_cache(next.get())) {
            cache->requests->delegated = 0;
            // By now the agent takes what a GET has no value for as missing. It does
            // so but once: what has none after this is missing as well.
            netsnmp_variable_list *var = cache->requests->requestvb;
            const bool was_missing = var->type == SNMP_NOSUCHINSTANCE;
            if (was_missing) {
                snmp_set_var_typed_value(var, ASN_NULL, nullptr, 0);
            }
            const int status =
                serve(cache->handler, cache->reginfo, cache->reqinfo, cache->requests);
            if (status != SNMP_ERR_NOERROR) {
                netsnmp_set_request_error(cache->reqinfo, cache->requests, status);
            }
            if (was_missing && var->type == ASN_NULL) {
                var->type = SNMP_NOSUCHINSTANCE;
            }
        }
    }
}

int handle(netsnmp_mib_handler *handler, netsnmp_handler_registration *registration,
           netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests)
{
    if (reqinfo->mode != MODE_GET && reqinfo->mode != MODE_GETNEXT &&
        reqinfo->mode != MODE_GETBULK) {
        return netsnmp_call_next_handler(handler, registration, reqinfo, requests);
    }
    for (netsnmp_request_info *request = requests; request; request = request->next) {
        if (is_pausing && put_off(handler, registration, reqinfo, request)) {
            continue;
        }
        if (const int status = serve(handler, registration, reqinfo, request);
            status != SNMP_ERR_NOERROR) {
            return status;
        }
    }
    return SNMP_ERR_NOERROR;
}

} // namespace

void take_turns(netsnmp_handler_registration *registration)
{
    netsnmp_mib_handler *handler = netsnmp_create_handler("turns", handle);
    if (handler && netsnmp_inject_handler(registration, handler) != SNMPERR_SUCCESS) {
        netsnmp_handler_free(handler);
    }
}

} // namespace kavplat

#include "table/turns.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <deque>
#include <iterator>
#include <memory>
#include <new>

namespace kavplat
{

namespace
{

using std::chrono::nanoseconds;

// So long tables are served without a pause. More than a few ticks of the slowest clock
// there is, since one may end at any time.
constexpr std::chrono::milliseconds longest_turn{20};

// For how long the agent reads what has come in meanwhile, a packet at a time.
constexpr std::chrono::milliseconds pause_length{2};

// An alarm that is later than this is one that nobody runs.
constexpr std::chrono::seconds longest_delay{1};

// As of the last tick. The exact time takes a good part of what a row takes.
nanoseconds recent_time()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return std::chrono::seconds(now.tv_sec) + nanoseconds(now.tv_nsec);
}

// What waits here is no longer bounded by the socket's buffer. When it is as many PDUs as
// this, requests are served at once, and what comes in waits there again.
constexpr size_t most_waiting = 100;

struct free_cache {
    void operator()(netsnmp_delegated_cache *cache) const { netsnmp_free_delegated_cache(cache); }
};
using waiting_request = std::unique_ptr<netsnmp_delegated_cache, free_cache>;

// All of the agent's thread alone.
size_t waiting_pdus = 0; // of which something waits
bool is_pausing = false;
nanoseconds pause_begin{};
bool loop_runs_alarms = false;

// What tables took since the last pause, less what the agent had for others in between.
nanoseconds turn{};
nanoseconds turn_end{};

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

bool register_alarm(SNMPAlarmCallback *callback)
{
    constexpr timeval when = {0, std::chrono::microseconds(pause_length).count()};
    return are_alarms_run_by_the_loop() && snmp_alarm_register_hr(when, 0, callback, nullptr) != 0;
}

bool came_by_udp(const netsnmp_pdu &pdu)
{
    const auto is = [&](const oid *domain, size_t length) {
        return pdu.tDomain && netsnmp_oid_equals(pdu.tDomain, pdu.tDomainLen, domain, length) == 0;
    };
    constexpr oid udp_ipv6[] = {TRANSPORT_DOMAIN_UDP_IPV6};
    return is(netsnmpUDPDomain, netsnmpUDPDomain_len) || is(udp_ipv6, std::size(udp_ipv6));
}

// In a mode other than its PDU's (a SET has several) a request is a step of something.
bool may_wait(const netsnmp_agent_request_info &reqinfo)
{
    const netsnmp_pdu *pdu = reqinfo.asp ? reqinfo.asp->pdu : nullptr;
    return pdu && reqinfo.mode == pdu->command && came_by_udp(*pdu);
}

int serve(netsnmp_mib_handler *handler, netsnmp_handler_registration *registration,
          netsnmp_agent_request_info *reqinfo, netsnmp_request_info *request)
{
    const nanoseconds begin = recent_time();
    turn = std::max(nanoseconds(0), turn - (begin - turn_end));
    const int status =
        netsnmp_call_next_handler_one_request(handler, registration, reqinfo, request);
    turn_end = recent_time();
    turn += turn_end - begin;
    if (turn >= longest_turn && !is_pausing && loop_runs_alarms) {
        is_pausing = register_alarm(go_on);
        pause_begin = turn_end;
    }
    return status;
}

bool is_of(const waiting_request &request, long transaction)
{
    return request->transaction_id == transaction;
}

// False when it cannot wait and is to be served now.
bool put_off(netsnmp_mib_handler *handler, netsnmp_handler_registration *registration,
             netsnmp_agent_request_info *reqinfo, netsnmp_request_info *request)
try {
    const bool is_another =
        waiting().empty() || !is_of(waiting().back(), reqinfo->asp->pdu->transid);
    if (is_another && waiting_pdus >= most_waiting) {
        return false;
    }
    waiting_request cache(
        netsnmp_create_delegated_cache(handler, registration, reqinfo, request, nullptr));
    if (!cache) {
        return false;
    }
    waiting().push_back(std::move(cache));
    waiting_pdus += is_another ? 1 : 0;
    request->delegated = 1;
    return true;
} catch (const std::bad_alloc &) {
    return false;
}

waiting_request take_next()
{
    waiting_request next = std::move(waiting().front());
    waiting().pop_front();
    if (waiting().empty() || !is_of(waiting().front(), next->transaction_id)) {
        waiting_pdus--;
    }
    return next;
}

// The agent sends the answer once none of its requests is delegated any more; not every
// loop looks for that after its alarms.
void go_on(unsigned, void *)
{
    is_pausing = false;
    loop_runs_alarms = true;
    turn = {};
    turn_end = recent_time();
    while (!is_pausing && !waiting().empty()) {
        const waiting_request next = take_next();
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
    netsnmp_check_outstanding_agent_requests();
}

int handle(netsnmp_mib_handler *handler, netsnmp_handler_registration *registration,
           netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests)
{
    if (!may_wait(*reqinfo)) {
        return netsnmp_call_next_handler(handler, registration, reqinfo, requests);
    }
    if (is_pausing && recent_time() - pause_begin > longest_delay) {
        loop_runs_alarms = false;
    }
    for (netsnmp_request_info *request = requests; request; request = request->next) {
        if (is_pausing && loop_runs_alarms && put_off(handler, registration, reqinfo, request)) {
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
    // Whether the loop runs alarms is known when it has run one.
    static const bool is_asked = register_alarm(go_on);
    static_cast<void>(is_asked);
}

} // namespace kavplat

#include "kavdata/cache_internal.h"
#include "trace/trace.h"

// The up-time stands in an agent header; nothing else of the agent is used here.
#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/snmp_agent.h>

namespace kavplat
{

uint32_t agent_uptime()
{
    return static_cast<uint32_t>(netsnmp_get_agent_uptime());
}

void log_failure(const char *function, const char *cause)
{
    snmp_log(LOG_ERR, "%s:FAILED:%s\n", function, cause);
}

void warn_failed_call(const char *function, const char *call, const char *about, int status)
{
    snmp_log(LOG_WARNING, "%s:%s(%s) failed, status=%d\n", function, call, about, status);
}

bool has_failed(const char *function, polled_call call, phys_entry &entry, int status)
{
    static constexpr const char *names[] = {"capi_get_sensor_info", "capi_get_power_state",
                                            "capi_get_enable_disable_state"};
    static_assert(std::size(names) == std::size(decltype(entry.polledStatus){}));
    const auto i = static_cast<size_t>(call);
    const int before =
        std::atomic_ref(entry.polledStatus[i]).exchange(status, std::memory_order_relaxed);
    if (status != 0 && status != before) {
        warn_failed_call(function, names[i], printable(entry.entPhysicalName), status);
    }
    return status != 0;
}

} // namespace kavplat

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

} // namespace kavplat

#include "described/live/log.h"

#include "described/live/forks.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/library/snmp_logging.h>

namespace described_platform
{

void log_error(const std::string &line)
{
    const scoped_lock lock(log_mutex);
    snmp_log(LOG_ERR, "%s\n", line.c_str());
}

void log_info(const std::string &line)
{
    const scoped_lock lock(log_mutex);
    snmp_log(LOG_INFO, "%s\n", line.c_str());
}

} // namespace described_platform

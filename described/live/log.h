/* Lines for the agent's log. The only place of this room that knows net-snmp. */
#ifndef KAVPLAT_DESCRIBED_LOG_H
#define KAVPLAT_DESCRIBED_LOG_H

#include <string>

namespace described_platform
{

void log_error(const std::string &line);
void log_info(const std::string &line);

} // namespace described_platform

#endif

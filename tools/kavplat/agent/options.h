/* The part of a command line that says which agent is asked, and how. */
#ifndef KAVPLAT_AGENT_OPTIONS_H
#define KAVPLAT_AGENT_OPTIONS_H

#include "session.h"

namespace CLI
{
class App;
}

namespace kavplat_agent
{

/* The options of net-snmp's tools. Both live until the command line is parsed. */
void add_to(CLI::App &command, address &into);

} // namespace kavplat_agent

#endif

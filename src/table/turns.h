// Slow platforms and everybody else who asks the agent something.
//
// An agent has one thread, and a request may make a table ask the platform, which
// may take seconds. One PDU may ask for many rows. Served in one go they would keep
// every other request waiting for the sum; so after a slow one the agent gets its
// turn first, and the rest of the PDU is served afterwards, as net-snmp does with
// requests that it hands to a subagent. What a client is answered stays the same.
#ifndef KAVPLAT_TABLE_TURNS_H
#define KAVPLAT_TABLE_TURNS_H

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

namespace kavplat
{

// For a registration that was successful. Without memory the table does without.
void take_turns(netsnmp_handler_registration *registration);

} // namespace kavplat

#endif

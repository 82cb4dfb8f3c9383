// Slow platforms and everybody else who asks the agent something.
//
// An agent has one thread, and a request may make a table ask the platform, which
// may take seconds. One PDU may ask for many rows. Served in one go they would keep
// every other request waiting for the sum; so when tables took long the agent gets its
// turn first, and the rest of the PDU is served afterwards, as net-snmp does with
// requests that it hands to a subagent. What a client is answered stays the same.
//
// Only what came by UDP is put off. Everything else is served when it is asked for:
//  - What the agent asks itself (its `monitor` lines do) is waited for inside an alarm,
//    and what was put off waits for an alarm.
//  - A stream may be closed while its request waits; net-snmp then gives the answer to
//    whoever connects next. By UDP nothing is ever closed.
//  - A subagent's GETNEXT may include its start. net-snmp begins it as a GET, and takes
//    what is not answered at once for missing.
//
// It takes a loop that runs the agent's alarms. In one that never did nothing is put
// off. In one that ceased to, what waits then stays without an answer, and from a second
// later nothing is put off any more.
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

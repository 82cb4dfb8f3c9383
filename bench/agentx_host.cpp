// The tables in a subagent: the module's library in a program that serves them to
// a master agent over AgentX.
//
// usage: agentx_host SOCKET
//
// Has to be ended by SIGKILL, as whoever starts it in a pid namespace of its own
// does: the module's own end is that of every snmpd.
#include "entityMIB/entityMIB.h"
#include "kavPlatMIB/kavPlatMIB.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char **argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: %s SOCKET\n", argv[0]);
        return 2;
    }
    setenv("MIBS", "", 1);
    snmp_enable_stderrlog();
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE, 1); // a subagent
    netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET, argv[1]);
    init_agent("kavplat-agentx");
    init_entityMIB();
    init_kavPlatMIB();
    init_snmp("kavplat-agentx");
    for (;;) {
        agent_check_and_process(1);
    }
}

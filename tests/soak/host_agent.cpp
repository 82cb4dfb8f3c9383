// A program that plays the agent: net-snmp's agent library, the module's rooms and
// a platform linked together, so that a sanitizer sees all of it.
//
// usage: soak_host_PLATFORM PORT
//
// Serves udp:127.0.0.1:PORT to anybody until SIGTERM, and then ends as a program
// does, so that a sanitizer has the last word. Linked with a system() that does
// nothing, since the module's own end is that of every snmpd of the host.
#include "entityMIB/entityMIB.h"
#include "kavPlatMIB/kavPlatMIB.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <net-snmp/agent/agent_callbacks.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <string>

namespace
{

volatile sig_atomic_t is_over = 0;

void end(int)
{
    is_over = 1;
}

// Nothing is configured that would let anybody in.
int allow(int, int, void *parameters, void *)
{
    static_cast<view_parameters *>(parameters)->errorcode = VACM_SUCCESS;
    return 0;
}

constexpr oid uptime_oid[] = {1, 3, 6, 1, 2, 1, 1, 3, 0};

// The one object that is not the module's, for whoever asks for another subtree.
int handle_uptime(netsnmp_mib_handler *, netsnmp_handler_registration *,
                  netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests)
{
    if (reqinfo->mode == MODE_GET) {
        const u_long ticks = netsnmp_get_agent_uptime();
        snmp_set_var_typed_value(requests->requestvb, ASN_TIMETICKS, &ticks, sizeof ticks);
    }
    return SNMP_ERR_NOERROR;
}

} // namespace

extern "C" int __wrap_system(const char *command)
{
    printf("system: %s\n", command);
    return 0;
}

int main(int argc, char **argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: %s PORT\n", argv[0]);
        return 2;
    }
    struct sigaction action = {};
    action.sa_handler = end;
    sigaction(SIGTERM, &action, nullptr);
    setenv("MIBS", "", 1);
    snmp_enable_stderrlog();
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE, 0); // a master
    netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_PORTS,
                          ("udp:127.0.0.1:" + std::string(argv[1])).c_str());
    netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_SMUX_SOCKET, "127.0.0.1");
    init_agent("kavplat-soak");
    for (const int question : {SNMPD_CALLBACK_ACM_CHECK_INITIAL, SNMPD_CALLBACK_ACM_CHECK}) {
        snmp_register_callback(SNMP_CALLBACK_APPLICATION, question, allow, nullptr);
    }
    netsnmp_register_scalar(netsnmp_create_handler_registration(
        "uptime", handle_uptime, uptime_oid, OID_LENGTH(uptime_oid) - 1, HANDLER_CAN_RONLY));
    init_entityMIB();
    init_kavPlatMIB();
    init_snmp("kavplat-soak");
    if (init_master_agent() != 0) {
        return 1;
    }
    // A signal that comes just before the agent waits would go unnoticed.
    snmp_alarm_register(
        1, SA_REPEAT, [](unsigned, void *) {}, nullptr);
    while (!is_over) {
        agent_check_and_process(1);
    }
    fflush(nullptr);
    // The platform's threads go on until the process ends; what static objects own
    // is theirs to the last.
    return 0;
}

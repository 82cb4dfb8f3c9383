// A program that plays the agent: net-snmp's agent library, the module's rooms and
// a platform linked together, so that a sanitizer sees all of it.
//
// usage: soak_host_PLATFORM PORT [SECONDS]
//
// Serves udp:127.0.0.1:PORT to anybody until SIGTERM, from SECONDS on by a loop that only
// reads what comes in and runs no alarms, and then ends as a program
// does, so that a sanitizer has the last word. Linked with a system() that does
// nothing, since the module's own end is that of every snmpd of the host.
#include "entityMappingMIB/entityMappingMIB.h"
#include "entityMIB/entityMIB.h"
#include "entitySensorMIB/entitySensorMIB.h"
#include "entityStateMIB/entityStateMIB.h"
#include "kavPlatMIB/kavPlatMIB.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <net-snmp/agent/agent_callbacks.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/select.h>

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

// What a program does that has a loop of its own and was written before there were alarms.
void read_what_came_in()
{
    int numfds = 0;
    int block = 0;
    fd_set fds;
    FD_ZERO(&fds);
    timeval timeout = {0, 100'000};
    snmp_select_info(&numfds, &fds, &timeout, &block);
    timeout = {0, 100'000};
    if (select(numfds, &fds, nullptr, nullptr, &timeout) > 0) {
        snmp_read(&fds);
    } else {
        snmp_timeout();
    }
}

} // namespace

extern "C" int __wrap_system(const char *command)
{
    printf("system: %s\n", command);
    return 0;
}

int main(int argc, char **argv)
{
    if (argc != 2 && argc != 3) {
        fprintf(stderr, "usage: %s PORT [SECONDS]\n", argv[0]);
        return 2;
    }
    using clock = std::chrono::steady_clock;
    const auto without_alarms =
        argc == 3 ? clock::now() + std::chrono::seconds(atoi(argv[2])) : clock::time_point::max();
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
    init_entitySensorMIB();
    init_entityStateMIB();
    init_entityMappingMIB();
    init_snmp("kavplat-soak");
    if (init_master_agent() != 0) {
        return 1;
    }
    // A signal that comes just before the agent waits would go unnoticed.
    snmp_alarm_register(
        1, SA_REPEAT, [](unsigned, void *) {}, nullptr);
    bool is_told = false;
    while (!is_over) {
        if (clock::now() < without_alarms) {
            agent_check_and_process(1);
            continue;
        }
        if (!is_told) {
            is_told = true;
            puts("no more alarms");
            fflush(stdout);
        }
        read_what_came_in();
    }
    fflush(nullptr);
    // The platform's threads go on until the process ends; what static objects own
    // is theirs to the last.
    return 0;
}

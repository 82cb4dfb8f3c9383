#include "entityMIB/entityMIB.h"

#include "entityMIB/entPhysicalTable.h"
#include "kavdata/cache.h"
#include "monitor/fork.h"
#include "monitor/monitor.h"
#include "table/table.h"
#include "trace/trace.h"

#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace kavplat
{

namespace
{

constexpr char stop_file[] = "/coredump/snmpd.stop.entity";
constexpr unsigned stop_file_seconds = 3;

constexpr oid entLastChangeTime_oid[] = {1, 3, 6, 1, 2, 1, 47, 1, 4, 1};

void stamp_change()
{
    relaxed_store(entLastChangeTime, agent_uptime());
}

void look_for_fork(unsigned, void *)
{
    if (was_left_behind_by_fork()) {
        snmp_log(LOG_INFO, "entityMIB: the agent became a daemon, the monitor starts anew\n");
        restart_monitor_after_fork();
    }
}

// The agent runs alarms only from its main loop, which it enters after it became
// a daemon: one look is enough.
void look_for_fork_once_running()
{
    snmp_alarm_register(1, 0, look_for_fork, nullptr);
}

} // namespace

} // namespace kavplat

void init_entityMIB(void)
{
    KAV_TRACE("entityMIB", "%s\n", "init_entityMIB");
    if (std::exchange(kavplat::loaded.entityMIB, true)) {
        snmp_log(LOG_WARNING, "entityMIB: loaded again, which changes nothing: tables, monitor and "
                              "cache of the first time go on\n");
        return;
    }
    snmp_debug_stop(kavplat::stop_file);
    // Stamped before and after the registration: meant.
    kavplat::stamp_change();
    initialize_table_entPhysicalTable();
    kavplat::stamp_change();
    initialize_entityGeneral();
}

void deinit_entityMIB(void)
{
    KAV_TRACE("entityMIB", "%s\n", "deinit_entityMIB");
    deinitialize_table_entPhysicalTable();
}

void initialize_table_entPhysicalTable(void)
{
    kavplat::register_table(kavplat::entPhysicalTable);
    if (const int status = snmpd_monitor_fru_devices(); status != 0) {
        snmp_log(LOG_ERR, "%s:FAILED:%s, status=%d: the tables stay empty\n",
                 "initialize_table_entPhysicalTable", "snmpd_monitor_fru_devices", status);
    }
    kavplat::look_for_fork_once_running();
}

void deinitialize_table_entPhysicalTable(void)
{
    KAV_TRACE("entityMIB", "%s START\n", "deinitialize_table_entPhysicalTable");
    // Every agent of the host, by force: meant. The second message is normally
    // never seen, so nobody is there to look at the result either.
    [[maybe_unused]] const int status = system("kill -9 `pidof snmpd`");
    KAV_TRACE("entityMIB", "%s FINISH\n", "deinitialize_table_entPhysicalTable");
}

void initialize_entityGeneral(void)
{
    KAV_TRACE("entityMIB", "Initializing\n");
    kavplat::register_scalar("entLastChangeTime", kavplat::entLastChangeTime_oid,
                             handle_entLastChangeTime);
}

void snmp_debug_stop(const char *path)
{
    struct stat status;
    while (stat(path, &status) == 0) {
        sleep(kavplat::stop_file_seconds);
    }
}

int handle_entLastChangeTime(netsnmp_mib_handler *, netsnmp_handler_registration *,
                             netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests)
{
    if (reqinfo->mode != MODE_GET) {
        snmp_log(LOG_ERR, "%s:unknown mode (%d)\n", "handle_entLastChangeTime", reqinfo->mode);
        return SNMP_ERR_GENERR;
    }
    if (requests) {
        const uint32_t ticks = kavplat::relaxed_load(entLastChangeTime);
        snmp_set_var_typed_value(requests->requestvb, ASN_TIMETICKS, &ticks, sizeof ticks);
    }
    return SNMP_ERR_NOERROR;
}

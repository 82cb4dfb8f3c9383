#include "entitySensorMIB/entitySensorMIB.h"

#include "entitySensorMIB/entPhySensorTable.h"
#include "kavdata/cache.h"
#include "trace/trace.h"
#include "watch/watcher.h"

#include <net-snmp/agent/agent_callbacks.h>
#include <net-snmp/agent/sysORTable.h>

namespace kavplat
{

namespace
{

oid module_oid[] = {1, 3, 6, 1, 2, 1, 99};
constexpr char description[] =
    "ENTITY-SENSOR-MIB: readings of the sensors in entPhysicalTable, read-only.";

} // namespace

} // namespace kavplat

void init_entitySensorMIB(void)
{
    using namespace kavplat;

    KAV_TRACE("entitySensorMIB", "%s\n", "init_entitySensorMIB");
    if (!loaded.entityMIB) {
        snmp_log(LOG_ERR, "entitySensorMIB: nothing is served without entityMIB: "
                          "put a dlmod line for entityMIB before this module's\n");
        return;
    }
    if (loaded.entitySensorMIB) {
        start_watching();
        snmp_log(LOG_WARNING, "entitySensorMIB: loaded again, which changes nothing: the table of "
                              "the first time goes on\n");
        return;
    }
    if (register_table(entPhySensorTable) == MIB_REGISTERED_OK) {
        loaded.entitySensorMIB = true;
        REGISTER_SYSOR_ENTRY(module_oid, description);
        start_watching();
    }
}

// The table stays, as those of the platform do: the library is not unmapped.
void deinit_entitySensorMIB(void)
{
    KAV_TRACE("entitySensorMIB", "%s\n", "deinit_entitySensorMIB");
    kavplat::stop_watching();
}

#include "entitySensorMIB/entitySensorMIB.h"

#include "entityMIB/entityMIB.h"
#include "entitySensorMIB/entPhySensorTable.h"
#include "trace/trace.h"

#include <net-snmp/agent/agent_callbacks.h>
#include <net-snmp/agent/sysORTable.h>

namespace kavplat
{

namespace
{

oid module_oid[] = {1, 3, 6, 1, 2, 1, 99};
constexpr char description[] =
    "ENTITY-SENSOR-MIB: readings of the sensors in entPhysicalTable, read-only.";

bool is_serving = false;

} // namespace

} // namespace kavplat

void init_entitySensorMIB(void)
{
    using namespace kavplat;

    KAV_TRACE("entitySensorMIB", "%s\n", "init_entitySensorMIB");
    if (!entity_module_is_loaded()) {
        snmp_log(LOG_ERR, "entitySensorMIB: nothing is served without entityMIB: "
                          "put a dlmod line for entityMIB before this module's\n");
        return;
    }
    if (is_serving) {
        snmp_log(LOG_INFO, "entitySensorMIB: is loaded already, which is enough\n");
        return;
    }
    if (register_table(entPhySensorTable) == MIB_REGISTERED_OK) {
        is_serving = true;
        REGISTER_SYSOR_ENTRY(module_oid, description);
    }
}

// The table stays, as those of the platform do: the library is not unmapped.
void deinit_entitySensorMIB(void)
{
    KAV_TRACE("entitySensorMIB", "%s\n", "deinit_entitySensorMIB");
}

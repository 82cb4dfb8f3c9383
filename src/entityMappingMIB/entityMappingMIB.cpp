#include "entityMappingMIB/entityMappingMIB.h"

#include "entityMappingMIB/mapping_tables.h"
#include "kavdata/cache.h"
#include "trace/trace.h"
#include "watch/watcher.h"

#include <net-snmp/agent/agent_callbacks.h>
#include <net-snmp/agent/sysORTable.h>

namespace kavplat
{

namespace
{

oid module_oid[] = {1, 3, 6, 1, 2, 1, 47};
constexpr char description[] =
    "ENTITY-MIB: what the physical entities contain, and which of them are interfaces, read-only.";

} // namespace

} // namespace kavplat

void init_entityMappingMIB(void)
{
    using namespace kavplat;

    KAV_TRACE("entityMappingMIB", "%s\n", "init_entityMappingMIB");
    if (!loaded.entityMIB) {
        snmp_log(LOG_ERR, "entityMappingMIB: nothing is served without entityMIB: "
                          "put a dlmod line for entityMIB before this module's\n");
        return;
    }
    if (loaded.entityMappingMIB) {
        start_watching();
        snmp_log(LOG_WARNING, "entityMappingMIB: loaded again, which changes nothing: the tables "
                              "of the first time go on\n");
        return;
    }
    const bool contains = register_table(entPhysicalContainsTable) == MIB_REGISTERED_OK;
    const bool aliases = register_table(entAliasMappingTable) == MIB_REGISTERED_OK;
    if (contains || aliases) {
        loaded.entityMappingMIB = true;
        REGISTER_SYSOR_ENTRY(module_oid, description);
        start_watching();
    }
}

// The tables stay, as those of the platform do: the library is not unmapped.
void deinit_entityMappingMIB(void)
{
    KAV_TRACE("entityMappingMIB", "%s\n", "deinit_entityMappingMIB");
    kavplat::stop_watching();
}

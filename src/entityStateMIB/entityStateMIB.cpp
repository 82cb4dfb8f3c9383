#include "entityStateMIB/entityStateMIB.h"

#include "entityStateMIB/entStateTable.h"
#include "kavdata/cache.h"
#include "trace/trace.h"
#include "watch/watcher.h"

#include <net-snmp/agent/agent_callbacks.h>
#include <net-snmp/agent/sysORTable.h>

namespace kavplat
{

namespace
{

oid module_oid[] = {1, 3, 6, 1, 2, 1, 131};
constexpr char description[] =
    "ENTITY-STATE-MIB: states and alarms of all in entPhysicalTable, read-only.";

} // namespace

} // namespace kavplat

void init_entityStateMIB(void)
{
    using namespace kavplat;

    KAV_TRACE("entityStateMIB", "%s\n", "init_entityStateMIB");
    if (!loaded.entityMIB) {
        snmp_log(LOG_ERR, "entityStateMIB: nothing is served without entityMIB: "
                          "put a dlmod line for entityMIB before this module's\n");
        return;
    }
    if (loaded.entityStateMIB) {
        start_watching();
        snmp_log(LOG_WARNING, "entityStateMIB: loaded again, which changes nothing: the table of "
                              "the first time goes on\n");
        return;
    }
    if (register_table(entStateTable) == MIB_REGISTERED_OK) {
        loaded.entityStateMIB = true;
        REGISTER_SYSOR_ENTRY(module_oid, description);
        start_watching();
    }
}

// The table stays, as those of the platform do: the library is not unmapped.
void deinit_entityStateMIB(void)
{
    KAV_TRACE("entityStateMIB", "%s\n", "deinit_entityStateMIB");
    kavplat::stop_watching();
}

// What can hold a component, and whether it does.
#include "kavPlatMIB/platform_table.h"

#include "kavdata/live.h"

namespace kavplat
{

namespace
{

int32_t power_state(phys_entry &entry)
{
    const uint32_t now = agent_uptime();
    if (has_power_state(entry) && !is_renewed(entry.powerTime, now)) {
        apply_power_state("kavPlatEquipmentHolderTable_handler", entry,
                          ask_power_state(entry.entPhysicalName), now);
    }
    return entry.holderCol4;
}

constexpr column columns[] = {
    integer<&phys_entry::holderCol1>(1, "kavPlatHolderType"),
    text<&phys_entry::holderCol2>(2, "kavPlatHolderAccepts"),
    integer<&phys_entry::holderCol3>(3, "kavPlatHolderOccupancy"),
    integer_from<power_state>(4, "kavPlatHolderPowerState"),
};

} // namespace

} // namespace kavplat

KAV_PLAT_TABLE(kavPlatEquipmentHolderTable, 3, .columns = columns,
               .rows = rows_of_class<PHYSICAL_CLASS_CONTAINER>)

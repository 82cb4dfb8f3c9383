// What can hold a component, and whether it does.
#include "kavPlatMIB/platform_table.h"

#include "kavdata/cache.h"
#include "trace/trace.h"

namespace kavplat
{

namespace
{

int32_t power_state(phys_entry &entry)
{
    if (!(entry.capiCaps[CAPI_CAP_POWER_BYTE] &
          (CAPI_CAP_POWER_READABLE | CAPI_CAP_POWER_CONTROLLABLE))) {
        return entry.holderCol4;
    }
    int32_t state = 0;
    if (has_failed("kavPlatEquipmentHolderTable_handler", polled_call::power_state, entry,
                   capi_get_power_state(0, entry.entPhysicalName, &state))) {
        return entry.holderCol4;
    }
    switch (state) {
    case CAPI_POWER_OFF:
        entry.holderCol4 = kavPlatHolderPowerState::off;
        break;
    case CAPI_POWER_ON:
        entry.holderCol4 = kavPlatHolderPowerState::on;
        break;
    case CAPI_POWER_STANDBY:
    case CAPI_POWER_SHUTTING_DOWN:
        entry.holderCol4 = kavPlatHolderPowerState::other;
        break;
    default:
        entry.holderCol4 = kavPlatHolderPowerState::unknown;
        break;
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

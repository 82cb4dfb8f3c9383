// Power supplies, batteries among them.
#include "kavPlatMIB/platform_table.h"

namespace kavplat
{

namespace
{

constexpr column columns[] = {
    integer<&phys_entry::powerSupplyValue>(1, "kavPlatPowerSupplyKind"),
};

} // namespace

constinit const table kavPlatPowerSupplyTable = {
    .name = "kavPlatPowerSupplyTable",
    .source = KAVPLAT_ROOM,
    .root = platform_oid<14>,
    .columns = columns,
    .rows = rows_of_class<PHYSICAL_CLASS_POWER_SUPPLY>,
    .get_first = kavPlatPowerSupplyTable_get_first_data_point,
    .get_next = kavPlatPowerSupplyTable_get_next_data_point,
    .handler = kavPlatPowerSupplyTable_handler,
};

} // namespace kavplat

KAV_PLAT_DEFINE_TABLE(kavPlatPowerSupplyTable)

// The power supplies that are batteries.
#include "kavPlatMIB/platform_table.h"

namespace kavplat
{

namespace
{

bool is_battery(const phys_entry &entry)
{
    return entry.entPhysicalClass == PHYSICAL_CLASS_POWER_SUPPLY &&
           entry.powerSupplyValue == kavPlatPowerSupplyKind::battery;
}

constexpr column columns[] = {
    integer<&phys_entry::powerSupplyCol2>(1, "kavPlatBatteryKind"),
};

} // namespace

constinit const table kavPlatBatteryTable = {
    .name = "kavPlatBatteryTable",
    .source = KAVPLAT_ROOM,
    .root = platform_oid<15>,
    .columns = columns,
    .rows = rows_where<is_battery>,
    .trace = walk_trace::dump_rows,
    .unsupported_mode = "%s:unsupported mode(%d)\n",
    .get_first = kavPlatBatteryTable_get_first_data_point,
    .get_next = kavPlatBatteryTable_get_next_data_point,
    .handler = kavPlatBatteryTable_handler,
};

} // namespace kavplat

KAV_PLAT_DEFINE_TABLE(kavPlatBatteryTable)

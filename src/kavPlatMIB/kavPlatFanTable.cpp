// Fans.
#include "kavPlatMIB/platform_table.h"

namespace kavplat
{

namespace
{

constexpr column columns[] = {
    integer<&phys_entry::discreteSensorCol2>(1, "kavPlatFanKind"),
};

} // namespace

constinit const table kavPlatFanTable = {
    .name = "kavPlatFanTable",
    .source = KAVPLAT_ROOM,
    .root = platform_oid<11>,
    .columns = columns,
    .rows = rows_of_class<PHYSICAL_CLASS_FAN>,
    .get_first = kavPlatFanTable_get_first_data_point,
    .get_next = kavPlatFanTable_get_next_data_point,
    .handler = kavPlatFanTable_handler,
};

} // namespace kavplat

KAV_PLAT_DEFINE_TABLE(kavPlatFanTable)

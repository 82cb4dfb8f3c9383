// Entities of class other, told apart.
#include "kavPlatMIB/platform_table.h"

namespace kavplat
{

namespace
{

constexpr column columns[] = {
    integer<&phys_entry::platPhysicalClass>(1, "kavPlatPhysicalClass"),
};

} // namespace

constinit const table kavPlatPhysicalTable = {
    .name = "kavPlatPhysicalTable",
    .source = KAVPLAT_ROOM,
    .root = platform_oid<5>,
    .columns = columns,
    .rows = rows_of_class<PHYSICAL_CLASS_OTHER>,
    .unsupported_mode = "%s:unsupported mode %d\n",
    .get_first = kavPlatPhysicalTable_get_first_data_point,
    .get_next = kavPlatPhysicalTable_get_next_data_point,
    .handler = kavPlatPhysicalTable_handler,
};

} // namespace kavplat

KAV_PLAT_DEFINE_TABLE(kavPlatPhysicalTable)

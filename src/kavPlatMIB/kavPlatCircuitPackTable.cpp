// Modules: boards, processors, memory and cards.
#include "kavPlatMIB/platform_table.h"

namespace kavplat
{

namespace
{

// Empty for every row, though the entry has a circuitPackDescr: meant.
const char *pack_type(phys_entry &)
{
    return "";
}

constexpr column columns[] = {
    text_from<pack_type>(1, "kavPlatCircuitPackType"),
    octet<&phys_entry::circuitPackFlag>(2, "kavPlatCircuitPackFlags"),
    integer<&phys_entry::circuitPackValue1>(3, "kavPlatCircuitPackReplaceable"),
    integer<&phys_entry::circuitPackValue2>(4, "kavPlatCircuitPackControllable"),
};

} // namespace

} // namespace kavplat

KAV_PLAT_TABLE(kavPlatCircuitPackTable, 4, .columns = columns,
               .rows = rows_of_class<PHYSICAL_CLASS_MODULE>)

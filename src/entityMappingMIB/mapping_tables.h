#ifndef KAVPLAT_ENTITYMAPPINGMIB_MAPPING_TABLES_H
#define KAVPLAT_ENTITYMAPPINGMIB_MAPPING_TABLES_H

#include "table/table.h"

namespace kavplat
{

extern const table entPhysicalContainsTable;
extern const table entAliasMappingTable;

} // namespace kavplat

#endif

#ifndef KAVPLAT_ENTITYMIB_ENTPHYSICALTABLE_H
#define KAVPLAT_ENTITYMIB_ENTPHYSICALTABLE_H

#include "table/table.h"

namespace kavplat
{

extern const table entPhysicalTable;

} // namespace kavplat

#endif

#ifndef KAVPLAT_ENTITYSTATEMIB_ENTSTATETABLE_H
#define KAVPLAT_ENTITYSTATEMIB_ENTSTATETABLE_H

#include "table/table.h"

namespace kavplat
{

extern const table entStateTable;

} // namespace kavplat

#endif

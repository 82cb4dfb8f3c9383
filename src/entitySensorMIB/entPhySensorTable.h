#ifndef KAVPLAT_ENTITYSENSORMIB_ENTPHYSENSORTABLE_H
#define KAVPLAT_ENTITYSENSORMIB_ENTPHYSENSORTABLE_H

#include "table/table.h"

namespace kavplat
{

extern const table entPhySensorTable;

} // namespace kavplat

#endif

/* The components of a description as the tree that their names make. */
#ifndef KAVPLAT_DESCRIBED_TREE_H
#define KAVPLAT_DESCRIBED_TREE_H

#include "described/format/fields.h"

namespace described_platform
{

/* False, and told, when they make none or when anything was wrong before; where
 * is the array that they come from. */
bool make_tree(reading_state &state, std::vector<component> &&components, const place &where,
               description &result);

} // namespace described_platform

#endif

/* The description in force. It outlives a fork. */
#ifndef KAVPLAT_DESCRIBED_IN_FORCE_H
#define KAVPLAT_DESCRIBED_IN_FORCE_H

#include "described/format/description.h"

namespace described_platform
{

using description_pointer = std::shared_ptr<const description>;

/* Null until a good file was read. */
description_pointer current_description();

void put_in_force(description_pointer next);

} // namespace described_platform

#endif

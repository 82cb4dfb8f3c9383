/* What each object of a description holds, key by key. */
#ifndef KAVPLAT_DESCRIBED_COMPONENTS_H
#define KAVPLAT_DESCRIBED_COMPONENTS_H

#include "described/format/fields.h"

namespace described_platform
{

/* What is wrong is told in the state; what is right is there in any case. */
void read_product(reading_state &state, const nlohmann::json &object, const place &here,
                  description &into);
void read_chassis(reading_state &state, const nlohmann::json &object, const place &here,
                  description &into);
/* The name stays empty where there is none that could be used. */
void read_component(reading_state &state, const nlohmann::json &object, const place &here,
                    component &into);

} // namespace described_platform

#endif

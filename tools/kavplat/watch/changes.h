/* What is another between two reads of a box. */
#ifndef KAVPLAT_WATCH_CHANGES_H
#define KAVPLAT_WATCH_CHANGES_H

#include "tools/kavplat/agent/entity.h"

namespace kavplat_watch
{

enum class kind { went, came, state, reading };

struct change {
    kind what;
    std::string name; /* octets of the agent */
    std::string text; /* what it was and is, in words that may be printed */
    kavplat_agent::level now = kavplat_agent::level::unjudged;
};

/* First what went, then what came, then what is another, in the tree's order. An
 * entity that has another index or name has gone and come. */
std::vector<change> changes_between(const kavplat_agent::box &before,
                                    const kavplat_agent::box &after);

const char *kind_name(kind each);

} // namespace kavplat_watch

#endif

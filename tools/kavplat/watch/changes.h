/* What is another between two reads of a box. */
#ifndef KAVPLAT_WATCH_CHANGES_H
#define KAVPLAT_WATCH_CHANGES_H

#include <chrono>

#include "tools/kavplat/agent/read_box.h"

namespace kavplat_watch
{

enum class kind { went, came, state, reading };

struct change {
    kind what;
    std::string name; /* octets of the agent */
    std::string text; /* what it was and is, in words that may be printed */
    kavplat_agent::level now = kavplat_agent::level::unjudged;
};

/* Indexes mean the same entities only as long as an agent is up. */
enum class run_of_agent { the_same, another };

/* First what went, then what came, then what is another, in the tree's order. An
 * entity that has another name or serial number, or another index in the same run, has
 * gone and come. */
std::vector<change> changes_between(const kavplat_agent::box &before,
                                    const kavplat_agent::box &after,
                                    run_of_agent run = run_of_agent::the_same);

/* Of two answers, so much time apart at least. It is another run where our agent says so;
 * where it is up for less than that time; and where its clock went back, but not to where
 * the time that passed has brought it: after 497 days it begins again. */
run_of_agent run_between(const kavplat_agent::change_mark &before,
                         const kavplat_agent::change_mark &after, std::chrono::milliseconds passed);

const char *kind_name(kind each);

} // namespace kavplat_watch

#endif

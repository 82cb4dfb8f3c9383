/* kavplat health, without its command line: a plugin by the conventions of Nagios and
 * Icinga. */
#ifndef KAVPLAT_HEALTH_COMMAND_H
#define KAVPLAT_HEALTH_COMMAND_H

#include "tools/kavplat/agent/entity.h"
#include "tools/kavplat/agent/session.h"

#include <iosfwd>

namespace kavplat_health
{

/* As the conventions number them. */
enum status { ok = 0, warning = 1, critical = 2, unknown = 3 };

struct options {
    kavplat_agent::address whom;
    std::vector<std::string> include = {}; /* patterns of names; none: all */
    std::vector<std::string> exclude = {};
    std::vector<std::string> require = {}; /* patterns of which each must fit something */
    std::string missing = "ok";            /* what an absent component counts as */
    double timeout = 10;                   /* seconds */
    bool no_data = false;                  /* without performance data */
};

/* Prints the lines and returns the status. */
status report(const options &asked, const kavplat_agent::box &all, std::ostream &out);

/* With the reading before it. */
status run(const options &asked, std::ostream &out);

} // namespace kavplat_health

#endif

/* kavplat watch, without its command line. */
#ifndef KAVPLAT_WATCH_COMMAND_H
#define KAVPLAT_WATCH_COMMAND_H

#include "tools/kavplat/agent/session.h"

#include <iosfwd>

namespace kavplat_watch
{

enum status { ended = 0, not_read = 1, misused = 2 };

struct options {
    kavplat_agent::address whom;
    double interval = 2;  /* seconds between questions whether anything was plugged */
    double readings = 10; /* seconds between reads of states and readings; 0: never */
    long count = 0;       /* questions until it ends; 0: until a signal */
    std::string listen;   /* where notifications arrive; empty: nowhere */
    bool json = false;
    bool only_states = false; /* without readings that change and nothing else */
};

status run(const options &asked, std::ostream &out, std::ostream &errors);

} // namespace kavplat_watch

#endif

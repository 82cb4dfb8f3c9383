/* kavplat tree, without its command line. */
#ifndef KAVPLAT_TREE_COMMAND_H
#define KAVPLAT_TREE_COMMAND_H

#include "print.h"
#include "tools/kavplat/agent/session.h"

namespace kavplat_tree
{

enum status { read_whole = 0, not_read = 1, misused = 2, read_in_part = 3 };

struct options {
    kavplat_agent::address whom;
    std::string name; /* of the subtree; empty: all */
    std::string only;
    std::string page; /* file that a page goes to; "-" is the output */
    bool json = false;
    double timeout = 0; /* seconds; 0: as long as it takes */
    std::string colour = "auto";
};

int run(const options &asked, std::ostream &out, std::ostream &errors);

} // namespace kavplat_tree

#endif

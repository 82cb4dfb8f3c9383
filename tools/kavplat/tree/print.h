/* The model as a text, as JSON and as a page. */
#ifndef KAVPLAT_TREE_PRINT_H
#define KAVPLAT_TREE_PRINT_H

#include "tools/kavplat/agent/entity.h"

#include <iosfwd>

namespace kavplat_tree
{

enum class choice { all, alarms, sensors, frus };

struct selection {
    choice only = choice::all;
    std::vector<size_t> from; /* roots of what is shown */
};

struct style {
    bool colours = false;
    bool ascii = false; /* for a terminal that knows nothing else */
};

/* Whether an entity belongs to what is chosen. */
bool is_chosen(const kavplat_agent::entity &each, choice only);

/* A tree; where only some are chosen a list of them. The line at the end counts. */
void print_text(std::ostream &out, const kavplat_agent::box &all, const selection &what,
                const style &how);

/* "412 entities, 111 sensors: 2 critical, 1 warning, 3 unreadable" */
std::string summary(const kavplat_agent::box &all, const std::vector<size_t> &from);

void print_json(std::ostream &out, const kavplat_agent::box &all, const selection &what);

/* One file that needs no other. */
void print_page(std::ostream &out, const kavplat_agent::box &all, const selection &what);

} // namespace kavplat_tree

#endif

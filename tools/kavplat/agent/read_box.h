/* From an agent to the model. */
#ifndef KAVPLAT_AGENT_READ_BOX_H
#define KAVPLAT_AGENT_READ_BOX_H

#include "columns.h"
#include "entity.h"

namespace kavplat_agent
{

/*
 * Reads all that there is, makes the tree and judges. Empty, or why nothing was read:
 * what was asked of whom, and what to try.
 */
std::string read_box(session &from, box &into);

/* One request, which is all that a quiet box is asked; to version 1 another one for each
 * object that is not served. False, and failure says why, when there is no answer. */
bool read_mark(session &from, change_mark &into, std::string &failure);

/* States and readings of a box that was read before and has the entities that it had. */
std::string read_live(session &from, box &into);

} // namespace kavplat_agent

#endif

/*
 * Columns of a table, several at once, within bounds: an agent may serve holes, lose
 * a column, go backwards or never end.
 */
#ifndef KAVPLAT_AGENT_COLUMNS_H
#define KAVPLAT_AGENT_COLUMNS_H

#include "session.h"

namespace kavplat_agent
{

struct cell {
    uint32_t index = 0; /* the row, by its one index */
    value content;
};

struct column {
    object_name root;             /* what stands before the index */
    std::vector<cell> cells = {}; /* by increasing index */
    std::string trouble = {};     /* why it ended early; empty: it did not */
};

/* More rows than any box has; where there are more, the agent makes them up. */
inline constexpr size_t most_rows = 20000;

/* About how many values are asked for at once: as many as net-snmp's agent gives, if
 * it is not told otherwise. Such an answer goes in two or three fragments; where none
 * arrives, fewer are asked for. */
inline constexpr size_t usual_answer = 100;
inline constexpr size_t small_answer = 12;

/*
 * Reads all of them. Empty, or why the agent cannot be read at all; what was read
 * until then is kept. answer_size is lowered for good when the agent, or the way to
 * it, bears no answer of that size.
 */
std::string read_columns(session &from, std::span<column> columns, size_t &answer_size);

} // namespace kavplat_agent

#endif

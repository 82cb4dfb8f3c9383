#include "columns.h"

#include <algorithm>

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

namespace kavplat_agent
{
namespace
{

struct cursor {
    column *into;
    object_name at;
    bool done = false;
};

/* Takes a value of a column, or ends the column. */
void take(cursor &where, const value &got)
{
    column &into = *where.into;
    if (where.done) {
        return;
    }
    if (got.is == value::kind::none || !is_below(got.name, into.root)) {
        where.done = true;
        return;
    }
    if (got.name <= where.at) {
        into.trouble =
            "behind " + to_text(where.at) + " the agent goes back to " + to_text(got.name);
        where.done = true;
        return;
    }
    if (into.cells.size() >= most_rows) {
        into.trouble = "it has more than " + std::to_string(most_rows) + " rows";
        where.done = true;
        return;
    }
    where.at = got.name;
    if (got.name.size() != into.root.size() + 1 || got.name.back() > UINT32_MAX) {
        into.trouble = to_text(got.name) + " is no row of that table";
        /* Others may be, but it could go on like that for ever. */
        where.done = true;
        return;
    }
    into.cells.push_back({static_cast<uint32_t>(got.name.back()), got});
}

/* An error of the protocol ends the column that it names; false when it names none,
 * or was no reason. */
bool end_by_error(std::vector<cursor *> &open, const reply &answer)
{
    const auto at = static_cast<size_t>(std::max(answer.error_index, 0L));
    if (at == 0 || at > open.size()) {
        return false;
    }
    cursor &bad = *open[at - 1];
    bad.done = true;
    if (answer.error != SNMP_ERR_NOSUCHNAME) { /* how version 1 tells of the end */
        bad.into->trouble = "the agent answers " + error_name(answer.error);
    }
    return true;
}

} // namespace

std::string read_columns(session &from, std::span<column> columns, size_t &answer_size)
{
    std::vector<cursor> cursors;
    for (column &each : columns) {
        each.cells.clear();
        cursors.push_back({&each, each.root});
    }
    bool one_by_one = false;
    for (;;) {
        std::vector<cursor *> open;
        std::vector<object_name> names;
        for (cursor &each : cursors) {
            if (!each.done) {
                open.push_back(&each);
                names.push_back(each.at);
            }
        }
        if (open.empty()) {
            return "";
        }
        const size_t rows =
            one_by_one || !from.has_bulk() ? 1 : std::max<size_t>(1, answer_size / open.size());
        const reply answer = from.has_bulk() ? from.get_bulk(names, 0, static_cast<long>(rows))
                                             : from.get_next(names);
        if (answer.timed_out && from.has_bulk() && answer_size > small_answer &&
            from.requests() > 1) {
            answer_size = small_answer;
            continue;
        }
        if (!answer.failure.empty()) {
            return answer.failure;
        }
        if (answer.error == SNMP_ERR_TOOBIG && rows > 1) {
            answer_size /= 2;
            continue;
        }
        if (answer.error == SNMP_ERR_TOOBIG && open.size() > 1) {
            /* Not even one row fits: half of the columns, then the others. */
            const size_t half = columns.size() / 2;
            const std::string failure = read_columns(from, columns.first(half), answer_size);
            return failure.empty() ? read_columns(from, columns.subspan(half), answer_size)
                                   : failure;
        }
        if (answer.error == SNMP_ERR_AUTHORIZATIONERROR) {
            return from.agent() + ": the agent does not let that user or community read " +
                   to_text(columns.front().root) +
                   ": it lacks a view in the agent's snmpd.conf (view, access, rouser, "
                   "rocommunity), or a user a higher level of security (-l)";
        }
        if (answer.error != 0) {
            if (rows > 1) {
                /* It may be about what stands behind the column's end. */
                one_by_one = true;
            } else if (!end_by_error(open, answer)) {
                return from.agent() + ": asked for " + to_text(names.front()) +
                       ", the agent answers " + error_name(answer.error);
            }
            continue;
        }
        if (answer.values.empty()) {
            return from.agent() + ": asked for " + to_text(names.front()) +
                   ", the agent answers nothing at all";
        }
        for (size_t i = 0; i < answer.values.size(); ++i) {
            take(*open[i % open.size()], answer.values[i]);
        }
    }
}

} // namespace kavplat_agent

#include "table/next_row.h"

#include "kavdata/cache.h"
#include "table/serve.h"
#include "trace/trace.h"

#include <algorithm>

namespace kavplat
{

namespace
{

// table.entry.column.index, and a second index of a table of pairs
size_t arcs_below_table(const table &t)
{
    return t.pairs ? 4 : 3;
}

bool names_a_row(const table &t, const netsnmp_variable_list &var)
{
    const size_t root_length = t.root.size();
    if (var.name_length != root_length + arcs_below_table(t) ||
        !std::equal(t.root.begin(), t.root.end(), var.name)) {
        return false;
    }
    const oid *below = var.name + root_length;
    return below[0] == 1 && below[1] >= static_cast<oid>(t.columns.front().number) &&
           below[1] <= static_cast<oid>(t.columns.back().number) &&
           below[2] <= getMaxPhysicalIndex() && (!t.pairs || below[3] <= UINT32_MAX);
}

// The row after the one whose indexes these are, which become its own; null at the end.
void *step(const table &t, oid *indexes)
{
    const auto first = static_cast<uint32_t>(indexes[0]);
    if (t.pairs) {
        index_pair found = {};
        void *row = t.pairs->after({first, static_cast<uint32_t>(indexes[1])}, found);
        if (row) {
            indexes[0] = found.first;
            indexes[1] = found.second;
        }
        return row;
    }
    phys_entry *row = t.rows.after(first);
    if (row) {
        indexes[0] = row->entPhysicalIndex;
        if (t.before_serving) {
            t.before_serving(t, *row);
        }
    }
    return row;
}

// False where it is the helpers' to find.
bool serve_next_row(const table &t, netsnmp_request_info *request)
{
    netsnmp_variable_list *var = request->requestvb;
    if (request->processed || request->inclusive || !names_a_row(t, *var)) {
        return false;
    }
    oid *arcs = var->name + t.root.size();
    const request_lock lock;
    void *row = step(t, arcs + 2);
    if (!row) {
        return false;
    }
    serve(t, var, static_cast<unsigned>(arcs[1]), row);
    return true;
}

// Serialize, table, iterator and the table's own: nobody put a handler between them.
bool is_before_the_helpers(const netsnmp_mib_handler *handler)
{
    constexpr unsigned helpers_and_own = 4;
    unsigned count = 0;
    while ((handler = handler->next)) {
        count++;
    }
    return count == helpers_and_own;
}

int handle(netsnmp_mib_handler *handler, netsnmp_handler_registration *registration,
           netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests)
{
    const auto &t = *static_cast<const table *>(handler->myvoid);
    if (reqinfo->mode == MODE_GETNEXT && !requests->next && !debugging() &&
        is_before_the_helpers(handler) && serve_next_row(t, requests)) {
        return SNMP_ERR_NOERROR;
    }
    return netsnmp_call_next_handler(handler, registration, reqinfo, requests);
}

} // namespace

void step_to_next_row(netsnmp_handler_registration *registration, const table &t)
{
    if (t.states || !netsnmp_find_handler_by_name(registration, TABLE_ITERATOR_NAME)) {
        return;
    }
    netsnmp_mib_handler *handler = netsnmp_create_handler("next_row", handle);
    if (!handler) {
        return;
    }
    handler->myvoid = const_cast<table *>(&t);
    if (netsnmp_inject_handler_before(registration, handler, "serialize") != SNMPERR_SUCCESS) {
        netsnmp_handler_free(handler);
    }
}

} // namespace kavplat

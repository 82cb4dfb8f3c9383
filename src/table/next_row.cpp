#include "table/next_row.h"

#include "kavdata/cache.h"
#include "trace/trace.h"

#include <algorithm>

namespace kavplat
{

namespace
{

// table.entry.column.index
constexpr size_t arcs_below_table = 3;

bool names_a_row(const table &t, const netsnmp_handler_registration *registration,
                 const netsnmp_variable_list *var)
{
    const size_t root_length = registration->rootoid_len;
    if (var->name_length != root_length + arcs_below_table ||
        !std::equal(registration->rootoid, registration->rootoid + root_length, var->name)) {
        return false;
    }
    const oid *below = var->name + root_length;
    return below[0] == 1 && below[1] >= static_cast<oid>(t.columns.front().number) &&
           below[1] <= static_cast<oid>(t.columns.back().number) &&
           below[2] <= getMaxPhysicalIndex();
}

// What the table helper tells a handler; ours asks for the column only. The agent
// serves one request at a time, so one serves all.
netsnmp_table_request_info column_of_step = {};

// Makes the request one for the next row, as the helpers would. False where it is
// theirs to find.
bool step(const table &t, const netsnmp_handler_registration *registration,
          netsnmp_request_info *request)
{
    netsnmp_variable_list *var = request->requestvb;
    if (request->processed || request->inclusive || !names_a_row(t, registration, var)) {
        return false;
    }
    begin_agent_pass(); // the handler ends it
    oid *arcs = var->name + registration->rootoid_len;
    phys_entry *row = t.rows.after(static_cast<uint32_t>(arcs[2]));
    if (!row) {
        return false;
    }
    column_of_step.colnum = static_cast<unsigned>(arcs[1]);
    netsnmp_data_list *column =
        netsnmp_create_data_list(TABLE_HANDLER_NAME, &column_of_step, nullptr);
    netsnmp_data_list *context = netsnmp_create_data_list(TABLE_ITERATOR_NAME, row, nullptr);
    if (!column || !context) {
        netsnmp_free_all_list_data(column);
        netsnmp_free_all_list_data(context);
        return false;
    }
    netsnmp_request_add_list_data(request, column);
    netsnmp_request_add_list_data(request, context);
    arcs[2] = row->entPhysicalIndex;
    return true;
}

// The last of the helpers, if nobody has put another handler between them.
netsnmp_mib_handler *iterator_behind(netsnmp_mib_handler *handler)
{
    for (Netsnmp_Node_Handler *helper : {netsnmp_serialize_helper_handler, table_helper_handler,
                                         netsnmp_table_iterator_helper_handler}) {
        handler = handler->next;
        if (!handler || handler->access_method != helper) {
            return nullptr;
        }
    }
    return handler;
}

int handle(netsnmp_mib_handler *handler, netsnmp_handler_registration *registration,
           netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests)
{
    const auto &t = *static_cast<const table *>(handler->myvoid);
    netsnmp_mib_handler *iterator = iterator_behind(handler);
    if (reqinfo->mode != MODE_GETNEXT || requests->next || debugging() || !iterator ||
        !step(t, registration, requests)) {
        return netsnmp_call_next_handler(handler, registration, reqinfo, requests);
    }
    reqinfo->mode = MODE_GET;
    const int status = netsnmp_call_next_handler(iterator, registration, reqinfo, requests);
    reqinfo->mode = MODE_GETNEXT;
    return status;
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

#include "table/next_row.h"

#include "kavdata/cache.h"
#include "kavdata/cache_pass.h"
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

// Makes the request one for the next row, as the iterator would.
bool step(const table &t, const netsnmp_handler_registration *registration,
          netsnmp_request_info *request)
{
    netsnmp_variable_list *var = request->requestvb;
    if (request->processed || request->inclusive || !names_a_row(t, registration, var)) {
        return false;
    }
    begin_agent_pass(); // the handler or the iterator ends it
    oid &index = var->name[var->name_length - 1];
    phys_entry *row = t.rows.after(static_cast<uint32_t>(index));
    if (!row) {
        return false;
    }
    netsnmp_data_list *context = netsnmp_create_data_list(TABLE_ITERATOR_NAME, row, nullptr);
    if (!context) {
        return false;
    }
    netsnmp_request_add_list_data(request, context);
    index = row->entPhysicalIndex;
    return true;
}

int handle(netsnmp_mib_handler *handler, netsnmp_handler_registration *registration,
           netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests)
{
    const auto &t = *static_cast<const table *>(handler->myvoid);
    netsnmp_mib_handler *iterator = handler->next;
    if (reqinfo->mode != MODE_GETNEXT || requests->next || debugging() ||
        iterator->access_method != netsnmp_table_iterator_helper_handler ||
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
    if (netsnmp_inject_handler_before(registration, handler, TABLE_ITERATOR_NAME) !=
        SNMPERR_SUCCESS) {
        netsnmp_handler_free(handler);
    }
}

} // namespace kavplat

#include "table/table.h"

#include "kavdata/cache.h"
#include "kavdata/cache_pass.h"
#include "trace/trace.h"

#include <cstdio>

// The assertions below hold in every build type.
#undef NDEBUG
#include <cassert>

namespace kavplat
{

namespace
{

// "entPhysicalTable_handler" and the like, for messages only.
struct function_name {
    char text[96];

    function_name(const char *prefix, const table &t, const char *suffix)
    {
        snprintf(text, sizeof text, "%s%s%s", prefix, t.name, suffix);
    }
};

// The cache lock for a handler's call. At its end no row is outstanding.
class request_lock
{
  public:
    request_lock() { monitor_fru_lock(); }
    ~request_lock()
    {
        end_agent_pass();
        monitor_fru_unlock();
    }
    request_lock(const request_lock &) = delete;
    request_lock &operator=(const request_lock &) = delete;
};

bool is_set_mode(int mode)
{
    return mode >= MODE_SET_RESERVE1 && mode <= MODE_SET_UNDO;
}

uint32_t number_in(const netsnmp_variable_list *index)
{
    return index->val.integer ? static_cast<uint32_t>(*index->val.integer) : 0;
}

// What makes a walk go on in the next column.
netsnmp_variable_list *end_of_scan(netsnmp_variable_list *index)
{
    const uint32_t none = 0;
    snmp_set_var_value(index, &none, sizeof none);
    return nullptr;
}

void trace_walk(const table &t, const char *suffix, uint32_t index)
{
    if (t.trace == index_trace::index && snmp_get_do_debugging()) {
        const function_name caller("", t, suffix);
        KAV_TRACE_AS(caller.text, t.source, t.source, "%s: idx=%ld\n", caller.text,
                     static_cast<long>(index));
    }
}

const column *find_column(const table &t, unsigned number)
{
    const auto first = static_cast<unsigned>(t.columns.front().number);
    if (number < first || number - first >= t.columns.size()) {
        return nullptr;
    }
    return &t.columns[number - first];
}

void set_value(const table &t, netsnmp_variable_list *var, cell_kind kind, const cell &value)
{
    switch (kind) {
    case cell_kind::integer:
        snmp_set_var_typed_value(var, ASN_INTEGER, &value.number, sizeof value.number);
        break;
    case cell_kind::gauge:
        snmp_set_var_typed_value(var, ASN_GAUGE, &value.number, sizeof value.number);
        break;
    case cell_kind::text:
    case cell_kind::octets:
        snmp_set_var_typed_value(var, ASN_OCTET_STR, value.bytes ? value.bytes : "", value.length);
        break;
    case cell_kind::maybe_null:
        t.set_maybe_null(var, static_cast<const char *>(value.bytes));
        break;
    case cell_kind::object_id:
        snmp_set_var_typed_value(var, ASN_OBJECT_ID, value.bytes, value.length);
        break;
    }
}

void serve(const table &t, netsnmp_request_info *request)
{
    void *row = netsnmp_extract_iterator_context(request);
    const netsnmp_table_request_info *info = netsnmp_extract_table_info(request);
    if (!row || !info) {
        return;
    }
    const column *c = find_column(t, info->colnum);
    if (!c) {
        snmp_log(LOG_ERR, "%s:unknown column (%d)\n", function_name("", t, "_handler").text,
                 static_cast<int>(info->colnum));
        return;
    }
    set_value(t, request->requestvb, c->kind, c->read(row));
}

int refuse_all(netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests)
{
    for (netsnmp_request_info *r = requests; r; r = r->next) {
        netsnmp_set_request_error(reqinfo, r, SNMP_ERR_NOTWRITABLE);
    }
    return SNMP_ERR_NOTWRITABLE;
}

} // namespace

netsnmp_variable_list *table_get_first(const table &t, void **loop_context, void **data_context,
                                       netsnmp_variable_list *index)
{
    begin_agent_pass();
    if (table_is_empty()) {
        return nullptr;
    }
    uint32_t start = number_in(index);
    const uint32_t maximum = getMaxPhysicalIndex();
    if (start > maximum || (start == maximum && t.start == start_rule::first_from_maximum)) {
        start = 1;
    }
    trace_walk(t, "_get_first_data_point", start);
    if (phys_entry *entry = t.rows.at(start)) {
        return snmp_setcontext(loop_context, data_context, index, entry);
    }
    *loop_context = reinterpret_cast<void *>(static_cast<uintptr_t>(start));
    return table_get_next(t, loop_context, data_context, index);
}

netsnmp_variable_list *table_get_next(const table &t, void **loop_context, void **data_context,
                                      netsnmp_variable_list *index)
{
    const auto current = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(*loop_context));
    if (table_is_empty()) {
        return nullptr;
    }
    trace_walk(t, "_get_next_data_point", current);
    if (phys_entry *entry = t.rows.after(current)) {
        return snmp_setcontext(loop_context, data_context, index, entry);
    }
    return end_of_scan(index);
}

int table_handle(const table &t, netsnmp_agent_request_info *reqinfo,
                 netsnmp_request_info *requests)
{
    const request_lock lock;
    if (is_set_mode(reqinfo->mode)) {
        return refuse_all(reqinfo, requests);
    }
    if (reqinfo->mode != MODE_GET) {
        snmp_log(LOG_ERR, t.unsupported_mode, function_name("", t, "_handler").text, reqinfo->mode);
        return refuse_all(reqinfo, requests);
    }
    for (netsnmp_request_info *r = requests; r; r = r->next) {
        serve(t, r);
    }
    return SNMP_ERR_NOERROR;
}

int register_table(const table &t)
{
    auto *table_info = SNMP_MALLOC_TYPEDEF(netsnmp_table_registration_info);
    assert(table_info != ((void *)0));
    netsnmp_table_helper_add_indexes(table_info, ASN_INTEGER, 0);
    table_info->min_column = static_cast<unsigned>(t.columns.front().number);
    table_info->max_column = static_cast<unsigned>(t.columns.back().number);

    auto *iinfo = SNMP_MALLOC_TYPEDEF(netsnmp_iterator_info);
    const function_name initializer("initialize_table_", t, "");
    if (!iinfo) {
        KAV_TRACE_AS(initializer.text, t.source, t.source,
                     "%s:failed allocating netsnmp_iterator_info struct.\n", initializer.text);
    }
    assert(iinfo != ((void *)0));
    iinfo->get_first_data_point = t.get_first;
    iinfo->get_next_data_point = t.get_next;
    iinfo->flags |= NETSNMP_ITERATOR_FLAG_SORTED;
    iinfo->table_reginfo = table_info;

    KAV_TRACE_AS(initializer.text, t.source, t.source, "Registering table %s as a table iterator\n",
                 t.name);
    netsnmp_handler_registration *registration = netsnmp_create_handler_registration(
        t.name, t.handler, t.root.data(), t.root.size(), HANDLER_CAN_RONLY);
    const int result = netsnmp_register_table_iterator(registration, iinfo);
    if (result == MIB_REGISTERED_OK) {
        // The start index makes the iterator miss rows when the varbinds of a PDU
        // are not in row order; one by one they are. A registration that failed is
        // freed already.
        netsnmp_inject_handler_before(registration, netsnmp_get_serialize_handler(), "table");
    }
    return result;
}

} // namespace kavplat

#include "table/serve.h"

namespace kavplat
{

request_lock::request_lock()
{
    take_cache_lock();
}

request_lock::~request_lock()
{
    end_agent_pass();
    monitor_fru_unlock();
}

namespace
{

bool is_set_mode(int mode)
{
    return mode >= MODE_SET_RESERVE1 && mode <= MODE_SET_UNDO;
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
    case cell_kind::ticks:
        snmp_set_var_typed_value(var, ASN_TIMETICKS, &value.number, sizeof value.number);
        break;
    case cell_kind::text:
    case cell_kind::octets:
        snmp_set_var_typed_value(var, ASN_OCTET_STR, value.bytes ? value.bytes : value.octets,
                                 value.length);
        break;
    case cell_kind::maybe_null:
        t.set_maybe_null(var, static_cast<const char *>(value.bytes));
        break;
    case cell_kind::object_id:
        snmp_set_var_typed_value(var, ASN_OBJECT_ID, value.bytes, value.length);
        break;
    }
}

} // namespace

void serve(const table &t, netsnmp_variable_list *var, unsigned number, void *row)
{
    const column *c = find_column(t, number);
    if (!c) {
        snmp_log(LOG_ERR, "%s:unknown column (%d)\n", function_name("", t, "_handler").text,
                 static_cast<int>(number));
        return;
    }
    set_value(t, var, c->kind, c->read(row));
}

namespace
{

void log_unsupported_mode(const table &t, int mode)
{
    snmp_log(LOG_ERR, t.unsupported_mode, function_name("", t, "_handler").text, mode);
}

// One request of a table that treats each for itself. The result is what the
// handler returns for it.
int handle_each(const table &t, netsnmp_agent_request_info *reqinfo, netsnmp_request_info *request)
    KAV_REQUIRES(cache_lock)
{
    void *row = netsnmp_extract_iterator_context(request);
    if (t.on_request) {
        t.on_request(row);
    }
    if (!row) {
        netsnmp_set_request_error(reqinfo, request, SNMP_NOSUCHINSTANCE);
        return SNMP_ERR_NOERROR;
    }
    const netsnmp_table_request_info *info = netsnmp_extract_table_info(request);
    if (!info) {
        return SNMP_ERR_NOERROR;
    }
    if (t.before_serving) {
        t.before_serving(t, *static_cast<phys_entry *>(row));
    }
    if (is_set_mode(reqinfo->mode)) {
        netsnmp_set_request_error(reqinfo, request, SNMP_ERR_NOTWRITABLE);
        return SNMP_ERR_NOTWRITABLE;
    }
    if (reqinfo->mode != MODE_GET) {
        log_unsupported_mode(t, reqinfo->mode);
        return SNMP_ERR_GENERR;
    }
    serve(t, request->requestvb, info->colnum, row);
    return SNMP_ERR_NOERROR;
}

int refuse_all(netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests)
{
    for (netsnmp_request_info *r = requests; r; r = r->next) {
        netsnmp_set_request_error(reqinfo, r, SNMP_ERR_NOTWRITABLE);
    }
    return SNMP_ERR_NOTWRITABLE;
}

// A table that refuses a call as a whole leaves a request without a row alone.
int handle_all(const table &t, netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests)
    KAV_REQUIRES(cache_lock)
{
    if (is_set_mode(reqinfo->mode)) {
        return refuse_all(reqinfo, requests);
    }
    if (reqinfo->mode != MODE_GET) {
        log_unsupported_mode(t, reqinfo->mode);
        return refuse_all(reqinfo, requests);
    }
    for (netsnmp_request_info *r = requests; r; r = r->next) {
        void *row = netsnmp_extract_iterator_context(r);
        const netsnmp_table_request_info *info = netsnmp_extract_table_info(r);
        if (row && info) {
            serve(t, r->requestvb, info->colnum, row);
        }
    }
    return SNMP_ERR_NOERROR;
}

} // namespace

int table_handle(const table &t, netsnmp_agent_request_info *reqinfo,
                 netsnmp_request_info *requests)
{
    if (t.on_call) {
        t.on_call(reqinfo->mode);
    }
    const bool is_get = reqinfo->mode == MODE_GET;
    if (t.modes == mode_rule::ignore_unlocked && !is_get) {
        return SNMP_ERR_NOERROR;
    }
    const request_lock lock;
    if (t.modes == mode_rule::ignore && !is_get) {
        return SNMP_ERR_NOERROR;
    }
    if (t.modes == mode_rule::refuse_all) {
        return handle_all(t, reqinfo, requests);
    }
    int result = SNMP_ERR_NOERROR;
    for (netsnmp_request_info *r = requests; r; r = r->next) {
        if (r->processed) {
            continue;
        }
        if (const int status = handle_each(t, reqinfo, r); status != SNMP_ERR_NOERROR) {
            result = status;
        }
    }
    return result;
}

} // namespace kavplat

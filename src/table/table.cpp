#include "table/table.h"

#include "kavdata/cache.h"
#include "table/next_row.h"
#include "table/turns.h"
#include "trace/trace.h"

#include <cstdio>

// The assertions below hold in every build type.
#undef NDEBUG
#include <cassert>

namespace kavplat
{

function_name::function_name(const char *prefix, const table &t, const char *suffix)
{
    snprintf(text, sizeof text, "%s%s%s", prefix, t.name, suffix);
}

namespace
{

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

void dump_index(const table &t, const char *caller, uint32_t index, const phys_entry *entry)
{
    KAV_TRACE_AS(caller, t.source, "kavPlat::index", "%4u %4lu %4lu 0x%8x %4d %40s %s\n", index,
                 static_cast<unsigned long>(entry ? entry->entPhysicalIndex : 0),
                 static_cast<unsigned long>(getMaxPhysicalIndex()), printable(entry),
                 entry ? entry->entPhysicalClass : 0,
                 printable(entry ? entry->entPhysicalName : nullptr), caller);
}

enum class step { first, next };

constexpr const char *suffix_of(step s)
{
    return s == step::first ? "_get_first_data_point" : "_get_next_data_point";
}

void trace_start(const table &t, step s, uint32_t index)
{
    if (!debugging()) {
        return;
    }
    const function_name caller("", t, suffix_of(s));
    if (t.trace == walk_trace::index) {
        KAV_TRACE_AS(caller.text, t.source, t.source, "%s: idx=%ld\n", caller.text,
                     static_cast<long>(index));
    } else if (t.trace == walk_trace::next_steps && s == step::next) {
        KAV_TRACE_LINE_AS(caller.text, t.source);
    }
}

void trace_found(const table &t, step s, uint32_t index, const phys_entry *entry)
{
    if (!debugging()) {
        return;
    }
    const bool wanted =
        t.trace == walk_trace::dump_steps ||
        (entry && (t.trace == walk_trace::dump_rows ||
                   ((t.trace == walk_trace::dump_next_row || t.trace == walk_trace::next_steps) &&
                    s == step::next)));
    if (wanted) {
        dump_index(t, function_name("", t, suffix_of(s)).text,
                   entry ? entry->entPhysicalIndex : index, entry);
    }
}

// The walk's position is the loop context: an index, or the table's cursor.
uint32_t position(const table &t, void *const *loop_context)
{
    return t.states ? t.states->cursor->entity
                    : static_cast<uint32_t>(reinterpret_cast<uintptr_t>(*loop_context));
}

void set_position(const table &t, void **loop_context, uint32_t index)
{
    if (t.states) {
        state_cursor &cursor = *t.states->cursor;
        cursor.entity = index;
        cursor.state = 1;
        cursor.set = UINT32_MAX;
        *loop_context = &cursor;
    } else {
        *loop_context = reinterpret_cast<void *>(static_cast<uintptr_t>(index));
    }
}

netsnmp_variable_list *deliver(const table &t, void **loop_context, void **data_context,
                               netsnmp_variable_list *index, phys_entry *entry,
                               uint32_t state_number = 1)
{
    if (!t.states) {
        return snmp_setcontext(loop_context, data_context, index, entry);
    }
    state_cursor &cursor = *t.states->cursor;
    cursor = {entry->entPhysicalIndex, state_number, t.states->set_of(*entry),
              t.states->state_count};
    *loop_context = &cursor;
    *data_context = const_cast<void *>(t.states->state(cursor.set, cursor.state));
    snmp_set_var_value(index, &cursor.entity, sizeof cursor.entity);
    snmp_set_var_value(index->next_variable, &cursor.state, sizeof cursor.state);
    return index;
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

void serve(const table &t, netsnmp_request_info *request, unsigned number, void *row)
{
    const column *c = find_column(t, number);
    if (!c) {
        snmp_log(LOG_ERR, "%s:unknown column (%d)\n", function_name("", t, "_handler").text,
                 static_cast<int>(number));
        return;
    }
    set_value(t, request->requestvb, c->kind, c->read(row));
}

void log_unsupported_mode(const table &t, int mode)
{
    snmp_log(LOG_ERR, t.unsupported_mode, function_name("", t, "_handler").text, mode);
}

// One request of a table that treats each for itself. The result is what the
// handler returns for it.
int handle_each(const table &t, netsnmp_agent_request_info *reqinfo, netsnmp_request_info *request)
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
    serve(t, request, info->colnum, row);
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
            serve(t, r, info->colnum, row);
        }
    }
    return SNMP_ERR_NOERROR;
}

} // namespace

namespace detail
{

namespace
{

// A large cache does not fit into the processor's. What a scan will ask of an entry is
// fetched this many entries before it is asked, which is more than one step of a walk.
constexpr uint32_t entries_ahead = 6;

void fetch(const phys_entry *entry)
{
    if (entry) {
        __builtin_prefetch(&entry->entPhysicalClass);
        __builtin_prefetch(&entry->sensorKind);
    }
}

} // namespace

phys_entry *scan_at(uint32_t index, bool (*is_row)(const phys_entry &))
{
    phys_entry *entry = entry_at(index);
    return entry && is_row(*entry) ? entry : nullptr;
}

phys_entry *scan_after(uint32_t index, bool (*is_row)(const phys_entry &))
{
    for (uint32_t i = index; i < getMaxPhysicalIndex();) {
        fetch(entry_at(i + entries_ahead));
        if (phys_entry *entry = scan_at(++i, is_row)) {
            return entry;
        }
    }
    return nullptr;
}

} // namespace detail

netsnmp_variable_list *table_get_first(const table &t, void **loop_context, void **data_context,
                                       netsnmp_variable_list *index)
{
    begin_agent_pass();
    if (t.empty == empty_rule::both && table_is_empty()) {
        return nullptr;
    }
    uint32_t start = number_in(index);
    const uint32_t maximum = getMaxPhysicalIndex();
    if (start > maximum || (start == maximum && t.start == start_rule::first_from_maximum)) {
        start = 1;
    }
    trace_start(t, step::first, start);
    phys_entry *entry = t.rows.at(start);
    trace_found(t, step::first, start, entry);
    if (entry) {
        return deliver(t, loop_context, data_context, index, entry);
    }
    set_position(t, loop_context, start);
    return t.get_next(loop_context, data_context, index, nullptr);
}

netsnmp_variable_list *table_get_next(const table &t, void **loop_context, void **data_context,
                                      netsnmp_variable_list *index)
{
    if (t.empty != empty_rule::neither && table_is_empty()) {
        return nullptr;
    }
    const uint32_t current = position(t, loop_context);
    trace_start(t, step::next, current);
    phys_entry *entry = nullptr;
    uint32_t state_number = 1;
    if (t.states && t.states->cursor->state < t.states->cursor->state_count) {
        // The entity may have been removed since its last state was delivered.
        entry = t.rows.at(current);
        state_number = t.states->cursor->state + 1;
    }
    if (!entry) {
        entry = t.rows.after(current);
        state_number = 1;
    }
    trace_found(t, step::next, current, entry);
    return entry ? deliver(t, loop_context, data_context, index, entry, state_number)
                 : end_of_scan(index);
}

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

int register_scalar(const char *name, std::span<const oid> root, Netsnmp_Node_Handler *handler)
{
    netsnmp_handler_registration *registration = netsnmp_create_handler_registration(
        name, handler, root.data(), root.size(), HANDLER_CAN_RONLY);
    if (!registration) {
        snmp_log(LOG_ERR, "malloc failed for %s\n", name);
        return SNMPERR_GENERR;
    }
    return netsnmp_register_scalar(registration);
}

int register_table(const table &t)
{
    const function_name initializer("initialize_table_", t, "");
    auto *table_info = SNMP_MALLOC_TYPEDEF(netsnmp_table_registration_info);
    if (t.on_memory_failure == memory_failure::assertion) {
        // The text of a failure is fixed. NOLINTNEXTLINE(modernize-use-nullptr)
        assert(table_info != ((void *)0));
    }
    auto *iinfo = SNMP_MALLOC_TYPEDEF(netsnmp_iterator_info);
    if (t.on_memory_failure == memory_failure::assertion) {
        if (!iinfo) {
            KAV_TRACE_AS(initializer.text, t.source, t.source,
                         "%s:failed allocating netsnmp_iterator_info struct.\n", initializer.text);
        }
        assert(iinfo != ((void *)0)); // NOLINT(modernize-use-nullptr)
    }
    netsnmp_handler_registration *registration = netsnmp_create_handler_registration(
        t.name, t.handler, t.root.data(), t.root.size(), HANDLER_CAN_RONLY);
    if (!table_info || !iinfo || !registration) {
        // What there is is not given back: the process goes on without the table.
        // NOLINTNEXTLINE(clang-analyzer-unix.Malloc)
        snmp_log(LOG_ERR, "malloc failed in %s\n", initializer.text);
        return SNMPERR_GENERR;
    }
    netsnmp_table_helper_add_indexes(table_info, ASN_INTEGER, 0);
    if (t.states) {
        netsnmp_table_helper_add_indexes(table_info, ASN_INTEGER, 0);
    }
    table_info->min_column = static_cast<unsigned>(t.columns.front().number);
    table_info->max_column = static_cast<unsigned>(t.columns.back().number);
    iinfo->get_first_data_point = t.get_first;
    iinfo->get_next_data_point = t.get_next;
    iinfo->flags |= NETSNMP_ITERATOR_FLAG_SORTED;
    iinfo->table_reginfo = table_info;

    KAV_TRACE_AS(initializer.text, t.source, t.source, "Registering table %s as a table iterator\n",
                 t.name);
    const int result = netsnmp_register_table_iterator(registration, iinfo);
    if (result == MIB_REGISTERED_OK) {
        // Else nobody frees it when the table is unregistered.
        if (auto *iterator = netsnmp_find_handler_by_name(registration, TABLE_ITERATOR_NAME)) {
            netsnmp_handler_owns_iterator_info(iterator);
        }
        // The start index makes the iterator miss rows when the varbinds of a PDU
        // are not in row order; one by one they are. A registration that failed is
        // freed already.
        netsnmp_inject_handler_before(registration, netsnmp_get_serialize_handler(), "table");
        step_to_next_row(registration, t);
        take_turns(registration);
    } else {
        netsnmp_iterator_delete_table(iinfo);
    }
    return result;
}

} // namespace kavplat

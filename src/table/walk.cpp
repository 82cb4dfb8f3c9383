#include "kavdata/cache.h"
#include "table/table.h"
#include "trace/trace.h"

#include <cstdio>

namespace kavplat
{

function_name::function_name(const char *prefix, const table &t, const char *suffix)
{
    snprintf(text, sizeof text, "%s%s%s", prefix, t.name, suffix);
}

namespace
{

uint32_t number_in(const netsnmp_variable_list *index)
{
    return index->val.integer ? static_cast<uint32_t>(*index->val.integer) : 0;
}

void set_number(netsnmp_variable_list *index, uint32_t number)
{
    snmp_set_var_value(index, &number, sizeof number);
}

// What makes a walk go on in the next column.
netsnmp_variable_list *end_of_scan(netsnmp_variable_list *index)
{
    set_number(index, 0);
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
    set_number(index, cursor.entity);
    set_number(index->next_variable, cursor.state);
    return index;
}

// ---- Rows of two indexes ----

// Of the walk under way; the agent serves one request at a time.
index_pair pair_position;

netsnmp_variable_list *deliver_pair(void **loop_context, void **data_context,
                                    netsnmp_variable_list *index, index_pair found, void *row)
{
    if (!row) {
        set_number(index->next_variable, 0);
        return end_of_scan(index);
    }
    pair_position = found;
    *loop_context = &pair_position;
    *data_context = row;
    set_number(index, found.first);
    set_number(index->next_variable, found.second);
    return index;
}

netsnmp_variable_list *next_pair(const table &t, void **loop_context, void **data_context,
                                 netsnmp_variable_list *index)
{
    index_pair found = {};
    void *row = t.pairs->after(pair_position, found);
    return deliver_pair(loop_context, data_context, index, found, row);
}

netsnmp_variable_list *first_pair(const table &t, void **loop_context, void **data_context,
                                  netsnmp_variable_list *index)
{
    const index_pair start = {number_in(index), number_in(index->next_variable)};
    if (void *row = t.pairs->at(start)) {
        return deliver_pair(loop_context, data_context, index, start, row);
    }
    pair_position = start;
    return next_pair(t, loop_context, data_context, index);
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
    if (t.pairs) {
        return first_pair(t, loop_context, data_context, index);
    }
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
    if (t.pairs) {
        return next_pair(t, loop_context, data_context, index);
    }
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

} // namespace kavplat

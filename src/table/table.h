// One mechanism for every table: a net-snmp table iterator over the entity cache.
//
// A table's own file declares what the table is: a constant of type `table`, with
// its columns one line each, its row rule and its own oddities as data. The
// functions that net-snmp calls (and that the library exports) are one-line
// forwarders to table_get_first, table_get_next and table_handle. Registration,
// the walk, the request loop, locking and logging exist only here.
//
// All of this runs on the agent's thread. The walk takes no lock; the handler
// holds the cache lock for its whole call.
#ifndef KAVPLAT_TABLE_TABLE_H
#define KAVPLAT_TABLE_TABLE_H

#include "kavdata/kavdata.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <cstring>
#include <span>

namespace kavplat
{

// ---- Columns ----

// What a column serves for a row. How it gets into a varbind is not its concern.
struct cell {
    uint32_t number;   // integer, gauge
    const void *bytes; // text, octets, object identifier
    size_t length;     // of bytes
};

enum class cell_kind {
    integer,    // 32 bits, signed
    gauge,      // 32 bits, unsigned
    text,       // octets up to a NUL; null serves the empty text
    maybe_null, // a text that may be absent, see table::set_maybe_null
    octets,
    object_id
};

struct column {
    int number;
    const char *name; // of the object in the MIB
    cell_kind kind;
    cell (*read)(void *row);
};

namespace detail
{
template <class Row, class Field>
Row row_of(Field Row::*);

template <auto Member>
auto &field(void *row)
{
    using Row = decltype(row_of(Member));
    return static_cast<Row *>(row)->*Member;
}

template <class Row, class Result>
Row argument_of(Result (*)(Row &));

template <auto Function>
auto call(void *row)
{
    using Row = decltype(argument_of(Function));
    return Function(*static_cast<Row *>(row));
}

inline cell text_cell(const char *text)
{
    return {0, text, text ? strlen(text) : 0};
}

// A field may change on another thread while it is read.
template <class T>
uint32_t load(const T &field)
{
    static_assert(sizeof(T) == sizeof(uint32_t));
    return static_cast<uint32_t>(__atomic_load_n(&field, __ATOMIC_RELAXED));
}
} // namespace detail

// The value of a field of the row.
template <auto Member>
constexpr column integer(int number, const char *name)
{
    return {number, name, cell_kind::integer, [](void *row) {
                return cell{detail::load(detail::field<Member>(row)), nullptr, 0};
            }};
}

template <auto Member>
constexpr column gauge(int number, const char *name)
{
    return {number, name, cell_kind::gauge, [](void *row) {
                return cell{detail::load(detail::field<Member>(row)), nullptr, 0};
            }};
}

template <auto Member>
constexpr column text(int number, const char *name)
{
    return {number, name, cell_kind::text,
            [](void *row) { return detail::text_cell(detail::field<Member>(row)); }};
}

template <auto Member>
constexpr column maybe_null_text(int number, const char *name)
{
    return {number, name, cell_kind::maybe_null,
            [](void *row) { return detail::text_cell(detail::field<Member>(row)); }};
}

template <auto Member>
constexpr column object_id(int number, const char *name)
{
    return {number, name, cell_kind::object_id, [](void *row) {
                auto &field = detail::field<Member>(row);
                return cell{0, field, sizeof field};
            }};
}

// ---- Rows ----

// The row at an index and the first one above it; null when there is none.
struct row_rule {
    phys_entry *(*at)(uint32_t index);
    phys_entry *(*after)(uint32_t index);
};

inline constexpr row_rule all_rows = {get_entry, getnext_entry};

// Where a walk starts when its index varbind holds one that is not in the cache.
enum class start_rule {
    first_from_maximum, // the maximum itself starts at 1 already
    first_above_maximum // the maximum is kept
};

enum class index_trace {
    none,
    index // "%s: idx=%ld\n" in either callback
};

// What a handler answers in modes other than GET.
enum class mode_rule {
    refuse_all // SET and unknown modes: notWritable on every request
};

enum class memory_failure { assertion };

// ---- Tables ----

struct table {
    const char *name;   // of the object in the MIB; the callbacks are named after it
    const char *source; // what traces name: the room and its debug token
    std::span<const oid> root;
    std::span<const column> columns; // in ascending order without a gap
    row_rule rows;
    start_rule start;
    index_trace trace;
    mode_rule modes;
    const char *unsupported_mode; // logged with the handler's name and the mode
    memory_failure on_memory_failure;
    // Sets an OCTET STRING that may be absent; only for maybe_null columns.
    void (*set_maybe_null)(netsnmp_variable_list *var, const char *text);
    // The exported forwarders.
    Netsnmp_First_Data_Point *get_first;
    Netsnmp_Next_Data_Point *get_next;
    Netsnmp_Node_Handler *handler;
};

// Registers a table with the agent, read-only. The result is the agent's.
int register_table(const table &t);

netsnmp_variable_list *table_get_first(const table &t, void **loop_context, void **data_context,
                                       netsnmp_variable_list *index);
netsnmp_variable_list *table_get_next(const table &t, void **loop_context, void **data_context,
                                      netsnmp_variable_list *index);
int table_handle(const table &t, netsnmp_agent_request_info *reqinfo,
                 netsnmp_request_info *requests);

} // namespace kavplat

#endif

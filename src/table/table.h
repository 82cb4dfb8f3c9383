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

#include "kavdata/cache.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <compare>
#include <cstring>
#include <span>
#include <type_traits>

namespace kavplat
{

// ---- Columns ----

// What a column serves for a row. How it gets into a varbind is not its concern.
struct cell {
    uint32_t number = 0;         // integer, gauge, ticks
    const void *bytes = nullptr; // text, object identifier; octets when not null
    size_t length = 0;           // of bytes or octets
    u_char octets[11] = {};      // octets that are made on the spot: a DateAndTime at most
};

enum class cell_kind {
    integer,    // 32 bits, signed
    gauge,      // 32 bits, unsigned
    ticks,      // hundredths of a second of the agent's up-time
    text,       // octets; null serves the empty text
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
std::type_identity<Row> argument_of(Result (*)(Row &)); // keeps its const

template <auto Function>
auto call(void *row)
{
    assume_cache_lock(); // which serve wants held; the pointers in between say no such thing
    using Row = typename decltype(argument_of(Function))::type;
    return Function(*static_cast<Row *>(row));
}

inline cell number_cell(uint32_t number)
{
    return {.number = number};
}

inline cell text_cell(const char *text)
{
    return {.bytes = text, .length = text ? strlen(text) : 0};
}

// A field may change on another thread while it is read.
template <class T>
T load(const T &field)
{
    return __atomic_load_n(&field, __ATOMIC_RELAXED);
}
} // namespace detail

// Columns that serve a field of the row.

template <auto Member>
constexpr column integer(int number, const char *name)
{
    return {number, name, cell_kind::integer, [](void *row) {
                const int32_t value = detail::load(detail::field<Member>(row));
                return detail::number_cell(static_cast<uint32_t>(value));
            }};
}

template <auto Member>
constexpr column gauge(int number, const char *name)
{
    return {number, name, cell_kind::gauge, [](void *row) {
                return detail::number_cell(detail::load(detail::field<Member>(row)));
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

// One byte, as an OCTET STRING of one octet.
template <auto Member>
constexpr column octet(int number, const char *name)
{
    return {number, name, cell_kind::octets, [](void *row) {
                return cell{.length = 1, .octets = {detail::load(detail::field<Member>(row))}};
            }};
}

template <auto Member>
constexpr column object_id(int number, const char *name)
{
    return {number, name, cell_kind::object_id, [](void *row) {
                auto &field = detail::field<Member>(row);
                return cell{.bytes = field, .length = sizeof field};
            }};
}

// Columns that serve what a function of the row returns; it may refresh the row.

template <auto Function>
constexpr column integer_from(int number, const char *name)
{
    return {number, name, cell_kind::integer, [](void *row) {
                const int32_t value = detail::call<Function>(row);
                return detail::number_cell(static_cast<uint32_t>(value));
            }};
}

template <auto Function>
constexpr column ticks_from(int number, const char *name)
{
    return {number, name, cell_kind::ticks,
            [](void *row) { return detail::number_cell(detail::call<Function>(row)); }};
}

template <auto Function>
constexpr column text_from(int number, const char *name)
{
    return {number, name, cell_kind::text,
            [](void *row) { return detail::text_cell(detail::call<Function>(row)); }};
}

template <auto Function>
constexpr column octets_from(int number, const char *name)
{
    return {number, name, cell_kind::octets, [](void *row) { return detail::call<Function>(row); }};
}

// A column that is the same for every row.
template <int32_t Value>
constexpr column constant(int number, const char *name)
{
    return {number, name, cell_kind::integer,
            [](void *) { return detail::number_cell(static_cast<uint32_t>(Value)); }};
}

template <uint32_t Value>
constexpr column constant_gauge(int number, const char *name)
{
    return {number, name, cell_kind::gauge, [](void *) { return detail::number_cell(Value); }};
}

// The columns of a table: one, or an array in ascending order without a gap, where the
// place of each follows from its number.
struct column_list : std::span<const column> {
    consteval column_list(const column &only) : span(&only, 1) {}

    template <size_t Count>
    consteval column_list(const column (&all)[Count]) : span(all)
    {
        for (size_t i = 0; i < Count; i++) {
            if (all[i].number != all[0].number + static_cast<int>(i)) {
                throw "a column's number is not one above that of the column before it";
            }
        }
    }
};

// ---- Rows ----

// The row at an index and the first one above it; null when there is none.
struct row_rule {
    phys_entry *(*at)(uint32_t index);
    phys_entry *(*after)(uint32_t index);
};

inline constexpr row_rule all_rows = {get_entry, getnext_entry};

template <int32_t Class>
inline constexpr row_rule rows_of_class = {
    [](uint32_t index) { return get_entry_by_ent_class(index, Class); },
    [](uint32_t index) { return getnext_entry_by_ent_class(index, Class); },
};

namespace detail
{
phys_entry *scan_at(uint32_t index, bool (*is_row)(const phys_entry &));
phys_entry *scan_after(uint32_t index, bool (*is_row)(const phys_entry &));
} // namespace detail

// A scan of the table's own, without the traces of the lookups.
template <bool (*IsRow)(const phys_entry &)>
inline constexpr row_rule rows_where = {
    [](uint32_t index) { return detail::scan_at(index, IsRow); },
    [](uint32_t index) { return detail::scan_after(index, IsRow); },
};

// Rows of two indexes that the table finds by itself: what columns read is the table's
// own. On the agent's thread, within a pass or under the lock.
struct index_pair {
    uint32_t first; // an entity's index
    uint32_t second;
    // clang-tidy takes a 0 of the compiler's own for a pointer.
    auto operator<=>(const index_pair &) const = default; // NOLINT(modernize-use-nullptr)
};

struct pair_rule {
    // The row at a pair of indexes, null when there is none.
    void *(*at)(index_pair index);
    // The first row above, its indexes in found; null when there is none.
    void *(*after)(index_pair index, index_pair &found);
};

// Rows of a second index: each entity that the row rule finds has the states 1 to
// state_count of its set, and it is the state that columns read. The agent serves
// one request at a time, so one cursor serves all walks of a table.
struct state_cursor {
    uint32_t entity;
    uint32_t state;
    uint32_t set;
    uint32_t state_count;
};

struct state_rule {
    state_cursor *cursor;
    uint32_t state_count;
    uint32_t (*set_of)(const phys_entry &entity);
    const void *(*state)(uint32_t set, uint32_t number);
};

// Where a walk starts when its index varbind holds an index out of range.
enum class start_rule {
    first_from_maximum, // the maximum itself starts at 1 already
    first_above_maximum // the maximum is kept
};

// Which callbacks look first whether the cache is empty. One that does leaves the
// index varbind alone then; one that does not comes to the end of its scan.
enum class empty_rule { both, next_only, neither };

enum class walk_trace {
    none,
    index,         // "%s: idx=%ld\n" at every step
    dump_steps,    // the index dump at every step, with a row or without
    dump_rows,     // the index dump of every row
    dump_next_row, // the same, in get-next only
    next_steps     // beside that, the line that says who speaks at every get-next
};

// What a handler does in modes other than GET.
enum class mode_rule {
    refuse_each,    // SET: notWritable, on each request that has a row; other
                    // modes: logged, genErr
    refuse_all,     // SET and, logged, other modes: notWritable on every request
    ignore,         // nothing, under the lock
    ignore_unlocked // nothing, without taking the lock
};

enum class memory_failure { assertion, logged };

// ---- Tables ----

struct table {
    const char *name;   // of the object in the MIB; the callbacks are named after it
    const char *source; // what traces name: the room and its debug token
    std::span<const oid> root;
    column_list columns;
    row_rule rows = {}; // unless it has pairs
    const state_rule *states = nullptr;
    const pair_rule *pairs = nullptr;
    start_rule start = start_rule::first_above_maximum;
    empty_rule empty = empty_rule::both;
    walk_trace trace = walk_trace::none;
    mode_rule modes = mode_rule::refuse_each;
    // Logged with the handler's name and the mode.
    const char *unsupported_mode = "%s:unsupported mode (%d)\n";
    memory_failure on_memory_failure = memory_failure::logged;
    // Called first, before the lock is taken.
    void (*on_call)(int mode) = nullptr;
    // Called for a request with what the walk left for it, null without a row.
    void (*on_request)(const void *row) = nullptr;
    // Called for a request that has a row, before its mode and column are looked at.
    void (*before_serving)(const table &t, phys_entry &entry) = nullptr;
    // Sets an OCTET STRING that may be absent; only for maybe_null columns.
    void (*set_maybe_null)(netsnmp_variable_list *var, const char *text) = nullptr;
    // The exported forwarders.
    Netsnmp_First_Data_Point *get_first;
    Netsnmp_Next_Data_Point *get_next;
    Netsnmp_Node_Handler *handler;
};

// The name of one of a table's functions, such as "kavPlatFanTable_handler", for
// messages.
struct function_name {
    char text[96];

    function_name(const char *prefix, const table &t, const char *suffix);
};

// Registers a table with the agent, read-only. The result is the agent's, or
// SNMPERR_GENERR when there was no memory.
int register_table(const table &t);

// The same for a scalar; the agent adds the instance ".0" to root.
int register_scalar(const char *name, std::span<const oid> root, Netsnmp_Node_Handler *handler);

netsnmp_variable_list *table_get_first(const table &t, void **loop_context, void **data_context,
                                       netsnmp_variable_list *index);
netsnmp_variable_list *table_get_next(const table &t, void **loop_context, void **data_context,
                                      netsnmp_variable_list *index);
int table_handle(const table &t, netsnmp_agent_request_info *reqinfo,
                 netsnmp_request_info *requests);

// The forwarders of a table that exports none.

template <const table &T>
netsnmp_variable_list *get_first_of(void **loop_context, void **data_context,
                                    netsnmp_variable_list *index, netsnmp_iterator_info *)
{
    return table_get_first(T, loop_context, data_context, index);
}

template <const table &T>
netsnmp_variable_list *get_next_of(void **loop_context, void **data_context,
                                   netsnmp_variable_list *index, netsnmp_iterator_info *)
{
    return table_get_next(T, loop_context, data_context, index);
}

template <const table &T>
int handler_of(netsnmp_mib_handler *, netsnmp_handler_registration *,
               netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests)
{
    return table_handle(T, reqinfo, requests);
}

} // namespace kavplat

#endif

#include "table/next_row.h"
#include "table/table.h"
#include "table/turns.h"
#include "trace/trace.h"

// The assertions below hold in every build type.
#undef NDEBUG
#include <cassert>

namespace kavplat
{

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
    if (t.states || t.pairs) {
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

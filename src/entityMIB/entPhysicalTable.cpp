#include "entityMIB/entPhysicalTable.h"

#include "entityMIB/entityMIB.h"
#include "trace/trace.h"

namespace kavplat
{

namespace
{

constexpr oid root[] = {1, 3, 6, 1, 2, 1, 47, 1, 1, 1};

constexpr column columns[] = {
    text<&phys_entry::entPhysicalDescr>(2, "entPhysicalDescr"),
    object_id<&phys_entry::entPhysicalVendorType>(3, "entPhysicalVendorType"),
    integer<&phys_entry::entPhysicalContainedIn>(4, "entPhysicalContainedIn"),
    integer<&phys_entry::entPhysicalClass>(5, "entPhysicalClass"),
    integer<&phys_entry::entPhysicalParentRelPos>(6, "entPhysicalParentRelPos"),
    text<&phys_entry::entPhysicalName>(7, "entPhysicalName"),
    maybe_null_text<&phys_entry::entPhysicalHardwareRev>(8, "entPhysicalHardwareRev"),
    maybe_null_text<&phys_entry::entPhysicalFirmwareRev>(9, "entPhysicalFirmwareRev"),
    maybe_null_text<&phys_entry::entPhysicalSoftwareRev>(10, "entPhysicalSoftwareRev"),
    maybe_null_text<&phys_entry::entPhysicalSerialNum>(11, "entPhysicalSerialNum"),
    maybe_null_text<&phys_entry::entPhysicalMfgName>(12, "entPhysicalMfgName"),
    maybe_null_text<&phys_entry::entPhysicalModelName>(13, "entPhysicalModelName"),
    maybe_null_text<&phys_entry::entPhysicalAlias>(14, "entPhysicalAlias"),
    maybe_null_text<&phys_entry::entPhysicalAssetID>(15, "entPhysicalAssetID"),
    integer<&phys_entry::entPhysicalIsFRU>(16, "entPhysicalIsFRU"),
};

} // namespace

// SETs and odd modes are refused on every request of the call, with a row or
// without, and a request without a row is left alone: unlike in the platform
// tables, and meant.
constinit const table entPhysicalTable = {
    .name = "entPhysicalTable",
    .source = KAVPLAT_ROOM,
    .root = root,
    .columns = columns,
    .rows = all_rows,
    .start = start_rule::first_from_maximum,
    .trace = walk_trace::index,
    .modes = mode_rule::refuse_all,
    .unsupported_mode = "%s:unsupported mode(%d)\n",
    .on_memory_failure = memory_failure::assertion,
    .set_maybe_null = setStringMaybeNull,
    .get_first = entPhysicalTable_get_first_data_point,
    .get_next = entPhysicalTable_get_next_data_point,
    .handler = entPhysicalTable_handler,
};

} // namespace kavplat

void setStringMaybeNull(netsnmp_variable_list *var, const char *text)
{
    if (text) {
        KAV_TRACE("entityMIB", "%s:%s\n", "setStringMaybeNull", text);
        snmp_set_var_typed_value(var, ASN_OCTET_STR, text, strlen(text));
    } else {
        KAV_TRACE("entityMIB", "%s:NULL\n", "setStringMaybeNull");
        snmp_set_var_typed_value(var, ASN_OCTET_STR, "", 0);
    }
}

netsnmp_variable_list *entPhysicalTable_get_first_data_point(void **loop_context,
                                                             void **data_context,
                                                             netsnmp_variable_list *put_index_data,
                                                             netsnmp_iterator_info *)
{
    return table_get_first(kavplat::entPhysicalTable, loop_context, data_context, put_index_data);
}

netsnmp_variable_list *entPhysicalTable_get_next_data_point(void **loop_context,
                                                            void **data_context,
                                                            netsnmp_variable_list *put_index_data,
                                                            netsnmp_iterator_info *)
{
    return table_get_next(kavplat::entPhysicalTable, loop_context, data_context, put_index_data);
}

int entPhysicalTable_handler(netsnmp_mib_handler *, netsnmp_handler_registration *,
                             netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests)
{
    return table_handle(kavplat::entPhysicalTable, reqinfo, requests);
}

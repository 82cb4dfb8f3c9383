// What the platform tables have in common.
#ifndef KAVPLAT_KAVPLATMIB_PLATFORM_TABLE_H
#define KAVPLAT_KAVPLATMIB_PLATFORM_TABLE_H

#include "kavdata/codes.h"
#include "kavPlatMIB/kavPlatMIB.h"
#include "table/table.h"

namespace kavplat
{

// kavPlatMIBObjects.arc; an argument of a type that the library does not own would
// export it.
template <oid Arc>
[[gnu::visibility("hidden")]] inline constexpr oid platform_oid[] = {1, 3,  6,   1, 4, 1,  58213,
                                                                     2, 70, 101, 1, 1, Arc};

#define KAV_PLAT_EXTERN_TABLE(name) extern const table name;
KAV_PLAT_TABLES(KAV_PLAT_EXTERN_TABLE)
#undef KAV_PLAT_EXTERN_TABLE

// A table, by its arc and what is its own, and its exported functions, each a forwarder to
// the shared mechanism. To be used outside of any namespace.
#define KAV_PLAT_TABLE(id, arc, ...)                                                               \
    constinit const kavplat::table kavplat::id = {                                                 \
        .name = #id,                                                                               \
        .source = KAVPLAT_ROOM,                                                                    \
        .root = platform_oid<arc>,                                                                 \
        __VA_ARGS__,                                                                               \
        .get_first = id##_get_first_data_point,                                                    \
        .get_next = id##_get_next_data_point,                                                      \
        .handler = id##_handler,                                                                   \
    };                                                                                             \
    int initialize_table_##id(void)                                                                \
    {                                                                                              \
        return kavplat::register_table(kavplat::id);                                               \
    }                                                                                              \
    void deinitialize_table_##id(void) {}                                                          \
    netsnmp_variable_list *id##_get_first_data_point(void **loop_context, void **data_context,     \
                                                     netsnmp_variable_list *put_index_data,        \
                                                     netsnmp_iterator_info *)                      \
    {                                                                                              \
        return table_get_first(kavplat::id, loop_context, data_context, put_index_data);           \
    }                                                                                              \
    netsnmp_variable_list *id##_get_next_data_point(void **loop_context, void **data_context,      \
                                                    netsnmp_variable_list *put_index_data,         \
                                                    netsnmp_iterator_info *)                       \
    {                                                                                              \
        return table_get_next(kavplat::id, loop_context, data_context, put_index_data);            \
    }                                                                                              \
    int id##_handler(netsnmp_mib_handler *, netsnmp_handler_registration *,                        \
                     netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests)          \
    {                                                                                              \
        return table_handle(kavplat::id, reqinfo, requests);                                       \
    }

} // namespace kavplat

#endif

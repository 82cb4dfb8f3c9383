/* Names of what an agent serves. */
#ifndef KAVPLAT_TESTS_HARNESS_NAMES_H
#define KAVPLAT_TESTS_HARNESS_NAMES_H

#include "harness/client.h"

/* sysUpTime.0, which is not the module's. */
inline object_name uptime()
{
    return {1, 3, 6, 1, 2, 1, 1, 3, 0};
}

/* entPhysicalEntry, a column of it, a cell of that. */
inline object_name ent_table()
{
    return {1, 3, 6, 1, 2, 1, 47, 1, 1, 1, 1};
}

inline object_name ent_column(unsigned column)
{
    object_name name = ent_table();
    name.push_back(column);
    return name;
}

inline object_name ent_cell(unsigned column, unsigned long index)
{
    object_name name = ent_column(column);
    name.push_back(index);
    return name;
}

/* entLastChangeTime.0 */
inline object_name change_time()
{
    return {1, 3, 6, 1, 2, 1, 47, 1, 4, 1, 0};
}

/* All that is served of KAV-PLATFORM-MIB is below it. */
inline object_name platform_root()
{
    return {1, 3, 6, 1, 4, 1, 58213};
}

#endif

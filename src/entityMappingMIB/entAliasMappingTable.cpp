// Each port that is a network interface of the host, and the interface's row in ifTable.
#include "entityMappingMIB/mapping_tables.h"

#include "kavdata/cache.h"

#include <net/if.h>

namespace kavplat
{

namespace
{

constexpr oid root[] = {1, 3, 6, 1, 2, 1, 47, 1, 3, 2};

// Of all logical entities, of which there are none: entAliasLogicalIndexOrZero.
constexpr uint32_t every_logical_entity = 0;

struct mapping {
    oid interface[11]; // ifIndex of one interface, by RFC 2863
};

// What the last lookup found: the interface may be gone when its cell is served. The
// agent serves one request at a time.
mapping found_mapping = {{1, 3, 6, 1, 2, 1, 2, 2, 1, 1, 0}};

// The system is asked each time: an interface is renamed, and comes and goes, without
// an event of the platform.
mapping *mapping_of(const phys_entry *port)
{
    const unsigned number = port && port->interfaceName ? if_nametoindex(port->interfaceName) : 0;
    if (number == 0) {
        return nullptr;
    }
    found_mapping.interface[10] = number;
    return &found_mapping;
}

void *at(index_pair index)
{
    return index.second == every_logical_entity ? mapping_of(entry_at(index.first)) : nullptr;
}

void *after(index_pair index, index_pair &found)
{
    for (uint32_t i = index.first; i < getMaxPhysicalIndex();) {
        if (mapping *row = mapping_of(entry_at(++i))) {
            found = {i, every_logical_entity};
            return row;
        }
    }
    return nullptr;
}

constexpr pair_rule mappings = {at, after};

constexpr column columns[] = {
    object_id<&mapping::interface>(2, "entAliasMappingIdentifier"),
};

} // namespace

constinit const table entAliasMappingTable = {
    .name = "entAliasMappingTable",
    .source = KAVPLAT_ROOM,
    .root = root,
    .columns = columns,
    .pairs = &mappings,
    .get_first = get_first_of<entAliasMappingTable>,
    .get_next = get_next_of<entAliasMappingTable>,
    .handler = handler_of<entAliasMappingTable>,
};

} // namespace kavplat

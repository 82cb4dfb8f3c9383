// Each entity that lies in another, by the other's index and its own.
#include "entityMappingMIB/mapping_tables.h"

#include "kavdata/cache.h"

#include <algorithm>
#include <new>
#include <vector>

namespace kavplat
{

namespace
{

constexpr oid root[] = {1, 3, 6, 1, 2, 1, 47, 1, 3, 3};

// The rows in their order, which is not that of the cache: what a container holds may
// lie anywhere behind it. entPhysicalContainedIn never changes in a row's life, so this
// is what the cache says for as long as it keeps its shape. Of the agent's thread.
class contained_order
{
  public:
    const std::vector<index_pair> &of_now()
    {
        if (const uint32_t shape = shape_of_cache(); !is_known_ || shape != shape_) {
            is_known_ = false;
            find();
            shape_ = shape;
            is_known_ = true;
        }
        return pairs_;
    }

  private:
    void find()
    {
        pairs_.clear();
        const uint32_t last = getMaxPhysicalIndex();
        for (uint32_t index = 1; index <= last; index++) {
            const phys_entry *entry = entry_at(index);
            if (entry && entry->entPhysicalContainedIn > 0) {
                pairs_.push_back({static_cast<uint32_t>(entry->entPhysicalContainedIn), index});
            }
        }
        std::ranges::sort(pairs_);
    }

    std::vector<index_pair> pairs_;
    uint32_t shape_ = 0;
    bool is_known_ = false;
};

const std::vector<index_pair> &order()
try {
    // Never destroyed: at exit a request may still be under way.
    static auto *const known = new contained_order;
    return known->of_now();
} catch (const std::bad_alloc &) {
    static const std::vector<index_pair> none;
    snmp_log(LOG_ERR, "entPhysicalContainsTable: no memory for the order of its rows, none are "
                      "served at this moment\n");
    return none;
}

// The row of the child. It may have gone since the order was looked at.
phys_entry *child_of(index_pair index)
{
    phys_entry *child = entry_at(index.second);
    const bool is_in = child && index.first != 0 &&
                       static_cast<uint32_t>(child->entPhysicalContainedIn) == index.first;
    return is_in ? child : nullptr;
}

void *at(index_pair index)
{
    return child_of(index);
}

void *after(index_pair index, index_pair &found)
{
    const std::vector<index_pair> &pairs = order();
    for (auto next = std::ranges::upper_bound(pairs, index); next != pairs.end(); ++next) {
        if (phys_entry *child = child_of(*next)) {
            found = *next;
            return child;
        }
    }
    return nullptr;
}

constexpr pair_rule children = {at, after};

int32_t index_of(const phys_entry &child)
{
    return static_cast<int32_t>(child.entPhysicalIndex);
}

constexpr column columns[] = {
    integer_from<index_of>(1, "entPhysicalChildIndex"),
};

} // namespace

constinit const table entPhysicalContainsTable = {
    .name = "entPhysicalContainsTable",
    .source = KAVPLAT_ROOM,
    .root = root,
    .columns = columns,
    .pairs = &children,
    .get_first = get_first_of<entPhysicalContainsTable>,
    .get_next = get_next_of<entPhysicalContainsTable>,
    .handler = handler_of<entPhysicalContainsTable>,
};

} // namespace kavplat

#include "kavdata/cache_internal.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>

phys_entry **physicalTable = nullptr;
uint32_t maxPhysicalIndex = 0;
uint32_t localCacheSize = 0;
uint8_t cache_valid = 1;
uint32_t entLastChangeTime = 0;

uint32_t getMaxPhysicalIndex(void)
{
    return std::atomic_ref(maxPhysicalIndex).load(std::memory_order_acquire);
}

namespace kavplat
{

loaded_modules loaded = {};

namespace
{

// No array is smaller than one before it, so that an index which a reader took
// from an older cache lies within whatever array it then sees.
uint32_t largest_size KAV_GUARDED_BY(cache_lock) = 0;

slot_array *array_of(phys_entry **slots)
{
    return reinterpret_cast<slot_array *>(reinterpret_cast<char *>(slots) -
                                          offsetof(slot_array, slots));
}

// Room for indexes 0 to size, all slots empty.
phys_entry **allocate_slots(uint32_t size) KAV_REQUIRES(cache_lock)
{
    // The array's own first slot is that of index 0.
    const size_t count = std::max(size, largest_size);
    if (count > (SIZE_MAX - sizeof(slot_array)) / sizeof(phys_entry *)) {
        return nullptr;
    }
    auto *array =
        static_cast<slot_array *>(calloc(1, sizeof(slot_array) + count * sizeof(phys_entry *)));
    if (!array) {
        return nullptr;
    }
    largest_size = std::max(size, largest_size);
    return array->slots;
}

std::atomic<uint32_t> shape{0};

// After a change: who then looks sees it, who looked before sees another count.
void count_change()
{
    shape.fetch_add(1, std::memory_order_seq_cst);
}

std::atomic_ref<phys_entry **> published_table()
{
    return std::atomic_ref(physicalTable);
}

} // namespace

phys_entry *entry_at(uint32_t index)
{
    // The maximum first: the array that is seen afterwards has room for it.
    if (index > getMaxPhysicalIndex()) {
        return nullptr;
    }
    // In one order with the reader's flag, as the slot is: an array that is retired
    // must not be taken by a reader whose flag was not seen.
    phys_entry **slots = published_table().load(std::memory_order_seq_cst);
    if (!slots) {
        return nullptr;
    }
    return std::atomic_ref(slots[index]).load(std::memory_order_seq_cst);
}

uint32_t shape_of_cache()
{
    return shape.load(std::memory_order_seq_cst);
}

bool table_is_empty()
{
    return getMaxPhysicalIndex() == 0 || !published_table().load(std::memory_order_acquire);
}

void store_slot(uint32_t index, phys_entry *entry)
{
    std::atomic_ref(physicalTable[index]).store(entry, std::memory_order_seq_cst);
    count_change();
}

void publish_max_index(uint32_t index)
{
    std::atomic_ref(maxPhysicalIndex).store(index, std::memory_order_release);
    count_change();
}

void publish_index(uint32_t index)
{
    if (index > maxPhysicalIndex) {
        publish_max_index(index);
    }
}

bool cache_is_built()
{
    return cache_valid != 0 && name_index_exists();
}

bool replace_slots(uint32_t size)
{
    phys_entry **slots = allocate_slots(size);
    if (!slots) {
        return false;
    }
    phys_entry **old = physicalTable;
    if (old) {
        std::copy_n(old, size_t{maxPhysicalIndex} + 1, slots);
    }
    published_table().store(slots, std::memory_order_seq_cst);
    if (old) {
        retire(array_of(old));
    }
    return true;
}

void drop_cache()
{
    const uint32_t last = std::min(maxPhysicalIndex, largest_size);
    phys_entry **slots = physicalTable;
    publish_max_index(0);
    published_table().store(nullptr, std::memory_order_seq_cst);
    count_change();
    if (slots) {
        for (uint32_t i = 1; i <= last; i++) {
            if (phys_entry *entry = slots[i]) {
                remove_name(entry);
                retire(entry);
            }
        }
        retire(array_of(slots));
    }
    destroy_name_index(false);
    localCacheSize = 0;
}

void forget_slots()
{
    assume_cache_lock();
    physicalTable = nullptr;
    maxPhysicalIndex = 0;
    localCacheSize = 0;
    cache_valid = 1;
    count_change();
}

} // namespace kavplat

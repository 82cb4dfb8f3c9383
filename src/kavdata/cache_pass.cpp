#include "kavdata/cache_internal.h"

#include <atomic>
#include <cstdlib>
#include <utility>

namespace kavplat
{

namespace
{

std::atomic<bool> agent_pass{false};

// Reads are counted by the period in which they began. What is retired in a period
// can only be held by reads of that one and of the one before it. So there are two
// of each, and no read that begins now keeps what was retired before: with reads
// that overlap without end there is always one period whose reads run out.
std::atomic<unsigned> period{0};
std::atomic<uint32_t> unlocked_reads[2];

struct {
    phys_entry *rows;
    slot_array *arrays;
} retired[2] KAV_GUARDED_BY(cache_lock);

void free_row(phys_entry *row)
{
    free(row->entPhysicalName);
    free(row->entPhysicalHardwareRev);
    free(row->entPhysicalFirmwareRev);
    free(row->entPhysicalSoftwareRev);
    free(row->entPhysicalSerialNum);
    free(row->entPhysicalMfgName);
    free(row->entPhysicalModelName);
    free(row->entPhysicalAlias);
    free(row->entPhysicalAssetID);
    free(row->holderCol2);
    free(row->binarySensorText1);
    free(row->binarySensorText2);
    free(row->interfaceName);
    free(row);
}

void free_retired_in(unsigned when) KAV_REQUIRES(cache_lock)
{
    while (phys_entry *row = retired[when].rows) {
        retired[when].rows = row->next_retired;
        free_row(row);
    }
    while (slot_array *array = retired[when].arrays) {
        retired[when].arrays = array->next_retired;
        free(array);
    }
}

// A period ends when the reads of the one before it did. Two in turn, so that with
// nobody reading all goes at once.
void free_retired() KAV_REQUIRES(cache_lock)
{
    if (agent_pass.load(std::memory_order_seq_cst)) {
        return;
    }
    for (int i = 0; i < 2; i++) {
        const unsigned before = 1 - period.load(std::memory_order_seq_cst);
        if (unlocked_reads[before].load(std::memory_order_seq_cst) != 0) {
            return;
        }
        free_retired_in(before);
        period.store(before, std::memory_order_seq_cst);
    }
}

} // namespace

void begin_agent_pass()
{
    agent_pass.store(true, std::memory_order_seq_cst);
}

void end_agent_pass()
{
    agent_pass.store(false, std::memory_order_seq_cst);
    free_retired();
}

unlocked_read::unlocked_read() : period_(period.load(std::memory_order_seq_cst))
{
    unlocked_reads[period_].fetch_add(1, std::memory_order_seq_cst);
}

unlocked_read::~unlocked_read()
{
    unlocked_reads[period_].fetch_sub(1, std::memory_order_seq_cst);
}

void retire(phys_entry *row)
{
    row->next_retired = std::exchange(retired[period].rows, row);
    free_retired();
}

void retire(slot_array *array)
{
    array->next_retired = std::exchange(retired[period].arrays, array);
    free_retired();
}

void forget_retired()
{
    assume_cache_lock();
    agent_pass = false;
    for (unsigned i = 0; i < 2; i++) {
        unlocked_reads[i] = 0;
        retired[i] = {};
    }
}

} // namespace kavplat

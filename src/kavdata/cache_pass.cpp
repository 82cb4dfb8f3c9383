#include "kavdata/cache_internal.h"

#include <atomic>
#include <cstdlib>

namespace kavplat
{

namespace
{

std::atomic<bool> agent_pass{false};
std::atomic<uint32_t> unlocked_reads{0};

// Guarded by fru_mutex.
phys_entry *retired_rows = nullptr;
slot_array *retired_arrays = nullptr;

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
    free(row);
}

void free_retired()
{
    if (agent_pass.load(std::memory_order_seq_cst) ||
        unlocked_reads.load(std::memory_order_seq_cst) != 0) {
        return;
    }
    while (phys_entry *row = retired_rows) {
        retired_rows = row->next_retired;
        free_row(row);
    }
    while (slot_array *array = retired_arrays) {
        retired_arrays = array->next_retired;
        free(array);
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

unlocked_read::unlocked_read()
{
    unlocked_reads.fetch_add(1, std::memory_order_seq_cst);
}

unlocked_read::~unlocked_read()
{
    unlocked_reads.fetch_sub(1, std::memory_order_seq_cst);
}

void retire(phys_entry *row)
{
    row->next_retired = retired_rows;
    retired_rows = row;
    free_retired();
}

void retire(slot_array *array)
{
    array->next_retired = retired_arrays;
    retired_arrays = array;
    free_retired();
}

void forget_retired()
{
    agent_pass = false;
    unlocked_reads = 0;
    retired_rows = nullptr;
    retired_arrays = nullptr;
}

} // namespace kavplat

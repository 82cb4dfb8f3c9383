// Which index a new row gets, and how that is remembered.
#include "kavdata/cache_internal.h"
#include "kavdata/index_file.h"
#include "kavdata/mutex.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <unistd.h>
#include <utility>

namespace kavplat
{

namespace
{

// What the file said at the start, with what was given since.
struct memory {
    std::string path;
    remembered_indexes indexes;
    bool has_changed = false;
    bool has_failed = false; // the last write did, and that was told
    bool is_full = false;    // the highest that a file may have was given, and that was told
    memory *left = nullptr;  // by the parent of a fork: as reachable as it was there
};

// Guards the memory. Only the lock of the names is taken under it.
mutex indexes_mutex;
memory *remembered KAV_GUARDED_BY(indexes_mutex) = nullptr; // null: nothing is remembered
bool is_prepared KAV_GUARDED_BY(indexes_mutex) = false;

// One write at a time, in the order of the changes. Before the other.
mutex writing_mutex;

// The lock of the file: open to the end of the process and in every fork of it.
int file_lock KAV_GUARDED_BY(indexes_mutex) = -1;
char locked_path[PATH_MAX] KAV_GUARDED_BY(indexes_mutex);

void log_no_memory()
{
    log_failure("give_index", "no memory to remember indexes");
}

// Of a file that this process, or the parent of a fork, has locked it is kept.
bool take_lock(const char *path, std::string &why) KAV_REQUIRES(indexes_mutex)
{
    if (file_lock >= 0 && strcmp(path, locked_path) == 0) {
        return true;
    }
    if (file_lock >= 0) {
        close(file_lock);
    }
    file_lock = lock_index_file(path, why);
    snprintf(locked_path, sizeof locked_path, "%s", path);
    return file_lock >= 0;
}

// Null, with what is wrong told, where nothing can be remembered.
std::unique_ptr<memory> open_memory(const char *path) KAV_REQUIRES(indexes_mutex)
{
    constexpr const char *caller = "prepare_indexes";
    if (path[0] != '/') {
        snmp_log(LOG_ERR, "%s:KAVPLAT_INDEX_FILE is no absolute path: %s: no index is remembered\n",
                 caller, path);
        return nullptr;
    }
    auto result = std::make_unique<memory>();
    result->path = path;
    std::string why;
    if (!take_lock(path, why)) {
        snmp_log(LOG_ERR, "%s:%s: %s: no index is remembered\n", caller, path, why.c_str());
        return nullptr;
    }
    const file_found found = read_index_file(path, result->indexes, why);
    if (found == file_found::broken) {
        result->indexes = {};
        std::string not_renamed;
        const std::string kept = set_aside(path, not_renamed);
        if (kept.empty()) {
            snmp_log(LOG_ERR,
                     "%s:%s can not be used: %s; it can not be set aside either: %s: no index is "
                     "remembered\n",
                     caller, path, why.c_str(), not_renamed.c_str());
            return nullptr;
        }
        snmp_log(LOG_ERR, "%s:%s can not be used: %s: indexes start afresh, it is kept as %s\n",
                 caller, path, why.c_str(), kept.c_str());
    } else {
        snmp_log(LOG_INFO, "%s:%s: %zu names keep their indexes, the highest is %u\n", caller, path,
                 result->indexes.of.size(), result->indexes.highest);
    }
    return result;
}

// The index that the name had, when the row can have it: 0 otherwise. What a row holds
// stands behind it, which is what removals and walks go by.
uint32_t index_of_before(const memory &known, const std::string &name, uint32_t container)
{
    const auto found = known.indexes.of.find(name);
    if (found == known.indexes.of.end() || found->second <= container) {
        return 0;
    }
    return entry_at(found->second) ? 0 : found->second;
}

// A namesake of a row that is there takes nothing from it.
bool is_taken(const memory &known, const std::string &name)
{
    const auto found = known.indexes.of.find(name);
    return found != known.indexes.of.end() && entry_at(found->second);
}

uint32_t container_of(const std::string &name)
{
    const size_t slash = name.rfind('/');
    return slash == std::string::npos ? 0 : find_name(name.substr(0, slash).c_str());
}

uint32_t give_remembered(memory &known, const capi_inventory_record &record)
{
    std::string name = record_name(record);
    const bool can_be_remembered =
        record.nac_name_length != 0 && name.size() <= longest_remembered_name && !name.empty();
    const uint32_t before =
        can_be_remembered ? index_of_before(known, name, container_of(name)) : 0;
    if (before != 0) {
        return before;
    }
    const uint32_t index = std::max(known.indexes.highest, maxPhysicalIndex) + 1;
    // A file with more would not be believed.
    if (index > highest_remembered_index) {
        if (!std::exchange(known.is_full, true)) {
            snmp_log(LOG_WARNING,
                     "give_index:%s: %u is the highest index that is remembered: what is new "
                     "from now on keeps its index for this run only\n",
                     known.path.c_str(), highest_remembered_index);
        }
        return index;
    }
    if (can_be_remembered && !is_taken(known, name)) {
        known.indexes.of.insert_or_assign(std::move(name), index);
    }
    known.indexes.highest = index;
    known.has_changed = true;
    return index;
}

} // namespace

void prepare_indexes()
{
    const char *path = getenv("KAVPLAT_INDEX_FILE");
    const lock_guard lock(indexes_mutex);
    if (is_prepared) {
        return;
    }
    is_prepared = true;
    if (path && path[0]) {
        try {
            remembered = open_memory(path).release();
        } catch (const std::bad_alloc &) {
            log_no_memory();
        }
    }
}

uint32_t give_index(const capi_inventory_record &record)
{
    const lock_guard lock(indexes_mutex);
    if (remembered) {
        try {
            return give_remembered(*remembered, record);
        } catch (const std::bad_alloc &) {
            log_no_memory();
            remembered->indexes.highest =
                std::max(remembered->indexes.highest, maxPhysicalIndex) + 1;
            return remembered->indexes.highest;
        }
    }
    return maxPhysicalIndex + 1;
}

uint32_t highest_remembered()
{
    const lock_guard lock(indexes_mutex);
    return remembered ? remembered->indexes.highest : 0;
}

void save_indexes()
try {
    const lock_guard writing(writing_mutex);
    std::string path;
    std::string text;
    {
        const lock_guard lock(indexes_mutex);
        if (!remembered || !remembered->has_changed) {
            return;
        }
        path = remembered->path;
        text = text_of(remembered->indexes);
        remembered->has_changed = false;
    }
    std::string why;
    const bool is_written = write_index_file(path, text, why);
    const lock_guard lock(indexes_mutex);
    if (is_written && remembered->has_failed) {
        snmp_log(LOG_INFO, "%s:%s is written again\n", "save_indexes", path.c_str());
    } else if (!is_written && !remembered->has_failed) {
        snmp_log(LOG_ERR,
                 "%s:%s can not be written: %s: after a restart new components get other indexes\n",
                 "save_indexes", path.c_str(), why.c_str());
    }
    remembered->has_failed = !is_written;
    remembered->has_changed = remembered->has_changed || !is_written;
} catch (const std::bad_alloc &) {
    log_no_memory();
}

void forget_indexes() KAV_NOT_ANALYSED
{
    // Who held them is not in this process, and may have stopped half-way.
    indexes_mutex.renew();
    writing_mutex.renew();
    static memory *left_behind = nullptr;
    if (remembered) {
        remembered->left = left_behind;
        left_behind = remembered;
    }
    remembered = nullptr;
    is_prepared = false;
}

} // namespace kavplat

// Which rows have a part in their name, so that a removal need not look at every name. A
// part stands between two slashes: "/SYS/MB/P0" has "SYS" and "MB".
//
// What is removed has a text in its name, and with that text each part of it. So only
// the rows that have its rarest part come into question, and whoever asks still looks
// whether they have the text.
//
// A row that goes leaves its places where they are, and does not disturb who goes through
// them; when half of all places may be such, they are cleared away.
#include "kavdata/cache_internal.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace kavplat
{

namespace
{

struct hash_of_part {
    using is_transparent = void;
    size_t operator()(std::string_view part) const { return std::hash<std::string_view>{}(part); }
};

using indexes = std::vector<uint32_t>;

constexpr size_t fewest_to_clear = 1024;

struct name_parts {
    std::unordered_map<std::string, indexes, hash_of_part, std::equal_to<>> rows;
    size_t places = 0;
    size_t clear_at = fewest_to_clear;
    name_parts *left_before = nullptr;
};

// Null: not every row is in it.
name_parts *parts KAV_GUARDED_BY(cache_lock) = nullptr;

// What forks left, perhaps in the middle of a change: it is never freed, and still
// pointed at, so that a leak checker knows that this is meant.
[[gnu::used]] name_parts *left KAV_GUARDED_BY(cache_lock) = nullptr;

template <class Function>
void for_each_part(std::string_view text, const Function &function)
{
    size_t begin = text.find('/');
    while (begin != std::string_view::npos) {
        const size_t end = text.find('/', begin + 1);
        if (end != std::string_view::npos) {
            function(text.substr(begin + 1, end - begin - 1));
        }
        begin = end;
    }
}

// Each once and in ascending order, which neither is by itself where indexes are
// remembered: a row that comes again has the one that it had.
void order(indexes &rows)
{
    std::ranges::sort(rows);
    rows.erase(std::unique(rows.begin(), rows.end()), rows.end());
}

void clear_places(name_parts &all)
{
    all.places = 0;
    for (auto part = all.rows.begin(); part != all.rows.end();) {
        indexes &rows = part->second;
        std::erase_if(rows, [](uint32_t index) { return !entry_at(index); });
        order(rows);
        rows.shrink_to_fit();
        all.places += rows.size();
        part = rows.empty() ? all.rows.erase(part) : std::next(part);
    }
    all.clear_at = std::max(fewest_to_clear, 2 * all.places);
}

void add_place(name_parts &all, std::string_view part, uint32_t index)
{
    auto found = all.rows.find(part);
    if (found == all.rows.end()) {
        found = all.rows.emplace(part, indexes()).first;
    }
    indexes &rows = found->second;
    if (rows.empty() || rows.back() != index) {
        rows.push_back(index);
        all.places++;
    }
}

} // namespace

void begin_name_parts()
{
    forget_name_parts();
    parts = new (std::nothrow) name_parts;
}

void forget_name_parts()
{
    delete parts;
    parts = nullptr;
}

void note_name_parts(const phys_entry &entry)
try {
    if (!parts) {
        return;
    }
    if (parts->places >= parts->clear_at) {
        clear_places(*parts);
    }
    for_each_part(entry.entPhysicalName, [&all = *parts, &entry](std::string_view part) {
        add_place(all, part, entry.entPhysicalIndex);
    });
} catch (const std::bad_alloc &) {
    forget_name_parts();
}

std::optional<std::span<const uint32_t>> rows_with_parts_of(std::string_view text, uint32_t after)
{
    if (!parts) {
        return std::nullopt;
    }
    bool has_unknown_part = false;
    indexes *rarest = nullptr;
    for_each_part(text, [&, &all = *parts](std::string_view part) {
        const auto found = all.rows.find(part);
        if (found == all.rows.end()) {
            has_unknown_part = true;
        } else if (!rarest || found->second.size() < rarest->size()) {
            rarest = &found->second;
        }
    });
    if (has_unknown_part) {
        return std::span<const uint32_t>();
    }
    if (!rarest) {
        return std::nullopt; // a text without a part can be in any name
    }
    // Twice the same is out of order, too.
    if (!std::ranges::is_sorted(*rarest, std::less_equal())) {
        order(*rarest);
    }
    return std::span<const uint32_t>(std::ranges::upper_bound(*rarest, after), rarest->end());
}

void leave_name_parts()
{
    assume_cache_lock();
    if (parts) {
        parts->left_before = left;
        left = parts;
        parts = nullptr;
    }
}

} // namespace kavplat

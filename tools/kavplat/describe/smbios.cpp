#include "tools/kavplat/describe/smbios.h"

#include <algorithm>
#include <cstdio>
#include <numeric>

namespace kavplat_describe::smbios
{
namespace
{

constexpr size_t head_length = 4;
constexpr size_t most_structures = 8192;
constexpr size_t most_strings = 255; /* their numbers are bytes */

uint8_t at(std::string_view bytes, size_t offset)
{
    return static_cast<uint8_t>(bytes[offset]);
}

std::string place(const char *what, size_t offset)
{
    char text[80];
    std::snprintf(text, sizeof text, "%s at byte %zu", what, offset);
    return text;
}

bool sums_to_zero(std::string_view bytes)
{
    return std::accumulate(bytes.begin(), bytes.end(), 0U, [](unsigned sum, char each) {
               return (sum + static_cast<uint8_t>(each)) & 0xffU;
           }) == 0;
}

/* Moves the offset behind the texts; false when they have no end. */
bool read_strings(std::string_view bytes, size_t &offset, std::vector<std::string_view> &into)
{
    for (;;) {
        const size_t end = bytes.find('\0', offset);
        if (end == std::string_view::npos) {
            if (offset < bytes.size() && into.size() < most_strings) {
                into.push_back(bytes.substr(offset));
            }
            offset = bytes.size();
            return false;
        }
        if (end == offset) {
            // Without any text there are two zeros all the same.
            offset = into.empty() && offset + 1 < bytes.size() && bytes[offset + 1] == '\0'
                         ? offset + 2
                         : offset + 1;
            return true;
        }
        if (into.size() < most_strings) {
            into.push_back(bytes.substr(offset, end - offset));
        }
        offset = end + 1;
    }
}

} // namespace

uint8_t structure::byte(size_t offset) const
{
    return has(offset) ? at(fields, offset) : uint8_t{0};
}

uint16_t structure::word(size_t offset) const
{
    return has(offset, 2) ? static_cast<uint16_t>(at(fields, offset) | at(fields, offset + 1) << 8)
                          : uint16_t{0};
}

uint32_t structure::dword(size_t offset) const
{
    return has(offset, 4) ? word(offset) | static_cast<uint32_t>(word(offset + 2)) << 16 : 0;
}

std::string_view structure::text(size_t offset) const
{
    const size_t number = byte(offset);
    return number == 0 || number > strings.size() ? std::string_view() : strings[number - 1];
}

table read_table(std::string_view bytes, unused those)
{
    table all;
    size_t offset = 0;
    for (; offset < bytes.size(); all.end = offset) {
        if (bytes.size() - offset < head_length) {
            // The end of a table is padded here and there.
            if (bytes.find_first_not_of('\0', offset) != std::string_view::npos) {
                all.fault = place("a structure is cut off", offset);
            }
            return all;
        }
        structure it;
        it.type = at(bytes, offset);
        const size_t length = at(bytes, offset + 1);
        it.handle = static_cast<uint16_t>(at(bytes, offset + 2) | at(bytes, offset + 3) << 8);
        if (length < head_length) {
            all.fault = place("a structure has no length", offset);
            return all;
        }
        if (length > bytes.size() - offset) {
            all.fault = place("a structure is longer than the table", offset);
            return all;
        }
        const size_t begin = offset;
        it.fields = bytes.substr(offset, length);
        offset += length;
        const bool ended = read_strings(bytes, offset, it.strings);
        if (it.type == end_of_table) {
            return all;
        }
        if (it.type != inactive || those == unused::kept) {
            all.structures.push_back(std::move(it));
        }
        if (!ended) {
            all.end = offset;
            all.fault = place("the texts of a structure have no end", begin);
            return all;
        }
        if (all.structures.size() == most_structures) {
            all.end = offset;
            all.fault = place("there are too many structures", offset);
            return all;
        }
    }
    if (!bytes.empty()) {
        all.fault = place("the end of the table is missing", offset);
    }
    return all;
}

entry_point read_entry_point(std::string_view bytes)
{
    entry_point it;
    const auto is_good = [bytes](size_t from, size_t length) {
        return length > 0 && from + length <= bytes.size() &&
               sums_to_zero(bytes.substr(from, length));
    };
    if (bytes.starts_with("_SM3_") && bytes.size() >= 0x18) {
        it.major = at(bytes, 7);
        it.minor = at(bytes, 8);
        it.fault = is_good(0, at(bytes, 6)) ? "" : "the entry point's checksum is wrong";
    } else if (bytes.starts_with("_SM_") && bytes.size() >= 0x1f) {
        it.major = at(bytes, 6);
        it.minor = at(bytes, 7);
        // Its length was 0x1e in a version whose authors had miscounted.
        it.fault = is_good(0, std::max<size_t>(at(bytes, 5), 0x1f)) && is_good(0x10, 0x0f)
                       ? ""
                       : "the entry point's checksum is wrong";
    } else if (bytes.starts_with("_DMI_") && bytes.size() >= 0x0f) {
        it.major = at(bytes, 0x0e) >> 4;
        it.minor = at(bytes, 0x0e) & 0x0f;
        it.fault = is_good(0, 0x0f) ? "" : "the entry point's checksum is wrong";
    } else {
        it.fault = "the entry point is none";
    }
    return it;
}

int64_t memory_size(const structure &device)
{
    constexpr uint16_t not_known = 0xffff;
    constexpr uint16_t see_extended = 0x7fff;
    constexpr uint16_t in_kib = 0x8000;
    const uint16_t size = device.word(0x0c);
    if (size == not_known) {
        return -1;
    }
    if (size == see_extended && device.has(0x1c, 4)) {
        return device.dword(0x1c) & 0x7fffffffU;
    }
    if ((size & in_kib) != 0) {
        return std::max((size & 0x7fff) / 1024, 1);
    }
    return size;
}

} // namespace kavplat_describe::smbios

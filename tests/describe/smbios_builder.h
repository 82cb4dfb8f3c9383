/* Makes a table as firmware leaves it, of any version, and the dump that dmidecode reads. */
#ifndef KAVPLAT_TESTS_SMBIOS_BUILDER_H
#define KAVPLAT_TESTS_SMBIOS_BUILDER_H

#include <cstdint>
#include <numeric>
#include <string>
#include <vector>

class smbios_builder
{
  public:
    struct number {
        size_t offset;
        size_t bytes;
        uint64_t value;
    };
    struct text {
        size_t offset;
        std::string value;
    };

    /* Fields that lie beyond the length are cut off, as an older version has it. Of no
     * text there is no number. */
    uint16_t add(uint8_t type, size_t length, const std::vector<number> &numbers = {},
                 const std::vector<text> &texts = {})
    {
        std::string fields(256, '\0');
        const uint16_t handle = next_++;
        put(fields, {0, 1, type});
        put(fields, {1, 1, length});
        put(fields, {2, 2, handle});
        for (const number &each : numbers) {
            put(fields, each);
        }
        std::string strings;
        uint8_t count = 0;
        for (const text &each : texts) {
            if (each.offset < length && !each.value.empty()) {
                put(fields, {each.offset, 1, ++count});
                strings += each.value + '\0';
            }
        }
        table += fields.substr(0, length) + (count == 0 ? std::string(1, '\0') : strings) + '\0';
        count_++;
        return handle;
    }

    void end() { add(127, 4); }

    std::string entry_point(int major, int minor) const
    {
        std::string bytes;
        if (major >= 3) {
            bytes = std::string("_SM3_") + std::string(19, '\0');
            put(bytes, {6, 1, 0x18});
            put(bytes, {7, 1, static_cast<uint64_t>(major)});
            put(bytes, {8, 1, static_cast<uint64_t>(minor)});
            put(bytes, {10, 1, 1});
            put(bytes, {12, 4, table.size()});
            put(bytes, {16, 8, 0x20});
            put(bytes, {5, 1, complement(bytes)});
            return bytes;
        }
        bytes = std::string("_SM_") + std::string(12, '\0') + "_DMI_" + std::string(10, '\0');
        put(bytes, {5, 1, 0x1f});
        put(bytes, {6, 1, static_cast<uint64_t>(major)});
        put(bytes, {7, 1, static_cast<uint64_t>(minor)});
        put(bytes, {0x16, 2, table.size()});
        put(bytes, {0x18, 4, 0x20});
        put(bytes, {0x1c, 2, count_});
        put(bytes, {0x1e, 1, static_cast<uint64_t>(major << 4 | minor)});
        put(bytes, {0x15, 1, complement(bytes.substr(0x10))});
        put(bytes, {4, 1, complement(bytes)});
        return bytes;
    }

    /* What dmidecode --from-dump takes. */
    std::string dump(int major, int minor) const
    {
        std::string bytes = entry_point(major, minor);
        bytes.resize(0x20, '\0');
        return bytes + table;
    }

    std::string table;

  private:
    static void put(std::string &into, const number &it)
    {
        for (size_t i = 0; i < it.bytes; i++) {
            into[it.offset + i] = static_cast<char>(it.value >> (8 * i) & 0xff);
        }
    }
    static uint64_t complement(const std::string &bytes)
    {
        return 0xff & (0x100 - (std::accumulate(bytes.begin(), bytes.end(), 0U,
                                                [](unsigned sum, char each) {
                                                    return sum + static_cast<uint8_t>(each);
                                                }) &
                                0xff));
    }

    uint16_t next_ = 0x10;
    size_t count_ = 0;
};

/* The structures that machines have, with the length that they have in a version. */
namespace smbios_made
{

using number = smbios_builder::number;

inline size_t length_in(int version, std::initializer_list<std::pair<int, size_t>> lengths)
{
    size_t length = 0;
    for (const auto &[since, bytes] : lengths) {
        length = version >= since ? bytes : length;
    }
    return length;
}

/* version: 20 for 2.0, 33 for 3.3 */
inline uint16_t system(smbios_builder &into, int version, const std::string &maker,
                       const std::string &product, const std::string &serial)
{
    return into.add(1, length_in(version, {{20, 0x08}, {21, 0x19}, {24, 0x1b}}), {},
                    {{4, maker}, {5, product}, {6, "V1"}, {7, serial}});
}

inline uint16_t board(smbios_builder &into, const std::string &product, const std::string &serial,
                      uint8_t kind = 0x0a, const std::string &location = "",
                      const std::vector<uint16_t> &holds = {})
{
    std::vector<number> numbers = {
        {9, 1, kind == 0x0a ? 1U : 0U}, {0x0d, 1, kind}, {0x0e, 1, holds.size()}};
    for (size_t i = 0; i < holds.size(); i++) {
        numbers.push_back({0x0f + 2 * i, 2, holds[i]});
    }
    return into.add(2, 0x0f + 2 * holds.size(), numbers,
                    {{4, "Boardmaker"}, {5, product}, {6, "r2"}, {7, serial}, {0x0a, location}});
}

inline uint16_t processor(smbios_builder &into, int version, const std::string &socket,
                          const std::string &model, const std::string &serial, bool there = true)
{
    return into.add(
        4,
        length_in(version,
                  {{20, 0x1a}, {21, 0x20}, {23, 0x23}, {25, 0x28}, {26, 0x2a}, {30, 0x30}}),
        {{5, 1, 3}, {0x18, 1, there ? 0x41U : 0U}, {0x23, 1, 16}},
        {{4, socket}, {7, "Chipmaker"}, {0x10, model}, {0x20, serial}, {0x22, "PN-1"}});
}

inline uint16_t memory(smbios_builder &into, int version, const std::string &locator,
                       const std::string &bank, uint64_t mebibytes, const std::string &serial,
                       uint16_t array = 0xfffe)
{
    std::vector<number> numbers = {{4, 2, array},   {6, 2, 0xfffe}, {8, 2, 72},
                                   {0x0a, 2, 64},   {0x0e, 1, 9},   {0x12, 1, 0x1a},
                                   {0x15, 2, 3200}, {0x20, 2, 2933}};
    if (mebibytes >= 0x7fff && version >= 27) {
        numbers.push_back({0x0c, 2, 0x7fff});
        numbers.push_back({0x1c, 4, mebibytes});
    } else {
        numbers.push_back({0x0c, 2, mebibytes > 0xffff ? 0xffff : mebibytes});
    }
    return into.add(
        17,
        length_in(
            version,
            {{20, 0x15}, {23, 0x1b}, {26, 0x1c}, {27, 0x22}, {28, 0x28}, {32, 0x54}, {33, 0x5c}}),
        numbers,
        {{0x10, locator}, {0x11, bank}, {0x17, "Memorymaker"}, {0x18, serial}, {0x1a, "MM-32"}});
}

inline uint16_t slot(smbios_builder &into, int version, const std::string &designation, uint8_t bus,
                     uint8_t device_and_function, uint8_t kind = 0xa5)
{
    return into.add(
        9, length_in(version, {{20, 0x0c}, {21, 0x0d}, {26, 0x11}}),
        {{5, 1, kind}, {7, 1, 4}, {0x0d, 2, 0}, {0x0f, 1, bus}, {0x10, 1, device_and_function}},
        {{4, designation}});
}

inline uint16_t onboard(smbios_builder &into, const std::string &designation, uint8_t kind,
                        uint8_t instance, uint8_t bus, uint8_t device_and_function,
                        bool enabled = true)
{
    return into.add(41, 0x0b,
                    {{5, 1, enabled ? 0x80U | kind : kind},
                     {6, 1, instance},
                     {7, 2, 0},
                     {9, 1, bus},
                     {0x0a, 1, device_and_function}},
                    {{4, designation}});
}

inline uint16_t power_supply(smbios_builder &into, const std::string &location,
                             const std::string &serial, bool there)
{
    return into.add(39, 0x16, {{4, 1, 1}, {0x0c, 2, 750}, {0x0e, 2, there ? 3U : 1U}},
                    {{5, location},
                     {6, "PWR"},
                     {7, "Supplymaker"},
                     {8, serial},
                     {0x0a, "S-750"},
                     {0x0b, "01A"}});
}

} // namespace smbios_made

#endif

/*
 * The table that firmware leaves of what the machine is built of, as a kernel hands it
 * out: structures of a type, with fields at fixed places and texts behind them. Whatever
 * the bytes are, reading them ends, within the bytes.
 */
#ifndef KAVPLAT_DESCRIBE_SMBIOS_H
#define KAVPLAT_DESCRIBE_SMBIOS_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kavplat_describe::smbios
{

/* Values of structure::type that are read here. */
enum type : uint8_t {
    bios = 0,
    system = 1,
    board = 2,
    chassis = 3,
    processor = 4,
    old_memory_module = 6, /* before there were memory devices */
    slot = 9,
    old_onboard_devices = 10,
    memory_array = 16,
    memory_device = 17,
    battery = 22,
    cooling = 27,
    management_controller = 38,
    power_supply = 39,
    onboard_device = 41,
    trusted_module = 43,
    inactive = 126,
    end_of_table = 127,
};

/* Points into the bytes that it was read from. */
struct structure {
    uint8_t type = 0;
    uint16_t handle = 0;
    std::string_view fields; /* with the four bytes of its head, as long as it says */
    std::vector<std::string_view> strings;

    /* What a version had not yet, or a structure cut short, is 0. */
    bool has(size_t offset, size_t bytes = 1) const { return offset + bytes <= fields.size(); }
    uint8_t byte(size_t offset) const;
    uint16_t word(size_t offset) const;
    uint32_t dword(size_t offset) const;
    /* The text whose number stands there, as it is; empty when there is none. */
    std::string_view text(size_t offset) const;
};

struct table {
    std::vector<structure> structures; /* without what is inactive and after the end */
    size_t end = 0;    /* where the first byte stands that is part of none, but of what ends them */
    std::string fault; /* why what follows them was not read; empty: nothing is wrong */
};

/* Structures that firmware has marked as unused are of no interest to who describes. */
enum class unused { left_out, kept };

table read_table(std::string_view bytes, unused those = unused::left_out);

struct entry_point {
    int major = 0; /* 0: not known */
    int minor = 0;
    std::string fault; /* empty: its checksums are right */
};

entry_point read_entry_point(std::string_view bytes);

/* What a module holds, in MiB; 0: nothing is plugged; -1: something is, of a size that
 * the table does not know. */
int64_t memory_size(const structure &device);

} // namespace kavplat_describe::smbios

#endif

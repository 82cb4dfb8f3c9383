/* The memory of modules for the cages of network ports, byte by byte as the standards say. */
#ifndef KAVPLAT_TESTS_MADE_MACHINES_MODULES_H
#define KAVPLAT_TESTS_MADE_MACHINES_MODULES_H

#include <algorithm>
#include <string>

namespace kavplat_describe_test
{

inline void put_text(std::string &memory, size_t at, const std::string &text, size_t size = 16)
{
    std::fill_n(memory.begin() + static_cast<std::ptrdiff_t>(at), size, ' ');
    memory.replace(at, text.size(), text);
}

/* The byte behind those that are added up. */
inline void put_sum(std::string &memory, size_t first, size_t at)
{
    unsigned sum = 0;
    for (size_t i = first; i < at; ++i) {
        sum += static_cast<unsigned char>(memory[i]);
    }
    memory[at] = static_cast<char>(sum & 0xffU);
}

/* SFF-8472: a small one. */
inline std::string small_module(const std::string &serial)
{
    std::string memory(224, '\0');
    memory[0] = 0x03;
    memory[2] = 0x07; // its connector
    put_text(memory, 20, "OPTICS INC");
    put_text(memory, 40, "SFP-10G-SR");
    put_text(memory, 68, serial);
    put_text(memory, 84, "240131", 8);
    put_sum(memory, 0, 63);
    put_sum(memory, 64, 95);
    put_text(memory, 96, "MAKER'S OWN");
    return memory;
}

/* SFF-8636: four lanes. Below 128 it measures. */
inline std::string four_lane_module(const std::string &serial)
{
    std::string memory(224, '\x5a');
    memory[0] = 0x11;
    std::fill(memory.begin() + 128, memory.end(), '\0');
    memory[128] = 0x11;
    put_text(memory, 148, "OPTICS INC");
    put_text(memory, 168, "QSFP28-100G-LR4");
    put_text(memory, 196, serial);
    put_text(memory, 212, "240131", 8);
    put_sum(memory, 128, 191);
    put_sum(memory, 192, 223);
    return memory;
}

/* CMIS: those that came after. */
inline std::string common_module(const std::string &serial)
{
    std::string memory(224, '\x5a');
    memory[0] = 0x18;
    std::fill(memory.begin() + 128, memory.end(), '\0');
    memory[128] = 0x18;
    put_text(memory, 129, "OPTICS INC");
    put_text(memory, 148, "QDD-400G-DR4");
    put_text(memory, 166, serial);
    put_text(memory, 182, "240131", 8);
    put_sum(memory, 128, 222);
    return memory;
}

} // namespace kavplat_describe_test

#endif

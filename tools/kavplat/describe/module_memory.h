/*
 * What the module in the cage of a network port says of itself, in its memory: SFF-8472
 * of small modules, SFF-8636 and SFF-8436 of those with four lanes, and CMIS of those
 * that came after.
 */
#ifndef KAVPLAT_DESCRIBE_MODULE_MEMORY_H
#define KAVPLAT_DESCRIBE_MODULE_MEMORY_H

#include "tools/kavplat/describe/machine.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace kavplat_describe
{

/* Behind these it says nothing of who it is; what a small one says needs fewer. */
inline constexpr size_t module_identity_ends = 224;

/* Who made it, which part and which one of them it is, as far as the sums over these say
 * that they were read well. */
identity identity_of_module(std::string_view memory);

/* In its place are as many 'X', and the sums are good again. The serial number. */
std::string cover_module_serial(std::string &memory);

/* What the kernel tells of a network interface's cage. */
struct cage_word {
    bool is_there = false;     /* as far as the kernel knows */
    bool is_forbidden = false; /* its module's memory is for others to read */
    std::string memory;        /* up to the end of the identity; empty: no module answers */
};

/* Asks by the commands of ethtool; `call` hands one to the kernel: 0, or an errno. */
cage_word ask_cage(const std::function<int(void *command)> &call);
cage_word ask_cage(const std::string &interface);

} // namespace kavplat_describe

#endif

#include "tools/kavplat/describe/module_memory.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <new>
#include <numeric>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kavplat_describe
{
namespace
{

constexpr size_t text_bytes = 16;

/* A sum over bytes, of which it holds the last eight bits. */
struct sum {
    size_t first;
    size_t at; /* the byte behind the last one */
};

/* Where a kind of memory has what. */
struct layout {
    size_t maker;
    size_t part;
    size_t serial;
    sum of_part;
    sum of_serial; /* the same one where one is over all */
};
constexpr layout small = {20, 40, 68, {0, 63}, {64, 95}};
constexpr layout four_lanes = {148, 168, 196, {128, 191}, {192, 223}};
constexpr layout common = {129, 148, 166, {128, 222}, {128, 222}};

/* By the first byte, which says what kind of module it is. */
const layout *layout_of(std::string_view memory)
{
    const unsigned kind = memory.empty() ? 0 : static_cast<unsigned char>(memory.front());
    switch (kind) {
    case 0x02: // soldered
    case 0x03: // SFP
    case 0x0b: // DWDM-SFP
        return &small;
    case 0x0c: // QSFP
    case 0x0d: // QSFP+
    case 0x11: // QSFP28
        return &four_lanes;
    case 0x18: // QSFP-DD
    case 0x19: // OSFP
    case 0x1a: // SFP-DD
    case 0x1b: // DSFP
    case 0x1e: // QSFP with CMIS
    case 0x1f: // SFP-DD with CMIS
    case 0x20: // SFP with CMIS
        return &common;
    default:
        return nullptr;
    }
}

char sum_of(std::string_view memory, const sum &it)
{
    return static_cast<char>(std::accumulate(memory.begin() + it.first, memory.begin() + it.at,
                                             uint8_t{0}, [](uint8_t so_far, char each) {
                                                 return static_cast<uint8_t>(
                                                     so_far + static_cast<uint8_t>(each));
                                             }));
}

bool is_good(std::string_view memory, const sum &it)
{
    return it.at < memory.size() && memory[it.at] == sum_of(memory, it);
}

} // namespace

identity identity_of_module(std::string_view memory)
{
    identity found;
    const layout *const it = layout_of(memory);
    if (it == nullptr || !is_good(memory, it->of_part)) {
        return found;
    }
    found.manufacturer = memory.substr(it->maker, text_bytes);
    found.model = memory.substr(it->part, text_bytes);
    if (is_good(memory, it->of_serial)) {
        found.serial = memory.substr(it->serial, text_bytes);
    }
    return found;
}

std::string cover_module_serial(std::string &memory)
{
    const layout *const it = layout_of(memory);
    if (it == nullptr || memory.size() <= it->of_serial.at) {
        memory.assign(memory.size(), '\0'); // who knows what it says
        return {};
    }
    std::string serial = memory.substr(it->serial, text_bytes);
    std::fill_n(memory.begin() + static_cast<ptrdiff_t>(it->serial), text_bytes, 'X');
    memory[it->of_serial.at] = sum_of(memory, it->of_serial);
    return serial;
}

cage_word ask_cage(const std::function<int(void *command)> &call)
{
    ethtool_modinfo about = {};
    about.cmd = ETHTOOL_GMODULEINFO;
    const int error = call(&about);
    cage_word told;
    if (error == 0) {
        told.is_there = true;
        alignas(ethtool_eeprom) char command[sizeof(ethtool_eeprom) + module_identity_ends] = {};
        auto *const head = new (command) ethtool_eeprom{};
        head->cmd = ETHTOOL_GMODULEEEPROM;
        head->len = std::min<uint32_t>(about.eeprom_len, module_identity_ends);
        if (head->len > 0 && call(command) == 0) {
            told.memory.assign(command + sizeof(ethtool_eeprom),
                               std::min<size_t>(head->len, module_identity_ends));
        }
        return told;
    }
    // Drivers do not say that a cage is empty in one way: what kind of socket there is tells
    // whether the failure is one of reading a module.
    ethtool_cmd link = {};
    link.cmd = ETHTOOL_GSET;
    const bool has_cage =
        error != EOPNOTSUPP && call(&link) == 0 &&
        (link.port == PORT_FIBRE || link.port == PORT_DA || link.port == PORT_NONE);
    told.is_forbidden = has_cage && (error == EPERM || error == EACCES);
    told.is_there = has_cage && !told.is_forbidden;
    return told;
}

cage_word ask_cage(const std::string &interface)
{
    ifreq request = {};
    if (interface.size() >= sizeof request.ifr_name) {
        return {};
    }
    std::memcpy(request.ifr_name, interface.c_str(), interface.size());
    const int to = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (to < 0) {
        return {};
    }
    const cage_word told = ask_cage([&](void *command) {
        request.ifr_data = static_cast<char *>(command);
        return ::ioctl(to, SIOCETHTOOL, &request) == 0 ? 0 : errno;
    });
    ::close(to);
    return told;
}

} // namespace kavplat_describe

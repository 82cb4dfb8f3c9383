#include "tools/kavplat/describe/sources.h"

#include <exception>

namespace kavplat_describe
{

std::span<const source> sources()
{
    static constexpr source all[] = {
        {"SMBIOS", find_smbios},
        {"processors", find_processors},
        {"PCI", find_pci},
        {"drives", find_drives},
        {"network ports", find_network_ports},
        {"power supplies", find_power_supplies},
        {"hwmon", find_hwmon},
        {"thermal zones", find_thermal_zones},
        {"EDAC", find_memory_errors},
        {"lights", find_leds},
        {"watchdogs", find_watchdogs},
    };
    return all;
}

void find_all(const tree &files, machine &into)
{
    for (const source &each : sources()) {
        try {
            each.find(files, into);
        } catch (const std::exception &error) {
            into.complain(std::string(each.name) + ": " + error.what() +
                          "; what else it would have found is left out");
        }
    }
    if (files.exhausted()) {
        into.complain("there are too many files: the rest of them was left unread");
    }
}

} // namespace kavplat_describe

#include "tools/kavplat/describe/locations.h"
#include "tools/kavplat/describe/parts.h"
#include "tools/kavplat/describe/sources.h"

namespace kavplat_describe
{

void find_watchdogs(const tree &files, machine &into)
{
    const std::string directory = "/sys/class/watchdog";
    for (const std::string &name : files.names(directory)) {
        const std::string path = files.real(directory + '/' + name);
        const std::string device = files.real(path + "/device");
        if (device.empty() || device.find("/virtual/") != device.npos) {
            continue; /* made by software */
        }
        add_state(into, into.board(), "WATCHDOG_" + label_of(last_part(device)), "state-sensor",
                  files.text(path + "/state") == "active", true)
            .where = path;
    }
}

} // namespace kavplat_describe

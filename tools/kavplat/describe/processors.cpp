#include "tools/kavplat/describe/locations.h"
#include "tools/kavplat/describe/sources.h"

#include <algorithm>
#include <set>

namespace kavplat_describe
{
namespace
{

/* What stands after the first line's colon that begins so. */
std::string value_of(std::string_view text, std::string_view key)
{
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = std::min(text.find('\n', begin), text.size());
        const std::string_view line = text.substr(begin, end - begin);
        const size_t colon = line.find(':');
        if (line.starts_with(key) && colon != line.npos &&
            line.substr(0, colon).find_last_not_of(" \t") == key.size() - 1) {
            return std::string(line.substr(colon + 1));
        }
        begin = end + 1;
    }
    return {};
}

} // namespace

void find_processors(const tree &files, machine &into)
{
    constexpr size_t most_of_cpuinfo = 4U << 20U;
    const std::string directory = "/sys/devices/system/cpu";
    if (!into.processors.empty()) {
        return;
    }
    std::set<int64_t> packages;
    for (const std::string &name : files.names(directory)) {
        if (number_after(name, "cpu")) {
            const auto package =
                files.number(directory + '/' + name + "/topology/physical_package_id");
            packages.insert(std::max<int64_t>(package.value_or(0), 0)); /* -1: nobody knows */
        }
    }
    const std::string text = files.read("/proc/cpuinfo", most_of_cpuinfo).bytes;
    for (const int64_t package : packages) {
        component &made = into.add(into.board(), 'P' + std::to_string(package), "processor",
                                   std::to_string(package));
        made.fru.model = value_of(text, "model name");
        made.fru.manufacturer = value_of(text, "vendor_id");
        into.processors.push_back(&made);
    }
}

} // namespace kavplat_describe

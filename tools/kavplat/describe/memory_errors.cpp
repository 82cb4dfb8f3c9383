#include "tools/kavplat/describe/locations.h"
#include "tools/kavplat/describe/sources.h"

#include <algorithm>

namespace kavplat_describe
{
namespace
{

/* More correctable errors than these, on the days since the counting began, let a
 * module look as if it were about to fail. */
constexpr double errors_a_day = 50;
constexpr double seconds_a_day = 86400;

component &add_counter(const tree &files, machine &into, component &holder, std::string label,
                       const char *type, const std::string &path, const char *limit, double value)
{
    component &made = into.add(holder, std::move(label), type, path);
    json &sensor = made.keys["sensor"];
    sensor["class"] = "threshold";
    sensor["type"] = "other";
    sensor["reading"] = bound_to(files, path);
    sensor["thresholds"][limit] = value;
    return made;
}

} // namespace

void find_memory_errors(const tree &files, machine &into)
{
    const std::string directory = "/sys/devices/system/edac/mc";
    for (const std::string &controller : files.names(directory)) {
        const std::string above = directory + '/' + controller;
        const auto since = files.number(above + "/seconds_since_reset").value_or(0);
        const double days = std::max<double>(0, static_cast<double>(since)) / seconds_a_day;
        const double most = errors_a_day * (1 + static_cast<double>(static_cast<int64_t>(days)));
        for (const std::string &name : files.names(above)) {
            const std::string path = above + '/' + name;
            if ((!number_after(name, "dimm") && !number_after(name, "rank")) ||
                !files.is_file(path + "/dimm_ue_count") ||
                files.number(path + "/size").value_or(1) == 0) {
                continue;
            }
            const std::string where =
                label_of(controller + ' ' + files.text(path + "/dimm_location"));
            component *module = module_named_in(into, files.text(path + "/dimm_label"));
            if (module == nullptr && into.memory_modules.empty()) {
                module = &into.add(into.board(), "DIMM_" + where, "memory-module", path);
            }
            component &holder = module == nullptr ? into.board() : *module;
            const std::string suffix = module == nullptr ? '_' + where : "";
            add_counter(files, into, holder, "UE" + suffix, "fault-sensor", path + "/dimm_ue_count",
                        "upper_critical", 1);
            if (files.is_file(path + "/dimm_ce_count")) {
                add_counter(files, into, holder, "CE" + suffix, "predictive-sensor",
                            path + "/dimm_ce_count", "upper_non_critical", most);
            }
        }
    }
}

} // namespace kavplat_describe

#include "tools/kavplat/describe/error_window.h"
#include "tools/kavplat/describe/locations.h"
#include "tools/kavplat/describe/sources.h"

#include <algorithm>

namespace kavplat_describe
{
namespace
{

/* So many correctable errors let a module look as if it were about to fail. */
constexpr int64_t errors_a_day = 50;
constexpr int64_t seconds_a_day = 86400;
/* Of the kernel's counters. */
constexpr int64_t most_errors = UINT32_MAX;

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

/* Where the counter stands when there were too many: within a day where somebody watched
 * for so long, or else on the days since the counting began, which have begun included. */
int64_t limit_of(const tree &files, machine &into, const std::string &counter, int64_t days)
{
    const int64_t by_average = errors_a_day * (1 + days);
    if (into.errors == nullptr) {
        return by_average;
    }
    error_window &seen = into.errors->counters[counter];
    const int64_t count = files.number(counter).value_or(-1);
    if (count >= 0 && count <= most_errors) {
        seen.note(count, into.errors->now);
    }
    if (seen.is_empty()) {
        return by_average;
    }
    const int64_t limit = seen.begin() + errors_a_day;
    return seen.is_whole() ? limit : std::min(limit, by_average);
}

} // namespace

void find_memory_errors(const tree &files, machine &into)
{
    const std::string directory = "/sys/devices/system/edac/mc";
    for (const std::string &controller : files.names(directory)) {
        const std::string above = directory + '/' + controller;
        const int64_t since = files.number(above + "/seconds_since_reset").value_or(0);
        const int64_t days = std::max<int64_t>(0, since) / seconds_a_day;
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
            if (const std::string counter = path + "/dimm_ce_count"; files.is_file(counter)) {
                add_counter(files, into, holder, "CE" + suffix, "predictive-sensor", counter,
                            "upper_non_critical",
                            static_cast<double>(limit_of(files, into, counter, days)));
            }
        }
    }
}

} // namespace kavplat_describe

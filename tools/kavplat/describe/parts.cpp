#include "tools/kavplat/describe/parts.h"

#include <algorithm>
#include <map>

namespace kavplat_describe
{

constexpr double milli = 1e-3;
constexpr double micro = 1e-6;
const measured temperature{"temperature-sensor", "temperature", "degrees-c", milli};
const measured voltage{"voltage-sensor", "voltage", "volts", milli};
const measured current{"current-sensor", "current", "amps", milli};
const measured power{"power-sensor", "other", "watts", micro};
const measured energy{"usage-sensor", "other", "none", micro}; /* joules have no code */
const measured humidity{"humidity-sensor", "humidity", "percent", milli};
const measured speed{"tachometer", "tachometer", "rpm", 1};
const measured charge{"usage-sensor", "other", "percent", 1};

namespace
{

/* 0 and 1 of a file to 1 and 2, which say false and true, off and on. */
constexpr double one_more = 1;

/* From the lowest to the highest; below 0: crossed downwards. */
const std::map<std::string, int, std::less<>> ranks = {
    {"lower_fatal", -3},       {"lower_critical", -2}, {"lower_non_critical", -1},
    {"upper_non_critical", 1}, {"upper_critical", 2},  {"upper_fatal", 3},
};

bool is_set(const measured &what, double value, bool upper)
{
    constexpr double coldest = -270;
    constexpr double hottest = 1000;
    if (std::string_view(what.type) == "temperature") {
        return value > coldest && value < hottest && (!upper || value > 0);
    }
    return value != 0; /* below 0 on a negative rail */
}

} // namespace

component &add_discrete(machine &into, component &holder, std::string label,
                        const char *component_type, const char *type, json reading, bool is_good)
{
    component &made = into.add(holder, std::move(label), component_type);
    json &sensor = made.keys["sensor"];
    sensor["class"] = "discrete";
    sensor["type"] = type;
    sensor["reading"] = std::move(reading);
    if (is_good) {
        sensor["ok_semantics"] = true;
    }
    return made;
}

void add_limits(component &sensor, const measured &what,
                const std::vector<std::pair<std::string, double>> &limits)
{
    std::map<int, double> taken;
    json found = json::object();
    for (const auto &[key, value] : limits) {
        const int rank = ranks.at(key);
        const bool fits = std::ranges::all_of(taken, [rank, value = value](const auto &other) {
            const bool other_side = (other.first < 0) != (rank < 0);
            const bool below = other.first < rank;
            return other_side ? (below ? other.second < value : value < other.second)
                              : (below ? other.second <= value : value <= other.second);
        });
        if (fits && is_set(what, value, rank > 0)) {
            taken[rank] = value;
            found[key] = value;
        }
    }
    if (!found.empty()) {
        sensor.keys["sensor"]["thresholds"] = std::move(found);
    }
}

component &add_reading(machine &into, component &holder, std::string label, const measured &what,
                       json reading)
{
    component &made = into.add(holder, std::move(label), what.component_type);
    json &sensor = made.keys["sensor"];
    sensor["class"] = "threshold";
    sensor["type"] = what.type;
    if (std::string_view(what.units) != "none") {
        sensor["units"] = what.units;
    }
    sensor["reading"] = std::move(reading);
    return made;
}

component &add_reading(const tree &files, machine &into, component &holder, std::string label,
                       const measured &what, const std::string &path)
{
    component &made =
        add_reading(into, holder, std::move(label), what, bound_to(files, path, what.scale));
    made.where = path;
    return made;
}

component &add_flag(const tree &files, machine &into, component &holder, std::string label,
                    const char *component_type, const std::string &path, bool is_good)
{
    component &made = add_discrete(into, holder, std::move(label), component_type, "other",
                                   bound_to(files, path, 1, one_more), is_good);
    made.where = path;
    return made;
}

component &add_state(machine &into, component &holder, std::string label,
                     const char *component_type, bool asserted, bool is_good)
{
    return add_discrete(into, holder, std::move(label), component_type, "other",
                        asserted ? "asserted" : "deasserted", is_good);
}

component &add_presence(machine &into, component &holder, bool present)
{
    return add_discrete(into, holder, "PRSNT", "presence-sensor", "presence",
                        present ? "present" : "absent", false);
}

component &add_presence(const tree &files, machine &into, component &holder,
                        const std::string &path)
{
    return add_discrete(into, holder, "PRSNT", "presence-sensor", "presence",
                        bound_to(files, path, 1, one_more), false);
}

void add_indicator(const tree &files, machine &into, component &holder, std::string label,
                   const char *component_type, const std::string &path, double scale, double offset)
{
    if (files.is_file(path)) {
        component &made = into.add(holder, std::move(label), component_type, path);
        made.keys["indicator"]["state"] = bound_to(files, path, scale, offset);
    }
}

} // namespace kavplat_describe

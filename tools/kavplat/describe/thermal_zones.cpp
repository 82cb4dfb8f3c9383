#include "tools/kavplat/describe/locations.h"
#include "tools/kavplat/describe/parts.h"
#include "tools/kavplat/describe/sources.h"

#include <algorithm>
#include <set>

namespace kavplat_describe
{
namespace
{

constexpr double milli = 1e-3;

/* What drivers of sensors say of themselves, as a zone would call it. */
std::set<std::string> hwmon_names(const tree &files)
{
    const std::string directory = "/sys/class/hwmon";
    std::set<std::string> found;
    for (const std::string &name : files.names(directory)) {
        found.insert(files.text(directory + '/' + name + "/name"));
    }
    if (found.contains("coretemp")) {
        found.insert("x86_pkg_temp");
    }
    return found;
}

void add_trips(const tree &files, const std::string &zone, component &sensor)
{
    json limits = json::object();
    for (const std::string &name : files.names(zone)) {
        if (!name.starts_with("trip_point_") || !name.ends_with("_type")) {
            continue;
        }
        const std::string type = files.text(zone + '/' + name);
        const auto value =
            files.number(zone + '/' + name.substr(0, name.rfind('_')) + "_temp").value_or(0);
        /* At the hot one the kernel tells somebody, at the critical one it stops. */
        if (value > 0 && (type == "critical" || type == "hot")) {
            limits[type == "hot" ? "upper_critical" : "upper_fatal"] =
                static_cast<double>(value) * milli;
        }
    }
    if (limits.contains("upper_critical") && limits.contains("upper_fatal") &&
        limits["upper_critical"] > limits["upper_fatal"]) {
        limits.erase("upper_critical");
    }
    if (!limits.empty()) {
        sensor.keys["sensor"]["thresholds"] = std::move(limits);
    }
}

} // namespace

void find_thermal_zones(const tree &files, machine &into)
{
    const std::string directory = "/sys/class/thermal";
    const std::set<std::string> known = hwmon_names(files);
    for (const std::string &name : files.names(directory)) {
        const std::string path = files.real(directory + '/' + name);
        const std::string type = files.text(path + "/type");
        std::string as_hwmon = type;
        std::ranges::replace(as_hwmon, '-', '_');
        if (!number_after(name, "thermal_zone") || type.empty() || known.contains(as_hwmon) ||
            known.contains(type)) {
            continue;
        }
        /* Firmware's own name, "\_TZ_.TZ00", where there is one. */
        const std::string acpi = files.text(path + "/device/path");
        const std::string own = acpi.substr(std::min(acpi.rfind('.') + 1, acpi.size()));
        const bool of_processor = type.starts_with("cpu") && into.processors.size() == 1;
        component &holder = of_processor ? *into.processors.front() : into.board();
        component &sensor =
            add_reading(files, into, holder, "T_" + label_of(own.empty() ? type : own), temperature,
                        path + "/temp");
        add_trips(files, path, sensor);
    }
}

} // namespace kavplat_describe

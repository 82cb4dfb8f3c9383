#include "check.h"

#include "described/live/health.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <grp.h>
#include <map>
#include <optional>
#include <pwd.h>
#include <sys/stat.h>

namespace kavplat_check
{
namespace
{

using namespace described_platform;

struct found_warnings {
    const component *here = nullptr;
    std::vector<load_error> all;

    void add(const std::string &place, std::string message)
    {
        load_error warning;
        warning.pointer = "/components/" + std::to_string(here->position) + place;
        warning.message = "warning: " + std::move(message);
        warning.component = here->name;
        all.push_back(std::move(warning));
    }
};

bool can(const component &each, std::initializer_list<std::string_view> any_of)
{
    return std::ranges::any_of(capability_names, [&](const named_capability &known) {
        return std::ranges::find(any_of, known.name) != any_of.end() &&
               (each.capabilities[known.byte] & known.mask) != 0;
    });
}

void look_at_capabilities(const component &each, const component *holder, found_warnings &found)
{
    if (each.fru && !can(each, {"fru-info"})) {
        found.add("/fru", "nobody asks for it without the capability \"fru-info\"");
    }
    if (each.ready_to_remove && !can(each, {"field-replaceable"})) {
        found.add("/ready_to_remove",
                  "nobody asks for it without the capability \"field-replaceable\"");
    }
    if (each.power && !can(each, {"power-readable", "power-controllable"}) &&
        (each.ready_to_remove || !can(each, {"field-replaceable"}))) {
        found.add("/power", "nobody asks for it without the capability \"power-readable\" or "
                            "\"power-controllable\", or \"field-replaceable\" in a component "
                            "without ready_to_remove");
    }
    if (each.enable && !can(each, {"enable-state"})) {
        found.add("/enable", "nobody asks for it without the capability \"enable-state\"");
    }
    if (!each.interface.empty() && (each.sensor || each.indicator)) {
        found.add("/interface", "nobody asks for that of a sensor or an indicator");
    }
    if (each.indicator_meaning != 0 && (holder == nullptr || holder->sensor || holder->indicator)) {
        found.add("/indicator/means", "no component holds it, on which that would be raised");
    }
    if (each.sensor && can(each, {"enable-state"})) {
        found.add("/capabilities", "the capability \"enable-state\" of a sensor: its enable state "
                                   "and its reading keep each other from being read");
    }
}

std::string name_of(code_table names, int32_t code)
{
    const auto found = std::ranges::find(names, code, &named_code::value);
    return found == names.end() ? std::to_string(code) : '"' + std::string(found->name) + '"';
}

/* A code that has no name may be measured in anything. */
void look_at_units(const sensor &it, found_warnings &found)
{
    static const std::map<int32_t, std::vector<int32_t>> known = {
        {CAPI_SENSOR_TEMPERATURE, {CAPI_UNITS_DEGREES_C, CAPI_UNITS_DEGREES_F, CAPI_UNITS_KELVIN}},
        {CAPI_SENSOR_VOLTAGE, {CAPI_UNITS_VOLTS}},
        {CAPI_SENSOR_CURRENT, {CAPI_UNITS_AMPS}},
        {CAPI_SENSOR_TACHOMETER, {CAPI_UNITS_RPM, CAPI_UNITS_HERTZ, CAPI_UNITS_PERCENT}},
        {CAPI_SENSOR_HUMIDITY, {CAPI_UNITS_PERCENT}},
    };
    const auto fitting = known.find(it.sensor_type);
    if (fitting == known.end() ||
        std::ranges::find(fitting->second, it.units) != fitting->second.end()) {
        return;
    }
    found.add("/sensor/units", name_of(sensor_units_codes, it.units) + " is no unit of the type " +
                                   name_of(sensor_type_codes, it.sensor_type) +
                                   ", and managers are told by the units what is measured");
}

/* From the lowest to the highest, each that is given at or above those before. */
void look_at_limits(const sensor &it, found_warnings &found)
{
    static constexpr struct {
        const char *key;
        threshold which;
        uint16_t flag;
    } upwards[] = {
        {"lower_fatal", lower_fatal, CAPI_LOWER_FATAL_VALID},
        {"lower_critical", lower_critical, CAPI_LOWER_CRITICAL_VALID},
        {"lower_non_critical", lower_non_critical, CAPI_LOWER_NON_CRITICAL_VALID},
        {"upper_non_critical", upper_non_critical, CAPI_UPPER_NON_CRITICAL_VALID},
        {"upper_critical", upper_critical, CAPI_UPPER_CRITICAL_VALID},
        {"upper_fatal", upper_fatal, CAPI_UPPER_FATAL_VALID},
    };
    const char *below = nullptr;
    float highest = 0;
    for (const auto &each : upwards) {
        if ((it.flags & each.flag) == 0) {
            continue;
        }
        const float limit = it.thresholds[each.which];
        if (below != nullptr && limit < highest) {
            found.add(std::string("/sensor/thresholds/") + each.key,
                      std::string("it lies below ") + below);
        }
        if (below == nullptr || limit >= highest) {
            below = each.key;
            highest = limit;
        }
    }
}

void look_at_sensor(const sensor &it, found_warnings &found)
{
    constexpr unsigned limits = CAPI_LOWER_FATAL_VALID | CAPI_LOWER_CRITICAL_VALID |
                                CAPI_LOWER_NON_CRITICAL_VALID | CAPI_UPPER_NON_CRITICAL_VALID |
                                CAPI_UPPER_CRITICAL_VALID | CAPI_UPPER_FATAL_VALID;
    if (it.sensor_class == CAPI_SENSOR_THRESHOLD) {
        look_at_units(it, found);
        look_at_limits(it, found);
    } else if ((it.flags & limits) != 0) {
        found.add("/sensor/thresholds", "only a sensor of the class \"threshold\" has limits");
    }
    if ((it.flags & CAPI_ALTERNATING) != 0 &&
        (it.sensor_class != CAPI_SENSOR_THRESHOLD || it.units != CAPI_UNITS_VOLTS)) {
        found.add("/sensor/current", "nobody is told that anything but volts is alternating");
    }
    if (it.sensor_class != CAPI_SENSOR_DISCRETE && it.state) {
        found.add("/sensor/state", "only a sensor of the class \"discrete\" has a state");
    }
    if (it.sensor_class != CAPI_SENSOR_DISCRETE && it.ok_semantics) {
        found.add("/sensor/ok_semantics", "it is asked of sensors of the class \"discrete\" only");
    }
}

struct identity {
    uid_t user;
    std::vector<gid_t> groups;
};

std::optional<identity> find_user(const std::string &name)
{
    const passwd *entry = ::getpwnam(name.c_str());
    if (entry == nullptr) {
        return std::nullopt;
    }
    identity result{entry->pw_uid, std::vector<gid_t>(64)};
    auto count = static_cast<int>(result.groups.size());
    ::getgrouplist(name.c_str(), entry->pw_gid, result.groups.data(), &count);
    result.groups.resize(std::min(result.groups.size(), static_cast<size_t>(std::max(count, 0))));
    return result;
}

/* By the mode alone: what an access list adds is not seen. */
bool may(const identity &who, const struct stat &status, mode_t for_others)
{
    if (who.user == 0) {
        return true;
    }
    mode_t asked = for_others;
    if (status.st_uid == who.user) {
        asked <<= 6U;
    } else if (std::ranges::find(who.groups, status.st_gid) != who.groups.end()) {
        asked <<= 3U;
    }
    return (status.st_mode & asked) == asked;
}

} // namespace

std::string obstacle(const std::string &user, const std::string &path)
{
    const std::optional<identity> who = user.empty() ? std::nullopt : find_user(user);
    if (!who) {
        return "";
    }
    for (size_t end = 1; end != std::string::npos;) {
        end = path.find('/', end);
        const std::string part = end == std::string::npos ? path : path.substr(0, end);
        struct stat status {
        };
        if (::stat(part.c_str(), &status) != 0) {
            return part + ": " + std::strerror(errno);
        }
        if (!may(*who, status, end == std::string::npos ? S_IROTH : S_IXOTH)) {
            return user + (end == std::string::npos ? " may not read " : " may not enter ") + part;
        }
        end = end == std::string::npos ? end : end + 1;
    }
    return "";
}

std::vector<named_value> values_of(const component &each)
{
    std::vector<named_value> result;
    const auto add = [&](const char *place, const rare<live_value> &value) {
        if (value) {
            result.push_back({place, &*value});
        }
    };
    add("/power", each.power);
    add("/ready_to_remove", each.ready_to_remove);
    add("/enable", each.enable);
    add("/indicator/state", each.indicator);
    if (each.sensor) {
        result.push_back({"/sensor/reading", &each.sensor->reading});
        add("/sensor/raw_reading", each.sensor->raw_reading);
        add("/sensor/valid", each.sensor->valid);
        add("/sensor/state", each.sensor->state);
    }
    return result;
}

std::vector<load_error> warnings(const description &all)
{
    found_warnings found;
    for (const component &each : all.components) {
        found.here = &each;
        look_at_capabilities(each, find_component(all, parent_name(each.name)), found);
        if (each.sensor) {
            look_at_sensor(*each.sensor, found);
        }
    }
    return found.all;
}

pattern_match match_of(const std::string &pattern)
{
    return find_match(pattern, std::chrono::steady_clock::now() + default_read_bound);
}

std::vector<load_error> file_warnings(const description &all, const std::string &user)
{
    found_warnings found;
    for (const component &each : all.components) {
        found.here = &each;
        for (const named_value &one : values_of(each)) {
            const std::string place = one.place + "/file";
            std::string file = one.value->file;
            struct stat status {
            };
            if (file.empty()) {
                continue;
            }
            if (is_pattern(file)) {
                pattern_match match = match_of(file);
                if (const live_fault fault = fault_of(match); fault.kind != fault_kind::none) {
                    found.add(place, file + ": " + to_text(fault));
                    continue;
                }
                file = std::move(match.path);
            }
            if (::stat(file.c_str(), &status) != 0) {
                found.add(place, file + ": " + std::strerror(errno));
            } else if (S_ISDIR(status.st_mode)) {
                found.add(place, file + " is a directory");
            } else if (const std::string why = obstacle(user, file); !why.empty()) {
                found.add(place, why);
            }
        }
    }
    return found.all;
}

} // namespace kavplat_check

#include "entity.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <tuple>

#include "words.h"

namespace kavplat_agent
{
namespace
{

std::string lower_case(std::string text)
{
    std::ranges::transform(text, text.begin(),
                           [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

/* A name as its stem and the number at its end, -1 where there is none. */
std::pair<std::string, long> numbered(const std::string &name)
{
    size_t begin = name.size();
    while (begin > 0 && name.size() - begin < 9 &&
           std::isdigit(static_cast<unsigned char>(name[begin - 1])) != 0) {
        --begin;
    }
    if (begin == name.size()) {
        return {name, -1};
    }
    return {name.substr(0, begin), std::stol(name.substr(begin))};
}

/* What is named and numbered alike stands together, by its numbers, where the first of
 * it stands by its index: a drive that was plugged again has a new index and its old
 * place. */
void sort_siblings(const box &all, std::vector<size_t> &siblings)
{
    struct sort_key {
        uint32_t first = 0;
        long number = 0;
        uint32_t index = 0;
        auto operator<=>(const sort_key &) const = default;
    };
    std::map<std::pair<int32_t, std::string>, uint32_t> first;
    std::map<size_t, sort_key> keys;
    for (const size_t at : siblings) {
        const entity &each = all.entities[at];
        const auto [stem, number] = numbered(each.name);
        const auto [group, _] = first.try_emplace({each.class_code, stem}, each.index);
        keys[at] = {std::min(group->second, each.index), number < 0 ? each.position : number,
                    each.index};
    }
    std::ranges::sort(siblings, {}, [&keys](size_t at) { return keys.at(at); });
}

std::string alarm_reason(const entity &each, limit crossed)
{
    const reading &sensor = *each.sensor;
    return reading_words(sensor) + (crossed < upper_warning ? " at or below " : " at or above ") +
           number_words(*sensor.limits[crossed], sensor.decimals, sensor.unit) + " (" +
           limit_name(crossed) + ")";
}

/* The gravest limit that a reading is at or beyond. */
std::optional<limit> crossed_limit(const reading &sensor)
{
    if (!sensor.number) {
        return {};
    }
    constexpr std::pair<limit, limit> pairs[] = {{lower_fatal, upper_fatal},
                                                 {lower_critical, upper_critical},
                                                 {lower_warning, upper_warning}};
    for (const auto &[lower, upper] : pairs) {
        if (sensor.limits[lower] && *sensor.number <= *sensor.limits[lower]) {
            return lower;
        }
        if (sensor.limits[upper] && *sensor.number >= *sensor.limits[upper]) {
            return upper;
        }
    }
    return {};
}

void raise(entity &each, level to, const std::string &reason)
{
    if (to > each.own) {
        each.own = to;
        each.reason = to >= level::unread ? reason : "";
    }
}

/* kavPlatEquipmentSeverity and the alarms of ENTITY-STATE-MIB. */
void raise_by_alarms(entity &each)
{
    switch (each.severity.value_or(0)) {
    case 1:
        raise(each, level::critical, "critical");
        break;
    case 2:
        raise(each, level::critical, "major alarm");
        break;
    case 3:
        raise(each, level::warning, "minor alarm");
        break;
    case 5:
        raise(each, level::warning, "warning");
        break;
    case 7:
        raise(each, level::good, "");
        break;
    default:
        break;
    }
    const unsigned alarms = each.alarms.value_or(0);
    if ((alarms & 0x30U) != 0) {
        raise(each, level::critical, (alarms & 0x20U) != 0 ? "critical" : "major alarm");
    } else if ((alarms & 0x0CU) != 0) {
        raise(each, level::warning, (alarms & 0x08U) != 0 ? "minor alarm" : "warning");
    } else if (each.alarms == 0) {
        raise(each, level::good, "");
    }
}

void judge_sensor(entity &each)
{
    const reading &sensor = *each.sensor;
    if (sensor.status != sensor_status::ok) {
        raise(each, level::unread,
              sensor.status == sensor_status::unavailable ? "its reading cannot be had"
                                                          : "it does not work, or is switched off");
        return;
    }
    const bool has_limits =
        std::ranges::any_of(sensor.limits, [](const auto &one) { return one.has_value(); });
    if (!sensor.two_states && sensor.number && has_limits) {
        /* Worked out here: the agent's own severity may compare a reading with limits
         * that are scaled otherwise, until it has read the sensor again. */
        const std::optional<limit> crossed = crossed_limit(sensor);
        if (!crossed) {
            raise(each, level::good, "");
        } else if (*crossed == lower_warning || *crossed == upper_warning) {
            raise(each, level::warning, alarm_reason(each, *crossed));
        } else {
            raise(each, level::critical, alarm_reason(each, *crossed));
        }
        return;
    }
    if (sensor.two_states ? !sensor.state : !sensor.number) {
        raise(each, level::unread, "the agent tells no reading");
    }
    raise_by_alarms(each);
    const bool is_as_expected = !sensor.expected || sensor.state == sensor.expected;
    if (sensor.two_states && !sensor.tells_presence && !is_as_expected) {
        raise(each, level::warning, "it is " + reading_words(sensor) + ", which is not expected");
    }
    if (sensor.two_states && each.own >= level::warning && !sensor.text.empty() &&
        each.reason.find(sensor.text) == std::string::npos) {
        each.reason += ": " + sensor.text;
    }
    raise(each, level::good, "");
}

void judge_one(entity &each)
{
    if (each.sensor) {
        judge_sensor(each);
        return;
    }
    raise_by_alarms(each);
    if (each.oper == 2 && each.admin != 2) {
        /* A port, and what is of no class of its own, may be switched off for good. */
        constexpr int32_t other = 1, unknown = 2, port = 10;
        const bool may_be_meant =
            each.class_code == other || each.class_code == unknown || each.class_code == port;
        raise(each, may_be_meant ? level::warning : level::critical, "disabled");
    }
    if (each.light && *each.light != 2 && *each.light != 1 &&
        lower_case(each.description).find("fault") != std::string::npos) {
        raise(each, level::warning, std::string("a fault's light is ") + light_name(*each.light));
    }
    if (each.light == 1) {
        raise(each, level::unread, "the light's state is unknown");
    }
}

} // namespace

void make_tree(box &all)
{
    std::map<uint32_t, size_t> places;
    for (size_t i = 0; i < all.entities.size(); ++i) {
        places[all.entities[i].index] = i;
    }
    constexpr size_t told = 5;
    size_t orphans = 0;
    for (entity &each : all.entities) {
        each.parent.reset();
        each.children.clear();
        if (each.contained_in == 0) {
            continue;
        }
        if (const auto found = places.find(each.contained_in); found != places.end()) {
            each.parent = found->second;
        } else if (++orphans <= told) {
            all.troubles.push_back(shown_name(each) + " is contained in " +
                                   std::to_string(each.contained_in) + ", which is not there");
        }
    }
    if (orphans > told) {
        all.troubles.push_back(std::to_string(orphans - told) +
                               " more are contained in what is not there");
    }
    /* Going up from each: who meets himself has no root, so he becomes one. */
    std::vector<size_t> seen_from(all.entities.size(), SIZE_MAX);
    for (size_t i = 0; i < all.entities.size(); ++i) {
        size_t at = i;
        while (seen_from[at] == SIZE_MAX) {
            seen_from[at] = i;
            if (!all.entities[at].parent) {
                break;
            }
            const size_t above = *all.entities[at].parent;
            if (seen_from[above] == i) {
                entity &cut = all.entities[above];
                all.troubles.push_back(shown_name(cut) + " is contained in itself");
                cut.parent.reset();
                break;
            }
            at = above;
        }
    }
    all.roots.clear();
    for (size_t i = 0; i < all.entities.size(); ++i) {
        if (all.entities[i].parent) {
            all.entities[*all.entities[i].parent].children.push_back(i);
        } else {
            all.roots.push_back(i);
        }
    }
    for (entity &each : all.entities) {
        sort_siblings(all, each.children);
    }
}

std::vector<tree_line> in_order(const box &all, const std::vector<size_t> &from)
{
    std::vector<tree_line> result;
    std::vector<tree_line> waiting;
    const auto wait = [&waiting](const std::vector<size_t> &places, size_t depth) {
        for (size_t i = places.size(); i > 0; --i) {
            waiting.push_back({places[i - 1], depth});
        }
    };
    wait(from, 0);
    while (!waiting.empty()) {
        const tree_line line = waiting.back();
        waiting.pop_back();
        result.push_back(line);
        wait(all.entities[line.at].children, line.depth + 1);
    }
    return result;
}

void judge(box &all)
{
    for (entity &each : all.entities) {
        each.own = level::unjudged;
        each.reason.clear();
        each.inherited = false;
        judge_one(each);
        each.worst = each.own;
    }
    /* From the leaves up. */
    std::vector<tree_line> order = in_order(all, all.roots);
    std::ranges::reverse(order);
    for (const tree_line &line : order) {
        entity &each = all.entities[line.at];
        level below = level::unjudged;
        for (const size_t child : each.children) {
            below = std::max(below, all.entities[child].worst);
        }
        each.inherited = each.own >= level::warning && below >= each.own;
        each.worst = std::max(each.own, below);
    }
}

std::string shown_name(const entity &each)
{
    if (!each.name.empty()) {
        return each.name;
    }
    const std::string number = "#" + std::to_string(each.index);
    return each.description.empty() ? number : each.description + " " + number;
}

std::optional<size_t> find_entity(const box &all, const std::string &name, std::string &failure)
{
    std::vector<size_t> found;
    std::string near;
    const std::string wanted = lower_case(name);
    for (size_t i = 0; i < all.entities.size(); ++i) {
        const std::string shown = shown_name(all.entities[i]);
        if (shown == name) {
            return i;
        }
        const std::string lower = lower_case(shown);
        if (lower == wanted || lower.ends_with("/" + wanted)) {
            found.push_back(i);
        } else if (lower.find(wanted) != std::string::npos && near.size() < 200) {
            near += (near.empty() ? "" : ", ") + printable(shown);
        }
    }
    if (found.size() == 1) {
        return found.front();
    }
    if (found.empty()) {
        failure = printable(all.agent) + " has nothing that is named " + printable(name) +
                  (near.empty() ? "; without a name all is shown" : "; there is " + near);
        return {};
    }
    failure = printable(name) + " may be";
    for (size_t i = 0; i < found.size() && i < 8; ++i) {
        failure += (i == 0 ? " " : " or ") + printable(shown_name(all.entities[found[i]]));
    }
    return {};
}

} // namespace kavplat_agent

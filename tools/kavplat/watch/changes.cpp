#include "changes.h"

#include <cstdlib>
#include <map>
#include <set>
#include <tuple>

#include "tools/kavplat/agent/words.h"

namespace kavplat_watch
{
namespace
{

using namespace kavplat_agent;

/* The index, or which one in the tree's order of those that are called alike; what it is
 * called; its serial number. */
using identity = std::tuple<size_t, std::string, std::string>;

std::vector<identity> identities_of(const box &all, const std::vector<tree_line> &lines,
                                    run_of_agent run)
{
    std::map<std::pair<std::string, std::string>, size_t> alike;
    std::vector<identity> result;
    for (const tree_line &line : lines) {
        const entity &each = all.entities[line.at];
        if (run == run_of_agent::the_same) {
            result.emplace_back(each.index, each.name, each.serial);
        } else {
            const std::string &called = each.name.empty() ? each.description : each.name;
            result.emplace_back(alike[{called, each.serial}]++, called, each.serial);
        }
    }
    return result;
}

std::string about(const entity &each)
{
    std::string text = printable(each.description);
    const auto add = [&text](const char *what, const std::string &value) {
        if (!value.empty()) {
            text += (text.empty() ? "" : ", ") + std::string(what) + printable(value);
        }
    };
    add("", each.model);
    add("serial ", each.serial);
    if (each.sensor) {
        add("", reading_words(*each.sensor));
    }
    return text;
}

std::string condition(const entity &each)
{
    std::string text = level_name(each.own);
    const std::string states = state_words(each);
    if (!states.empty()) {
        text += (text.empty() ? "" : ", ") + states;
    }
    return text.empty() ? "ok" : text;
}

void add_differences(const entity &before, const entity &after, std::vector<change> &into)
{
    const std::string was = before.sensor ? reading_words(*before.sensor) : "";
    const std::string is = after.sensor ? reading_words(*after.sensor) : "";
    const std::string state_was = condition(before);
    const std::string state_is = condition(after);
    if (state_was != state_is) {
        std::string text = state_was + " -> " + state_is;
        if (was != is) {
            text += "; " + was + " -> " + is;
        }
        if (!after.reason.empty()) {
            text += "; " + printable(after.reason);
        }
        into.push_back({kind::state, shown_name(after), text, after.own});
    } else if (was != is) {
        into.push_back({kind::reading, shown_name(after), was + " -> " + is, after.own});
    }
}

} // namespace

std::vector<change> changes_between(const box &before, const box &after, run_of_agent run)
{
    const std::vector<tree_line> old_lines = in_order(before, before.roots);
    const std::vector<tree_line> new_lines = in_order(after, after.roots);
    const std::vector<identity> old_ones = identities_of(before, old_lines, run);
    const std::vector<identity> new_ones = identities_of(after, new_lines, run);
    const std::set<identity> is_there(new_ones.begin(), new_ones.end());
    std::map<identity, const entity *> was_there;
    std::vector<change> result;
    for (size_t i = 0; i < old_lines.size(); ++i) {
        const entity &each = before.entities[old_lines[i].at];
        was_there[old_ones[i]] = &each;
        if (!is_there.contains(old_ones[i])) {
            result.push_back({kind::went, shown_name(each), about(each)});
        }
    }
    std::vector<change> differences;
    for (size_t i = 0; i < new_lines.size(); ++i) {
        const entity &each = after.entities[new_lines[i].at];
        const auto old = was_there.find(new_ones[i]);
        if (old == was_there.end()) {
            result.push_back({kind::came, shown_name(each), about(each), each.own});
        } else {
            add_differences(*old->second, each, differences);
        }
    }
    result.insert(result.end(), differences.begin(), differences.end());
    return result;
}

run_of_agent run_between(const change_mark &before, const change_mark &after,
                         std::chrono::milliseconds passed)
{
    if (!before.started.empty() && !after.started.empty() && before.started != after.started) {
        return run_of_agent::another;
    }
    if (after.uptime == 0) {
        return run_of_agent::the_same; /* it is not told */
    }
    using ticks = std::chrono::duration<int64_t, std::centi>;
    const int64_t expected = std::chrono::duration_cast<ticks>(passed).count();
    /* Clocks differ, and an answer takes its time. */
    const int64_t slack = ticks(std::chrono::seconds(1)).count() + expected / 50;
    if (after.uptime >= before.uptime) {
        return after.uptime + slack < expected ? run_of_agent::another : run_of_agent::the_same;
    }
    const int64_t went_on = static_cast<uint32_t>(after.uptime - before.uptime);
    return std::abs(went_on - expected) > slack ? run_of_agent::another : run_of_agent::the_same;
}

const char *kind_name(kind each)
{
    constexpr const char *names[] = {"went", "came", "state", "reading"};
    return names[static_cast<size_t>(each)];
}

} // namespace kavplat_watch

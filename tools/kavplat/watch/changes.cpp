#include "changes.h"

#include <map>
#include <tuple>

#include "tools/kavplat/agent/words.h"

namespace kavplat_watch
{
namespace
{

using namespace kavplat_agent;

using identity = std::tuple<uint32_t, std::string, std::string>;

identity identity_of(const entity &each)
{
    return {each.index, each.name, each.serial};
}

std::map<identity, const entity *> by_identity(const box &all)
{
    std::map<identity, const entity *> result;
    for (const entity &each : all.entities) {
        result[identity_of(each)] = &each;
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

std::vector<change> changes_between(const box &before, const box &after)
{
    std::vector<change> result;
    const auto old_ones = by_identity(before);
    const auto new_ones = by_identity(after);
    for (const tree_line &line : in_order(before, before.roots)) {
        const entity &each = before.entities[line.at];
        if (!new_ones.contains(identity_of(each))) {
            result.push_back({kind::went, shown_name(each), about(each)});
        }
    }
    std::vector<change> differences;
    for (const tree_line &line : in_order(after, after.roots)) {
        const entity &each = after.entities[line.at];
        const auto old = old_ones.find(identity_of(each));
        if (old == old_ones.end()) {
            result.push_back({kind::came, shown_name(each), about(each), each.own});
        } else {
            add_differences(*old->second, each, differences);
        }
    }
    result.insert(result.end(), differences.begin(), differences.end());
    return result;
}

const char *kind_name(kind each)
{
    constexpr const char *names[] = {"went", "came", "state", "reading"};
    return names[static_cast<size_t>(each)];
}

} // namespace kavplat_watch

#include "print.h"

#include <nlohmann/json.hpp>
#include <ostream>

#include "tools/kavplat/agent/words.h"

namespace kavplat_tree
{
namespace
{

using namespace kavplat_agent;
using nlohmann::ordered_json;

/* What is not told is left out, so that a reader need not know what stands for it. */
void put_text(ordered_json &into, const char *key, const std::string &text)
{
    if (!text.empty()) {
        into[key] = as_utf8(text);
    }
}

ordered_json json_of(const reading &each)
{
    ordered_json result;
    constexpr const char *statuses[] = {"ok", "unavailable", "nonoperational"};
    result["status"] = statuses[static_cast<size_t>(each.status)];
    if (each.two_states) {
        if (each.state) {
            result["state"] = *each.state;
        }
        if (each.expected) {
            result["expected"] = *each.expected;
        }
        put_text(result, "text", each.text);
        return result;
    }
    /* The value of a sensor that does not read is no reading. */
    if (each.number && each.status == sensor_status::ok) {
        result["value"] = *each.number;
    }
    put_text(result, "unit", each.unit);
    constexpr const char *names[limit_count] = {"lower_fatal",   "lower_critical", "lower_warning",
                                                "upper_warning", "upper_critical", "upper_fatal"};
    for (size_t i = 0; i < limit_count; ++i) {
        if (each.limits[i]) {
            result["limits"][names[i]] = *each.limits[i];
        }
    }
    return result;
}

ordered_json json_of(const box &all, const entity &each)
{
    ordered_json result;
    result["index"] = each.index;
    result["name"] = as_utf8(shown_name(each));
    if (each.parent) {
        result["parent"] = all.entities[*each.parent].index;
    }
    put_text(result, "class", class_name(each.class_code));
    put_text(result, "description", each.description);
    put_text(result, "model", each.model);
    put_text(result, "serial", each.serial);
    put_text(result, "manufacturer", each.manufacturer);
    put_text(result, "hardware_revision", each.hardware_revision);
    put_text(result, "firmware_revision", each.firmware_revision);
    put_text(result, "software_revision", each.software_revision);
    put_text(result, "alias", each.alias);
    if (each.is_fru) {
        result["fru"] = *each.is_fru;
    }
    put_text(result, "state", state_words(each));
    put_text(result, "alarm", level_name(each.own));
    put_text(result, "alarm_below", level_name(each.worst));
    put_text(result, "reason", each.reason);
    if (each.sensor) {
        result["sensor"] = json_of(*each.sensor);
    }
    return result;
}

} // namespace

void print_json(std::ostream &out, const box &all, const selection &what)
{
    ordered_json document;
    document["agent"] = as_utf8(all.agent);
    put_text(document, "system", all.system);
    document["uptime_seconds"] = static_cast<double>(all.mark.uptime) / 100;
    document["read"] = {{"requests", all.requests}, {"seconds", all.seconds}};
    document["troubles"] = ordered_json::array();
    for (const std::string &each : all.troubles) {
        document["troubles"].push_back(as_utf8(each));
    }
    document["summary"] = summary(all, what.from);
    document["entities"] = ordered_json::array();
    for (const tree_line &place : in_order(all, what.from)) {
        if (is_chosen(all.entities[place.at], what.only)) {
            document["entities"].push_back(json_of(all, all.entities[place.at]));
        }
    }
    out << document.dump(2) << '\n';
}

} // namespace kavplat_tree

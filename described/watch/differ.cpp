#include "described/watch/differ.h"

#include "platform/event_mgr.h"

namespace described_platform
{
namespace
{

/* What of a sensor is read only when its row is made. */
bool same_identity(const sensor &a, const sensor &b)
{
    /* The state said what to expect. A sensor with ok semantics leaves that as it
     * finds it. */
    const bool expectation_is_left = a.state && !b.state && b.ok_semantics;
    return a.sensor_class == b.sensor_class && a.sensor_type == b.sensor_type &&
           a.units == b.units && ((a.flags ^ b.flags) & CAPI_ALTERNATING) == 0 &&
           a.ok_semantics == b.ok_semantics && !expectation_is_left;
}

/* A raw reading decides the scale of the limits. The state is among the flags. */
bool same_thresholds(const sensor &a, const sensor &b)
{
    return a.thresholds == b.thresholds && a.flags == b.flags &&
           a.raw_reading.has_value() == b.raw_reading.has_value();
}

bool same_live_values(const component &a, const component &b)
{
    return a.power == b.power && a.ready_to_remove == b.ready_to_remove && a.enable == b.enable &&
           a.indicator == b.indicator && (a.sensor == nullptr || *a.sensor == *b.sensor);
}

} // namespace

difference compare(const component &before, const component &after)
{
    const bool is_sensor = before.sensor != nullptr;
    if (before.type != after.type || before.capabilities != after.capabilities ||
        before.fru != after.fru || before.interface != after.interface ||
        before.indicator_meaning != after.indicator_meaning ||
        is_sensor != (after.sensor != nullptr) ||
        (is_sensor && !same_identity(*before.sensor, *after.sensor))) {
        return difference::identity;
    }
    if (is_sensor && !same_thresholds(*before.sensor, *after.sensor)) {
        return difference::refresh;
    }
    return same_live_values(before, after) ? difference::none : difference::live;
}

change_count count_changes(const description *before, const description &after)
{
    change_count result;
    if (before == nullptr) {
        result.came = after.components.size();
        return result;
    }
    size_t stayed = 0;
    for (const component &now : after.components) {
        if (const component *old = find_component(*before, now.name); old != nullptr) {
            ++stayed;
            result.changed += compare(*old, now) == difference::none ? 0U : 1U;
        }
    }
    result.came = after.components.size() - stayed;
    result.went = before->components.size() - stayed;
    result.identity = before->product != after.product || before->chassis != after.chassis;
    return result;
}

std::vector<event> differences(const description *before, const description &after)
{
    std::vector<event> result;
    const std::string &root = after.components.front().name;
    if (before == nullptr) {
        result.push_back({EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_HOT_INSERT, root});
        return result;
    }
    for (size_t i = 0; i < before->components.size();) {
        const component &old = before->components[i];
        const component *counterpart = find_component(after, old.name);
        if (counterpart == nullptr || compare(old, *counterpart) == difference::identity) {
            result.push_back({EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_HOT_REMOVE, old.name});
            i = old.subtree_end;
        } else {
            ++i;
        }
    }
    std::vector<event> refreshed;
    for (size_t i = 0; i < after.components.size();) {
        const component &now = after.components[i];
        const component *old = find_component(*before, now.name);
        const difference found = old == nullptr ? difference::identity : compare(*old, now);
        if (found == difference::identity) {
            result.push_back({EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_HOT_INSERT, now.name});
            i = now.subtree_end;
            continue;
        }
        if (found == difference::refresh) {
            refreshed.push_back({EVENT_MGR_CLASS_INTERNAL, EVENT_MGR_REFRESH_SENSOR, now.name});
        }
        ++i;
    }
    result.insert(result.end(), refreshed.begin(), refreshed.end());
    if (before->product != after.product || before->chassis != after.chassis) {
        result.push_back({EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_UPDATE_INVENTORY, root});
    }
    return result;
}

} // namespace described_platform

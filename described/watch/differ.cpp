#include "described/watch/differ.h"

#include "platform/event_mgr.h"

namespace described_platform
{
namespace
{

/* What is read of a component only when its row is made. */
bool same_identity(const component &a, const component &b)
{
    if (a.type != b.type || a.capabilities != b.capabilities || a.fru != b.fru ||
        (a.sensor == nullptr) != (b.sensor == nullptr)) {
        return false;
    }
    return a.sensor == nullptr ||
           (a.sensor->sensor_class == b.sensor->sensor_class &&
            a.sensor->sensor_type == b.sensor->sensor_type && a.sensor->units == b.sensor->units);
}

bool same_thresholds(const sensor &a, const sensor &b)
{
    const int given = CAPI_STATE_SEMANTICS - 1;
    return a.thresholds == b.thresholds && (a.flags & given) == (b.flags & given);
}

} // namespace

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
        if (counterpart == nullptr || !same_identity(old, *counterpart)) {
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
        if (old == nullptr || !same_identity(*old, now)) {
            result.push_back({EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_HOT_INSERT, now.name});
            i = now.subtree_end;
            continue;
        }
        if (now.sensor != nullptr && !same_thresholds(*old->sensor, *now.sensor)) {
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

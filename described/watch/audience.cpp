#include "described/watch/audience.h"

#include <algorithm>

namespace described_platform
{
namespace
{

constexpr std::pair<int, int> disconnect{EVENT_MGR_CLASS_CONNECTION, EVENT_MGR_DISCONNECT};

} // namespace

bool audience::connection::wants_changes() const
{
    return subscribed.size() > (subscribed.contains(disconnect) ? 1U : 0U);
}

event_mgr_handle audience::open(event_mgr_callback callback, void *context, std::thread::id holder,
                                description_pointer known)
{
    do {
        ++last_handle_;
    } while (last_handle_ == 0 || connections_.contains(last_handle_));
    connection &made = connections_[last_handle_];
    made.callback = callback;
    made.context = context;
    made.holder = holder;
    made.baseline = std::move(known);
    return last_handle_;
}

bool audience::subscribe_class(event_mgr_handle handle, time_point now)
{
    const auto found = connections_.find(handle);
    if (found == connections_.end()) {
        return false;
    }
    /* Tells nothing by itself, but subscriptions are sure to follow. */
    found->second.tell_after = now + subscription_pause;
    return true;
}

bool audience::subscribe(event_mgr_handle handle, int event_class, int event, time_point now)
{
    const auto found = connections_.find(handle);
    if (found == connections_.end()) {
        return false;
    }
    const std::pair what{event_class, event};
    found->second.subscribed.insert(what);
    found->second.tell_after = what == disconnect ? now : now + subscription_pause;
    return true;
}

bool audience::is_subscribed(event_mgr_handle handle, int event_class, int event) const
{
    const auto found = connections_.find(handle);
    return found != connections_.end() && found->second.subscribed.contains({event_class, event});
}

void audience::note_enumeration(std::thread::id by, const description_pointer &listed)
{
    const bool holds_one = std::ranges::any_of(connections_, [&](const auto &each) {
        return !each.second.told && each.second.holder == by;
    });
    for (auto &[handle, each] : connections_) {
        if (!each.told && (!holds_one || each.holder == by)) {
            each.baseline = listed;
        }
    }
}

std::optional<audience::message> audience::take_message(const description_pointer &in_force,
                                                        time_point now)
{
    for (auto &[handle, each] : connections_) {
        if (!each.wants_changes() || now < each.tell_after) {
            continue;
        }
        each.told = true;
        if (in_force != nullptr && each.baseline != in_force) {
            return message{handle, each.callback, each.context,
                           std::exchange(each.baseline, in_force)};
        }
    }
    return std::nullopt;
}

audience::time_point audience::next(time_point now) const
{
    time_point result = time_point::max();
    for (const auto &[handle, each] : connections_) {
        if (each.wants_changes() && now < each.tell_after) {
            result = std::min(result, each.tell_after);
        }
    }
    return result;
}

} // namespace described_platform

#include "described/watch/read_schedule.h"

#include <algorithm>

namespace described_platform
{

void read_schedule::changed(time_point now)
{
    dirty_since_ = dirty_ ? dirty_since_ : now;
    dirty_ = true;
    quiet_at_ = now + quiet_time;
}

void read_schedule::nothing_there()
{
    dirty_ = false;
    complain_at_ = time_point::max();
}

bool read_schedule::take_check(time_point now)
{
    if (now < check_at_) {
        return false;
    }
    check_at_ = now + check_period;
    return true;
}

std::optional<read_order> read_schedule::take_order(bool check, time_point now)
{
    if (dirty_) {
        if (now < quiet_at_ && now < dirty_since_ + longest_settling) {
            return std::nullopt;
        }
        dirty_ = false;
        return read_order{true, false};
    }
    if (now >= complain_at_) {
        return read_order{true, true};
    }
    return check ? std::optional(read_order{false, false}) : std::nullopt;
}

void read_schedule::was_read(const read_order &order, bool good, time_point now)
{
    complain_at_ = good || order.complain ? time_point::max() : now + patience_with_writer;
}

read_schedule::time_point read_schedule::next() const
{
    const time_point settled =
        dirty_ ? std::min(quiet_at_, dirty_since_ + longest_settling) : time_point::max();
    return std::min({check_at_, complain_at_, settled});
}

} // namespace described_platform

/*
 * When the file of the description is read again. Pure: whoever asks says what
 * time it is.
 */
#ifndef KAVPLAT_DESCRIBED_READ_SCHEDULE_H
#define KAVPLAT_DESCRIBED_READ_SCHEDULE_H

#include <chrono>
#include <optional>

namespace described_platform
{

struct read_order {
    bool even_if_unchanged;
    bool complain; /* if it is bad; else its writer may not be done with it yet */
    bool operator==(const read_order &) const = default;
};

class read_schedule
{
  public:
    using time_point = std::chrono::steady_clock::time_point;

    /* A change comes as several pieces of news; this long without another one, or
     * this long in all, and the file is read. */
    static constexpr std::chrono::milliseconds quiet_time{5};
    static constexpr std::chrono::milliseconds longest_settling{20};
    /* A half-written file is bad for a moment, and nothing says for how long. */
    static constexpr std::chrono::milliseconds patience_with_writer{300};
    /* For what the system does not tell: remote file systems, renames far above. */
    static constexpr std::chrono::seconds check_period{2};

    /* The file may have changed. */
    void changed(time_point now);

    /* It is not there to be read; what was to be read is not any more. */
    void nothing_there();

    /* Once in a period, the first time at once. */
    bool take_check(time_point now);

    std::optional<read_order> take_order(bool check, time_point now);
    void was_read(const read_order &order, bool good, time_point now);

    /* When to ask again. */
    time_point next() const;

  private:
    bool dirty_ = false;
    time_point dirty_since_;
    time_point quiet_at_;
    time_point complain_at_ = time_point::max();
    time_point check_at_ = time_point::min();
};

} // namespace described_platform

#endif

/*
 * How many errors a counter counted within the last day: without a clock or a file. Times
 * are milliseconds of a clock that only goes forward.
 */
#ifndef KAVPLAT_DESCRIBE_ERROR_WINDOW_H
#define KAVPLAT_DESCRIBE_ERROR_WINDOW_H

#include <cstdint>
#include <deque>
#include <map>
#include <string>

namespace kavplat_describe
{

class error_window
{
  public:
    static constexpr int64_t length = int64_t{24} * 60 * 60 * 1000;
    /* What is read more often is remembered so often. */
    static constexpr int64_t step = int64_t{10} * 60 * 1000;

    /* The counter stands there; less than before: it began again from 0. */
    void note(int64_t count, int64_t now)
    {
        if (!seen_.empty()) {
            errors_ += count >= count_ ? count - count_ : count;
        }
        count_ = count;
        if (seen_.empty() || now - seen_.back().when >= step) {
            seen_.push_back({now, errors_});
        }
        while (seen_.size() > 1 && seen_[1].when + length <= now) {
            seen_.pop_front();
        }
        is_whole_ = seen_.front().when + length <= now;
    }

    bool is_empty() const { return seen_.empty(); }

    /* Whether the counter was seen for as long. */
    bool is_whole() const { return is_whole_; }

    /* Where the counter would have stood at the beginning of the window, had it never begun
     * again: what it stands above that came within. */
    int64_t begin() const { return count_ - (errors_ - seen_.front().errors); }

  private:
    struct reading {
        int64_t when;
        int64_t errors;
    };
    std::deque<reading> seen_; /* the first one begins the window */
    int64_t count_ = 0;        /* as it was read last */
    int64_t errors_ = 0;       /* since the first reading of all */
    bool is_whole_ = false;
};

/* What somebody saw who watches the machine, by the files of the counters. */
struct error_history {
    int64_t now = 0; /* to be set before each look */
    std::map<std::string, error_window> counters;
};

} // namespace kavplat_describe

#endif

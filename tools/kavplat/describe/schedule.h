/*
 * When a watched machine is looked at again: without a clock, a lock or a file. Times are
 * milliseconds of a clock that only goes forward.
 */
#ifndef KAVPLAT_DESCRIBE_SCHEDULE_H
#define KAVPLAT_DESCRIBE_SCHEDULE_H

#include <algorithm>
#include <cstdint>

namespace kavplat_describe
{

class schedule
{
  public:
    /* A storm is over when nothing was told for so long ... */
    static constexpr int64_t quiet = 300;
    /* ... and is looked into while it lasts: what is pulled is gone within two seconds. */
    static constexpr int64_t longest_wait = 1500;
    /* What nobody tells of is found then. */
    static constexpr int64_t full_look = 10 * 60 * 1000;

    /* Something of the machine came, went or changed. */
    void told(int64_t now)
    {
        first_ = waiting_ ? first_ : now;
        last_ = now;
        waiting_ = true;
    }

    /* A look begins: what is told from here on is for the next one. */
    void looked(int64_t now)
    {
        waiting_ = false;
        full_ = now + full_look;
    }

    /* When to look next; it may be over already. */
    int64_t next() const
    {
        return waiting_ ? std::min({full_, last_ + quiet, first_ + longest_wait}) : full_;
    }

  private:
    bool waiting_ = false; /* something was told since the last look ... */
    int64_t first_ = 0;    /* ... first then */
    int64_t last_ = 0;     /* ... and last then */
    int64_t full_ = 0;     /* the next full look; the first one is due at once */
};

} // namespace kavplat_describe

#endif

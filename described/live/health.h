/*
 * How the values that are bound to files are, told in the log once at each change:
 * bad, bad in another way, good again.
 */
#ifndef KAVPLAT_DESCRIBED_HEALTH_H
#define KAVPLAT_DESCRIBED_HEALTH_H

#include "described/live/live_values.h"
#include "described/live/mutex.h"

#include <map>

namespace described_platform
{

/* What the file of a value should hold, and what was found instead. */
std::string expectation_of(const live_value &value);
std::string to_text(const live_fault &fault);

class value_health
{
  public:
    /* key as the reference of descriptions has it: "sensor.reading". */
    void note(const std::string &component, const std::string &key, const live_reading &reading);

    /* Of values that are bound no more. */
    void forget_all_but(const description &all);

  private:
    struct bad_value {
        std::string file;
        live_fault fault;
    };
    mutex mutex_;
    std::map<std::pair<std::string, std::string>, bad_value>
        bad_ GUARDED_BY(mutex_); /* by component and key */
};

} // namespace described_platform

#endif

/*
 * Paths in which a part such as "hwmon*" stands for the one name that fits: the
 * kernel counts anew at every start, the device that it counts stays where it is.
 *
 * A star stands for any number of characters, none included, within one part of
 * a path, but not for a dot at its beginning. All else is itself, and so is the
 * part of a path that there is literally, star and all.
 */
#ifndef KAVPLAT_DESCRIBED_PATTERN_H
#define KAVPLAT_DESCRIBED_PATTERN_H

#include <chrono>
#include <string>
#include <string_view>

namespace described_platform
{

enum class match_outcome {
    one,
    none,
    several,
    failed, /* a directory can not be read: error says why */
    no_time,
};

struct pattern_match {
    match_outcome outcome = match_outcome::none;
    std::string path{};   /* the file; of several the two that come first by name */
    std::string second{}; /* ... */
    int error = 0;        /* errno */
};

bool is_pattern(std::string_view path);

bool fits(std::string_view name, std::string_view pattern);

/* Looks until the deadline. The pattern is absolute. */
pattern_match find_match(const std::string &pattern,
                         std::chrono::steady_clock::time_point deadline);

} // namespace described_platform

#endif

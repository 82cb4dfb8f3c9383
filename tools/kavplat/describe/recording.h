/*
 * What was looked at of a machine: enough of its /sys, /proc and /run for the same
 * description to be made of it once more, somewhere else.
 */
#ifndef KAVPLAT_DESCRIBE_RECORDING_H
#define KAVPLAT_DESCRIBE_RECORDING_H

#include <cstddef>
#include <map>
#include <string>

namespace kavplat_describe
{

struct recorded {
    enum class kind { directory, file, link, other }; /* other: nothing is taken of it */
    kind is = kind::file;
    std::string bytes; /* what was read of a file, or where a link leads; else empty */
    int error = 0;     /* an errno: why reading the file ended before its end */
};

struct recording {
    /* A machine's files are pages; what is beyond this is not what a kernel shows. */
    static constexpr size_t most_bytes = size_t{64} << 20U;

    /* By the path on the machine, in which no directory is a link. */
    std::map<std::string, recorded> entries;
    size_t bytes = 0;           /* of all files together */
    bool is_incomplete = false; /* there were too many of them */
};

} // namespace kavplat_describe

#endif

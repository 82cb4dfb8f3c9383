/* A recording as a file to send to somebody. */
#ifndef KAVPLAT_DESCRIBE_ARCHIVE_H
#define KAVPLAT_DESCRIBE_ARCHIVE_H

#include "tools/kavplat/describe/recording.h"

#include <string>

namespace kavplat_describe
{

/* What the archive has beside the machine's files, for who reads it. */
inline constexpr const char *about_name = "capture.txt";

/* tar, compressed by zstd, for nobody but its owner to read: what it says of a machine
 * is its owner's to give away. At once and never half. False with the reason when that
 * cannot be; then there is what was there before. */
bool write_archive(const std::string &path, const recording &of, const std::string &about,
                   std::string &why);

} // namespace kavplat_describe

#endif

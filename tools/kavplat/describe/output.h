/* How a description gets to where an agent reads it. */
#ifndef KAVPLAT_DESCRIBE_OUTPUT_H
#define KAVPLAT_DESCRIBE_OUTPUT_H

#include <string>

namespace kavplat_describe
{

/* Afterwards the file holds the text: at once, never half, and left alone when it held
 * it before. False with the reason when that cannot be; it is as it was then. */
bool replace_file(const std::string &path, const std::string &text, std::string &why,
                  bool survives_a_crash = true);

/* Makes the directory of a file where it alone is missing, for others to read. False
 * with the reason, and what to do, when there is none afterwards. */
bool make_directory_of(const std::string &path, std::string &why);

} // namespace kavplat_describe

#endif

/* kavplat capture: what a description is made of, packed for somebody else to look at. */
#ifndef KAVPLAT_DESCRIBE_CAPTURE_H
#define KAVPLAT_DESCRIBE_CAPTURE_H

#include <string>
#include <vector>

namespace kavplat_describe
{

struct capture_options {
    std::string root = "/";
    std::string file;
    bool anonymous = false; /* without what tells the machine from others of the make */
};

/* The exit status; what could not be had is added to the complaints. */
int capture(const capture_options &asked, const std::string &version,
            std::vector<std::string> &complaints);

} // namespace kavplat_describe

#endif

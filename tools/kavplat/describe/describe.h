/* kavplat describe: from a machine's files to the text of its description. */
#ifndef KAVPLAT_DESCRIBE_DESCRIBE_H
#define KAVPLAT_DESCRIBE_DESCRIBE_H

#include <string>
#include <vector>

namespace kavplat_describe
{

struct options {
    std::string root = "/";
    std::string output; /* empty: standard output */
    std::string merge;  /* a description laid over what was found; empty: none */
    bool serials = true;
};

struct described {
    std::string text; /* empty: there is no description, and the last complaint says why */
    std::vector<std::string> complaints;
};

/* Looks at everything once. */
described describe(const options &asked);

} // namespace kavplat_describe

#endif

/* kavplat describe: from a machine's files to the text of its description. */
#ifndef KAVPLAT_DESCRIBE_DESCRIBE_H
#define KAVPLAT_DESCRIBE_DESCRIBE_H

#include "tools/kavplat/describe/bmc_reader.h"

#include <string>
#include <vector>

namespace kavplat_describe
{

struct error_history;
struct recording;

struct options {
    std::string root = "/";
    std::string output; /* empty: standard output */
    std::string merge;  /* a description laid over what was found; empty: none */
    bool serials = true;
    bmc_target bmc;                  /* what is asked of the service processor */
    bool bmc_is_for_root = false;    /* there is one, and this user may not ask it */
    recording *record = nullptr;     /* where what is looked at is written down; null: nowhere */
    error_history *errors = nullptr; /* what was seen before of the same machine; null: nothing */
};

struct described {
    std::string text; /* empty: there is no description, and the last complaint says why */
    std::vector<std::string> complaints;
};

/* Looks at everything once, but for the service processor, whose word was taken before. */
described describe(const options &asked, const bmc_word &word = {});

} // namespace kavplat_describe

#endif

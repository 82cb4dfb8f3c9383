/*
 * What a program says of descriptions before an agent sees them: functions that
 * `kavplat check` calls, and whatever else has the check among its commands.
 */
#ifndef KAVPLAT_CHECK_H
#define KAVPLAT_CHECK_H

#include "described/format/document.h"
#include "described/live/pattern.h"

#include <iosfwd>

namespace kavplat_check
{

enum status { good = 0, bad = 1, misused = 2 };

struct options {
    std::vector<std::string> files; /* "-" is the standard input */
    bool read = false;              /* each bound value, once */
    bool types = false;             /* print the catalogue */
    std::string user;               /* whom the agent runs as; empty: nobody is asked about */
};

/* The user that Debian's agent runs as, where there is one. */
std::string usual_user();

/* All that was asked for; what is wrong goes to the errors. */
status run(const options &asked, std::ostream &out, std::ostream &errors);

void print_types(std::ostream &out);

/* What a good description says in vain, or what will fail when it is asked for. */
std::vector<described_platform::load_error> warnings(const described_platform::description &all);
std::vector<described_platform::load_error>
file_warnings(const described_platform::description &all, const std::string &user);

/* The file that a pattern leads to, looked for as long as an agent would. */
described_platform::pattern_match match_of(const std::string &pattern);

/* What keeps a user from reading a file that is there; empty: nothing, or nobody
 * was named. */
std::string obstacle(const std::string &user, const std::string &path);

/* A value that may be bound to a file, and where it stands in its component. */
struct named_value {
    std::string place; /* such as "/sensor/reading" */
    const described_platform::live_value *value;
};
std::vector<named_value> values_of(const described_platform::component &each);

} // namespace kavplat_check

#endif

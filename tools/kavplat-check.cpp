/*
 * kavplat-check DESCRIPTION: says whether the described platform would take a
 * description, with every error that it would log, before an agent sees it.
 */
#include "described/format/component_types.h"
#include "described/format/loader.h"

#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>

using namespace described_platform;

namespace
{

enum { good = 0, bad = 1, misused = 2 };

void print_summary(const std::string &path, const description &all)
{
    size_t sensors = 0;
    size_t indicators = 0;
    size_t units = 0;
    for (const component &each : all.components) {
        sensors += each.sensor != nullptr ? 1U : 0U;
        indicators += each.indicator ? 1U : 0U;
        units += each.fru ? 1U : 0U;
    }
    std::printf("%s: good: root %s, %zu components, %zu sensors, %zu indicators, "
                "%zu with FRU identity, %zu bound files\n",
                path.c_str(), all.components.front().name.c_str(), all.components.size(), sensors,
                indicators, units, all.bound_files.size());
}

int check(const std::string &given)
{
    const std::string path = std::filesystem::absolute(given).string();
    const load_result result = load_description(path);
    if (result.loaded != nullptr) {
        print_summary(given, *result.loaded);
        return good;
    }
    for (const load_error &each : result.errors) {
        std::fprintf(stderr, "%s\n", to_text(given, each).c_str());
    }
    std::fprintf(stderr, "%s: bad: %zu error%s\n", given.c_str(), result.errors.size(),
                 result.errors.size() == 1 ? "" : "s");
    return bad;
}

} // namespace

int main(int count, char **arguments)
{
    if (count != 2 || arguments[1][0] == '-') {
        std::fprintf(stderr, "usage: kavplat-check DESCRIPTION\n"
                             "Prints what is wrong with a description of a server, or what it\n"
                             "describes. Exits with 0 when it is good, 1 when it is not.\n");
        return misused;
    }
    try {
        return check(arguments[1]);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "%s: %s\n", arguments[1], error.what());
        return bad;
    }
}

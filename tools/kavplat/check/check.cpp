#include "check.h"

#include "described/format/component_types.h"
#include "described/format/json_text.h"
#include "described/format/loader.h"
#include "described/live/health.h"

#include <algorithm>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <pwd.h>
#include <unistd.h>

namespace kavplat_check
{
namespace
{

using namespace described_platform;

void print(std::ostream &to, const std::string &file, const std::vector<load_error> &all)
{
    for (const load_error &each : all) {
        to << to_text(file, each) << '\n';
    }
}

std::string counted(size_t number, const char *thing)
{
    return std::to_string(number) + ' ' + thing + (number == 1 ? "" : "s");
}

void print_summary(std::ostream &out, const std::string &file, const description &all,
                   size_t warnings)
{
    size_t sensors = 0;
    size_t indicators = 0;
    size_t units = 0;
    for (const component &each : all.components) {
        sensors += each.sensor != nullptr ? 1U : 0U;
        indicators += each.indicator ? 1U : 0U;
        units += each.fru ? 1U : 0U;
    }
    out << file << ": good: root " << all.components.front().name << ", "
        << counted(all.components.size(), "component") << ", " << counted(sensors, "sensor") << ", "
        << counted(indicators, "indicator") << ", " << units << " with FRU identity, "
        << counted(all.bound_files.size(), "bound file")
        << (warnings == 0 ? "" : ", " + counted(warnings, "warning")) << '\n';
}

/* Each by readers of its own: many that hang then do not share the time that
 * the platform allows them together. */
void print_readings(std::ostream &out, const std::string &file, const description &all)
{
    for (const component &each : all.components) {
        for (const named_value &one : values_of(each)) {
            if (one.value->file.empty()) {
                continue;
            }
            live_reading reading{one.value};
            live_values(default_read_bound).read({&reading, 1});
            out << file << ": " << each.name << ' ' << one.place.substr(1) << ": ";
            if (reading.result) {
                out << *reading.result;
                const auto name =
                    std::ranges::find(one.value->names, *reading.result, &named_code::value);
                if (name != one.value->names.end()) {
                    out << " (" << name->name << ')';
                }
            } else {
                out << "cannot be had (expected " << expectation_of(*one.value) << ", found "
                    << to_text(reading.fault) << ')';
            }
            out << ", from " << one.value->file;
            if (is_pattern(one.value->file) && reading.result) {
                out << " (" << match_of(one.value->file).path << ')';
            }
            out << '\n';
        }
    }
}

/* Whom the agent may be run as, beside the one that runs this. */
std::vector<load_error> warnings_of_file(const std::string &path, const options &asked)
{
    std::vector<load_error> result;
    const auto add = [&result](std::string message) {
        load_error warning;
        warning.message = "warning: " + std::move(message);
        result.push_back(std::move(warning));
    };
    struct stat status {
    };
    if (::stat(path.c_str(), &status) == 0 && !is_trusted(status, 0)) {
        add("an agent that runs as root refuses a file that everybody may write to: run \"chmod "
            "o-w " +
            path + '"');
    }
    if (const std::string why = obstacle(asked.user, path); !why.empty()) {
        add(why);
    }
    return result;
}

status check(const std::string &given, const options &asked, std::ostream &out,
             std::ostream &errors)
{
    const bool from_input = given == "-";
    const std::string file = from_input ? "(standard input)" : given;
    const std::string path = std::filesystem::absolute(from_input ? "input" : given).string();
    load_result result;
    std::string text;
    if (from_input ? read_to_end(STDIN_FILENO, text, result.errors)
                   : read_document(path, text, result.signature, result.errors)) {
        result = load_text(text, std::string(parent_name(path)) + '/');
    }
    if (result.loaded == nullptr) {
        print(errors, file, result.errors);
        errors << file << ": bad: " << counted(result.errors.size(), "error") << '\n';
        return bad;
    }
    std::vector<load_error> found = warnings(*result.loaded);
    std::ranges::move(file_warnings(*result.loaded, asked.user), std::back_inserter(found));
    find_lines(text, found);
    if (!from_input) {
        std::ranges::move(warnings_of_file(path, asked), std::back_inserter(found));
    }
    std::ranges::stable_sort(found, {}, &load_error::line);
    print(errors, file, found);
    print_summary(out, file, *result.loaded, found.size());
    if (asked.read) {
        print_readings(out, file, *result.loaded);
    }
    return good;
}

} // namespace

std::string usual_user()
{
    constexpr const char *debian = "Debian-snmp";
    return ::getpwnam(debian) == nullptr ? "" : debian;
}

void print_types(std::ostream &out)
{
    constexpr int wide = 26;
    for (const component_type &each : component_types()) {
        const char *kind = each.kind == component_kind::sensor      ? "sensor"
                           : each.kind == component_kind::indicator ? "indicator"
                                                                    : "plain";
        out << std::left << std::setw(wide) << each.name << std::right << std::setw(3)
            << each.number << "  " << std::left << std::setw(11) << kind << each.text << '\n';
    }
}

status run(const options &asked, std::ostream &out, std::ostream &errors)
{
    if (!asked.user.empty() && ::getpwnam(asked.user.c_str()) == nullptr) {
        errors << "there is no user " << asked.user << '\n';
        return misused;
    }
    if (asked.types) {
        print_types(out);
    }
    status worst = good;
    for (const std::string &file : asked.files) {
        worst = std::max(worst, check(file, asked, out, errors));
    }
    return worst;
}

} // namespace kavplat_check

#include "command.h"

#include <clocale>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <langinfo.h>
#include <map>
#include <unistd.h>

#include "tools/kavplat/agent/read_box.h"
#include "tools/kavplat/agent/words.h"

namespace kavplat_tree
{
namespace
{

using namespace kavplat_agent;

style style_for(const std::string &wanted)
{
    const char *none = getenv("NO_COLOR");
    const bool is_refused = none != nullptr && *none != '\0';
    const char *terminal = getenv("TERM");
    const bool can =
        isatty(STDOUT_FILENO) != 0 && terminal != nullptr && strcmp(terminal, "dumb") != 0;
    setlocale(LC_CTYPE, "");
    return {wanted == "always" || (wanted == "auto" && can && !is_refused),
            strcmp(nl_langinfo(CODESET), "UTF-8") != 0};
}

/* False, and told, when the file cannot be written. */
bool write_page(const std::string &path, const box &all, const selection &what, std::ostream &out,
                std::ostream &errors)
{
    if (path == "-") {
        print_page(out, all, what);
        return true;
    }
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    if (file) {
        print_page(file, all, what);
        file.close();
    }
    if (!file) {
        errors << "kavplat tree: " << path << " cannot be written: " << strerror(errno) << '\n';
        return false;
    }
    out << path << ": " << summary(all, what.from) << '\n';
    return true;
}

} // namespace

int run(const options &asked, std::ostream &out, std::ostream &errors)
{
    const std::map<std::string, choice> choices = {{"", choice::all},
                                                   {"alarms", choice::alarms},
                                                   {"sensors", choice::sensors},
                                                   {"frus", choice::frus}};
    address whom = asked.whom;
    whom.longest = std::chrono::milliseconds(static_cast<long>(asked.timeout * 1000));
    session from;
    box all;
    std::string failure = from.open(whom);
    if (failure.empty()) {
        failure = read_box(from, all);
    }
    selection what{choices.at(asked.only), all.roots};
    if (failure.empty() && !asked.name.empty()) {
        if (const std::optional<size_t> found = find_entity(all, asked.name, failure)) {
            what.from = {*found};
        }
    }
    if (!failure.empty()) {
        errors << "kavplat tree: " << printable(failure) << '\n';
        return from.is_misused() ? misused : not_read;
    }
    if (!asked.page.empty()) {
        if (!write_page(asked.page, all, what, out, errors)) {
            return not_read;
        }
    } else if (asked.json) {
        print_json(out, all, what);
    } else {
        print_text(out, all, what, style_for(asked.colour));
    }
    out.flush();
    for (const std::string &each : all.troubles) {
        errors << "kavplat tree: " << printable(all.agent) << ": " << printable(each) << '\n';
    }
    if (!out) {
        errors << "kavplat tree: the output cannot be written\n";
        return not_read;
    }
    return all.troubles.empty() ? read_whole : read_in_part;
}

} // namespace kavplat_tree

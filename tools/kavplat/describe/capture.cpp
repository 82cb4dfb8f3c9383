#include "tools/kavplat/describe/capture.h"

#include "tools/kavplat/describe/anonymous.h"
#include "tools/kavplat/describe/archive.h"
#include "tools/kavplat/describe/describe.h"

#include <cstring>
#include <sys/utsname.h>

namespace kavplat_describe
{
namespace
{

/* For who gets the archive: of which machine it is, and what is not in it. */
std::string about(const capture_options &asked, const std::string &version, const recording &of,
                  const std::vector<std::string> &complaints)
{
    std::string text = "kavplat " + version + '\n';
    utsname kernel = {};
    if (asked.root == "/" && ::uname(&kernel) == 0) {
        text = text + kernel.sysname + ' ' + kernel.release + ' ' + kernel.machine + '\n';
    }
    text += asked.anonymous ? "Without serial numbers, asset tags, UUIDs and addresses.\n" : "";
    for (const std::string &each : complaints) {
        text += "describe: " + each + '\n';
    }
    for (const auto &[path, it] : of.entries) {
        if (it.error != 0) {
            text += path + ": " + std::strerror(it.error) + '\n';
        }
    }
    return text;
}

} // namespace

int capture(const capture_options &asked, const std::string &version,
            std::vector<std::string> &complaints)
{
    recording found;
    options describing;
    describing.root = asked.root;
    describing.record = &found;
    const described result = describe(describing);
    complaints.insert(complaints.end(), result.complaints.begin(), result.complaints.end());
    // A machine that gives no description is what one wants to look at.
    if (found.entries.empty()) {
        if (result.complaints.empty()) {
            complaints.push_back(asked.root + ": there is nothing of a machine below it");
        }
        return 1;
    }
    if (found.is_incomplete) {
        complaints.push_back("there is too much to read: some files are empty in the capture");
    }
    const secrets hidden = asked.anonymous ? make_anonymous(found) : secrets();
    const std::string text = about(asked, version, found, complaints);
    std::string why;
    if (!write_archive(asked.file, found, asked.anonymous ? hidden.without(text) : text, why)) {
        complaints.push_back(asked.file + ": " + why);
        return 1;
    }
    return 0;
}

} // namespace kavplat_describe

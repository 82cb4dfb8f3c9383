#include "tools/kavplat/describe/describe.h"

#include "described/format/loader.h"
#include "tools/kavplat/describe/sources.h"
#include "tools/kavplat/describe/writer.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <unistd.h>

namespace kavplat_describe
{
namespace
{

void say_what_root_would_add(const tree &files, machine &of)
{
    if (files.denied().empty()) {
        return;
    }
    // Such as serial numbers, which are the first to be missed.
    const std::string &first = *files.denied().begin();
    of.complain(std::to_string(files.denied().size()) +
                (files.denied().size() == 1 ? " file is" : " files are") +
                " not for this user to read, such as " + first +
                ": run it as root for what they add");
}

bool lay_over(json &description, const std::string &path, std::string &why)
{
    std::string text;
    described_platform::file_signature signature;
    std::vector<described_platform::load_error> errors;
    if (!described_platform::read_document(path, text, signature, errors)) {
        why = described_platform::to_text(path, errors.front());
        return false;
    }
    json over;
    try {
        over = json::parse(text, nullptr, true, true);
    } catch (const json::exception &error) {
        why = path + ": " + error.what();
        return false;
    }
    if (!merge(description, over, why)) {
        why = path + ": " + why;
        return false;
    }
    return true;
}

/* What the platform would say of it, but for its files. */
std::vector<described_platform::load_error> errors_in(const json &description)
{
    return described_platform::load_text(to_text(description), "/").errors;
}

/* A source that found what no description may have costs that, and no more. */
void leave_out_what_is_bad(json &description, machine &of)
{
    for (const auto &error : errors_in(description)) {
        of.complain(described_platform::to_text("what was found", error) + "; it is left out");
        auto &components = description["components"].get_ref<json::array_t &>();
        std::erase_if(components, [&error](const json &each) {
            const std::string name = each["name"];
            return !error.component.empty() &&
                   (name == error.component || name.starts_with(error.component + '/'));
        });
    }
}

void lay_bmc_over(const bmc_word &word, machine &of)
{
    if (word.inventory) {
        try {
            add_bmc(*word.inventory, of);
        } catch (const std::exception &error) {
            of.complain(std::string("service processor: ") + error.what());
        }
    }
    if (!word.complaint.empty()) {
        of.complain("service processor: " + word.complaint);
    }
}

} // namespace

described describe(const options &asked, const bmc_word &word)
{
    tree files(asked.root);
    if (asked.record != nullptr) {
        files.record(*asked.record);
    }
    machine found;
    found.errors = asked.errors;
    described result;
    if (!files.is_directory("/")) {
        result.complaints.push_back(asked.root + ": there is no such directory");
        return result;
    }
    find_all(files, found);
    lay_bmc_over(word, found);
    say_what_root_would_add(files, found);
    json description = to_json(found);
    leave_out_what_is_bad(description, found);
    if (!asked.serials) {
        leave_out_serials(description);
    }
    result.complaints = std::move(found.complaints);
    if (!asked.merge.empty()) {
        std::string why;
        if (!lay_over(description, asked.merge, why)) {
            result.complaints.push_back(why);
            return result;
        }
    }
    if (const auto errors = errors_in(description); !errors.empty()) {
        for (const auto &error : errors) {
            result.complaints.push_back(described_platform::to_text(
                asked.merge.empty() ? "what was found" : asked.merge, error));
        }
        return result;
    }
    result.text = to_text(description);
    return result;
}

} // namespace kavplat_describe

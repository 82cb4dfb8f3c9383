#include "tools/kavplat/describe/describe.h"

#include "described/format/loader.h"
#include "tools/kavplat/describe/sources.h"
#include "tools/kavplat/describe/writer.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <initializer_list>
#include <set>
#include <unistd.h>

namespace kavplat_describe
{
namespace
{

/* What stands in files that a kernel keeps for root. */
constexpr struct {
    const char *part_of_path;
    std::initializer_list<const char *> adds;
} for_root[] = {
    {"/dmi/tables/", {"memory modules", "processor sockets", "slots", "serial numbers"}},
    {"_serial", {"serial numbers"}},
    {"_uuid", {"serial numbers"}},
    {"/vpd_pg", {"serial numbers"}},
    {"the module of ", {"transceivers"}},
};

void say_what_root_would_add(const tree &files, bool bmc_too, machine &of)
{
    std::vector<std::string> adds;
    const auto add = [&adds](const std::string &what) {
        if (std::ranges::find(adds, what) == adds.end()) {
            adds.push_back(what);
        }
    };
    std::set<std::string> others = files.denied();
    for (const auto &known : for_root) {
        if (std::erase_if(others, [&known](const std::string &each) {
                return each.find(known.part_of_path) != std::string::npos;
            }) > 0) {
            std::ranges::for_each(known.adds, add);
        }
    }
    if (bmc_too) {
        add("what the service processor knows");
    }
    if (!others.empty()) {
        add("what is in " + std::to_string(others.size()) +
            (others.size() == 1 ? " file" : " files") + " such as " + *others.begin());
    }
    if (adds.empty()) {
        return;
    }
    std::string text = "this user may not read all: run it as root for " + adds.front();
    for (size_t i = 1; i < adds.size(); i++) {
        text += (i + 1 < adds.size() ? ", " : " and ") + adds[i];
    }
    of.complain(std::move(text));
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
    say_what_root_would_add(files, asked.bmc_is_for_root, found);
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

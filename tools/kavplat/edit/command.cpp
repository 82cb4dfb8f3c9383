#include "command.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <ostream>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

#include "described/format/json_text.h"
#include "described/format/loader.h"
#include "tools/kavplat/check/check.h"

namespace kavplat_edit
{
namespace
{

namespace fs = std::filesystem;
using described_platform::load_error;

/* Links are followed, so that the file is replaced and not what leads to it; the
 * directory stays that of the name, from which relative files are looked up. */
fs::path real_path(const std::string &file)
{
    std::error_code error;
    const fs::path real = fs::canonical(file, error);
    return error ? fs::absolute(file) : real;
}

std::string directory_of(const std::string &file)
{
    return fs::absolute(file).lexically_normal().parent_path().string() + "/";
}

void print(std::ostream &errors, const std::string &file, const std::vector<load_error> &all)
{
    for (const load_error &each : all) {
        errors << described_platform::to_text(file, each) << '\n';
    }
}

/* What the text says in vain, of which the other one has nothing. Components are known by
 * their names: their places may have moved. */
std::vector<load_error> new_warnings(const described_platform::description &before,
                                     const described_platform::description &after,
                                     const std::string &text)
{
    const auto place = [](const load_error &each) {
        const size_t in_component = each.pointer.find('/', sizeof "/components/" - 1);
        return each.component.empty() || in_component == std::string::npos
                   ? each.pointer
                   : each.pointer.substr(in_component);
    };
    std::set<std::array<std::string, 3>> known;
    for (const load_error &each : kavplat_check::warnings(before)) {
        known.insert({each.component, place(each), each.message});
    }
    std::vector<load_error> found = kavplat_check::warnings(after);
    std::erase_if(found, [&](const load_error &each) {
        return known.contains({each.component, place(each), each.message});
    });
    described_platform::find_lines(text, found);
    return found;
}

bool write_all(int file, const std::string &text)
{
    for (size_t done_so_far = 0; done_so_far < text.size();) {
        const ssize_t wrote = ::write(file, text.data() + done_so_far, text.size() - done_so_far);
        if (wrote < 0 && errno != EINTR) {
            return false;
        }
        done_so_far += wrote < 0 ? 0U : static_cast<size_t>(wrote);
    }
    return fsync(file) == 0;
}

/* Empty, or why not. before: what the file was when it was read; a change since then
 * is somebody else's, and is not lost. */
std::string replace(const fs::path &file, const std::string &text,
                    const described_platform::file_signature *before)
{
    const auto why = [](const char *what) { return std::string(what) + ": " + strerror(errno); };
    std::string name = (file.parent_path() / ("." + file.filename().string() + ".XXXXXX")).string();
    const int temporary = mkostemp(name.data(), O_CLOEXEC);
    if (temporary < 0) {
        return why("no file can be made beside it");
    }
    struct stat old {
    };
    const bool is_there = stat(file.c_str(), &old) == 0;
    const mode_t fresh = 0644;
    std::string failure;
    /* The owner first: to give a file away takes rights from its mode. */
    if (is_there && (old.st_uid != geteuid() || old.st_gid != getegid()) &&
        fchown(temporary, old.st_uid, old.st_gid) != 0) {
        failure = why("the new file cannot be given to the old one's owner");
    } else if (fchmod(temporary, is_there ? old.st_mode & 07777 : fresh) != 0) {
        failure = why("the new file cannot get the old one's mode");
    } else if (!write_all(temporary, text)) {
        failure = why("write");
    } else if (before != nullptr &&
               described_platform::current_signature(file.string()) != *before) {
        failure = "somebody else has changed it meanwhile: try again";
    } else if (rename(name.c_str(), file.c_str()) != 0) {
        failure = why("rename");
    }
    close(temporary);
    if (!failure.empty()) {
        unlink(name.c_str());
    }
    return failure;
}

} // namespace

std::unique_ptr<sheet> read_sheet(const std::string &file, std::ostream &errors)
{
    described_platform::file_signature signature;
    std::string text;
    std::vector<load_error> wrong;
    if (!described_platform::read_document(file, text, signature, wrong)) {
        print(errors, file, wrong);
        return nullptr;
    }
    const std::string directory = directory_of(file);
    if (const auto read = described_platform::load_text(text, directory); !read.loaded) {
        print(errors, file, read.errors);
        return nullptr;
    }
    return std::make_unique<sheet>(std::move(text), directory);
}

status run(const target &where, const editing &edit, std::ostream &out, std::ostream &errors)
{
    const fs::path real = real_path(where.file);
    const described_platform::file_signature before =
        described_platform::current_signature(real.string());
    const std::unique_ptr<sheet> in = read_sheet(where.file, errors);
    if (in == nullptr) {
        errors << where.file << ": is not changed, since it is not good as it is\n";
        return refused;
    }
    const auto good = described_platform::load_text(in->text(), in->directory());
    std::string told;
    if (const std::string failure = edit(*in, told); !failure.empty()) {
        errors << where.file << ": is not changed: " << failure << '\n';
        return refused;
    }
    const auto judged = described_platform::load_text(in->text(), in->directory());
    if (!judged.loaded) {
        print(errors, where.file, judged.errors);
        errors << where.file << ": is not changed, since it would be bad as told above\n";
        return refused;
    }
    print(errors, where.file, new_warnings(*good.loaded, *judged.loaded, in->text()));
    if (where.output == "-") {
        out << in->text();
        out.flush();
        return out ? done : refused;
    }
    const bool in_place = where.output.empty();
    const fs::path into = in_place ? real : real_path(where.output);
    if (const std::string failure = replace(into, in->text(), in_place ? &before : nullptr);
        !failure.empty()) {
        errors << into.string() << ": is not written: " << failure << '\n';
        return refused;
    }
    out << told << (in_place ? where.file : where.output) << ": "
        << judged.loaded->components.size() << " components\n";
    return done;
}

} // namespace kavplat_edit

/*
 * Any files as a machine's: describing them ends soon, gives a description that a platform
 * loads, and what was looked at gives the same one once more. A line of the input makes
 * one thing: what it is, its path, and behind '=' what is in it or where it leads.
 *
 *   f/sys/class/hwmon/hwmon0/name=coretemp     a file
 *   l/sys/block/sda=../devices/sda             a link
 *   d/sys/devices                              a directory
 *   h/proc/cpuinfo=x                           a file without an end that could be reached
 *   p/sys/class/net/eth0                       a fifo
 *   m/sys/class/leds=l                         many names
 */
#include "described/format/loader.h"
#include "fuzz/must.h"
#include "tools/kavplat/describe/anonymous.h"
#include "tools/kavplat/describe/describe.h"
#include "tools/kavplat/describe/recording.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace kavplat_describe;

namespace
{

constexpr size_t most_lines = 300;
constexpr off_t huge = off_t{1} << 40U;
std::string scratch; /* everything is made below it */

void remove_scratch()
{
    std::error_code ignored;
    fs::remove_all(scratch, ignored);
}

/* Parts of a path that lead nowhere else: made below a directory that nothing but the
 * fuzzer made, whose links are not followed. */
bool is_harmless(std::string_view path)
{
    if (!path.starts_with('/') || path.size() > 1000 || path.find('\0') != path.npos) {
        return false;
    }
    for (size_t begin = 1; begin <= path.size();) {
        const size_t end = std::min(path.find('/', begin), path.size());
        const std::string_view part = path.substr(begin, end - begin);
        if (part.empty() || part == "." || part == ".." || part.size() > NAME_MAX) {
            return false;
        }
        begin = end + 1;
    }
    return true;
}

/* The directories above it; false where something else is in the way. */
bool make_above(const std::string &root, std::string_view path)
{
    for (size_t end = path.find('/', 1); end != path.npos; end = path.find('/', end + 1)) {
        const std::string directory = root + std::string(path.substr(0, end));
        struct stat status = {};
        if (::mkdir(directory.c_str(), 0755) != 0 &&
            (errno != EEXIST || ::lstat(directory.c_str(), &status) != 0 ||
             !S_ISDIR(status.st_mode))) {
            return false;
        }
    }
    return true;
}

void make_many(const std::string &directory, std::string_view stem)
{
    constexpr int many = 200;
    if (::mkdir(directory.c_str(), 0755) != 0 || stem.find('/') != stem.npos || stem.size() > 100) {
        return;
    }
    for (int i = 0; i < many; ++i) {
        ::mkdir((directory + '/' + std::string(stem) + std::to_string(i)).c_str(), 0755);
    }
}

/* What exists already stays as it is: the first line wins. */
void make(const std::string &root, std::string_view line)
{
    const size_t equals = std::min(line.find('='), line.size());
    const char what = line.empty() ? '\0' : line.front();
    const std::string_view path = line.substr(std::min<size_t>(1, equals), equals - 1);
    const std::string_view text = line.substr(std::min(equals + 1, line.size()));
    if (line.empty() || equals == 0 || !is_harmless(path) || !make_above(root, path)) {
        return;
    }
    const std::string file = root + std::string(path);
    struct stat status = {};
    if (::lstat(file.c_str(), &status) == 0) {
        return;
    }
    switch (what) {
    case 'f':
    case 'h':
        std::ofstream(file, std::ios::binary) << text << '\n';
        if (what == 'h') {
            must(::truncate(file.c_str(), huge) == 0);
        }
        break;
    case 'l':
        if (!text.empty()) {
            [[maybe_unused]] const int made = ::symlink(std::string(text).c_str(), file.c_str());
        }
        break;
    case 'p':
        ::mkfifo(file.c_str(), 0644);
        break;
    case 'm':
        make_many(file, text);
        break;
    default:
        ::mkdir(file.c_str(), 0755);
        break;
    }
}

/* As an archive of it would be unpacked. */
void unpack(const recording &of, const std::string &root)
{
    for (const auto &[path, it] : of.entries) {
        const std::string file = root + path;
        switch (it.is) {
        case recorded::kind::directory:
            must(::mkdir(file.c_str(), 0755) == 0);
            break;
        case recorded::kind::file:
            must(
                static_cast<bool>(std::ofstream(file, std::ios::binary) << it.bytes << std::flush));
            break;
        case recorded::kind::link:
            must(::symlink(it.bytes.c_str(), file.c_str()) == 0);
            break;
        case recorded::kind::other:
            must(::mkfifo(file.c_str(), 0644) == 0);
            break;
        }
    }
}

std::string description_of(const std::string &root, recording *record)
{
    options asked;
    asked.root = root;
    asked.record = record;
    const described result = describe(asked);
    must(!result.text.empty());
    must(described_platform::load_text(result.text, "/").loaded != nullptr);
    for (const std::string &each : result.complaints) {
        must(!each.empty() && each.find('\n') == each.npos);
    }
    std::string text = result.text;
    for (size_t at = 0; (at = text.find(root, at)) != text.npos;) {
        text.erase(at, root.size());
    }
    return text;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    scratch = fs::temp_directory_path() / "kavplat-fuzz-XXXXXX";
    must(::mkdtemp(scratch.data()) != nullptr);
    must(std::atexit(remove_scratch) == 0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // Of the same length, so that a name that is cut somewhere is cut in the same place.
    const std::string machine = scratch + "/machine";
    const std::string unpacked = scratch + "/another";
    fs::create_directories(machine);
    fs::create_directories(unpacked);
    const std::string_view all(reinterpret_cast<const char *>(data), size);
    size_t lines = 0;
    for (size_t begin = 0; begin < all.size() && lines < most_lines; ++lines) {
        const size_t end = std::min(all.find('\n', begin), all.size());
        make(machine, all.substr(begin, end - begin));
        begin = end + 1;
    }
    recording looked_at;
    const std::string first = description_of(machine, &looked_at);
    must(looked_at.bytes <= recording::most_bytes && !looked_at.is_incomplete);
    unpack(looked_at, unpacked);
    must(description_of(unpacked, nullptr) == first);

    size_t before = 0;
    for (const auto &[path, it] : looked_at.entries) {
        before += path.size() + it.bytes.size();
    }
    const size_t entries = looked_at.entries.size();
    make_anonymous(looked_at);
    size_t after = 0;
    for (const auto &[path, it] : looked_at.entries) {
        after += path.size() + it.bytes.size();
    }
    // Unless two that were told apart by a secret alone have become one.
    must(looked_at.entries.size() < entries || before == after);
    fs::remove_all(machine);
    fs::remove_all(unpacked);
    return 0;
}

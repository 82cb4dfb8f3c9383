#include "kavdata/index_file.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace kavplat
{

void (*on_write_step)(write_step) = nullptr;

namespace
{

constexpr std::string_view first_line = "kavplat-indexes 1";
constexpr std::string_view highest_word = "highest ";
constexpr std::string_view end_word = "end ";
constexpr mode_t file_mode = 0600;

// More than the largest file that is believed.
constexpr off_t largest_file = off_t{256} << 20;

bool stands_for_itself(char c)
{
    return c > ' ' && c <= '~' && c != '%';
}

void append_name(std::string &text, const std::string &name)
{
    for (const char c : name) {
        if (stands_for_itself(c)) {
            text += c;
        } else {
            char escaped[4];
            snprintf(escaped, sizeof escaped, "%%%02X", static_cast<unsigned>(c) & 0xFFU);
            text += escaped;
        }
    }
}

// False for what append_name never makes.
bool take_name(std::string_view text, std::string &name)
{
    name.clear();
    for (size_t i = 0; i < text.size(); i++) {
        if (stands_for_itself(text[i])) {
            name += text[i];
            continue;
        }
        unsigned byte = 0;
        const char *digits = text.data() + i + 1;
        if (text[i] != '%' || text.size() - i < 3 ||
            std::from_chars(digits, digits + 2, byte, 16).ptr != digits + 2 || byte == 0) {
            return false;
        }
        name += static_cast<char>(byte);
        i += 2;
    }
    return !name.empty() && name.size() <= longest_remembered_name;
}

bool take_number(std::string_view text, uint32_t &number)
{
    const char *end = text.data() + text.size();
    const std::from_chars_result result = std::from_chars(text.data(), end, number);
    return !text.empty() && result.ec == std::errc() && result.ptr == end;
}

bool take_line(std::string_view &rest, std::string_view &line)
{
    const size_t end = rest.find('\n');
    if (end == std::string_view::npos) {
        return false;
    }
    line = rest.substr(0, end);
    rest.remove_prefix(end + 1);
    return true;
}

bool take_numbered(std::string_view line, std::string_view word, uint32_t &number)
{
    return line.starts_with(word) && take_number(line.substr(word.size()), number);
}

// What is wrong with a line, or null. is_end is set by the last one.
const char *take(std::string_view line, size_t number, remembered_indexes &into,
                 std::vector<bool> &given, bool &is_end)
{
    if (number == 1) {
        return line == first_line ? nullptr : "expected \"kavplat-indexes 1\"";
    }
    if (number == 2) {
        if (!take_numbered(line, highest_word, into.highest)) {
            return "expected \"highest\" and a number";
        }
        given.resize(std::min(into.highest, highest_remembered_index) + 1);
        return into.highest <= highest_remembered_index ? nullptr
                                                        : "a highest index that is too high";
    }
    if (uint32_t count = 0; take_numbered(line, end_word, count)) {
        is_end = true;
        return count == into.of.size() ? nullptr : "another number of names than there are";
    }
    const size_t blank = line.find(' ');
    uint32_t index = 0;
    std::string name;
    if (blank == std::string_view::npos || !take_number(line.substr(0, blank), index) ||
        !take_name(line.substr(blank + 1), name)) {
        return "expected an index and a name";
    }
    if (index == 0 || index > into.highest) {
        return "an index that is not from 1 to the highest";
    }
    if (given[index]) {
        return "an index that a line before it has";
    }
    given[index] = true;
    return into.of.emplace(std::move(name), index).second ? nullptr
                                                          : "a name that a line before it has";
}

std::string error_text(const char *what)
{
    return std::string(what) + ": " + strerror(errno);
}

class descriptor
{
  public:
    explicit descriptor(int fd) : fd_(fd) {}
    ~descriptor() { close(); }
    descriptor(const descriptor &) = delete;
    descriptor &operator=(const descriptor &) = delete;

    operator int() const { return fd_; }
    int close()
    {
        const int result = fd_ >= 0 ? ::close(fd_) : 0;
        fd_ = -1;
        return result;
    }

  private:
    int fd_;
};

bool write_all(int fd, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t written = write(fd, text.data(), text.size());
        if (written < 0 && errno != EINTR) {
            return false;
        }
        text.remove_prefix(written > 0 ? static_cast<size_t>(written) : 0);
    }
    return true;
}

void step(write_step s)
{
    if (on_write_step) {
        on_write_step(s);
    }
}

} // namespace

std::string text_of(const remembered_indexes &indexes)
{
    std::vector<std::pair<uint32_t, const std::string *>> lines;
    lines.reserve(indexes.of.size());
    for (const auto &[name, index] : indexes.of) {
        lines.emplace_back(index, &name);
    }
    std::ranges::sort(lines);
    std::string text(first_line);
    text += "\n" + std::string(highest_word) + std::to_string(indexes.highest) + "\n";
    for (const auto &[index, name] : lines) {
        text += std::to_string(index) + " ";
        append_name(text, *name);
        text += "\n";
    }
    return text + std::string(end_word) + std::to_string(lines.size()) + "\n";
}

bool parse_indexes(std::string_view text, remembered_indexes &indexes, std::string &why)
{
    indexes = {};
    std::vector<bool> given;
    bool is_end = false;
    std::string_view line;
    for (size_t number = 1; !is_end; number++) {
        const char *wrong = take_line(text, line) ? take(line, number, indexes, given, is_end)
                                                  : "the file ends before its end";
        if (wrong) {
            why = "line " + std::to_string(number) + ": " + wrong;
            return false;
        }
    }
    why = "there is more behind its end";
    return text.empty();
}

file_found read_index_file(const std::string &path, remembered_indexes &indexes, std::string &why)
{
    // Anything but a regular file could keep the build waiting for a writer.
    const descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (file < 0) {
        why = error_text("open");
        return errno == ENOENT ? file_found::none : file_found::broken;
    }
    struct stat status;
    if (fstat(file, &status) != 0 || !S_ISREG(status.st_mode)) {
        why = "it is no regular file";
        return file_found::broken;
    }
    if (status.st_size > largest_file) {
        why = "it is larger than any such file";
        return file_found::broken;
    }
    std::string text;
    char block[65536];
    for (;;) {
        const ssize_t got = read(file, block, sizeof block);
        if (got == 0) {
            break;
        }
        if (got < 0 && errno != EINTR) {
            why = error_text("read");
            return file_found::broken;
        }
        text.append(block, got > 0 ? static_cast<size_t>(got) : 0);
    }
    return parse_indexes(text, indexes, why) ? file_found::good : file_found::broken;
}

std::string set_aside(const std::string &path, std::string &why)
{
    constexpr int most_kept = 1000;
    for (int i = 1; i <= most_kept; i++) {
        std::string kept = path + ".broken-" + std::to_string(i);
        struct stat status;
        if (lstat(kept.c_str(), &status) == 0) {
            continue;
        }
        if (errno == ENOENT && rename(path.c_str(), kept.c_str()) == 0) {
            return kept;
        }
        why = error_text("rename");
        return {};
    }
    why = "there are too many beside it";
    return {};
}

bool write_index_file(const std::string &path, const std::string &text, std::string &why)
{
    const std::string next = path + ".new";
    descriptor file(
        open(next.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, file_mode));
    if (file < 0) {
        why = error_text("open");
        return false;
    }
    step(write_step::opened);
    const std::string_view all = text;
    bool is_written = write_all(file, all.substr(0, all.size() / 2));
    if (is_written) {
        step(write_step::half_written);
        is_written = write_all(file, all.substr(all.size() / 2));
    }
    if (!is_written) {
        why = error_text("write");
        return false;
    }
    step(write_step::written);
    // The name must not come to lead to what is not on the disk yet.
    if (fsync(file) != 0 || file.close() != 0) {
        why = error_text("fsync");
        return false;
    }
    step(write_step::synced);
    if (rename(next.c_str(), path.c_str()) != 0) {
        why = error_text("rename");
        return false;
    }
    step(write_step::renamed);
    // Without this a loss of power may bring the old file back, which is a whole one.
    const std::string directory = path.substr(0, path.rfind('/') + 1);
    const descriptor above(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (above >= 0) {
        fsync(above);
    }
    step(write_step::finished);
    return true;
}

int lock_index_file(const std::string &path, std::string &why)
{
    // Not the file itself, which each write replaces.
    const std::string beside = path + ".lock";
    const int fd = open(beside.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, file_mode);
    if (fd < 0) {
        why = "its lock " + beside + " can not be opened: " + strerror(errno);
        return -1;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
        return fd;
    }
    why = errno == EWOULDBLOCK ? "another agent uses it" : error_text("flock");
    close(fd);
    return -1;
}

} // namespace kavplat

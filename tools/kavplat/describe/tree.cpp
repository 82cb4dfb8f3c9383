#include "tools/kavplat/describe/tree.h"

#include "described/live/pattern.h"
#include "tools/kavplat/describe/counted_names.h"
#include "tools/kavplat/describe/machine.h"
#include "tools/kavplat/describe/recording.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace kavplat_describe
{
namespace
{

constexpr int most_links = 40;
constexpr size_t most_names = 20000;

/* The parts of a path, the last one first. */
void push_parts(std::vector<std::string> &onto, std::string_view path)
{
    std::vector<std::string> parts;
    while (!path.empty()) {
        const size_t end = std::min(path.find('/'), path.size());
        if (end != 0) {
            parts.emplace_back(path.substr(0, end));
        }
        path.remove_prefix(std::min(end + 1, path.size()));
    }
    onto.insert(onto.end(), parts.rbegin(), parts.rend());
}

bool is_control(char c)
{
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

class descriptor
{
  public:
    explicit descriptor(int number) : number_(number) {}
    ~descriptor()
    {
        if (number_ >= 0) {
            ::close(number_);
        }
    }
    descriptor(const descriptor &) = delete;
    descriptor &operator=(const descriptor &) = delete;
    int operator*() const { return number_; }

  private:
    int number_;
};

int read_all(int from, std::string &into, size_t most)
{
    char buffer[16384];
    while (into.size() <= most) {
        const ssize_t count = ::read(from, buffer, std::min(sizeof buffer, most + 1 - into.size()));
        if (count == 0) {
            return 0;
        }
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno;
        }
        into.append(buffer, static_cast<size_t>(count));
    }
    return EFBIG;
}

} // namespace

tree::tree(std::string root) : root_(std::move(root))
{
    while (!root_.empty() && root_.back() == '/') {
        root_.pop_back();
    }
    if (!root_.empty() && root_.front() != '/') {
        char here[PATH_MAX];
        root_ = std::string(::getcwd(here, sizeof here) != nullptr ? here : "") + '/' + root_;
    }
}

void tree::note(const std::string &real_path, const struct stat &status) const
{
    if (record_ == nullptr) {
        return;
    }
    recorded it;
    if (S_ISLNK(status.st_mode)) {
        char target[PATH_MAX];
        const ssize_t length = ::readlink((root_ + real_path).c_str(), target, sizeof target);
        it.is = recorded::kind::link;
        it.bytes.assign(target, static_cast<size_t>(std::max<ssize_t>(length, 0)));
    } else if (S_ISDIR(status.st_mode)) {
        it.is = recorded::kind::directory;
    } else if (!S_ISREG(status.st_mode)) {
        it.is = recorded::kind::other;
    }
    record_->entries.try_emplace(real_path, std::move(it));
}

/* How many of a kind there are is looked at too. */
void tree::note_names(const std::string &real_path, const std::vector<std::string> &names) const
{
    for (const std::string &each : names) {
        const std::string path = real_path + '/' + each;
        struct stat status = {};
        if (record_ != nullptr && ::lstat((root_ + path).c_str(), &status) == 0) {
            note(path, status);
        }
    }
}

void tree::note_content(const std::string &real_path, const content &found) const
{
    if (record_ == nullptr) {
        return;
    }
    recorded &it = record_->entries[real_path];
    it.error = found.error;
    if (found.bytes.size() <= it.bytes.size()) {
        return; // it was read before, and further
    }
    if (record_->bytes + found.bytes.size() - it.bytes.size() > recording::most_bytes) {
        record_->is_incomplete = true;
        return;
    }
    record_->bytes += found.bytes.size() - it.bytes.size();
    it.bytes = found.bytes;
}

std::string tree::resolve(const std::string &path, int &error) const
{
    std::vector<std::string> parts;
    std::string current;
    std::string above;
    if (const size_t last = path.find_last_of('/'); last != std::string::npos && last > 0) {
        above = path.substr(0, last);
    }
    if (const auto known = directories_.find(above); known != directories_.end()) {
        current = known->second;
        push_parts(parts, std::string_view(path).substr(above.size()));
        above.clear();
    } else {
        push_parts(parts, path);
    }
    int links = 0;
    bool is_directory = true;
    while (!parts.empty()) {
        const std::string part = std::move(parts.back());
        parts.pop_back();
        if (part == ".") {
            continue;
        }
        if (part == "..") {
            current.erase(std::min(current.find_last_of('/'), current.size()));
            is_directory = true;
            continue;
        }
        if (!is_directory) {
            error = ENOTDIR;
            return {};
        }
        if (exhausted() || current.size() + part.size() >= PATH_MAX) {
            error = ENAMETOOLONG;
            return {};
        }
        steps_++;
        const std::string candidate = current + '/' + part;
        struct stat status = {};
        if (::lstat((root_ + candidate).c_str(), &status) != 0) {
            error = errno;
            if (error == EACCES || error == EPERM) {
                denied_.insert(candidate);
            }
            return {};
        }
        note(candidate, status);
        if (!S_ISLNK(status.st_mode)) {
            current = candidate;
            is_directory = S_ISDIR(status.st_mode);
            continue;
        }
        char target[PATH_MAX];
        const ssize_t length = ::readlink((root_ + candidate).c_str(), target, sizeof target);
        if (length <= 0 || ++links > most_links) {
            error = length < 0 ? errno : ELOOP;
            return {};
        }
        const std::string_view leads_to(target, static_cast<size_t>(length));
        if (leads_to.front() == '/') {
            current.clear();
        }
        push_parts(parts, leads_to);
    }
    error = 0;
    if (is_directory && directories_.size() < most_names) {
        directories_.emplace(path, current);
    }
    return current;
}

/* Below 0: it may not be read, or is none. */
int tree::open_file(const std::string &path, std::string &real_path, int &error) const
{
    real_path = resolve(path, error);
    if (error != 0) {
        return -1;
    }
    steps_++;
    const std::string file = root_ + real_path;
    struct stat status = {};
    // Opening a device does something to it; what may be a device is not opened to see.
    if (::lstat(file.c_str(), &status) != 0) {
        error = errno;
        return -1;
    }
    if (!S_ISREG(status.st_mode)) {
        error = S_ISDIR(status.st_mode) ? EISDIR : ENOTSUP;
        return -1;
    }
    const int opened =
        ::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY);
    if (opened < 0) {
        error = errno;
        if (error == EACCES || error == EPERM) {
            denied_.insert(path);
        }
    }
    return opened;
}

tree::content tree::read(const std::string &path, size_t most) const
{
    content result;
    std::string real_path;
    const descriptor from(open_file(path, real_path, result.error));
    if (*from < 0) {
        return result;
    }
    result.error = read_all(*from, result.bytes, most);
    note_content(real_path, result);
    if (result.error != 0) {
        result.bytes.clear();
    }
    return result;
}

std::string tree::part(const std::string &path, size_t offset, size_t bytes) const
{
    if (record_ != nullptr) {
        read(path); // who looks at it later may want another part
    }
    std::string real_path;
    int error = 0;
    const descriptor from(open_file(path, real_path, error));
    std::string found(bytes, '\0');
    const ssize_t count =
        *from < 0 ? 0 : ::pread(*from, found.data(), bytes, static_cast<off_t>(offset));
    found.resize(count < 0 ? 0 : static_cast<size_t>(count));
    return found;
}

std::string tree::text(const std::string &path) const
{
    const content found = read(path);
    constexpr std::string_view blank(" \t\n\v\f\r\0", 7);
    const size_t first = found.bytes.find_first_not_of(blank);
    return first == std::string::npos
               ? std::string()
               : found.bytes.substr(first, found.bytes.find_last_not_of(blank) - first + 1);
}

std::optional<int64_t> tree::number(const std::string &path) const
{
    const std::string found = text(path);
    const bool negative = found.starts_with('-');
    std::string_view digits = std::string_view(found).substr(negative ? 1 : 0);
    const bool hexadecimal = digits.starts_with("0x") || digits.starts_with("0X");
    digits.remove_prefix(hexadecimal ? 2 : 0);
    int64_t value = 0;
    const auto [end, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), value, hexadecimal ? 16 : 10);
    if (error != std::errc() || end != digits.data() + digits.size() || digits.front() == '-') {
        return std::nullopt;
    }
    return negative ? -value : value;
}

std::vector<std::string> tree::names(const std::string &path) const
{
    std::vector<std::string> all;
    int error = 0;
    const std::string real_path = resolve(path, error);
    if (error != 0) {
        return all;
    }
    const std::unique_ptr<DIR, int (*)(DIR *)> directory(
        ::opendir((root_ + real_path + '/').c_str()), &::closedir);
    if (directory == nullptr) {
        if (errno == EACCES || errno == EPERM) {
            denied_.insert(path);
        }
        return all;
    }
    while (const dirent *entry = ::readdir(directory.get())) {
        const std::string_view name = entry->d_name;
        if (all.size() >= most_names || exhausted()) {
            break;
        }
        steps_++;
        if (name != "." && name != ".." && std::ranges::none_of(name, is_control)) {
            all.emplace_back(name);
        }
    }
    std::ranges::sort(all, comes_before);
    note_names(real_path, all);
    return all;
}

bool tree::is_a(mode_t kind, const std::string &path) const
{
    int error = 0;
    const std::string real_path = resolve(path, error);
    struct stat status = {};
    return error == 0 &&
           ::lstat((real_path.empty() ? root_ + '/' : root_ + real_path).c_str(), &status) == 0 &&
           (status.st_mode & S_IFMT) == kind;
}

bool tree::is_file(const std::string &path) const
{
    return is_a(S_IFREG, path);
}

bool tree::is_directory(const std::string &path) const
{
    return is_a(S_IFDIR, path);
}

std::string tree::real(const std::string &path) const
{
    int error = 0;
    return resolve(path, error);
}

std::string tree::bound(const std::string &path) const
{
    std::string real_path = real(path);
    if (real_path.empty()) {
        real_path = path;
    }
    if (record_ != nullptr) {
        read(real_path);
    }
    std::string result;
    std::string so_far;
    std::vector<std::string> parts;
    push_parts(parts, real_path);
    std::ranges::reverse(parts);
    std::string before;
    for (size_t i = 0; i < parts.size(); i++) {
        std::string part = parts[i];
        // A file is where it is; below a device there may be a second of the kind.
        if (std::string star = with_star(part, before);
            !star.empty() && i + 1 < parts.size() && so_far.starts_with("/sys/devices/")) {
            const std::vector<std::string> beside = names(so_far);
            if (std::ranges::count_if(beside, [&star](const std::string &each) {
                    return described_platform::fits(each, star);
                }) == 1) {
                part = std::move(star);
            }
        }
        so_far += '/' + parts[i];
        result += '/' + part;
        before = parts[i];
    }
    return root_ + result;
}

std::optional<std::string> tree::told(const std::string &path,
                                      const std::function<std::optional<std::string>()> &ask) const
{
    if (!root_.empty()) {
        content found = read(path);
        return found.error == 0 ? std::optional(std::move(found.bytes)) : std::nullopt;
    }
    std::optional<std::string> found = ask();
    if (found && record_ != nullptr) {
        for (size_t end = path.find('/', 1); end != path.npos; end = path.find('/', end + 1)) {
            record_->entries.try_emplace(path.substr(0, end),
                                         recorded{recorded::kind::directory, {}, 0});
        }
        record_->entries.try_emplace(path);
        note_content(path, {0, *found});
    }
    return found;
}

} // namespace kavplat_describe

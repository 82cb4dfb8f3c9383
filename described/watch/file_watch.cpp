#include "described/watch/file_watch.h"

#include "described/format/description.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <deque>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

namespace described_platform
{
namespace
{

constexpr uint32_t interests = IN_CLOSE_WRITE | IN_MODIFY | IN_MOVED_TO | IN_MOVED_FROM |
                               IN_CREATE | IN_DELETE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF;
constexpr int most_links = 40;

/* In front of what is left to resolve. */
void put_in_front(std::deque<std::string> &parts, const std::string &path)
{
    std::deque<std::string> front;
    size_t at = 0;
    while (at < path.size()) {
        const size_t end = std::min(path.find('/', at), path.size());
        if (end > at) {
            front.push_back(path.substr(at, end - at));
        }
        at = end + 1;
    }
    parts.insert(parts.begin(), front.begin(), front.end());
}

std::string directory_of(const std::string &path)
{
    const std::string_view parent = parent_name(path);
    return parent.empty() ? "/" : std::string(parent);
}

} // namespace

file_watch::file_watch(std::string path)
    : path_(std::move(path)), directory_(directory_of(path_)),
      inotify_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC))
{
}

file_watch::~file_watch()
{
    if (inotify_ >= 0) {
        ::close(inotify_);
    }
}

/* Every directory entry on the way to the file that may come to lead elsewhere:
 * the symbolic links, and the file itself or what is missing. */
std::vector<file_watch::link_place> file_watch::places() const
{
    std::vector<link_place> result;
    result.push_back({directory_, path_.substr(path_.rfind('/') + 1)});
    std::deque<std::string> parts;
    put_in_front(parts, path_);
    std::string at = "/";
    for (int links = 0; !parts.empty();) {
        const std::string part = parts.front();
        parts.pop_front();
        if (part == ".") {
            continue;
        }
        if (part == "..") {
            at = directory_of(at);
            continue;
        }
        std::string full = at;
        if (full != "/") {
            full += '/';
        }
        full += part;
        struct stat status {
        };
        const bool there = ::lstat(full.c_str(), &status) == 0;
        char target[PATH_MAX];
        const ssize_t length =
            there && S_ISLNK(status.st_mode) ? ::readlink(full.c_str(), target, sizeof target) : -1;
        if (!there || parts.empty() || length > 0) {
            result.push_back({at, part});
        }
        if (!there || (length > 0 && ++links > most_links)) {
            break;
        }
        if (length > 0) {
            const std::string led(target, static_cast<size_t>(length));
            put_in_front(parts, led);
            at = led.front() == '/' ? "/" : at;
        } else {
            at = full;
        }
    }
    return result;
}

int file_watch::watch(const std::string &directory)
{
    return ::inotify_add_watch(inotify_, directory.c_str(), interests | IN_ONLYDIR);
}

bool file_watch::establish()
{
    constexpr int most_rounds = 5;
    std::vector<link_place> before = places();
    for (int round = 0; round < most_rounds; ++round) {
        std::map<int, std::set<std::string>> names;
        primary_ = watch(directory_);
        for (const link_place &each : before) {
            if (const int number = watch(each.directory); number >= 0) {
                names[number].insert(each.name);
            }
        }
        for (const auto &[number, unused] : names_) {
            if (!names.contains(number)) {
                ::inotify_rm_watch(inotify_, number);
            }
        }
        names_ = std::move(names);
        /* A link may have been swapped before its directory was watched. */
        std::vector<link_place> after = places();
        if (after == before) {
            break;
        }
        before = std::move(after);
    }
    struct stat status {
    };
    if (::stat(directory_.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        return false;
    }
    device_ = static_cast<uint64_t>(status.st_dev);
    inode_ = static_cast<uint64_t>(status.st_ino);
    return true;
}

bool file_watch::still_in_place() const
{
    struct stat status {
    };
    return ::stat(directory_.c_str(), &status) == 0 && S_ISDIR(status.st_mode) &&
           device_ == static_cast<uint64_t>(status.st_dev) &&
           inode_ == static_cast<uint64_t>(status.st_ino);
}

bool file_watch::take_news()
{
    bool changed = false;
    alignas(inotify_event) char buffer[16384];
    for (;;) {
        const ssize_t got = ::read(inotify_, buffer, sizeof buffer);
        if (got <= 0) {
            return changed;
        }
        for (ssize_t at = 0; at < got;) {
            inotify_event one;
            std::memcpy(&one, buffer + at, sizeof one);
            const char *name = buffer + at + sizeof one;
            at += static_cast<ssize_t>(sizeof one + one.len);
            if ((one.mask & IN_Q_OVERFLOW) != 0) {
                changed = true;
                continue;
            }
            const auto known = names_.find(one.wd);
            if (known == names_.end()) {
                continue; /* of a watch that was given up since */
            }
            if ((one.mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED)) != 0) {
                if ((one.mask & IN_IGNORED) != 0) {
                    names_.erase(known);
                    inode_ = one.wd == primary_ ? 0 : inode_; /* as good as not in place */
                }
                changed = true;
                continue;
            }
            if (one.len == 0 || !known->second.contains(name)) {
                continue;
            }
            changed = true;
            if ((one.mask & (IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO)) != 0) {
                /* At once, so that the end of a directory that a link led to
                 * until now is not taken for the end of ours. */
                establish();
            }
        }
    }
}

} // namespace described_platform

#include "described/live/pattern.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <memory>
#include <sys/stat.h>
#include <vector>

namespace described_platform
{
namespace
{

using clock = std::chrono::steady_clock;

/* A directory with more names is none in which the kernel counts a device. */
constexpr size_t most_names = 4096;

struct closer {
    void operator()(DIR *directory) const { ::closedir(directory); }
};

class search
{
  public:
    explicit search(clock::time_point deadline) : deadline_(deadline) {}

    /* below is what was found so far, with a slash at its end. */
    void look(const std::string &below, std::string_view rest)
    {
        const size_t star = rest.find('*');
        if (star == std::string_view::npos) {
            add(below + std::string(rest));
            return;
        }
        const size_t slash = rest.rfind('/', star);
        const size_t part_begin = slash == std::string_view::npos ? 0 : slash + 1;
        const size_t part_end = std::min(rest.find('/', star), rest.size());
        const std::string directory = below + std::string(rest.substr(0, part_begin));
        const std::string_view part = rest.substr(part_begin, part_end - part_begin);
        const std::string_view after = rest.substr(std::min(part_end + 1, rest.size()));
        const auto take = [&](std::string path) {
            if (part_end == rest.size()) {
                add(std::move(path));
            } else {
                look(path + '/', after);
            }
        };
        if (std::string literal = directory + std::string(part); exists(literal)) {
            take(std::move(literal));
            return;
        }
        for (const std::string &name : names_in(directory, part)) {
            if (done()) {
                return;
            }
            take(directory + name);
        }
    }

    pattern_match result;

  private:
    bool done()
    {
        if (clock::now() >= deadline_) {
            result.outcome = match_outcome::no_time;
        }
        return result.outcome == match_outcome::no_time || result.outcome == match_outcome::several;
    }

    bool exists(const std::string &path)
    {
        struct stat status {
        };
        if (::stat(path.c_str(), &status) == 0) {
            return true;
        }
        fail(errno);
        return false;
    }

    void add(std::string path)
    {
        if (!exists(path)) {
            return;
        }
        if (result.outcome == match_outcome::one) {
            result.outcome = match_outcome::several;
            result.second = std::move(path);
        } else {
            result.outcome = match_outcome::one;
            result.path = std::move(path);
        }
    }

    void fail(int error)
    {
        /* What another part of the pattern found is found. */
        if (error != ENOENT && error != ENOTDIR && result.outcome == match_outcome::none) {
            result.outcome = match_outcome::failed;
            result.error = error;
        }
    }

    std::vector<std::string> names_in(const std::string &directory, std::string_view part)
    {
        std::vector<std::string> names;
        const std::unique_ptr<DIR, closer> open(::opendir(directory.c_str()));
        if (open == nullptr) {
            fail(errno);
            return names;
        }
        size_t seen = 0;
        while (!done()) {
            errno = 0;
            const dirent *entry = ::readdir(open.get());
            if (entry == nullptr) {
                fail(errno == 0 ? ENOENT : errno);
                break;
            }
            if (++seen > most_names) {
                fail(EFBIG);
                break;
            }
            if (fits(entry->d_name, part)) {
                names.emplace_back(entry->d_name);
            }
        }
        std::ranges::sort(names);
        return names;
    }

    const clock::time_point deadline_;
};

} // namespace

bool is_pattern(std::string_view path)
{
    return path.find('*') != std::string_view::npos;
}

bool fits(std::string_view name, std::string_view pattern)
{
    if (name.starts_with('.') && !pattern.starts_with('.')) {
        return false;
    }
    size_t in_name = 0;
    size_t in_pattern = 0;
    size_t star = std::string_view::npos; /* the newest one, and what it stood for so far */
    size_t star_end = 0;
    while (in_name < name.size()) {
        if (in_pattern < pattern.size() && pattern[in_pattern] == '*') {
            star = in_pattern++;
            star_end = in_name;
        } else if (in_pattern < pattern.size() && pattern[in_pattern] == name[in_name]) {
            ++in_pattern;
            ++in_name;
        } else if (star != std::string_view::npos) {
            in_pattern = star + 1;
            in_name = ++star_end;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of('*', in_pattern) == std::string_view::npos;
}

pattern_match find_match(const std::string &pattern, clock::time_point deadline)
{
    search all(deadline);
    all.look("", pattern);
    return std::move(all.result);
}

} // namespace described_platform

#include "tools/kavplat/describe/output.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <sys/stat.h>
#include <unistd.h>

namespace kavplat_describe
{
namespace
{

bool holds(const std::string &path, const std::string &text)
{
    struct stat status = {};
    if (::stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode) ||
        static_cast<size_t>(status.st_size) != text.size()) {
        return false;
    }
    std::ifstream file(path, std::ios::binary);
    const std::string found((std::istreambuf_iterator<char>(file)), {});
    return file && found == text;
}

bool write_all(int to, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t count = ::write(to, text.data(), text.size());
        if (count < 0 && errno != EINTR) {
            return false;
        }
        text.remove_prefix(static_cast<size_t>(count < 0 ? 0 : count));
    }
    return true;
}

} // namespace

bool replace_file(const std::string &path, const std::string &text, std::string &why,
                  bool survives_a_crash)
{
    if (holds(path, text)) {
        return true;
    }
    // Beside it: a rename does not leave its file system. The name begins with a dot,
    // and the platform that watches the directory looks at the description's name only.
    const size_t last = path.find_last_of('/');
    const size_t name = last == std::string::npos ? 0 : last + 1;
    std::string temporary = path.substr(0, name) + '.' + path.substr(name) + ".XXXXXX";
    const int to = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (to < 0) {
        why = std::strerror(errno);
        return false;
    }
    // For the agent's user to read, and for nobody else to write.
    bool good =
        ::fchmod(to, 0644) == 0 && write_all(to, text) && (!survives_a_crash || ::fsync(to) == 0);
    int error = errno;
    if (::close(to) != 0 && good) {
        error = errno;
        good = false;
    }
    if (good && ::rename(temporary.c_str(), path.c_str()) != 0) {
        error = errno;
        good = false;
    }
    if (!good) {
        ::unlink(temporary.c_str());
        why = std::strerror(error);
    }
    return good;
}

bool make_directory_of(const std::string &path, std::string &why)
{
    const size_t last = path.find_last_of('/');
    const std::string directory = path.substr(0, last == std::string::npos ? 0 : last);
    constexpr mode_t mode = 0755;
    // Whatever the umask: an agent may run as another user.
    if (directory.empty() ||
        (::mkdir(directory.c_str(), mode) == 0 && ::chmod(directory.c_str(), mode) == 0) ||
        errno == EEXIST) {
        return true;
    }
    why = "its directory is missing and cannot be made (" + std::string(std::strerror(errno)) +
          "): make it first, as by \"sudo install -d -m 755 " + directory + '"';
    return false;
}

} // namespace kavplat_describe

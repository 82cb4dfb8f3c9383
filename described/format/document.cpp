#include "described/format/document.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace described_platform
{
namespace
{

struct descriptor {
    int fd;
    explicit descriptor(int opened) : fd(opened) {}
    descriptor(const descriptor &) = delete;
    descriptor &operator=(const descriptor &) = delete;
    ~descriptor()
    {
        if (fd >= 0) {
            ::close(fd);
        }
    }
};

int64_t nanoseconds(const timespec &time)
{
    return int64_t{time.tv_sec} * 1000000000 + int64_t{time.tv_nsec};
}

file_signature signature_of(const struct stat &status)
{
    file_signature result;
    result.device = static_cast<uint64_t>(status.st_dev);
    result.inode = static_cast<uint64_t>(status.st_ino);
    result.size = static_cast<int64_t>(status.st_size);
    result.modified_ns = nanoseconds(status.st_mtim);
    result.changed_ns = nanoseconds(status.st_ctim);
    return result;
}

void complain(std::vector<load_error> &errors, std::string message)
{
    load_error error;
    error.message = std::move(message);
    errors.push_back(std::move(error));
}

void complain_unreadable(std::vector<load_error> &errors, const char *doing, int why)
{
    complain(errors, std::string("expected a readable file: ") + doing + ": " + std::strerror(why));
}

/* A key or a name may hold anything; the log's next line is not for it to write. */
std::string on_one_line(std::string_view text)
{
    constexpr size_t enough = 1024;
    std::string result;
    for (const char c : cut_text(text, enough)) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7f) {
            constexpr char digits[] = "0123456789abcdef";
            result += "\\u00";
            result += digits[byte >> 4U];
            result += digits[byte & 0xfU];
        } else {
            result += c;
        }
    }
    return text.size() > enough ? result + "..." : result;
}

} // namespace

std::string cut_text(std::string_view text, size_t longest)
{
    if (text.size() <= longest) {
        return std::string(text);
    }
    size_t end = longest;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U) {
        --end;
    }
    return std::string(text.substr(0, end));
}

std::string escaped(std::string_view key)
{
    std::string result;
    for (const char c : key) {
        if (c == '~') {
            result += "~0";
        } else if (c == '/') {
            result += "~1";
        } else {
            result += c;
        }
    }
    return result;
}

std::string to_text(const std::string &file, const load_error &error)
{
    std::string result = file;
    if (error.line != 0) {
        result += ":" + std::to_string(error.line);
    }
    if (error.column != 0) {
        return result + ":" + std::to_string(error.column) + ": " + on_one_line(error.message);
    }
    /* The document itself has the empty pointer, which reads like a slip. */
    result += ": " + (error.pointer.empty() ? "(document)" : on_one_line(error.pointer));
    if (!error.component.empty()) {
        result += " (" + on_one_line(error.component) + ")";
    }
    return result + ": " + on_one_line(error.message);
}

std::string to_pointer(const place *where)
{
    if (where == nullptr || where->above == nullptr) {
        return "";
    }
    return to_pointer(where->above) + '/' +
           (where->key.data() == nullptr ? std::to_string(where->index) : escaped(where->key));
}

bool read_document(const std::string &path, std::string &text, file_signature &signature,
                   std::vector<load_error> &errors)
{
    signature = {};
    /* Without O_NONBLOCK a fifo in the file's place would hold us for ever. */
    const descriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (file.fd < 0) {
        complain_unreadable(errors, "open", errno);
        return false;
    }
    struct stat status {
    };
    if (::fstat(file.fd, &status) != 0) {
        complain_unreadable(errors, "stat", errno);
        return false;
    }
    signature = signature_of(status);
    if (!S_ISREG(status.st_mode)) {
        complain(errors, "expected a regular file");
        return false;
    }
    if (!is_trusted(status, ::geteuid())) {
        complain(errors,
                 "expected a file that only its owner and group may write to, since the agent "
                 "runs as root and opens what the file names: run \"chmod o-w " +
                     path + "\"");
        return false;
    }
    return read_to_end(file.fd, text, errors);
}

bool read_to_end(int descriptor, std::string &text, std::vector<load_error> &errors)
{
    text.clear();
    char buffer[65536];
    for (;;) {
        const ssize_t got = ::read(descriptor, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            complain_unreadable(errors, "read", errno);
            return false;
        }
        if (got == 0) {
            return true;
        }
        if (text.size() + static_cast<size_t>(got) > largest_document) {
            complain(errors, "expected a file of at most " +
                                 std::to_string(largest_document >> 20) + " MiB");
            return false;
        }
        text.append(buffer, static_cast<size_t>(got));
    }
}

bool is_trusted(const struct stat &status, uid_t reader)
{
    return reader != 0 || (status.st_mode & S_IWOTH) == 0;
}

file_signature current_signature(const std::string &path)
{
    struct stat status {
    };
    return ::stat(path.c_str(), &status) == 0 ? signature_of(status) : file_signature();
}

} // namespace described_platform

#include "described/format/document.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace described_platform
{
namespace
{

using nlohmann::json;

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

void find_line(const std::string &text, size_t offset, load_error &error)
{
    offset = std::min(offset, text.size());
    const auto begin = text.begin();
    const auto end = begin + static_cast<std::string::difference_type>(offset);
    error.line = 1 + static_cast<size_t>(std::count(begin, end, '\n'));
    const size_t newline = offset == 0 ? std::string::npos : text.rfind('\n', offset - 1);
    error.column = 1 + (newline == std::string::npos ? offset : offset - newline - 1);
}

/* The parser's own words without its error number and its place, which are
 * told in a form of our own. */
std::string plain_message(const char *what)
{
    std::string_view message = what;
    if (const size_t end = message.find("] "); message.starts_with('[') && end != message.npos) {
        message.remove_prefix(end + 2);
    }
    if (message.starts_with("parse error")) {
        if (const size_t colon = message.find(": "); colon != message.npos) {
            message.remove_prefix(colon + 2);
        }
    }
    return std::string(message);
}

/* Builds the document and watches what the stock builder lets pass: keys that
 * are given twice and nesting without end. */
class builder : public nlohmann::json_sax<json>
{
  public:
    builder(const std::string &text, json &document, std::vector<load_error> &errors)
        : text_(text), document_(document), errors_(errors)
    {
    }

    bool null() override { return value(nullptr); }
    bool boolean(bool given) override { return value(given); }
    bool number_integer(number_integer_t given) override { return value(given); }
    bool number_unsigned(number_unsigned_t given) override { return value(given); }
    bool number_float(number_float_t given, const string_t &) override { return value(given); }
    bool binary(binary_t &) override { return false; }

    bool string(string_t &given) override
    {
        check_text(given, value_pointer());
        return value(std::move(given));
    }

    bool start_object(std::size_t) override { return open(json::object()); }
    bool start_array(std::size_t) override { return open(json::array()); }
    bool end_object() override { return close(); }
    bool end_array() override { return close(); }

    bool key(string_t &given) override
    {
        level &top = levels_.back();
        check_text(given, pointer()); /* of the object: a bad key makes a bad pointer */
        if (!top.keys.insert(given).second) {
            errors_.push_back({pointer() + '/' + escaped(given),
                               "expected each key once, found \"" + given + "\" again", 0, 0});
        }
        top.key = std::move(given);
        return true;
    }

    bool parse_error(std::size_t position, const std::string &, const json::exception &why) override
    {
        load_error error;
        find_line(text_, position == 0 ? 0 : position - 1, error);
        error.message = "expected JSON: " + plain_message(why.what());
        errors_.push_back(std::move(error));
        return false;
    }

    static std::string escaped(std::string_view key)
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

  private:
    struct level {
        json *node;
        std::string key;
        std::set<std::string, std::less<>> keys;
    };

    std::string pointer() const
    {
        std::string result;
        for (size_t i = 0; i + 1 < levels_.size(); ++i) {
            const level &each = levels_[i];
            result += '/';
            result +=
                each.node->is_array() ? std::to_string(each.node->size() - 1) : escaped(each.key);
        }
        return result;
    }

    /* Of the value that comes next. */
    std::string value_pointer() const
    {
        if (levels_.empty()) {
            return "";
        }
        const level &top = levels_.back();
        return pointer() + '/' +
               (top.node->is_array() ? std::to_string(top.node->size()) : escaped(top.key));
    }

    void check_text(std::string_view given, std::string where)
    {
        if (given.size() <= longest_text && given.find('\0') == given.npos) {
            return;
        }
        errors_.push_back({std::move(where),
                           "expected texts of at most " + std::to_string(longest_text) +
                               " bytes without a zero byte",
                           0, 0});
    }

    json *put(json &&given)
    {
        if (levels_.empty()) {
            document_ = std::move(given);
            return &document_;
        }
        level &top = levels_.back();
        if (top.node->is_array()) {
            top.node->push_back(std::move(given));
            return &top.node->back();
        }
        json &slot = (*top.node)[top.key];
        slot = std::move(given);
        return &slot;
    }

    template <class Value>
    bool value(Value &&given)
    {
        put(json(std::forward<Value>(given)));
        return true;
    }

    bool open(json &&empty)
    {
        if (levels_.size() >= deepest_nesting) {
            errors_.push_back({value_pointer(),
                               "expected at most " + std::to_string(deepest_nesting) +
                                   " levels of objects and arrays",
                               0, 0});
            return false;
        }
        levels_.push_back({put(std::move(empty)), {}, {}});
        return true;
    }

    bool close()
    {
        levels_.pop_back();
        return true;
    }

    const std::string &text_;
    json &document_;
    std::vector<load_error> &errors_;
    std::vector<level> levels_;
};

load_error unreadable(const char *doing, int why)
{
    return {"", std::string("expected a readable file: ") + doing + ": " + std::strerror(why), 0,
            0};
}

} // namespace

std::string to_text(const std::string &file, const load_error &error)
{
    if (error.line != 0) {
        return file + ":" + std::to_string(error.line) + ":" + std::to_string(error.column) + ": " +
               error.message;
    }
    /* The document itself has the empty pointer, which reads like a slip. */
    return file + ": " + (error.pointer.empty() ? "(document)" : error.pointer) + ": " +
           error.message;
}

std::string to_pointer(const place *where)
{
    if (where == nullptr || where->above == nullptr) {
        return "";
    }
    std::string result = to_pointer(where->above);
    result += '/';
    result +=
        where->key.data() == nullptr ? std::to_string(where->index) : builder::escaped(where->key);
    return result;
}

bool read_document(const std::string &path, std::string &text, file_signature &signature,
                   std::vector<load_error> &errors)
{
    signature = {};
    /* Without O_NONBLOCK a fifo in the file's place would hold us for ever. */
    const descriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (file.fd < 0) {
        errors.push_back(unreadable("open", errno));
        return false;
    }
    struct stat status {
    };
    if (::fstat(file.fd, &status) != 0) {
        errors.push_back(unreadable("stat", errno));
        return false;
    }
    signature = signature_of(status);
    if (!S_ISREG(status.st_mode)) {
        errors.push_back({"", "expected a regular file", 0, 0});
        return false;
    }
    if (!is_trusted(status, ::geteuid())) {
        errors.push_back({"",
                          "expected a file that only its owner and group may write to, since the "
                          "agent runs as root and opens what the file names: run \"chmod o-w " +
                              path + "\"",
                          0, 0});
        return false;
    }
    text.clear();
    char buffer[65536];
    for (;;) {
        const ssize_t got = ::read(file.fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            errors.push_back(unreadable("read", errno));
            return false;
        }
        if (got == 0) {
            return true;
        }
        if (text.size() + static_cast<size_t>(got) > largest_document) {
            errors.push_back(
                {"",
                 "expected a file of at most " + std::to_string(largest_document >> 20) + " MiB", 0,
                 0});
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

bool parse_document(const std::string &text, json &document, std::vector<load_error> &errors)
{
    builder handler(text, document, errors);
    return json::sax_parse(text, &handler);
}

} // namespace described_platform

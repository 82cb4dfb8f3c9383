/*
 * The files of a machine: this one's, or what of another one's /sys, /proc and /run
 * stands below a directory. Whatever is there, reading it ends soon and stays within
 * bounds: no fifo is waited for, no device opened, no loop of links followed for ever.
 *
 * Paths are absolute, "/sys/class/hwmon", and mean what they would on the machine: a
 * link leads where it would there and never out of the root.
 */
#ifndef KAVPLAT_DESCRIBE_TREE_H
#define KAVPLAT_DESCRIBE_TREE_H

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <vector>

namespace kavplat_describe
{

/* A file of /sys is a page at most, and most are a line. */
inline constexpr size_t longest_text = 4096;

struct recording;

class tree
{
  public:
    /* Everything is read below root; "/" is this machine. */
    explicit tree(std::string root = "/");

    struct content {
        int error = 0; /* an errno; 0: the bytes are all that the file holds */
        std::string bytes;
    };
    /* A regular file. EFBIG: it holds more than most bytes. */
    content read(const std::string &path, size_t most = longest_text) const;

    /* So many bytes from there on, or fewer where it ends before: of files that devices
     * are slow to hand out. */
    std::string part(const std::string &path, size_t offset, size_t bytes) const;

    /* What read() gives, without white space at its ends; empty when there is none. */
    std::string text(const std::string &path) const;

    /* A whole number, decimal or with 0x; none when the file holds something else. */
    std::optional<int64_t> number(const std::string &path) const;

    /* What a directory holds, in an order that depends on the names alone (see
     * comes_before()), without names that hold control characters; empty when it can
     * not be read. */
    std::vector<std::string> names(const std::string &path) const;

    bool is_file(const std::string &path) const;
    bool is_directory(const std::string &path) const;

    /* The path without links and dots, "/sys/devices/..."; empty when nothing is there. */
    std::string real(const std::string &path) const;

    /* What a description binds a value to: the real path, with the root before it, and
     * with a star for each number that the kernel gives out in the order of finding
     * (hwmon/hwmon3) where the device above can have but one. */
    std::string bound(const std::string &path) const;

    /* What the kernel tells in no file but by a call: of this machine it is asked; what was
     * recorded of another one stands in a file at the path. None: it tells nothing. */
    std::optional<std::string> told(const std::string &path,
                                    const std::function<std::optional<std::string>()> &ask) const;

    /* From here on what is looked at is written down there, and of a file that a value is
     * bound to what it holds. */
    void record(recording &into) { record_ = &into; }

    /* What is there and may not be read by this user, such as serial numbers. */
    const std::set<std::string> &denied() const { return denied_; }
    void deny(const std::string &what) const { denied_.insert(what); }

    /* Whether the tree was too large, so that the rest of it was left unread. */
    bool exhausted() const { return steps_ >= most_steps; }

  private:
    static constexpr size_t most_steps = 500000;

    int open_file(const std::string &path, std::string &real_path, int &error) const;
    bool is_a(mode_t kind, const std::string &path) const;
    std::string resolve(const std::string &path, int &error) const;
    void note(const std::string &real_path, const struct stat &status) const;
    void note_names(const std::string &real_path, const std::vector<std::string> &names) const;
    void note_content(const std::string &real_path, const content &found) const;

    std::string root_; /* without a slash at its end; empty for "/" */
    mutable std::set<std::string> denied_;
    mutable std::map<std::string, std::string> directories_; /* path to real path */
    mutable size_t steps_ = 0;
    recording *record_ = nullptr; /* none is kept */
};

} // namespace kavplat_describe

#endif

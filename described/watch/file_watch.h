/*
 * Notices that a file changed: written in place, replaced, removed, created, or
 * reached through a symbolic link that now leads elsewhere.
 *
 * What is watched are directories: the one that the path names and, for every
 * symbolic link on the way to the file, the one that the link lies in and the
 * one that it leads to. Used by one thread.
 */
#ifndef KAVPLAT_DESCRIBED_FILE_WATCH_H
#define KAVPLAT_DESCRIBED_FILE_WATCH_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace described_platform
{

class file_watch
{
  public:
    explicit file_watch(std::string path);
    ~file_watch();
    file_watch(const file_watch &) = delete;
    file_watch &operator=(const file_watch &) = delete;

    /* Watches what there is now; false when the path's directory is not there. */
    bool establish();

    /* Takes in what happened, without waiting: whether the file may have changed. */
    bool take_news();

    /* Whether the path's directory is still the one that is watched; for file
     * systems and renames that tell nobody. */
    bool still_in_place() const;

    /* Readable when there is news; -1 when the system gives no watch. */
    int descriptor() const { return inotify_; }

  private:
    struct link_place {
        std::string directory;
        std::string name;
        bool operator==(const link_place &) const = default;
    };
    std::vector<link_place> places() const;
    int watch(const std::string &directory);

    const std::string path_;
    const std::string directory_;
    const int inotify_;
    int primary_ = -1;
    uint64_t device_ = 0;
    uint64_t inode_ = 0;
    std::map<int, std::set<std::string>> names_; /* of interest, by watch */
};

} // namespace described_platform

#endif

/* Files of a test. */
#ifndef KAVPLAT_TESTS_HARNESS_FILES_H
#define KAVPLAT_TESTS_HARNESS_FILES_H

#include <filesystem>
#include <string>

/* All that is in a file; nothing when there is none. */
std::string read_file(const std::filesystem::path &path);
/* In place: the file stays the one that it is. Throws when that fails. */
void write_file(const std::filesystem::path &path, const std::string &text);
/* By a rename of a complete new file over the old one. */
void replace_file(const std::filesystem::path &path, const std::string &text);
/* A file of the sources, which a test may then change. */
void copy_source(const std::filesystem::path &from, const std::filesystem::path &to);

/* A directory that goes away with its object. */
class temporary_directory
{
  public:
    temporary_directory();
    ~temporary_directory();
    temporary_directory(const temporary_directory &) = delete;
    temporary_directory &operator=(const temporary_directory &) = delete;

    const std::filesystem::path &path() const { return path_; }
    std::filesystem::path operator/(const char *name) const { return path_ / name; }

  private:
    std::filesystem::path path_;
};

#endif

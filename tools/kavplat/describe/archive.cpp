#include "tools/kavplat/describe/archive.h"

#ifdef KAVPLAT_HAS_LIBARCHIVE

#include <archive.h>
#include <archive_entry.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace kavplat_describe
{
namespace
{

struct freer {
    void operator()(archive *it) const { ::archive_write_free(it); }
    void operator()(archive_entry *it) const { ::archive_entry_free(it); }
};

bool add(archive *to, const std::string &name, const recorded &it)
{
    const std::unique_ptr<archive_entry, freer> entry(::archive_entry_new());
    if (entry == nullptr) {
        return false;
    }
    const bool is_file = it.is == recorded::kind::file;
    ::archive_entry_set_pathname(entry.get(), name.c_str());
    ::archive_entry_set_mtime(entry.get(), std::time(nullptr), 0);
    switch (it.is) {
    case recorded::kind::directory:
        ::archive_entry_set_mode(entry.get(), S_IFDIR | 0755);
        break;
    case recorded::kind::file:
        ::archive_entry_set_mode(entry.get(), S_IFREG | 0644);
        ::archive_entry_set_size(entry.get(), static_cast<la_int64_t>(it.bytes.size()));
        break;
    case recorded::kind::link:
        ::archive_entry_set_mode(entry.get(), S_IFLNK | 0777);
        ::archive_entry_set_symlink(entry.get(), it.bytes.c_str());
        break;
    case recorded::kind::other: // which any user may make, and nobody opens
        ::archive_entry_set_mode(entry.get(), S_IFIFO | 0644);
        break;
    }
    // A warning is told of a name that is no UTF-8; it is kept as it is.
    return ::archive_write_header(to, entry.get()) >= ARCHIVE_WARN &&
           (!is_file || ::archive_write_data(to, it.bytes.data(), it.bytes.size()) ==
                            static_cast<la_ssize_t>(it.bytes.size()));
}

bool write_all(archive *to, int file, const recording &of, const std::string &about)
{
    if (::archive_write_set_format_pax_restricted(to) != ARCHIVE_OK ||
        ::archive_write_add_filter_zstd(to) != ARCHIVE_OK ||
        ::archive_write_open_fd(to, file) != ARCHIVE_OK ||
        !add(to, about_name, {.is = recorded::kind::file, .bytes = about})) {
        return false;
    }
    for (const auto &[path, it] : of.entries) {
        if (!add(to, path.substr(1), it)) {
            return false;
        }
    }
    return ::archive_write_close(to) == ARCHIVE_OK;
}

} // namespace

bool write_archive(const std::string &path, const recording &of, const std::string &about,
                   std::string &why)
{
    std::string temporary = path + ".XXXXXX";
    const int file = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (file < 0) {
        why = std::strerror(errno);
        return false;
    }
    const std::unique_ptr<archive, freer> to(::archive_write_new());
    bool good = to != nullptr && write_all(to.get(), file, of, about);
    if (!good) {
        const char *text = to == nullptr ? nullptr : ::archive_error_string(to.get());
        why = text == nullptr ? "no archive can be made" : text;
    }
    if (::close(file) != 0 && good) {
        why = std::strerror(errno);
        good = false;
    }
    if (good && ::rename(temporary.c_str(), path.c_str()) != 0) {
        why = std::strerror(errno);
        good = false;
    }
    if (!good) {
        ::unlink(temporary.c_str());
    }
    return good;
}

} // namespace kavplat_describe

#else

namespace kavplat_describe
{

bool write_archive(const std::string &, const recording &, const std::string &, std::string &why)
{
    why = "this kavplat was built without libarchive, which writes it";
    return false;
}

} // namespace kavplat_describe

#endif

#include "harness/files.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <system_error>

namespace fs = std::filesystem;

std::string read_file(const fs::path &path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void write_file(const fs::path &path, const std::string &text)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    if (!out) {
        throw std::system_error(errno, std::generic_category(), "cannot write " + path.string());
    }
}

void replace_file(const fs::path &path, const std::string &text)
{
    const fs::path complete = path.string() + ".new";
    write_file(complete, text);
    fs::rename(complete, path);
}

void copy_source(const fs::path &from, const fs::path &to)
{
    fs::copy_file(from, to);
    fs::permissions(to, fs::perms::owner_write, fs::perm_options::add);
}

temporary_directory::temporary_directory()
{
    std::string name = fs::temp_directory_path() / "kavplat-test-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), "no directory " + name);
    }
    path_ = name;
}

temporary_directory::~temporary_directory()
{
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

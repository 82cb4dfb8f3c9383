// The file in which indexes outlive the agent: its format, and how it is written whole.
// Inside the room; without threads and without the cache.
#ifndef KAVPLAT_KAVDATA_INDEX_FILE_H
#define KAVPLAT_KAVDATA_INDEX_FILE_H

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

namespace kavplat
{

// A longer name is not remembered: it is longer than entPhysicalName may be.
inline constexpr size_t longest_remembered_name = 255;

// A file that says more is not believed: slots for so many are allocated.
inline constexpr uint32_t highest_remembered_index = 1 << 20;

struct remembered_indexes {
    uint32_t highest = 0; // ever given, to a name or not
    std::unordered_map<std::string, uint32_t> of;
};

// Text lines:
//     kavplat-indexes 1
//     highest 412
//     193 /SYS/HDD3/DISK        one for each name, in the order of the indexes; a byte
//     ...                       that is no printable ASCII, and '%', as %XX
//     end 411                   how many names there are
std::string text_of(const remembered_indexes &indexes);

// False with the line and what is wrong there in why; indexes are left unspecified.
bool parse_indexes(std::string_view text, remembered_indexes &indexes, std::string &why);

enum class file_found { none, good, broken };

// broken: there is a file that cannot be read or says nothing that can be believed.
file_found read_index_file(const std::string &path, remembered_indexes &indexes, std::string &why);

// Gives a file that is broken another name beside it, which is returned; empty with the
// reason in why when that cannot be done.
std::string set_aside(const std::string &path, std::string &why);

// Replaces the file: whatever stops it, the old one or the new one is there, whole. Only
// who holds the lock may. False with why.
bool write_index_file(const std::string &path, const std::string &text, std::string &why);

// The lock of the file, on a file beside it, for as long as the process lives: its
// descriptor, or -1 with why. Forks share it.
int lock_index_file(const std::string &path, std::string &why);

// For tests: called after each step of a write.
enum class write_step { opened, half_written, written, synced, renamed, finished };
extern void (*on_write_step)(write_step);

} // namespace kavplat

#endif

/*
 * Any bytes as a machine's table: reading it stays within them, what is read becomes a
 * good description, and without its secrets it has the same form.
 */
#include "described/format/loader.h"
#include "fuzz/must.h"
#include "tools/kavplat/describe/anonymous.h"
#include "tools/kavplat/describe/describe.h"
#include "tools/kavplat/describe/smbios.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

using namespace kavplat_describe;

namespace
{

constexpr const char *table_path = "/sys/firmware/dmi/tables/DMI";
std::string root;

void remove_root()
{
    std::error_code ignored;
    std::filesystem::remove_all(root, ignored);
}

bool is_within(std::string_view part, std::string_view all)
{
    return part.data() >= all.data() && part.data() + part.size() <= all.data() + all.size();
}

void check_table(const smbios::table &all, std::string_view bytes)
{
    for (const smbios::structure &it : all.structures) {
        must(it.fields.size() >= 4 && is_within(it.fields, bytes));
        must(static_cast<uint8_t>(it.fields[0]) == it.type);
        must(it.strings.size() <= 255);
        for (const std::string_view each : it.strings) {
            must(!each.empty() && is_within(each, bytes) && each.find('\0') == each.npos);
        }
        for (size_t offset = 0; offset <= it.fields.size(); ++offset) {
            must(it.has(offset) == (offset < it.fields.size()));
            must(it.text(offset).empty() || is_within(it.text(offset), bytes));
            must(it.word(offset) == (it.dword(offset) & 0xffffU) || !it.has(offset, 4));
        }
        must(smbios::memory_size(it) >= -1);
    }
}

/* All that is read of it, but for texts and what is no part of its form. */
void check_same_form(const smbios::table &one, const smbios::table &other)
{
    must(one.fault == other.fault);
    must(one.structures.size() == other.structures.size());
    for (size_t i = 0; i < one.structures.size(); ++i) {
        const smbios::structure &a = one.structures[i];
        const smbios::structure &b = other.structures[i];
        must(a.type == b.type && a.handle == b.handle && a.fields.size() == b.fields.size());
        must(a.strings.size() == b.strings.size());
        for (size_t each = 0; each < a.strings.size(); ++each) {
            must(a.strings[each].size() == b.strings[each].size());
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    root = std::filesystem::temp_directory_path() / "kavplat-fuzz-XXXXXX";
    must(::mkdtemp(root.data()) != nullptr);
    must(std::atexit(remove_root) == 0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string bytes(reinterpret_cast<const char *>(data), size);
    const smbios::table all = smbios::read_table(bytes, smbios::unused::kept);
    check_table(all, bytes);
    must(smbios::read_table(bytes).structures.size() <= all.structures.size());
    const smbios::entry_point entry = smbios::read_entry_point(bytes);
    must(entry.major >= 0 && entry.minor >= 0);

    recording machine;
    machine.entries[table_path].bytes = bytes;
    make_anonymous(machine);
    const std::string &covered = machine.entries[table_path].bytes;
    must(covered.size() == bytes.size());
    check_same_form(all, smbios::read_table(covered, smbios::unused::kept));

    const std::filesystem::path file = root + table_path;
    std::filesystem::create_directories(file.parent_path());
    must(static_cast<bool>(std::ofstream(file, std::ios::binary) << bytes << std::flush));
    options asked;
    asked.root = root;
    const described result = describe(asked);
    must(!result.text.empty());
    must(described_platform::load_text(result.text, "/").loaded != nullptr);
    return 0;
}

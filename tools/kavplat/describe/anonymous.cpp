#include "tools/kavplat/describe/anonymous.h"

#include "tools/kavplat/describe/machine.h"
#include "tools/kavplat/describe/module_memory.h"
#include "tools/kavplat/describe/smbios.h"

#include <algorithm>

namespace kavplat_describe
{
namespace
{

/* What is shorter may be a word or a number of anything. */
constexpr size_t shortest_secret = 6;
constexpr size_t shortest_number = 9;

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

bool is_hexadecimal(char c)
{
    return is_digit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

/* Of a word: letters, digits, and whatever is no ASCII. */
bool is_of_word(char c)
{
    return is_digit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
           static_cast<unsigned char>(c) >= 0x80;
}

char to_capital(char c)
{
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

void cover(char *begin, char *end)
{
    const std::string_view text(begin, static_cast<size_t>(end - begin));
    // A number stays one, else it would be read in another way.
    const size_t number = text.find("0x");
    if (number != text.npos &&
        std::all_of(text.begin() + static_cast<ptrdiff_t>(number) + 2, text.end(),
                    [](char c) { return is_hexadecimal(c) || !is_of_word(c); })) {
        std::replace_if(begin + number + 2, end, is_hexadecimal, '0');
        return;
    }
    std::replace_if(begin, end, is_of_word, 'X');
}

void cover(std::string &text, size_t from = 0)
{
    cover(text.data() + std::min(from, text.size()), text.data() + text.size());
}

size_t uuid_at(std::string_view text)
{
    constexpr std::string_view form = "00000000-0000-0000-0000-000000000000";
    if (text.size() < form.size()) {
        return 0;
    }
    for (size_t i = 0; i < form.size(); ++i) {
        if (form[i] == '0' ? !is_hexadecimal(text[i]) : text[i] != form[i]) {
            return 0;
        }
    }
    return form.size();
}

/* Six bytes in Ethernet, eight or twenty elsewhere. */
size_t address_at(std::string_view text)
{
    constexpr size_t shortest = 17;
    size_t end = 0;
    while (end + 1 < text.size() && is_hexadecimal(text[end]) && is_hexadecimal(text[end + 1])) {
        end += 2;
        if (end == text.size() || text[end] != ':') {
            return end >= shortest ? end : 0;
        }
        ++end;
    }
    return 0;
}

std::string_view trimmed(std::string_view text)
{
    constexpr std::string_view blank(" \t\n\0", 4);
    const size_t first = std::min(text.find_first_not_of(blank), text.size());
    text.remove_prefix(first);
    return text.substr(0, text.find_last_not_of(blank) + 1);
}

/* Where texts are that tell machines apart, by the type of the structure. */
constexpr struct {
    uint8_t type;
    size_t offset;
} secret_texts[] = {
    {smbios::system, 0x07},    {smbios::board, 0x07},         {smbios::board, 0x08},
    {smbios::chassis, 0x07},   {smbios::chassis, 0x08},       {smbios::processor, 0x20},
    {smbios::processor, 0x21}, {smbios::memory_device, 0x18}, {smbios::memory_device, 0x19},
    {smbios::battery, 0x07},   {smbios::power_supply, 0x08},  {smbios::power_supply, 0x09},
};

constexpr struct {
    uint8_t type;
    size_t offset;
    size_t bytes;
} secret_numbers[] = {{smbios::system, 0x08, 16}, {smbios::battery, 0x10, 2}};

/* What is not described may say anything, such as addresses or a maker's own numbers. */
bool is_described(uint8_t type)
{
    constexpr uint8_t all[] = {smbios::bios,
                               smbios::system,
                               smbios::board,
                               smbios::chassis,
                               smbios::processor,
                               smbios::old_memory_module,
                               smbios::slot,
                               smbios::old_onboard_devices,
                               smbios::memory_array,
                               smbios::memory_device,
                               smbios::battery,
                               smbios::cooling,
                               smbios::management_controller,
                               smbios::power_supply,
                               smbios::onboard_device,
                               smbios::trusted_module};
    return std::ranges::find(all, type) != std::end(all);
}

void cover_table(std::string &bytes, secrets &found)
{
    constexpr size_t head = 4;
    const auto cover_part = [&bytes](size_t from, size_t to) {
        std::replace_if(
            bytes.data() + from, bytes.data() + to, [](char c) { return c != 0; }, 'X');
    };
    const auto place_of = [&bytes](std::string_view part) {
        return static_cast<size_t>(part.data() - bytes.data());
    };
    const smbios::table all = smbios::read_table(bytes, smbios::unused::kept);
    for (size_t i = 0; i < all.structures.size(); ++i) {
        const smbios::structure &it = all.structures[i];
        const size_t fields = place_of(it.fields);
        if (!is_described(it.type)) {
            std::fill_n(bytes.data() + fields + head, it.fields.size() - head, '\0');
            cover_part(fields + it.fields.size(), i + 1 < all.structures.size()
                                                      ? place_of(all.structures[i + 1].fields)
                                                      : all.end);
            continue;
        }
        for (const auto &each : secret_texts) {
            const std::string_view text = it.text(each.offset);
            if (each.type == it.type && !text.empty()) {
                found.add(text);
                cover_part(place_of(text), place_of(text) + text.size());
            }
        }
        for (const auto &each : secret_numbers) {
            if (each.type == it.type && it.has(each.offset)) {
                std::fill_n(bytes.data() + fields + each.offset,
                            std::min(each.bytes, it.fields.size() - each.offset), '\0');
            }
        }
    }
    // What ends the table, or is not understood: its head tells why.
    cover_part(std::min(bytes.size(), all.end + head), bytes.size());
}

void cover_whole(std::string &bytes, secrets &found)
{
    found.add(bytes);
    cover(bytes);
}

void cover_serial_page(std::string &bytes, secrets &found)
{
    constexpr size_t header = 4;
    found.add(std::string_view(bytes).substr(std::min(bytes.size(), header)));
    cover(bytes, header);
}

/* Of what an ATA device says of itself, 60 bytes on: words of two characters, the second
 * first. The World Wide Name is a number. */
void cover_ata_page(std::string &bytes, secrets &found)
{
    constexpr size_t serial = 60 + 2 * 10, serial_bytes = 20, name = 60 + 2 * 108, name_bytes = 8;
    if (bytes.size() >= serial + serial_bytes) {
        std::string text;
        for (size_t i = 0; i < serial_bytes; ++i) {
            text += bytes[serial + (i ^ 1U)];
        }
        found.add(text);
        cover(bytes.data() + serial, bytes.data() + serial + serial_bytes);
    }
    if (bytes.size() >= name + name_bytes) {
        std::fill_n(bytes.begin() + name, name_bytes, '\0');
    }
}

/* Of a memory module, or of anything else. */
void clear(std::string &bytes, secrets & /*found*/)
{
    std::ranges::fill(bytes, '\0');
}

/* Lines such as "E:ID_MODEL=..." and "S:disk/by-id/...". */
void cover_udev_data(std::string &bytes, secrets &found)
{
    constexpr std::string_view open[] = {"E:ID_MODEL", "E:ID_REVISION", "E:ID_VENDOR",
                                         "E:ID_BUS",   "E:ID_TYPE",     "E:ID_PATH"};
    for (size_t begin = 0; begin < bytes.size();) {
        const size_t end = std::min(bytes.find('\n', begin), bytes.size());
        const std::string_view line = std::string_view(bytes).substr(begin, end - begin);
        const size_t name = std::min(line.find('='), line.find(':'));
        const size_t equals = line.starts_with("E:") ? line.find('=') : name;
        if (equals != line.npos && std::ranges::none_of(open, [line](std::string_view each) {
                return line.starts_with(each);
            })) {
            found.add(line.substr(equals + 1));
            cover(bytes.data() + begin + equals + 1, bytes.data() + end);
        }
        begin = end + 1;
    }
}

/* Some architectures tell a serial number there. */
void cover_cpuinfo(std::string &bytes, secrets &found)
{
    for (size_t begin = 0; begin < bytes.size();) {
        const size_t end = std::min(bytes.find('\n', begin), bytes.size());
        const size_t colon = std::min(bytes.find(':', begin), end);
        if (bytes.compare(begin, 6, "Serial") == 0 && colon < end) {
            found.add(std::string_view(bytes).substr(colon + 1, end - colon - 1));
            cover(bytes.data() + colon, bytes.data() + end);
        }
        begin = end + 1;
    }
}

void cover_module(std::string &bytes, secrets &found)
{
    found.add(cover_module_serial(bytes));
}

constexpr struct {
    std::string_view directory; /* somewhere in the path */
    std::string_view name;
    void (*cover)(std::string &bytes, secrets &found);
} files_with_secrets[] = {
    {"/sys/firmware/dmi/tables/", "DMI", cover_table},
    {"/sys/", "serial", cover_whole},
    {"/sys/", "serial_number", cover_whole},
    {"/sys/", "serial-number", cover_whole},
    {"/sys/", "product_serial", cover_whole},
    {"/sys/", "product_uuid", cover_whole},
    {"/sys/", "board_serial", cover_whole},
    {"/sys/", "board_asset_tag", cover_whole},
    {"/sys/", "chassis_serial", cover_whole},
    {"/sys/", "chassis_asset_tag", cover_whole},
    {"/sys/", "sas_address", cover_whole},
    {"/sys/", "wwid", cover_whole},
    {"/enclosure/", "id", cover_whole},
    {"/sys/", "vpd_pg80", cover_serial_page},
    {"/sys/", "vpd_pg89", cover_ata_page},
    {"/sys/", "eeprom", clear},
    {"/run/udev/data/", "", cover_udev_data},
    {"/run/kavplat/modules/", "", cover_module},
    {"/proc/", "cpuinfo", cover_cpuinfo},
};

} // namespace

void secrets::add(std::string_view text)
{
    const std::string_view word = trimmed(text);
    if (word.find('/') != word.npos) {
        return; // half of it would be found in a path
    }
    // A word that everybody has is none, and would be missed elsewhere.
    const bool is_number = std::ranges::all_of(word, is_digit);
    if (word.size() >= (is_number ? shortest_number : shortest_secret) &&
        std::ranges::any_of(word, is_digit) && !identity_text(word).empty()) {
        lengths_.insert(all_.emplace(word).first->size());
    }
    if (word.starts_with("0x")) {
        std::string label(word.substr(2)); // as a component's name has it
        std::ranges::transform(label, label.begin(), to_capital);
        add(label);
    }
}

std::string secrets::covered(std::string_view text, bool numbered) const
{
    std::string result(text);
    const auto length_at = [&](size_t begin) -> size_t {
        const std::string_view rest = text.substr(begin);
        const auto ends_word = [rest](size_t length) {
            return length == rest.size() || !is_of_word(rest[length]);
        };
        for (const size_t length : {uuid_at(rest), address_at(rest)}) {
            if (length > 0 && ends_word(length)) {
                return length;
            }
        }
        for (auto length = lengths_.rbegin(); length != lengths_.rend(); ++length) {
            if (*length <= rest.size() && ends_word(*length) &&
                all_.contains(rest.substr(0, *length))) {
                return *length;
            }
        }
        return 0;
    };
    for (size_t begin = 0; begin < text.size(); ++begin) {
        const size_t length = begin == 0 || !is_of_word(text[begin - 1]) || !is_of_word(text[begin])
                                  ? length_at(begin)
                                  : 0;
        if (length == 0) {
            continue;
        }
        const std::string_view it = text.substr(begin, length);
        char *const first = result.data() + begin;
        const bool is_number = uuid_at(it) > 0 || address_at(it) > 0;
        if (is_number) {
            std::replace_if(first, first + length, is_hexadecimal, '0');
        } else {
            cover(first, first + length);
        }
        if (numbered) {
            size_t number = numbers_.emplace(it, numbers_.size() + 1).first->second;
            for (size_t i = length; i > 0 && number > 0; --i) {
                if (is_of_word(first[i - 1])) {
                    first[i - 1] = static_cast<char>('0' + number % 10);
                    number /= 10;
                }
            }
        }
        begin += length - 1;
    }
    return result;
}

secrets make_anonymous(recording &of)
{
    secrets found;
    for (auto &[path, it] : of.entries) {
        const size_t name = path.rfind('/') + 1;
        for (const auto &each : files_with_secrets) {
            if (it.is == recorded::kind::file && path.find(each.directory) < name &&
                (each.name.empty() || std::string_view(path).substr(name) == each.name)) {
                each.cover(it.bytes, found);
                break;
            }
        }
    }
    std::map<std::string, recorded> open;
    for (auto &[path, it] : of.entries) {
        it.bytes =
            it.is == recorded::kind::link ? found.renamed(it.bytes) : found.without(it.bytes);
        open.emplace(found.renamed(path), std::move(it));
    }
    of.entries = std::move(open);
    return found;
}

} // namespace kavplat_describe

#include "tools/kavplat/describe/machine.h"

#include <algorithm>
#include <array>

namespace kavplat_describe
{
namespace
{

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

char upper(char c)
{
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

/* The length of the UTF-8 character at the beginning; 0: there is none. */
size_t character_length(std::string_view text)
{
    const auto byte = [text](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byte(0);
    const size_t length = first < 0x80                     ? 1
                          : first >= 0xc2 && first <= 0xdf ? 2
                          : first >= 0xe0 && first <= 0xef ? 3
                          : first >= 0xf0 && first <= 0xf4 ? 4
                                                           : 0;
    if (length == 0 || length > text.size()) {
        return 0;
    }
    for (size_t i = 1; i < length; i++) {
        if ((byte(i) & 0xc0) != 0x80) {
            return 0;
        }
    }
    // Too long a form, a half of a UTF-16 pair, or beyond the last character.
    if ((first == 0xe0 && byte(1) < 0xa0) || (first == 0xed && byte(1) > 0x9f) ||
        (first == 0xf0 && byte(1) < 0x90) || (first == 0xf4 && byte(1) > 0x8f)) {
        return 0;
    }
    return length;
}

/* What stands in fields that nobody filled in, in capitals. */
constexpr std::string_view no_identity[] = {
    "0123456789",
    "01234567",
    "012345678",
    "0X0123456789",
    "123456789",
    "1234567890",
    "12345678",
    "ARRAY1_PARTNUMBER0",
    "ASSET TAG",
    "ASSET-1234567890",
    "BASE BOARD SERIAL NUMBER",
    "BASE BOARD VERSION",
    "CHASSIS MANUFACTURE",
    "CHASSIS MANUFACTURER",
    "CHASSIS SERIAL NUMBER",
    "CHASSIS VERSION",
    "DEFAULT",
    "DEFAULT STRING",
    "EMPTY",
    "FILL BY OEM",
    "INVALID",
    "N/A",
    "NA",
    "NIL",
    "NO ASSET INFORMATION",
    "NO ASSET TAG",
    "NO DIMM",
    "NO ENCLOSURE",
    "NO MODULE INSTALLED",
    "NONE",
    "NOT APPLICABLE",
    "NOT AVAILABLE",
    "NOT INSTALLED",
    "NOT PROVIDED",
    "NOT SETTABLE",
    "NOT SPECIFIED",
    "NOTSPECIFIED",
    "NULL",
    "O.E.M.",
    "OEM",
    "OUT OF SPEC",
    "PART NUMBER",
    "PARTNUM0",
    "PRODUCT NAME",
    "SERIAL NUMBER",
    "SERNUM0",
    "SYSTEM MANUFACTURER",
    "SYSTEM PRODUCT NAME",
    "SYSTEM SERIAL NUMBER",
    "SYSTEM VERSION",
    "TBD",
    "TO BE FILLED BY O.E.M",
    "TO BE FILLED BY O.E.M.",
    "TO BE FILLED BY OEM",
    "TYPE2 - BOARD SERIAL NUMBER",
    "UNDEFINED",
    "UNKNOW",
    "UNKNOWN",
    "UNSPECIFIED",
};

/* "AssetTagNum3", "Manufacturer00", "SerNum1": a word for the field and a count. */
bool is_counted_field(std::string_view capitals)
{
    constexpr std::string_view fields[] = {"ASSETTAGNUM", "SERNUM", "PARTNUM", "MANUFACTURER",
                                           "MODULEPARTNUMBER"};
    return std::ranges::any_of(fields, [capitals](std::string_view field) {
        return capitals.starts_with(field) &&
               std::ranges::all_of(capitals.substr(field.size()), is_digit);
    });
}

/* "0000", "--------", "0x00", "FFFFFFFF", "xxxx". */
bool is_filling(std::string_view capitals)
{
    if (capitals.starts_with("0X") && capitals.size() > 2) {
        capitals.remove_prefix(2);
    }
    constexpr std::string_view fillings = "0FX-_.*?# ";
    constexpr std::string_view between = ":-"; // the parts of an address or a UUID
    return std::ranges::all_of(capitals, [&](char c) {
        return (c == capitals.front() && fillings.find(c) < fillings.size()) ||
               between.find(c) < between.size();
    });
}

} // namespace

machine::machine()
{
    all.emplace_back();
    root().label = "SYS";
    root().type = "system";
    root().name = "/SYS";
    board_ = &add(root(), "MB", "system-board");
}

component &machine::add(component &parent, std::string label, std::string type, std::string where)
{
    component &it = all.emplace_back();
    it.parent = &parent;
    it.label = std::move(label);
    it.type = std::move(type);
    it.where = std::move(where);
    return it;
}

void machine::is_device(component &it, const std::string &real_path)
{
    if (!real_path.empty()) {
        devices_.emplace(real_path, &it);
    }
}

component *machine::at_device(const std::string &real_path) const
{
    std::string path = real_path;
    while (!path.empty()) {
        if (const auto found = devices_.find(path); found != devices_.end()) {
            return found->second;
        }
        path.erase(std::min(path.find_last_of('/'), path.size()));
    }
    return nullptr;
}

std::string label_of(std::string_view text, std::string_view otherwise)
{
    constexpr size_t longest = 32;
    std::string label;
    for (const char each : text) {
        const char c = upper(each);
        if ((c >= 'A' && c <= 'Z') || is_digit(c) || c == '-' || c == '.') {
            label += c;
        } else if (!label.empty() && label.back() != '_') {
            label += '_';
        }
        if (label.size() == longest) {
            break;
        }
    }
    const size_t last = label.find_last_not_of("_.");
    label.erase(last == std::string::npos ? 0 : last + 1);
    label.erase(0, std::min(label.find_first_not_of('.'), label.size()));
    return label.empty() ? std::string(otherwise) : label;
}

bool comes_before(std::string_view one, std::string_view other)
{
    size_t i = 0;
    size_t j = 0;
    const auto digits = [](std::string_view text, size_t &at) {
        at = std::min(text.find_first_not_of('0', at), text.size());
        const size_t begin = at;
        while (at < text.size() && is_digit(text[at])) {
            at++;
        }
        return text.substr(begin, at - begin);
    };
    while (i < one.size() && j < other.size()) {
        if (is_digit(one[i]) && is_digit(other[j])) {
            const std::string_view left = digits(one, i);
            const std::string_view right = digits(other, j);
            if (left.size() != right.size()) {
                return left.size() < right.size();
            }
            if (left != right) {
                return left < right;
            }
        } else {
            if (one[i] != other[j]) {
                return static_cast<unsigned char>(one[i]) < static_cast<unsigned char>(other[j]);
            }
            i++;
            j++;
        }
    }
    if (i < one.size() || j < other.size()) {
        return j < other.size();
    }
    return one < other; // they differ in leading zeros, if at all
}

std::string identity_text(std::string_view text)
{
    std::string clean;
    while (!text.empty()) {
        const size_t length = character_length(text);
        const auto first = static_cast<unsigned char>(text.front());
        if (length == 0) {
            clean += '?';
        } else if (length > 1) {
            clean += text.substr(0, length);
        } else if (first > 0x20 && first != 0x7f) {
            clean += text.front();
        } else if (!clean.empty() && clean.back() != ' ') {
            clean += ' ';
        }
        text.remove_prefix(std::max<size_t>(length, 1));
    }
    if (!clean.empty() && clean.back() == ' ') {
        clean.pop_back();
    }
    std::string capitals = clean;
    std::ranges::transform(capitals, capitals.begin(), upper);
    if (capitals.size() > 2 && std::string_view("\"'([<").find(capitals.front()) < 5) {
        capitals = capitals.substr(1, capitals.size() - 2);
    }
    if (clean.empty() || is_filling(capitals) || is_counted_field(capitals) ||
        std::ranges::find(no_identity, capitals) != std::end(no_identity)) {
        return {};
    }
    return clean;
}

json bound_to(const tree &files, const std::string &path, double scale, double offset)
{
    json value = {{"file", files.bound(path)}};
    if (scale != 1) {
        value["scale"] = scale;
    }
    if (offset != 0) {
        value["offset"] = offset;
    }
    return value;
}

} // namespace kavplat_describe

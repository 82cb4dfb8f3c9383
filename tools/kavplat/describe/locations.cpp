#include "tools/kavplat/describe/locations.h"

#include <algorithm>

namespace kavplat_describe
{
namespace
{

constexpr std::string_view root_stem = "pci";
constexpr std::string_view no_place[] = {"sys", "devices", "platform", "virtual", "hwmon"};
constexpr std::string_view first_domain = "0000:";

/* "1C.4" of 0000:00:1c.4, "0" of 0000:02:00.0. */
std::string hop_text(std::string_view address)
{
    constexpr size_t device = 8;
    constexpr size_t function = 11;
    std::string_view number = address.substr(device, 2);
    if (number.front() == '0') {
        number.remove_prefix(1);
    }
    const std::string last(address.substr(function));
    return number == "0" ? last : label_of(number) + '.' + last;
}

/* Of "pci0000:17", a root bus other than the first: "17-". */
std::string root_text(std::string_view part)
{
    std::string_view bus = part.substr(root_stem.size());
    if (bus == "0000:00") {
        return "";
    }
    if (bus.starts_with(first_domain)) {
        bus.remove_prefix(first_domain.size());
    }
    return label_of(bus) + '-';
}

std::vector<std::string> parts_of(const std::string &path)
{
    std::vector<std::string> parts;
    for (size_t begin = 0; begin < path.size();) {
        const size_t end = std::min(path.find('/', begin), path.size());
        if (end > begin) {
            parts.push_back(path.substr(begin, end - begin));
        }
        begin = end + 1;
    }
    return parts;
}

bool is_path(const std::string &where)
{
    return where.starts_with('/');
}

bool is_root_bus(std::string_view part)
{
    return part.starts_with(root_stem) && part.find(':') != part.npos;
}

/* "*-0018" for "1-0018", "hwmon*" for "hwmon3". */
std::string uncounted(const std::string &part)
{
    const std::string star = with_star(part, "");
    return star.empty() ? part : star;
}

/* In which order such parts stand: as texts those of one length and in hexadecimal. */
struct part_order {
    bool as_text;
    std::string text;
};

part_order order_of(const std::string &part)
{
    constexpr size_t address_of_i2c = 6; /* "*-001a" */
    const std::string text = uncounted(part);
    return {is_pci_address(part) || is_root_bus(part) ||
                (text.size() == address_of_i2c && text.starts_with("*-")),
            text};
}

bool part_before(const part_order &one, const part_order &other)
{
    if (one.as_text != other.as_text) {
        return one.as_text;
    }
    return one.as_text ? one.text < other.text : comes_before(one.text, other.text);
}

} // namespace

std::string place_text(const std::string &where)
{
    constexpr size_t longest = 48;
    if (!is_path(where)) {
        return label_of(where);
    }
    std::string way;
    std::string rest;
    for (const std::string &part : parts_of(where)) {
        if (is_root_bus(part)) {
            way = root_text(part);
        } else if (is_pci_address(part)) {
            way += (way.empty() || way.back() == '-' ? "" : "-") + hop_text(part);
            rest.clear();
        } else if (std::string text = uncounted(part);
                   std::ranges::find(no_place, text) == std::end(no_place) &&
                   !text.ends_with('*')) {
            text.erase(0, text.rfind('*') + 1); /* "target2:0:1" */
            rest += '_' + label_of(text.starts_with('-') ? text.substr(1) : text);
        }
    }
    std::string text = way.empty() ? rest.substr(std::min<size_t>(rest.size(), 1)) : way + rest;
    text.erase(0, text.size() - std::min(text.size(), longest)); /* they differ at the end */
    return text.empty() ? label_of(where) : text;
}

bool place_before(const std::string &one, const std::string &other)
{
    if (!is_path(one) || !is_path(other)) {
        return is_path(one) != is_path(other) ? is_path(one) : one < other;
    }
    const std::vector<std::string> left = parts_of(one);
    const std::vector<std::string> right = parts_of(other);
    for (size_t i = 0; i < std::min(left.size(), right.size()); ++i) {
        const part_order of_left = order_of(left[i]);
        const part_order of_right = order_of(right[i]);
        if (of_left.text != of_right.text) {
            return part_before(of_left, of_right);
        }
    }
    return left.size() != right.size() ? left.size() < right.size() : comes_before(one, other);
}

component *slot_at(const machine &all, std::string_view pci_address)
{
    const std::string_view device = pci_address.substr(0, pci_address.rfind('.'));
    const auto first = all.slots.lower_bound(std::string(device));
    return first != all.slots.end() && first->first.starts_with(device) ? first->second : nullptr;
}

location locate(machine &all, const std::string &path)
{
    location found{&all.board(), ""};
    std::string root;
    for (size_t begin = 1; begin < path.size();) {
        const size_t end = std::min(path.find('/', begin), path.size());
        const std::string part = path.substr(begin, end - begin);
        const bool last = end == path.size();
        begin = end + 1;
        if (part.starts_with(root_stem) && part.find(':') != std::string::npos) {
            root = root_text(part);
        }
        if (!is_pci_address(part)) {
            continue;
        }
        if (component *known = exactly_at(all, path.substr(0, end)); known != nullptr && !last) {
            found = {known, ""};
            continue;
        }
        std::string hop = hop_text(part);
        if (component *slot = slot_at(all, part); slot != nullptr) {
            /* A slot has the address of what is plugged in, or of the port above it. */
            found = {slot, ""};
            if (!last) {
                continue;
            }
            hop = part.substr(part.size() - 1);
        } else if (found.rest.empty() && found.holder == &all.board()) {
            hop = root + hop;
        }
        found.rest += (found.rest.empty() ? "" : "-") + hop;
    }
    return found;
}

component *exactly_at(const machine &all, const std::string &path)
{
    component *here = all.at_device(path);
    return here == nullptr || here == all.at_device(std::string(without_last_part(path))) ? nullptr
                                                                                          : here;
}

component *module_named_in(const machine &all, const std::string &text)
{
    const std::string wanted = '_' + label_of(text, "") + '_';
    component *found = nullptr;
    size_t longest = 0;
    for (const auto &[locator, module] : all.memory_modules) {
        const std::string known = label_of(locator, "");
        if (known.size() > longest && wanted.find('_' + known + '_') != wanted.npos) {
            found = module;
            longest = known.size();
        }
    }
    return found;
}

std::string_view last_part(std::string_view path)
{
    const size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

std::string_view without_last_part(std::string_view path)
{
    const size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}

} // namespace kavplat_describe

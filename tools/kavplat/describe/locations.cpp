#include "tools/kavplat/describe/locations.h"

#include <algorithm>

namespace kavplat_describe
{
namespace
{

constexpr std::string_view root_stem = "pci";
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

} // namespace

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

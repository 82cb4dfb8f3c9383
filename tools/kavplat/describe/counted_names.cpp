#include "tools/kavplat/describe/counted_names.h"

#include <charconv>

namespace kavplat_describe
{
namespace
{

/* Directories whose numbers say in which order the kernel met them. */
constexpr std::string_view counted_stems[] = {"hwmon", "nvme", "ata", "host", "usb",
                                              "i2c-",  "spi",  "mmc", "input"};

/* What stands before the number of a host in the names of what hangs on it. */
constexpr std::string_view host_stems[] = {"",          "target",    "port-", "phy-", "end_device-",
                                           "expander-", "enclosure-"};

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

} // namespace

bool is_pci_address(std::string_view part)
{
    constexpr std::string_view form = "0000:00:00.0";
    if (part.size() != form.size()) {
        return false;
    }
    for (size_t i = 0; i < form.size(); ++i) {
        const bool digit = (part[i] >= '0' && part[i] <= '9') || (part[i] >= 'a' && part[i] <= 'f');
        if (form[i] == '0' ? !digit : part[i] != form[i]) {
            return false;
        }
    }
    return true;
}

std::optional<unsigned> number_after(std::string_view name, std::string_view stem)
{
    unsigned number = 0;
    if (!name.starts_with(stem) || name.size() == stem.size()) {
        return std::nullopt;
    }
    const char *end = name.data() + name.size();
    const auto [stop, error] = std::from_chars(name.data() + stem.size(), end, number);
    return error == std::errc() && stop == end ? std::optional(number) : std::nullopt;
}

/* "2:0:0:0" and "target2:0:0" begin with the number of a host, "1-0018" with that of a
 * bus, "3-2" and "3-2:1.0" with that of a bus of USB: the rest is a place. So it is of
 * a PCI device below a bridge, whose bus has another number when a card is added. */
std::string with_star(std::string_view part, std::string_view below)
{
    if (is_pci_address(part)) {
        return is_pci_address(below) ? '*' + std::string(part.substr(7)) : "";
    }
    for (const std::string_view stem : counted_stems) {
        if (number_after(part, stem)) {
            return std::string(stem) + '*';
        }
    }
    for (const std::string_view stem : host_stems) {
        const size_t begin = stem.size();
        size_t end = begin;
        while (part.starts_with(stem) && end < part.size() && is_digit(part[end])) {
            ++end;
        }
        if (end > begin && end < part.size() &&
            (part[end] == ':' || (stem.empty() && part[end] == '-'))) {
            return std::string(stem) + '*' + std::string(part.substr(end));
        }
    }
    return "";
}

} // namespace kavplat_describe

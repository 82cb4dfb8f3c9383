/* Names in which the kernel counts what it meets, and those that say where it is. */
#ifndef KAVPLAT_DESCRIBE_COUNTED_NAMES_H
#define KAVPLAT_DESCRIBE_COUNTED_NAMES_H

#include <optional>
#include <string>
#include <string_view>

namespace kavplat_describe
{

/* Such as 0000:3b:00.0 */
bool is_pci_address(std::string_view part);

/* The number in "nvme0" or "hwmon12" after the stem; empty where that is not all. */
std::optional<unsigned> number_after(std::string_view name, std::string_view stem);

/* A part of a device's path with a star for the number that the kernel gave out in the
 * order of finding; empty where there is none. below: the part before it. */
std::string with_star(std::string_view part, std::string_view below);

} // namespace kavplat_describe

#endif

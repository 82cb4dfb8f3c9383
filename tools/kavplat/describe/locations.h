/*
 * Where a device is in the machine, by its path below /sys/devices: which component
 * holds it, and what tells it from the others there.
 */
#ifndef KAVPLAT_DESCRIBE_LOCATIONS_H
#define KAVPLAT_DESCRIBE_LOCATIONS_H

#include "tools/kavplat/describe/counted_names.h"
#include "tools/kavplat/describe/machine.h"

#include <string>
#include <string_view>

namespace kavplat_describe
{

/* Null: there is no such slot. Which function of it a slot's address names does not
 * matter. */
component *slot_at(const machine &all, std::string_view pci_address);

struct location {
    component *holder;
    /* From the holder to the device, a PCI device at each hop: its number and function,
     * in hexadecimal, the number only where it is not 0: "1C.4-0". Bus numbers are not
     * in it: a card that is added changes them. */
    std::string rest;
};

/* Of a PCI device, or of what hangs on one. */
location locate(machine &all, const std::string &path);

/* What is said of a place (component::where) that goes into a name: of a device's path the
 * way to the last PCI device and what hangs below that, or its end, without what the kernel
 * counts; anything else as it is. */
std::string place_text(const std::string &where);

/* The order of places: addresses count as hexadecimal, the kernel's counting not at all. */
bool place_before(const std::string &one, const std::string &other);

/* The component that this very device is; null: none is. */
component *exactly_at(const machine &all, const std::string &path);

/* The memory module whose locator is in a text, such as a driver's label, or is it; null:
 * none is. */
component *module_named_in(const machine &all, const std::string &text);

std::string_view last_part(std::string_view path);
std::string_view without_last_part(std::string_view path);

} // namespace kavplat_describe

#endif

/*
 * Where a machine's components are found. A source that finds nothing, or breaks,
 * costs its own components and a line of complaint, nothing else.
 */
#ifndef KAVPLAT_DESCRIBE_SOURCES_H
#define KAVPLAT_DESCRIBE_SOURCES_H

#include "tools/kavplat/describe/machine.h"

#include <span>

namespace kavplat_describe
{

struct source {
    const char *name; /* what a complaint begins with */
    void (*find)(const tree &files, machine &into);
};

/* In the order in which they are asked: one may build on what those before it found. */
std::span<const source> sources();

void find_all(const tree &files, machine &into);

/* SMBIOS, or what the kernel tells of it, or the device tree: who made it, boards,
 * sockets, memory, slots. */
void find_smbios(const tree &files, machine &into);

/* Where SMBIOS has none: by the packages that the kernel knows. */
void find_processors(const tree &files, machine &into);

/* Cards and devices by their slot, or else by the way to them from the root of PCI; and
 * the bridges above them that are no ports of the root. */
void find_pci(const tree &files, machine &into);

/* NVMe, SATA and SAS; shelves with their bays. */
void find_drives(const tree &files, machine &into);

/* What has a device of its own: no bond, no bridge, no guest's share of a port. */
void find_network_ports(const tree &files, machine &into);

/* Batteries, uninterruptible supplies and the mains. */
void find_power_supplies(const tree &files, machine &into);

/* Sensors, on what they measure where that is known, or else on the board. */
void find_hwmon(const tree &files, machine &into);

/* Those of which hwmon does not say the same. */
void find_thermal_zones(const tree &files, machine &into);

/* Counters of memory errors, on the module that made them. */
void find_memory_errors(const tree &files, machine &into);

/* Lights of the machine, and not of keyboards. */
void find_leds(const tree &files, machine &into);

void find_watchdogs(const tree &files, machine &into);

} // namespace kavplat_describe

#endif

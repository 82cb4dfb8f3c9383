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

} // namespace kavplat_describe

#endif

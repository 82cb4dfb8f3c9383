/* Machines of each kind that a description can be made of, made up for tests. */
#ifndef KAVPLAT_TESTS_MADE_MACHINES_MACHINES_H
#define KAVPLAT_TESTS_MADE_MACHINES_MACHINES_H

#include "made_machines/made_machine.h"

#include <array>
#include <ostream>

namespace kavplat_describe_test
{

struct kind_of_machine {
    const char *name;
    void (*build)(made_machine &it);
};

inline std::ostream &operator<<(std::ostream &out, const kind_of_machine &each)
{
    return out << each.name;
}

void build_workstation(made_machine &it);
void build_laptop(made_machine &it);

/* A drive with its sensors, of which the list then says what it is. */
void build_nvme(made_machine &it, const std::string &device, const std::string &name, unsigned n);

extern const std::array<kind_of_machine, 6> kinds_of_machines;

} // namespace kavplat_describe_test

#endif

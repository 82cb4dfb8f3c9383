/* Sensors and indicators, as the sources add them. */
#ifndef KAVPLAT_DESCRIBE_PARTS_H
#define KAVPLAT_DESCRIBE_PARTS_H

#include "tools/kavplat/describe/machine.h"

namespace kavplat_describe
{

/* What a number with limits measures. */
struct measured {
    const char *component_type; /* of the catalogue */
    const char *type;           /* the description's "type" of a sensor */
    const char *units;
    double scale; /* from the kernel's unit */
};
extern const measured temperature, voltage, current, power, energy, humidity, speed, charge;

/* A threshold sensor whose value is read as `reading` says. */
component &add_reading(machine &into, component &holder, std::string label, const measured &what,
                       json reading);

/* Limits by the keys of a description, those first that are to be trusted most: what
 * contradicts one before it was left by the firmware as it came from the factory, and
 * what a register holds that nobody set is no limit. */
void add_limits(component &sensor, const measured &what,
                const std::vector<std::pair<std::string, double>> &limits);

component &add_reading(const tree &files, machine &into, component &holder, std::string label,
                       const measured &what, const std::string &path);

/* A file that holds 0 or 1. is_good: 1 is well. */
component &add_flag(const tree &files, machine &into, component &holder, std::string label,
                    const char *component_type, const std::string &path, bool is_good = false);

/* Something that is one way or the other, as `reading` says. */
component &add_discrete(machine &into, component &holder, std::string label,
                        const char *component_type, const char *type, json reading,
                        bool is_good = false);

/* What the description says for good, until it is written anew. */
component &add_state(machine &into, component &holder, std::string label,
                     const char *component_type, bool asserted, bool is_good = false);

component &add_presence(machine &into, component &holder, bool present);
component &add_presence(const tree &files, machine &into, component &holder,
                        const std::string &path);

/* A file that holds 0 when it is dark. Nothing where there is no such file. */
void add_indicator(const tree &files, machine &into, component &holder, std::string label,
                   const char *component_type, const std::string &path, double scale = 1,
                   double offset = 1);

} // namespace kavplat_describe

#endif

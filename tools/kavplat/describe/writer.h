/* From a machine to a description, the same text for the same machine. */
#ifndef KAVPLAT_DESCRIBE_WRITER_H
#define KAVPLAT_DESCRIBE_WRITER_H

#include "tools/kavplat/describe/machine.h"

namespace kavplat_describe
{

/* By the rules in machine.h, of all components. */
void give_names(machine &of);

/* Keys and components in a fixed order; every text is one that a description may have. */
json to_json(machine &of);

/* Takes out what tells one machine from another of the same make. */
void leave_out_serials(json &description);

/* Lays one description over another: texts of product and chassis, and components by
 * their names. What is null is taken out; a component whose "type" is null, with all
 * below it. False with the reason when the other is no description's form. */
bool merge(json &description, const json &over, std::string &why);

std::string to_text(const json &description);

} // namespace kavplat_describe

#endif

/* kavplat plug, unplug and set, without their command lines. */
#ifndef KAVPLAT_EDIT_COMMAND_H
#define KAVPLAT_EDIT_COMMAND_H

#include "edit.h"

#include <functional>
#include <iosfwd>
#include <memory>

namespace kavplat_edit
{

enum status { done = 0, refused = 1 };

struct target {
    std::string file;
    std::string output; /* "-" is the standard output; empty: the file itself */
};

/* What changes a sheet; as the functions of edit.h. */
using editing = std::function<std::string(sheet &in, std::string &told)>;

/* Reads, changes, has the loader judge, tells what the check warns of now and did not
 * before, and replaces the file at once: whoever reads it meets the old or the new one
 * whole. */
status run(const target &where, const editing &edit, std::ostream &out, std::ostream &errors);

/* Another description to take components from; null, and told, when it is not good. */
std::unique_ptr<sheet> read_sheet(const std::string &file, std::ostream &errors);

} // namespace kavplat_edit

#endif

/* The command line of the check: of `kavplat check`, or of another command that has it. */
#ifndef KAVPLAT_CHECK_COMMAND_H
#define KAVPLAT_CHECK_COMMAND_H

#include "check.h"

namespace CLI
{
class App;
}

namespace kavplat_check
{

/* Both live until the command line is parsed. */
void add_to(CLI::App &command, options &into);

} // namespace kavplat_check

#endif

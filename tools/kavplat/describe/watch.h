/* kavplat describe --watch: keeps a description current until it is told to end. */
#ifndef KAVPLAT_DESCRIBE_WATCH_H
#define KAVPLAT_DESCRIBE_WATCH_H

#include "tools/kavplat/describe/describe.h"

#include <string>

namespace kavplat_describe
{

/* The exit status: 0 after SIGTERM or SIGINT. Only what differs from the last look is
 * told on standard error. */
int watch(const options &asked);

/* Tells systemd, where it asked to be told, such as "READY=1\nSTATUS=...". */
void notify(const std::string &state);

} // namespace kavplat_describe

#endif

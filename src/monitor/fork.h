// An agent that becomes a daemon forks after it has loaded its modules, and
// leaves the monitor thread behind.
#ifndef KAVPLAT_MONITOR_FORK_H
#define KAVPLAT_MONITOR_FORK_H

namespace kavplat
{

// In the child, on the agent's thread: drops what there is of the cache and starts
// the monitor anew, which builds it.
void restart_monitor_after_fork();

} // namespace kavplat

#endif

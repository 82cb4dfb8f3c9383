// The watcher: a thread that looks at every sensor and every state at an interval, and
// an alarm of the agent that sends what is to be told. Requests then find what they need
// and do not wait for the platform.
//
//     kavplatWatchInterval SECONDS          in snmpd.conf, below the dlmod lines
//
// 0 turns the watcher off; entConfigChange is sent all the same.
#ifndef KAVPLAT_WATCH_WATCHER_H
#define KAVPLAT_WATCH_WATCHER_H

#include <chrono>

namespace kavplat
{

inline constexpr unsigned default_watch_interval = 10; // seconds
inline constexpr unsigned longest_watch_interval = 86400;

// On the agent's thread, by each module that wants one, when it is loaded. The thread
// begins once the agent's loop runs, so behind the fork of an agent that becomes a daemon,
// and runs anew in a fork that goes on as an agent. Again does nothing.
void start_watching();

// On the agent's thread, when a module is unloaded: the thread has ended when this
// returns, unless the platform keeps it for longer than longest_wait_for_watcher. It ends
// then as soon as it can; start_watching has it begin again.
void stop_watching();
extern std::chrono::milliseconds longest_wait_for_watcher;

} // namespace kavplat

#endif

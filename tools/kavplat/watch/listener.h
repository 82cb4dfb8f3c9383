/* Waiting, which a notification of an agent ends. For one thread. */
#ifndef KAVPLAT_WATCH_LISTENER_H
#define KAVPLAT_WATCH_LISTENER_H

#include <chrono>
#include <string>

namespace kavplat_watch
{

/* Where notifications arrive; empty, or why nothing can. */
std::string listen_at(const std::string &address);

/* True when a notification came; false when the time is over or a signal came. What it
 * says is not believed: it only ends the waiting. */
bool wait_for_notification(std::chrono::milliseconds longest);

} // namespace kavplat_watch

#endif

/* Threads of the platform's own inside somebody else's process. */
#ifndef KAVPLAT_DESCRIBED_THREADS_H
#define KAVPLAT_DESCRIBED_THREADS_H

#include <functional>
#include <thread>

namespace described_platform
{

/*
 * Starts a thread that shows under this name (at most 15 characters) and takes
 * no signal: those belong to the agent's main thread. Throws std::system_error
 * when no thread can be had.
 */
std::thread start_thread(const char *name, std::function<void()> body);

} // namespace described_platform

#endif

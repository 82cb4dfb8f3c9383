/* Threads of the platform's own inside somebody else's process. */
#ifndef KAVPLAT_DESCRIBED_THREADS_H
#define KAVPLAT_DESCRIBED_THREADS_H

#include <chrono>
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

/*
 * A child that a fork makes has the process's locks as they were (of the log, the
 * time zone, the loader, a sanitizer's allocator) and not the threads that held
 * them. So a thread of start_thread counts as working from before it starts to its
 * end, but for where it rests; and a fork waits until none works, this long at most.
 * After a wait in vain (for one in a dead file system) the next forks do not wait.
 */
extern std::chrono::milliseconds longest_wait_before_fork;

void stop_work_before_fork();
void resume_work_in_parent();
void forget_work_in_child();

/*
 * Around a wait of such a thread; on any other it does nothing. The end may wait for
 * a fork, so no lock is held there that another working thread may want.
 */
class at_rest
{
  public:
    at_rest();
    ~at_rest();
    at_rest(const at_rest &) = delete;
    at_rest &operator=(const at_rest &) = delete;
};

} // namespace described_platform

#endif

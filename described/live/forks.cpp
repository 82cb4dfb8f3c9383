#include "described/live/forks.h"

namespace described_platform
{

constinit mutex log_mutex;
constinit mutex pointers_mutex;

void hold_for_fork()
{
    log_mutex.lock();
    pointers_mutex.lock();
}

void release_after_fork()
{
    pointers_mutex.unlock();
    log_mutex.unlock();
}

} // namespace described_platform

#include "described/live/threads.h"

#include <csignal>
#include <pthread.h>

namespace described_platform
{

std::thread start_thread(const char *name, std::function<void()> body)
{
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    /* The new thread inherits the mask, so that there is no moment at which it
     * could take a signal. */
    pthread_sigmask(SIG_SETMASK, &all, &before);
    struct restore_mask {
        const sigset_t &mask;
        ~restore_mask() { pthread_sigmask(SIG_SETMASK, &mask, nullptr); }
    } restore{before};
    std::thread thread(std::move(body));
    pthread_setname_np(thread.native_handle(), name);
    return thread;
}

} // namespace described_platform

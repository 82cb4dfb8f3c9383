#include "described/watch/in_force.h"

#include "described/live/forks.h"

namespace described_platform
{
namespace
{

/* Without a destructor: threads may run until the process is gone. */
constinit description_pointer *in_force GUARDED_BY(pointers_mutex) = nullptr;

} // namespace

description_pointer current_description()
{
    const scoped_lock lock(pointers_mutex);
    return in_force == nullptr ? nullptr : *in_force;
}

void put_in_force(description_pointer next)
{
    const scoped_lock lock(pointers_mutex);
    if (in_force == nullptr) {
        in_force = new description_pointer;
    }
    in_force->swap(next); /* the old one goes when the lock is released */
}

} // namespace described_platform

#ifndef KAVPLAT_KAVDATA_CACHE_LOCK_INTERNAL_H
#define KAVPLAT_KAVDATA_CACHE_LOCK_INTERNAL_H

namespace kavplat
{

// Initialises the cache lock, once for the process whoever comes first: a
// reconnect must not touch a lock that another thread holds. Returns the result
// of that one initialisation.
int prepare_cache_lock();

// Whether this thread took the lock with monitor_fru_lock.
bool this_thread_holds_cache_lock();

// In the child of a fork, where no other thread is left to release the lock.
void renew_cache_lock_after_fork();

} // namespace kavplat

#endif

// What a fork of the agent leaves of the cache.
#ifndef KAVPLAT_KAVDATA_FORK_H
#define KAVPLAT_KAVDATA_FORK_H

namespace kavplat
{

// In the child, from an atfork handler: locks that another thread may have held
// when the process forked are renewed.
void renew_cache_locks_after_fork();

// In the child, on the agent's thread, before a new build: the cache starts from
// nothing. Its builder may have stopped half-way through anything, so what it
// had allocated is left to the process.
void forget_cache_after_fork();

} // namespace kavplat

#endif

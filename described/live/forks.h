/*
 * What no thread at all may be in the middle of while the process forks, the
 * platform's own or one that calls it: the child would find it taken for ever.
 */
#ifndef KAVPLAT_DESCRIBED_FORKS_H
#define KAVPLAT_DESCRIBED_FORKS_H

#include "described/live/mutex.h"

namespace described_platform
{

/* Held while a line is written, for the sake of the locks that net-snmp and libc
 * take then: that of syslog does not survive a fork. */
extern mutex log_mutex;

/* Guards what outlives a fork, a few pointers. Held for no longer than it takes to
 * copy one. */
extern mutex pointers_mutex;

void hold_for_fork() ACQUIRE(log_mutex, pointers_mutex);
void release_after_fork() RELEASE(log_mutex, pointers_mutex);

} // namespace described_platform

#endif

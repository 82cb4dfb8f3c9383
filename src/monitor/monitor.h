/*
 * The FRU event monitor: connects to the platform's event manager, builds the
 * cache at start-up and turns the platform's events into cache changes.
 *
 * What it has to say goes to the agent's debug facility under the token "monitor";
 * that it can not follow the platform any more, to the log as well.
 */
#ifndef KAVPLAT_MONITOR_MONITOR_H
#define KAVPLAT_MONITOR_MONITOR_H

#include "kavdata/cache_lock.h"
#include "platform/event_mgr.h"

#include <pthread.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/* The most recently started monitor thread. It is detached. */
extern pthread_t monitor_id;

/* The connection to the event manager, 0 while there is none. */
extern event_mgr_handle emHandle;

/* Starts a monitor thread, which registers and ends. Any thread. The result is
 * that of the thread's creation, 0 on success. */
int snmpd_monitor_fru_devices(void);

/* The monitor thread's body; argument and result mean nothing. */
void *monitor_fru_devices(void *unused);

/* Obtains a handle (10 attempts, 5 seconds apart), builds the cache if that has
 * not been done, subscribes to the events. 0, or -1 when any of it failed; what
 * had succeeded stays. One registration at a time: a second one waits. */
int evtmgr_register(void);

/* Receives the events, on the event manager's threads. Takes the cache lock for
 * insert, remove and update, none for a sensor refresh. */
void evtmgr_callback(void *context, int event_class, int event, const char *payload);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif

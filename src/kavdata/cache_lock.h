/*
 * The cache lock. It guards the cache's shape and every entry: physicalTable,
 * maxPhysicalIndex, localCacheSize, htab, cache_valid, entLastChangeTime and the
 * fields of each phys_entry. Who changes them holds it, but for the first build,
 * which nobody else can change the cache beside. Who only looks an index up may
 * do without it under the rule of kavdata/cache.h.
 *
 * It stands with the cache that it guards; the monitor, the tables and other
 * modules of the platform take it through the two calls below.
 */
#ifndef KAVPLAT_KAVDATA_CACHE_LOCK_H
#define KAVPLAT_KAVDATA_CACHE_LOCK_H

#include <pthread.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/* A plain mutex with default attributes: a thread that holds it must not take it
 * again. Use monitor_fru_lock rather than the mutex itself. */
extern pthread_mutex_t fru_mutex;

/* Takes and releases the cache lock. The result is that of the mutex call, 0 on
 * success. Any thread; neither logs. */
int monitor_fru_lock(void);
int monitor_fru_unlock(void);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif

#include "kavdata/cache_internal.h"

#include <atomic>

pthread_mutex_t fru_mutex = PTHREAD_MUTEX_INITIALIZER;

namespace kavplat
{

namespace
{

pthread_once_t prepared = PTHREAD_ONCE_INIT;
std::atomic<int> prepare_result{0};
thread_local bool holds_cache_lock = false;

void prepare()
{
    prepare_result = pthread_mutex_init(&fru_mutex, nullptr);
}

} // namespace

int prepare_cache_lock()
{
    pthread_once(&prepared, prepare);
    return prepare_result;
}

void take_cache_lock() KAV_NOT_ANALYSED
{
    monitor_fru_lock();
}

bool this_thread_holds_cache_lock()
{
    return holds_cache_lock;
}

void renew_cache_lock()
{
    // Whoever held it is not in this process.
    fru_mutex = PTHREAD_MUTEX_INITIALIZER;
    holds_cache_lock = false;
}

} // namespace kavplat

int monitor_fru_lock(void)
{
    kavplat::prepare_cache_lock();
    const int result = pthread_mutex_lock(&fru_mutex);
    kavplat::holds_cache_lock = result == 0;
    return result;
}

int monitor_fru_unlock(void) KAV_NOT_ANALYSED
{
    kavplat::holds_cache_lock = false;
    return pthread_mutex_unlock(&fru_mutex);
}

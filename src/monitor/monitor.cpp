#include "monitor/monitor.h"

#include "kavdata/cache.h"
#include "monitor/fork.h"
#include "trace/trace.h"

#include <atomic>
#include <cstring>
#include <unistd.h>

pthread_t monitor_id;

namespace kavplat
{

namespace
{

constexpr int max_retries = 9;
constexpr unsigned retry_seconds = 5;

// Cleared by a disconnect: the cache in memory is then kept as it is.
std::atomic<uint8_t> need_init_local_cache{1};

// Held for a whole registration, so that a disconnect during the build waits its
// turn.
mutex registration_mutex;

} // namespace

} // namespace kavplat

event_mgr_handle emHandle KAV_GUARDED_BY(kavplat::registration_mutex) = 0;

namespace kavplat
{

namespace
{

bool obtain_handle(const char *caller) KAV_REQUIRES(registration_mutex)
{
    for (int attempt = 1; event_mgr_get_handle(&emHandle, evtmgr_callback, nullptr) != 0;
         attempt++) {
        if (attempt > max_retries) {
            KAV_TRACE_AS(caller, KAVPLAT_ROOM, "monitor",
                         "%s:unable to obtain event manager handle, max retry %d\n", caller,
                         attempt);
            return false;
        }
        // A call that failed may have left anything there. After the last one it
        // stays: meant.
        emHandle = 0;
        KAV_TRACE_AS(caller, KAVPLAT_ROOM, "monitor",
                     "%s:unabled to obtain event manager handle, retry = %d\n", caller, attempt);
        const at_rest rest;
        sleep(retry_seconds);
    }
    return true;
}

// One of the messages has a full stop where the others have a comma: meant.
struct subscription {
    int event_class;
    int event;
    const char *failure;
};

constexpr subscription subscriptions[] = {
    {EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_HOT_INSERT, "%s:subscribe hot insert failed, rc=%d\n"},
    {EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_HOT_REMOVE, "%s:subscribe hot remove failed. rc=%d\n"},
    {EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_UPDATE_INVENTORY,
     "%s:subscribe chassis update inventory failed, rc=%d\n"},
    {EVENT_MGR_CLASS_INTERNAL, EVENT_MGR_REFRESH_SENSOR,
     "%s:subscribe internal sensor refresh failed, rc=%d\n"},
};

bool subscribe(const char *caller) KAV_REQUIRES(registration_mutex)
{
    if (event_mgr_subscribe_event_class(emHandle, EVENT_MGR_CLASS_HARDWARE) != 0) {
        KAV_TRACE_AS(caller, KAVPLAT_ROOM, "monitor", "%s:unabled to subscribe event class\n",
                     caller);
        return false;
    }
    for (const subscription &s : subscriptions) {
        if (const int rc = event_mgr_subscribe_event(emHandle, s.event_class, s.event); rc != 0) {
            KAV_TRACE_AS(caller, KAVPLAT_ROOM, "monitor", s.failure, caller, rc);
            return false;
        }
    }
    // How a disconnect is heard of; nobody examines the result: meant.
    event_mgr_subscribe_event(emHandle, EVENT_MGR_CLASS_CONNECTION, EVENT_MGR_DISCONNECT);
    return true;
}

int register_once() KAV_REQUIRES(registration_mutex)
{
    constexpr const char *caller = "evtmgr_register";
    if (prepare_cache_lock() != 0) {
        KAV_TRACE_AS(caller, KAVPLAT_ROOM, "monitor", "%s:unable to prepare mutex\n", caller);
    }
    if (!obtain_handle(caller)) {
        return -1;
    }
    KAV_TRACE_AS(caller, KAVPLAT_ROOM, "monitor", "%s:need_init_local_cache %d\n", caller,
                 int{need_init_local_cache});
    if (need_init_local_cache) {
        init_local_cache();
        save_indexes();
    }
    if (!subscribe(caller)) {
        return -1;
    }
    KAV_TRACE_AS(caller, KAVPLAT_ROOM, "monitor", "%s:register with event mgr done!\n", caller);
    return 0;
}

// What an event says when it arrives and when the lock fails. The texts differ
// between the branches, in a blank here and a colon there: meant.
struct change {
    const char *received;
    const char *lock_failed;
    const char *unlock_failed;
    void (*apply)(const char *nac);
};

constexpr change hot_remove = {"%s:RECEIVE HOT REMOVE EVENT %s\n", "%s:unable to take mutex\n",
                               "%s: unable to release mutex\n", set_fru_absent};
constexpr change hot_insert = {"%s:RECEIVE HOT INSERT EVENT %s\n", "%s: unable to take mutex\n",
                               "%sunable to release mutex\n", set_fru_prsnt};
constexpr change update_inventory = {"%s:RECEIVE UPDATE INVENTORY EVENT %s\n",
                                     "%s: unable to take mutex\n", "%sunable to release mutex\n",
                                     partial_reconfigure};

void apply(const change &what, const char *payload)
{
    constexpr const char *caller = "evtmgr_callback";
    KAV_TRACE_AS(caller, KAVPLAT_ROOM, "monitor", what.received, caller, printable(payload));
    if (monitor_fru_lock() != 0) {
        KAV_TRACE_AS(caller, KAVPLAT_ROOM, "monitor", what.lock_failed, caller);
        return;
    }
    what.apply(payload);
    if (monitor_fru_unlock() != 0) {
        KAV_TRACE_AS(caller, KAVPLAT_ROOM, "monitor", what.unlock_failed, caller);
    }
    save_indexes();
}

} // namespace

void restart_monitor_after_fork()
{
    registration_mutex.renew();
    {
        const lock_guard lock(registration_mutex);
        need_init_local_cache = 1;
        emHandle = 0;
    }
    forget_cache_after_fork();
    snmpd_monitor_fru_devices();
}

} // namespace kavplat

int snmpd_monitor_fru_devices(void)
{
    KAV_TRACE("monitor", "%s\n", "snmpd_monitor_fru_devices");
    pthread_t id;
    const int result = kavplat::start_thread(&id, monitor_fru_devices, nullptr);
    if (result == 0) {
        std::atomic_ref(monitor_id).store(id, std::memory_order_relaxed);
    }
    return result;
}

void *monitor_fru_devices(void *)
{
    const kavplat::at_work work;
    KAV_TRACE("monitor", "%s\n", "monitor_fru_devices");
    pthread_detach(pthread_self());
    evtmgr_register();
    // A detached thread cannot be joined, least of all by itself: this returns at
    // once with an error that nobody looks at. Meant.
    pthread_join(pthread_self(), nullptr);
    return nullptr;
}

int evtmgr_register(void)
{
    {
        const kavplat::at_rest rest;
        kavplat::registration_mutex.lock();
    }
    const int result = kavplat::register_once();
    kavplat::registration_mutex.unlock();
    return result;
}

void evtmgr_callback(void *, int event_class, int event, const char *payload)
{
    using namespace kavplat;

    const at_work work;
    if (event_class == EVENT_MGR_CLASS_HARDWARE) {
        switch (event) {
        case EVENT_MGR_HOT_REMOVE:
            apply(hot_remove, payload);
            break;
        case EVENT_MGR_HOT_INSERT:
            apply(hot_insert, payload);
            break;
        case EVENT_MGR_UPDATE_INVENTORY:
            apply(update_inventory, payload);
            break;
        default:
            break;
        }
    } else if (event_class == EVENT_MGR_CLASS_INTERNAL && event == EVENT_MGR_REFRESH_SENSOR) {
        KAV_TRACE("monitor", "%s:receive REFRESH_SENSOR message\n", "evtmgr_callback");
        reload_thresholds(payload);
    } else if (event_class == EVENT_MGR_CLASS_CONNECTION && event == EVENT_MGR_DISCONNECT) {
        KAV_TRACE("monitor", "%s:receive DISCONNECT message\n", "evtmgr_callback");
        need_init_local_cache = 0;
        if (const int rc = snmpd_monitor_fru_devices(); rc != 0) {
            KAV_TRACE("monitor", "%s:unable to start the monitor thread, rc=%d\n",
                      "evtmgr_callback", rc);
            snmp_log(LOG_ERR,
                     "%s:FAILED:%s, status=%d (%s): what changes in the server from now on is not "
                     "noticed; restart the agent where it may have more threads\n",
                     "evtmgr_callback", "snmpd_monitor_fru_devices", rc, strerrordesc_np(rc));
        }
    }
}

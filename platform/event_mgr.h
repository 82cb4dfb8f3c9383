/*
 * The event manager: how the platform tells libPlatformMIB of hot-plug,
 * inventory and sensor changes. Implemented by the platform, beside capi.h.
 *
 * Delivery: events of one handle are delivered one after the other, in the
 * order in which they happened, on a thread of the event manager's own, never
 * from inside a capi_* or event_mgr_* call. The callback may call the
 * component API. An event that was not subscribed is not delivered.
 *
 * The numeric values are fixed by the contract.
 */
#ifndef KAVPLAT_PLATFORM_EVENT_MGR_H
#define KAVPLAT_PLATFORM_EVENT_MGR_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum event_mgr_class {
    EVENT_MGR_CLASS_HARDWARE = 105,
    EVENT_MGR_CLASS_INTERNAL = 118,
    EVENT_MGR_CLASS_CONNECTION = -1
};

/* Events of EVENT_MGR_CLASS_HARDWARE; the payload is a NAC name. */
enum event_mgr_hardware_event {
    EVENT_MGR_HOT_INSERT = 2,       /* the component, and all below it, is now there */
    EVENT_MGR_HOT_REMOVE = 3,       /* the component, and all below it, is gone */
    EVENT_MGR_UPDATE_INVENTORY = 10 /* the inventory below the component changed; of the
                                       root: whatever is no longer listed is gone */
};

/* Events of EVENT_MGR_CLASS_INTERNAL. */
enum event_mgr_internal_event {
    EVENT_MGR_REFRESH_SENSOR = 3 /* payload: NAC name of a sensor whose thresholds changed */
};

/* Events of EVENT_MGR_CLASS_CONNECTION. */
enum event_mgr_connection_event {
    EVENT_MGR_DISCONNECT = -1 /* the handle is dead; the payload is null. Get a new one. */
};

/* An open connection; never 0. */
typedef uint32_t event_mgr_handle;

/* context is what was given with the callback. payload is valid during the
 * call only and may be null. */
typedef void (*event_mgr_callback)(void *context, int event_class, int event, const char *payload);

#pragma GCC visibility push(default)

/*
 * Opens a connection whose subscribed events go to callback. 0 on success;
 * any other result means "not now, try later".
 */
int event_mgr_get_handle(event_mgr_handle *handle, event_mgr_callback callback, void *context);

/* Announces interest in a class; an event of it is delivered only once it is
 * subscribed too. 0 on success, any other value is a code to log. */
int event_mgr_subscribe_event_class(event_mgr_handle handle, int event_class);

/* Subscribes one event of a class. (-1, -1) subscribes DISCONNECT. 0 on
 * success, any other value is a code to log. */
int event_mgr_subscribe_event(event_mgr_handle handle, int event_class, int event);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif

/* The entry points of the event manager. Nothing throws across them. */
#include "platform/event_mgr.h"

#include "described/platform.h"

using namespace described_platform;

int event_mgr_get_handle(event_mgr_handle *handle, event_mgr_callback callback, void *context)
{
    if (handle == nullptr || callback == nullptr) {
        return -1;
    }
    try {
        return the_machine().events.get_handle(*handle, callback, context);
    } catch (...) {
        return -1;
    }
}

int event_mgr_subscribe_event_class(event_mgr_handle handle, int event_class)
{
    try {
        return the_machine().events.subscribe_class(handle, event_class);
    } catch (...) {
        return -1;
    }
}

int event_mgr_subscribe_event(event_mgr_handle handle, int event_class, int event)
{
    try {
        return the_machine().events.subscribe(handle, event_class, event);
    } catch (...) {
        return -1;
    }
}

/*
 * A complete platform for libPlatformMIB, as small as one can be: a server with
 * a board, a temperature sensor, a light, and a fan module that is plugged and
 * pulled while the agent runs.
 *
 * The fan module is there while the file exists that MINIMAL_PLATFORM_FAN names.
 * On your machine a presence pin or a message of the controller takes the file's
 * place; nothing else changes.
 *
 *     cc -std=c11 -fPIC -shared -pthread -fvisibility=hidden -I INCLUDE \
 *        -o libminimal.so minimal_platform.c
 */
#define _POSIX_C_SOURCE 200809L

#include <pthread.h>
#include <signal.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "platform/capi.h"
#include "platform/event_mgr.h"

/* [components] */
/* The number of a type decides the class of its rows: module, sensor, fan. */
enum { TYPE_BOARD = 9, TYPE_FAN_MODULE = 13, TYPE_TEMPERATURE = 16, TYPE_LIGHT = 31 };

struct component {
    const char *name;
    uint32_t type;
    bool has_fru_info;     /* capi_get_fru_info answers */
    bool is_hot_pluggable; /* may come and go */
};

/* A container stands before what it holds: lists are made in this order. */
static const struct component components[] = {
    {"/SYS", CAPI_TYPE_SYSTEM, false, false}, /* the root */
    {"/SYS/MB", TYPE_BOARD, true, false},
    {"/SYS/MB/T_AMB", TYPE_TEMPERATURE, false, false}, /* on the board */
    {"/SYS/LOCATE", TYPE_LIGHT, false, false},
    {"/SYS/FM0", TYPE_FAN_MODULE, true, true}, /* comes and goes */
};
enum { COMPONENTS = sizeof components / sizeof components[0] };
static const char fan_module[] = "/SYS/FM0";
/* [end] */

/* [state] */
/*
 * What changes, and the lock that every call takes to look at it. The lock is
 * never held while the callback runs: the callback waits for the library's own
 * lock, and who holds that may be waiting in a call here.
 */
static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_once_t once = PTHREAD_ONCE_INIT;
static bool fan_module_is_there;

static bool fan_module_is_plugged(void)
{
    const char *path = getenv("MINIMAL_PLATFORM_FAN");
    return path != NULL && access(path, F_OK) == 0;
}

static void lock(void)
{
    pthread_mutex_lock(&mutex);
}

static void unlock(void)
{
    pthread_mutex_unlock(&mutex);
}

/*
 * Before the first answer; from then on the event thread alone changes the state.
 * An agent goes into the background by a fork, which must not leave the lock
 * taken in the child by a thread that is not there any more.
 */
static void start(void)
{
    fan_module_is_there = fan_module_is_plugged();
    pthread_atfork(lock, unlock, unlock);
}

static bool is_there(const struct component *c)
{
    pthread_once(&once, start);
    lock();
    const bool there = strcmp(c->name, fan_module) != 0 || fan_module_is_there;
    unlock();
    return there;
}

/* Null when there is no such component now. */
static const struct component *find(const char *name)
{
    for (size_t i = 0; name != NULL && i < COMPONENTS; i++) {
        if (strcmp(components[i].name, name) == 0) {
            return is_there(&components[i]) ? &components[i] : NULL;
        }
    }
    return NULL;
}
/* [end] */

/* [inventory] */
static bool is_at_or_below(const char *name, const char *top)
{
    const size_t length = strlen(top);
    return strncmp(name, top, length) == 0 && (name[length] == '\0' || name[length] == '/');
}

static void fill(struct capi_inventory_record *record, const struct component *c)
{
    memset(record, 0, sizeof *record);
    /* A name has to stay valid until the list is released; these always are. */
    record->nac_name = c->name;
    record->nac_name_length = (uint32_t)strlen(c->name);
    record->component_type = c->type;
    if (c->has_fru_info) {
        record->capabilities[CAPI_CAP_FRU_INFO_BYTE] |= CAPI_CAP_FRU_INFO;
    }
    if (c->is_hot_pluggable) {
        record->capabilities[CAPI_CAP_HOT_PLUGGABLE_BYTE] |= CAPI_CAP_HOT_PLUGGABLE;
    }
}

int capi_get_inventory(const char *nac_name, int mode, uint32_t *count,
                       struct capi_inventory_record **items)
{
    static const struct component top = {"/", 0, false, false};
    const bool wants_root =
        mode == CAPI_INVENTORY_ROOT && nac_name != NULL && strcmp(nac_name, "/") == 0;
    if (!wants_root && (mode != CAPI_INVENTORY_SUBTREE || find(nac_name) == NULL)) {
        return -1;
    }
    struct capi_inventory_record *list = calloc(COMPONENTS, sizeof *list);
    if (list == NULL) {
        return -1;
    }
    uint32_t n = 0;
    if (wants_root) {
        fill(&list[n++], &top);
        fill(&list[n++], &components[0]);
    } else {
        for (size_t i = 0; i < COMPONENTS; i++) {
            if (is_at_or_below(components[i].name, nac_name) && is_there(&components[i])) {
                fill(&list[n++], &components[i]);
            }
        }
    }
    *count = n;
    *items = list;
    return 0;
}

void capi_free_inventory(struct capi_inventory_record *items, uint32_t count)
{
    (void)count;
    free(items);
}
/* [end] */

/* [types] */
int capi_get_component_desc_str(uint32_t component_type, const char **text)
{
    switch (component_type) {
    case CAPI_TYPE_SYSTEM:
        *text = "Server";
        return 0;
    case TYPE_BOARD:
        *text = "System board";
        return 0;
    case TYPE_TEMPERATURE:
        *text = "Temperature sensor";
        return 0;
    case TYPE_LIGHT:
        *text = "Light";
        return 0;
    case TYPE_FAN_MODULE:
        *text = "Fan module";
        return 0;
    default:
        return -1;
    }
}

int capi_is_sensor_type(uint32_t component_type, int32_t *flag)
{
    *flag = component_type == TYPE_TEMPERATURE ? 1 : 0;
    return 0;
}

int capi_is_indicator_type(uint32_t component_type, int32_t *flag)
{
    *flag = component_type == TYPE_LIGHT ? 1 : 0;
    return 0;
}
/* [end] */

/* [sensor] */
int capi_get_sensor_info(const char *nac_name, int selector, struct capi_sensor_record *record)
{
    const struct component *c = find(nac_name);
    if (c == NULL || c->type != TYPE_TEMPERATURE || selector != CAPI_SENSOR_INFO_ALL) {
        return -1;
    }
    memset(record, 0, sizeof *record);
    snprintf(record->name, sizeof record->name, "%s", nac_name);
    record->sensor_class = CAPI_SENSOR_THRESHOLD;
    record->sensor_type = CAPI_SENSOR_TEMPERATURE;
    record->units = CAPI_UNITS_DEGREES_C;
    record->upper_non_critical = 35.0F;
    record->upper_critical = 40.0F;
    record->flags = CAPI_UPPER_NON_CRITICAL_VALID | CAPI_UPPER_CRITICAL_VALID;
    return 0;
}

int capi_get_sensor(int reserved, const char *nac_name, struct capi_sensor_record *record)
{
    (void)reserved;
    const int status = capi_get_sensor_info(nac_name, CAPI_SENSOR_INFO_ALL, record);
    if (status != 0) {
        return status;
    }
    /* From memory: where a read is slow, a thread of yours reads beforehand. */
    record->reading = 24.5F;
    record->reading_status = CAPI_READING_VALID;
    return 0;
}

/* Of discrete sensors, of which there are none here. */
int capi_is_sensor_with_OK_semantics(const void *sensor)
{
    (void)sensor;
    return 0;
}

int capi_get_indicator(int reserved, const char *nac_name, struct capi_indicator_record *record)
{
    (void)reserved;
    const struct component *c = find(nac_name);
    if (c == NULL || c->type != TYPE_LIGHT) {
        return -1;
    }
    memset(record, 0, sizeof *record);
    record->state = CAPI_INDICATOR_OFF;
    return 0;
}
/* [end] */

/* [absent] */
/* A call for what no component has: any status but 0. */
int capi_get_power_state(int reserved, const char *nac_name, int32_t *state)
{
    (void)reserved;
    (void)nac_name;
    (void)state;
    return -1;
}

int capi_get_rdy2rm_status(int reserved, const char *nac_name, int32_t *status)
{
    (void)reserved;
    (void)nac_name;
    (void)status;
    return -1;
}

int capi_get_enable_disable_state(const char *nac_name, int32_t *state, char *buffer, int length)
{
    (void)nac_name;
    (void)state;
    (void)buffer;
    (void)length;
    return -1;
}
/* [end] */

/* [identity] */
int capi_get_fru_info(const char *nac_name, struct capi_fru_record *record)
{
    const struct component *c = find(nac_name);
    if (c == NULL || !c->has_fru_info) {
        return -1;
    }
    memset(record, 0, sizeof *record);
    snprintf(record->manufacturer, sizeof record->manufacturer, "Example Works");
    snprintf(record->model, sizeof record->model, "%s",
             c->type == TYPE_BOARD ? "EX-BOARD" : "EX-FAN");
    snprintf(record->serial, sizeof record->serial, "%s",
             c->type == TYPE_BOARD ? "EXB-0001" : "EXF-0001");
    return 0;
}

int capi_get_product_ops_info(int reserved, struct capi_product_record *record)
{
    (void)reserved;
    memset(record, 0, sizeof *record);
    snprintf(record->model, sizeof record->model, "EX-1");
    snprintf(record->serial, sizeof record->serial, "EX1-0001");
    snprintf(record->description, sizeof record->description, "Minimal example server");
    return 0;
}

int capi_get_chassis_ops_info(struct capi_chassis_record *record)
{
    memset(record, 0, sizeof *record);
    snprintf(record->model, sizeof record->model, "EX-CHASSIS");
    return 0;
}

/* Where nobody knows such an identifier, the column stays empty. */
int capi_get_product_vantor_id(char *buffer, int length)
{
    (void)buffer;
    (void)length;
    return -1;
}

int capi_get_chassis_vantor_id(char *buffer, int length)
{
    (void)buffer;
    (void)length;
    return -1;
}
/* [end] */

/* [events] */
/*
 * One connection is enough: the library has one. A new handle makes the one
 * before it invalid.
 */
static struct {
    event_mgr_handle handle; /* 0: nobody has asked yet */
    event_mgr_callback callback;
    void *context;
    bool wants_insert;
    bool wants_remove;
} connection;
/* The process that has the thread; after a fork the child has none. */
static pid_t event_thread_of;

/*
 * The only place where events come from, so that they come one after the other.
 * The change is in force before it is told: the callback asks for the component
 * and has to find it, or not to find it any more.
 */
static void look_at_fan_module(void)
{
    const bool plugged = fan_module_is_plugged();
    lock();
    const bool wanted = plugged ? connection.wants_insert : connection.wants_remove;
    if (plugged == fan_module_is_there) {
        unlock();
        return;
    }
    fan_module_is_there = plugged;
    const event_mgr_callback callback = connection.callback;
    void *const context = connection.context;
    unlock();
    if (wanted) {
        callback(context, EVENT_MGR_CLASS_HARDWARE,
                 plugged ? EVENT_MGR_HOT_INSERT : EVENT_MGR_HOT_REMOVE, fan_module);
    }
}

static void *event_thread(void *unused)
{
    const struct timespec pause = {.tv_sec = 0, .tv_nsec = 20000000};
    (void)unused;
    for (;;) {
        look_at_fan_module();
        nanosleep(&pause, NULL);
    }
    return NULL;
}

/* With the lock held. The agent's signals are its own, so the thread takes none. */
static int start_event_thread(void)
{
    pthread_t thread;
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const int result = pthread_create(&thread, NULL, event_thread, NULL);
    pthread_sigmask(SIG_SETMASK, &before, NULL);
    if (result == 0) {
        pthread_detach(thread);
    }
    return result;
}

int event_mgr_get_handle(event_mgr_handle *handle, event_mgr_callback callback, void *context)
{
    if (handle == NULL || callback == NULL) {
        return -1;
    }
    pthread_once(&once, start);
    lock();
    const event_mgr_handle next = connection.handle + 1;
    memset(&connection, 0, sizeof connection);
    connection.handle = next != 0 ? next : 1;
    connection.callback = callback;
    connection.context = context;
    *handle = connection.handle;
    unlock();
    return 0;
}

int event_mgr_subscribe_event_class(event_mgr_handle handle, int event_class)
{
    (void)event_class;
    lock();
    const bool known = handle != 0 && handle == connection.handle;
    unlock();
    return known ? 0 : -1;
}

int event_mgr_subscribe_event(event_mgr_handle handle, int event_class, int event)
{
    int status = -1;
    lock();
    if (handle != 0 && handle == connection.handle) {
        if (event_class == EVENT_MGR_CLASS_HARDWARE) {
            connection.wants_insert |= event == EVENT_MGR_HOT_INSERT;
            connection.wants_remove |= event == EVENT_MGR_HOT_REMOVE;
        }
        /* The others can be subscribed, and never happen here. The thread starts
         * with the last that the library subscribes. */
        status = 0;
        if (event_class == EVENT_MGR_CLASS_CONNECTION && event_thread_of != getpid()) {
            status = start_event_thread();
            event_thread_of = status == 0 ? getpid() : 0;
        }
    }
    unlock();
    return status;
}
/* [end] */

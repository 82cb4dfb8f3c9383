/*
 * The component API: what libPlatformMIB asks of the platform that it runs on.
 *
 * A firmware team implements these calls (and those of event_mgr.h) in a
 * shared library; libPlatformMIB calls them and nothing else to learn of
 * hardware. The calls, records and codes below are an ABI that several
 * implementations share: nothing here may change its size, order or value.
 *
 * Conventions for every call, unless its own comment says otherwise:
 *  - The result is 0 on success. Any other value is a status of the platform's
 *    own; the caller logs it and treats it as a failure. -1 is a good choice
 *    when there is nothing better to say.
 *  - On failure the output arguments are left unspecified and nothing has to
 *    be released.
 *  - Records are native structures in the byte order of the host. The caller
 *    owns the memory of the records that it passes in.
 *  - Texts are NUL-terminated within their field. Of serial numbers, aliases and
 *    vantor identifiers the first 31 bytes are served, of the description of a type
 *    255, both in whole characters, and of all other texts all.
 *  - A NAC name is a component's slash-separated path such as "/SYS/MB/P0".
 *    Its parent is what stands before the last '/'.
 *  - Calls arrive from several threads at once: the agent's thread (while a
 *    request is served, with the library's cache lock held), the library's
 *    watcher, which asks for every live value at an interval, its monitor
 *    thread and the thread on which the event manager delivers. Two of them
 *    may ask for the same component. An implementation locks what it shares;
 *    hardware that stands only one question at a time is kept behind a lock
 *    of the implementation's own, for the library asks all the same. It must
 *    not deliver an event from inside one of these calls, and must not call
 *    back into the library.
 *  - A call on the agent's thread stalls every SNMP request while it lasts.
 *    Answer from memory, or bound the wait. With the watcher on, the agent's
 *    thread asks only for what the watcher has not asked for yet, and for
 *    everything again when one call has kept the watcher for ten seconds.
 */
#ifndef KAVPLAT_PLATFORM_CAPI_H
#define KAVPLAT_PLATFORM_CAPI_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#define CAPI_STATIC_ASSERT static_assert
#else
#define CAPI_STATIC_ASSERT _Static_assert
#endif

/* ---- Codes ------------------------------------------------------------ */

/* Second argument of capi_get_inventory. */
enum capi_inventory_mode {
    /* The component and all below it, containers before what they hold. */
    CAPI_INVENTORY_SUBTREE = 4,
    /* Of "/": two records, "/" itself and then the root component. */
    CAPI_INVENTORY_ROOT = 5
};

/* Room for the name of a network interface, the NUL included. */
enum { CAPI_INTERFACE_NAME_SIZE = 16 };

/* Second argument of capi_get_sensor_info; the library passes no other. */
enum { CAPI_SENSOR_INFO_ALL = -9 };

/*
 * Component types to which the library gives a meaning of their own. Every
 * other type only selects the ENTITY-MIB class of the component's row, see
 * component_class.h.
 */
enum capi_component_type {
    CAPI_TYPE_CHASSIS = 2,            /* chassis(3): takes the product texts */
    CAPI_TYPE_SYSTEM = 3,             /* chassis(3): takes the product texts */
    CAPI_TYPE_DRIVE_BAY = 14,         /* container(5): with CAPI_CAP_HOLDER and a name that
                                         begins with "/SYS/HDD" and is shorter than eleven
                                         characters, the sensor "<name>/PRSNT" is asked */
    CAPI_TYPE_FAULT_SENSOR = 18,      /* a deviating state is a major alarm */
    CAPI_TYPE_PREDICTIVE_SENSOR = 19, /* a deviating state is a warning */
    CAPI_TYPE_SLOT_IDENTITY = 26,     /* a sensor whose reading is a slot number; its
                                         limits count only after REFRESH_SENSOR */
    CAPI_TYPE_MIDPLANE = 59           /* other(1): takes the chassis texts */
};

/*
 * Capability bits, one byte index and one mask each, in
 * capi_inventory_record.capabilities.
 */
enum {
    CAPI_CAP_STATEFUL_BYTE = 0, /* reports an operational state */
    CAPI_CAP_STATEFUL = 0x04,
    CAPI_CAP_FIELD_REPLACEABLE_BYTE = 2, /* a FRU; ready-to-remove and power states readable */
    CAPI_CAP_FIELD_REPLACEABLE = 0x02,
    CAPI_CAP_HOLDER_BYTE = 2, /* holds replaceable components */
    CAPI_CAP_HOLDER = 0x08,
    CAPI_CAP_POWER_BYTE = 3,
    CAPI_CAP_POWER_READABLE = 0x02,     /* power state readable */
    CAPI_CAP_POWER_CONTROLLABLE = 0x04, /* power state readable and settable */
    CAPI_CAP_POWER_STANDBY = 0x08,      /* runs on standby power */
    CAPI_CAP_FRU_INFO_BYTE = 4,         /* capi_get_fru_info answers; a FRU */
    CAPI_CAP_FRU_INFO = 0x02,
    CAPI_CAP_HOT_PLUGGABLE_BYTE = 6, /* may be changed while running; a FRU */
    CAPI_CAP_HOT_PLUGGABLE = 0x02,
    CAPI_CAP_ENABLE_STATE_BYTE = 7, /* capi_get_enable_disable_state answers */
    CAPI_CAP_ENABLE_STATE = 0x02,
    CAPI_CAP_RESETTABLE_BYTE = 9, /* can be reset on its own */
    CAPI_CAP_RESETTABLE = 0x01
};

/* capi_sensor_record.sensor_class */
enum capi_sensor_class {
    CAPI_SENSOR_THRESHOLD = 1, /* numeric, with thresholds */
    CAPI_SENSOR_DISCRETE = 2   /* two states: a reading of exactly 2.0 is "true" */
};

/* capi_sensor_record.sensor_type */
enum capi_sensor_type {
    CAPI_SENSOR_TEMPERATURE = 1,
    CAPI_SENSOR_VOLTAGE = 2,
    CAPI_SENSOR_CURRENT = 3,
    CAPI_SENSOR_TACHOMETER = 4,
    CAPI_SENSOR_PRESENCE = 7,
    CAPI_SENSOR_HUMIDITY = 19
};

/* capi_sensor_record.units */
enum capi_sensor_units {
    CAPI_UNITS_DEGREES_C = 1,
    CAPI_UNITS_DEGREES_F = 2,
    CAPI_UNITS_KELVIN = 3,
    CAPI_UNITS_VOLTS = 4,
    CAPI_UNITS_AMPS = 5,
    CAPI_UNITS_WATTS = 6,
    CAPI_UNITS_RPM = 7,
    CAPI_UNITS_HERTZ = 8,
    CAPI_UNITS_PERCENT = 9,
    CAPI_UNITS_HOURS = 10
};

/* capi_sensor_record.reading_status; any value but INVALID is a good reading */
enum { CAPI_READING_VALID = 0, CAPI_READING_INVALID = 1 };

/* capi_sensor_record.flags: which thresholds are valid; STATE_SEMANTICS, which says
 * that a discrete sensor's state is given by the field state; and ALTERNATING, in
 * what capi_get_sensor_info answers, that the volts of a threshold sensor are those
 * of an alternating voltage. */
enum capi_sensor_flags {
    CAPI_LOWER_NON_CRITICAL_VALID = 0x01,
    CAPI_LOWER_CRITICAL_VALID = 0x02,
    CAPI_LOWER_FATAL_VALID = 0x04,
    CAPI_UPPER_NON_CRITICAL_VALID = 0x08,
    CAPI_UPPER_CRITICAL_VALID = 0x10,
    CAPI_UPPER_FATAL_VALID = 0x20,
    CAPI_STATE_SEMANTICS = 0x40,
    CAPI_ALTERNATING = 0x80
};

/* capi_indicator_record.state; any other value is an unrecognised state */
enum capi_indicator_state {
    CAPI_INDICATOR_OFF = 1,
    CAPI_INDICATOR_ON = 2,
    CAPI_INDICATOR_SLOW_BLINK = 3,
    CAPI_INDICATOR_FAST_BLINK = 4,
    CAPI_INDICATOR_STANDBY_BLINK = 5
};

/* What it means that an indicator is on: capi_get_indicator_meaning. An indicator that
 * shows an activity or a place, or that all is well, has none of these. */
enum capi_indicator_meaning {
    CAPI_MEANS_SERVICE = 1, /* somebody is to look after the component: a warning */
    CAPI_MEANS_FAULT = 2    /* the component has failed: critical */
};

/* capi_get_power_state; any other value is an unknown state */
enum capi_power_state {
    CAPI_POWER_OFF = 1,
    CAPI_POWER_ON = 2,
    CAPI_POWER_STANDBY = 3,
    CAPI_POWER_SHUTTING_DOWN = 4
};

/* capi_get_rdy2rm_status; any value but NOT_READY means ready to remove */
enum capi_rdy2rm_status { CAPI_READY_TO_REMOVE = 0, CAPI_NOT_READY_TO_REMOVE = 1 };

/* capi_get_enable_disable_state; any value but DISABLED means enabled */
enum capi_enable_state { CAPI_DISABLED = 1, CAPI_ENABLED = 2 };

/* ---- Records ---------------------------------------------------------- */

/* One component of an inventory list. */
struct capi_inventory_record {
    const char *nac_name;     /* the platform's, valid until the list is released */
    uint32_t nac_name_length; /* strlen(nac_name); 0 means that the component has no name */
    uint8_t capabilities[10]; /* CAPI_CAP_* */
    uint8_t reserved[2];
    uint32_t component_type; /* enum capi_component_type, or any other type */
};

/* A sensor's reading and what is known of the sensor: 128 bytes. */
struct capi_sensor_record {
    char name[64];        /* the sensor's own name, bounded, NUL-terminated. A discrete
                             sensor that has "/SYS/IOX" and "SWITCH" in it is a switch:
                             on or standby, where nothing else says what it is. */
    int32_t sensor_class; /* enum capi_sensor_class */
    int32_t sensor_type;  /* enum capi_sensor_type */
    int32_t units;        /* enum capi_sensor_units, 0 when none fits */
    float reading;        /* in units; 2.0 for the true state of a discrete sensor */
    uint8_t raw_reading;  /* the reading as the device gives it. A numeric reading
                             that equals it is served as a whole number, any other
                             in thousandths; one in rpm always as a whole number.
                             Of a discrete sensor its state: 1 deasserted (absent),
                             2 asserted (present). */
    uint8_t reserved1;
    uint16_t reading_status; /* CAPI_READING_VALID or CAPI_READING_INVALID */
    float upper_fatal;       /* thresholds, in units */
    float upper_critical;
    float upper_non_critical;
    float lower_fatal;
    float lower_critical;
    float lower_non_critical;
    uint16_t flags; /* enum capi_sensor_flags */
    uint16_t reserved2;
    float state; /* with CAPI_STATE_SEMANTICS: 1.0 is the failed state */
    uint8_t reserved3[12];
};

/* An indicator (LED). */
struct capi_indicator_record {
    int32_t state; /* enum capi_indicator_state */
    uint8_t reserved[252];
};

/* Identity of the product: 1024 bytes. */
struct capi_product_record {
    char reserved0[4];
    char model[80];
    char serial[80];
    char description[80];
    char reserved1[780];
};

/* Identity of the chassis: 1024 bytes. */
struct capi_chassis_record {
    char reserved0[4];
    char model[80];
    char serial[80];
    char description[80];
    char manufacturer[80];
    char reserved1[700];
};

/* Identity of one field-replaceable unit: 1024 bytes. */
struct capi_fru_record {
    char reserved0[4];
    char model[80];
    char manufacturer[80];
    char serial[80];
    char alias[80];
    char reserved1[80];
    char software_revision[80];
    char reserved2[540];
};

/* The layout is the contract: a compiler that disagrees must not build it. */
CAPI_STATIC_ASSERT(offsetof(struct capi_inventory_record, nac_name) == 0, "name at 0");
CAPI_STATIC_ASSERT(offsetof(struct capi_inventory_record, nac_name_length) == sizeof(void *),
                   "name length behind the pointer");
CAPI_STATIC_ASSERT(offsetof(struct capi_inventory_record, capabilities) == sizeof(void *) + 4,
                   "capabilities");
CAPI_STATIC_ASSERT(offsetof(struct capi_inventory_record, component_type) == sizeof(void *) + 16,
                   "component type");
CAPI_STATIC_ASSERT(sizeof(void *) != 4 || sizeof(struct capi_inventory_record) == 24,
                   "24 bytes on a 32-bit host");
CAPI_STATIC_ASSERT(sizeof(void *) != 8 || sizeof(struct capi_inventory_record) == 32,
                   "32 bytes on a 64-bit host");
CAPI_STATIC_ASSERT(sizeof(float) == 4, "readings are IEEE 754 single precision");
CAPI_STATIC_ASSERT(offsetof(struct capi_sensor_record, sensor_class) == 64, "sensor class");
CAPI_STATIC_ASSERT(offsetof(struct capi_sensor_record, sensor_type) == 68, "sensor type");
CAPI_STATIC_ASSERT(offsetof(struct capi_sensor_record, units) == 72, "units");
CAPI_STATIC_ASSERT(offsetof(struct capi_sensor_record, reading) == 76, "reading");
CAPI_STATIC_ASSERT(offsetof(struct capi_sensor_record, raw_reading) == 80, "raw reading");
CAPI_STATIC_ASSERT(offsetof(struct capi_sensor_record, reading_status) == 82, "status");
CAPI_STATIC_ASSERT(offsetof(struct capi_sensor_record, upper_fatal) == 84, "upper fatal");
CAPI_STATIC_ASSERT(offsetof(struct capi_sensor_record, upper_critical) == 88, "upper critical");
CAPI_STATIC_ASSERT(offsetof(struct capi_sensor_record, upper_non_critical) == 92, "upper nc");
CAPI_STATIC_ASSERT(offsetof(struct capi_sensor_record, lower_fatal) == 96, "lower fatal");
CAPI_STATIC_ASSERT(offsetof(struct capi_sensor_record, lower_critical) == 100, "lower critical");
CAPI_STATIC_ASSERT(offsetof(struct capi_sensor_record, lower_non_critical) == 104, "lower nc");
CAPI_STATIC_ASSERT(offsetof(struct capi_sensor_record, flags) == 108, "flags");
CAPI_STATIC_ASSERT(offsetof(struct capi_sensor_record, state) == 112, "state");
CAPI_STATIC_ASSERT(sizeof(struct capi_sensor_record) == 128, "sensor record");
CAPI_STATIC_ASSERT(sizeof(struct capi_indicator_record) == 256, "indicator record");
CAPI_STATIC_ASSERT(offsetof(struct capi_product_record, model) == 4, "product model");
CAPI_STATIC_ASSERT(offsetof(struct capi_product_record, serial) == 84, "product serial");
CAPI_STATIC_ASSERT(offsetof(struct capi_product_record, description) == 164, "product text");
CAPI_STATIC_ASSERT(sizeof(struct capi_product_record) == 1024, "product record");
CAPI_STATIC_ASSERT(offsetof(struct capi_chassis_record, model) == 4, "chassis model");
CAPI_STATIC_ASSERT(offsetof(struct capi_chassis_record, serial) == 84, "chassis serial");
CAPI_STATIC_ASSERT(offsetof(struct capi_chassis_record, description) == 164, "chassis text");
CAPI_STATIC_ASSERT(offsetof(struct capi_chassis_record, manufacturer) == 244, "chassis maker");
CAPI_STATIC_ASSERT(sizeof(struct capi_chassis_record) == 1024, "chassis record");
CAPI_STATIC_ASSERT(offsetof(struct capi_fru_record, model) == 4, "fru model");
CAPI_STATIC_ASSERT(offsetof(struct capi_fru_record, manufacturer) == 84, "fru maker");
CAPI_STATIC_ASSERT(offsetof(struct capi_fru_record, serial) == 164, "fru serial");
CAPI_STATIC_ASSERT(offsetof(struct capi_fru_record, alias) == 244, "fru alias");
CAPI_STATIC_ASSERT(offsetof(struct capi_fru_record, software_revision) == 404, "fru software");
CAPI_STATIC_ASSERT(sizeof(struct capi_fru_record) == 1024, "fru record");

#pragma GCC visibility push(default)

/* ---- Inventory -------------------------------------------------------- */

/*
 * Lists components. Mode CAPI_INVENTORY_ROOT of "/" gives two records, "/" and
 * the root component; mode CAPI_INVENTORY_SUBTREE of a component gives that
 * component and all below it. In every list a container stands before what it
 * holds. *items is a block that the caller hands back to capi_free_inventory
 * with the same count; with a count of 0 it may be null.
 * Fails while there is no inventory yet and for a name that is not known. A null
 * list with a count above 0, or a count that no list can have (above 2147483647),
 * is taken as a failure.
 */
int capi_get_inventory(const char *nac_name, int mode, uint32_t *count,
                       struct capi_inventory_record **items);

/* Releases a list of capi_get_inventory, its names included. An empty list may
 * come as null, and may be kept by the caller without being released: let it own
 * nothing. */
void capi_free_inventory(struct capi_inventory_record *items, uint32_t count);

/* A human-readable description of a component type. The text stays the
 * platform's and must stay valid for the life of the process. A failure or a
 * null text is taken as the empty text. */
int capi_get_component_desc_str(uint32_t component_type, const char **text);

/* *flag = 1 when components of this type are sensors, else 0. */
int capi_is_sensor_type(uint32_t component_type, int32_t *flag);

/* *flag = 1 when components of this type are indicators, else 0. */
int capi_is_indicator_type(uint32_t component_type, int32_t *flag);

/* ---- Live state ------------------------------------------------------- */

/* Reads a sensor. The first argument is always 0. The watcher calls it once at
 * each look, whatever came of the last one. Without the watcher it is called at
 * most once in ten seconds for a sensor whose reads succeed and are valid, and at
 * every request for one whose reads fail or are not; once more for the PRSNT
 * sensor of a drive bay when the bay's row is made. */
int capi_get_sensor(int reserved, const char *nac_name, struct capi_sensor_record *record);

/* What is known of a sensor without reading it: class, type, units, thresholds
 * and their flags. selector is always CAPI_SENSOR_INFO_ALL. */
int capi_get_sensor_info(const char *nac_name, int selector, struct capi_sensor_record *record);

/* 1 when the asserted state of this discrete sensor means "ok", 0 when it does
 * not. sensor is a record or a NAC name: an implementation reads at most the
 * leading NUL-terminated text, so that both serve. */
int capi_is_sensor_with_OK_semantics(const void *sensor);

/* Reads an indicator. The first argument is always 0. */
int capi_get_indicator(int reserved, const char *nac_name, struct capi_indicator_record *record);

/* *meaning becomes an enum capi_indicator_meaning: what is raised on the component that
 * holds this indicator while that is on or blinks, however it blinks. It is asked once,
 * when the row of an indicator is made. Fails for an indicator that means none of these,
 * and for what is no indicator.
 * Optional: a platform may do without this call, and then no indicator raises anything. */
int capi_get_indicator_meaning(const char *nac_name, int32_t *meaning);

/* *state becomes an enum capi_power_state. The first argument is always 0. */
int capi_get_power_state(int reserved, const char *nac_name, int32_t *state);

/* *status becomes an enum capi_rdy2rm_status. The first argument is always 0. */
int capi_get_rdy2rm_status(int reserved, const char *nac_name, int32_t *status);

/* *state becomes an enum capi_enable_state. buffer takes a text of at most
 * length bytes with its NUL that says why; the library passes 20 bytes and does
 * not look at them. */
int capi_get_enable_disable_state(const char *nac_name, int32_t *state, char *buffer, int length);

/* ---- Identity --------------------------------------------------------- */

int capi_get_fru_info(const char *nac_name, struct capi_fru_record *record);

/* The name by which the host's system knows the network interface that this
 * component is ("eth0"), at most length bytes with its NUL; the library passes
 * CAPI_INTERFACE_NAME_SIZE. It is asked once, when the row of a component that is
 * neither sensor nor indicator is made. Fails for a component that is no interface
 * of the host, and for a name that does not fit.
 * Optional: a platform may do without this call, and then no port is told to be an
 * interface. */
int capi_get_interface_name(const char *nac_name, char *buffer, int length);

/* The first argument is always 0. */
int capi_get_product_ops_info(int reserved, struct capi_product_record *record);

int capi_get_chassis_ops_info(struct capi_chassis_record *record);

/* The identifier under which the vantor knows the product or the chassis, at
 * most length bytes with its NUL; the library passes 51. */
int capi_get_product_vantor_id(char *buffer, int length);
int capi_get_chassis_vantor_id(char *buffer, int length);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#undef CAPI_STATIC_ASSERT

#endif

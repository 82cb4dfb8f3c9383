/*
 * The entity cache: the physical entities of the server, by index and by name.
 *
 * Built once from the platform's inventory (init_local_cache), changed by
 * hot-plug events, read by the tables. The declarations stand by concern, each
 * concern in a source file of its own.
 *
 * Threads: unless a comment says otherwise, hold the cache lock
 * (kavdata/cache_lock.h) around a call and as long as you use the entry that it
 * returned: a hot removal frees entries. Indexes start at 1; 0 means "none". After a
 * removal an index is not used again, or, where a file of indexes is kept, by a
 * component of the same name alone.
 *
 * Failures are logged at error level with the function's name; nothing throws.
 */
#ifndef KAVPLAT_KAVDATA_KAVDATA_H
#define KAVPLAT_KAVDATA_KAVDATA_H

/* First: it makes the headers of the system declare what those of net-snmp need. */
#include <net-snmp/net-snmp-config.h>

#include "hashtable/hashtable.h"
#include "kavdata/cache_lock.h"
#include "kavdata/phys_entry.h"
#include "platform/capi.h"

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/* ---- The cache ---- */

/* Entry pointers by index: localCacheSize + 1 slots, slot 0 always null, a null
 * slot above it a hole that a removal left. Null until the cache is built. */
extern phys_entry **physicalTable;

/* The highest index in use, 0 while the cache is empty. Raised only after the
 * entry is complete, never lowered by a removal. */
extern uint32_t maxPhysicalIndex;

/* How many entries physicalTable has room for. */
extern uint32_t localCacheSize;

/* From NAC name to index: the key is a heap cell with the pointer to an entry's
 * entPhysicalName, the value a heap cell with its index (uint32_t). */
extern struct hashtable *htab;

/* 0 while physicalTable is replaced and after that failed: the next event then
 * builds the cache anew. */
extern uint8_t cache_valid;

/* NAC name of the root component, filled by make_root_nacname. */
extern char root_nac[256];

/* Agent up-time, in hundredths of a second, of the last change to the cache. */
extern uint32_t entLastChangeTime;

/* ---- Lookups (any thread that holds the lock, or on the agent's thread within
 * a pass, see kavdata/cache.h). None allocates; null when there is none. */

uint32_t getMaxPhysicalIndex(void);

/* The entry at index. */
phys_entry *get_entry(uint32_t index);

/* The first entry above index; null also when index is above the maximum. */
phys_entry *getnext_entry(uint32_t index);

/* The entry at index if its entPhysicalClass is physical_class. */
phys_entry *get_entry_by_ent_class(uint32_t index, int32_t physical_class);

/* The first entry above index whose entPhysicalClass is physical_class. */
phys_entry *getnext_entry_by_ent_class(uint32_t index, int32_t physical_class);

/* The index of the entity with this NAC name, 0 when there is none. For the
 * platform's other modules: takes the cache lock itself, so the caller must not
 * hold it. */
uint32_t kav_plat_mib_find_by_nac(const char *nac);

/* Hands entry to net-snmp's table iterator: its index goes to *loop_context (as
 * a number of pointer width) and into index_varbind, the entry to
 * *data_context. Returns index_varbind. */
netsnmp_variable_list *snmp_setcontext(void **loop_context, void **data_context,
                                       netsnmp_variable_list *index_varbind, phys_entry *entry);

/* ---- Build ---- */

/* Builds the whole cache from the inventory; waits for the inventory without
 * limit. On the monitor thread without the lock, or anew from an event with the
 * lock held, which is then released while it waits. Rows appear one by one. */
void init_local_cache(void);

/* Waits until the platform names its root and stores it in root_nac: 1, or 0
 * when timeout_seconds went by. Asks every 3 seconds. No lock needed. */
int make_root_nacname(int timeout_seconds);

/* Fills a zeroed entry whose index and name are set from its inventory record. */
void build_phys_entry(phys_entry *entry, const struct capi_inventory_record *record);

/* The index stored for a NAC name; 0 for a null or empty name, "/" (silently)
 * and an unknown one (logged). Needs no lock. */
uint32_t hash_nac(const char *nac);

/* *result = index of the entity that the entry's name puts it in, or 0. */
void get_containedIn(const phys_entry *entry, int32_t *result);

/* *result = position among siblings: the name's numeric suffix plus 1, or -1
 * for an entry in no other; without a suffix *result stays as it is. */
void get_parentRelPos(const phys_entry *entry, int32_t *result);

/* ---- Static fields ---- */

/* Description, class and the sensor, indicator and identity fields that the
 * component's type brings. */
void read_static_data(phys_entry *entry, uint32_t component_type);

/* The fields that the capability bits bring. */
void get_static_fields(phys_entry *entry);

/* Product texts into the entry: 0, or -1 on failure. */
int snmp_read_product_info(phys_entry *entry);

/* FRU texts into the entry: 0, or -1 on failure. */
int snmp_read_fru(phys_entry *entry);

/* Chassis texts into the entry. */
void add_chassis_info(phys_entry *entry);

/* Replaces an owned text by a copy of source, of which at most maximum - 1
 * characters survive; a null source gives the empty text. *field is null when
 * there was no memory. */
void replaceString(char **field, const char *source, uint32_t maximum);

/* ---- Live values (lock held; these ask the platform) ---- */

/* Reads a sensor into its live fields unless that was done within the last ten
 * seconds. 0 when they are current, -1 when they are not. */
int snmp_read_sensor(phys_entry *entry);

/* Thresholds, mask and exponent 0 from a sensor record. */
void set_sensor_thresholds(phys_entry *entry, const struct capi_sensor_record *record);

/* Reads one sensor's thresholds anew. Without the lock, on the event thread. */
void reload_thresholds(const char *nac_name);

/* Reads an indicator into the alarm fields unless that was done within the last
 * ten seconds. 0 when they are current, -1 when they are not. */
int snmp_read_led(phys_entry *entry);

/* ---- Hot-plug ---- */

/* Drops one row. */
void free_local_cache_entry(uint32_t index);

/* Drops every row. For the host agent: takes the lock itself, so the caller must
 * not hold it. Returns the result of releasing it. */
int free_local_cache(void);

/* A component and what it holds was removed / inserted. */
void set_fru_absent(const char *nac);
void set_fru_prsnt(const char *nac);

/* The inventory below a component changed: new components get rows, and for the
 * root the components that are no longer listed lose theirs. */
void partial_reconfigure(const char *nac);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif

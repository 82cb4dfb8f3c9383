/* Every public header in a C program, and something of each in use: an agent that
 * has not loaded the module yet finds an empty cache and no connection. */
#include "entityMIB/entityMIB.h"
#include "hashtable/hashtable.h"
#include "kavdata/cache_lock.h"
#include "kavdata/kavdata.h"
#include "kavdata/phys_entry.h"
#include "kavPlatMIB/kavPlatMIB.h"
#include "monitor/monitor.h"
#include "platform/capi.h"
#include "platform/event_mgr.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int failures = 0;

#define EXPECT(condition)                                                                          \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #condition);                \
            failures++;                                                                            \
        }                                                                                          \
    } while (0)

static uint32_t first_byte(const void *key)
{
    return *(const unsigned char *)key;
}

static int same_text(const void *a, const void *b)
{
    return strcmp(a, b) == 0;
}

static void use_hashtable(void)
{
    int value = 7;
    struct hashtable *table = create_hashtable(0, first_byte, same_text);
    char *key = malloc(6);
    EXPECT(table && key);
    if (!table || !key) {
        return;
    }
    memcpy(key, "/SYS0", 6);
    EXPECT(hashtable_insert(table, key, &value) == -1);
    EXPECT(hashtable_search(table, "/SYS0") == &value);
    EXPECT(hashtable_count(table) == 1);
    hashtable_destroy(table, 0);
}

static void use_cache(void)
{
    phys_entry entry;
    int32_t position = 0;
    memset(&entry, 0, sizeof entry);
    EXPECT(monitor_fru_lock() == 0);
    EXPECT(getMaxPhysicalIndex() == 0);
    EXPECT(get_entry(1) == NULL);
    get_parentRelPos(&entry, &position);
    EXPECT(position == -1);
    EXPECT(monitor_fru_unlock() == 0);
    EXPECT(kav_plat_mib_find_by_nac("/SYS") == 0);
    EXPECT(physicalTable == NULL && htab == NULL);
}

static void use_modules(void)
{
    netsnmp_variable_list variable;
    memset(&variable, 0, sizeof variable);
    setStringMaybeNull(&variable, "text");
    EXPECT(variable.type == ASN_OCTET_STR && variable.val_len == 4);
    snmp_reset_var_buffers(&variable);
    EXPECT(GetDateAndTimeLen() == 8);
    EXPECT(emHandle == 0);
}

static void use_platform(void)
{
    const char *text = NULL;
    EXPECT(capi_get_component_desc_str(CAPI_TYPE_SYSTEM, &text) == 0 && text && *text);
    EXPECT(event_mgr_subscribe_event(0, EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_HOT_INSERT) != 0);
}

int main(void)
{
    use_hashtable();
    use_cache();
    use_modules();
    use_platform();
    return failures != 0;
}

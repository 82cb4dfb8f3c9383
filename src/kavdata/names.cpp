// The index by NAC name.
#include "kavdata/cache_internal.h"
#include "trace/trace.h"

#include <cstdlib>
#include <cstring>

namespace kavplat
{

namespace
{

// Guards htab and all it holds. A leaf: nothing else is taken under it. The
// first build does not hold the cache lock while other modules already look
// names up, so the cache lock alone would not do.
mutex names_mutex;

} // namespace

} // namespace kavplat

struct hashtable *htab KAV_GUARDED_BY(kavplat::names_mutex) = nullptr;

namespace kavplat
{

namespace
{

// A key cell holds the pointer to the text.
const char *text_of(const void *key)
{
    return *static_cast<const char *const *>(key);
}

// Jenkins' one-at-a-time hash over unsigned bytes.
uint32_t hash_name(const void *key)
{
    uint32_t h = 0;
    for (const char *c = text_of(key); *c; c++) {
        h += static_cast<unsigned char>(*c);
        h += h << 10;
        h ^= h >> 6;
    }
    h += h << 3;
    h ^= h >> 11;
    h += h << 15;
    return h;
}

int equal_names(const void *a, const void *b)
{
    return a && b && strcmp(text_of(a), text_of(b)) == 0;
}

// Namesakes share a text but not the pointer to it.
int same_name(const void *a, const void *b)
{
    return a && b && text_of(a) == text_of(b);
}

} // namespace

bool name_index_exists()
{
    const lock_guard lock(names_mutex);
    return htab != nullptr;
}

bool create_name_index()
{
    const lock_guard lock(names_mutex);
    htab = create_hashtable(16, hash_name, equal_names);
    return htab != nullptr;
}

void destroy_name_index(bool free_values)
{
    const lock_guard lock(names_mutex);
    hashtable_destroy(htab, free_values);
    htab = nullptr;
}

uint32_t find_name(const char *nac)
{
    const lock_guard lock(names_mutex);
    const auto *index = static_cast<const uint32_t *>(hashtable_search(htab, &nac));
    return index ? *index : 0;
}

bool insert_name(phys_entry *entry)
{
    auto *key = static_cast<char **>(malloc(sizeof(char *)));
    auto *value = static_cast<uint32_t *>(malloc(sizeof(uint32_t)));
    if (key && value) {
        *key = entry->entPhysicalName;
        *value = entry->entPhysicalIndex;
        bool inserted = false;
        bool crowded = false;
        {
            const lock_guard lock(names_mutex);
            inserted = hashtable_insert(htab, key, value) != 0;
            crowded = inserted && htab->entry_count > htab->load_limit &&
                      htab->prime_index + 1 < prime_table_length;
        }
        if (crowded) {
            snmp_log(LOG_WARNING, "insert_name:no memory for a larger index by name, lookups take "
                                  "longer\n");
        }
        if (inserted) {
            return true;
        }
    }
    free(key);
    free(value);
    return false;
}

bool remove_name(const phys_entry *entry)
{
    if (!entry->entPhysicalName) {
        return false;
    }
    const lock_guard lock(names_mutex);
    if (!htab) {
        return false;
    }
    // The newest of several namesakes would be found first; only this removal
    // tells them apart, lookups keep their order.
    htab->equal_fn = same_name;
    void *value = hashtable_remove(htab, &entry->entPhysicalName);
    htab->equal_fn = equal_names;
    free(value);
    return value != nullptr;
}

void renew_names_lock()
{
    names_mutex.renew();
}

void forget_names()
{
    const lock_guard lock(names_mutex);
    htab = nullptr;
}

} // namespace kavplat

uint32_t hash_nac(const char *nac)
{
    KAV_TRACE("kavdata::hash", "%s:nac=%s\n", "hash_nac", kavplat::printable(nac));
    if (!nac || !*nac || strcmp(nac, "/") == 0 || !kavplat::name_index_exists()) {
        return 0;
    }
    const uint32_t index = kavplat::find_name(nac);
    if (index == 0) {
        snmp_log(LOG_ERR, "%s:FAILED:%s %s\n", "hash_nac", "can not find entry", nac);
    }
    return index;
}

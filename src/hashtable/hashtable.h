/*
 * A separately chained hash table from opaque key pointers to opaque value
 * pointers. It knows nothing of its keys: the creator hands in a hash and an
 * equality of keys.
 *
 * Ownership: a key that hashtable_insert accepted belongs to the table, which
 * releases it with free() when its entry is removed or the table is destroyed;
 * a key is therefore one block of malloc, calloc, realloc or strdup. A value
 * stays the caller's, unless hashtable_destroy is told to free the values too.
 *
 * Threads: the table has no lock. Whoever shares one between threads serialises
 * every call on it, reading calls included.
 *
 * Null: every call but hashtable_count takes a null table and does nothing; it
 * then gives 0 or null.
 *
 * Nothing is logged; failures are told by the results alone.
 */
#ifndef KAVPLAT_HASHTABLE_HASHTABLE_H
#define KAVPLAT_HASHTABLE_HASHTABLE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The hash of a key. Must depend on the key alone: it is called twice for one
 * removal, once for an insertion or a search, and never when the table grows. */
typedef uint32_t (*hashtable_hash_fn)(const void *key);

/* Nonzero when the keys are equal. The key that is searched for always comes
 * first, the key of the table second. Equal keys must have equal hashes. Called
 * only for keys whose mixed hashes are equal. */
typedef int (*hashtable_equal_fn)(const void *search_key, const void *stored_key);

/* One stored entry, a heap block of its own. */
struct hash_entry {
    void *key;
    void *value;
    uint32_t hash_value;     /* mixed hash of the key, as hash() gives it */
    struct hash_entry *next; /* null at the end of the chain */
};

/* A table, one heap block. A caller may read the fields, and may put another
 * equal_fn in for a call; the rest is changed by the calls below alone. */
struct hashtable {
    uint32_t bucket_count;       /* chain heads in buckets, always a prime of the table's list */
    struct hash_entry **buckets; /* entry e is in the chain e->hash_value % bucket_count */
    uint32_t entry_count;
    uint32_t load_limit;  /* an insertion that takes entry_count above this tries to grow */
    uint32_t prime_index; /* of bucket_count, 0 to prime_table_length - 1 */
    hashtable_hash_fn hash_fn;
    hashtable_equal_fn equal_fn;
};

#pragma GCC visibility push(default)

/* How many bucket counts there are, from 53 to 1610612741: 26. For information. */
extern const uint32_t prime_table_length;

/* Entries per bucket above which a table grows: 0.65. load_limit is
 * bucket_count times this in single precision, rounded up. */
extern const float max_load_factor;

/*
 * Makes an empty table whose bucket count is the first of the list that is
 * greater than minsize (53 for 0, 97 for 53). Null when minsize is above 2^30
 * or memory is short. The caller ends the table with hashtable_destroy.
 */
struct hashtable *create_hashtable(uint32_t minsize, hashtable_hash_fn hash_fn,
                                   hashtable_equal_fn equal_fn);

/* hash_fn(key), mixed so that all its bits count in the choice of a chain. */
uint32_t hash(const struct hashtable *table, const void *key);

/*
 * Stores key and value at the head of the key's chain. -1 on success: the key
 * is now the table's. 0 on failure (null table, no memory): nothing was stored
 * and the key is still the caller's. No look-out for duplicates: a key stored
 * twice counts twice, and the later entry hides the earlier one until it is
 * removed. A table that cannot grow takes longer chains instead.
 */
int hashtable_insert(struct hashtable *table, void *key, void *value);

/* The value of the key's latest entry, still the table's; null when absent. */
void *hashtable_search(const struct hashtable *table, const void *key);

/*
 * Takes the key's latest entry out, frees the stored key and gives the value to
 * the caller. Null, and no change, when the key is absent. key may be the
 * stored key itself; it is gone afterwards.
 */
void *hashtable_remove(struct hashtable *table, const void *key);

/* The number of entries. The table must not be null. */
uint32_t hashtable_count(const struct hashtable *table);

/* Frees the table and its keys, and with free_values nonzero each value too,
 * which must then be a heap block or null. */
void hashtable_destroy(struct hashtable *table, int free_values);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif

/* What the hash table keeps to itself; here for its test, not exported. */
#ifndef KAVPLAT_HASHTABLE_HASHTABLE_INTERNAL_H
#define KAVPLAT_HASHTABLE_HASHTABLE_INTERNAL_H

#include "hashtable/hashtable.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Takes the table to the next bucket count. -1 when it grew. 0 when it did not
 * (null table, largest count reached, no memory): the table is then as it was.
 */
int hashtable_grow(struct hashtable *table);

#ifdef __cplusplus
}
#endif

#endif

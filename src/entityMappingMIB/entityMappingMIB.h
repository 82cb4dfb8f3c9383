/*
 * What of ENTITY-MIB (RFC 4133) says how physical entities lie in one another and
 * which of them are network interfaces: entPhysicalContainsTable and
 * entAliasMappingTable. A module of its own, loaded by a dlmod line behind
 * entityMIB's, which builds the cache that it looks at.
 */
#ifndef KAVPLAT_ENTITYMAPPINGMIB_ENTITYMAPPINGMIB_H
#define KAVPLAT_ENTITYMAPPINGMIB_ENTITYMAPPINGMIB_H

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/* What snmpd calls when it loads and unloads the module, on its only thread. A
 * failure is logged; the agent goes on without the table that it is about. */
void init_entityMappingMIB(void);
void deinit_entityMappingMIB(void);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif

/*
 * ENTITY-STATE-MIB (RFC 4268): the states and alarms of each entity, beside its row in
 * entPhysicalTable. A module of its own, loaded by a dlmod line behind entityMIB's,
 * which builds the cache that it looks at. Read-only, entStateAdmin too.
 */
#ifndef KAVPLAT_ENTITYSTATEMIB_ENTITYSTATEMIB_H
#define KAVPLAT_ENTITYSTATEMIB_ENTITYSTATEMIB_H

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/* What snmpd calls when it loads and unloads the module, on its only thread. A
 * failure is logged; the agent goes on without the table. */
void init_entityStateMIB(void);
void deinit_entityStateMIB(void);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif

/*
 * ENTITY-SENSOR-MIB (RFC 3433): a row for each sensor with a number or a yes/no,
 * beside its row in entPhysicalTable. A module of its own, loaded by a dlmod line
 * behind entityMIB's, which builds the cache that it looks at.
 */
#ifndef KAVPLAT_ENTITYSENSORMIB_ENTITYSENSORMIB_H
#define KAVPLAT_ENTITYSENSORMIB_ENTITYSENSORMIB_H

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/* What snmpd calls when it loads and unloads the module, on its only thread. A
 * failure is logged; the agent goes on without the table. */
void init_entitySensorMIB(void);
void deinit_entitySensorMIB(void);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif

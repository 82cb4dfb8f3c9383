/*
 * The platform MIB module: KAV-PLATFORM-MIB under
 * 1.3.6.1.4.1.58213.2.70.101.1.1, one scalar and fourteen tables over the entity
 * cache, all read-only. What the objects mean is told in the MIB module,
 * mibs/KAV-PLATFORM-MIB.txt.
 *
 * The module neither builds the cache nor starts the monitor: the ENTITY-MIB
 * module does, so load that one first. The agent calls these on its own thread.
 */
#ifndef KAVPLAT_KAVPLATMIB_KAVPLATMIB_H
#define KAVPLAT_KAVPLATMIB_KAVPLATMIB_H

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/* Called by the agent when it loads the module: notes the start time, limits core
 * files to 10 MiB, registers the scalar and all tables but the watchdog table. */
void init_kavPlatMIB(void);

/* Called by the agent when it unloads the module or stops. Unregisters nothing. */
void deinit_kavPlatMIB(void);

/* kavPlatStartTime: an SNMP error status. */
int handle_kavPlatStartTime(netsnmp_mib_handler *handler, netsnmp_handler_registration *reginfo,
                            netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests);

/* When the module started: a DateAndTime (RFC 2579) of 8 octets, in UTC. The
 * module's own memory, all zero before init_kavPlatMIB. */
unsigned char *GetDateAndTime(void);
size_t GetDateAndTimeLen(void);

/* Writes the 8 octets of a DateAndTime without a direction from UTC. */
void convert_tmToDateAndTime(const struct tm *tm, unsigned char *out);

/*
 * The functions of a table:
 *  - initialize_table_ registers it. The result is the agent's, or
 *    SNMPERR_GENERR (logged) when there was no memory.
 *  - deinitialize_table_ does nothing.
 *  - The iterator callbacks return null at the end of the table.
 *  - The handler returns an SNMP error status.
 */
#define KAV_PLAT_DECLARE_TABLE(table)                                                              \
    int initialize_table_##table(void);                                                            \
    void deinitialize_table_##table(void);                                                         \
    netsnmp_variable_list *table##_get_first_data_point(void **loop_context, void **data_context,  \
                                                        netsnmp_variable_list *put_index_data,     \
                                                        netsnmp_iterator_info *iinfo);             \
    netsnmp_variable_list *table##_get_next_data_point(void **loop_context, void **data_context,   \
                                                       netsnmp_variable_list *put_index_data,      \
                                                       netsnmp_iterator_info *iinfo);              \
    int table##_handler(netsnmp_mib_handler *handler, netsnmp_handler_registration *reginfo,       \
                        netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests);

/* The tables, in the order in which init_kavPlatMIB registers them. A table that is
 * added to this list is declared, registered, and known to the tests. */
#define KAV_PLAT_REGISTERED_TABLES(X)                                                              \
    X(kavPlatEquipmentTable)                                                                       \
    X(kavPlatPowerSupplyTable)                                                                     \
    X(kavPlatAlarmTable)                                                                           \
    X(kavPlatPhysicalTable)                                                                        \
    X(kavPlatEquipmentHolderTable)                                                                 \
    X(kavPlatCircuitPackTable)                                                                     \
    X(kavPlatFanTable)                                                                             \
    X(kavPlatBatteryTable)                                                                         \
    X(kavPlatSensorTable)                                                                          \
    X(kavPlatBinarySensorTable)                                                                    \
    X(kavPlatNumericSensorTable)                                                                   \
    X(kavPlatDiscreteSensorTable)                                                                  \
    X(kavPlatDiscreteSensorStatesTable)

/* All of them: nothing in the module calls the watchdog table's initialiser, so that it
 * is served only when the agent or another module does. */
#define KAV_PLAT_TABLES(X)                                                                         \
    KAV_PLAT_REGISTERED_TABLES(X)                                                                  \
    X(kavPlatWatchdogTable)

KAV_PLAT_TABLES(KAV_PLAT_DECLARE_TABLE)

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif

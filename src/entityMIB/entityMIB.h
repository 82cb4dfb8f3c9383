/*
 * The ENTITY-MIB module: entPhysicalTable (1.3.6.1.2.1.47.1.1.1) and
 * entLastChangeTime (1.3.6.1.2.1.47.1.4.1), as RFC 2737 defines them.
 *
 * The agent calls these on its own thread. Failures of a registration are logged
 * by the agent.
 */
#ifndef KAVPLAT_ENTITYMIB_ENTITYMIB_H
#define KAVPLAT_ENTITYMIB_ENTITYMIB_H

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/* Called by the agent when it loads the module: waits while the stop file
 * exists, registers the table and the scalar, starts the monitor. */
void init_entityMIB(void);

/* Called by the agent when it unloads the module or stops: ends every process
 * named snmpd, this one included. */
void deinit_entityMIB(void);

/* Registers entPhysicalTable and starts the monitor, which builds the cache. */
void initialize_table_entPhysicalTable(void);

/* Ends every process named snmpd. */
void deinitialize_table_entPhysicalTable(void);

/* Registers entLastChangeTime. */
void initialize_entityGeneral(void);

/* Returns as soon as there is no file at path; looks every 3 seconds, without
 * limit. Holds the module's start back so that a debugger can be attached. */
void snmp_debug_stop(const char *path);

/* Iterator callbacks: null at the end of the table. */
netsnmp_variable_list *entPhysicalTable_get_first_data_point(void **loop_context,
                                                             void **data_context,
                                                             netsnmp_variable_list *put_index_data,
                                                             netsnmp_iterator_info *iinfo);
netsnmp_variable_list *entPhysicalTable_get_next_data_point(void **loop_context,
                                                            void **data_context,
                                                            netsnmp_variable_list *put_index_data,
                                                            netsnmp_iterator_info *iinfo);

/* Request handlers: an SNMP error status. */
int entPhysicalTable_handler(netsnmp_mib_handler *handler, netsnmp_handler_registration *reginfo,
                             netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests);
int handle_entLastChangeTime(netsnmp_mib_handler *handler, netsnmp_handler_registration *reginfo,
                             netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests);

/* Sets var to an OCTET STRING with the text, or to an empty one when the text is
 * null. */
void setStringMaybeNull(netsnmp_variable_list *var, const char *text);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif

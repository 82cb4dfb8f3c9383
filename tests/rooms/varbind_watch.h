/*
 * What the code under test hands to net-snmp, where a varbind no longer tells:
 * the length that a value was set with, and the helpers injected into a
 * registration. Needs the link-time replacements of varbind_watch.cpp.
 *
 *     varbind_watch::start();
 *     entPhysicalTable_handler(...);
 *     EXPECT_EQ(varbind_watch::values().back().length, 4U);
 *     varbind_watch::stop();
 */
#ifndef KAVPLAT_TESTS_ROOMS_VARBIND_WATCH_H
#define KAVPLAT_TESTS_ROOMS_VARBIND_WATCH_H

#include <cstddef>
#include <string>
#include <vector>

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

namespace varbind_watch
{

struct value {
    u_char type;
    size_t length;
    bool under_cache_lock; /* somebody held it */
};

struct injection {
    const netsnmp_handler_registration *registration;
    std::string handler;
    std::string before;
};

/* Forgets what was seen. Until stop() injections are only noted; without a start
 * everything goes to net-snmp unseen. One thread. */
void start();
void stop();

const std::vector<value> &values();
const std::vector<injection> &injections();

} // namespace varbind_watch

#endif

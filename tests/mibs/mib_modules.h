// The project's MIB modules as net-snmp's own parser sees them.
#ifndef KAVPLAT_TESTS_MIBS_MIB_MODULES_H
#define KAVPLAT_TESTS_MIBS_MIB_MODULES_H

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <filesystem>
#include <string>
#include <vector>

namespace mib_modules
{

std::filesystem::path source_dir();

// Parses every module of mibs/ and mibs/compact/, once a process, and no module
// of the system. Returns all that the parser had to say, warnings included.
const std::string &load();

// The nodes below a place in the tree, itself included, in the order of their
// OIDs. Empty when there is no such place. Loads the modules first.
std::vector<tree *> below(const std::string &oid);

// A scalar or a column, as opposed to a table, a row, a group or a bare arc, and to an
// object that only notifications tell.
bool is_object(const tree *node);

// Dotted, without a leading dot.
std::string oid_text(const tree *node);

// What our modules define: the platform's objects, and those of ENTITY-MIB,
// ENTITY-SENSOR-MIB and ENTITY-STATE-MIB.
inline const char *const platform_root = "1.3.6.1.4.1.58213";
inline const char *const entity_root = "1.3.6.1.2.1.47";
inline const char *const sensor_root = "1.3.6.1.2.1.99";
inline const char *const state_root = "1.3.6.1.2.1.131";
inline const char *const roots[] = {platform_root, entity_root, sensor_root, state_root};

} // namespace mib_modules

#endif

/*
 * The tables that both modules have to show for a description whose live values are all
 * constants, worked out from the JSON file and the written rules alone: nothing here
 * is shared with the library.
 */
#ifndef KAVPLAT_TESTS_E2E_EXPECTED_TABLES_H
#define KAVPLAT_TESTS_E2E_EXPECTED_TABLES_H

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "e2e/expected_rows.h"
#include "harness/client.h"
#include "harness/names.h"

struct expected_table {
    object_name entry; /* of the MIB: the object that the columns are below */
    unsigned long first_column;
    std::map<unsigned long, std::vector<snmp_value>> rows; /* by index */

    object_name cell(unsigned long column, unsigned long index) const;
};

/* entPhysicalTable. */
expected_table expected_entity_table(const std::vector<expected_row> &rows);

/* Those of KAV-PLATFORM-MIB that the module registers, empty ones too, by their arcs. As
 * they are once each sensor and indicator was read. */
std::map<unsigned long, expected_table>
expected_platform_tables(const std::filesystem::path &description);

object_name platform_table(unsigned long arc);

/* kavPlatStartTime.0 */
object_name start_time();

/* All cells of a table in the order of a walk. */
std::vector<varbind> cells_of(const expected_table &table);

#endif

/*
 * What KAV-PLATFORM-MIB has to show for a description whose live values are all
 * constants, worked out from the JSON file and the written rules alone: nothing here
 * is shared with the library.
 */
#ifndef KAVPLAT_TESTS_E2E_EXPECTED_PLATFORM_H
#define KAVPLAT_TESTS_E2E_EXPECTED_PLATFORM_H

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "harness/client.h"
#include "harness/names.h"

/* The rows of a table, by index, each with its columns from the first on. */
using expected_cells = std::map<unsigned long, std::vector<snmp_value>>;

/* By the arc of the table: those that the module registers, empty ones too. As they
 * are once each sensor and indicator was read. */
std::map<unsigned long, expected_cells>
expected_platform_tables(const std::filesystem::path &description);

object_name platform_table(unsigned long arc);

/* kavPlatStartTime.0 */
object_name start_time();

/* All the cells in the order of a walk; the scalar, which comes before them, is not
 * among them. */
std::vector<varbind> expected_platform(const std::map<unsigned long, expected_cells> &tables);

#endif

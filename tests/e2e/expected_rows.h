/*
 * What entPhysicalTable has to show for a description, worked out from the JSON
 * file and the written rules alone: nothing here is shared with the library.
 */
#ifndef KAVPLAT_TESTS_E2E_EXPECTED_ROWS_H
#define KAVPLAT_TESTS_E2E_EXPECTED_ROWS_H

#include <filesystem>
#include <string>
#include <vector>

#include "harness/client.h"
#include "harness/names.h"

struct expected_row {
    unsigned long index = 0;
    std::string description;
    long contained_in = 0;
    long physical_class = 0;
    long position = -1;
    std::string name;
    std::string firmware;
    std::string software;
    std::string serial;
    std::string maker;
    std::string model;
    std::string alias;
    bool is_fru = false;
    unsigned long component_type = 0;
    std::string kind = {}; // plain, sensor, indicator
};

/* In order of the index, as a fresh agent numbers them. firmware is what the
 * version file gives. */
std::vector<expected_row> expected_rows(const std::filesystem::path &description,
                                        const std::string &firmware);

inline constexpr unsigned first_column = 2;
inline constexpr unsigned last_column = 16;

snmp_value expected_value(const expected_row &row, unsigned column);

#endif

/*
 * Servers of any size: a root and boards, each a board with 50 children, of which
 * the last is cut off where the size says so. Of every 51 rows 14 are numeric
 * sensors, 14 binary ones and 6 indicators, and 9 have FRU texts: about what a rack
 * server has.
 */
#ifndef KAVPLAT_BENCH_GENERATED_SERVER_H
#define KAVPLAT_BENCH_GENERATED_SERVER_H

#include <cstddef>
#include <string>
#include <vector>

enum class part { root, board, numeric_sensor, binary_sensor, indicator, slot, module };

struct generated_component {
    std::string name;
    part kind;
};

/* Containers before what they hold. */
std::vector<generated_component> generate_server(size_t size);

/* The NAC name of a board, counted from 0. */
std::string board_name(size_t number);

/* The same server as a description for the described platform. */
std::string describe_server(const std::vector<generated_component> &components);

#endif

/* What is measured of every agent alike: the walks of two tables, by each kind of
 * request. */
#ifndef KAVPLAT_BENCH_CONTENDER_H
#define KAVPLAT_BENCH_CONTENDER_H

#include <cstddef>
#include <map>
#include <vector>

#include "harness/client.h"
#include "light_client.h"
#include "measured_agent.h"

struct measured_table {
    const char *name;
    object_name own;
    object_name container;
    object_name pass; /* none: container_table alone is beside it */
    unsigned long first_column;
    unsigned long last_column;
    size_t indexes = 1;
    unsigned long clock_column = 0; /* has the time of the reading; 0: none */
};

extern const measured_table tables[6];

/* Those of the first two modules come first; the others are the standards'. */
inline constexpr size_t platform_tables = 2;

struct request_kind {
    const char *name;
    size_t repetitions;
};

inline constexpr request_kind kinds[] = {{"GETBULK 50", 50}, {"GETBULK 25", 25}, {"GETNEXT", 0}};

// Microseconds a varbind, a value for each round.
struct samples {
    std::vector<double> wall;
    std::vector<double> processor;
};

// How one peer is asked for a table.
struct contender {
    measured_agent *agent = nullptr;
    std::vector<walk_range> ranges;
    walk_range warm_up;
};

object_name with(object_name name, unsigned long arc);
/* The same below another root. */
object_name moved(const object_name &name, const object_name &from, const object_name &to);

using column_rows = std::map<unsigned long, std::vector<varbind>>;

column_rows by_column(const std::vector<varbind> &rows, const object_name &root);
walk_range range_of(const object_name &start, const std::vector<varbind> &rows,
                    const object_name &from, const object_name &to);

/* Walks what the contender is asked for: once a slow one, else until the clock has
 * ticked often enough. */
void measure(const contender &who, bool is_slow, size_t repetitions, samples &out);

#endif

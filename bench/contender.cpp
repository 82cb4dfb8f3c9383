#include "contender.h"

#include <ctime>

const measured_table tables[6] = {
    {"entPhysicalTable",
     {1, 3, 6, 1, 2, 1, 47, 1, 1, 1, 1},
     {1, 3, 6, 1, 4, 1, 58213, 99, 1, 1},
     {1, 3, 6, 1, 4, 1, 58213, 99, 3, 1},
     2,
     16},
    {"kavPlatNumericSensorTable",
     {1, 3, 6, 1, 4, 1, 58213, 2, 70, 101, 1, 1, 8, 1},
     {1, 3, 6, 1, 4, 1, 58213, 99, 2, 1},
     {1, 3, 6, 1, 4, 1, 58213, 99, 3, 2},
     1,
     16},
    {"entPhySensorTable",
     {1, 3, 6, 1, 2, 1, 99, 1, 1, 1},
     {1, 3, 6, 1, 4, 1, 58213, 99, 4, 1},
     {},
     1,
     8,
     1,
     7},
    {"entStateTable",
     {1, 3, 6, 1, 2, 1, 131, 1, 1, 1},
     {1, 3, 6, 1, 4, 1, 58213, 99, 5, 1},
     {},
     1,
     6},
    {"entPhysicalContainsTable",
     {1, 3, 6, 1, 2, 1, 47, 1, 3, 3, 1},
     {1, 3, 6, 1, 4, 1, 58213, 99, 6, 1},
     {},
     1,
     1,
     2},
    {"entAliasMappingTable",
     {1, 3, 6, 1, 2, 1, 47, 1, 3, 2, 1},
     {1, 3, 6, 1, 4, 1, 58213, 99, 7, 1},
     {},
     2,
     2,
     2},
};

object_name with(object_name name, unsigned long arc)
{
    name.push_back(arc);
    return name;
}

object_name moved(const object_name &name, const object_name &from, const object_name &to)
{
    object_name out = to;
    out.insert(out.end(), name.begin() + static_cast<ptrdiff_t>(from.size()), name.end());
    return out;
}

column_rows by_column(const std::vector<varbind> &rows, const object_name &root)
{
    column_rows out;
    for (const varbind &row : rows) {
        out[row.name.at(root.size())].push_back(row);
    }
    return out;
}

walk_range range_of(const object_name &start, const std::vector<varbind> &rows,
                    const object_name &from, const object_name &to)
{
    return {encode(moved(start, from, to)), encode(moved(rows.back().name, from, to)), rows.size()};
}

namespace
{

size_t length_of(const contender &who)
{
    size_t count = 0;
    for (const walk_range &range : who.ranges) {
        count += range.count;
    }
    return count;
}

double microseconds_now()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

// At least so many varbinds, so that a small table is not over before the clock
// has ticked.
constexpr size_t fewest_varbinds = 15000;

} // namespace

void measure(const contender &who, bool is_slow, size_t repetitions, samples &out)
{
    const size_t length = length_of(who);
    const size_t times = is_slow ? 1 : (fewest_varbinds + length - 1) / length;
    // Sensors older than ten seconds are read anew, which is not what is compared.
    who.agent->client().walk(who.warm_up, 50);
    const uint64_t processor = who.agent->processor_time();
    const double start = microseconds_now();
    for (size_t i = 0; i < times; i++) {
        for (const walk_range &range : who.ranges) {
            who.agent->client().walk(range, repetitions);
        }
    }
    const double varbinds = static_cast<double>(length * times);
    out.wall.push_back((microseconds_now() - start) / varbinds);
    out.processor.push_back(static_cast<double>(who.agent->processor_time() - processor) / 1e3 /
                            varbinds);
}

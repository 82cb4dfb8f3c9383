// Discrete sensors. No component is given that kind, so there are no rows: meant.
#include "kavPlatMIB/platform_table.h"

namespace kavplat
{

namespace
{

constexpr column columns[] = {
    integer<&phys_entry::discreteSensorValue>(1, "kavPlatDiscreteSensorCurrent"),
};

} // namespace

constinit const table kavPlatDiscreteSensorTable = {
    .name = "kavPlatDiscreteSensorTable",
    .source = KAVPLAT_ROOM,
    .root = platform_oid<9>,
    .columns = columns,
    .rows = rows_where<is_sensor_of_kind<SENSOR_KIND_DISCRETE>>,
    .trace = walk_trace::dump_next_row,
    .modes = mode_rule::ignore_unlocked, // SETs are not answered: meant
    .before_serving = read_sensor_first<failed_read::minus_1>,
    .get_first = kavPlatDiscreteSensorTable_get_first_data_point,
    .get_next = kavPlatDiscreteSensorTable_get_next_data_point,
    .handler = kavPlatDiscreteSensorTable_handler,
};

} // namespace kavplat

KAV_PLAT_DEFINE_TABLE(kavPlatDiscreteSensorTable)

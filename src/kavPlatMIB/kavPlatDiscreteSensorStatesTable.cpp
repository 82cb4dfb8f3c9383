// The states that each discrete sensor can be in, by sensor and state number.
#include "kavPlatMIB/sensor_table.h"

#include "trace/trace.h"

namespace kavplat
{

namespace
{

struct sensor_state {
    const char *text;
    int32_t acceptable; // enum truth_value
};

constexpr uint32_t set_count = 3;
constexpr uint32_t states_per_set = 3;

constexpr sensor_state state_sets[set_count][states_per_set] = {
    {{"State Deasserted", TRUTH_TRUE}, {"State Asserted", TRUTH_TRUE}, {"Disabled", TRUTH_TRUE}},
    {{"Predictive Failure Deasserted", TRUTH_TRUE},
     {"Predictive Failure Asserted", TRUTH_FALSE},
     {"Disabled", TRUTH_FALSE}},
    {{"Absent", TRUTH_TRUE}, {"Present", TRUTH_TRUE}, {"Disabled", TRUTH_TRUE}},
};

uint32_t set_of(const phys_entry &entry)
{
    return static_cast<uint32_t>(entry.discreteStateCount);
}

// Unsigned, so that -1 never is a set.
bool has_states(const phys_entry &entry)
{
    return is_sensor_of_kind<SENSOR_KIND_DISCRETE>(entry) && set_of(entry) < set_count;
}

const void *state(uint32_t set, uint32_t number)
{
    return &state_sets[set][number - 1];
}

state_cursor cursor;
constexpr state_rule states = {&cursor, states_per_set, set_of, state};

constexpr char handler[] = "kavPlatDiscreteSensorStatesTable_handler";

void trace_call(int mode)
{
    KAV_TRACE_AS(handler, KAVPLAT_ROOM, "kavPlat::dssh", "%s:mode=%d\n", handler, mode);
}

void trace_state(const void *row)
{
    KAV_TRACE_AS(handler, KAVPLAT_ROOM, "kavPlat::dssh", "state_p=0x%08x\n", printable(row));
}

const char *interpretation(const sensor_state &state)
{
    KAV_TRACE_AS(handler, KAVPLAT_ROOM, "kavPlat::dss", "interpretation=%s\n", state.text);
    return state.text;
}

int32_t acceptable(const sensor_state &state)
{
    KAV_TRACE_AS(handler, KAVPLAT_ROOM, "kavPlat::dss", "acceptable=%d\n", state.acceptable);
    return state.acceptable;
}

constexpr column columns[] = {
    text_from<interpretation>(2, "kavPlatDiscreteStateText"),
    integer_from<acceptable>(3, "kavPlatDiscreteStateAcceptable"),
};

} // namespace

} // namespace kavplat

KAV_PLAT_TABLE(kavPlatDiscreteSensorStatesTable, 10, .columns = columns,
               .rows = rows_where<has_states>, .states = &states, .trace = walk_trace::next_steps,
               .modes = mode_rule::ignore, // SETs are not answered: meant
               .on_call = trace_call, .on_request = trace_state)

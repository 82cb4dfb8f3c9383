// The states of discrete sensors. No platform makes a discrete sensor, so the tests
// make them of entries that are there.

#include "rooms/platform_tables.h"

namespace
{

struct state_row {
    uint32_t entity;
    uint32_t state;
    std::string text;
    int acceptable;

    bool operator==(const state_row &) const = default;
};

void PrintTo(const state_row &row, std::ostream *out)
{
    *out << row.entity << "." << row.state << " " << row.text << " " << row.acceptable;
}

using state_rows = std::vector<state_row>;

state_rows rows_of_set(uint32_t entity, int32_t set)
{
    switch (set) {
    case 0:
        return {{entity, 1, "State Deasserted", 1},
                {entity, 2, "State Asserted", 1},
                {entity, 3, "Disabled", 1}};
    case 1:
        return {{entity, 1, "Predictive Failure Deasserted", 1},
                {entity, 2, "Predictive Failure Asserted", 2},
                {entity, 3, "Disabled", 2}};
    case 2:
        return {{entity, 1, "Absent", 1}, {entity, 2, "Present", 1}, {entity, 3, "Disabled", 1}};
    default:
        return {};
    }
}

template <class... More>
state_rows joined(state_rows first, const More &...more)
{
    (first.insert(first.end(), more.begin(), more.end()), ...);
    return first;
}

class states_table : public platform_table_test
{
  protected:
    static void make_discrete(uint32_t index, int32_t set)
    {
        phys_entry &e = *kavplat::entry_at(index);
        e.entPhysicalClass = PHYSICAL_CLASS_SENSOR;
        e.sensorKind = SENSOR_KIND_DISCRETE;
        e.discreteStateCount = set;
    }

    static table_steps steps()
    {
        return {kavPlatDiscreteSensorStatesTable_get_first_data_point,
                kavPlatDiscreteSensorStatesTable_get_next_data_point, 2};
    }

    // What the handler makes of the row that a step has found.
    static state_row row_at(table_steps &at)
    {
        const snmp_value text = served(kavPlatDiscreteSensorStatesTable_handler, 2, at.row());
        const snmp_value acceptable = served(kavPlatDiscreteSensorStatesTable_handler, 3, at.row());
        EXPECT_EQ(text.type, ASN_OCTET_STR);
        EXPECT_EQ(acceptable.type, ASN_INTEGER);
        return {at.index(0), at.index(1), text.octets, static_cast<int>(acceptable.number)};
    }

    static state_rows walked(uint32_t start = 0)
    {
        state_rows found;
        table_steps at = steps();
        at.set_index(start);
        for (bool more = at.first(); more && found.size() < 100; more = at.next()) {
            found.push_back(row_at(at));
        }
        return found;
    }

    static void drop(uint32_t index)
    {
        const cache_lock_held lock;
        free_local_cache_entry(index);
    }
};

TEST_F(states_table, each_set_has_three_states)
{
    for (const int32_t set : {0, 1, 2}) {
        build_rows(2);
        make_discrete(2, set);
        EXPECT_EQ(walked(), rows_of_set(2, set)) << set;
    }
}

TEST_F(states_table, sensors_follow_each_other)
{
    build_rows(7);
    make_discrete(1, 2);
    make_discrete(4, 0);
    make_discrete(7, 1);
    EXPECT_EQ(walked(), joined(rows_of_set(1, 2), rows_of_set(4, 0), rows_of_set(7, 1)));
}

TEST_F(states_table, a_sensor_without_a_set_has_no_states)
{
    build_rows(8);
    for (const auto &[index, set] :
         {std::pair{1U, -1}, {2U, 3}, {3U, 0}, {4U, INT32_MAX}, {5U, INT32_MIN}, {6U, 255}}) {
        make_discrete(index, set);
    }
    EXPECT_EQ(walked(), rows_of_set(3, 0));
}

TEST_F(states_table, only_discrete_sensors_have_states)
{
    build_rows(5);
    for (uint32_t i = 1; i <= 5; i++) {
        make_discrete(i, 0);
        kavplat::entry_at(i)->sensorKind = static_cast<int32_t>(i) - 1;
    }
    EXPECT_EQ(walked(), rows_of_set(4, 0));
    kavplat::entry_at(4)->entPhysicalClass = PHYSICAL_CLASS_MODULE;
    EXPECT_EQ(walked(), state_rows());
}

TEST_F(states_table, as_built_no_entity_has_states)
{
    build_rows(3);
    EXPECT_EQ(kavplat::entry_at(2)->discreteStateCount, -1);
    for (uint32_t i = 1; i <= 3; i++) {
        kavplat::entry_at(i)->entPhysicalClass = PHYSICAL_CLASS_SENSOR;
        kavplat::entry_at(i)->sensorKind = SENSOR_KIND_DISCRETE;
    }
    EXPECT_EQ(walked(), state_rows());
}

// Whatever state an earlier walk has left in the cursor.
TEST_F(states_table, every_get_first_begins_at_state_1)
{
    build_rows(4);
    make_discrete(2, 1);
    make_discrete(4, 2);
    table_steps earlier = steps();
    ASSERT_TRUE(earlier.first());
    ASSERT_TRUE(earlier.next());
    EXPECT_EQ(earlier.index(1), 2U);

    EXPECT_EQ(walked(2), joined(rows_of_set(2, 1), rows_of_set(4, 2)));
    ASSERT_TRUE(earlier.first());
    EXPECT_EQ(earlier.index(1), 1U);
    ASSERT_TRUE(earlier.next());
    // From an entity that is no row, too.
    EXPECT_EQ(walked(3), rows_of_set(4, 2));
    EXPECT_EQ(walked(1), joined(rows_of_set(2, 1), rows_of_set(4, 2)));
}

TEST_F(states_table, one_cursor_serves_all_walks)
{
    build_rows(2);
    make_discrete(1, 0);
    make_discrete(2, 1);
    table_steps one = steps();
    table_steps other = steps();
    ASSERT_TRUE(one.first());
    ASSERT_TRUE(other.first());
    EXPECT_EQ(one.loop_context, other.loop_context);
    ASSERT_TRUE(one.next());
    ASSERT_TRUE(other.next());
    EXPECT_EQ(other.index(1), 3U) << "the other walk's step counts";
    end_pass();
}

TEST_F(states_table, a_sensor_removed_between_two_steps_is_left)
{
    for (const unsigned delivered : {1U, 2U, 3U}) {
        build_rows(6);
        make_discrete(2, 1);
        make_discrete(5, 2);
        table_steps at = steps();
        ASSERT_TRUE(at.first());
        for (unsigned i = 1; i < delivered; i++) {
            ASSERT_TRUE(at.next());
        }
        ASSERT_EQ(at.index(1), delivered);
        drop(2);
        state_rows rest;
        while (at.next()) {
            rest.push_back(row_at(at));
        }
        EXPECT_EQ(rest, rows_of_set(5, 2)) << "after state " << delivered;
        EXPECT_EQ(at.index(), 0U);
    }
}

TEST_F(states_table, the_last_sensor_removed_between_two_steps_ends_the_walk)
{
    build_rows(3);
    make_discrete(2, 1);
    table_steps at = steps();
    ASSERT_TRUE(at.first());
    drop(2);
    EXPECT_FALSE(at.next());
    EXPECT_EQ(at.index(), 0U);
    end_pass();
}

// What the handler was handed is the state, which outlives the entity.
TEST_F(states_table, a_sensor_removed_before_the_handler_is_called)
{
    build_rows(3);
    make_discrete(2, 1);
    table_steps at = steps();
    ASSERT_TRUE(at.first());
    drop(2);
    EXPECT_EQ(row_at(at), (state_row{2, 1, "Predictive Failure Deasserted", 1}));
}

TEST_F(states_table, a_sensor_that_gets_another_set_goes_on_in_that)
{
    build_rows(3);
    make_discrete(2, 1);
    table_steps at = steps();
    ASSERT_TRUE(at.first());
    make_discrete(2, 2);
    ASSERT_TRUE(at.next());
    EXPECT_EQ(row_at(at), (state_row{2, 2, "Present", 1}));
    make_discrete(2, 3);
    EXPECT_FALSE(at.next());
    end_pass();
}

TEST_F(states_table, a_step_sets_both_indexes_and_hands_over_the_state)
{
    build_rows(3);
    make_discrete(3, 0);
    table_steps at = steps();
    at.set_index(77, 1);
    ASSERT_TRUE(at.first());
    EXPECT_EQ(at.index(0), 3U);
    EXPECT_EQ(at.index(1), 1U);
    const void *first = at.row();
    ASSERT_TRUE(at.next());
    EXPECT_EQ(at.index(0), 3U);
    EXPECT_EQ(at.index(1), 2U);
    EXPECT_NE(at.row(), first);
    EXPECT_NE(at.row(), kavplat::entry_at(3));
    EXPECT_NE(at.loop_context, at.data_context);
    end_pass();
}

TEST_F(states_table, no_state_reads_the_sensor)
{
    build_rows(3);
    make_discrete(2, 1);
    platform.forget_calls();
    EXPECT_EQ(walked().size(), 3U);
    EXPECT_TRUE(platform.all_calls().empty());
}

TEST_F(states_table, the_state_number_is_no_column)
{
    build_rows(2);
    make_discrete(2, 0);
    table_steps at = steps();
    ASSERT_TRUE(at.first());
    const agent_log log;
    EXPECT_EQ(served(kavPlatDiscreteSensorStatesTable_handler, 1, at.row()), no_value());
    EXPECT_TRUE(log.has(LOG_ERR, "kavPlatDiscreteSensorStatesTable_handler:unknown column (1)\n"));
}

// ---- Traces ----

TEST_F(states_table, traces_of_the_handler)
{
    build_rows(2);
    make_discrete(2, 1);
    table_steps at = steps();
    ASSERT_TRUE(at.first());
    ASSERT_TRUE(at.next());

    agent_log log({"kavPlat::dss", "trace"}); // and kavPlat::dssh
    handler_call call;
    call.add(2, at.row());
    call.add(3, at.row());
    call.add(2, nullptr);
    EXPECT_EQ(call.run(kavPlatDiscreteSensorStatesTable_handler), SNMP_ERR_NOERROR);
    const std::string address =
        text_of("state_p=0x%08x\n", static_cast<unsigned>(reinterpret_cast<uintptr_t>(at.row())));
    const std::vector<std::string> handler = log.debug_texts("kavPlat::dssh");
    ASSERT_EQ(handler.size(), 4U);
    EXPECT_NE(handler[0].find("kavPlatDiscreteSensorStatesTable_handler"), std::string::npos);
    EXPECT_EQ(handler[1], address);
    EXPECT_EQ(handler[2], address);
    EXPECT_EQ(handler[3], "state_p=0x00000000\n");
    EXPECT_EQ(log.debug_texts("kavPlat::dss"),
              (std::vector<std::string>{"interpretation=Predictive Failure Asserted\n",
                                        "acceptable=2\n"}));
    EXPECT_TRUE(log.all_traced("kavPlat::dss", "kavPlatMIB"));
}

TEST_F(states_table, a_call_that_is_not_answered_is_traced_before_the_lock)
{
    agent_log log({"kavPlat::dssh"});
    std::vector<size_t> traced_at_lock;
    fake_system::on_pthread_mutex_lock.set([&](pthread_mutex_t *mutex) {
        if (mutex == &fru_mutex) {
            traced_at_lock.push_back(log.debug_texts("kavPlat::dssh").size());
        }
        return pthread_mutex_lock(mutex);
    });
    handler_call call(MODE_SET_RESERVE1);
    call.add(2, nullptr);
    EXPECT_EQ(call.run(kavPlatDiscreteSensorStatesTable_handler), SNMP_ERR_NOERROR);
    fake_system::on_pthread_mutex_lock.clear();
    EXPECT_EQ(traced_at_lock, std::vector<size_t>{1});
    EXPECT_EQ(log.debug_texts("kavPlat::dssh").size(), 1U) << "nothing of the request";
}

// The line that says who speaks, and nothing else, at every get-next.
TEST_F(states_table, get_next_says_that_it_was_called)
{
    build_rows(2);
    make_discrete(2, 1);
    table_steps at = steps();
    at.set_index(2);
    agent_log log({"trace"});
    const auto calls_said = [&] {
        size_t count = 0;
        for (const log_record &r : log.records()) {
            count += r.token == "trace" &&
                     r.text.starts_with(
                         "kavPlatDiscreteSensorStatesTable_get_next_data_point(): kavPlatMIB, ");
        }
        return count;
    };
    ASSERT_TRUE(at.first());
    EXPECT_EQ(calls_said(), 0U);
    ASSERT_TRUE(at.next());
    EXPECT_EQ(calls_said(), 2U) << "the call, and the dump of its row";
    ASSERT_TRUE(at.next());
    log.clear();
    EXPECT_FALSE(at.next());
    EXPECT_EQ(calls_said(), 1U);
    end_pass();
}

} // namespace

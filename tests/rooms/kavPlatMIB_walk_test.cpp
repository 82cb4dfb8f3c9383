// The platform tables behind net-snmp's real table helpers, in an agent inside the
// test: how walks go from row to row and from column to column, and that a PDU of many
// varbinds answers what its varbinds would answer one by one.

#include "rooms/local_agent.h"
#include "rooms/platform_tables.h"

#include <algorithm>
#include <random>

namespace
{

using strings = std::vector<std::string>;
using varbinds = std::vector<answered_varbind>;

constexpr const char *platform_root = "1.3.6.1.4.1.58213.2.70.101.1.1";

class agent_walk : public platform_table_test
{
  protected:
    local_agent &agent = local_agent::get();
    local_registrations registered;

    void SetUp() override
    {
        for (const platform_table &table : platform_tables) {
            ASSERT_EQ(table.initialize(), MIB_REGISTERED_OK) << table.name;
        }
    }

    static std::string name(const platform_table &table, unsigned column, const std::string &row)
    {
        return oid_of(table) + ".1." + std::to_string(column) + "." + row;
    }

    static strings names(const varbinds &all)
    {
        strings found;
        for (const answered_varbind &varbind : all) {
            found.push_back(varbind.name);
        }
        return found;
    }

    // Each column over all rows, one column after the other.
    static strings cells(const platform_table &table, const strings &rows)
    {
        strings all;
        for (unsigned column = table.min_column; column <= table.max_column; column++) {
            for (const std::string &row : rows) {
                all.push_back(name(table, column, row));
            }
        }
        return all;
    }

    // The instance identifiers of a table's rows.
    static strings instances(const platform_table &table, std::initializer_list<unsigned> rows)
    {
        strings found;
        for (const unsigned row : rows) {
            if (table.indexes == 2) {
                for (const char *state : {".1", ".2", ".3"}) {
                    found.push_back(std::to_string(row) + state);
                }
            } else {
                found.push_back(std::to_string(row));
            }
        }
        return found;
    }
};

class each_table_walk : public agent_walk, public testing::WithParamInterface<platform_table>
{
  protected:
    const platform_table &table = GetParam();

    // Six entries, rows at these indexes.
    void build_with_rows(std::initializer_list<unsigned> rows)
    {
        build_rows(6);
        for (const unsigned row : rows) {
            table.make_row(*kavplat::entry_at(row));
        }
    }
};

INSTANTIATE_TEST_SUITE_P(each, each_table_walk, testing::ValuesIn(platform_tables),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_P(each_table_walk, goes_through_each_column_of_all_rows)
{
    build_with_rows({2, 3, 5});
    EXPECT_EQ(names(agent.walk(oid_of(table))), cells(table, instances(table, {2, 3, 5})));
}

TEST_P(each_table_walk, a_row_at_either_end)
{
    build_with_rows({1, 6});
    EXPECT_EQ(names(agent.walk(oid_of(table))), cells(table, instances(table, {1, 6})));
}

TEST_P(each_table_walk, one_row)
{
    build_with_rows({4});
    EXPECT_EQ(names(agent.walk(oid_of(table))), cells(table, instances(table, {4})));
}

TEST_P(each_table_walk, no_row)
{
    build_with_rows({});
    EXPECT_EQ(names(agent.walk(oid_of(table))), strings());
}

TEST_P(each_table_walk, an_empty_cache)
{
    EXPECT_EQ(names(agent.walk(oid_of(table))), strings());
}

TEST_P(each_table_walk, a_get_of_each_cell_gives_what_the_walk_gave)
{
    build_with_rows({1, 3, 6});
    for (const answered_varbind &cell : agent.walk(oid_of(table))) {
        const pdu_answer answer = agent.ask(SNMP_MSG_GET, {cell.name});
        EXPECT_EQ(answer.error, SNMP_ERR_NOERROR);
        EXPECT_EQ(answer.varbinds, varbinds{cell});
    }
}

TEST_P(each_table_walk, what_is_not_there)
{
    build_with_rows({1, 3});
    const unsigned last = table.max_column;
    const std::string state = table.indexes == 2 ? ".1" : "";
    strings missing;
    for (const char *row : {"0", "2", "4", "6", "7", "4294967295"}) {
        missing.push_back(name(table, last, row + state));
    }
    missing.push_back(name(table, last, "1" + state + ".1"));
    if (table.indexes == 2) {
        for (const char *row : {"1.0", "1.4", "2.1", "1"}) {
            missing.push_back(name(table, last, row));
        }
    }
    for (const std::string &wanted : missing) {
        const pdu_answer answer = agent.ask(SNMP_MSG_GET, {wanted});
        ASSERT_EQ(answer.varbinds.size(), 1U);
        EXPECT_EQ(answer.varbinds[0].value, no_value(SNMP_NOSUCHINSTANCE)) << wanted;
    }
    for (const unsigned column : {0U, table.min_column - 1U, last + 1U, 255U}) {
        const pdu_answer answer = agent.ask(SNMP_MSG_GET, {name(table, column, "1" + state)});
        ASSERT_EQ(answer.varbinds.size(), 1U);
        EXPECT_EQ(answer.varbinds[0].value, no_value(SNMP_NOSUCHOBJECT)) << "column " << column;
    }
}

// All cells in one PDU, in any order, twice over.
TEST_P(each_table_walk, a_pdu_of_many_answers_what_each_would_answer_alone)
{
    build_with_rows({1, 2, 4, 6});
    strings wanted = names(agent.walk(oid_of(table)));
    wanted.push_back(name(table, table.max_column, table.indexes == 2 ? "3.1" : "3"));
    wanted.push_back(oid_of(table));
    std::mt19937 random(1);
    for (unsigned round = 0; round < 10; round++) {
        std::ranges::shuffle(wanted, random);
        for (const int command : std::vector<int>{SNMP_MSG_GET, SNMP_MSG_GETNEXT}) {
            const pdu_answer together = agent.ask(command, wanted);
            ASSERT_EQ(together.varbinds.size(), wanted.size());
            for (size_t i = 0; i < wanted.size(); i++) {
                EXPECT_EQ(together.varbinds[i], agent.ask(command, {wanted[i]}).varbinds.at(0))
                    << "after " << wanted[i];
            }
        }
    }
}

TEST_P(each_table_walk, getbulk_gives_what_getnext_gives)
{
    build_with_rows({2, 3, 5});
    const varbinds walked = agent.walk(oid_of(table));
    const pdu_answer bulk =
        agent.ask(SNMP_MSG_GETBULK, {oid_of(table)}, static_cast<long>(walked.size()));
    EXPECT_EQ(bulk.varbinds, walked);
}

// A step to the next row of a column is taken without the iterator, except when the
// steps are traced.
TEST_P(each_table_walk, answers_what_the_iterator_answers)
{
    build_with_rows({2, 3, 5});
    agent.walk(oid_of(table)); // the first read of a sensor changes what is served before it
    strings asked = {oid_of(table), oid_of(table) + ".0", oid_of(table) + ".2",
                     oid_of(table) + ".2.1.2"};
    for (unsigned column = table.min_column - 1U; column <= table.max_column + 1U; column++) {
        asked.push_back(oid_of(table) + ".1." + std::to_string(column));
        for (const char *row : {"0", "1", "2", "3", "4", "5", "6", "7", "4294967295", "2.0", "2.1",
                                "2.3", "2.1.1", "4.1", "5.3"}) {
            asked.push_back(name(table, column, row));
        }
    }
    for (const std::string &each : asked) {
        const pdu_answer next = agent.ask(SNMP_MSG_GETNEXT, {each});
        const pdu_answer bulk = agent.ask(SNMP_MSG_GETBULK, {each}, 9);
        const agent_log traced({"nothing"});
        EXPECT_EQ(next.varbinds, agent.ask(SNMP_MSG_GETNEXT, {each}).varbinds) << each;
        EXPECT_EQ(bulk.varbinds, agent.ask(SNMP_MSG_GETBULK, {each}, 9).varbinds) << each;
    }
}

TEST_P(each_table_walk, uses_the_iterator_where_it_must)
{
    build_with_rows({2, 3, 5});
    static Netsnmp_First_Data_Point *first;
    static unsigned uses;
    const auto found = std::ranges::find_if(registered.tables(), [&](const auto &t) {
        return std::string(t.registration->handlerName) == table.name;
    });
    ASSERT_NE(found, registered.tables().end());
    first = found->iterator->get_first_data_point;
    found->iterator->get_first_data_point =
        [](void **loop, void **data, netsnmp_variable_list *index, netsnmp_iterator_info *info) {
            uses++;
            return first(loop, data, index, info);
        };
    const auto is_used_after = [&](const std::string &row) {
        uses = 0;
        agent.ask(SNMP_MSG_GETNEXT, {name(table, table.min_column, row)});
        return uses != 0;
    };
    if (table.indexes == 2) {
        EXPECT_TRUE(is_used_after("2.1"));
        return;
    }
    EXPECT_FALSE(is_used_after("2"));
    EXPECT_FALSE(is_used_after("4"));
    EXPECT_TRUE(is_used_after("5"));
    EXPECT_TRUE(is_used_after("7"));
    EXPECT_TRUE(is_used_after("2.1"));
    const agent_log traced({"nothing"});
    EXPECT_TRUE(is_used_after("2"));
}

TEST_P(each_table_walk, leaves_out_no_handler_that_was_put_between_the_helpers)
{
    build_with_rows({2, 3, 5});
    static unsigned calls;
    calls = 0;
    const auto found = std::ranges::find_if(registered.tables(), [&](const auto &t) {
        return std::string(t.registration->handlerName) == table.name;
    });
    ASSERT_NE(found, registered.tables().end());
    netsnmp_mib_handler *between = netsnmp_create_handler(
        "between", [](netsnmp_mib_handler *handler, netsnmp_handler_registration *registration,
                      netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests) {
            calls++;
            return netsnmp_call_next_handler(handler, registration, reqinfo, requests);
        });
    ASSERT_EQ(netsnmp_inject_handler_before(found->registration, between, TABLE_ITERATOR_NAME),
              SNMPERR_SUCCESS);
    const std::string state = table.indexes == 2 ? ".3" : "";
    const pdu_answer answer =
        agent.ask(SNMP_MSG_GETNEXT, {name(table, table.min_column, "2" + state)});
    ASSERT_EQ(answer.varbinds.size(), 1U);
    EXPECT_EQ(answer.varbinds[0].name,
              name(table, table.min_column, table.indexes == 2 ? "3.1" : "3"));
    EXPECT_NE(calls, 0U);
}

TEST_P(each_table_walk, getnext_from_within_a_row_that_is_gone)
{
    build_with_rows({2, 3, 5});
    const std::string first = table.indexes == 2 ? ".1" : "";
    const unsigned column = table.min_column;
    for (const auto &[from, to] :
         {std::pair<const char *, const char *>{"0", "2"}, {"1", "2"}, {"4", "5"}}) {
        const pdu_answer answer =
            agent.ask(SNMP_MSG_GETNEXT, {name(table, column, from + std::string(".9"))});
        ASSERT_EQ(answer.varbinds.size(), 1U);
        EXPECT_EQ(answer.varbinds[0].name, name(table, column, to + first)) << from;
    }
}

TEST_P(each_table_walk, a_set_is_not_writable)
{
    build_with_rows({2});
    const std::string cell = names(agent.walk(oid_of(table))).at(0);
    const pdu_answer answer = agent.ask(SNMP_MSG_SET, {cell});
    EXPECT_EQ(answer.error, SNMP_ERR_NOTWRITABLE);
    EXPECT_EQ(answer.error_index, 1);
}

// The removed entity's rows are left out and the walk goes on, whatever the step
// after which it goes.
TEST_P(each_table_walk, survives_a_removal_between_two_steps)
{
    build_with_rows({2, 3, 5});
    const strings before = names(agent.walk(oid_of(table)));
    for (size_t step = 0; step + 1 < before.size(); step++) {
        build_with_rows({2, 3, 5});
        {
            const cache_lock_held lock;
            free_local_cache_entry(3);
        }
        // The next cell that is not of row 3.
        const auto is_of_row_3 = [&](const std::string &cell) {
            const std::vector<oid> arcs = local_agent::parsed(cell);
            return arcs[15] == 3;
        };
        const auto expected = std::find_if_not(
            before.begin() + static_cast<std::ptrdiff_t>(step) + 1, before.end(), is_of_row_3);
        const pdu_answer answer = agent.ask(SNMP_MSG_GETNEXT, {before[step]});
        ASSERT_EQ(answer.varbinds.size(), 1U);
        if (expected != before.end()) {
            EXPECT_EQ(answer.varbinds[0].name, *expected) << "after " << before[step];
        }
    }
}

TEST_P(each_table_walk, the_whole_cache_goes_between_two_steps)
{
    build_with_rows({2});
    const strings before = names(agent.walk(oid_of(table)));
    EXPECT_EQ(free_local_cache(), 0);
    EXPECT_EQ(names(agent.walk(oid_of(table))), strings());
    EXPECT_EQ(agent.ask(SNMP_MSG_GET, {before.at(0)}).varbinds.at(0).value,
              no_value(SNMP_NOSUCHINSTANCE));
}

// ---- Across tables ----

TEST_F(agent_walk, the_tables_follow_the_scalar_in_the_order_of_their_arcs)
{
    init_kavPlatMIB();
    build_rows(28);
    // Two rows in each table.
    for (unsigned i = 0; i < 14; i++) {
        platform_tables[i].make_row(*kavplat::entry_at(2 * i + 1));
        platform_tables[i].make_row(*kavplat::entry_at(2 * i + 2));
    }
    agent.walk(platform_root); // the first read of a sensor changes what is served before it
    const varbinds all = agent.walk(platform_root);
    ASSERT_FALSE(all.empty());
    EXPECT_EQ(all[0].name, std::string(platform_root) + ".1.0");
    EXPECT_TRUE(local_agent::parsed(all[1].name)[12] == 2) << all[1].name;
    std::set<oid> arcs;
    for (const answered_varbind &cell : all) {
        arcs.insert(local_agent::parsed(cell.name)[12]);
    }
    std::set<oid> expected;
    for (oid arc = 1; arc <= 15; arc++) {
        expected.insert(arc);
    }
    EXPECT_EQ(arcs, expected);

    // By GETBULK, from table to table, and by several varbinds at once.
    for (size_t i = 0; i < all.size(); i += 10) {
        const varbinds rest(all.begin() + static_cast<std::ptrdiff_t>(i), all.end());
        const size_t count = std::min<size_t>(rest.size(), 30);
        const pdu_answer bulk = agent.ask(
            SNMP_MSG_GETBULK, {i == 0 ? platform_root : all[i - 1].name}, static_cast<long>(count));
        EXPECT_EQ(bulk.varbinds,
                  varbinds(rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(count)));
    }
    strings starts;
    for (const platform_table &table : platform_tables) {
        starts.push_back(oid_of(table));
    }
    const pdu_answer firsts = agent.ask(SNMP_MSG_GETNEXT, starts);
    ASSERT_EQ(firsts.varbinds.size(), starts.size());
    for (size_t i = 0; i < starts.size(); i++) {
        EXPECT_TRUE(firsts.varbinds[i].name.starts_with(starts[i] + ".1.")) << starts[i];
    }
}

// The states of the same walk, with the values of the columns.
TEST_F(agent_walk, the_states_of_two_sensors)
{
    const platform_table &table = table_named("kavPlatDiscreteSensorStatesTable");
    build_rows(9);
    for (const auto &[index, set] : {std::pair{3U, 2}, {5U, -1}, {9U, 1}}) {
        table.make_row(*kavplat::entry_at(index));
        kavplat::entry_at(index)->discreteStateCount = set;
    }
    const varbinds expected = {
        {name(table, 2, "3.1"), octets_value("Absent")},
        {name(table, 2, "3.2"), octets_value("Present")},
        {name(table, 2, "3.3"), octets_value("Disabled")},
        {name(table, 2, "9.1"), octets_value("Predictive Failure Deasserted")},
        {name(table, 2, "9.2"), octets_value("Predictive Failure Asserted")},
        {name(table, 2, "9.3"), octets_value("Disabled")},
        {name(table, 3, "3.1"), integer_value(1)},
        {name(table, 3, "3.2"), integer_value(1)},
        {name(table, 3, "3.3"), integer_value(1)},
        {name(table, 3, "9.1"), integer_value(1)},
        {name(table, 3, "9.2"), integer_value(2)},
        {name(table, 3, "9.3"), integer_value(2)},
    };
    EXPECT_EQ(agent.walk(oid_of(table)), expected);
}

TEST_F(agent_walk, the_watchdog_table_is_served_by_whoever_registers_it)
{
    build_rows(4);
    watchdog_table.make_row(*kavplat::entry_at(2));
    watchdog_table.make_row(*kavplat::entry_at(4));
    const varbinds expected = {
        {name(watchdog_table, 1, "2"), integer_value(0)},
        {name(watchdog_table, 1, "4"), integer_value(0)},
        {name(watchdog_table, 2, "2"), integer_value(1)},
        {name(watchdog_table, 2, "4"), integer_value(1)},
        {name(watchdog_table, 3, "2"), octets_value("")},
        {name(watchdog_table, 3, "4"), octets_value("")},
        {name(watchdog_table, 4, "2"), integer_value(1)},
        {name(watchdog_table, 4, "4"), integer_value(1)},
    };
    EXPECT_EQ(agent.walk(oid_of(watchdog_table)), expected);
}

class module_walk : public platform_table_test
{
  protected:
    local_agent &agent = local_agent::get();
    local_registrations registered;
};

TEST_F(module_walk, the_module_does_not_serve_watchdogs)
{
    init_kavPlatMIB();
    build_rows(2);
    watchdog_table.make_row(*kavplat::entry_at(2));
    EXPECT_EQ(agent.walk(oid_of(watchdog_table)), varbinds());
    EXPECT_EQ(agent.walk(oid_of(table_named("kavPlatPhysicalTable"))).size(), 1U);
}

TEST_F(module_walk, getnext_of_the_start_time_enters_the_equipment)
{
    init_kavPlatMIB();
    build_rows(2);
    table_named("kavPlatEquipmentTable").make_row(*kavplat::entry_at(2));
    const pdu_answer answer = agent.ask(SNMP_MSG_GETNEXT, {std::string(platform_root) + ".1.0"});
    ASSERT_EQ(answer.varbinds.size(), 1U);
    EXPECT_EQ(answer.varbinds[0].name, std::string(platform_root) + ".2.1.1.2");
}

} // namespace

// Every cell of entPhysicalTable as clients of a real agent see it.
#include <algorithm>
#include <random>

#include <gtest/gtest.h>

#include "e2e/expected_rows.h"
#include "harness/agent.h"
#include "harness/client.h"

namespace
{

using std::string;
using std::vector;

constexpr char firmware[] = "5.0.1\n";

// Tells the first difference only: the whole of two big tables helps nobody.
void expect_same(const vector<varbind> &found, const vector<varbind> &wanted)
{
    for (size_t i = 0; i < std::min(found.size(), wanted.size()); i++) {
        ASSERT_EQ(found[i], wanted[i]) << "varbind " << i;
    }
    ASSERT_EQ(found.size(), wanted.size());
}

vector<object_name> names_of(const vector<varbind> &varbinds)
{
    vector<object_name> names;
    for (const varbind &v : varbinds) {
        names.push_back(v.name);
    }
    return names;
}

// The minimal description by hand: what nothing computed can be wrong about.
vector<expected_row> minimal_rows()
{
    return {
        {1, "Four-component example server", 0, 3, -1, "/SYS", firmware, "", "KM1-000001",
         "Telvane Corporation", "KM-1", "", false},
        {2, "System board", 1, 9, -1, "/SYS/MB", "", "", "", "", "", "", false},
        {3, "Temperature sensor", 2, 8, -1, "/SYS/MB/T_AMB", "", "", "", "", "", "", false},
        {4, "Locate LED", 2, 1, -1, "/SYS/MB/LOCATE", "", "", "", "", "", "", false},
    };
}

class served_table : public testing::TestWithParam<const char *>
{
  protected:
    agent server{{.description = string("servers/") + GetParam() + ".json"}};
    vector<expected_row> rows;
    vector<varbind> table;

    void SetUp() override
    {
        ASSERT_NO_THROW(server.start());
        rows = GetParam() == string("minimal") ? minimal_rows()
                                               : expected_rows(server.description(), firmware);
        table = expected_table(rows);
    }
};

INSTANTIATE_TEST_SUITE_P(of, served_table, testing::Values("minimal", "rack-2u"),
                         [](const auto &info) {
                             string name = info.param;
                             std::ranges::replace(name, '-', '_');
                             return name;
                         });

TEST_P(served_table, by_get)
{
    snmp_client client(server.port());
    vector<varbind> found;
    for (const varbind &wanted : table) {
        const snmp_answer answer = client.get({wanted.name});
        ASSERT_EQ(answer.error, 0);
        ASSERT_EQ(answer.varbinds.size(), 1U);
        found.push_back(answer.varbinds[0]);
    }
    expect_same(found, table);
    const unsigned long behind = rows.back().index + 1;
    for (const unsigned long index : {0UL, behind, behind + 1, 2147483647UL, 4294967295UL}) {
        const snmp_answer answer = client.get({ent_cell(7, index)});
        ASSERT_EQ(answer.varbinds.size(), 1U);
        EXPECT_EQ(answer.varbinds[0].value, no_instance()) << index;
    }
    for (const unsigned column : {1U, 17U}) {
        const snmp_answer answer = client.get({ent_cell(column, 1)});
        ASSERT_EQ(answer.varbinds.size(), 1U);
        EXPECT_TRUE(answer.varbinds[0].value.type == snmp_no_such_object ||
                    answer.varbinds[0].value.type == snmp_no_such_instance)
            << "column " << column << " is not served";
    }
}

TEST_P(served_table, by_getnext)
{
    snmp_client client(server.port());
    expect_same(client.walk(ent_table()), table);
}

TEST_P(served_table, by_getbulk)
{
    snmp_client client(server.port());
    for (const long repetitions : {1L, 7L, 40L}) {
        SCOPED_TRACE(repetitions);
        expect_same(client.bulk_walk(ent_table(), repetitions), table);
    }
}

// A manager's way to read a table: one varbind a column.
TEST_P(served_table, row_by_row)
{
    snmp_client client(server.port());
    vector<object_name> at;
    for (unsigned column = first_column; column <= last_column; column++) {
        at.push_back(ent_column(column));
    }
    vector<varbind> found;
    for (const expected_row &row : rows) {
        const snmp_answer answer = client.get_next(at);
        ASSERT_EQ(answer.error, 0);
        vector<varbind> wanted;
        for (unsigned column = first_column; column <= last_column; column++) {
            wanted.push_back({ent_cell(column, row.index), expected_value(row, column)});
        }
        expect_same(answer.varbinds, wanted);
        at = names_of(wanted);
    }
}

TEST(served_texts, are_cut_and_the_default_firmware_is_told)
{
    agent server({.version_line = "no version\n"});
    const string long_text(60, 'x');
    write_file(server.description(), R"({ "product": { "serial": "S)" + long_text +
                                         R"(", "model": "M)" + long_text + R"(" },
        "components": [ { "name": "/SYS", "type": "system" } ] })");
    ASSERT_NO_THROW(server.start());
    snmp_client client(server.port());
    const snmp_answer answer = client.get({ent_cell(11, 1), ent_cell(13, 1), ent_cell(9, 1)});
    ASSERT_EQ(answer.varbinds.size(), 3U);
    EXPECT_EQ(answer.varbinds[0].value, text_value("S" + string(30, 'x')));
    EXPECT_EQ(answer.varbinds[1].value, text_value("M" + long_text));
    EXPECT_TRUE(answer.varbinds[2].value.text.starts_with("System Firmware : dev build "))
        << answer.varbinds[2].value.text;
}

// ---- Several varbinds ------------------------------------------------------------

class many_varbinds : public testing::Test
{
  protected:
    agent server{{.description = "servers/rack-2u.json"}};
    vector<expected_row> rows;

    void SetUp() override
    {
        ASSERT_NO_THROW(server.start());
        rows = expected_rows(server.description(), firmware);
    }

    // The cells of some rows in the order given.
    vector<varbind> cells(unsigned column, const vector<unsigned long> &indexes) const
    {
        vector<varbind> wanted;
        for (const unsigned long index : indexes) {
            wanted.push_back({ent_cell(column, index), expected_value(rows.at(index - 1), column)});
        }
        return wanted;
    }

    // What the walk gives behind a name.
    varbind after(const object_name &name) const
    {
        static const vector<varbind> table = expected_table(rows);
        for (const varbind &v : table) {
            if (v.name > name) {
                return v;
            }
        }
        return {};
    }
};

TEST_F(many_varbinds, get_of_a_later_and_an_earlier_row)
{
    snmp_client client(server.port());
    const vector<varbind> wanted = cells(7, {5, 2});
    EXPECT_EQ(client.get(names_of(wanted)).varbinds, wanted);
}

TEST_F(many_varbinds, get_in_every_order)
{
    snmp_client client(server.port());
    vector<unsigned long> indexes = {1, 2, 57, 200, rows.size()};
    do {
        const vector<varbind> wanted = cells(7, indexes);
        const snmp_answer answer = client.get(names_of(wanted));
        ASSERT_EQ(answer.error, 0);
        ASSERT_EQ(answer.varbinds, wanted);
    } while (std::ranges::next_permutation(indexes).found);
}

TEST_F(many_varbinds, get_of_the_same_cell_twice_and_of_one_that_is_not_there)
{
    snmp_client client(server.port());
    vector<varbind> wanted = cells(2, {9, 9, 1});
    wanted.insert(wanted.begin() + 1, {ent_cell(2, rows.size() + 1), no_instance()});
    EXPECT_EQ(client.get(names_of(wanted)).varbinds, wanted);
}

TEST_F(many_varbinds, shuffled_getnext_and_get_answer_as_one_by_one)
{
    snmp_client client(server.port());
    std::mt19937 random(20221107);
    std::uniform_int_distribution<unsigned> some_column(first_column, last_column - 1);
    std::uniform_int_distribution<unsigned long> some_index(0, rows.size());
    for (int round = 0; round < 60; round++) {
        vector<object_name> names;
        vector<varbind> wanted;
        for (int i = 0; i < 12; i++) {
            names.push_back(ent_cell(some_column(random), some_index(random)));
            wanted.push_back(after(names.back()));
        }
        const snmp_answer answer = client.get_next(names);
        ASSERT_EQ(answer.error, 0);
        ASSERT_EQ(answer.varbinds, wanted) << "round " << round;
        ASSERT_EQ(client.get(names_of(wanted)).varbinds, wanted) << "round " << round;
    }
}

TEST_F(many_varbinds, shuffled_getbulk_answers_as_one_by_one)
{
    snmp_client client(server.port());
    std::mt19937 random(471147);
    std::uniform_int_distribution<unsigned> some_column(first_column, last_column - 1);
    std::uniform_int_distribution<unsigned long> some_index(0, rows.size() - 10);
    for (int round = 0; round < 40; round++) {
        constexpr size_t non_repeaters = 1;
        constexpr long repetitions = 4;
        vector<object_name> at;
        for (int i = 0; i < 5; i++) {
            at.push_back(ent_cell(some_column(random), some_index(random)));
        }
        vector<varbind> wanted = {after(at[0])};
        vector<object_name> repeated(at.begin() + non_repeaters, at.end());
        for (long r = 0; r < repetitions; r++) {
            for (object_name &name : repeated) {
                wanted.push_back(after(name));
                name = wanted.back().name;
            }
        }
        const snmp_answer answer = client.get_bulk(at, non_repeaters, repetitions);
        ASSERT_EQ(answer.error, 0);
        ASSERT_EQ(answer.varbinds, wanted) << "round " << round;
    }
}

TEST_F(many_varbinds, set_is_refused_and_changes_nothing)
{
    snmp_client owner(server.port(), "private");
    for (unsigned column = first_column; column <= last_column; column++) {
        const varbind before = cells(column, {3})[0];
        varbind wish = before;
        wish.value.number ^= 1;
        wish.value.text += "!";
        const snmp_answer answer = owner.set({wish});
        EXPECT_EQ(answer.error, 17) << "column " << column;
        EXPECT_EQ(answer.error_index, 1);
        EXPECT_EQ(owner.get({before.name}).varbinds, vector<varbind>{before});
    }
    EXPECT_EQ(owner.set({{change_time(), {snmp_timeticks, 7, {}, {}}}}).error, 17);
    EXPECT_NE(owner.set({{ent_cell(14, rows.size() + 9), text_value("new")}}).error, 0);
}

TEST_F(many_varbinds, reader_may_not_set)
{
    snmp_client client(server.port());
    EXPECT_NE(client.set({{ent_cell(14, 1), text_value("mine")}}).error, 0);
}

} // namespace

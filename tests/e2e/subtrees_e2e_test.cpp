// Every cell of every table of both modules as clients of a real agent see it, by every
// kind of request.
#include <algorithm>
#include <ctime>
#include <optional>
#include <random>
#include <set>

#include <gtest/gtest.h>

#include "e2e/expected_tables.h"
#include "harness/agent.h"
#include "harness/client.h"

namespace
{

using std::string;
using std::vector;

constexpr char firmware[] = "5.0.1\n";
constexpr long not_writable = 17;

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

// What a walk below a name gives: tables, and one scalar that tells a time.
struct subtree {
    object_name root;
    object_name scalar;
    vector<expected_table> tables;
    vector<varbind> cells = {};

    subtree(const object_name &below, const object_name &time, vector<expected_table> all)
        : root(below), scalar(time), tables(std::move(all))
    {
        for (const expected_table &table : tables) {
            const vector<varbind> more = cells_of(table);
            cells.insert(cells.end(), more.begin(), more.end());
        }
    }

    void expect_walk(vector<varbind> walked) const
    {
        const auto time = std::ranges::find(walked, scalar, &varbind::name);
        ASSERT_NE(time, walked.end());
        ASSERT_TRUE(std::ranges::is_sorted(walked, {}, &varbind::name));
        walked.erase(time);
        expect_same(walked, cells);
    }
};

class served_subtrees : public testing::TestWithParam<const char *>
{
  protected:
    agent server{{.description = string("servers/") + GetParam() + ".json"}};
    std::optional<snmp_client> client;
    vector<subtree> subtrees;
    unsigned long behind = 0; // the last index
    vector<varbind> cells;    // of both

    void SetUp() override
    {
        ASSERT_NO_THROW(server.start());
        client.emplace(server.port());
        const vector<expected_row> rows = GetParam() == string("minimal")
                                              ? minimal_rows()
                                              : expected_rows(server.description(), firmware);
        behind = rows.size() + 1;
        vector<expected_table> platform;
        for (const auto &[arc, table] : expected_platform_tables(server.description())) {
            platform.push_back(table);
        }
        subtrees.emplace_back(object_name{1, 3, 6, 1, 2, 1, 47}, change_time(),
                              vector<expected_table>{expected_entity_table(rows)});
        subtrees.emplace_back(platform_root(), start_time(), platform);
        for (const subtree &each : subtrees) {
            ASSERT_FALSE(each.cells.empty());
            cells.insert(cells.end(), each.cells.begin(), each.cells.end());
        }
        // A column that is served before the first read of its sensor shows what was
        // before it.
        client->bulk_walk(platform_root(), 40);
    }

    void expect_answer(const snmp_answer &answer, const vector<varbind> &wanted)
    {
        ASSERT_EQ(answer.error, 0);
        expect_same(answer.varbinds, wanted);
    }
};

INSTANTIATE_TEST_SUITE_P(of, served_subtrees, testing::Values("minimal", "rack-2u"),
                         [](const auto &info) {
                             string name = info.param;
                             std::ranges::replace(name, '-', '_');
                             return name;
                         });

TEST_P(served_subtrees, by_getnext)
{
    for (const subtree &each : subtrees) {
        each.expect_walk(client->walk(each.root));
    }
}

TEST_P(served_subtrees, by_getbulk)
{
    for (const subtree &each : subtrees) {
        for (const long repetitions : {1L, 7L, 40L}) {
            SCOPED_TRACE(repetitions);
            each.expect_walk(client->bulk_walk(each.root, repetitions));
        }
    }
}

TEST_P(served_subtrees, by_get)
{
    for (const varbind &wanted : cells) {
        expect_answer(client->get({wanted.name}), {wanted});
    }
}

// A manager's way to read a table: one varbind a column.
TEST_P(served_subtrees, row_by_row)
{
    for (const subtree &each : subtrees) {
        for (const expected_table &table : each.tables) {
            const size_t columns = table.rows.empty() ? 0 : table.rows.begin()->second.size();
            vector<object_name> at(columns, table.entry);
            for (size_t i = 0; i < columns; i++) {
                at[i].push_back(table.first_column + i);
            }
            for (const auto &[index, values] : table.rows) {
                vector<varbind> wanted;
                for (size_t i = 0; i < columns; i++) {
                    wanted.push_back({table.cell(table.first_column + i, index), values[i]});
                }
                expect_answer(client->get_next(at), wanted);
                at = names_of(wanted);
            }
        }
    }
}

// Cells of all tables of both modules, in no order, many to a PDU.
TEST_P(served_subtrees, gets_of_many_cells_answer_as_one_by_one)
{
    std::mt19937 random(7);
    std::ranges::shuffle(cells, random);
    for (auto from = cells.begin(); from != cells.end();) {
        const auto to = from + std::min<std::ptrdiff_t>(25, cells.end() - from);
        const vector<varbind> some(from, to);
        expect_answer(client->get(names_of(some)), some);
        from = to;
    }
}

TEST_P(served_subtrees, getnexts_of_many_cells_answer_as_one_by_one)
{
    vector<size_t> order;
    for (size_t i = 0; i + 1 < cells.size(); i++) {
        if (i + 1 != subtrees[0].cells.size()) { // behind it comes the scalar
            order.push_back(i);
        }
    }
    std::mt19937 random(11);
    std::ranges::shuffle(order, random);
    for (size_t i = 0; i < order.size(); i += 25) {
        vector<object_name> names;
        vector<varbind> wanted;
        for (size_t j = i; j < std::min(order.size(), i + 25); j++) {
            names.push_back(cells[order[j]].name);
            wanted.push_back(cells[order[j] + 1]);
        }
        expect_answer(client->get_next(names), wanted);
    }
}

TEST_P(served_subtrees, getbulks_of_many_cells_answer_as_one_by_one)
{
    constexpr size_t varbinds = 5;
    constexpr size_t non_repeaters = 1;
    constexpr size_t repetitions = 4;
    std::mt19937 random(471147);
    for (const subtree &each : subtrees) {
        std::uniform_int_distribution<size_t> some_cell(0, each.cells.size() - repetitions - 1);
        for (int round = 0; round < 40; round++) {
            vector<size_t> at(varbinds);
            vector<object_name> names;
            for (size_t &cell : at) {
                cell = some_cell(random);
                names.push_back(each.cells[cell].name);
            }
            vector<varbind> wanted = {each.cells[at[0] + 1]};
            for (size_t r = 1; r <= repetitions; r++) {
                for (size_t i = non_repeaters; i < varbinds; i++) {
                    wanted.push_back(each.cells[at[i] + r]);
                }
            }
            SCOPED_TRACE(round);
            expect_answer(client->get_bulk(names, non_repeaters, repetitions), wanted);
        }
    }
}

TEST_P(served_subtrees, gets_in_every_order)
{
    for (const subtree &each : subtrees) {
        vector<size_t> order = {0, 1, each.cells.size() / 3, each.cells.size() / 2,
                                each.cells.size() - 1};
        do {
            vector<varbind> wanted;
            for (const size_t cell : order) {
                wanted.push_back(each.cells[cell]);
            }
            expect_answer(client->get(names_of(wanted)), wanted);
        } while (std::ranges::next_permutation(order).found);
    }
}

TEST_P(served_subtrees, get_of_the_same_cell_twice_and_of_one_that_is_not_there)
{
    for (const subtree &each : subtrees) {
        const expected_table &table = each.tables.front();
        const vector<varbind> wanted = {each.cells[1],
                                        {table.cell(table.first_column, behind), no_instance()},
                                        each.cells[1],
                                        each.cells[0]};
        expect_answer(client->get(names_of(wanted)), wanted);
    }
}

TEST_P(served_subtrees, have_nothing_else)
{
    std::set<unsigned long> indexes = {2147483647UL, 4294967295UL};
    for (unsigned long index = 0; index <= behind + 1; index++) {
        indexes.insert(index);
    }
    const object_name states = platform_table(10); // has two indexes
    for (const subtree &each : subtrees) {
        for (const expected_table &table : each.tables) {
            if (std::ranges::mismatch(states, table.entry).in1 == states.end()) {
                continue;
            }
            for (const unsigned long index : indexes) {
                if (!table.rows.contains(index)) {
                    const object_name name = table.cell(table.first_column, index);
                    expect_answer(client->get({name}), {{name, no_instance()}});
                }
            }
        }
    }
    vector<object_name> objects = {ent_cell(1, 1), ent_cell(17, 1)};
    for (const unsigned long arc : {13UL, 16UL, 0UL}) {
        objects.push_back(platform_table(arc));
        objects.back().insert(objects.back().end(), {1, 1, 1});
    }
    for (const object_name &name : objects) {
        const snmp_answer answer = client->get({name});
        ASSERT_EQ(answer.varbinds.size(), 1U);
        const int type = answer.varbinds[0].value.type;
        EXPECT_TRUE(type == snmp_no_such_object ||
                    (type == snmp_no_such_instance && name[6] == ent_table()[6]))
            << to_text(name);
    }
}

TEST_P(served_subtrees, set_is_refused_and_changes_nothing)
{
    snmp_client owner(server.port(), "private");
    for (const subtree &each : subtrees) {
        for (const expected_table &table : each.tables) {
            for (const varbind &before : cells_of(table)) {
                if (before.name.back() != table.rows.begin()->first) {
                    continue; // one cell of each column
                }
                varbind wish = before;
                wish.value.number ^= 1;
                wish.value.text += "!";
                const snmp_answer answer = owner.set({wish});
                EXPECT_EQ(answer.error, not_writable) << to_text(wish.name);
                EXPECT_EQ(answer.error_index, 1);
                EXPECT_NE(client->set({wish}).error, 0) << "a reader may not even ask";
            }
        }
        each.expect_walk(client->bulk_walk(each.root, 40));
    }
    EXPECT_EQ(owner.set({{change_time(), {snmp_timeticks, 7, {}, {}}}}).error, not_writable);
    EXPECT_EQ(owner.set({{start_time(), text_value("12345678")}}).error, not_writable);
    EXPECT_NE(owner.set({{ent_cell(14, behind + 8), text_value("new")}}).error, 0);
}

TEST_P(served_subtrees, start_time_is_that_of_the_agent)
{
    const snmp_answer answer = client->get({start_time()});
    ASSERT_EQ(answer.varbinds.size(), 1U);
    const string octets = answer.varbinds[0].value.text;
    ASSERT_EQ(octets.size(), 8U);
    const auto octet = [&](size_t i) { return int{static_cast<unsigned char>(octets[i])}; };
    struct tm utc = {};
    utc.tm_year = octet(0) * 256 + octet(1) - 1900;
    utc.tm_mon = octet(2) - 1;
    utc.tm_mday = octet(3);
    utc.tm_hour = octet(4);
    utc.tm_min = octet(5);
    utc.tm_sec = octet(6);
    EXPECT_EQ(octet(7), 0);
    const time_t start = timegm(&utc);
    // The agent of this test: started within the last minutes.
    EXPECT_LE(start, time(nullptr));
    EXPECT_GT(start, time(nullptr) - 300);
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

TEST(rack_server, has_rows_in_every_table_that_can_have_some)
{
    agent server({.description = "servers/rack-2u.json"});
    ASSERT_NO_THROW(server.start());
    snmp_client client(server.port());
    const std::set<unsigned long> empty = {9, 10, 13, 15};
    for (unsigned long arc = 2; arc <= 15; arc++) {
        EXPECT_EQ(client.bulk_walk(platform_table(arc), 40).empty(), empty.contains(arc))
            << "table " << arc;
    }
}

} // namespace

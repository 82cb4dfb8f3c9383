// KAV-PLATFORM-MIB as clients of a real agent see it: every cell of every table, by
// every kind of request; what net-snmp's commands make of it with the module loaded;
// live values that change.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <map>
#include <optional>
#include <random>
#include <regex>
#include <set>
#include <sstream>

#include <gtest/gtest.h>

#include "e2e/expected_platform.h"
#include "e2e/expected_rows.h"
#include "harness/agent.h"
#include "harness/client.h"
#include "mibs/mib_modules.h"

namespace
{

using std::string;
using std::vector;
using namespace std::chrono_literals;

void expect_same(const vector<varbind> &found, const vector<varbind> &wanted)
{
    for (size_t i = 0; i < std::min(found.size(), wanted.size()); i++) {
        ASSERT_EQ(found[i], wanted[i]) << "varbind " << i;
    }
    ASSERT_EQ(found.size(), wanted.size());
}

object_name cell(unsigned long arc, unsigned long column, unsigned long index)
{
    object_name name = platform_table(arc);
    name.insert(name.end(), {1, column, index});
    return name;
}

// The subtree without its scalar, which tells the time of the start.
vector<varbind> tables_of(vector<varbind> walked)
{
    EXPECT_FALSE(walked.empty());
    EXPECT_EQ(walked.empty() ? object_name() : walked.front().name, start_time());
    if (!walked.empty()) {
        walked.erase(walked.begin());
    }
    return walked;
}

class platform_subtree : public testing::TestWithParam<const char *>
{
  protected:
    agent server{{.description = string("servers/") + GetParam() + ".json"}};
    std::map<unsigned long, expected_cells> expected;
    vector<varbind> cells;

    void SetUp() override
    {
        ASSERT_NO_THROW(server.start());
        expected = expected_platform_tables(server.description());
        cells = expected_platform(expected);
        ASSERT_FALSE(cells.empty());
        // A column that is served before the first read of its sensor shows what was
        // before it.
        snmp_client(server.port()).bulk_walk(platform_root(), 40);
    }
};

INSTANTIATE_TEST_SUITE_P(of, platform_subtree, testing::Values("minimal", "rack-2u"),
                         [](const auto &info) {
                             string name = info.param;
                             std::ranges::replace(name, '-', '_');
                             return name;
                         });

TEST_P(platform_subtree, by_getnext)
{
    snmp_client client(server.port());
    expect_same(tables_of(client.walk(platform_root())), cells);
}

TEST_P(platform_subtree, by_getbulk)
{
    snmp_client client(server.port());
    for (const long repetitions : {1L, 7L, 40L}) {
        SCOPED_TRACE(repetitions);
        expect_same(tables_of(client.bulk_walk(platform_root(), repetitions)), cells);
    }
}

TEST_P(platform_subtree, by_get)
{
    snmp_client client(server.port());
    for (const varbind &wanted : cells) {
        const snmp_answer answer = client.get({wanted.name});
        ASSERT_EQ(answer.error, 0);
        ASSERT_EQ(answer.varbinds, vector<varbind>{wanted});
    }
}

// Cells of all tables of both modules, in no order, many to a PDU.
TEST_P(platform_subtree, by_gets_of_many_cells_in_any_order)
{
    snmp_client client(server.port());
    vector<varbind> wanted = cells;
    for (const varbind &entity : expected_table(expected_rows(server.description(), "5.0.1\n"))) {
        wanted.push_back(entity);
    }
    std::mt19937 random(7);
    std::ranges::shuffle(wanted, random);
    for (size_t i = 0; i < wanted.size(); i += 25) {
        const auto begin = wanted.begin() + static_cast<std::ptrdiff_t>(i);
        const vector<varbind> some(
            begin, begin + static_cast<std::ptrdiff_t>(std::min<size_t>(25, wanted.size() - i)));
        vector<object_name> names;
        for (const varbind &v : some) {
            names.push_back(v.name);
        }
        const snmp_answer answer = client.get(names);
        ASSERT_EQ(answer.error, 0);
        expect_same(answer.varbinds, some);
    }
}

// GETNEXT of many, in no order: each gets the cell behind it.
TEST_P(platform_subtree, by_getnexts_of_many_cells_in_any_order)
{
    snmp_client client(server.port());
    vector<size_t> order(cells.size() - 1);
    for (size_t i = 0; i < order.size(); i++) {
        order[i] = i;
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
        const snmp_answer answer = client.get_next(names);
        ASSERT_EQ(answer.error, 0);
        expect_same(answer.varbinds, wanted);
    }
}

// A manager's way: all columns of a table in one GETNEXT, row by row.
TEST_P(platform_subtree, row_by_row)
{
    snmp_client client(server.port());
    for (const auto &[arc, rows] : expected) {
        if (rows.empty()) {
            continue;
        }
        const size_t columns = rows.begin()->second.size();
        vector<object_name> at;
        for (unsigned long column = 1; column <= columns; column++) {
            object_name name = platform_table(arc);
            name.insert(name.end(), {1, column});
            at.push_back(name);
        }
        for (const auto &[index, values] : rows) {
            const snmp_answer answer = client.get_next(at);
            ASSERT_EQ(answer.error, 0);
            vector<varbind> wanted;
            for (unsigned long column = 1; column <= columns; column++) {
                at[column - 1] = cell(arc, column, index);
                wanted.push_back({at[column - 1], values[column - 1]});
            }
            expect_same(answer.varbinds, wanted);
        }
    }
}

TEST_P(platform_subtree, has_nothing_else)
{
    snmp_client client(server.port());
    const unsigned long behind = 1 + expected_rows(server.description(), "").size();
    for (const auto &[arc, rows] : expected) {
        for (unsigned long index = 0; index <= behind; index++) {
            if (!rows.contains(index) && arc != 10) {
                const snmp_answer answer = client.get({cell(arc, 1, index)});
                ASSERT_EQ(answer.varbinds, (vector<varbind>{{cell(arc, 1, index), no_instance()}}));
            }
        }
    }
    for (const unsigned long arc : {13UL, 16UL, 0UL}) {
        const snmp_answer answer = client.get({cell(arc, 1, 1)});
        ASSERT_EQ(answer.varbinds.size(), 1U);
        EXPECT_EQ(answer.varbinds[0].value.type, snmp_no_such_object) << "arc " << arc;
    }
}

TEST_P(platform_subtree, refuses_every_set)
{
    snmp_client client(server.port(), "private");
    constexpr long not_writable = 17;
    std::set<unsigned long> tried;
    for (const varbind &v : cells) {
        // One cell of each column.
        if (!tried.insert(v.name[12] * 100 + v.name[14]).second) {
            continue;
        }
        const snmp_answer answer = client.set({v});
        EXPECT_EQ(answer.error, not_writable) << to_text(v.name);
        EXPECT_EQ(answer.error_index, 1);
    }
    EXPECT_EQ(client.set({{start_time(), text_value("12345678")}}).error, not_writable);
    expect_same(tables_of(client.bulk_walk(platform_root(), 40)), cells);
}

TEST_P(platform_subtree, start_time_is_that_of_the_agent)
{
    snmp_client client(server.port());
    const snmp_answer answer = client.get({start_time()});
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

// ---- What the example shows ----

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

// ---- With the module loaded ----

// A command of net-snmp's with the project's modules and nothing else; what it says
// on both channels.
command_result run(const string &command, const string &more, const agent &server)
{
    const string state = server.directory() / "client";
    std::filesystem::create_directories(state + "/cert_indexes"); // else it tells that it did
    const string line = "MIBS=ALL MIBDIRS= SNMPCONFPATH=" + state +
                        " SNMP_PERSISTENT_DIR=" + state + " " + command + " -M " +
                        KAVPLAT_SOURCE_DIR "/mibs:" KAVPLAT_SOURCE_DIR "/mibs/compact" +
                        " -m ALL -v 2c -c public -t 10 " + more;
    return run_command(line);
}

string address_of(const agent &server)
{
    return "udp:127.0.0.1:" + std::to_string(server.port());
}

// net-snmp reads MIB modules once a process, and its client side reads none.
class mib_environment : public testing::Environment
{
  public:
    void SetUp() override { mib_modules::load(); }
};

[[maybe_unused]] const testing::Environment *const environment =
    testing::AddGlobalTestEnvironment(new mib_environment);

class named_walk : public testing::TestWithParam<const char *>
{
  protected:
    agent server{{.description = string("servers/") + GetParam() + ".json"}};

    void SetUp() override { ASSERT_NO_THROW(server.start()); }
};

INSTANTIATE_TEST_SUITE_P(of, named_walk, testing::Values("minimal", "rack-2u"),
                         [](const auto &info) {
                             string name = info.param;
                             std::ranges::replace(name, '-', '_');
                             return name;
                         });

// Each line is of the form MODULE::object.index = TYPE: value, with a label for each
// value that has labels in the module.
TEST_P(named_walk, shows_names_and_labels)
{
    std::map<string, const tree *> objects;
    for (const char *root : {mib_modules::platform_root, mib_modules::entity_root}) {
        for (const tree *node : mib_modules::below(root)) {
            if (mib_modules::is_object(node)) {
                objects[node->label] = node;
            }
        }
    }
    const std::regex line_form(R"((KAV-PLATFORM-MIB|ENTITY-MIB)::(\w+)((?:\.\d+)+) = (.*))");
    const std::regex enumerated(R"(INTEGER: [A-Za-z][\w-]*\(-?\d+\))");
    const std::regex bits(R"(BITS: ([0-9A-F]{2} )+([A-Za-z][\w-]*\(\d+\) )*)");
    size_t labelled = 0;
    size_t lines = 0;
    for (const char *root : {".1.3.6.1.4.1.58213", ".1.3.6.1.2.1.47"}) {
        const command_result walk = run("snmpwalk", address_of(server) + " " + root, server);
        EXPECT_EQ(walk.status, 0);
        EXPECT_EQ(walk.output.find("Wrong Type"), string::npos);
        EXPECT_EQ(walk.output.find("Unknown Object Identifier"), string::npos);
        std::istringstream in(walk.output);
        for (string line; std::getline(in, line);) {
            if (line.empty()) {
                continue; // the firmware revision has a line end of its own
            }
            std::smatch match;
            if (!std::regex_match(line, match, line_form)) {
                ADD_FAILURE() << line;
                continue;
            }
            lines++;
            const auto found = objects.find(match[2]);
            ASSERT_NE(found, objects.end()) << line;
            const string value = match[4];
            if (found->second->type == TYPE_BITSTRING) {
                labelled++;
                EXPECT_TRUE(std::regex_match(value, bits)) << line;
            } else if (found->second->enums) {
                labelled++;
                EXPECT_TRUE(std::regex_match(value, enumerated)) << line;
            }
        }
    }
    const size_t cells = expected_platform(expected_platform_tables(server.description())).size() +
                         expected_table(expected_rows(server.description(), "")).size();
    EXPECT_EQ(lines, cells + 2) << "and the two scalars";
    EXPECT_GT(labelled, 0U);
}

TEST_P(named_walk, every_table_can_be_printed_as_one)
{
    const auto expected = expected_platform_tables(server.description());
    for (const auto &[arc, rows] : expected) {
        const auto nodes =
            mib_modules::below("1.3.6.1.4.1.58213.2.70.101.1.1." + std::to_string(arc));
        ASSERT_FALSE(nodes.empty());
        const string name = nodes.front()->label;
        const command_result table =
            run("snmptable",
                "-Ci -CB -Cw 1000 " + address_of(server) + " KAV-PLATFORM-MIB::" + name, server);
        EXPECT_EQ(table.output.find("Wrong Type"), string::npos) << table.output;
        if (rows.empty()) {
            EXPECT_NE(table.output.find("No entries"), string::npos) << table.output;
            continue;
        }
        EXPECT_EQ(table.status, 0);
        for (const tree *node : nodes) {
            if (mib_modules::is_object(node)) {
                EXPECT_NE(table.output.find(node->label), string::npos) << node->label << " in\n"
                                                                        << table.output;
            }
        }
    }
}

// ---- Live values ----

constexpr char live_server[] = R"({
  "components": [
    { "name": "/SYS", "type": "system" },
    { "name": "/SYS/T", "type": "temperature-sensor",
      "sensor": { "class": "threshold", "type": "temperature", "units": "degrees-c",
                  "reading": { "file": "t" },
                  "thresholds": { "upper_critical": 70, "upper_fatal": 80 } } },
    { "name": "/SYS/LATE", "type": "temperature-sensor",
      "sensor": { "class": "threshold", "type": "temperature", "units": "degrees-c",
                  "reading": { "file": "t" } } },
    { "name": "/SYS/LED", "type": "fault-led", "indicator": { "state": { "file": "led" } } },
    { "name": "/SYS/SLOT", "type": "pcie-slot", "capabilities": ["holder", "power-readable"],
      "power": { "file": "power" } },
    { "name": "/SYS/SLOT/CARD", "type": "pcie-card",
      "capabilities": ["field-replaceable", "enable-state"],
      "ready_to_remove": { "file": "ready" }, "enable": { "file": "enable" } }
  ]
})";

class live_values : public testing::Test
{
  protected:
    enum : unsigned long { system = 1, sensor, late_sensor, led, slot, card };

    agent server;

    void SetUp() override
    {
        write("t", "21.5");
        write("led", "off");
        write("power", "on");
        write("ready", "not-ready");
        write("enable", "enabled");
        write_file(server.description(), live_server);
        ASSERT_NO_THROW(server.start());
        client.emplace(server.port());
    }

    void write(const char *file, const string &text) const
    {
        replace_file(server.description().parent_path() / file, text + "\n");
    }
    void remove(const char *file) const
    {
        std::filesystem::remove(server.description().parent_path() / file);
    }

    int64_t number(unsigned long arc, unsigned long column, unsigned long index)
    {
        const snmp_answer answer = client->get({cell(arc, column, index)});
        EXPECT_EQ(answer.error, 0);
        if (answer.varbinds.size() != 1 || answer.varbinds[0].value.type != snmp_integer) {
            ADD_FAILURE() << to_text(cell(arc, column, index)) << " has no number";
            return -1;
        }
        return answer.varbinds[0].value.number;
    }
    int64_t reading(unsigned long index) { return number(8, 4, index); }

    std::optional<snmp_client> client;
};

// The first read is live, the next ten seconds show it, then it is live again. What
// has no stamp is live at once. A value that cannot be read stays as it was.
TEST_F(live_values, show_up_after_ten_seconds_and_not_before)
{
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(reading(sensor), 21500);
    EXPECT_EQ(number(2, 3, sensor), 7);
    EXPECT_EQ(number(12, 2, led), 2);
    EXPECT_EQ(number(2, 2, card), 2);
    EXPECT_EQ(number(3, 4, slot), 3);
    EXPECT_EQ(number(2, 1, card), 2);

    write("t", "75.25");
    write("led", "fast-blink");
    write("enable", "disabled");
    write("power", "off");
    write("ready", "ready");
    EXPECT_EQ(number(3, 4, slot), 4) << "power has no stamp";
    EXPECT_EQ(number(2, 1, card), 1) << "nor has readiness";
    EXPECT_EQ(reading(late_sensor), 75250) << "never read before";
    if (std::chrono::steady_clock::now() - begin < 9s) {
        EXPECT_EQ(reading(sensor), 21500);
        EXPECT_EQ(number(2, 3, sensor), 7);
        EXPECT_EQ(number(12, 2, led), 2);
        EXPECT_EQ(number(2, 2, card), 2);
    }

    // A read that fails is tried again at every request; until then the last value.
    remove("power");
    remove("ready");
    EXPECT_EQ(number(3, 4, slot), 4);
    EXPECT_EQ(number(2, 1, card), 1);

    EXPECT_TRUE(eventually([&] { return reading(sensor) == 75250; }));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 9900ms);
    EXPECT_EQ(number(2, 3, sensor), 2);
    EXPECT_TRUE(eventually([&] { return number(12, 2, led) == 4; }));
    EXPECT_TRUE(eventually([&] { return number(2, 2, card) == 1; }));

    // The sensor that was read last is stale by now when the others are.
    remove("t");
    EXPECT_TRUE(eventually([&] { return number(2, 3, late_sensor) == 4; }));
    EXPECT_EQ(reading(late_sensor), 75250);
    write("t", "-3.5");
    EXPECT_EQ(reading(late_sensor), -3500);
    EXPECT_EQ(number(2, 3, late_sensor), 7);
}

} // namespace

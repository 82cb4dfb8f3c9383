// KAV-PLATFORM-MIB as clients of a real agent see it: what net-snmp's commands make of
// it with the module loaded; live values that change.
#include <algorithm>
#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <regex>
#include <sstream>

#include <gtest/gtest.h>

#include "e2e/expected_tables.h"
#include "harness/agent.h"
#include "harness/client.h"
#include "mibs/mib_modules.h"

namespace
{

using std::string;
using std::vector;
using namespace std::chrono_literals;

object_name cell(unsigned long arc, unsigned long column, unsigned long index)
{
    object_name name = platform_table(arc);
    name.insert(name.end(), {1, column, index});
    return name;
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
    size_t cells = cells_of(expected_entity_table(expected_rows(server.description(), ""))).size();
    for (const auto &[arc, table] : expected_platform_tables(server.description())) {
        cells += cells_of(table).size();
    }
    EXPECT_EQ(lines, cells + 2) << "and the two scalars";
    EXPECT_GT(labelled, 0U);
}

TEST(standard_tables, of_every_server_have_names_and_the_right_types)
{
    for (const auto &each : std::filesystem::directory_iterator(KAVPLAT_SOURCE_DIR "/servers")) {
        const string description = "servers/" + each.path().filename().string();
        agent server({.description = description,
                      .configuration = "dlmod entitySensorMIB " KAVPLAT_MODULE "\n"
                                       "dlmod entityStateMIB " KAVPLAT_MODULE "\n"
                                       "dlmod entityMappingMIB " KAVPLAT_MODULE "\n"});
        ASSERT_NO_THROW(server.start()) << description;
        const std::regex line_form(
            R"((ENTITY-MIB|ENTITY-SENSOR-MIB|ENTITY-STATE-MIB)::[A-Za-z]+(\.\d+)+ = .*)");
        for (const char *root : {".1.3.6.1.2.1.47.1.3", ".1.3.6.1.2.1.99", ".1.3.6.1.2.1.131"}) {
            const command_result walk = run("snmpwalk", address_of(server) + " " + root, server);
            EXPECT_EQ(walk.status, 0);
            EXPECT_EQ(walk.output.find("Wrong Type"), string::npos) << walk.output;
            std::istringstream in(walk.output);
            size_t lines = 0;
            for (string line; std::getline(in, line); lines++) {
                EXPECT_TRUE(std::regex_match(line, line_form)) << line;
            }
            EXPECT_GT(lines, 0U) << description << " " << root;
        }
    }
}

TEST_P(named_walk, every_table_can_be_printed_as_one)
{
    for (const auto &[arc, expected] : expected_platform_tables(server.description())) {
        const auto nodes =
            mib_modules::below("1.3.6.1.4.1.58213.2.70.101.1.1." + std::to_string(arc));
        ASSERT_FALSE(nodes.empty());
        const string name = nodes.front()->label;
        const command_result table =
            run("snmptable",
                "-Ci -CB -Cw 1000 " + address_of(server) + " KAV-PLATFORM-MIB::" + name, server);
        EXPECT_EQ(table.output.find("Wrong Type"), string::npos) << table.output;
        if (expected.rows.empty()) {
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

// ENTITY-SENSOR-MIB as managers read it from a real agent. What has to be served is
// worked out from the description's JSON and the written rules alone.
#include <cmath>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "harness/agent.h"
#include "harness/client.h"
#include "harness/names.h"

namespace
{

using nlohmann::json;
using std::string;
using std::vector;

const object_name sensor_entry = {1, 3, 6, 1, 2, 1, 99, 1, 1, 1};
constexpr char load_sensors[] = "dlmod entitySensorMIB " KAVPLAT_MODULE "\n";

struct expected_sensor {
    int64_t type = 1;
    int64_t precision = 0;
    int64_t value = 0;
    int64_t status = 1;
    string display;
    double reading = 0; // as described, in the unit that is displayed
    bool operator==(const expected_sensor &) const = default;
};

void PrintTo(const expected_sensor &s, std::ostream *out)
{
    *out << "type " << s.type << ", precision " << s.precision << ", value " << s.value
         << ", status " << s.status << ", in " << testing::PrintToString(s.display);
}

expected_sensor expected_of(const json &sensor)
{
    if (sensor.at("class") == "discrete") {
        const json &reading = sensor.at("reading");
        return {12, 0, reading == "asserted" || reading == "present" ? 1 : 2, 1, "", 0};
    }
    static const std::map<string, expected_sensor> by_units = {
        {"none", {1, 0, 0, 1, "", 0}},
        {"degrees-c", {8, 1, 0, 1, "degrees C", 0}},
        {"degrees-f", {8, 1, 0, 1, "degrees C", 0}},
        {"kelvin", {8, 1, 0, 1, "degrees C", 0}},
        {"volts", {4, 3, 0, 1, "volts", 0}},
        {"amps", {5, 3, 0, 1, "amperes", 0}},
        {"watts", {6, 1, 0, 1, "watts", 0}},
        {"hertz", {7, 2, 0, 1, "hertz", 0}},
        {"rpm", {10, 0, 0, 1, "RPM", 0}},
        {"hours", {1, 0, 0, 1, "hours", 0}},
        {"percent", {1, 1, 0, 1, "%", 0}},
    };
    const string units = sensor.value("units", "none");
    expected_sensor e = by_units.at(units);
    if (units == "volts" && sensor.value("current", "direct") == "alternating") {
        e.type = 3;
        e.display = "volts AC";
    }
    if (units == "percent" && sensor.at("type") == "humidity") {
        e.type = 9;
    }
    const json &reading = sensor.at("reading");
    if (sensor.value("valid", json(true)) != json(true)) {
        e.status = 3;
    } else if (reading.is_object()) { // bound to a file, which no example comes with
        e.status = 2;
    } else {
        const auto number = reading.get<double>();
        e.reading = units == "degrees-f" ? (number - 32) / 1.8
                    : units == "kelvin"  ? number - 273.15
                                         : number;
        e.value = std::llround(e.reading * std::pow(10.0, static_cast<double>(e.precision)));
    }
    return e;
}

// By name; a slot identity is no sensor.
std::map<string, expected_sensor> expected_sensors(const std::filesystem::path &description)
{
    std::ifstream in(description);
    const json described = json::parse(in);
    std::map<string, expected_sensor> all;
    for (const json &component : described.at("components")) {
        if (component.contains("sensor") && component.at("type") != "slot-identity") {
            all[component.at("name")] = expected_of(component.at("sensor"));
        }
    }
    return all;
}

// The cells of a walk by the row's name, and those names by index.
struct served_sensors {
    std::map<string, expected_sensor> rows;
    std::map<string, std::map<unsigned long, snmp_value>> cells;
};

served_sensors look_at(agent &server, const vector<varbind> &walked)
{
    std::map<unsigned long, string> names;
    for (const varbind &v : snmp_client(server.port()).bulk_walk(ent_column(7), 50)) {
        names[v.name.back()] = v.value.text;
    }
    served_sensors served;
    for (const varbind &v : walked) {
        EXPECT_EQ(v.name.size(), sensor_entry.size() + 2) << to_text(v.name);
        served.cells[names[v.name.back()]][v.name[sensor_entry.size()]] = v.value;
    }
    for (auto &[name, cell] : served.cells) {
        EXPECT_EQ(cell.size(), 8U) << name;
        EXPECT_EQ(cell[2], integer_value(9)) << name << ": the scale is always units";
        EXPECT_EQ(cell[7].type, snmp_timeticks) << name;
        EXPECT_EQ(cell[8].number, 0) << name;
        served.rows[name] = {cell[1].number, cell[3].number, cell[4].number,
                             cell[5].number, cell[6].text,   0};
    }
    return served;
}

class described_sensors : public testing::TestWithParam<const char *>
{
  protected:
    agent server{
        {.description = string("servers/") + GetParam() + ".json", .configuration = load_sensors}};
    void SetUp() override { ASSERT_NO_THROW(server.start()); }
};

INSTANTIATE_TEST_SUITE_P(of, described_sensors, testing::Values("minimal", "rack-2u"),
                         [](const auto &info) {
                             string name = info.param;
                             std::ranges::replace(name, '-', '_');
                             return name;
                         });

TEST_P(described_sensors, are_served_as_described_by_every_kind_of_request)
{
    std::map<string, expected_sensor> expected = expected_sensors(server.description());
    ASSERT_FALSE(expected.empty());
    snmp_client client(server.port());
    const vector<varbind> walked = client.walk(sensor_entry);
    const served_sensors served = look_at(server, walked);
    // What managers make of a value: all divide by the precision's power of ten, and some
    // multiply by what the scale stands for (units in the middle, three powers a step).
    for (const auto &[name, sensor] : expected) {
        if (sensor.type != 12 && sensor.status == 1 && served.rows.contains(name)) {
            const expected_sensor &row = served.rows.at(name);
            const auto value = static_cast<double>(row.value);
            const double step = std::pow(10.0, static_cast<double>(row.precision));
            const auto scale = static_cast<double>(served.cells.at(name).at(2).number);
            for (const double made :
                 {value / step, value / step * std::pow(10.0, 3 * (scale - 9))}) {
                EXPECT_NEAR(made, sensor.reading, 0.5001 / step) << name;
            }
        }
    }
    for (auto &[name, sensor] : expected) {
        sensor.reading = 0;
    }
    EXPECT_EQ(served.rows, expected);

    // The up-time of a reading is that of the same ten seconds or of later ones.
    const auto without_times = [](vector<varbind> all) {
        std::erase_if(all, [](const varbind &v) { return v.name[sensor_entry.size()] == 7; });
        return all;
    };
    EXPECT_EQ(without_times(client.bulk_walk(sensor_entry, 40)), without_times(walked));
    vector<varbind> one_by_one;
    for (const varbind &v : walked) {
        const snmp_answer answer = client.get({v.name});
        ASSERT_EQ(answer.varbinds.size(), 1U);
        one_by_one.push_back(answer.varbinds.front());
    }
    EXPECT_EQ(without_times(one_by_one), without_times(walked));
    // Thirty of one request, over the rows' and the columns' ends.
    vector<varbind> at_once;
    for (size_t i = 0; i < walked.size(); i += 30) {
        vector<object_name> names;
        for (size_t k = i; k < std::min(i + 30, walked.size()); k++) {
            names.push_back(walked[k].name);
        }
        std::ranges::copy(client.get(names).varbinds, std::back_inserter(at_once));
    }
    EXPECT_EQ(without_times(at_once), without_times(walked));
}

TEST(sensors_module, says_so_and_serves_nothing_without_the_physical_entities)
{
    agent server({.whole_configuration = string("agentAddress udp:127.0.0.1:161\n"
                                                "rocommunity public 127.0.0.1\n") +
                                         load_sensors,
                  .wait_for_cache = false});
    ASSERT_NO_THROW(server.start());
    EXPECT_EQ(server.log_count("entitySensorMIB: nothing is served without entityMIB: put a "
                               "dlmod line for entityMIB before this module's"),
              1U);
    EXPECT_FALSE(snmp_client(server.port()).answers_getnext(sensor_entry));
}

TEST(sensors_module, is_told_by_the_agent_among_what_it_serves)
{
    agent server({.configuration = string(load_sensors) + load_sensors});
    ASSERT_NO_THROW(server.start());
    const object_name sysORID = {1, 3, 6, 1, 2, 1, 1, 9, 1, 2};
    size_t told = 0;
    for (const varbind &v : snmp_client(server.port()).walk(sysORID)) {
        told += v.value.object == object_name{1, 3, 6, 1, 2, 1, 99} ? 1U : 0U;
    }
    EXPECT_EQ(told, 1U) << "once, though it was loaded twice";
}

} // namespace

// From a machine to what a manager reads of it: described, served by a real agent, and
// compared with the list of what was built.
#include "tools/kavplat/describe/describe.h"

#include "harness/agent.h"
#include "harness/client.h"
#include "harness/files.h"
#include "harness/names.h"
#include "harness/own_network.h"
#include "made_machines/machines.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <net/if.h>
#include <optional>
#include <regex>
#include <sstream>

using namespace kavplat_describe_test;

namespace
{

using rows = std::map<unsigned long, snmp_value>;

rows column_of(snmp_client &client, const object_name &column)
{
    rows found;
    for (const varbind &each : client.bulk_walk(column, 20)) {
        found[each.name.back()] = each.value;
    }
    return found;
}

struct served_sensor {
    int64_t type = 0;
    int64_t precision = 0;
    int64_t value = 0;
    int64_t status = 0;
    std::map<std::string, double> limits{};
    double tolerance = 0; /* of the limits, since they are cut off */
};

struct served {
    std::string serial, model, revision, container, maker, what;
    int64_t physical_class = 0;
    std::optional<served_sensor> sensor{};
    std::optional<int64_t> light{};
    std::optional<object_name> interface {
    };
};

object_name platform_column(unsigned long table, unsigned long column)
{
    return {1, 3, 6, 1, 4, 1, 58213, 2, 70, 101, 1, 1, table, 1, column};
}

/* By index; of a column of the numeric sensors. */
struct served_limits {
    rows exponents, in_force;
    std::array<std::pair<const char *, rows>, 6> limits;

    explicit served_limits(snmp_client &client)
    {
        constexpr unsigned long table = 8;
        const auto column = [&](unsigned long number) {
            return column_of(client, platform_column(table, number));
        };
        exponents = column(2);
        in_force = column(15);
        limits = {{{"lower_non_critical", column(8)},
                   {"upper_non_critical", column(9)},
                   {"lower_critical", column(10)},
                   {"upper_critical", column(11)},
                   {"lower_fatal", column(12)},
                   {"upper_fatal", column(13)}}};
    }

    void put(unsigned long index, served_sensor &into) const
    {
        if (!exponents.contains(index)) {
            return; /* it says whether, and not how much */
        }
        constexpr unsigned first_bit = 0x80;
        const double unit = std::pow(10, exponents.at(index).number);
        into.tolerance = unit;
        const auto bits = static_cast<unsigned char>(in_force.at(index).text.at(0));
        for (size_t i = 0; i < limits.size(); i++) {
            if ((bits & (first_bit >> i)) != 0) {
                into.limits[limits[i].first] =
                    static_cast<double>(limits[i].second.at(index).number) * unit;
            }
        }
    }
};

/* What a manager is told of a type: its class and what it is, as the catalogue has them. */
struct catalogued {
    int64_t physical_class = 0;
    std::string text;
};

std::map<std::string, catalogued> catalogue()
{
    const std::map<std::string, int64_t> classes = {
        {"other", 1},       {"chassis", 3}, {"backplane", 4}, {"container", 5},
        {"powerSupply", 6}, {"fan", 7},     {"sensor", 8},    {"module", 9}};
    std::map<std::string, catalogued> all;
    std::istringstream lines(
        read_file(std::filesystem::path(KAVPLAT_SOURCE_DIR) / "docs" / "description.md"));
    const std::regex row(R"(\| `([^`]+)` \| \d+ \| \w+ \| (\w+) \| (.+) \|)");
    std::smatch found;
    for (std::string line; std::getline(lines, line);) {
        if (std::regex_match(line, found, row) && classes.contains(found[2])) {
            all[found[1]] = {classes.at(found[2]), found[3]};
        }
    }
    return all;
}

/* By its name. */
std::map<std::string, served> all_that_is_served(snmp_client &client)
{
    const rows names = column_of(client, ent_column(7));
    const rows containers = column_of(client, ent_column(4));
    const rows revisions = column_of(client, ent_column(10));
    const rows serials = column_of(client, ent_column(11));
    const rows models = column_of(client, ent_column(13));
    const rows makers = column_of(client, ent_column(12));
    const rows descriptions = column_of(client, ent_column(2));
    const rows classes = column_of(client, ent_column(5));
    std::map<unsigned long, object_name> interfaces;
    for (const varbind &each : client.bulk_walk({1, 3, 6, 1, 2, 1, 47, 1, 3, 2, 1, 2}, 20)) {
        interfaces[each.name.at(each.name.size() - 2)] = each.value.object;
    }
    constexpr unsigned long table_of_lights = 12;
    const rows lights = column_of(client, platform_column(table_of_lights, 2));
    const auto of_sensors = [&client](unsigned long column) {
        return column_of(client, {1, 3, 6, 1, 2, 1, 99, 1, 1, 1, column});
    };
    const rows types = of_sensors(1);
    const rows precisions = of_sensors(3);
    const rows values = of_sensors(4);
    const rows statuses = of_sensors(5);
    const served_limits limits(client);
    std::map<std::string, served> all;
    for (const auto &[index, name] : names) {
        const auto container = names.find(static_cast<unsigned long>(containers.at(index).number));
        served &it = all[name.text];
        it = {.serial = serials.at(index).text,
              .model = models.at(index).text,
              .revision = revisions.at(index).text,
              .container = container == names.end() ? "" : container->second.text,
              .maker = makers.at(index).text,
              .what = descriptions.at(index).text,
              .physical_class = classes.at(index).number};
        if (lights.contains(index)) {
            it.light = lights.at(index).number;
        }
        if (interfaces.contains(index)) {
            it.interface = interfaces.at(index);
        }
        if (types.contains(index)) {
            it.sensor = {.type = types.at(index).number,
                         .precision = precisions.at(index).number,
                         .value = values.at(index).number,
                         .status = statuses.at(index).number};
            limits.put(index, *it.sensor);
        }
    }
    return all;
}

void expect_as_built(const built &expected, const served &found)
{
    constexpr int64_t truth_value = 12;
    EXPECT_EQ(expected.serial, found.serial);
    if (!expected.model.empty()) {
        EXPECT_EQ(expected.model, found.model);
    }
    EXPECT_EQ(expected.revision, found.revision);
    if (!expected.maker.empty()) {
        EXPECT_EQ(expected.maker, found.maker);
    }
    static const std::map<std::string, catalogued> types = catalogue();
    ASSERT_TRUE(types.contains(expected.type)) << expected.type;
    EXPECT_EQ(types.at(expected.type).physical_class, found.physical_class);
    EXPECT_EQ(types.at(expected.type).text, found.what);
    ASSERT_EQ(expected.type.ends_with("led"), found.light.has_value());
    if (found.light) {
        constexpr int64_t off = 2, steady = 3, alternating = 4;
        ASSERT_TRUE(expected.reading.has_value());
        EXPECT_EQ(*expected.reading == 1   ? off
                  : *expected.reading == 2 ? steady
                                           : alternating,
                  *found.light);
    }
    const bool is_sensor = expected.type.ends_with("-sensor") || expected.type == "tachometer";
    ASSERT_EQ(is_sensor, found.sensor.has_value());
    if (!is_sensor) {
        return;
    }
    EXPECT_EQ(found.sensor->status, 1) << "not ok";
    ASSERT_TRUE(expected.reading.has_value());
    if (found.sensor->type == truth_value) {
        EXPECT_EQ(found.sensor->value, *expected.reading == 2 ? 1 : 2);
        EXPECT_TRUE(expected.limits.empty());
        EXPECT_TRUE(found.sensor->limits.empty());
    } else {
        const double scale = std::pow(10, found.sensor->precision);
        EXPECT_EQ(found.sensor->value, std::llround(*expected.reading * scale));
        EXPECT_EQ(expected.limits.size(), found.sensor->limits.size());
        for (const auto &[name, value] : expected.limits) {
            ASSERT_TRUE(found.sensor->limits.contains(name)) << name;
            EXPECT_NEAR(value, found.sensor->limits.at(name), found.sensor->tolerance) << name;
        }
    }
}

void expect_interface(const built &expected, const served &found)
{
    if (expected.interface.empty()) {
        EXPECT_FALSE(found.interface.has_value());
        return;
    }
    ASSERT_TRUE(found.interface.has_value()) << expected.interface;
    EXPECT_EQ(
        (object_name{1, 3, 6, 1, 2, 1, 2, 2, 1, 1, ::if_nametoindex(expected.interface.c_str())}),
        *found.interface);
}

class served_machines : public testing::TestWithParam<kind_of_machine>
{
};

INSTANTIATE_TEST_SUITE_P(all, served_machines, testing::ValuesIn(kinds_of_machines),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_P(served_machines, are_what_was_built_and_nothing_else)
{
    made_machine machine;
    GetParam().build(machine);
    kavplat_describe::options asked;
    asked.root = machine.root();
    const temporary_directory here;
    write_file(here / "machine.json", describe(asked).text);
    /* The host has the machine's interfaces, where it can be given any. */
    const own_network network;
    const bool has_interfaces = std::ranges::all_of(machine.list(), [&](const auto &each) {
        return each.second.interface.empty() || network.add(each.second.interface.c_str());
    });
    agent server({.description = here / "machine.json",
                  .configuration = "dlmod entitySensorMIB " KAVPLAT_MODULE
                                   "\ndlmod entityMappingMIB " KAVPLAT_MODULE "\n"});
    ASSERT_NO_THROW(server.start());
    snmp_client client(server.port());
    std::map<std::string, served> found = all_that_is_served(client);
    EXPECT_TRUE(found.contains("/SYS"));
    for (const auto &[name, expected] : machine.list()) {
        SCOPED_TRACE(name);
        const auto it = found.find(name);
        ASSERT_NE(it, found.end()) << "is not served";
        EXPECT_EQ(it->second.container, name.substr(0, name.rfind('/')));
        expect_as_built(expected, it->second);
        if (has_interfaces) {
            expect_interface(expected, it->second);
        }
        found.erase(it);
    }
    for (const auto &[name, unused] : found) {
        EXPECT_TRUE(name == "/SYS" || name == "/SYS/MB") << name << " was not built";
    }
}

} // namespace

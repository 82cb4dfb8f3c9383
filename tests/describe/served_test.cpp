// From a machine to what a manager reads of it: described, served by a real agent, and
// compared with the list of what was built.
#include "tools/kavplat/describe/describe.h"

#include "harness/agent.h"
#include "harness/client.h"
#include "harness/files.h"
#include "harness/names.h"
#include "made_machines/machines.h"

#include <gtest/gtest.h>

#include <cmath>

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
};

struct served {
    std::string serial, model, revision, container;
    std::optional<served_sensor> sensor{};
};

/* By its name. */
std::map<std::string, served> all_that_is_served(snmp_client &client)
{
    const rows names = column_of(client, ent_column(7));
    const rows containers = column_of(client, ent_column(4));
    const rows revisions = column_of(client, ent_column(10));
    const rows serials = column_of(client, ent_column(11));
    const rows models = column_of(client, ent_column(13));
    const auto of_sensors = [&client](unsigned long column) {
        return column_of(client, {1, 3, 6, 1, 2, 1, 99, 1, 1, 1, column});
    };
    const rows types = of_sensors(1);
    const rows precisions = of_sensors(3);
    const rows values = of_sensors(4);
    const rows statuses = of_sensors(5);
    std::map<std::string, served> all;
    for (const auto &[index, name] : names) {
        const auto container = names.find(static_cast<unsigned long>(containers.at(index).number));
        served &it = all[name.text];
        it = {.serial = serials.at(index).text,
              .model = models.at(index).text,
              .revision = revisions.at(index).text,
              .container = container == names.end() ? "" : container->second.text};
        if (types.contains(index)) {
            it.sensor = {.type = types.at(index).number,
                         .precision = precisions.at(index).number,
                         .value = values.at(index).number,
                         .status = statuses.at(index).number};
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
    } else {
        const double scale = std::pow(10, found.sensor->precision);
        EXPECT_EQ(found.sensor->value, std::llround(*expected.reading * scale));
    }
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
    agent server({.description = here / "machine.json",
                  .configuration = "dlmod entitySensorMIB " KAVPLAT_MODULE "\n"});
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
        found.erase(it);
    }
    for (const auto &[name, unused] : found) {
        EXPECT_TRUE(name == "/SYS" || name == "/SYS/MB") << name << " was not built";
    }
}

} // namespace

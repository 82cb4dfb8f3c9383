/*
 * What the example servers promise: that they load, and that between them every
 * table that can have rows has some, with every state in it.
 */
#include "described/format/component_types.h"
#include "described/format/loader.h"
#include "schema_check.h"
#include "written_files.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <gtest/gtest.h>
#include <optional>
#include <set>

using namespace described_platform;

namespace
{

std::unique_ptr<const description> load(const std::string &server)
{
    load_result result = load_description(written::path_of("servers/" + server));
    for (const load_error &error : result.errors) {
        ADD_FAILURE() << to_text(server, error);
    }
    if (result.loaded == nullptr) {
        throw std::runtime_error(server + " did not load");
    }
    return std::move(result.loaded);
}

uint32_t number_of(const char *type)
{
    const component_type *found = find_component_type(type);
    if (found == nullptr) {
        throw std::runtime_error(std::string("no type ") + type);
    }
    return found->number;
}

bool is_of(const component &each, std::initializer_list<const char *> types)
{
    return std::ranges::any_of(types,
                               [&](const char *type) { return each.type == number_of(type); });
}

bool can(const component &each, std::string_view capability)
{
    const auto *found = std::ranges::find(capability_names, capability, &named_capability::name);
    if (found == std::end(capability_names)) {
        throw std::runtime_error("no such capability");
    }
    return (each.capabilities[found->byte] & found->mask) != 0;
}

bool is_constant(const live_value &value)
{
    return value.file.empty();
}

/* The gravest threshold at or beyond which the reading is. */
std::optional<threshold> crossed(const sensor &given)
{
    struct limit {
        threshold which;
        unsigned flag;
        bool upper;
    };
    static constexpr limit gravest_first[] = {
        {lower_fatal, CAPI_LOWER_FATAL_VALID, false},
        {upper_fatal, CAPI_UPPER_FATAL_VALID, true},
        {lower_critical, CAPI_LOWER_CRITICAL_VALID, false},
        {upper_critical, CAPI_UPPER_CRITICAL_VALID, true},
        {lower_non_critical, CAPI_LOWER_NON_CRITICAL_VALID, false},
        {upper_non_critical, CAPI_UPPER_NON_CRITICAL_VALID, true},
    };
    const auto reading = static_cast<float>(given.reading.constant);
    for (const limit &each : gravest_first) {
        const float bound = given.thresholds[each.which];
        if ((given.flags & each.flag) != 0 && (each.upper ? reading >= bound : reading <= bound)) {
            return each.which;
        }
    }
    return std::nullopt;
}

bool is_true(const sensor &given)
{
    return given.reading.constant == 2.0;
}

/* What is true of a sensor that is as it should be. */
bool expected_truth(const sensor &given)
{
    if (given.state) {
        return given.state->constant != 1.0;
    }
    if (given.sensor_type == CAPI_SENSOR_PRESENCE || given.ok_semantics) {
        return true;
    }
    return given.record_name.find("/SYS/IOX") != std::string::npos &&
           given.record_name.find("SWITCH") != std::string::npos;
}

const std::initializer_list<const char *> containers = {
    "rack-slot",           "board-slot", "cpu-socket",     "drive-bay", "dimm-slot",
    "pcie-slot",           "psu-bay",    "fan-bay",        "m2-slot",   "sd-card-slot",
    "battery-holder",      "riser-slot", "mezzanine-slot", "enclosure", "transceiver-cage",
    "network-module-slot", "blade-slot", "drive-cage"};
const std::initializer_list<const char *> modules = {
    "system-board", "memory-module", "io-module",       "processor",          "riser-card",
    "pcie-card",    "accelerator",   "network-adapter", "storage-controller", "service-processor"};
const std::initializer_list<const char *> supplies = {"power-supply", "ac-power-supply",
                                                      "dc-power-supply"};

class Rack : public testing::Test
{
  protected:
    std::unique_ptr<const description> server = load("rack-2u.json");

    size_t count(std::initializer_list<const char *> types) const
    {
        return static_cast<size_t>(std::ranges::count_if(
            server->components, [&](const component &each) { return is_of(each, types); }));
    }

    /* What a holder holds, sensors and indicators aside. */
    bool is_filled(const component &holder) const
    {
        return std::ranges::any_of(server->components, [&](const component &each) {
            return parent_name(each.name) == holder.name &&
                   component_kind_of(each.type) == component_kind::plain;
        });
    }
};

} // namespace

class Servers : public testing::TestWithParam<const char *>
{
};

TEST_P(Servers, FitTheSchema)
{
    const auto document =
        nlohmann::json::parse(written::text_of(std::string("servers/") + GetParam()));
    for (const load_error &error : check_schema(document)) {
        ADD_FAILURE() << to_text(GetParam(), error);
    }
}

TEST_P(Servers, Load)
{
    const auto server = load(GetParam());
    ASSERT_FALSE(server->components.empty());
    EXPECT_EQ(server->components[0].name, "/SYS");
    EXPECT_EQ(server->components[0].subtree_end, server->components.size());
}

/* So that the rows of a fresh agent come in the order of the file. */
TEST_P(Servers, AreWrittenInInventoryOrder)
{
    const auto document =
        nlohmann::json::parse(written::text_of(std::string("servers/") + GetParam()));
    const auto server = load(GetParam());
    const auto &written_components = document.at("components");
    ASSERT_EQ(written_components.size(), server->components.size());
    for (size_t i = 0; i < server->components.size(); ++i) {
        EXPECT_EQ(written_components[i].at("name"), server->components[i].name);
    }
}

INSTANTIATE_TEST_SUITE_P(All, Servers,
                         testing::Values("minimal.json", "rack-2u.json", "hwmon-example.json"),
                         [](const auto &one) {
                             std::string name = one.param;
                             std::ranges::replace_if(
                                 name, [](char c) { return c == '.' || c == '-'; }, '_');
                             return name;
                         });

TEST(Minimal, HasABoardASensorAndAnLed)
{
    const auto server = load("minimal.json");
    ASSERT_EQ(server->components.size(), 4U);
    EXPECT_TRUE(is_of(server->components[0], {"system"}));
    EXPECT_TRUE(is_of(server->components[1], {"system-board"}));
    EXPECT_TRUE(is_of(server->components[2], {"temperature-sensor"}));
    EXPECT_TRUE(is_of(server->components[3], {"locate-led"}));
}

TEST(HwmonExample, BindsItsSensorsToFilesOfTheHost)
{
    const auto server = load("hwmon-example.json");
    size_t sensors = 0;
    for (const component &each : server->components) {
        if (each.sensor) {
            ++sensors;
            const std::string &file = each.sensor->reading.file;
            EXPECT_TRUE(file.starts_with("/sys/") || file.starts_with("/proc/")) << each.name;
        }
    }
    EXPECT_GE(sensors, 6U);
}

TEST_F(Rack, HasAtLeast250Components)
{
    EXPECT_GE(server->components.size(), 250U);
}

TEST_F(Rack, IsATwoSocketServer)
{
    EXPECT_EQ(count({"cpu-socket"}), 2U);
    EXPECT_EQ(count({"processor"}), 2U);
    EXPECT_EQ(count({"dimm-slot"}), 24U);
    EXPECT_EQ(count({"ac-power-supply"}), 2U);
    EXPECT_GE(count({"drive-bay"}), 8U);
    EXPECT_GE(count({"fan-module"}), 4U);
    EXPECT_GE(count({"pcie-slot"}), 4U);
    EXPECT_EQ(count({"service-processor"}), 1U);
    EXPECT_GE(count({"network-port"}), 4U);
    EXPECT_GE(count({"battery"}), 1U);
    for (const component &each : server->components) {
        if (is_of(each, {"fan-module"})) {
            EXPECT_NE(find_component(*server, each.name + "/F0/TACH"), nullptr) << each.name;
            EXPECT_NE(find_component(*server, each.name + "/F1/TACH"), nullptr) << each.name;
        }
    }
}

TEST_F(Rack, HasRowsForEveryTableThatCanHaveRows)
{
    /* The physical table: class other. */
    EXPECT_GE(count({"midplane", "disk", "network-port", "led"}), 4U);
    EXPECT_GE(count(containers), 1U);
    EXPECT_GE(count(modules), 1U);
    EXPECT_GE(count(supplies), 1U);
    EXPECT_GE(count({"fan", "fan-module"}), 1U);
    EXPECT_GE(count({"led", "power-led", "fault-led", "locate-led"}), 1U);
    /* A component that only the entity table shows. */
    EXPECT_GE(count({"unidentified-device", "unidentified-module", "unknown"}), 1U);
    size_t numeric = 0;
    size_t binary = 0;
    for (const component &each : server->components) {
        if (each.sensor) {
            const int32_t sensor_class = each.sensor->sensor_class;
            if (sensor_class == CAPI_SENSOR_THRESHOLD) {
                ++numeric;
            } else if (sensor_class == CAPI_SENSOR_DISCRETE) {
                ++binary;
            }
        }
    }
    EXPECT_GE(numeric, 50U);
    EXPECT_GE(binary, 20U);
}

TEST_F(Rack, HasEveryKindOfSensorAndIndicator)
{
    for (const component_type &type : component_types()) {
        if (type.kind != component_kind::plain) {
            EXPECT_GE(count({type.name}), 1U) << type.name;
        }
    }
}

TEST_F(Rack, HasEverySensorTypeAndUnit)
{
    std::set<int32_t> types;
    std::set<int32_t> units;
    std::set<int32_t> discrete_types;
    for (const component &each : server->components) {
        if (!each.sensor) {
            continue;
        }
        types.insert(each.sensor->sensor_type);
        if (each.sensor->sensor_class == CAPI_SENSOR_THRESHOLD) {
            units.insert(each.sensor->units);
        } else {
            discrete_types.insert(each.sensor->sensor_type);
        }
    }
    for (const named_code &type : sensor_type_codes) {
        EXPECT_TRUE(types.contains(static_cast<int32_t>(type.value))) << type.name;
        /* Humidity has no two states. */
        EXPECT_TRUE(type.name == "humidity" ||
                    discrete_types.contains(static_cast<int32_t>(type.value)))
            << type.name;
    }
    for (const named_code &unit : sensor_units_codes) {
        EXPECT_TRUE(units.contains(static_cast<int32_t>(unit.value))) << unit.name;
    }
}

TEST_F(Rack, CrossesEachThreshold)
{
    std::set<threshold> seen;
    size_t normal = 0;
    for (const component &each : server->components) {
        if (!each.sensor || each.sensor->sensor_class != CAPI_SENSOR_THRESHOLD ||
            !is_constant(each.sensor->reading)) {
            continue;
        }
        if (const auto which = crossed(*each.sensor)) {
            seen.insert(*which);
        } else {
            ++normal;
        }
    }
    EXPECT_EQ(seen.size(), size_t{threshold_count});
    EXPECT_GE(normal, 50U);
}

TEST_F(Rack, HasOneSensorThatCannotBeReadAndOneThatIsInvalid)
{
    size_t unreadable = 0;
    size_t invalid = 0;
    for (const component &each : server->components) {
        if (!each.sensor) {
            continue;
        }
        if (!is_constant(each.sensor->reading)) {
            ++unreadable;
        }
        if (each.sensor->valid && each.sensor->valid->constant == 0) {
            ++invalid;
        }
    }
    EXPECT_EQ(unreadable, 1U);
    EXPECT_EQ(invalid, 1U);
    /* All other values are constants, so that the server is the same anywhere. */
    ASSERT_EQ(server->bound_files.size(), 1U);
    EXPECT_FALSE(std::filesystem::exists(server->bound_files[0]));
}

TEST_F(Rack, ServesWholeNumbersAndThousandths)
{
    size_t whole = 0;
    size_t thousandths = 0;
    for (const component &each : server->components) {
        if (each.sensor && each.sensor->sensor_class == CAPI_SENSOR_THRESHOLD &&
            is_constant(each.sensor->reading)) {
            const double raw = each.sensor->raw_reading ? each.sensor->raw_reading->constant : 0;
            if (each.sensor->reading.constant != raw) {
                ++thousandths;
            } else if (raw != 0) {
                ++whole;
            }
        }
    }
    EXPECT_GE(whole, 1U);
    EXPECT_GE(thousandths, 50U);
}

TEST_F(Rack, HasEveryIndicatorState)
{
    std::set<int32_t> states;
    for (const component &each : server->components) {
        if (each.indicator) {
            states.insert(static_cast<int32_t>(each.indicator->constant));
        }
    }
    for (const named_code &state : indicator_codes) {
        EXPECT_TRUE(states.contains(static_cast<int32_t>(state.value))) << state.name;
    }
    EXPECT_TRUE(std::ranges::any_of(states, [](int32_t state) {
        return state < CAPI_INDICATOR_OFF || state > CAPI_INDICATOR_STANDBY_BLINK;
    })) << "an unrecognised state";
}

TEST_F(Rack, HasSuppliesInEachPowerState)
{
    std::set<int32_t> states;
    for (const component &each : server->components) {
        if (is_of(each, supplies)) {
            ASSERT_TRUE(each.power) << each.name;
            /* With a ready-to-remove state nobody would ask for the power. */
            EXPECT_FALSE(each.ready_to_remove) << each.name;
            EXPECT_TRUE(can(each, "field-replaceable")) << each.name;
            states.insert(static_cast<int32_t>(each.power->constant));
        }
    }
    EXPECT_EQ(states, (std::set<int32_t>{CAPI_POWER_OFF, CAPI_POWER_ON, CAPI_POWER_STANDBY,
                                         CAPI_POWER_SHUTTING_DOWN}));
}

TEST_F(Rack, HasHoldersInEachPowerState)
{
    std::set<int32_t> states;
    for (const component &each : server->components) {
        if (is_of(each, containers) && each.power &&
            (can(each, "power-readable") || can(each, "power-controllable"))) {
            states.insert(static_cast<int32_t>(each.power->constant));
        }
    }
    for (const named_code &state : power_codes) {
        EXPECT_TRUE(states.contains(static_cast<int32_t>(state.value))) << state.name;
    }
    EXPECT_GT(*states.rbegin(), CAPI_POWER_SHUTTING_DOWN) << "an unknown state";
}

TEST_F(Rack, HasFilledAndEmptyHolders)
{
    for (const char *const type : {"dimm-slot", "drive-bay", "pcie-slot", "m2-slot"}) {
        size_t filled = 0;
        size_t empty = 0;
        for (const component &each : server->components) {
            if (is_of(each, {type})) {
                EXPECT_TRUE(can(each, "holder")) << each.name;
                ++(is_filled(each) ? filled : empty);
            }
        }
        EXPECT_GE(filled, 1U) << type;
        EXPECT_GE(empty, 1U) << type;
    }
}

TEST_F(Rack, PresenceSensorsOfHoldersTellTheTruth)
{
    size_t seen = 0;
    for (const component &each : server->components) {
        const component *holder = find_component(*server, parent_name(each.name));
        if (!is_of(each, {"presence-sensor"}) || holder == nullptr || !can(*holder, "holder")) {
            continue;
        }
        ++seen;
        EXPECT_EQ(is_true(*each.sensor), is_filled(*holder)) << each.name;
    }
    EXPECT_GE(seen, 30U);
}

/* The bays ask for the raw reading of the sensor below them: 1 is an empty bay. */
TEST_F(Rack, DriveBaysHaveTheirPresenceSensors)
{
    size_t bays = 0;
    for (const component &each : server->components) {
        if (!is_of(each, {"drive-bay"})) {
            continue;
        }
        ++bays;
        EXPECT_TRUE(each.name.starts_with("/SYS/HDD") && each.name.size() < 11) << each.name;
        const component *presence = find_component(*server, each.name + "/PRSNT");
        ASSERT_NE(presence, nullptr) << each.name;
        ASSERT_TRUE(presence->sensor && presence->sensor->raw_reading) << each.name;
        EXPECT_EQ(presence->sensor->raw_reading->constant == 1, !is_filled(each)) << each.name;
    }
    EXPECT_GE(bays, 8U);
}

TEST_F(Rack, HasEveryReadyToRemoveAndEnableState)
{
    std::set<int32_t> ready;
    std::set<int32_t> enable;
    for (const component &each : server->components) {
        if (each.ready_to_remove) {
            EXPECT_TRUE(can(each, "field-replaceable")) << each.name;
            ready.insert(static_cast<int32_t>(each.ready_to_remove->constant));
        }
        if (each.enable) {
            EXPECT_TRUE(can(each, "enable-state")) << each.name;
            enable.insert(static_cast<int32_t>(each.enable->constant));
        }
    }
    EXPECT_EQ(ready, (std::set<int32_t>{CAPI_READY_TO_REMOVE, CAPI_NOT_READY_TO_REMOVE}));
    EXPECT_EQ(enable, (std::set<int32_t>{CAPI_DISABLED, CAPI_ENABLED}));
}

TEST_F(Rack, HasEveryCapability)
{
    for (const named_capability &capability : capability_names) {
        EXPECT_TRUE(std::ranges::any_of(server->components, [&](const component &each) {
            return can(each, capability.name);
        })) << capability.name;
    }
}

TEST_F(Rack, HasFaultAndPredictiveSensorsThatDeviateAndThatDoNot)
{
    for (const char *const type : {"fault-sensor", "predictive-sensor"}) {
        size_t deviating = 0;
        size_t expected = 0;
        for (const component &each : server->components) {
            if (is_of(each, {type})) {
                ++(is_true(*each.sensor) == expected_truth(*each.sensor) ? expected : deviating);
            }
        }
        EXPECT_GE(deviating, 1U) << type;
        EXPECT_GE(expected, 1U) << type;
    }
}

TEST_F(Rack, HasEveryMeaningOfADiscreteSensor)
{
    bool state_ok = false;
    bool state_failed = false;
    bool ok_semantics = false;
    std::set<bool> switches;
    for (const component &each : server->components) {
        if (!each.sensor || each.sensor->sensor_class != CAPI_SENSOR_DISCRETE) {
            continue;
        }
        const sensor &given = *each.sensor;
        if (given.state) {
            state_ok = state_ok || given.state->constant == 0;
            state_failed = state_failed || given.state->constant == 1;
        } else if (given.ok_semantics) {
            ok_semantics = true;
        } else if (given.sensor_type != CAPI_SENSOR_PRESENCE && expected_truth(given)) {
            switches.insert(is_true(given));
        }
    }
    EXPECT_TRUE(state_ok);
    EXPECT_TRUE(state_failed);
    EXPECT_TRUE(ok_semantics);
    EXPECT_EQ(switches.size(), 2U) << "a switch that is on and one in standby";
}

TEST_F(Rack, HasASerialNumberThatIsCutWhenServed)
{
    EXPECT_TRUE(std::ranges::any_of(server->components, [](const component &each) {
        return each.fru && each.fru->serial.size() == 40;
    }));
}

/* What promises an answer has one, but for what is meant to fail. */
TEST_F(Rack, GivesWhatItsCapabilitiesPromise)
{
    for (const component &each : server->components) {
        if (can(each, "fru-info") && !is_of(each, {"midplane"})) {
            EXPECT_TRUE(each.fru) << each.name;
        }
        if (can(each, "enable-state")) {
            EXPECT_TRUE(each.enable) << each.name;
        }
        if (can(each, "power-readable") || can(each, "power-controllable")) {
            EXPECT_TRUE(each.power) << each.name;
        }
        if (can(each, "field-replaceable")) {
            EXPECT_TRUE(each.ready_to_remove || each.power) << each.name;
        }
    }
}

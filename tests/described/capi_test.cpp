/* The component API over a description: inventory, records, identity. */
#include "described/platform.h"
#include "described/support.h"
#include "platform/capi.h"

#include <array>

using namespace described_platform_test;

namespace
{

struct listed {
    std::string name;
    uint32_t type;
    std::array<uint8_t, 10> capabilities;
    bool operator==(const listed &) const = default;
};

class capi : public platform_test
{
  protected:
    /* Empty when the call fails. */
    static std::vector<listed> inventory(const char *name, int mode)
    {
        uint32_t count = 0;
        capi_inventory_record *items = nullptr;
        if (capi_get_inventory(name, mode, &count, &items) != 0) {
            return {};
        }
        std::vector<listed> result;
        for (uint32_t i = 0; i < count; ++i) {
            EXPECT_EQ(std::string_view(items[i].nac_name).size(), items[i].nac_name_length);
            listed each{items[i].nac_name, items[i].component_type, {}};
            std::copy_n(items[i].capabilities, each.capabilities.size(), each.capabilities.begin());
            result.push_back(each);
        }
        capi_free_inventory(items, count);
        return result;
    }

    static std::vector<std::string> names(const char *name, int mode)
    {
        std::vector<std::string> result;
        for (const listed &each : inventory(name, mode)) {
            result.push_back(each.name);
        }
        return result;
    }

    void describe(const std::string &components, const std::string &more = "")
    {
        write_file(path, described(components, more));
        ASSERT_FALSE(names("/", CAPI_INVENTORY_ROOT).empty()) << log_lines().at(0);
    }

    void describe_sensor(const std::string &members)
    {
        describe(R"({"name": "/SYS/T", "type": 16, "sensor": {)" + members + "}}");
    }
};

using strings = std::vector<std::string>;

TEST_F(capi, the_root_query_gives_the_top_and_the_root)
{
    describe(R"({"name": "/SYS/MB", "type": 9})");
    EXPECT_EQ((strings{"/", "/SYS"}), names("/", CAPI_INVENTORY_ROOT));
    EXPECT_EQ(strings{}, names("/SYS", CAPI_INVENTORY_ROOT));
    EXPECT_EQ(strings{}, names("/", 3));
}

TEST_F(capi, a_subtree_is_the_component_and_all_below_it_containers_first)
{
    describe(R"({"name": "/SYS/MB/P0", "type": 40}, {"name": "/SYS/MB2", "type": 9},
                {"name": "/SYS/MB", "type": 9})");
    EXPECT_EQ((strings{"/SYS", "/SYS/MB2", "/SYS/MB", "/SYS/MB/P0"}),
              names("/SYS", CAPI_INVENTORY_SUBTREE));
    EXPECT_EQ(names("/SYS", CAPI_INVENTORY_SUBTREE), names("/", CAPI_INVENTORY_SUBTREE));
    EXPECT_EQ((strings{"/SYS/MB", "/SYS/MB/P0"}), names("/SYS/MB", CAPI_INVENTORY_SUBTREE));
    EXPECT_EQ(strings{"/SYS/MB2"}, names("/SYS/MB2", CAPI_INVENTORY_SUBTREE));
}

TEST_F(capi, unknown_names_and_null_arguments_fail)
{
    describe("");
    uint32_t count = 0;
    capi_inventory_record *items = nullptr;
    capi_sensor_record sensor;
    int32_t code = 0;
    EXPECT_EQ(-1, capi_get_inventory("/SYS/X", CAPI_INVENTORY_SUBTREE, &count, &items));
    EXPECT_EQ(-1, capi_get_inventory("", CAPI_INVENTORY_SUBTREE, &count, &items));
    EXPECT_EQ(-1, capi_get_inventory(nullptr, CAPI_INVENTORY_SUBTREE, &count, &items));
    EXPECT_EQ(-1, capi_get_inventory("/SYS", CAPI_INVENTORY_SUBTREE, nullptr, &items));
    EXPECT_EQ(-1, capi_get_inventory("/SYS", CAPI_INVENTORY_SUBTREE, &count, nullptr));
    EXPECT_EQ(-1, capi_get_sensor(0, "/SYS/X", &sensor));
    EXPECT_EQ(-1, capi_get_sensor(0, nullptr, &sensor));
    EXPECT_EQ(-1, capi_get_sensor(0, "/SYS", &sensor)) << "no sensor";
    EXPECT_EQ(-1, capi_get_sensor_info("/SYS", CAPI_SENSOR_INFO_ALL, &sensor));
    EXPECT_EQ(-1, capi_get_indicator(0, "/SYS", nullptr));
    EXPECT_EQ(-1, capi_get_fru_info("/SYS", nullptr));
    EXPECT_EQ(-1, capi_get_power_state(0, "/SYS", &code)) << "no power state";
    EXPECT_EQ(-1, capi_get_rdy2rm_status(0, "/SYS", nullptr));
    EXPECT_EQ(-1, capi_get_enable_disable_state("/SYS", &code, nullptr, 0));
    EXPECT_EQ(-1, capi_get_product_ops_info(0, nullptr));
    EXPECT_EQ(-1, capi_get_component_desc_str(2, nullptr));
    EXPECT_EQ(-1, capi_is_sensor_type(2, nullptr));
    EXPECT_EQ(-1, capi_is_indicator_type(2, nullptr));
    EXPECT_EQ(0, capi_is_sensor_with_OK_semantics(nullptr));
    capi_free_inventory(nullptr, 0);
}

TEST_F(capi, without_a_description_every_call_that_needs_one_fails)
{
    uint32_t count = 0;
    capi_inventory_record *items = nullptr;
    capi_product_record product;
    capi_chassis_record chassis;
    char text[8];
    EXPECT_EQ(-1, capi_get_inventory("/", CAPI_INVENTORY_ROOT, &count, &items));
    EXPECT_EQ(-1, capi_get_product_ops_info(0, &product));
    EXPECT_EQ(-1, capi_get_chassis_ops_info(&chassis));
    EXPECT_EQ(-1, capi_get_product_vantor_id(text, sizeof text));
    EXPECT_EQ(-1, capi_get_chassis_vantor_id(text, sizeof text));
    EXPECT_EQ(0, capi_is_sensor_with_OK_semantics("/SYS"));
}

TEST_F(capi, a_bad_file_at_start_is_logged_once_and_gives_no_inventory_until_it_is_good)
{
    write_file(path, described(R"({"name": "/SYS/A", "type": "x"})"));
    EXPECT_EQ(strings{}, names("/", CAPI_INVENTORY_ROOT));
    EXPECT_EQ(strings{}, names("/", CAPI_INVENTORY_ROOT));
    const strings log = log_lines();
    ASSERT_EQ(2U, log.size());
    EXPECT_TRUE(
        log[0].starts_with("3:" + path.string() + ":2: /components/1/type (/SYS/A): expected "))
        << log[0];
    EXPECT_EQ("3:" + path.string() + ": refused; there is no inventory until it is good\n", log[1]);
    replace_file(path, described(""));
    EXPECT_EQ((strings{"/", "/SYS"}), names("/", CAPI_INVENTORY_ROOT));
}

TEST_F(capi, an_inventory_list_outlives_the_description_that_it_came_from)
{
    describe(R"({"name": "/SYS/OLD", "type": 9})");
    uint32_t count = 0;
    capi_inventory_record *items = nullptr;
    ASSERT_EQ(0, capi_get_inventory("/SYS", CAPI_INVENTORY_SUBTREE, &count, &items));
    replace_file(path, described(R"({"name": "/SYS/NEW", "type": 9})"));
    EXPECT_EQ((strings{"/SYS", "/SYS/NEW"}), names("/SYS", CAPI_INVENTORY_SUBTREE));
    ASSERT_EQ(2U, count);
    EXPECT_STREQ("/SYS/OLD", items[1].nac_name);
    capi_free_inventory(items, count);
}

TEST_F(capi, capabilities_by_name_set_their_bits_and_raw_bytes_are_added)
{
    const std::pair<const char *, std::array<uint8_t, 10>> expected[] = {
        {"stateful", {0x04}},
        {"field-replaceable", {0, 0, 0x02}},
        {"holder", {0, 0, 0x08}},
        {"power-readable", {0, 0, 0, 0x02}},
        {"power-controllable", {0, 0, 0, 0x04}},
        {"power-standby", {0, 0, 0, 0x08}},
        {"fru-info", {0, 0, 0, 0, 0x02}},
        {"hot-pluggable", {0, 0, 0, 0, 0, 0, 0x02}},
        {"enable-state", {0, 0, 0, 0, 0, 0, 0, 0x02}},
        {"resettable", {0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01}},
    };
    std::string components;
    for (const auto &[name, bytes] : expected) {
        components += std::string(R"({"name": "/SYS/)") + name +
                      R"(", "type": 9, "capabilities": [")" + name + "\"]},\n";
    }
    components += R"({"name": "/SYS/BOTH", "type": 200, "capabilities": ["holder", "stateful"],
                      "capability_bytes": [1, 2, 1, 0, 0, 0, 0, 0, 0, 255]})";
    describe(components);
    for (const auto &[name, bytes] : expected) {
        const std::string full = std::string("/SYS/") + name;
        EXPECT_EQ((std::vector<listed>{{full, 9, bytes}}),
                  inventory(full.c_str(), CAPI_INVENTORY_SUBTREE));
    }
    EXPECT_EQ((std::vector<listed>{{"/SYS/BOTH", 200, {5, 2, 9, 0, 0, 0, 0, 0, 0, 255}}}),
              inventory("/SYS/BOTH", CAPI_INVENTORY_SUBTREE));
}

TEST_F(capi, every_field_of_a_sensor_record_comes_from_the_description)
{
    describe_sensor(R"("class": "threshold", "type": "humidity", "units": "percent",
        "reading": 41.5, "raw_reading": 42, "record_name": "HUM",
        "state": "failed",
        "thresholds": {"upper_fatal": 6.5, "upper_critical": 5.5, "upper_non_critical": 4.5,
                       "lower_fatal": 1.5, "lower_critical": 2.5, "lower_non_critical": 3.5})");
    capi_sensor_record record;
    ASSERT_EQ(0, capi_get_sensor(0, "/SYS/T", &record));
    EXPECT_STREQ("HUM", record.name);
    EXPECT_EQ(CAPI_SENSOR_THRESHOLD, record.sensor_class);
    EXPECT_EQ(CAPI_SENSOR_HUMIDITY, record.sensor_type);
    EXPECT_EQ(CAPI_UNITS_PERCENT, record.units);
    EXPECT_EQ(41.5F, record.reading);
    EXPECT_EQ(42, record.raw_reading);
    EXPECT_EQ(CAPI_READING_VALID, record.reading_status);
    EXPECT_EQ(6.5F, record.upper_fatal);
    EXPECT_EQ(5.5F, record.upper_critical);
    EXPECT_EQ(4.5F, record.upper_non_critical);
    EXPECT_EQ(1.5F, record.lower_fatal);
    EXPECT_EQ(2.5F, record.lower_critical);
    EXPECT_EQ(3.5F, record.lower_non_critical);
    EXPECT_EQ(0x7F, record.flags);
    EXPECT_EQ(1.0F, record.state);
}

TEST_F(capi, sensor_info_tells_all_that_needs_no_reading)
{
    describe_sensor(R"("class": "threshold", "type": "voltage", "units": "volts",
        "reading": {"file": "nowhere"}, "thresholds": {"lower_critical": 2.5})");
    capi_sensor_record record;
    EXPECT_EQ(-1, capi_get_sensor(0, "/SYS/T", &record));
    ASSERT_EQ(0, capi_get_sensor_info("/SYS/T", CAPI_SENSOR_INFO_ALL, &record));
    EXPECT_STREQ("/SYS/T", record.name);
    EXPECT_EQ(CAPI_SENSOR_THRESHOLD, record.sensor_class);
    EXPECT_EQ(CAPI_SENSOR_VOLTAGE, record.sensor_type);
    EXPECT_EQ(CAPI_UNITS_VOLTS, record.units);
    EXPECT_EQ(2.5F, record.lower_critical);
    EXPECT_EQ(CAPI_LOWER_CRITICAL_VALID, record.flags);
}

TEST_F(capi, an_alternating_voltage_is_a_flag)
{
    const std::pair<const char *, int> cases[] = {
        {R"(, "current": "alternating")", CAPI_ALTERNATING}, {R"(, "current": "direct")", 0}};
    for (const auto &[current, flags] : cases) {
        described_platform_stop();
        describe_sensor(R"("class": 1, "type": 2, "units": "volts", "reading": 230)" +
                        std::string(current));
        capi_sensor_record record;
        ASSERT_EQ(0, capi_get_sensor_info("/SYS/T", CAPI_SENSOR_INFO_ALL, &record));
        EXPECT_EQ(flags, record.flags);
    }
}

TEST_F(capi, each_threshold_sets_its_own_flag)
{
    const std::pair<const char *, int> flags[] = {
        {"lower_non_critical", 0x01}, {"lower_critical", 0x02}, {"lower_fatal", 0x04},
        {"upper_non_critical", 0x08}, {"upper_critical", 0x10}, {"upper_fatal", 0x20},
    };
    for (const auto &[key, flag] : flags) {
        described_platform_stop();
        describe_sensor(std::string(R"("class": 1, "type": 1, "reading": 1, "thresholds": {")") +
                        key + "\": 1}");
        capi_sensor_record record;
        ASSERT_EQ(0, capi_get_sensor_info("/SYS/T", CAPI_SENSOR_INFO_ALL, &record));
        EXPECT_EQ(flag, record.flags) << key;
    }
}

TEST_F(capi, names_of_sensor_codes_are_the_codes_of_the_component_api)
{
    const std::pair<const char *, int32_t> types[] = {
        {"other", 0},      {"temperature", 1}, {"voltage", 2},   {"current", 3},
        {"tachometer", 4}, {"presence", 7},    {"humidity", 19},
    };
    const std::pair<const char *, int32_t> units[] = {
        {"none", 0},  {"degrees-c", 1}, {"degrees-f", 2}, {"kelvin", 3},
        {"volts", 4}, {"amps", 5},      {"watts", 6},     {"rpm", 7},
        {"hertz", 8}, {"percent", 9},   {"hours", 10},
    };
    std::string components;
    const auto add = [&](const std::string &name, const std::string &members) {
        components += (components.empty() ? "" : ",\n") +
                      (R"({"name": "/SYS/)" + name + R"(", "type": 16, "sensor": {)" + members +
                       R"(, "reading": 1}})");
    };
    for (const auto &[name, code] : types) {
        add(std::string("T-") + name, std::string(R"("class": 1, "type": ")") + name + '"');
    }
    for (const auto &[name, code] : units) {
        add(std::string("U-") + name,
            std::string(R"("class": 1, "type": 0, "units": ")") + name + '"');
    }
    add("C-discrete", R"("class": "discrete", "type": 77, "units": -5)");
    describe(components);
    capi_sensor_record record;
    for (const auto &[name, code] : types) {
        ASSERT_EQ(0, capi_get_sensor(0, (std::string("/SYS/T-") + name).c_str(), &record));
        EXPECT_EQ(code, record.sensor_type) << name;
    }
    for (const auto &[name, code] : units) {
        ASSERT_EQ(0, capi_get_sensor(0, (std::string("/SYS/U-") + name).c_str(), &record));
        EXPECT_EQ(code, record.units) << name;
    }
    ASSERT_EQ(0, capi_get_sensor(0, "/SYS/C-discrete", &record));
    EXPECT_EQ(CAPI_SENSOR_DISCRETE, record.sensor_class);
    EXPECT_EQ(77, record.sensor_type);
    EXPECT_EQ(-5, record.units);
}

TEST_F(capi, raw_readings_that_are_not_given_are_0_or_the_number_of_a_discrete_state)
{
    describe(R"({"name": "/SYS/A", "type": 16, "sensor": {"class": 1, "type": 1, "reading": 25}},
        {"name": "/SYS/B", "type": 22, "sensor":
            {"class": 2, "type": "presence", "reading": "present"}},
        {"name": "/SYS/C", "type": 22, "sensor":
            {"class": 2, "type": "presence", "reading": "absent"}},
        {"name": "/SYS/D", "type": 23, "sensor": {"class": 2, "type": 0, "reading": "asserted"}},
        {"name": "/SYS/E", "type": 23, "sensor": {"class": 2, "type": 0, "reading": 1.5}})");
    const auto raw_and_reading = [](const char *name) {
        capi_sensor_record record{};
        EXPECT_EQ(0, capi_get_sensor(0, name, &record)) << name;
        return std::pair<int, float>(record.raw_reading, record.reading);
    };
    EXPECT_EQ((std::pair<int, float>(0, 25.0F)), raw_and_reading("/SYS/A"));
    EXPECT_EQ((std::pair<int, float>(2, 2.0F)), raw_and_reading("/SYS/B"));
    EXPECT_EQ((std::pair<int, float>(1, 1.0F)), raw_and_reading("/SYS/C"));
    EXPECT_EQ((std::pair<int, float>(2, 2.0F)), raw_and_reading("/SYS/D"));
    EXPECT_EQ((std::pair<int, float>(1, 1.5F)), raw_and_reading("/SYS/E"));
}

TEST_F(capi, a_reading_of_0_equals_its_raw_reading_only_beside_whole_limits)
{
    const std::tuple<const char *, const char *, int> cases[] = {
        {"0.0", R"("upper_critical": 0.5)", 1},
        {"-0.0", R"("lower_fatal": -0.5)", 1},
        {"1e-60", R"("lower_fatal": 10.25)", 1},
        {"0", R"("upper_fatal": 5, "lower_fatal": -5)", 0},
        {"0", "", 0},
        {"0.5", R"("upper_fatal": 0.5)", 0}, /* differs from 0 as it is */
    };
    for (const auto &[reading, limits, raw] : cases) {
        described_platform_stop();
        describe_sensor(std::string(R"("class": 1, "type": 3, "reading": )") + reading +
                        R"(, "thresholds": {)" + limits + "}");
        capi_sensor_record record;
        ASSERT_EQ(0, capi_get_sensor(0, "/SYS/T", &record));
        EXPECT_EQ(raw, record.raw_reading) << reading << ' ' << limits;
    }
    describe_sensor(R"("class": 1, "type": 3, "reading": 0, "raw_reading": 0,
                       "thresholds": {"upper_fatal": 0.5})");
    capi_sensor_record record;
    ASSERT_EQ(0, capi_get_sensor(0, "/SYS/T", &record));
    EXPECT_EQ(0, record.raw_reading) << "given, it stays as it is";
}

TEST_F(capi, an_invalid_sensor_says_so_even_when_its_reading_fails)
{
    describe_sensor(R"("class": 1, "type": 1, "reading": {"file": "nowhere"}, "valid": false)");
    capi_sensor_record record;
    ASSERT_EQ(0, capi_get_sensor(0, "/SYS/T", &record));
    EXPECT_EQ(CAPI_READING_INVALID, record.reading_status);
}

TEST_F(capi, ok_semantics_are_found_by_record_and_by_name)
{
    describe(R"({"name": "/SYS/A", "type": 18, "sensor":
            {"class": 2, "type": 0, "reading": 1, "record_name": "RA", "ok_semantics": true}},
        {"name": "/SYS/B", "type": 18, "sensor":
            {"class": 2, "type": 0, "reading": 1, "record_name": "RB"}})");
    capi_sensor_record record;
    ASSERT_EQ(0, capi_get_sensor(0, "/SYS/A", &record));
    EXPECT_EQ(1, capi_is_sensor_with_OK_semantics(&record));
    EXPECT_EQ(1, capi_is_sensor_with_OK_semantics("/SYS/A"));
    ASSERT_EQ(0, capi_get_sensor(0, "/SYS/B", &record));
    EXPECT_EQ(0, capi_is_sensor_with_OK_semantics(&record));
    EXPECT_EQ(0, capi_is_sensor_with_OK_semantics("/SYS/B"));
    EXPECT_EQ(0, capi_is_sensor_with_OK_semantics("/SYS"));
    EXPECT_EQ(0, capi_is_sensor_with_OK_semantics("/SYS/NONE"));
}

TEST_F(capi, a_long_name_is_cut_in_the_sensor_record)
{
    const std::string name = "/SYS/" + std::string(80, 'x');
    describe(R"({"name": ")" + name + R"(", "type": 16, "sensor":
                {"class": 1, "type": 1, "reading": 1, "ok_semantics": true}})");
    capi_sensor_record record;
    ASSERT_EQ(0, capi_get_sensor(0, name.c_str(), &record));
    EXPECT_EQ(name.substr(0, 63), record.name);
    EXPECT_EQ(1, capi_is_sensor_with_OK_semantics(&record));
}

TEST_F(capi, states_have_their_codes)
{
    const auto with = [](const char *name, const std::string &members) {
        return std::string(R"({"name": "/SYS/)") + name + R"(", "type": 9, )" + members + "}";
    };
    describe(with("A", R"("power": "off", "ready_to_remove": "ready", "enable": "disabled")") +
             "," +
             with("B", R"("power": "on", "ready_to_remove": "not-ready", "enable": "enabled")") +
             "," + with("C", R"("power": "standby", "ready_to_remove": true, "enable": 7)") + "," +
             with("D", R"("power": "shutting-down", "ready_to_remove": false)") + "," +
             with("E", R"("power": -9, "ready_to_remove": 5)"));
    const std::vector<std::tuple<const char *, int32_t, int32_t>> expected = {
        {"/SYS/A", CAPI_POWER_OFF, CAPI_READY_TO_REMOVE},
        {"/SYS/B", CAPI_POWER_ON, CAPI_NOT_READY_TO_REMOVE},
        {"/SYS/C", CAPI_POWER_STANDBY, CAPI_READY_TO_REMOVE},
        {"/SYS/D", CAPI_POWER_SHUTTING_DOWN, CAPI_NOT_READY_TO_REMOVE},
        {"/SYS/E", -9, 5},
    };
    for (const auto &[name, power, ready] : expected) {
        int32_t code = 0;
        ASSERT_EQ(0, capi_get_power_state(0, name, &code));
        EXPECT_EQ(power, code) << name;
        ASSERT_EQ(0, capi_get_rdy2rm_status(0, name, &code));
        EXPECT_EQ(ready, code) << name;
    }
    int32_t state = 0;
    char text[20];
    ASSERT_EQ(0, capi_get_enable_disable_state("/SYS/A", &state, text, sizeof text));
    EXPECT_EQ(CAPI_DISABLED, state);
    EXPECT_STREQ("disabled", text);
    ASSERT_EQ(0, capi_get_enable_disable_state("/SYS/B", &state, text, 4));
    EXPECT_EQ(CAPI_ENABLED, state);
    EXPECT_STREQ("ena", text);
    ASSERT_EQ(0, capi_get_enable_disable_state("/SYS/C", &state, nullptr, 0));
    EXPECT_EQ(7, state);
}

TEST_F(capi, indicators_have_their_states)
{
    const std::pair<const char *, int32_t> states[] = {
        {"\"off\"", 1},           {"\"on\"", 2}, {"\"slow-blink\"", 3}, {"\"fast-blink\"", 4},
        {"\"standby-blink\"", 5}, {"6", 6},
    };
    for (const auto &[text, state] : states) {
        described_platform_stop();
        describe(std::string(R"({"name": "/SYS/L", "type": "led", "indicator": {"state": )") +
                 text + "}}");
        capi_indicator_record record;
        ASSERT_EQ(0, capi_get_indicator(0, "/SYS/L", &record));
        EXPECT_EQ(state, record.state);
    }
}

TEST_F(capi, an_indicator_tells_what_it_means_and_nothing_else_does)
{
    describe(R"({"name": "/SYS/A", "type": 30, "indicator": {"state": 1, "means": "service"}},
                {"name": "/SYS/B", "type": 30, "indicator": {"state": 1, "means": "fault"}},
                {"name": "/SYS/C", "type": 30, "indicator": {"state": 1}},
                {"name": "/SYS/D", "type": 11})");
    int32_t meaning = 0;
    EXPECT_EQ(0, capi_get_indicator_meaning("/SYS/A", &meaning));
    EXPECT_EQ(CAPI_MEANS_SERVICE, meaning);
    EXPECT_EQ(0, capi_get_indicator_meaning("/SYS/B", &meaning));
    EXPECT_EQ(CAPI_MEANS_FAULT, meaning);
    EXPECT_EQ(-1, capi_get_indicator_meaning("/SYS/A", nullptr));
    for (const char *name : {"/SYS/C", "/SYS/D", "/SYS/E", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(-1, capi_get_indicator_meaning(name, &meaning)) << (name ? name : "null");
    }
    EXPECT_EQ(CAPI_MEANS_FAULT, meaning) << "left alone";
}

TEST_F(capi, a_port_tells_its_interface_to_whoever_has_room_for_the_name)
{
    describe(R"({"name": "/SYS/A", "type": 11, "interface": "fifteen-letters"},
                {"name": "/SYS/B", "type": 11})");
    char name[CAPI_INTERFACE_NAME_SIZE + 1];
    memset(name, '?', sizeof name);
    ASSERT_EQ(0, capi_get_interface_name("/SYS/A", name, CAPI_INTERFACE_NAME_SIZE));
    EXPECT_STREQ("fifteen-letters", name);
    EXPECT_EQ('?', name[CAPI_INTERFACE_NAME_SIZE]);
    EXPECT_EQ(-1, capi_get_interface_name("/SYS/A", name, 15));
    EXPECT_EQ(-1, capi_get_interface_name("/SYS/A", name, 0));
    EXPECT_EQ(-1, capi_get_interface_name("/SYS/A", nullptr, CAPI_INTERFACE_NAME_SIZE));
    EXPECT_EQ(-1, capi_get_interface_name("/SYS/B", name, CAPI_INTERFACE_NAME_SIZE));
    EXPECT_EQ(-1, capi_get_interface_name("/SYS/C", name, CAPI_INTERFACE_NAME_SIZE));
    EXPECT_EQ(-1, capi_get_interface_name(nullptr, name, CAPI_INTERFACE_NAME_SIZE));
}

TEST_F(capi, identity_records_hold_their_texts)
{
    const std::string full(79, 'y');
    describe(R"({"name": "/SYS/A", "type": 9, "fru": {"model": "FM", "manufacturer": "FF",
        "serial": ")" +
                 full + R"(", "alias": "FA", "software_revision": "FR"}})",
             R"(, "product": {"model": "PM", "serial": "PS", "description": "PD",
                              "vantor_id": "PV"},
                  "chassis": {"model": "CM", "serial": "CS", "description": "CD",
                              "manufacturer": "CF", "vantor_id": "CV"})");
    capi_fru_record fru;
    ASSERT_EQ(0, capi_get_fru_info("/SYS/A", &fru));
    EXPECT_STREQ("FM", fru.model);
    EXPECT_STREQ("FF", fru.manufacturer);
    EXPECT_EQ(full, fru.serial);
    EXPECT_STREQ("FA", fru.alias);
    EXPECT_STREQ("FR", fru.software_revision);
    EXPECT_EQ(-1, capi_get_fru_info("/SYS", &fru));
    capi_product_record product;
    ASSERT_EQ(0, capi_get_product_ops_info(0, &product));
    EXPECT_STREQ("PM", product.model);
    EXPECT_STREQ("PS", product.serial);
    EXPECT_STREQ("PD", product.description);
    capi_chassis_record chassis;
    ASSERT_EQ(0, capi_get_chassis_ops_info(&chassis));
    EXPECT_STREQ("CM", chassis.model);
    EXPECT_STREQ("CS", chassis.serial);
    EXPECT_STREQ("CD", chassis.description);
    EXPECT_STREQ("CF", chassis.manufacturer);
    char text[51];
    ASSERT_EQ(0, capi_get_product_vantor_id(text, sizeof text));
    EXPECT_STREQ("PV", text);
    ASSERT_EQ(0, capi_get_chassis_vantor_id(text, sizeof text));
    EXPECT_STREQ("CV", text);
    ASSERT_EQ(0, capi_get_chassis_vantor_id(text, 2));
    EXPECT_STREQ("C", text);
    EXPECT_EQ(-1, capi_get_chassis_vantor_id(text, 0));
}

TEST_F(capi, identity_that_is_not_described_is_empty_where_that_serves_the_same)
{
    capi_product_record product;
    capi_chassis_record chassis;
    char text[51] = "untouched";
    describe("", R"(, "product": {"model": "PM"})");
    ASSERT_EQ(0, capi_get_product_ops_info(0, &product));
    EXPECT_STREQ("", product.serial);
    ASSERT_EQ(0, capi_get_product_vantor_id(text, sizeof text));
    EXPECT_STREQ("", text);
    text[0] = 'x';
    ASSERT_EQ(0, capi_get_chassis_vantor_id(text, sizeof text));
    EXPECT_STREQ("", text);
    ASSERT_EQ(0, capi_get_chassis_ops_info(&chassis));
    EXPECT_STREQ("Midplane", chassis.description) << "as without an answer";
    EXPECT_STREQ("", chassis.model);
    EXPECT_EQ(-1, capi_get_chassis_ops_info(nullptr));

    described_platform_stop();
    describe(R"({"name": "/SYS/A", "type": "chassis", "fru": {"alias": "A"}})");
    EXPECT_EQ(-1, capi_get_product_ops_info(0, &product))
        << "an empty product has a maker and a firmware";
    EXPECT_EQ(-1, capi_get_product_vantor_id(text, sizeof text)) << "it would replace the alias";
}

} // namespace

// The equipment and the alarm table: which entities they list, and their live columns.

#include "rooms/platform_tables.h"

#include <climits>

namespace
{

using indexes = std::vector<uint32_t>;
using strings = std::vector<std::string>;

constexpr unsigned admin_state = 1;
constexpr unsigned oper_state = 2;
constexpr unsigned severity = 3;
constexpr unsigned state_unknown = 4;
constexpr unsigned container_name = 5;

class equipment_table : public platform_table_test
{
  protected:
    static constexpr const char *name = "/SYS/C0";

    // Two rows; the second is the one under test: of class module, in the first.
    void SetUp() override
    {
        build_rows(2);
        ASSERT_EQ(entry().entPhysicalName, std::string(name));
        entry().entPhysicalClass = PHYSICAL_CLASS_MODULE;
        forget_capabilities();
        platform.forget_calls();
    }

    static phys_entry &entry() { return *kavplat::entry_at(2); }

    static void forget_capabilities()
    {
        std::fill(std::begin(entry().capiCaps), std::end(entry().capiCaps), uint8_t{0});
    }

    // Every capability but this bit.
    static void all_capabilities_but(unsigned byte, unsigned mask)
    {
        std::fill(std::begin(entry().capiCaps), std::end(entry().capiCaps), uint8_t{0xFF});
        entry().capiCaps[byte] = static_cast<uint8_t>(0xFF & ~mask);
    }

    static snmp_value column(unsigned number)
    {
        return served(kavPlatEquipmentTable_handler, number, &entry());
    }
};

TEST_F(equipment_table, rows_are_other_and_chassis_to_module)
{
    build_rows(14);
    for (int32_t i = 1; i <= 14; i++) {
        kavplat::entry_at(static_cast<uint32_t>(i))->entPhysicalClass = i - 1;
    }
    kavplat::entry_at(14)->entPhysicalClass = -1;
    // Class is index - 1: neither 0, nor unknown(2), nor port(10) and above.
    EXPECT_EQ(indexes_of(table_named("kavPlatEquipmentTable")), (indexes{2, 4, 5, 6, 7, 8, 9, 10}));
}

// ---- Column 1: readiness to be removed, then power ----

TEST_F(equipment_table, admin_state_follows_the_readiness_to_be_removed)
{
    entry().capiCaps[2] = 0x02;
    for (const auto &[status, state] :
         {std::pair{1, 2}, {0, 1}, {2, 1}, {-1, 1}, {INT_MAX, 1}, {INT_MIN, 1}}) {
        platform->ready_to_remove[name] = status;
        entry().equipmentCol1 = 77;
        EXPECT_EQ(column(admin_state), integer_value(state)) << status;
        EXPECT_EQ(entry().equipmentCol1, state) << status;
    }
    EXPECT_EQ(platform.calls("capi_get_rdy2rm_status", name), 6U);
    EXPECT_EQ(platform.calls("capi_get_power_state"), 0U);
}

TEST_F(equipment_table, admin_state_follows_the_power_where_readiness_fails)
{
    entry().capiCaps[2] = 0x02;
    for (const auto &[power, state] :
         {std::pair{2, 2}, {4, 3}, {1, 1}, {3, 1}, {0, 1}, {5, 1}, {-1, 1}}) {
        platform->power_states[name] = power;
        entry().equipmentCol1 = 77;
        EXPECT_EQ(column(admin_state), integer_value(state)) << power;
        EXPECT_EQ(entry().equipmentCol1, state) << power;
    }
    EXPECT_EQ(platform.calls("capi_get_rdy2rm_status", name), 7U);
    EXPECT_EQ(platform.calls("capi_get_power_state", name), 7U);
}

TEST_F(equipment_table, admin_state_stays_when_both_reads_fail)
{
    entry().capiCaps[2] = 0x02;
    entry().equipmentCol1 = 3;
    EXPECT_EQ(column(admin_state), integer_value(3));
    EXPECT_EQ(platform.calls("capi_get_power_state", name), 1U);
    EXPECT_EQ(entry().equipmentCol1, 3);
}

TEST_F(equipment_table, admin_state_of_what_is_not_replaceable_is_never_asked)
{
    all_capabilities_but(2, 0x02);
    platform->ready_to_remove[name] = 0;
    platform->power_states[name] = 1;
    EXPECT_EQ(column(admin_state), integer_value(2));
    EXPECT_EQ(platform.calls("capi_get_rdy2rm_status"), 0U);
    EXPECT_EQ(platform.calls("capi_get_power_state"), 0U);
}

TEST_F(equipment_table, admin_state_is_read_at_every_request)
{
    entry().capiCaps[2] = 0x02;
    platform->ready_to_remove[name] = 1;
    entry().lastReadTime = static_cast<uint32_t>(uptime);
    EXPECT_EQ(column(admin_state), integer_value(2));
    platform->ready_to_remove[name] = 0;
    EXPECT_EQ(column(admin_state), integer_value(1));
}

// ---- Column 2: enable state ----

TEST_F(equipment_table, oper_state_of_a_discrete_supply_or_fan_follows_its_value)
{
    for (const int32_t physical_class : {PHYSICAL_CLASS_POWER_SUPPLY, PHYSICAL_CLASS_FAN}) {
        entry().entPhysicalClass = physical_class;
        entry().sensorKind = SENSOR_KIND_DISCRETE;
        for (const auto &[value, state] : {std::pair{2, 1}, {1, 2}, {0, 2}, {3, 2}, {-1, 2}}) {
            entry().discreteSensorValue = value;
            entry().equipmentCol2 = 77;
            EXPECT_EQ(column(oper_state), integer_value(state)) << value;
            EXPECT_EQ(entry().equipmentCol2, state) << value;
        }
    }
}

TEST_F(equipment_table, oper_state_of_others_does_not_follow_the_discrete_value)
{
    entry().discreteSensorValue = 2;
    for (const auto &[physical_class, kind] :
         {std::pair<int32_t, int32_t>{PHYSICAL_CLASS_POWER_SUPPLY, SENSOR_KIND_BINARY},
          {PHYSICAL_CLASS_FAN, SENSOR_KIND_NUMERIC},
          {PHYSICAL_CLASS_FAN, SENSOR_KIND_NONE},
          {PHYSICAL_CLASS_CONTAINER, SENSOR_KIND_DISCRETE},
          {PHYSICAL_CLASS_SENSOR, SENSOR_KIND_DISCRETE}}) {
        entry().entPhysicalClass = physical_class;
        entry().sensorKind = kind;
        entry().equipmentCol2 = 2;
        EXPECT_EQ(column(oper_state), integer_value(2)) << physical_class << " " << kind;
    }
}

TEST_F(equipment_table, oper_state_follows_the_enable_state)
{
    entry().capiCaps[7] = 0x02;
    for (const auto &[state, oper] : {std::pair{1, 1}, {2, 2}, {0, 2}, {3, 2}, {-1, 2}}) {
        platform->enable_states[name] = {state, "a reason that is longer than twenty bytes are"};
        entry().lastReadTime = 0;
        entry().equipmentCol2 = 77;
        EXPECT_EQ(column(oper_state), integer_value(oper)) << state;
        EXPECT_EQ(entry().equipmentCol2, oper) << state;
        EXPECT_EQ(entry().lastReadTime, uptime) << state;
    }
}

TEST_F(equipment_table, oper_state_is_never_asked_without_the_capability)
{
    all_capabilities_but(7, 0x02);
    platform->enable_states[name] = {CAPI_DISABLED, ""};
    EXPECT_EQ(column(oper_state), integer_value(2));
    EXPECT_EQ(platform.calls("capi_get_enable_disable_state"), 0U);
    EXPECT_EQ(entry().lastReadTime, 0U);
}

TEST_F(equipment_table, a_failed_read_of_the_enable_state_serves_the_last_and_is_tried_again)
{
    entry().capiCaps[7] = 0x02;
    entry().equipmentCol2 = 1;
    EXPECT_EQ(column(oper_state), integer_value(1));
    EXPECT_EQ(entry().lastReadTime, 0U);
    EXPECT_EQ(column(oper_state), integer_value(1));
    EXPECT_EQ(platform.calls("capi_get_enable_disable_state", name), 2U);
}

// The value of a discrete supply goes first and the enable state has the last word.
TEST_F(equipment_table, the_enable_state_goes_over_the_discrete_value)
{
    entry().entPhysicalClass = PHYSICAL_CLASS_FAN;
    entry().sensorKind = SENSOR_KIND_DISCRETE;
    entry().discreteSensorValue = 2;
    entry().capiCaps[7] = 0x02;
    EXPECT_EQ(column(oper_state), integer_value(1)) << "the read failed";
    platform->enable_states[name] = {CAPI_ENABLED, ""};
    EXPECT_EQ(column(oper_state), integer_value(2));
    EXPECT_EQ(column(oper_state), integer_value(1)) << "fresh: not asked, only the value counts";
}

struct read_times {
    uint32_t stamp;
    uint32_t now;
    bool is_read;
};

constexpr read_times freshness[] = {
    {0, 1, true},                      // never read
    {0, 123456, true},                 //
    {1000, 1000, false},               //
    {1000, 1999, false},               // 999 later
    {1000, 2000, true},                // 1000 later
    {4294967000U, 703, false},         // 999 later, across the wrap
    {4294967000U, 704, true},          // 1000 later
    {1000, 999, false},                // the clock before the stamp
    {1000, 1000 + 2147483647U, true},  // the longest that counts as later
    {1000, 1000 + 2147483648U, false}, // longer than that counts as before
};

TEST_F(equipment_table, the_enable_state_s_stamp_is_of_the_time_before_it_was_asked)
{
    entry().capiCaps[7] = 0x02;
    platform->enable_states[name].state = CAPI_ENABLED;
    platform->on_call = [](const fake_call &) { fake_system::set_uptime(uptime + 700); };
    column(oper_state);
    EXPECT_EQ(entry().lastReadTime, uptime);
    // The stamp of a read at 0 is none.
    platform->on_call = nullptr;
    fake_system::set_uptime(0);
    entry().lastReadTime = 0;
    column(oper_state);
    column(oper_state);
    EXPECT_EQ(platform.calls("capi_get_enable_disable_state", name), 3U);
}

TEST_F(equipment_table, the_enable_state_is_good_for_ten_seconds)
{
    entry().capiCaps[7] = 0x02;
    platform->enable_states[name] = {CAPI_DISABLED, ""};
    for (const auto &[stamp, now, is_read] : freshness) {
        platform.forget_calls();
        fake_system::set_uptime(now);
        entry().lastReadTime = stamp;
        entry().equipmentCol2 = 2;
        EXPECT_EQ(column(oper_state), integer_value(is_read ? 1 : 2)) << stamp << " at " << now;
        EXPECT_EQ(platform.calls("capi_get_enable_disable_state"), is_read ? 1U : 0U)
            << stamp << " at " << now;
        EXPECT_EQ(entry().lastReadTime, is_read ? now : stamp);
    }
}

// One stamp for enable state, sensor and indicator: after one of these reads the
// others wait ten seconds too.
TEST_F(equipment_table, a_sensor_whose_enable_state_was_just_read_is_not_read)
{
    entry().entPhysicalClass = PHYSICAL_CLASS_SENSOR;
    entry().sensorKind = SENSOR_KIND_BINARY;
    entry().sensorCol2 = 1;
    entry().capiCaps[7] = 0x02;
    platform->enable_states[name] = {CAPI_ENABLED, ""};
    EXPECT_EQ(column(oper_state), integer_value(2));
    EXPECT_EQ(served(kavPlatBinarySensorTable_handler, 1, &entry()), integer_value(2));
    EXPECT_EQ(column(severity), integer_value(7));
    EXPECT_EQ(platform.calls("capi_get_sensor"), 0U);

    fake_system::set_uptime(uptime + 1000);
    EXPECT_EQ(served(kavPlatBinarySensorTable_handler, 1, &entry()), integer_value(1));
    EXPECT_EQ(column(oper_state), integer_value(2));
    EXPECT_EQ(platform.calls("capi_get_enable_disable_state"), 1U) << "the stamp is the sensor's";
}

// ---- Column 3: severity ----

TEST_F(equipment_table, only_sensors_have_a_severity)
{
    for (const int32_t physical_class : {1, 3, 4, 5, 6, 7, 9}) {
        entry().entPhysicalClass = physical_class;
        entry().equipmentCol3 = 7;
        EXPECT_EQ(column(severity), integer_value(4)) << physical_class;
        EXPECT_EQ(entry().equipmentCol3, 4) << physical_class;
    }
    EXPECT_EQ(platform.calls("capi_get_sensor"), 0U);
}

class sensor_severity : public equipment_table
{
  protected:
    // A sensor whose fields are current, so that none of them is read anew.
    void make_sensor(int32_t kind, uint32_t type = CAPI_TYPE_FAULT_SENSOR)
    {
        entry().entPhysicalClass = PHYSICAL_CLASS_SENSOR;
        entry().sensorKind = kind;
        entry().sensorCol2 = 1;
        entry().capiComponentType = type;
        entry().lastReadTime = static_cast<uint32_t>(uptime);
    }

    static int64_t served_severity()
    {
        const snmp_value value = column(severity);
        EXPECT_EQ(value.type, ASN_INTEGER);
        EXPECT_EQ(entry().equipmentCol3, value.number) << "is stored";
        return value.number;
    }
};

TEST_F(sensor_severity, a_sensor_of_unknown_type_is_not_read)
{
    make_sensor(SENSOR_KIND_NUMERIC);
    entry().sensorCol2 = 2;
    entry().lastReadTime = 0;
    EXPECT_EQ(served_severity(), 4);
    EXPECT_EQ(platform.calls("capi_get_sensor"), 0U);
}

TEST_F(sensor_severity, a_sensor_that_cannot_be_read)
{
    make_sensor(SENSOR_KIND_BINARY);
    entry().lastReadTime = 0;
    platform->fail_for["capi_get_sensor"][name] = -7;
    const agent_log log;
    EXPECT_EQ(served_severity(), 4);
    EXPECT_TRUE(
        log.has(LOG_ERR, text_of("snmp_read_sensor:FAILED:capi_get_sensor %s, status=-7\n", name)));
}

TEST_F(sensor_severity, a_sensor_whose_reading_is_invalid)
{
    make_sensor(SENSOR_KIND_NUMERIC);
    entry().lastReadTime = 0;
    platform->sensors[name].reading_status = CAPI_READING_INVALID;
    EXPECT_EQ(served_severity(), 4);
    EXPECT_EQ(column(state_unknown), integer_value(1));
    EXPECT_EQ(column(oper_state), integer_value(1));
}

TEST_F(sensor_severity, a_sensor_of_no_kind_is_cleared)
{
    for (const int32_t kind : {0, 4, -1}) {
        make_sensor(kind);
        entry().binarySensorValue1 = 1;
        entry().binarySensorValue2 = 2;
        entry().discreteSensorValue = 2;
        entry().numericSensorCol4 = -1;
        EXPECT_EQ(served_severity(), 7) << kind;
    }
}

struct threshold_case {
    unsigned bit;
    int32_t phys_entry::*field;
    bool is_lower;
    int severity;
};

constexpr threshold_case thresholds[] = {
    {0x80, &phys_entry::numericSensorCol8, true, 5},
    {0x40, &phys_entry::numericSensorCol11, false, 5},
    {0x20, &phys_entry::numericSensorCol9, true, 2},
    {0x10, &phys_entry::numericSensorCol12, false, 2},
    {0x08, &phys_entry::numericSensorCol10, true, 1},
    {0x04, &phys_entry::numericSensorCol13, false, 1},
};

TEST_F(sensor_severity, each_threshold_counts_at_equality_and_beyond_when_it_is_in_force)
{
    make_sensor(SENSOR_KIND_NUMERIC, 200);
    for (const int32_t reading : {0, 25, -25, INT_MAX - 1, INT_MIN + 1}) {
        entry().numericSensorCol4 = reading;
        for (const auto &[bit, field, is_lower, crossed] : thresholds) {
            for (const threshold_case &other : thresholds) {
                // Far off, though not in force either.
                entry().*other.field = other.is_lower ? INT_MIN : INT_MAX;
            }
            const int32_t beyond = is_lower ? 1 : -1;
            for (const auto &[threshold, expected] : {std::pair{reading, crossed},
                                                      {reading + beyond, crossed},
                                                      {reading - beyond, 7}}) {
                entry().*field = threshold;
                entry().thresholdMask = static_cast<uint8_t>(bit);
                EXPECT_EQ(served_severity(), expected)
                    << "bit " << bit << ", " << reading << " against " << threshold;
                entry().thresholdMask = static_cast<uint8_t>(0xFF & ~bit);
                EXPECT_EQ(served_severity(), 7) << "without bit " << bit;
            }
        }
    }
}

// Every set of thresholds in force with every set of thresholds crossed: fatal goes
// over critical, critical over non-critical, whichever side they are on.
TEST_F(sensor_severity, a_graver_threshold_overrides_a_lesser_one)
{
    make_sensor(SENSOR_KIND_NUMERIC, 200);
    constexpr int32_t reading = 25;
    entry().numericSensorCol4 = reading;
    for (unsigned mask = 0; mask < 64; mask++) {
        for (unsigned crossed = 0; crossed < 64; crossed++) {
            for (const threshold_case &t : thresholds) {
                const bool is_crossed = ((crossed << 2) & t.bit) != 0;
                entry().*t.field = is_crossed ? reading : reading + (t.is_lower ? -1 : 1);
            }
            entry().thresholdMask = static_cast<uint8_t>(mask << 2);
            const unsigned both = (mask & crossed) << 2;
            const int expected = both & 0x0C ? 1 : both & 0x30 ? 2 : both & 0xC0 ? 5 : 7;
            ASSERT_EQ(served_severity(), expected) << "mask " << mask << ", crossed " << crossed;
        }
    }
}

TEST_F(sensor_severity, the_two_low_bits_of_the_mask_mean_nothing)
{
    make_sensor(SENSOR_KIND_NUMERIC, 200);
    for (const threshold_case &t : thresholds) {
        entry().*t.field = 0;
    }
    entry().thresholdMask = 0x03;
    EXPECT_EQ(served_severity(), 7);
}

TEST_F(sensor_severity, of_a_numeric_sensor_whatever_its_type)
{
    for (const uint32_t type : {18U, 19U, 26U, 200U}) {
        make_sensor(SENSOR_KIND_NUMERIC, type);
        entry().binarySensorValue1 = 1;
        entry().binarySensorValue2 = 2;
        entry().thresholdMask = 0x40;
        entry().numericSensorCol11 = 0;
        EXPECT_EQ(served_severity(), 5) << type;
    }
}

TEST_F(sensor_severity, of_a_discrete_fault_sensor)
{
    make_sensor(SENSOR_KIND_DISCRETE, CAPI_TYPE_FAULT_SENSOR);
    struct {
        int32_t value;
        bool ok_semantics;
        int expected;
    } const cases[] = {{2, false, 2}, {1, true, 2},  {2, true, 7}, {1, false, 7},
                       {0, true, 7},  {0, false, 7}, {3, true, 7}, {3, false, 7}};
    for (const auto &[value, ok_semantics, expected] : cases) {
        entry().discreteSensorValue = value;
        platform->ok_semantics.clear();
        if (ok_semantics) {
            platform->ok_semantics.insert(name);
        }
        EXPECT_EQ(served_severity(), expected) << value << " " << ok_semantics;
    }
    // An answer that is neither 0 nor 1 fits neither value.
    for (const int answer : {2, -1, 256, 257, INT_MIN}) {
        platform->fail["capi_is_sensor_with_OK_semantics"] = answer;
        for (const int32_t value : {1, 2}) {
            entry().discreteSensorValue = value;
            EXPECT_EQ(served_severity(), 7) << value << " " << answer;
        }
    }
}

// A read asks with the sensor's record; here it is the name that is known.
TEST_F(sensor_severity, a_discrete_fault_sensor_is_asked_about_by_its_name)
{
    make_sensor(SENSOR_KIND_DISCRETE, CAPI_TYPE_FAULT_SENSOR);
    entry().discreteSensorValue = 2;
    EXPECT_EQ(served_severity(), 2);
    EXPECT_EQ(platform.calls("capi_is_sensor_with_OK_semantics", name), 1U);
    platform.forget_calls();
    entry().discreteSensorValue = 0;
    EXPECT_EQ(served_severity(), 7);
    EXPECT_EQ(platform.calls("capi_is_sensor_with_OK_semantics"), 0U) << "no need to ask";
}

TEST_F(sensor_severity, of_other_discrete_sensors)
{
    make_sensor(SENSOR_KIND_DISCRETE, CAPI_TYPE_PREDICTIVE_SENSOR);
    for (const auto &[value, expected] : {std::pair{1, 5}, {2, 7}, {0, 7}, {3, 7}}) {
        entry().discreteSensorValue = value;
        EXPECT_EQ(served_severity(), expected) << value;
    }
    make_sensor(SENSOR_KIND_DISCRETE, 200);
    for (const int32_t value : {0, 1, 2}) {
        entry().discreteSensorValue = value;
        EXPECT_EQ(served_severity(), 7) << value;
    }
}

TEST_F(sensor_severity, of_binary_sensors)
{
    struct {
        uint32_t type;
        int deviating;
    } const cases[] = {{18, 2}, {19, 5}, {17, 7}, {20, 7}, {200, 7}};
    for (const auto &[type, deviating] : cases) {
        make_sensor(SENSOR_KIND_BINARY, type);
        for (const int32_t current : {1, 2}) {
            for (const int32_t expected : {1, 2}) {
                entry().binarySensorValue1 = current;
                entry().binarySensorValue2 = expected;
                EXPECT_EQ(served_severity(), current == expected ? 7 : deviating) << type;
            }
        }
    }
}

// A read says 7, and the column is worked out anew from what it brought.
TEST_F(sensor_severity, is_computed_and_stored_at_every_get)
{
    make_sensor(SENSOR_KIND_NUMERIC, 200);
    entry().lastReadTime = 0;
    auto record = threshold_sensor(CAPI_SENSOR_TEMPERATURE, 90.0F);
    record.raw_reading = 90;
    platform->sensors[name] = record;
    entry().thresholdMask = 0x10;
    entry().numericSensorCol12 = 90;
    EXPECT_EQ(served_severity(), 2);
    EXPECT_EQ(platform.calls("capi_get_sensor", name), 1U);
    entry().numericSensorCol12 = 91;
    EXPECT_EQ(served_severity(), 7);
    EXPECT_EQ(platform.calls("capi_get_sensor", name), 1U);
}

// ---- Columns 4 and 5 ----

TEST_F(equipment_table, state_unknown_is_served_as_stored)
{
    for (const int32_t value : {1, 2, 77}) {
        entry().equipmentCol4 = value;
        EXPECT_EQ(column(state_unknown), integer_value(value));
    }
    EXPECT_TRUE(platform.all_calls().empty());
}

TEST_F(equipment_table, container_name)
{
    ASSERT_EQ(entry().entPhysicalContainedIn, 1);
    EXPECT_EQ(column(container_name), octets_value("/SYS"));
    for (const int32_t nowhere : {0, 3, -1, INT_MIN, INT_MAX}) {
        entry().entPhysicalContainedIn = nowhere;
        EXPECT_EQ(column(container_name), octets_value("unknown")) << nowhere;
    }
    entry().entPhysicalContainedIn = 2;
    EXPECT_EQ(column(container_name), octets_value(name)) << "the highest index counts";
}

TEST_F(equipment_table, container_without_a_name_or_without_a_row)
{
    phys_entry &container = *kavplat::entry_at(1);
    char *text = std::exchange(container.entPhysicalName, nullptr);
    EXPECT_EQ(column(container_name), octets_value("unknown"));
    container.entPhysicalName = text;
    EXPECT_EQ(column(container_name), octets_value("/SYS"));
    {
        const cache_lock_held lock;
        free_local_cache_entry(1);
    }
    EXPECT_EQ(column(container_name), octets_value("unknown"));
}

TEST_F(equipment_table, container_of_a_top_level_entity)
{
    EXPECT_EQ(served(kavPlatEquipmentTable_handler, container_name, kavplat::entry_at(1)),
              octets_value("unknown"));
}

TEST_F(equipment_table, as_built)
{
    EXPECT_EQ(column(admin_state), integer_value(2));
    EXPECT_EQ(column(oper_state), integer_value(2));
    EXPECT_EQ(entry().equipmentCol3, 7);
    EXPECT_EQ(column(severity), integer_value(4));
    EXPECT_EQ(column(state_unknown), integer_value(2));
}

// ---- Alarms ----

class alarm_table : public platform_table_test
{
  protected:
    static constexpr const char *name = "/SYS/C0";

    void SetUp() override
    {
        build_rows(2);
        entry().entPhysicalClass = PHYSICAL_CLASS_OTHER;
        entry().platPhysicalClass = 2;
        platform.forget_calls();
    }

    static phys_entry &entry() { return *kavplat::entry_at(2); }

    static snmp_value column(unsigned number)
    {
        return served(kavPlatAlarmTable_handler, number, &entry());
    }
};

TEST_F(alarm_table, rows_are_of_class_other_and_marked_as_indicators)
{
    build_rows(6);
    for (uint32_t i = 1; i <= 6; i++) {
        kavplat::entry_at(i)->entPhysicalClass = PHYSICAL_CLASS_OTHER;
        kavplat::entry_at(i)->platPhysicalClass = static_cast<int32_t>(i) - 1;
    }
    EXPECT_EQ(indexes_of(table_named("kavPlatAlarmTable")), indexes{3});
    kavplat::entry_at(3)->entPhysicalClass = PHYSICAL_CLASS_UNKNOWN;
    EXPECT_EQ(indexes_of(table_named("kavPlatAlarmTable")), indexes());
}

TEST_F(alarm_table, an_indicator_type_of_the_platform_is_a_row)
{
    platform->components = {component("/SYS", CAPI_TYPE_SYSTEM), component("/SYS/LED", 31)};
    platform->indicator_types = {31};
    platform->indicators["/SYS/LED"] = indicator(CAPI_INDICATOR_ON);
    init_local_cache();
    EXPECT_EQ(indexes_of(table_named("kavPlatAlarmTable")), indexes{2});
    EXPECT_EQ(column(1), integer_value(3));
    EXPECT_EQ(column(2), integer_value(3));
    EXPECT_EQ(column(3), integer_value(4));
}

TEST_F(alarm_table, each_state_of_an_indicator)
{
    for (const auto &[state, alarm] : {std::pair{1, 2}, {2, 3}, {3, 4}, {4, 4}, {5, 4}}) {
        platform->indicators[name] = indicator(state);
        entry().lastReadTime = 0;
        entry().alarmCol2 = 77;
        EXPECT_EQ(column(2), integer_value(alarm)) << state;
        EXPECT_EQ(column(1), integer_value(3)) << state;
        EXPECT_EQ(column(3), integer_value(4)) << state;
    }
}

TEST_F(alarm_table, a_state_that_is_not_known_changes_all_three_columns)
{
    for (const int32_t state : {0, 6, 7, -1, INT_MIN, INT_MAX}) {
        platform->indicators[name] = indicator(state);
        entry().lastReadTime = 0;
        entry().alarmCol1 = 3;
        entry().alarmCol2 = 77;
        entry().alarmCol3 = 4;
        EXPECT_EQ(column(2), integer_value(1)) << state;
        EXPECT_EQ(column(1), integer_value(1)) << state;
        EXPECT_EQ(column(3), integer_value(3)) << state;
    }
    // For good, though the next state is a known one.
    platform->indicators[name] = indicator(CAPI_INDICATOR_OFF);
    entry().lastReadTime = 0;
    EXPECT_EQ(column(2), integer_value(2));
    EXPECT_EQ(column(1), integer_value(1));
    EXPECT_EQ(column(3), integer_value(3));
}

TEST_F(alarm_table, only_column_2_reads_the_indicator)
{
    platform->indicators[name] = indicator(0);
    EXPECT_EQ(column(1), integer_value(3));
    EXPECT_EQ(column(3), integer_value(4));
    EXPECT_EQ(platform.calls("capi_get_indicator"), 0U);

    handler_call call;
    for (const unsigned number : {1U, 2U, 3U}) {
        call.add(number, &entry());
    }
    EXPECT_EQ(call.run(kavPlatAlarmTable_handler), SNMP_ERR_NOERROR);
    EXPECT_EQ(call.answer(0), integer_value(3)) << "served before the read";
    EXPECT_EQ(call.answer(1), integer_value(1));
    EXPECT_EQ(call.answer(2), integer_value(3)) << "served after it";
}

TEST_F(alarm_table, an_indicator_that_cannot_be_read_is_served_as_it_was)
{
    platform->indicators.clear();
    entry().alarmCol2 = 4;
    const agent_log log;
    EXPECT_EQ(column(2), integer_value(4));
    EXPECT_EQ(log.texts(LOG_ERR),
              strings(1, text_of("snmp_read_led:FAILED:capi_get_indicator(%s)\n", name)));
    EXPECT_EQ(column(2), integer_value(4));
    EXPECT_EQ(platform.calls("capi_get_indicator", name), 2U) << "tried again at once";
}

TEST_F(alarm_table, an_indicator_is_good_for_ten_seconds)
{
    for (const auto &[stamp, now, is_read] : freshness) {
        platform.forget_calls();
        fake_system::set_uptime(now);
        entry().lastReadTime = stamp;
        entry().alarmCol2 = 77;
        EXPECT_EQ(column(2), integer_value(is_read ? 3 : 77)) << stamp << " at " << now;
        EXPECT_EQ(platform.calls("capi_get_indicator"), is_read ? 1U : 0U);
        EXPECT_EQ(entry().lastReadTime, is_read ? now : stamp);
    }
}

} // namespace

// Live sensor readings and thresholds.

#include <array>
#include <climits>
#include <cmath>
#include <limits>

#include "rooms/cache_fixture.h"

namespace
{

using strings = std::vector<std::string>;

constexpr uint32_t sensor_type = 30;
constexpr const char *name = "/SYS/T0";

class sensors : public cache_test
{
  protected:
    void build_sensor(const capi_sensor_record &record, uint32_t type = sensor_type)
    {
        platform->components = {component("/SYS", plain), component(name, type)};
        platform->sensor_types = {type};
        platform->sensors[name] = record;
        init_local_cache();
        ASSERT_NE(entry(), nullptr);
    }

    static phys_entry *entry() { return get_entry(2); }

    size_t reads() { return platform.calls("capi_get_sensor", name); }

    // Reads now, whatever was read before.
    int read_anew(const capi_sensor_record &record)
    {
        platform->sensors[name] = record;
        entry()->lastReadTime = 0;
        return snmp_read_sensor(entry());
    }

    static capi_sensor_record with_thresholds(float reading, uint8_t raw = 0)
    {
        capi_sensor_record record = threshold_sensor(CAPI_SENSOR_TEMPERATURE, reading);
        record.raw_reading = raw;
        record.upper_fatal = 101.5F;
        record.upper_critical = 92.25F;
        record.upper_non_critical = 83.75F;
        record.lower_fatal = -14.5F;
        record.lower_critical = -5.25F;
        record.lower_non_critical = 6.875F;
        record.flags = 0x3F;
        return record;
    }

    // Columns 8 to 13: lower nc, upper nc, lower critical, upper critical, lower
    // fatal, upper fatal.
    static std::array<int32_t, 6> thresholds()
    {
        const phys_entry *e = entry();
        return {e->numericSensorCol8,  e->numericSensorCol11, e->numericSensorCol9,
                e->numericSensorCol12, e->numericSensorCol10, e->numericSensorCol13};
    }

    static std::string texts()
    {
        return std::string(entry()->binarySensorText1) + "/" + entry()->binarySensorText2;
    }
};

constexpr std::array<int32_t, 6> whole = {6, 83, -5, 92, -14, 101};
constexpr std::array<int32_t, 6> thousandths = {6875, 83750, -5250, 92250, -14500, 101500};

// ---- Freshness ----

TEST_F(sensors, a_read_is_good_for_999_hundredths)
{
    build_sensor(threshold_sensor(1, 25.5F));
    EXPECT_EQ(snmp_read_sensor(entry()), 0);
    EXPECT_EQ(reads(), 1U);
    EXPECT_EQ(entry()->lastReadTime, uptime);
    fake_system::set_uptime(uptime + 999);
    platform->sensors[name].reading = 99.5F;
    EXPECT_EQ(snmp_read_sensor(entry()), 0);
    EXPECT_EQ(reads(), 1U);
    EXPECT_EQ(entry()->numericSensorCol4, 25500);
    EXPECT_EQ(entry()->lastReadTime, uptime);
    fake_system::set_uptime(uptime + 1000);
    EXPECT_EQ(snmp_read_sensor(entry()), 0);
    EXPECT_EQ(reads(), 2U);
    EXPECT_EQ(entry()->numericSensorCol4, 99500);
    EXPECT_EQ(entry()->lastReadTime, uptime + 1000);
}

TEST_F(sensors, freshness_holds_across_the_wrap_of_the_uptime)
{
    build_sensor(threshold_sensor(1, 25.5F));
    fake_system::set_uptime(0xFFFFFF00UL);
    snmp_read_sensor(entry());
    EXPECT_EQ(reads(), 1U);
    fake_system::set_uptime((0xFFFFFF00UL + 999) & 0xFFFFFFFFUL);
    snmp_read_sensor(entry());
    EXPECT_EQ(reads(), 1U);
    fake_system::set_uptime((0xFFFFFF00UL + 1000) & 0xFFFFFFFFUL);
    snmp_read_sensor(entry());
    EXPECT_EQ(reads(), 2U);
    // A stamp of the future, as seen from now, is fresh: the difference is signed.
    entry()->lastReadTime = 5000;
    fake_system::set_uptime(4000);
    snmp_read_sensor(entry());
    EXPECT_EQ(reads(), 2U);
}

TEST_F(sensors, an_entry_that_was_never_read_is_read)
{
    build_sensor(threshold_sensor(1, 25.5F));
    fake_system::set_uptime(500); // not 1000 past the stamp of 0
    EXPECT_EQ(entry()->lastReadTime, 0U);
    EXPECT_EQ(snmp_read_sensor(entry()), 0);
    EXPECT_EQ(reads(), 1U);
    // The stamp of a read at 0 is none.
    fake_system::set_uptime(0);
    entry()->lastReadTime = 0;
    EXPECT_EQ(snmp_read_sensor(entry()), 0);
    EXPECT_EQ(snmp_read_sensor(entry()), 0);
    EXPECT_EQ(reads(), 3U);
}

TEST_F(sensors, the_stamp_is_of_the_time_before_the_platform_was_asked)
{
    build_sensor(threshold_sensor(1, 25.5F));
    platform->on_call = [](const fake_call &call) {
        fake_system::set_uptime(uptime + (call.function == "capi_get_sensor" ? 700 : 0));
    };
    EXPECT_EQ(snmp_read_sensor(entry()), 0);
    EXPECT_EQ(entry()->lastReadTime, uptime);
}

// ---- Failures ----

TEST_F(sensors, without_entry_or_name)
{
    const agent_log log;
    phys_entry nameless = {};
    EXPECT_EQ(snmp_read_sensor(nullptr), -1);
    EXPECT_EQ(snmp_read_sensor(&nameless), -1);
    EXPECT_EQ(log.texts(LOG_ERR), (strings{"snmp_read_sensor:FAILED:entry NULL\n",
                                           "snmp_read_sensor:FAILED:entPhysicalName NULL\n"}));
    EXPECT_EQ(platform.calls("capi_get_sensor"), 0U);
}

TEST_F(sensors, a_failed_read_is_logged_and_changes_nothing)
{
    build_sensor(with_thresholds(25.5F));
    ASSERT_EQ(snmp_read_sensor(entry()), 0);
    fake_system::set_uptime(uptime + 2000);
    platform->fail["capi_get_sensor"] = -17;
    const agent_log log;
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(snmp_read_sensor(entry()), -1);
        EXPECT_EQ(entry()->lastReadTime, uptime);
        EXPECT_EQ(entry()->numericSensorCol4, 25500);
        EXPECT_EQ(thresholds(), thousandths);
        EXPECT_EQ(entry()->equipmentCol2, 2);
        EXPECT_EQ(entry()->equipmentCol3, 7);
        EXPECT_EQ(entry()->equipmentCol4, 2);
    }
    EXPECT_EQ(reads(), 3U); // each request tries again
    EXPECT_EQ(log.texts(LOG_ERR),
              strings(2, "snmp_read_sensor:FAILED:capi_get_sensor /SYS/T0, status=-17\n"));
}

TEST_F(sensors, an_invalid_reading_is_told_and_read_again)
{
    build_sensor(with_thresholds(25.5F));
    ASSERT_EQ(snmp_read_sensor(entry()), 0);
    fake_system::set_uptime(uptime + 2000);
    platform->sensors[name].reading_status = CAPI_READING_INVALID;
    platform->sensors[name].reading = 1.0F;
    const agent_log log({"kavdata::sensor", "trace"});
    EXPECT_EQ(snmp_read_sensor(entry()), -1);
    EXPECT_EQ(entry()->equipmentCol2, 1);
    EXPECT_EQ(entry()->equipmentCol3, 4);
    EXPECT_EQ(entry()->equipmentCol4, 1);
    EXPECT_EQ(entry()->lastReadTime, uptime);
    EXPECT_EQ(entry()->numericSensorCol4, 25500);
    EXPECT_EQ(thresholds(), thousandths);
    EXPECT_EQ(snmp_read_sensor(entry()), -1);
    EXPECT_EQ(reads(), 3U);
    EXPECT_TRUE(log.traced("kavdata::sensor", "snmp_read_sensor:SENSOR_READING_INVALID\n",
                           "snmp_read_sensor", "kavdata"));
    EXPECT_EQ(log.texts(LOG_ERR), strings());
    // A good one puts it right.
    platform->sensors[name].reading_status = 0;
    EXPECT_EQ(snmp_read_sensor(entry()), 0);
    EXPECT_EQ(entry()->equipmentCol2, 2);
    EXPECT_EQ(entry()->equipmentCol3, 7);
    EXPECT_EQ(entry()->equipmentCol4, 2);
}

TEST_F(sensors, only_a_status_of_1_is_invalid)
{
    build_sensor(threshold_sensor(1, 25.5F));
    for (const unsigned status : {0U, 2U, 255U, 256U, 65535U}) {
        capi_sensor_record record = threshold_sensor(1, 25.5F);
        record.reading_status = static_cast<uint16_t>(status);
        EXPECT_EQ(read_anew(record), 0) << status;
    }
}

// ---- Numeric ----

TEST_F(sensors, a_reading_that_equals_its_raw_byte_is_whole)
{
    build_sensor(with_thresholds(25.0F, 25));
    const agent_log log({"kavdata::sensor", "trace"});
    EXPECT_EQ(snmp_read_sensor(entry()), 0);
    EXPECT_EQ(entry()->numericSensorCol4, 25);
    EXPECT_EQ(entry()->numericSensorCol2, 0);
    EXPECT_EQ(thresholds(), whole);
    EXPECT_EQ(log.debug_texts("kavdata::sensor"), strings{"snmp_read_sensor:numeric current=25\n"});
    EXPECT_TRUE(log.traced("kavdata::sensor", "snmp_read_sensor:numeric current=25\n",
                           "snmp_read_sensor", "kavdata"));
    for (const uint8_t raw :
         std::array<uint8_t, 5>{0, 127, 128, 200, 255}) { // the byte has no sign
        EXPECT_EQ(read_anew(with_thresholds(raw, raw)), 0);
        EXPECT_EQ(entry()->numericSensorCol4, raw);
        EXPECT_EQ(entry()->numericSensorCol2, 0);
    }
}

// As it was built: of no kind, with the limits that a row begins with.
TEST_F(sensors, a_sensor_of_which_nothing_was_known_is_read_as_its_record_says)
{
    platform->fail["capi_get_sensor_info"] = -1;
    build_sensor(with_thresholds(25.5F));
    ASSERT_EQ(entry()->sensorKind, SENSOR_KIND_NONE);
    ASSERT_EQ(thresholds(), (std::array<int32_t, 6>{}));
    EXPECT_EQ(snmp_read_sensor(entry()), 0);
    EXPECT_EQ(entry()->sensorKind, SENSOR_KIND_NONE);
    EXPECT_EQ(entry()->numericSensorCol4, 25500);
    EXPECT_EQ(entry()->numericSensorCol2, -3);
    EXPECT_EQ(thresholds(), thousandths);
    EXPECT_EQ(entry()->equipmentCol2, 2);
}

TEST_F(sensors, any_other_reading_is_in_thousandths)
{
    build_sensor(with_thresholds(25.5F, 25));
    const agent_log log({"kavdata::sensor", "trace"});
    EXPECT_EQ(snmp_read_sensor(entry()), 0);
    EXPECT_EQ(entry()->numericSensorCol4, 25500);
    EXPECT_EQ(entry()->numericSensorCol2, -3);
    EXPECT_EQ(thresholds(), thousandths);
    EXPECT_EQ(entry()->thresholdMask, 0xFC);
    EXPECT_EQ(log.debug_texts("kavdata::sensor"), (strings{"snmp_read_sensor:numeric current=25\n",
                                                           "snmp_read_sensor:threshold adjust\n"}));
    EXPECT_TRUE(log.traced("kavdata::sensor", "snmp_read_sensor:threshold adjust\n",
                           "snmp_read_sensor", "kavdata"));
    // 300.0 does not fit the raw byte, so it is no whole number either.
    EXPECT_EQ(read_anew(with_thresholds(300.0F, 44)), 0);
    EXPECT_EQ(entry()->numericSensorCol4, 300000);
}

TEST_F(sensors, a_tachometer_is_never_scaled)
{
    build_sensor(with_thresholds(25.5F, 25));
    entry()->sensorCol2 = 6;
    const agent_log log({"kavdata::sensor"});
    EXPECT_EQ(snmp_read_sensor(entry()), 0);
    EXPECT_EQ(entry()->numericSensorCol4, 25);
    EXPECT_EQ(entry()->numericSensorCol2, 0);
    EXPECT_EQ(thresholds(), whole);
    EXPECT_FALSE(log.has_debug("kavdata::sensor", "snmp_read_sensor:threshold adjust\n"));
}

TEST_F(sensors, scaling_is_never_undone_by_a_read)
{
    build_sensor(with_thresholds(25.5F, 25));
    snmp_read_sensor(entry());
    EXPECT_EQ(read_anew(with_thresholds(25.0F, 25)), 0);
    EXPECT_EQ(entry()->numericSensorCol4, 25);
    EXPECT_EQ(entry()->numericSensorCol2, -3);
    EXPECT_EQ(thresholds(), thousandths);
    const capi_sensor_record record = with_thresholds(25.0F);
    set_sensor_thresholds(entry(), &record);
    EXPECT_EQ(entry()->numericSensorCol2, 0);
    EXPECT_EQ(thresholds(), whole);
}

TEST_F(sensors, readings_are_truncated_toward_zero)
{
    build_sensor(threshold_sensor(1, 0.0F));
    entry()->sensorCol2 = 6;
    read_anew(threshold_sensor(1, 25.999F));
    EXPECT_EQ(entry()->numericSensorCol4, 25);
    read_anew(threshold_sensor(1, -25.999F));
    EXPECT_EQ(entry()->numericSensorCol4, -25);
}

TEST_F(sensors, thousandths_are_of_double_precision)
{
    build_sensor(threshold_sensor(1, 0.0F));
    read_anew(threshold_sensor(1, 3.3F));
    EXPECT_EQ(entry()->numericSensorCol4, 3299);
    read_anew(threshold_sensor(1, 19.99F));
    EXPECT_EQ(entry()->numericSensorCol4, 19989);
    capi_sensor_record record = threshold_sensor(1, 0.5F);
    record.upper_fatal = 3.3F;
    record.lower_fatal = 19.99F;
    read_anew(record);
    EXPECT_EQ(entry()->numericSensorCol13, 3299);
    EXPECT_EQ(entry()->numericSensorCol10, 19989);
}

TEST_F(sensors, what_does_not_fit_saturates)
{
    constexpr int32_t highest = std::numeric_limits<int32_t>::max();
    constexpr int32_t lowest = std::numeric_limits<int32_t>::min();
    constexpr float infinity = std::numeric_limits<float>::infinity();
    build_sensor(threshold_sensor(1, 0.0F));
    struct expected {
        float reading;
        int32_t whole;
        int32_t scaled;
    };
    for (const expected &e : {expected{2147483520.0F, 2147483520, highest},
                              {2147483648.0F, highest, highest},
                              {-2147483648.0F, lowest, lowest},
                              {-2147483904.0F, lowest, lowest},
                              {1e30F, highest, highest},
                              {-1e30F, lowest, lowest},
                              {2147483.5F, 2147483, 2147483500},
                              {2147484.0F, 2147484, highest},
                              {-2147484.0F, -2147484, lowest},
                              {infinity, highest, highest},
                              {-infinity, lowest, lowest},
                              {std::nanf(""), lowest, lowest}}) {
        SCOPED_TRACE(e.reading);
        entry()->sensorCol2 = 6;
        EXPECT_EQ(read_anew(threshold_sensor(1, e.reading)), 0);
        EXPECT_EQ(entry()->numericSensorCol4, e.whole);
        entry()->sensorCol2 = 3;
        EXPECT_EQ(read_anew(threshold_sensor(1, e.reading)), 0);
        EXPECT_EQ(entry()->numericSensorCol4, e.scaled);
        capi_sensor_record record = threshold_sensor(1, 0.0F);
        record.upper_critical = e.reading;
        set_sensor_thresholds(entry(), &record);
        EXPECT_EQ(entry()->numericSensorCol12, e.whole);
    }
}

TEST_F(sensors, a_slot_identity_is_a_whole_number)
{
    build_sensor(with_thresholds(7.9F), CAPI_TYPE_SLOT_IDENTITY);
    const agent_log log({"kavdata::sensor", "trace"});
    EXPECT_EQ(snmp_read_sensor(entry()), 0);
    EXPECT_EQ(entry()->numericSensorCol4, 7);
    EXPECT_EQ(entry()->numericSensorCol2, 0);
    EXPECT_EQ(entry()->lastReadTime, uptime);
    EXPECT_EQ(thresholds(), (std::array<int32_t, 6>{}));
    EXPECT_EQ(log.debug_texts("kavdata::sensor"), strings{"snmp_read_sensor:SLOTID current=7\n"});
    // Whatever class its record is of.
    EXPECT_EQ(read_anew(discrete_sensor(CAPI_SENSOR_PRESENCE, 2.0F)), 0);
    EXPECT_EQ(entry()->numericSensorCol4, 2);
    EXPECT_EQ(entry()->binarySensorValue1, 2);
    EXPECT_EQ(texts(), "/");
}

TEST_F(sensors, a_record_of_another_class_counts_as_read)
{
    capi_sensor_record record = with_thresholds(2.0F, 1);
    record.sensor_class = 3;
    build_sensor(record);
    entry()->equipmentCol2 = entry()->equipmentCol3 = entry()->equipmentCol4 = 1;
    EXPECT_EQ(snmp_read_sensor(entry()), 0);
    EXPECT_EQ(entry()->lastReadTime, uptime);
    EXPECT_EQ(entry()->equipmentCol2, 2);
    EXPECT_EQ(entry()->equipmentCol3, 7);
    EXPECT_EQ(entry()->equipmentCol4, 2);
    EXPECT_EQ(entry()->numericSensorCol4, 0);
    EXPECT_EQ(entry()->binarySensorValue1, 2);
    EXPECT_EQ(texts(), "/");
}

// ---- Discrete ----

TEST_F(sensors, a_discrete_reading_of_exactly_2_is_true)
{
    build_sensor(discrete_sensor(0, 0.0F));
    for (const auto &[reading, current] :
         {std::pair{2.0F, 1}, {1.0F, 2}, {0.0F, 2}, {2.000001F, 2}, {-2.0F, 2}, {3.0F, 2}}) {
        EXPECT_EQ(read_anew(discrete_sensor(0, reading)), 0);
        EXPECT_EQ(entry()->binarySensorValue1, current) << reading;
        EXPECT_EQ(entry()->numericSensorCol4, 0);
    }
}

TEST_F(sensors, a_state_of_1_is_the_failed_state)
{
    build_sensor(discrete_sensor(0, 2.0F));
    capi_sensor_record record = discrete_sensor(CAPI_SENSOR_PRESENCE, 2.0F);
    record.flags = CAPI_STATE_SEMANTICS;
    record.state = 1.0F;
    platform->ok_semantics = {name};
    set_text(record.name, name);
    EXPECT_EQ(read_anew(record), 0);
    EXPECT_EQ(texts(), "fail/ok");
    EXPECT_EQ(entry()->binarySensorValue2, 2);
    for (const float state : {0.0F, 2.0F, 1.5F}) {
        record.state = state;
        EXPECT_EQ(read_anew(record), 0);
        EXPECT_EQ(texts(), "ok/fail");
        EXPECT_EQ(entry()->binarySensorValue2, 1);
    }
    // The flag goes before the type: it stays no presence sensor.
    EXPECT_EQ(entry()->sensorCol2, 1);
    // That flag alone, whatever others there are.
    record.state = 1.0F;
    record.flags = 0xFFFF;
    EXPECT_EQ(read_anew(record), 0);
    EXPECT_EQ(texts(), "fail/ok");
    record.flags = 0xFFFF & ~CAPI_STATE_SEMANTICS;
    EXPECT_EQ(read_anew(record), 0);
    EXPECT_EQ(texts(), "Present/Absent");
}

TEST_F(sensors, a_presence_sensor_says_present_or_absent)
{
    build_sensor(discrete_sensor(0, 2.0F));
    capi_sensor_record record = discrete_sensor(CAPI_SENSOR_PRESENCE, 2.0F);
    set_text(record.name, name);
    platform->ok_semantics = {name}; // presence goes before it
    entry()->binarySensorValue2 = 2;
    EXPECT_EQ(read_anew(record), 0);
    EXPECT_EQ(entry()->sensorCol2, 12);
    EXPECT_EQ(texts(), "Present/Absent");
    EXPECT_EQ(entry()->binarySensorValue2, 1);
}

TEST_F(sensors, ok_semantics_leave_the_expected_value)
{
    build_sensor(discrete_sensor(0, 2.0F));
    capi_sensor_record record = discrete_sensor(0, 2.0F);
    set_text(record.name, "/SYS/IOX/SWITCH"); // ok semantics go before the switch
    platform->ok_semantics = {"/SYS/IOX/SWITCH"};
    for (const int expected : {1, 2}) {
        entry()->binarySensorValue2 = expected;
        EXPECT_EQ(read_anew(record), 0);
        EXPECT_EQ(texts(), "ok/fail");
        EXPECT_EQ(entry()->binarySensorValue2, expected);
    }
    // Anything but 0 is yes.
    for (const int yes : {2, -1, 256, INT_MIN}) {
        platform->fail["capi_is_sensor_with_OK_semantics"] = yes;
        entry()->binarySensorText1[0] = '\0';
        EXPECT_EQ(read_anew(record), 0);
        EXPECT_EQ(texts(), "ok/fail") << yes;
    }
}

TEST_F(sensors, an_io_switch_is_on_or_standby)
{
    build_sensor(discrete_sensor(0, 2.0F));
    for (const auto &[record_name, expected_texts, expected_value] :
         {std::tuple{"/SYS/IOX/SWITCH0", "on/standby", 1},
          std::tuple{"SWITCH of /SYS/IOX1", "on/standby", 1},
          std::tuple{"/SYS/IOX/LINK", "fail/ok", 2}, std::tuple{"/SYS/SWITCH", "fail/ok", 2},
          std::tuple{"", "fail/ok", 2}}) {
        capi_sensor_record record = discrete_sensor(0, 2.0F);
        set_text(record.name, record_name);
        EXPECT_EQ(read_anew(record), 0);
        EXPECT_EQ(texts(), expected_texts) << record_name;
        EXPECT_EQ(entry()->binarySensorValue2, expected_value) << record_name;
    }
}

TEST_F(sensors, a_record_name_without_an_end_stays_within_its_field)
{
    build_sensor(discrete_sensor(0, 2.0F));
    capi_sensor_record record = discrete_sensor(0, 2.0F);
    std::fill(std::begin(record.name), std::end(record.name), 'n');
    EXPECT_EQ(read_anew(record), 0);
    EXPECT_EQ(platform.calls("capi_is_sensor_with_OK_semantics", std::string(63, 'n')), 1U);
}

// ---- Thresholds ----

TEST_F(sensors, thresholds_are_truncated_and_the_exponent_cleared)
{
    build_sensor(threshold_sensor(1, 0.0F));
    const capi_sensor_record record = with_thresholds(1.0F);
    entry()->numericSensorCol2 = -3;
    entry()->thresholdMask = 0;
    const agent_log log({"kavdata::sensor", "trace"});
    set_sensor_thresholds(entry(), &record);
    EXPECT_EQ(entry()->numericSensorCol2, 0);
    EXPECT_EQ(entry()->numericSensorCol13, 101);
    EXPECT_EQ(entry()->numericSensorCol12, 92);
    EXPECT_EQ(entry()->numericSensorCol11, 83);
    EXPECT_EQ(entry()->numericSensorCol10, -14);
    EXPECT_EQ(entry()->numericSensorCol9, -5);
    EXPECT_EQ(entry()->numericSensorCol8, 6);
    const char *text = "utf=101, utc=92, utnc=83, ltf=-14, ltc=-5, ltnc=6\n";
    EXPECT_EQ(log.debug_texts("kavdata::sensor"), strings{text});
    EXPECT_TRUE(log.traced("kavdata::sensor", text, "set_sensor_thresholds", "kavdata"));
}

TEST_F(sensors, flags_say_which_thresholds_the_mask_has)
{
    build_sensor(threshold_sensor(1, 0.0F));
    constexpr std::pair<unsigned, unsigned> bits[] = {{0x01, 0x80}, {0x08, 0x40}, {0x02, 0x20},
                                                      {0x10, 0x10}, {0x04, 0x08}, {0x20, 0x04}};
    for (unsigned flags = 0; flags < 0x100; flags++) {
        unsigned mask = 0;
        for (const auto &[flag, bit] : bits) {
            mask |= flags & flag ? bit : 0;
        }
        capi_sensor_record record = {};
        record.flags = static_cast<uint16_t>(flags);
        set_sensor_thresholds(entry(), &record);
        EXPECT_EQ(entry()->thresholdMask, mask) << flags;
    }
    capi_sensor_record record = {};
    record.flags = 0xFFC0; // none of the six
    set_sensor_thresholds(entry(), &record);
    EXPECT_EQ(entry()->thresholdMask, 0x00);
    record.flags = 0x3F;
    set_sensor_thresholds(entry(), &record);
    EXPECT_EQ(entry()->thresholdMask, 0xFC);
    record.flags = 0x01;
    set_sensor_thresholds(entry(), &record);
    EXPECT_EQ(entry()->thresholdMask, 0x80);
}

TEST_F(sensors, a_refresh_reloads_the_thresholds_of_one_sensor)
{
    build_sensor(with_thresholds(25.5F));
    ASSERT_EQ(snmp_read_sensor(entry()), 0);
    capi_sensor_record record = with_thresholds(0.0F);
    record.upper_fatal = 120.0F;
    record.flags = 0x20;
    record.sensor_type = CAPI_SENSOR_CURRENT;
    platform->sensor_infos[name] = record;
    fake_system::set_uptime(uptime + 5);
    phys_entry expected = *entry();
    const agent_log log({"kavdata::sensor", "trace"});
    reload_thresholds(name);
    EXPECT_EQ(entLastChangeTime, uptime + 5);
    set_sensor_thresholds(&expected, &record);
    EXPECT_EQ(expected.numericSensorCol4, 25500);
    EXPECT_EQ(expected.numericSensorCol13, 120);
    EXPECT_EQ(expected.thresholdMask, 0x04);
    EXPECT_EQ(image(*entry()), image(expected)); // nothing else: it is no read
    const char *text = "name=/SYS/T0,status=0,sensor_class/type:1/3\n";
    EXPECT_TRUE(log.traced("kavdata::sensor", text, "reload_thresholds", "kavdata"));
}

TEST_F(sensors, a_refresh_that_fails_is_still_a_change)
{
    build_sensor(with_thresholds(25.5F));
    platform->fail["capi_get_sensor_info"] = -6;
    platform->spoil_on_failure = false;
    const agent_log log({"kavdata::sensor"});
    reload_thresholds(name);
    EXPECT_EQ(thresholds(), whole);
    EXPECT_EQ(entry()->thresholdMask, 0xFC);
    EXPECT_EQ(entLastChangeTime, uptime);
    EXPECT_EQ(log.debug_texts("kavdata::sensor"),
              strings{"name=/SYS/T0,status=-6,sensor_class/type:0/0\n"});
}

TEST_F(sensors, a_refresh_of_an_unknown_sensor_changes_nothing)
{
    build_sensor(with_thresholds(25.5F));
    platform.forget_calls();
    const agent_log log;
    reload_thresholds("/SYS/T1");
    EXPECT_EQ(log.texts(LOG_ERR), strings{"hash_nac:FAILED:can not find entry /SYS/T1\n"});
    reload_thresholds("");
    reload_thresholds("/");
    reload_thresholds(nullptr);
    EXPECT_EQ(entLastChangeTime, 0U);
    EXPECT_EQ(platform.calls("capi_get_sensor_info"), 0U);
}

TEST_F(sensors, a_refresh_of_something_that_is_no_sensor_gives_it_thresholds)
{
    build_sensor(with_thresholds(25.5F));
    phys_entry *root = get_entry(1);
    phys_entry expected = *root;
    const capi_sensor_record record = with_thresholds(1.0F);
    platform->sensor_infos["/SYS"] = record;
    reload_thresholds("/SYS");
    set_sensor_thresholds(&expected, &record);
    EXPECT_EQ(expected.numericSensorCol13, 101);
    EXPECT_EQ(image(*root), image(expected));
    EXPECT_EQ(entLastChangeTime, uptime);
}

TEST_F(sensors, a_refresh_before_the_build_does_nothing)
{
    const agent_log log({"kavdata"});
    reload_thresholds(name);
    EXPECT_EQ(entLastChangeTime, 0U);
    EXPECT_EQ(log.records().size(), 0U); // not even looked up
}

TEST_F(sensors, a_refresh_takes_no_cache_lock)
{
    build_sensor(with_thresholds(25.5F));
    // It would not come back.
    const cache_lock_held lock;
    reload_thresholds(name);
    EXPECT_EQ(entLastChangeTime, uptime);
}

TEST_F(sensors, a_read_without_the_texts_memory_is_safe)
{
    build_sensor(discrete_sensor(0, 2.0F));
    free(entry()->binarySensorText1);
    entry()->binarySensorText1 = nullptr;
    EXPECT_EQ(read_anew(discrete_sensor(0, 2.0F)), 0);
    EXPECT_STREQ(entry()->binarySensorText2, "ok");
}

} // namespace

// Live indicator states.

#include <climits>

#include "rooms/cache_fixture.h"

namespace
{

using strings = std::vector<std::string>;

constexpr uint32_t indicator_type = 31;
constexpr const char *name = "/SYS/LED";

class indicators : public cache_test
{
  protected:
    void build_indicator(int32_t state)
    {
        platform->components = {component("/SYS", plain), component(name, indicator_type)};
        platform->indicator_types = {indicator_type};
        platform->indicators[name] = indicator(state);
        init_local_cache();
        ASSERT_NE(entry(), nullptr);
    }

    static phys_entry *entry() { return get_entry(2); }
    size_t reads() { return platform.calls("capi_get_indicator", name); }
};

TEST_F(indicators, each_state_has_its_alarm)
{
    build_indicator(1);
    for (const auto &[state, alarm] : {std::pair{1, 2}, {2, 3}, {3, 4}, {4, 4}, {5, 4}}) {
        platform->indicators[name] = indicator(state);
        entry()->lastReadTime = 0;
        entry()->alarmCol2 = 77;
        EXPECT_EQ(snmp_read_led(entry()), 0);
        EXPECT_EQ(entry()->alarmCol2, alarm) << state;
        EXPECT_EQ(entry()->alarmCol1, 3) << state;
        EXPECT_EQ(entry()->alarmCol3, 4) << state;
    }
}

TEST_F(indicators, a_state_that_is_not_recognised)
{
    build_indicator(1);
    for (const int32_t state : {0, 6, 7, -1, INT_MIN, INT_MAX}) {
        platform->indicators[name] = indicator(state);
        entry()->lastReadTime = 0;
        entry()->alarmCol1 = 3;
        entry()->alarmCol2 = 2;
        entry()->alarmCol3 = 4;
        EXPECT_EQ(snmp_read_led(entry()), 0);
        EXPECT_EQ(entry()->alarmCol1, 1) << state;
        EXPECT_EQ(entry()->alarmCol2, 1) << state;
        EXPECT_EQ(entry()->alarmCol3, 3) << state;
    }
    // A recognised state does not put columns 1 and 3 back.
    platform->indicators[name] = indicator(2);
    entry()->lastReadTime = 0;
    EXPECT_EQ(snmp_read_led(entry()), 0);
    EXPECT_EQ(entry()->alarmCol1, 1);
    EXPECT_EQ(entry()->alarmCol2, 3);
    EXPECT_EQ(entry()->alarmCol3, 3);
}

TEST_F(indicators, a_read_is_good_for_999_hundredths)
{
    build_indicator(1);
    fake_system::set_uptime(700); // not 1000 past the stamp of 0, which is never
    EXPECT_EQ(snmp_read_led(entry()), 0);
    EXPECT_EQ(reads(), 1U);
    EXPECT_EQ(entry()->lastReadTime, 700U);
    platform->indicators[name] = indicator(2);
    fake_system::set_uptime(700 + 999);
    EXPECT_EQ(snmp_read_led(entry()), 0);
    EXPECT_EQ(reads(), 1U);
    EXPECT_EQ(entry()->alarmCol2, 2);
    fake_system::set_uptime(700 + 1000);
    EXPECT_EQ(snmp_read_led(entry()), 0);
    EXPECT_EQ(reads(), 2U);
    EXPECT_EQ(entry()->alarmCol2, 3);
    EXPECT_EQ(entry()->lastReadTime, 1700U);
}

TEST_F(indicators, the_stamp_is_of_the_time_before_the_platform_was_asked)
{
    build_indicator(1);
    platform->on_call = [](const fake_call &) { fake_system::set_uptime(uptime + 700); };
    EXPECT_EQ(snmp_read_led(entry()), 0);
    EXPECT_EQ(entry()->lastReadTime, uptime);
    // The stamp of a read at 0 is none.
    platform->on_call = nullptr;
    fake_system::set_uptime(0);
    entry()->lastReadTime = 0;
    EXPECT_EQ(snmp_read_led(entry()), 0);
    EXPECT_EQ(snmp_read_led(entry()), 0);
    EXPECT_EQ(reads(), 3U);
}

TEST_F(indicators, freshness_holds_across_the_wrap_of_the_uptime)
{
    build_indicator(1);
    fake_system::set_uptime(0xFFFFFFFFUL);
    snmp_read_led(entry());
    fake_system::set_uptime(998);
    snmp_read_led(entry());
    EXPECT_EQ(reads(), 1U);
    fake_system::set_uptime(999);
    snmp_read_led(entry());
    EXPECT_EQ(reads(), 2U);
}

TEST_F(indicators, a_failed_read_is_logged_and_tried_again)
{
    build_indicator(2);
    ASSERT_EQ(snmp_read_led(entry()), 0);
    fake_system::set_uptime(uptime + 3000);
    platform->fail["capi_get_indicator"] = -2;
    const agent_log log;
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(snmp_read_led(entry()), -1);
        EXPECT_EQ(entry()->lastReadTime, uptime);
        EXPECT_EQ(entry()->alarmCol1, 3);
        EXPECT_EQ(entry()->alarmCol2, 3);
        EXPECT_EQ(entry()->alarmCol3, 4);
    }
    EXPECT_EQ(reads(), 3U);
    EXPECT_EQ(log.texts(LOG_ERR),
              strings(2, "snmp_read_led:FAILED:capi_get_indicator(/SYS/LED)\n"));
}

TEST_F(indicators, without_entry_or_name)
{
    const agent_log log;
    phys_entry nameless = {};
    EXPECT_EQ(snmp_read_led(nullptr), -1);
    EXPECT_EQ(snmp_read_led(&nameless), -1);
    EXPECT_EQ(log.texts(LOG_ERR), (strings{"snmp_read_led:FAILED:entry NULL\n",
                                           "snmp_read_led:FAILED:entPhysicalName NULL\n"}));
    EXPECT_EQ(platform.calls("capi_get_indicator"), 0U);
}

TEST_F(indicators, the_time_is_traced_even_when_nothing_is_read)
{
    build_indicator(1);
    fake_system::set_uptime(4000);
    snmp_read_led(entry());
    fake_system::set_uptime(4500);
    const agent_log log({"kavdata::time", "trace"});
    snmp_read_led(entry());
    const char *text = "snmp_read_led:/SYS/LED:n=4500:l=4000:d=500\n";
    EXPECT_EQ(log.debug_texts("kavdata::time"), strings{text});
    EXPECT_TRUE(log.traced("kavdata::time", text, "snmp_read_led", "kavdata"));
    EXPECT_EQ(reads(), 1U);
}

} // namespace

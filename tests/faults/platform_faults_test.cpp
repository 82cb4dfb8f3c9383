// Calls of the platform that fail: the agent lives, answers what it can, and says
// in its log which call failed.
#include "faults/server_under_fault.h"

namespace
{

constexpr int broken = -77;
using strings = std::vector<std::string>;

// A call that fails is named with the row or the list that it was made for.
struct failing_call {
    const char *name;
    const char *said;
};

void PrintTo(const failing_call &call, std::ostream *out)
{
    *out << call.name;
}

class platform_fault : public server_under_fault, public testing::WithParamInterface<failing_call>
{
};

TEST_P(platform_fault, is_lived_with_and_said)
{
    const failing_call &call = GetParam();
    agent_log log;
    platform->fail[call.name] = broken;
    live();
    EXPECT_GT(platform.calls(call.name), 0U) << "nothing was tried";
    EXPECT_EQ(rows().front(), "/SYS"); // all rows are there, whatever they lack
    EXPECT_EQ(std::ranges::count(rows(), ""), holes);
    EXPECT_TRUE(log_names(log, call.said)) << testing::PrintToString(log.texts(LOG_WARNING))
                                           << testing::PrintToString(log.texts(LOG_ERR));
    expect_consistent();
    EXPECT_TRUE(platform.all_lists_released());

    // And once it is mended the next look is as good as ever.
    platform->fail.clear();
    reset();
    log.clear();
    live();
    EXPECT_EQ(complaints(log), 0U) << testing::PrintToString(log.texts(LOG_WARNING))
                                   << testing::PrintToString(log.texts(LOG_ERR));
}

INSTANTIATE_TEST_SUITE_P(
    every_call, platform_fault,
    testing::Values(
        failing_call{"capi_get_component_desc_str",
                     "read_static_data:capi_get_component_desc_str(/SYS/MB) failed, status=-77\n"},
        failing_call{"capi_is_sensor_type",
                     "read_static_data:capi_is_sensor_type(/SYS/MB/T0) failed, status=-77\n"},
        failing_call{"capi_is_indicator_type",
                     "read_static_data:capi_is_indicator_type(/SYS/OK) failed, status=-77\n"},
        failing_call{"capi_get_sensor", "snmp_read_sensor:FAILED:capi_get_sensor /SYS/MB/T0, "
                                        "status=-77\n"},
        failing_call{"capi_get_sensor",
                     "get_static_fields:capi_get_sensor(/SYS/HDD0/PRSNT) failed, status=-77\n"},
        failing_call{"capi_get_sensor_info",
                     "read_static_data:capi_get_sensor_info(/SYS/MB/T0) failed, status=-77\n"},
        failing_call{"capi_get_indicator", "snmp_read_led:FAILED:capi_get_indicator(/SYS/OK)\n"},
        failing_call{"capi_get_fru_info", "snmp_read_fru:FAILED:capi_get_fru_info for "
                                          "entPhysicalName /SYS/MB\n"},
        failing_call{"capi_get_fru_info",
                     "snmp_read_product_info:capi_get_fru_info(/SYS) failed, status=-77\n"},
        failing_call{"capi_get_product_ops_info",
                     "snmp_read_product_info:FAILED:capi_get_product_ops_info\n"},
        failing_call{"capi_get_chassis_ops_info",
                     "add_chassis_info:FAILED:capi_get_chassis_ops_info\n"},
        failing_call{"capi_get_product_vantor_id",
                     "read_static_data:capi_get_product_vantor_id(/SYS) failed, status=-77\n"},
        failing_call{
            "capi_get_chassis_vantor_id",
            "read_static_data:capi_get_chassis_vantor_id(/SYS/MIDPLANE) failed, status=-77\n"},
        failing_call{"capi_get_power_state",
                     "kavPlatEquipmentTable_handler:capi_get_power_state(/SYS/FAN0) failed, "
                     "status=-77\n"},
        failing_call{"capi_get_power_state",
                     "kavPlatEquipmentHolderTable_handler:capi_get_power_state(/SYS/HDD0) failed, "
                     "status=-77\n"},
        failing_call{"capi_get_enable_disable_state",
                     "kavPlatEquipmentTable_handler:capi_get_enable_disable_state(/SYS/MB) "
                     "failed, status=-77\n"}));

class platform_faults : public server_under_fault
{
};

// Power state is asked in its place, and both have to fail to be worth a word.
TEST_F(platform_faults, ready_to_remove_is_made_up_for_by_the_power_state)
{
    agent_log log;
    platform->fail["capi_get_rdy2rm_status"] = broken;
    platform->power_states["/SYS/MB"] = CAPI_POWER_ON;
    init_local_cache();
    ask();
    EXPECT_EQ(complaints(log), 0U) << testing::PrintToString(log.texts(LOG_WARNING));
    platform->fail["capi_get_power_state"] = broken;
    ask();
    EXPECT_TRUE(log.has(LOG_WARNING, "kavPlatEquipmentTable_handler:capi_get_power_state(/SYS/MB) "
                                     "failed, status=-77\n"));
}

// A line of the library's own, for a call that is made at each poll or refresh.
struct repeated_failure {
    const char *call;
    const char *name;
    const char *function;
};

TEST_F(platform_faults, a_call_that_keeps_failing_is_told_when_that_begins_or_changes)
{
    const repeated_failure failures[] = {
        {"capi_get_power_state", "/SYS/FAN0", "kavPlatEquipmentTable_handler"},
        {"capi_get_power_state", "/SYS/HDD0", "kavPlatEquipmentHolderTable_handler"},
        {"capi_get_enable_disable_state", "/SYS/MB", "kavPlatEquipmentTable_handler"},
        {"capi_get_sensor_info", "/SYS/MB/T0", "reload_thresholds"},
    };
    init_local_cache();
    u_long now = uptime;
    const auto poll = [&] {
        fake_system::set_uptime(now += 1000); // no value is fresh any more
        ask();
        event(EVENT_MGR_CLASS_INTERNAL, EVENT_MGR_REFRESH_SENSOR, "/SYS/MB/T0");
    };
    for (const repeated_failure &f : failures) {
        agent_log log;
        strings told;
        const auto fail = [&](int status) {
            platform->fail_for[f.call][f.name] = status;
            for (int i = 0; i < 3; i++) {
                poll();
            }
        };
        const auto expect_told = [&](int status) {
            told.push_back(std::string(f.function) + ":" + f.call + "(" + f.name +
                           ") failed, status=" + std::to_string(status) + "\n");
            EXPECT_EQ(log.texts(LOG_WARNING), told) << status;
        };
        fail(broken);
        expect_told(broken);
        fail(78); // in another way, and whatever the sign
        expect_told(78);
        fail(0);
        EXPECT_EQ(log.texts(LOG_WARNING), told);
        fail(78);
        expect_told(78);
        platform->fail_for.clear();
        poll();
    }
    // A row that is made anew knows of nothing that was told before.
    agent_log log;
    platform->fail_for["capi_get_power_state"]["/SYS/FAN0"] = broken;
    poll();
    event(EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_HOT_REMOVE, "/SYS/FAN0");
    event(EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_HOT_INSERT, "/SYS/FAN0");
    poll();
    poll();
    EXPECT_EQ(log.texts(LOG_WARNING).size(), 2U);
    // What a build told, a refresh that fails likewise does not tell again.
    platform->fail_for["capi_get_sensor_info"]["/SYS/MB/T0"] = broken;
    log.clear();
    event(EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_HOT_REMOVE, "/SYS/MB/T0");
    event(EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_HOT_INSERT, "/SYS/MB/T0");
    poll();
    EXPECT_EQ(log.texts(LOG_WARNING),
              strings{"read_static_data:capi_get_sensor_info(/SYS/MB/T0) failed, status=-77\n"});
}

// It has no failure that it could tell: whatever is not 0 is a yes.
TEST_F(platform_faults, ok_semantics_that_fail_are_lived_with)
{
    platform->fail["capi_is_sensor_with_OK_semantics"] = broken;
    live();
    EXPECT_GT(platform.calls("capi_is_sensor_with_OK_semantics"), 0U);
    expect_consistent();
}

TEST_F(platform_faults, an_inventory_that_is_not_there_is_waited_for)
{
    agent_log log;
    platform->inventory_after = 5;
    init_local_cache();
    EXPECT_EQ(fake_system::sleeps(), std::vector<unsigned>(5, 3));
    EXPECT_EQ(log.count(LOG_WARNING, "make_root_nacname:no inventory from the platform yet, "
                                     "waiting for it\n"),
              1U);
    EXPECT_EQ(rows().size(), 9U);
}

TEST_F(platform_faults, an_inventory_of_the_root_that_fails_leaves_the_tables_empty)
{
    agent_log log;
    platform->fail_for["capi_get_inventory"]["/SYS"] = broken;
    init_local_cache();
    EXPECT_TRUE(log.has(LOG_ERR, "init_local_cache:capi_get_inventory(/SYS) failed\n"));
    EXPECT_TRUE(ask().size() <= 1); // the start time is no row
    // An event is then as good as a start.
    platform->fail_for.clear();
    event(EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_UPDATE_INVENTORY, "/SYS");
    EXPECT_EQ(rows().size(), 9U);
}

TEST_F(platform_faults, an_inventory_that_fails_for_an_event_changes_nothing)
{
    agent_log log;
    init_local_cache();
    const auto before = ask();
    platform->fail["capi_get_inventory"] = broken;
    event(EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_HOT_INSERT, "/SYS/MB1");
    EXPECT_TRUE(log.has(LOG_ERR, "set_fru_prsnt: can not get inventory /SYS/MB1\n"));
    event(EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_UPDATE_INVENTORY, "/SYS/MB");
    EXPECT_TRUE(log.has(LOG_ERR, "partial_reconfigure: can not get inventory /SYS\n"));
    EXPECT_EQ(ask(), before);
}

TEST_F(platform_faults, every_call_failing_at_once_leaves_rows_of_defaults)
{
    agent_log log;
    for (const char *call :
         {"capi_get_component_desc_str", "capi_is_sensor_type", "capi_is_indicator_type",
          "capi_get_sensor", "capi_get_sensor_info", "capi_get_indicator", "capi_get_fru_info",
          "capi_get_product_ops_info", "capi_get_chassis_ops_info", "capi_get_product_vantor_id",
          "capi_get_chassis_vantor_id", "capi_get_power_state", "capi_get_rdy2rm_status",
          "capi_get_enable_disable_state", "capi_is_sensor_with_OK_semantics"}) {
        platform->fail[call] = broken;
    }
    live();
    EXPECT_EQ(std::ranges::count(rows(), ""), holes);
    EXPECT_GT(complaints(log), 10U);
    expect_consistent();
}

// ---- The event manager ----

TEST_F(platform_faults, an_event_manager_that_never_comes_leaves_the_agent_alive)
{
    agent_log log({"monitor"});
    platform->fail["event_mgr_get_handle"] = broken;
    EXPECT_EQ(evtmgr_register(), -1);
    EXPECT_TRUE(log.has_debug(
        "monitor", "evtmgr_register:unable to obtain event manager handle, max retry 10\n"));
    EXPECT_TRUE(ask().size() <= 1);
    // The next one finds it.
    platform->fail.clear();
    EXPECT_EQ(evtmgr_register(), 0);
}

TEST_F(platform_faults, each_subscription_that_fails_is_said_and_keeps_the_earlier_ones)
{
    const char *said[] = {
        "evtmgr_register:unabled to subscribe event class\n",
        "evtmgr_register:subscribe hot insert failed, rc=-77\n",
        "evtmgr_register:subscribe hot remove failed. rc=-77\n",
        "evtmgr_register:subscribe chassis update inventory failed, rc=-77\n",
        "evtmgr_register:subscribe internal sensor refresh failed, rc=-77\n",
    };
    init_local_cache();
    const auto before = ask();
    for (unsigned k = 1; k <= std::size(said); k++) {
        agent_log log({"monitor"});
        const size_t subscribed = platform.subscriptions().size();
        platform->subscription_failures = {{k, broken}};
        EXPECT_EQ(evtmgr_register(), -1);
        EXPECT_TRUE(log.has_debug("monitor", said[k - 1]));
        EXPECT_EQ(platform.subscriptions().size(), subscribed + k);
        EXPECT_EQ(ask().size(), before.size());
    }
    platform->subscription_failures = {{6, broken}}; // nobody looks at that one
    EXPECT_EQ(evtmgr_register(), 0);
}

TEST_F(platform_faults, a_monitor_thread_that_can_not_be_started_is_said)
{
    agent_log log;
    fake_system::on_pthread_create.set([](pthread_t *, const pthread_attr_t *,
                                          fake_system::thread_body, void *) { return EAGAIN; });
    initialize_table_entPhysicalTable();
    EXPECT_TRUE(log.has(LOG_ERR, "initialize_table_entPhysicalTable:FAILED:"
                                 "snmpd_monitor_fru_devices, status=" +
                                     std::to_string(EAGAIN) + ": the tables stay empty\n"));
    event(EVENT_MGR_CLASS_CONNECTION, EVENT_MGR_DISCONNECT, nullptr); // and once more
    EXPECT_TRUE(ask().size() <= 1);
}

TEST_F(platform_faults, a_lock_that_fails_drops_the_event_alone)
{
    agent_log log({"monitor"});
    init_local_cache();
    fake_system::fail_mutex(fake_system::mutex_call::lock, &fru_mutex, EINVAL, 1);
    event(EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_HOT_REMOVE, "/SYS/MB");
    EXPECT_TRUE(log.has_debug("monitor", "evtmgr_callback:unable to take mutex\n"));
    EXPECT_NE(row("/SYS/MB"), nullptr);
    event(EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_HOT_REMOVE, "/SYS/MB");
    EXPECT_EQ(row("/SYS/MB"), nullptr);
}

} // namespace

// Registration with the event manager and what becomes of its events.

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <thread>

#include <sys/wait.h>

#include "monitor/fork.h"
#include "monitor/monitor.h"
#include "rooms/cache_fixture.h"

namespace
{

using strings = std::vector<std::string>;

const std::vector<fake_subscription> all_subscriptions(event_mgr_handle handle)
{
    return {{handle, 105, std::nullopt, 0}, {handle, 105, 2, 0}, {handle, 105, 3, 0},
            {handle, 105, 10, 0},           {handle, 118, 3, 0}, {handle, -1, -1, 0}};
}

class monitor : public cache_test
{
  protected:
    monitor()
    {
        // As if the process had just begun.
        fake_system::on_pthread_create.set([](pthread_t *, const pthread_attr_t *,
                                              fake_system::thread_body, void *) { return 0; });
        kavplat::restart_monitor_after_fork();
        fake_system::on_pthread_create.clear();
        set_components({"/SYS", "/SYS/A", "/SYS/B"});
    }

    static int trylock()
    {
        const int result = pthread_mutex_trylock(&fru_mutex);
        if (result == 0) {
            pthread_mutex_unlock(&fru_mutex);
        }
        return result;
    }

    // The cache stands and the callback is known.
    void register_now() { ASSERT_EQ(evtmgr_register(), 0); }

    void hot(int event, const char *payload) { ASSERT_TRUE(platform.deliver(105, event, payload)); }
};

// ---- Registration ----

TEST_F(monitor, registration_builds_and_subscribes_in_order)
{
    size_t rows_at_subscription = 0;
    platform->on_call = [&](const fake_call &call) {
        if (call.function == "event_mgr_get_handle") {
            EXPECT_EQ(maxPhysicalIndex, 0U);
        }
        if (call.function == "event_mgr_subscribe_event_class") {
            rows_at_subscription = maxPhysicalIndex;
        }
    };
    const agent_log log({"monitor", "trace"});
    EXPECT_EQ(evtmgr_register(), 0);
    EXPECT_EQ(rows_at_subscription, 3U); // built before
    EXPECT_EQ(emHandle, 1U);
    EXPECT_EQ(platform.subscriptions(), all_subscriptions(1));
    EXPECT_EQ(platform.context(), nullptr);
    EXPECT_EQ(platform.calls("event_mgr_get_handle"), 1U);
    EXPECT_EQ(fake_system::sleeps(), std::vector<unsigned>());
    EXPECT_EQ(log.debug_texts("monitor"),
              (strings{"evtmgr_register:need_init_local_cache 1\n",
                       "evtmgr_register:register with event mgr done!\n"}));
    expect_traced_by_operation(log, "monitor");
    EXPECT_EQ(log.texts(LOG_ERR), strings());
}

TEST_F(monitor, an_event_manager_that_is_never_available)
{
    platform->handle_failures = 1000;
    int nonzero_at_sleep = 0;
    std::vector<unsigned> pauses;
    fake_system::on_sleep.set([&](unsigned seconds) {
        pauses.push_back(seconds);
        nonzero_at_sleep += emHandle != 0 ? 1 : 0;
        return 0U;
    });
    platform->handle_failure_rc = 1; // any but 0
    const agent_log log({"monitor", "trace"});
    EXPECT_EQ(evtmgr_register(), -1);
    EXPECT_EQ(platform.calls("event_mgr_get_handle"), 10U);
    EXPECT_EQ(pauses, std::vector<unsigned>(9, 5));
    strings expected;
    for (int i = 1; i <= 9; i++) {
        expected.push_back(
            text_of("evtmgr_register:unabled to obtain event manager handle, retry = %d\n", i));
    }
    expected.emplace_back("evtmgr_register:unable to obtain event manager handle, max retry 10\n");
    EXPECT_EQ(log.debug_texts("monitor"), expected);
    expect_traced_by_operation(log, "monitor");
    // What the last call wrote stays; what those before it wrote does not.
    EXPECT_NE(emHandle, 0U);
    EXPECT_EQ(nonzero_at_sleep, 0);
    EXPECT_EQ(platform.subscriptions().size(), 0U);
    EXPECT_EQ(physicalTable, nullptr); // nothing was built
    EXPECT_EQ(log.texts(LOG_ERR), strings());
}

TEST_F(monitor, a_handle_at_the_last_attempt)
{
    platform->handle_failures = 9;
    EXPECT_EQ(evtmgr_register(), 0);
    EXPECT_EQ(platform.calls("event_mgr_get_handle"), 10U);
    EXPECT_EQ(fake_system::sleeps(), std::vector<unsigned>(9, 5));
}

TEST_F(monitor, a_handle_at_the_third_attempt)
{
    platform->handle_failures = 2;
    strings at_sleep;
    fake_system::on_sleep.set([&](unsigned seconds) {
        EXPECT_EQ(emHandle, 0U);
        at_sleep.push_back(std::to_string(seconds));
        return 0U;
    });
    const agent_log log({"monitor"});
    EXPECT_EQ(evtmgr_register(), 0);
    EXPECT_EQ(at_sleep, (strings{"5", "5"}));
    EXPECT_EQ(log.debug_texts("monitor"),
              (strings{"evtmgr_register:unabled to obtain event manager handle, retry = 1\n",
                       "evtmgr_register:unabled to obtain event manager handle, retry = 2\n",
                       "evtmgr_register:need_init_local_cache 1\n",
                       "evtmgr_register:register with event mgr done!\n"}));
}

TEST_F(monitor, a_failed_subscription_ends_the_registration)
{
    struct failure {
        unsigned number;
        int rc;
        const char *text;
    };
    for (const failure &f :
         {failure{1, 31, "evtmgr_register:unabled to subscribe event class\n"},
          {1, -31, "evtmgr_register:unabled to subscribe event class\n"},
          {2, -31, "evtmgr_register:subscribe hot insert failed, rc=-31\n"},
          {3, 31, "evtmgr_register:subscribe hot remove failed. rc=31\n"},
          {4, -31, "evtmgr_register:subscribe chassis update inventory failed, rc=-31\n"},
          {5, 31, "evtmgr_register:subscribe internal sensor refresh failed, rc=31\n"}}) {
        SCOPED_TRACE(f.number);
        platform->subscription_failures = {{f.number, f.rc}};
        const size_t before = platform.subscriptions().size();
        const agent_log log({"monitor", "trace"});
        EXPECT_EQ(evtmgr_register(), -1);
        std::vector<fake_subscription> expected = all_subscriptions(platform.handle());
        expected.resize(f.number);
        expected.back().rc = f.rc;
        std::vector<fake_subscription> made = platform.subscriptions();
        made.erase(made.begin(), made.begin() + static_cast<std::ptrdiff_t>(before));
        EXPECT_EQ(made, expected);
        EXPECT_EQ(log.debug_texts("monitor").back(), f.text);
        expect_traced_by_operation(log, "monitor");
        EXPECT_EQ(emHandle, platform.handle()); // stays open
    }
}

TEST_F(monitor, the_subscription_of_disconnect_is_not_examined)
{
    platform->subscription_failures = {{6, -1}};
    const agent_log log({"monitor"});
    EXPECT_EQ(evtmgr_register(), 0);
    EXPECT_EQ(platform.subscriptions().size(), 6U);
    EXPECT_TRUE(log.has_debug("monitor", "evtmgr_register:register with event mgr done!\n"));
}

// ---- The thread ----

TEST_F(monitor, the_thread_registers_and_ends)
{
    std::atomic<bool> detached{false};
    std::atomic<bool> joined{false};
    std::atomic<bool> done{false};
    std::atomic<bool> own_id{true};
    std::atomic<bool> signals_blocked{false};
    fake_system::on_pthread_detach.set([&](pthread_t id) {
        own_id = own_id && pthread_equal(id, pthread_self()) != 0;
        detached = platform.calls("event_mgr_get_handle") == 0; // first of all
        sigset_t mask;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        signals_blocked = sigismember(&mask, SIGTERM) == 1 && sigismember(&mask, SIGALRM) == 1;
        return pthread_detach(id);
    });
    fake_system::on_pthread_join.set([&](pthread_t id, void **) {
        own_id = own_id && pthread_equal(id, pthread_self()) != 0;
        joined = platform.subscriptions().size() == 6; // last of all
        done = true;
        return EDEADLK;
    });
    const agent_log log({"monitor", "trace"});
    EXPECT_EQ(snmpd_monitor_fru_devices(), 0);
    ASSERT_TRUE(fake_system::eventually([&] { return done.load(); }));
    fake_system::on_pthread_join.clear();
    fake_system::on_pthread_detach.clear();
    EXPECT_TRUE(detached);
    EXPECT_TRUE(joined);
    EXPECT_TRUE(own_id);
    EXPECT_TRUE(signals_blocked);
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGTERM), 0); // of this thread they are not
    EXPECT_EQ(rows(), (strings{"/SYS", "/SYS/A", "/SYS/B"}));
    EXPECT_EQ(log.count_debug("monitor", "snmpd_monitor_fru_devices\n"), 1U);
    EXPECT_EQ(log.count_debug("monitor", "monitor_fru_devices\n"), 1U);
    EXPECT_TRUE(log.traced("monitor", "snmpd_monitor_fru_devices\n", "snmpd_monitor_fru_devices",
                           "monitor"));
    EXPECT_TRUE(log.traced("monitor", "monitor_fru_devices\n", "monitor_fru_devices", "monitor"));
}

TEST_F(monitor, the_body_gives_null_whatever_the_registration_gives)
{
    fake_system::on_pthread_detach.set([](pthread_t) { return 0; });
    fake_system::on_pthread_join.set([](pthread_t, void **) { return EDEADLK; });
    int argument = 0;
    platform->handle_failures = 1000;
    EXPECT_EQ(monitor_fru_devices(&argument), nullptr);
    platform->handle_failures = 0;
    EXPECT_EQ(monitor_fru_devices(nullptr), nullptr);
    EXPECT_EQ(platform.subscriptions().size(), 6U);
}

TEST_F(monitor, the_thread_s_id_and_attributes)
{
    const pthread_t made_up = pthread_self();
    bool plain_thread = false;
    fake_system::on_pthread_create.set([&](pthread_t *id, const pthread_attr_t *attributes,
                                           fake_system::thread_body body, void *argument) {
        plain_thread = attributes == nullptr && argument == nullptr && body == monitor_fru_devices;
        *id = made_up;
        return 0;
    });
    monitor_id = {};
    EXPECT_EQ(snmpd_monitor_fru_devices(), 0);
    EXPECT_TRUE(plain_thread);
    EXPECT_NE(pthread_equal(monitor_id, made_up), 0);
}

TEST_F(monitor, a_thread_that_cannot_be_made)
{
    monitor_id = {};
    const pthread_t none = monitor_id;
    fake_system::on_pthread_create.set(
        [](pthread_t *id, const pthread_attr_t *, fake_system::thread_body, void *) {
            *id = pthread_self();
            return EAGAIN;
        });
    EXPECT_EQ(snmpd_monitor_fru_devices(), EAGAIN);
    EXPECT_NE(pthread_equal(monitor_id, none), 0);
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGTERM), 0);
}

// ---- Events ----

TEST_F(monitor, hot_remove_insert_and_update_change_the_cache_under_the_lock)
{
    register_now();
    unsigned asked = 0;
    platform->on_call = [&](const fake_call &call) {
        if (call.function == "capi_get_inventory") {
            EXPECT_EQ(trylock(), EBUSY);
            asked++;
        }
    };
    agent_log log({"monitor", "trace"});
    hot(EVENT_MGR_HOT_REMOVE, "/SYS/A");
    EXPECT_EQ(rows(), (strings{"/SYS", "", "/SYS/B"}));
    EXPECT_EQ(trylock(), 0);
    EXPECT_EQ(log.debug_texts("monitor"),
              strings{"evtmgr_callback:RECEIVE HOT REMOVE EVENT /SYS/A\n"});
    expect_traced_by_operation(log, "monitor");
    log.clear();
    localCacheSize = 3;
    hot(EVENT_MGR_HOT_INSERT, "/SYS/A");
    EXPECT_EQ(rows(), (strings{"/SYS", "", "/SYS/B", "/SYS/A"}));
    EXPECT_EQ(trylock(), 0);
    EXPECT_EQ(log.debug_texts("monitor"),
              strings{"evtmgr_callback:RECEIVE HOT INSERT EVENT /SYS/A\n"});
    expect_traced_by_operation(log, "monitor");
    log.clear();
    unplug("/SYS/B");
    hot(EVENT_MGR_UPDATE_INVENTORY, "/SYS");
    EXPECT_EQ(rows(), (strings{"/SYS", "", "", "/SYS/A"}));
    EXPECT_EQ(trylock(), 0);
    EXPECT_EQ(log.debug_texts("monitor"),
              strings{"evtmgr_callback:RECEIVE UPDATE INVENTORY EVENT /SYS\n"});
    expect_traced_by_operation(log, "monitor");
    EXPECT_EQ(asked, 2U);
}

TEST_F(monitor, null_payloads_print_as_null)
{
    register_now();
    const agent_log log({"monitor"});
    hot(EVENT_MGR_HOT_REMOVE, nullptr);
    hot(EVENT_MGR_HOT_INSERT, nullptr);
    hot(EVENT_MGR_UPDATE_INVENTORY, nullptr);
    ASSERT_TRUE(platform.deliver(118, 3, nullptr));
    EXPECT_EQ(log.debug_texts("monitor"),
              (strings{"evtmgr_callback:RECEIVE HOT REMOVE EVENT NULL\n",
                       "evtmgr_callback:RECEIVE HOT INSERT EVENT NULL\n",
                       "evtmgr_callback:RECEIVE UPDATE INVENTORY EVENT NULL\n",
                       "evtmgr_callback:receive REFRESH_SENSOR message\n"}));
    EXPECT_EQ(rows(), (strings{"/SYS", "/SYS/A", "/SYS/B"}));
    EXPECT_EQ(entLastChangeTime, 0U);
    EXPECT_EQ(trylock(), 0);
}

TEST_F(monitor, an_event_whose_lock_fails_is_dropped)
{
    register_now();
    plug({"/SYS/N"});
    platform.forget_calls();
    const std::pair<int, const char *> cases[] = {
        {EVENT_MGR_HOT_REMOVE, "evtmgr_callback:unable to take mutex\n"},
        {EVENT_MGR_HOT_INSERT, "evtmgr_callback: unable to take mutex\n"},
        {EVENT_MGR_UPDATE_INVENTORY, "evtmgr_callback: unable to take mutex\n"}};
    for (const auto &[event, text] : cases) {
        const agent_log log({"monitor", "trace"});
        fake_system::fail_mutex(fake_system::mutex_call::lock, &fru_mutex, EINVAL, 1);
        hot(event, "/SYS");
        EXPECT_EQ(log.debug_texts("monitor").size(), 2U);
        EXPECT_TRUE(log.traced("monitor", text, "evtmgr_callback", "monitor"));
        EXPECT_EQ(rows(), (strings{"/SYS", "/SYS/A", "/SYS/B"}));
        EXPECT_EQ(trylock(), 0);
    }
    EXPECT_EQ(platform.calls("capi_get_inventory"), 0U);
    EXPECT_EQ(entLastChangeTime, 0U);
}

TEST_F(monitor, a_lock_that_cannot_be_released_is_told)
{
    register_now();
    plug({"/SYS/N"});
    const std::pair<int, const char *> cases[] = {
        {EVENT_MGR_HOT_REMOVE, "evtmgr_callback: unable to release mutex\n"},
        {EVENT_MGR_HOT_INSERT, "evtmgr_callbackunable to release mutex\n"},
        {EVENT_MGR_UPDATE_INVENTORY, "evtmgr_callbackunable to release mutex\n"}};
    for (const auto &[event, text] : cases) {
        const agent_log log({"monitor", "trace"});
        fake_system::fail_mutex(fake_system::mutex_call::unlock, &fru_mutex, EPERM, 1);
        hot(event, "/SYS/A");
        EXPECT_EQ(log.debug_texts("monitor").size(), 2U);
        EXPECT_TRUE(log.traced("monitor", text, "evtmgr_callback", "monitor"));
        EXPECT_EQ(pthread_mutex_unlock(&fru_mutex), 0);
    }
    EXPECT_EQ(rows(), (strings{"/SYS", "", "/SYS/B", "/SYS/A"}));
}

TEST_F(monitor, a_refresh_takes_no_lock)
{
    platform->sensor_types = {30};
    platform->components[1] = component("/SYS/T0", 30);
    platform->sensors["/SYS/T0"] = threshold_sensor(1, 2.5F);
    register_now();
    platform->sensors["/SYS/T0"].upper_fatal = 77.0F;
    platform.forget_calls();
    const agent_log log({"monitor", "trace"});
    {
        const cache_lock_held lock; // with which it would not come back
        ASSERT_TRUE(platform.deliver(118, 3, "/SYS/T0"));
    }
    EXPECT_EQ(row("/SYS/T0")->numericSensorCol13, 77);
    EXPECT_EQ(platform.calls("capi_get_sensor_info", "/SYS/T0"), 1U);
    EXPECT_EQ(entLastChangeTime, uptime);
    EXPECT_EQ(log.debug_texts("monitor"),
              strings{"evtmgr_callback:receive REFRESH_SENSOR message\n"});
    EXPECT_TRUE(log.traced("monitor", "evtmgr_callback:receive REFRESH_SENSOR message\n",
                           "evtmgr_callback", "monitor"));
}

TEST_F(monitor, any_other_event_does_nothing)
{
    register_now();
    plug({"/SYS/N"});
    platform.forget_calls();
    unsigned threads = 0;
    fake_system::on_pthread_create.set(
        [&](pthread_t *, const pthread_attr_t *, fake_system::thread_body, void *) {
            threads++;
            return EAGAIN;
        });
    const agent_log log({"monitor", "kavdata"});
    for (int event = -3; event <= 130; event++) {
        if (event != 2 && event != 3 && event != 10) {
            hot(event, "/SYS");
        }
        if (event != 3) {
            ASSERT_TRUE(platform.deliver(118, event, "/SYS"));
        }
        if (event != -1) {
            ASSERT_TRUE(platform.deliver(-1, event, "/SYS"));
        }
        ASSERT_TRUE(
            platform.deliver(event == 105 || event == 118 || event == -1 ? 0 : event, 3, "/SYS"));
        ASSERT_TRUE(platform.deliver(0, event, "/SYS"));
    }
    EXPECT_EQ(log.records().size(), 0U);
    EXPECT_EQ(threads, 0U);
    EXPECT_TRUE(platform.all_calls().empty());
    EXPECT_EQ(rows(), (strings{"/SYS", "/SYS/A", "/SYS/B"}));
    EXPECT_EQ(entLastChangeTime, 0U);
}

// ---- Disconnect ----

TEST_F(monitor, a_reconnect_keeps_the_cache)
{
    register_now();
    plug({"/SYS/MISSED"}); // is not caught up
    const phys_entry *entry = get_entry(2);
    platform.forget_calls();
    std::atomic<bool> ended{false};
    fake_system::on_pthread_join.set([&](pthread_t, void **) {
        ended = true;
        return EDEADLK;
    });
    {
        const agent_log log({"monitor", "trace"});
        ASSERT_TRUE(platform.deliver(-1, -1, nullptr));
        ASSERT_TRUE(fake_system::eventually([&] { return ended.load(); }));
        EXPECT_TRUE(log.traced("monitor", "evtmgr_callback:receive DISCONNECT message\n",
                               "evtmgr_callback", "monitor"));
        EXPECT_EQ(log.count_debug("monitor", "evtmgr_register:need_init_local_cache 0\n"), 1U);
        EXPECT_EQ(log.count_debug("monitor", "evtmgr_register:register with event mgr done!\n"),
                  1U);
        EXPECT_EQ(log.texts(LOG_INFO), strings()); // of a build
    }
    EXPECT_EQ(get_entry(2), entry);
    EXPECT_EQ(rows(), (strings{"/SYS", "/SYS/A", "/SYS/B"}));
    EXPECT_EQ(platform.calls("capi_get_inventory"), 0U);
    EXPECT_EQ(emHandle, 2U);
    std::vector<fake_subscription> expected = all_subscriptions(1);
    const std::vector<fake_subscription> again = all_subscriptions(2);
    expected.insert(expected.end(), again.begin(), again.end());
    EXPECT_EQ(platform.subscriptions(), expected);
    EXPECT_EQ(entLastChangeTime, 0U);
}

TEST_F(monitor, a_disconnect_whose_thread_cannot_be_made_is_told)
{
    register_now();
    fake_system::on_pthread_create.set([](pthread_t *, const pthread_attr_t *,
                                          fake_system::thread_body, void *) { return EAGAIN; });
    const agent_log log({"monitor", "trace"});
    ASSERT_TRUE(platform.deliver(-1, -1, nullptr));
    EXPECT_TRUE(log.traced(
        "monitor", text_of("evtmgr_callback:unable to start the monitor thread, rc=%d\n", EAGAIN),
        "evtmgr_callback", "monitor"));
    EXPECT_EQ(log.texts(LOG_ERR),
              (strings{text_of("evtmgr_callback:FAILED:snmpd_monitor_fru_devices, status=%d "
                               "(Resource temporarily unavailable): what changes in the server "
                               "from now on is not noticed; restart the agent where it may have "
                               "more threads\n",
                               EAGAIN)}));
}

TEST_F(monitor, a_reconnect_does_not_touch_a_lock_that_is_held)
{
    register_now();
    ASSERT_TRUE([&] {
        fake_system::on_pthread_create.set([](pthread_t *, const pthread_attr_t *,
                                              fake_system::thread_body, void *) { return 0; });
        const bool delivered = platform.deliver(-1, -1, nullptr);
        fake_system::on_pthread_create.clear();
        return delivered;
    }());
    std::atomic<int> initialised{0};
    fake_system::on_pthread_mutex_init.set(
        [&](pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes) {
            initialised += mutex == &fru_mutex ? 1 : 0;
            return pthread_mutex_init(mutex, attributes);
        });
    const cache_lock_held lock;
    std::thread again([] { EXPECT_EQ(evtmgr_register(), 0); });
    again.join();
    EXPECT_EQ(trylock(), EBUSY);
    EXPECT_EQ(initialised, 0);
}

TEST_F(monitor, a_disconnect_during_the_build_waits_its_turn)
{
    // The builder stops in the middle, until it is let go.
    std::atomic<bool> building{false};
    std::atomic<bool> go_on{false};
    platform->on_call = [&](const fake_call &call) {
        if (call.function == "capi_get_component_desc_str" && !building) {
            building = true;
            EXPECT_TRUE(fake_system::eventually([&] { return go_on.load(); }));
        }
    };
    std::atomic<int> ended{0};
    std::atomic<int> started{0};
    std::atomic<bool> waits{false};
    fake_system::on_pthread_detach.set([&](pthread_t id) {
        started++;
        return pthread_detach(id);
    });
    fake_system::on_pthread_join.set([&](pthread_t, void **) {
        ended++;
        return EDEADLK;
    });
    ASSERT_EQ(snmpd_monitor_fru_devices(), 0);
    ASSERT_TRUE(fake_system::eventually([&] { return building.load(); }));
    fake_system::on_pthread_mutex_lock.set([&](pthread_mutex_t *mutex) {
        // Only the second thread locks anything now.
        if (started == 2 && mutex != &fru_mutex && pthread_mutex_trylock(mutex) == 0) {
            return 0;
        }
        waits = waits || started == 2;
        return pthread_mutex_lock(mutex);
    });
    ASSERT_TRUE(platform.deliver(-1, -1, nullptr));
    EXPECT_TRUE(fake_system::eventually([&] { return waits || ended != 0; }));
    EXPECT_EQ(ended, 0);
    fake_system::on_pthread_mutex_lock.clear();
    EXPECT_EQ(platform.calls("event_mgr_get_handle"), 1U);
    EXPECT_EQ(platform.subscriptions().size(), 0U);
    go_on = true;
    ASSERT_TRUE(fake_system::eventually([&] { return ended == 2; }));
    fake_system::on_pthread_detach.clear();
    fake_system::on_pthread_join.clear();
    EXPECT_EQ(platform.calls("event_mgr_get_handle"), 2U);
    EXPECT_EQ(platform.calls("capi_get_inventory", "/SYS"), 1U); // built once
    EXPECT_EQ(rows(), (strings{"/SYS", "/SYS/A", "/SYS/B"}));
    std::vector<fake_subscription> expected = all_subscriptions(1);
    const std::vector<fake_subscription> again = all_subscriptions(2);
    expected.insert(expected.end(), again.begin(), again.end());
    EXPECT_EQ(platform.subscriptions(), expected);
}

// Events from several threads at once, refreshes and reconnects among them.
TEST_F(monitor, events_on_several_threads)
{
    register_now();
    platform->record_calls = false;
    const agent_log log; // keeps the messages off the terminal
    std::atomic<int> started{0};
    std::atomic<int> ended{0};
    fake_system::on_pthread_join.set([&](pthread_t, void **) {
        ended++;
        return EDEADLK;
    });
    const auto storm = [&](const char *nac) {
        for (int i = 0; i < 60; i++) {
            platform.deliver(105, EVENT_MGR_HOT_REMOVE, nac);
            platform.deliver(105, EVENT_MGR_HOT_INSERT, nac);
            platform.deliver(118, EVENT_MGR_REFRESH_SENSOR, nac);
            if (i % 20 == 0) {
                started++;
                platform.deliver(-1, -1, nullptr);
            }
        }
    };
    std::thread one([&] { storm("/SYS/A"); });
    std::thread two([&] { storm("/SYS/B"); });
    one.join();
    two.join();
    ASSERT_TRUE(fake_system::eventually([&] { return ended == started; }));
    fake_system::on_pthread_join.clear();
    const cache_lock_held lock;
    expect_consistent();
    EXPECT_EQ(hashtable_count(htab), 3U);
    EXPECT_EQ(maxPhysicalIndex, 3U + 120U);
}

// ---- Fork ----

TEST_F(monitor, the_child_of_a_fork_starts_anew)
{
    std::atomic<bool> ended{false};
    fake_system::on_pthread_join.set([&](pthread_t, void **) {
        ended = true;
        return EDEADLK;
    });
    ASSERT_EQ(snmpd_monitor_fru_devices(), 0);
    ASSERT_TRUE(fake_system::eventually([&] { return ended.load(); }));
    remove("/SYS/A");
    const pid_t parent = getpid();
    pid_t child = -1;
    {
        const cache_lock_held lock; // which nobody releases in the child
        kavplat::begin_agent_pass();
        child = fork();
        if (child == 0) {
            bool good = kavplat::was_left_behind_by_fork();
            // A thread would do the same; here it is done on this one.
            fake_system::on_pthread_create.set(
                [](pthread_t *, const pthread_attr_t *, fake_system::thread_body body, void *) {
                    body(nullptr);
                    return 0;
                });
            fake_system::on_pthread_detach.set([](pthread_t) { return 0; });
            kavplat::restart_monitor_after_fork();
            good = good && !kavplat::was_left_behind_by_fork();
            good = good && rows() == strings{"/SYS", "/SYS/A", "/SYS/B"};
            good = good && emHandle == 2 && platform.subscriptions().size() == 12;
            good = good && monitor_fru_lock() == 0 && monitor_fru_unlock() == 0;
            good = good && getpid() != parent;
            _exit(good ? 0 : 1);
        }
        kavplat::end_agent_pass();
    }
    fake_system::on_pthread_join.clear();
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_FALSE(kavplat::was_left_behind_by_fork());
    EXPECT_EQ(rows(), (strings{"/SYS", "", "/SYS/B"}));
}

// Threads that wait: for a handle, for an inventory, for the other's registration.
TEST_F(monitor, a_fork_does_not_wait_for_pauses)
{
    const auto usual = std::exchange(kavplat::longest_wait_before_fork, std::chrono::hours(1));
    for (const bool has_handle : {false, true}) {
        platform->handle_failures = has_handle ? 0 : 1;
        platform->inventory_after = has_handle ? 1 : 0;
        std::atomic<int> ended{0};
        std::atomic<bool> pausing{false};
        std::atomic<bool> go_on{false};
        fake_system::on_sleep.set([&](unsigned) {
            pausing = true;
            go_on.wait(false);
            return 0U;
        });
        fake_system::on_pthread_join.set([&](pthread_t, void **) {
            ended++;
            return EDEADLK;
        });
        ASSERT_EQ(snmpd_monitor_fru_devices(), 0);
        ASSERT_TRUE(fake_system::eventually([&] { return pausing.load(); }));
        ASSERT_EQ(snmpd_monitor_fru_devices(), 0);
        const pid_t child = fork();
        if (child == 0) {
            _exit(0);
        }
        int status = -1;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
        go_on = true;
        go_on.notify_all();
        ASSERT_TRUE(fake_system::eventually([&] { return ended == 2; }));
        fake_system::on_sleep.clear();
        fake_system::on_pthread_join.clear();
    }
    kavplat::longest_wait_before_fork = usual;
}

// The monitor's registration and events on another thread, each call of the
// platform a while under way. After a disconnect, so that the cache that events
// change is not built beside them.
TEST_F(monitor, a_fork_finds_nobody_inside_the_platform)
{
    register_now();
    fake_system::on_pthread_create.set(
        [](pthread_t *, const pthread_attr_t *, fake_system::thread_body, void *) { return 0; });
    platform.deliver(EVENT_MGR_CLASS_CONNECTION, EVENT_MGR_DISCONNECT, nullptr);
    const agent_log log; // keeps the messages off the terminal
    std::atomic<int> inside{0};
    platform->record_calls = false;
    platform->on_call = [&](const fake_call &) {
        inside++;
        std::this_thread::sleep_for(std::chrono::microseconds(100));
        inside--;
    };
    std::atomic<bool> stop{false};
    fake_system::on_pthread_detach.set([](pthread_t) { return 0; });
    fake_system::on_pthread_join.set([](pthread_t, void **) { return EDEADLK; });
    std::thread events([&] {
        while (!stop) {
            platform.deliver(105, EVENT_MGR_HOT_REMOVE, "/SYS/A");
            platform.deliver(105, EVENT_MGR_HOT_INSERT, "/SYS/A");
            platform.deliver(118, EVENT_MGR_REFRESH_SENSOR, "/SYS/A");
        }
    });
    std::thread registrations([&] {
        while (!stop) {
            monitor_fru_devices(nullptr);
        }
    });
    for (int i = 0; i < 20; i++) {
        const pid_t child = fork();
        if (child == 0) {
            _exit(inside);
        }
        int status = -1;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
    stop = true;
    events.join();
    registrations.join();
    platform->on_call = nullptr;
}

TEST_F(monitor, a_child_forgets_the_cache_as_it_stands)
{
    build({"/SYS", "/SYS/A"});
    entLastChangeTime = 5;
    phys_entry **const table = physicalTable;
    hashtable *const names = htab;
    cache_valid = 0;
    fake_system::on_pthread_create.set(
        [](pthread_t *, const pthread_attr_t *, fake_system::thread_body, void *) { return 0; });
    emHandle = 9;
    kavplat::restart_monitor_after_fork();
    EXPECT_EQ(physicalTable, nullptr);
    EXPECT_EQ(maxPhysicalIndex, 0U);
    EXPECT_EQ(localCacheSize, 0U);
    EXPECT_EQ(htab, nullptr);
    EXPECT_EQ(cache_valid, 1);
    EXPECT_EQ(emHandle, 0U);
    // Nothing of it was freed; it is only for this test to be given back.
    physicalTable = table;
    maxPhysicalIndex = 2;
    localCacheSize = 2;
    htab = names;
    EXPECT_EQ(rows(), (strings{"/SYS", "/SYS/A"}));
    expect_consistent();
}

// ---- The mutex ----

TEST(monitor_death, a_mutex_that_cannot_be_prepared_is_told_and_registration_goes_on)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            const fake_system::scope system;
            fake_platform platform;
            platform->components = {component("/SYS", 200)};
            const agent_log log({"monitor", "trace"});
            fake_system::fail_mutex(fake_system::mutex_call::init, &fru_mutex, ENOMEM, 1);
            const bool good =
                evtmgr_register() == 0 && maxPhysicalIndex == 1 &&
                log.debug_texts("monitor").front() == "evtmgr_register:unable to prepare mutex\n" &&
                log.traced("monitor", "evtmgr_register:unable to prepare mutex\n",
                           "evtmgr_register", "monitor") &&
                platform.subscriptions() == all_subscriptions(1);
            _exit(good ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

} // namespace

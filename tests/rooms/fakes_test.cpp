// The fakes themselves: a test that leans on one that looks away proves nothing.

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <pthread.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/agent_log.h"
#include "fakes/fake_platform.h"
#include "fakes/fake_system.h"

namespace
{

// ---- The log -----------------------------------------------------------------

void debug_line(const char *function, const char *token, const char *text)
{
    debugmsgtoken("trace", "%s(): %s, %d:\n", function, "room", 12);
    debugmsg("trace", "%s(): %s, %d:\n", function, "room", 12);
    debugmsgtoken(token, "%s", text);
    debugmsg(token, "%s", text);
}

TEST(agent_log_test, tells_priorities_and_texts_apart)
{
    const agent_log log;
    snmp_log(LOG_ERR, "%s:FAILED:%s\n", "build", "entry NULL");
    EXPECT_TRUE(log.has(LOG_ERR, "build:FAILED:entry NULL\n"));
    EXPECT_FALSE(log.has(LOG_INFO, "build:FAILED:entry NULL\n"));
    EXPECT_FALSE(log.has(LOG_ERR, "build:FAILED:entry NULL"));
    EXPECT_EQ(log.count(LOG_ERR, "build:FAILED:entry NULL\n"), 1U);
    EXPECT_EQ(log.texts(LOG_ERR), std::vector<std::string>{"build:FAILED:entry NULL\n"});
}

TEST(agent_log_test, puts_debug_pieces_together_by_token)
{
    const agent_log log({"IDX", "kavdata"});
    debugmsgtoken("IDX", "%s", "");
    debugmsg("IDX", "one ");
    debugmsg("IDX", "line\n");
    debugmsgtoken("kavdata::hash", "%s", "");
    debugmsg("kavdata::hash", "%s:nac=%s\n", "hash_nac", "/SYS: ");
    EXPECT_TRUE(log.has_debug("IDX", "one line\n"));
    EXPECT_TRUE(log.has_debug("kavdata::hash", "hash_nac:nac=/SYS: \n"));
    EXPECT_FALSE(log.has_debug("IDX", "line\n"));
    EXPECT_EQ(log.records().size(), 2U);
}

TEST(agent_log_test, keeps_a_message_without_line_end_apart_from_the_next)
{
    const agent_log log({"IDX"});
    debugmsgtoken("IDX", "%s", "");
    debugmsg("IDX", "no end");
    EXPECT_TRUE(log.has_debug("IDX", "no end"));
    debugmsgtoken("IDX", "%s", "");
    debugmsg("IDX", "next\n");
    EXPECT_EQ(log.debug_texts("IDX"), (std::vector<std::string>{"no end", "next\n"}));
}

TEST(agent_log_test, hears_only_the_tokens_asked_for_and_forgets_them)
{
    {
        const agent_log log({"IDX"});
        debug_line("f", "monitor", "hidden\n");
        EXPECT_TRUE(log.records().empty());
        EXPECT_EQ(snmp_get_do_debugging(), 1);
    }
    EXPECT_EQ(snmp_get_do_debugging(), 0);
    const agent_log log({"monitor"});
    debug_line("f", "IDX", "hidden\n");
    EXPECT_TRUE(log.records().empty());
    debug_line("f", "monitor", "seen\n");
    EXPECT_TRUE(log.has_debug("monitor", "seen\n"));
}

TEST(agent_log_test, knows_whether_a_trace_line_went_before)
{
    agent_log log({"IDX", "trace"});
    debug_line("get_index", "IDX", "Table is empty\n");
    EXPECT_TRUE(log.traced("IDX", "Table is empty\n", "get_index", "room"));
    EXPECT_TRUE(log.all_traced("IDX", "room"));
    EXPECT_FALSE(log.traced("IDX", "Table is empty\n", "other", "room"));
    EXPECT_FALSE(log.traced("IDX", "Table is empty\n", "get_index", "elsewhere"));
    EXPECT_FALSE(log.traced("IDX", "never said\n", "get_index", "room"));
    EXPECT_FALSE(log.all_traced("monitor", "room"));

    debugmsgtoken("IDX", "%s", "");
    debugmsg("IDX", "bare\n");
    EXPECT_FALSE(log.traced("IDX", "bare\n", "get_index", "room"));
    EXPECT_FALSE(log.all_traced("IDX", "room"));
    log.clear();
    EXPECT_TRUE(log.records().empty());
}

TEST(agent_log_test, does_not_mix_the_lines_of_threads)
{
    const agent_log log({"IDX", "trace"});
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 50; ++i) {
                debug_line("f", "IDX", "line\n");
            }
        });
    }
    for (std::thread &t : threads) {
        t.join();
    }
    EXPECT_EQ(log.count_debug("IDX", "line\n"), 200U);
    EXPECT_TRUE(log.all_traced("IDX", "room"));
    EXPECT_EQ(log.records().size(), 400U);
}

TEST(agent_log_test, waits_for_what_another_thread_logs)
{
    const agent_log log;
    std::thread other([] { snmp_log(LOG_INFO, "ready\n"); });
    EXPECT_TRUE(log.wait_for(LOG_INFO, "ready\n"));
    other.join();
}

TEST(agent_log_test, spells_printf_texts)
{
    EXPECT_EQ(text_of("%s:entry=0x%08x\n", "f", 0xBEEFU), "f:entry=0x0000beef\n");
    EXPECT_EQ(text_of("%s", std::string(5000, 'x').c_str()), std::string(5000, 'x'));
}

// ---- The system --------------------------------------------------------------

TEST(fake_system_test, never_runs_a_command)
{
    const fake_system::scope system_scope;
    const std::string mark = testing::TempDir() + "fake_system_ran_" + std::to_string(getpid());
    EXPECT_EQ(system(("touch " + mark).c_str()), 0);
    EXPECT_NE(access(mark.c_str(), F_OK), 0);
    EXPECT_EQ(fake_system::commands(), std::vector<std::string>{"touch " + mark});
    fake_system::on_system.set([](const char *command) { return system(command) + 7; });
    EXPECT_EQ(system(("touch " + mark).c_str()), 7);
    EXPECT_NE(access(mark.c_str(), F_OK), 0);
}

TEST(fake_system_test, records_sleeps_and_limits)
{
    const fake_system::scope scope;
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(sleep(3600), 0U);
    EXPECT_EQ(sleep(5), 0U);
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(60));
    EXPECT_EQ(fake_system::sleeps(), (std::vector<unsigned>{3600, 5}));

    struct rlimit before_limit = {};
    ASSERT_EQ(getrlimit(RLIMIT_CORE, &before_limit), 0);
    const struct rlimit wanted = {1, 2};
    EXPECT_EQ(setrlimit(RLIMIT_CORE, &wanted), 0);
    struct rlimit after_limit = {};
    ASSERT_EQ(getrlimit(RLIMIT_CORE, &after_limit), 0);
    EXPECT_EQ(after_limit.rlim_cur, before_limit.rlim_cur);
    ASSERT_EQ(fake_system::rlimits().size(), 1U);
    EXPECT_EQ(fake_system::rlimits()[0].resource, static_cast<int>(RLIMIT_CORE));
    EXPECT_EQ(fake_system::rlimits()[0].limit.rlim_max, 2U);
}

TEST(fake_system_test, leads_paths_elsewhere)
{
    const fake_system::scope scope;
    fake_system::redirect_path("/no/such/file", "/dev/null");
    struct stat status = {};
    EXPECT_EQ(stat("/no/such/file", &status), 0);
    FILE *file = fopen("/no/such/file", "r");
    EXPECT_NE(file, nullptr);
    if (file != nullptr) {
        fclose(file);
    }
    fake_system::on_stat.set([](const char *, struct stat *) { return -1; });
    EXPECT_EQ(stat("/", &status), -1);
    EXPECT_EQ(fake_system::on_stat.calls(), 2U);
    EXPECT_EQ(fake_system::on_fopen.calls(), 1U);
}

TEST(fake_system_test, fails_allocations_by_number)
{
    const fake_system::scope scope;
    fake_system::fail_allocation(3, 2);
    void *first = malloc(8);
    void *second = calloc(1, 8);
    EXPECT_NE(first, nullptr);
    EXPECT_NE(second, nullptr);
    void *volatile third = realloc(nullptr, 16);
    EXPECT_EQ(third, nullptr);
    errno = 0;
    EXPECT_EQ(strdup("text"), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    char *fifth = strdup("text");
    EXPECT_STREQ(fifth, "text");
    EXPECT_EQ(fake_system::allocations(), 5U);
    EXPECT_EQ(fake_system::failed_allocations(), 2U);
    free(first);
    free(second);
    free(fifth);
}

TEST(fake_system_test, fails_allocations_by_size)
{
    const fake_system::scope scope;
    fake_system::fail_allocations_from(1000);
    void *volatile small = malloc(999);
    void *volatile large = malloc(1000);
    void *volatile many = calloc(100, 10);
    EXPECT_NE(small, nullptr);
    EXPECT_EQ(large, nullptr);
    EXPECT_EQ(many, nullptr);
    free(small);
    fake_system::allow_allocations();
    large = malloc(1000);
    EXPECT_NE(large, nullptr);
    free(large);
}

TEST(fake_system_test, leaves_helpers_and_cpp_out_of_the_count)
{
    const fake_system::scope scope;
    fake_system::fail_allocation(1, 100);
    char *text = fake_system::heap_text("text");
    void *block = fake_system::heap_block(10);
    const std::vector<int> numbers(1000, 1);
    EXPECT_STREQ(text, "text");
    EXPECT_NE(block, nullptr);
    EXPECT_EQ(numbers.size(), 1000U);
    EXPECT_EQ(fake_system::allocations(), 0U);
    free(text);
    free(block);
}

TEST(fake_system_test, replaces_thread_calls)
{
    const fake_system::scope scope;
    fake_system::on_pthread_create.set(
        [](pthread_t *, const pthread_attr_t *, fake_system::thread_body, void *) { return 11; });
    pthread_t id = {};
    int argument = 0;
    EXPECT_EQ(pthread_create(
                  &id, nullptr, [](void *) -> void * { return nullptr; }, nullptr),
              11);
    fake_system::on_pthread_create.clear();
    ASSERT_EQ(pthread_create(
                  &id, nullptr, [](void *given) -> void * { return given; }, &argument),
              0);
    void *result = nullptr;
    EXPECT_EQ(pthread_join(id, &result), 0);
    EXPECT_EQ(result, &argument);
    EXPECT_EQ(fake_system::on_pthread_create.calls(), 2U);
    EXPECT_EQ(fake_system::on_pthread_join.calls(), 1U);
}

TEST(fake_system_test, fails_one_mutex_and_no_other)
{
    const fake_system::scope scope;
    pthread_mutex_t watched = PTHREAD_MUTEX_INITIALIZER;
    std::mutex other;
    using enum fake_system::mutex_call;
    fake_system::fail_mutex(lock, &watched, 35, 2);
    fake_system::fail_mutex(unlock, &watched, 1);
    fake_system::fail_mutex(init, &watched, 12);
    EXPECT_EQ(pthread_mutex_init(&watched, nullptr), 12);
    EXPECT_EQ(pthread_mutex_lock(&watched), 35);
    {
        const std::lock_guard guard(other);
    }
    EXPECT_EQ(pthread_mutex_lock(&watched), 35);
    EXPECT_EQ(pthread_mutex_lock(&watched), 0);
    EXPECT_EQ(pthread_mutex_unlock(&watched), 1);
    EXPECT_EQ(pthread_mutex_unlock(&watched), 1);
    fake_system::on_pthread_mutex_unlock.clear();
    EXPECT_EQ(pthread_mutex_unlock(&watched), 0);
}

TEST(fake_system_test, lets_a_replacement_call_the_real_function)
{
    const fake_system::scope scope;
    fake_system::on_strdup.set([](const char *text) {
        char *copy = strdup(text);
        copy[0] = '*';
        return copy;
    });
    char *copy = strdup("text");
    EXPECT_STREQ(copy, "*ext");
    EXPECT_EQ(fake_system::on_strdup.calls(), 1U);
    free(copy);
}

TEST(fake_system_test, replaces_the_agents_functions)
{
    const fake_system::scope scope;
    fake_system::set_uptime(1234);
    EXPECT_EQ(netsnmp_get_agent_uptime(), 1234U);
    fake_system::on_netsnmp_register_scalar.set([](netsnmp_handler_registration *r) {
        netsnmp_handler_registration_free(r);
        return 3;
    });
    const oid root[] = {1, 3, 6, 1, 4, 1, 99999};
    netsnmp_handler_registration *registration = netsnmp_create_handler_registration(
        "name", nullptr, root, OID_LENGTH(root), HANDLER_CAN_RONLY);
    ASSERT_NE(registration, nullptr);
    EXPECT_EQ(netsnmp_register_scalar(registration), 3);
    fake_system::on_snmp_alarm_register.set(
        [](unsigned when, unsigned, SNMPAlarmCallback *, void *) { return when + 1; });
    EXPECT_EQ(snmp_alarm_register(
                  41, 0, [](unsigned, void *) {}, nullptr),
              42U);
    fake_system::on_netsnmp_create_handler_registration.set(
        [](const char *, Netsnmp_Node_Handler *, const oid *, size_t, int) {
            return static_cast<netsnmp_handler_registration *>(nullptr);
        });
    EXPECT_EQ(netsnmp_create_handler_registration("name", nullptr, root, OID_LENGTH(root),
                                                  HANDLER_CAN_RONLY),
              nullptr);
}

TEST(fake_system_test, a_scope_puts_everything_back)
{
    {
        const fake_system::scope scope;
        fake_system::fail_allocation(1, 1000);
        fake_system::on_fopen.set([](const char *, const char *) { return nullptr; });
        fake_system::redirect_path("/dev/null", "/no/such/file");
        sleep(1);
        system("true");
    }
    void *volatile block = malloc(8);
    EXPECT_NE(block, nullptr);
    free(block);
    FILE *file = fopen("/dev/null", "r");
    EXPECT_NE(file, nullptr);
    if (file != nullptr) {
        fclose(file);
    }
    EXPECT_TRUE(fake_system::sleeps().empty());
    EXPECT_TRUE(fake_system::commands().empty());
    EXPECT_EQ(fake_system::failed_allocations(), 0U);
}

TEST(fake_system_test, hooks_may_change_while_threads_call)
{
    const fake_system::scope scope;
    std::atomic<bool> end{false};
    std::atomic<unsigned> calls{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            struct stat status = {};
            while (!end) {
                const int rc = stat("/", &status);
                EXPECT_TRUE(rc == 0 || rc == 9);
                ++calls;
            }
        });
    }
    for (int i = 0; i < 200; ++i) {
        fake_system::on_stat.set([](const char *, struct stat *) { return 9; });
        fake_system::on_stat.clear();
    }
    EXPECT_TRUE(fake_system::eventually([&] { return calls > 100; }));
    end = true;
    for (std::thread &t : threads) {
        t.join();
    }
}

TEST(fake_system_test, eventually_gives_up)
{
    EXPECT_FALSE(fake_system::eventually([] { return false; }, std::chrono::milliseconds(5)));
}

// ---- The platform ------------------------------------------------------------

struct listing {
    int rc = 0;
    uint32_t count = 0;
    std::vector<std::string> names;
};

listing list(const char *name, int mode)
{
    listing out;
    capi_inventory_record *items = nullptr;
    out.rc = capi_get_inventory(name, mode, &out.count, &items);
    if (out.rc == 0) {
        for (uint32_t i = 0; i < out.count; ++i) {
            out.names.emplace_back(items[i].nac_name_length != 0 ? items[i].nac_name : "(none)");
        }
        capi_free_inventory(items, out.count);
    }
    return out;
}

using names = std::vector<std::string>;

TEST(fake_platform_test, lists_subtrees_in_the_order_given)
{
    fake_platform platform;
    platform->components = {component("/SYS", 3), component("/SYS/MB", 1), component("/SYS/MBX", 1),
                            nameless_component(9), component("/SYS/MB/P0", 1)};
    EXPECT_EQ(list("/", CAPI_INVENTORY_ROOT).names, (names{"/", "/SYS"}));
    EXPECT_EQ(list("/SYS", CAPI_INVENTORY_SUBTREE).names,
              (names{"/SYS", "/SYS/MB", "/SYS/MBX", "(none)", "/SYS/MB/P0"}));
    EXPECT_EQ(list("/SYS/MB", CAPI_INVENTORY_SUBTREE).names, (names{"/SYS/MB", "/SYS/MB/P0"}));
    EXPECT_NE(list("/SYS/NO", CAPI_INVENTORY_SUBTREE).rc, 0);
    EXPECT_NE(list("/SYS", 3).rc, 0);
    EXPECT_EQ(platform.lists_handed_out(), 3U);
    EXPECT_TRUE(platform.all_lists_released());
}

TEST(fake_platform_test, hands_out_whole_records)
{
    fake_platform platform;
    platform->components = {
        component("/SYS", 59,
                  {{CAPI_CAP_HOLDER_BYTE, CAPI_CAP_HOLDER},
                   {CAPI_CAP_FIELD_REPLACEABLE_BYTE, CAPI_CAP_FIELD_REPLACEABLE},
                   {CAPI_CAP_RESETTABLE_BYTE, CAPI_CAP_RESETTABLE}}),
        nameless_component(7)};
    uint32_t count = 0;
    capi_inventory_record *items = nullptr;
    ASSERT_EQ(capi_get_inventory("/SYS", CAPI_INVENTORY_SUBTREE, &count, &items), 0);
    ASSERT_EQ(count, 2U);
    EXPECT_EQ(items[0].nac_name_length, 4U);
    EXPECT_EQ(items[0].component_type, 59U);
    EXPECT_EQ(items[0].capabilities[2], 0x0a);
    EXPECT_EQ(items[0].capabilities[9], 0x01);
    EXPECT_EQ(items[1].nac_name, nullptr);
    EXPECT_EQ(items[1].nac_name_length, 0U);
    EXPECT_EQ(items[1].component_type, 7U);
    EXPECT_FALSE(platform.all_lists_released());
    capi_free_inventory(items, count);
    EXPECT_TRUE(platform.all_lists_released());
}

TEST(fake_platform_test, notices_wrong_releases)
{
    fake_platform platform;
    platform->components = {component("/SYS", 3)};
    uint32_t count = 0;
    capi_inventory_record *items = nullptr;
    ASSERT_EQ(capi_get_inventory("/SYS", CAPI_INVENTORY_SUBTREE, &count, &items), 0);
    capi_free_inventory(items, count + 1);
    EXPECT_FALSE(platform.all_lists_released());

    {
        auto server = platform.locked();
        server->lists["/SYS/X"] = {component("/SYS/X", 1)};
    }
    ASSERT_EQ(capi_get_inventory("/SYS/X", CAPI_INVENTORY_SUBTREE, &count, &items), 0);
    capi_free_inventory(items, count);
    capi_free_inventory(items, count);
    EXPECT_NE(std::string(platform.all_lists_released().message()).find("not out"),
              std::string::npos);
}

TEST(fake_platform_test, inventory_comes_late_and_counts_can_lie)
{
    fake_platform platform;
    platform->components = {component("/SYS", 3)};
    platform->inventory_after = 2;
    EXPECT_NE(list("/", CAPI_INVENTORY_ROOT).rc, 0);
    EXPECT_NE(list("/", CAPI_INVENTORY_ROOT).rc, 0);
    EXPECT_EQ(list("/", CAPI_INVENTORY_ROOT).rc, 0);
    platform->count_override = 4000000000U;
    uint32_t count = 0;
    capi_inventory_record *items = nullptr;
    ASSERT_EQ(capi_get_inventory("/SYS", CAPI_INVENTORY_SUBTREE, &count, &items), 0);
    EXPECT_EQ(count, 4000000000U);
    capi_free_inventory(items, count);
    EXPECT_TRUE(platform.all_lists_released());
    EXPECT_EQ(platform.calls("capi_get_inventory", "/"), 3U);
    EXPECT_EQ(platform.calls("capi_get_inventory"), 4U);
}

TEST(fake_platform_test, answers_live_state_by_name)
{
    fake_platform platform;
    platform->sensors["/T"] = threshold_sensor(CAPI_SENSOR_TEMPERATURE, 21.5F);
    platform->indicators["/L"] = indicator(CAPI_INDICATOR_SLOW_BLINK);
    platform->power_states["/P"] = CAPI_POWER_STANDBY;
    platform->ready_to_remove["/P"] = CAPI_NOT_READY_TO_REMOVE;
    platform->enable_states["/P"] = {CAPI_DISABLED, "a rather long reason for it"};
    platform->ok_semantics = {"/T"};
    set_text(platform->frus["/P"].alias, "name");

    capi_sensor_record sensor = {};
    EXPECT_EQ(capi_get_sensor(0, "/T", &sensor), 0);
    EXPECT_EQ(sensor.reading, 21.5F);
    capi_sensor_record info = {};
    EXPECT_EQ(capi_get_sensor_info("/T", CAPI_SENSOR_INFO_ALL, &info), 0);
    EXPECT_EQ(info.sensor_type, CAPI_SENSOR_TEMPERATURE);
    EXPECT_NE(capi_get_sensor_info("/T", 0, &info), 0);
    EXPECT_EQ(capi_is_sensor_with_OK_semantics("/T"), 1);
    EXPECT_EQ(capi_is_sensor_with_OK_semantics("/U"), 0);
    capi_indicator_record led = {};
    EXPECT_EQ(capi_get_indicator(0, "/L", &led), 0);
    EXPECT_EQ(led.state, CAPI_INDICATOR_SLOW_BLINK);
    int32_t state = 0;
    EXPECT_EQ(capi_get_power_state(0, "/P", &state), 0);
    EXPECT_EQ(state, CAPI_POWER_STANDBY);
    EXPECT_EQ(capi_get_rdy2rm_status(0, "/P", &state), 0);
    EXPECT_EQ(state, CAPI_NOT_READY_TO_REMOVE);
    char why[20];
    EXPECT_EQ(capi_get_enable_disable_state("/P", &state, why, sizeof why), 0);
    EXPECT_EQ(state, CAPI_DISABLED);
    EXPECT_STREQ(why, "a rather long reaso");
    capi_fru_record fru = {};
    EXPECT_EQ(capi_get_fru_info("/P", &fru), 0);
    EXPECT_STREQ(fru.alias, "name");
    EXPECT_NE(capi_get_fru_info("/Q", &fru), 0);
    EXPECT_NE(capi_get_power_state(0, "/Q", &state), 0);
}

TEST(fake_platform_test, answers_types_and_identity)
{
    fake_platform platform;
    platform->sensor_types = {30};
    platform->indicator_types = {31};
    platform->descriptions[30] = "temperature";
    platform->descriptions[31] = std::nullopt;
    set_text(platform->product.model, "model");
    set_text(platform->chassis.manufacturer, std::string(200, 'm'));
    platform->product_vantor_id = "p1";
    int32_t flag = -1;
    EXPECT_EQ(capi_is_sensor_type(30, &flag), 0);
    EXPECT_EQ(flag, 1);
    EXPECT_EQ(capi_is_indicator_type(30, &flag), 0);
    EXPECT_EQ(flag, 0);
    const char *text = nullptr;
    EXPECT_EQ(capi_get_component_desc_str(30, &text), 0);
    EXPECT_STREQ(text, "temperature");
    EXPECT_EQ(capi_get_component_desc_str(31, &text), 0);
    EXPECT_EQ(text, nullptr);
    capi_product_record product = {};
    EXPECT_EQ(capi_get_product_ops_info(0, &product), 0);
    EXPECT_STREQ(product.model, "model");
    capi_chassis_record chassis = {};
    EXPECT_EQ(capi_get_chassis_ops_info(&chassis), 0);
    EXPECT_EQ(std::string(chassis.manufacturer), std::string(79, 'm'));
    char id[51];
    EXPECT_EQ(capi_get_product_vantor_id(id, sizeof id), 0);
    EXPECT_STREQ(id, "p1");
    EXPECT_EQ(platform.calls("capi_get_product_vantor_id", "51"), 1U);
    platform->fail["capi_get_chassis_vantor_id"] = 5;
    EXPECT_EQ(capi_get_chassis_vantor_id(id, sizeof id), 5);
}

TEST(fake_platform_test, fails_by_call_and_by_name_and_spoils_the_answer)
{
    fake_platform platform;
    platform->power_states = {{"/A", 1}, {"/B", 2}};
    platform->fail_for["capi_get_power_state"]["/A"] = -7;
    int32_t state = 0;
    EXPECT_EQ(capi_get_power_state(0, "/A", &state), -7);
    EXPECT_EQ(static_cast<uint32_t>(state), 0xA5A5A5A5U);
    EXPECT_EQ(capi_get_power_state(0, "/B", &state), 0);
    EXPECT_EQ(state, 2);
    platform->fail["capi_get_power_state"] = -9;
    platform->fail_for["capi_get_power_state"]["/A"] = 0;
    EXPECT_EQ(capi_get_power_state(0, "/A", &state), 0);
    EXPECT_EQ(capi_get_power_state(0, "/B", &state), -9);
    platform->fail_for["capi_is_sensor_type"]["30"] = 4;
    int32_t flag = 0;
    EXPECT_EQ(capi_is_sensor_type(30, &flag), 4);
    EXPECT_EQ(capi_is_sensor_type(31, &flag), 0);
}

struct received {
    int event_class = 0, event = 0;
    std::string payload;
    std::thread::id thread;
};

void receive(void *context, int event_class, int event, const char *payload)
{
    static_cast<std::vector<received> *>(context)->push_back(
        {event_class, event, payload != nullptr ? payload : "(null)", std::this_thread::get_id()});
}

TEST(fake_platform_test, hands_out_handles_and_records_subscriptions)
{
    fake_platform platform;
    std::vector<received> events;
    EXPECT_FALSE(platform.deliver(105, 2, "/SYS"));
    platform->handle_failures = 2;
    platform->subscription_failures[3] = 17;
    event_mgr_handle handle = 0;
    EXPECT_NE(event_mgr_get_handle(&handle, receive, &events), 0);
    EXPECT_NE(event_mgr_get_handle(&handle, receive, &events), 0);
    ASSERT_EQ(event_mgr_get_handle(&handle, receive, &events), 0);
    EXPECT_NE(handle, 0U);
    EXPECT_EQ(platform.handle(), handle);
    EXPECT_EQ(event_mgr_subscribe_event_class(handle, 105), 0);
    EXPECT_EQ(event_mgr_subscribe_event(handle, 105, 2), 0);
    EXPECT_EQ(event_mgr_subscribe_event(handle, 105, 3), 17);
    EXPECT_NE(event_mgr_subscribe_event(handle + 1, 105, 3), 0);
    const std::vector<fake_subscription> expected = {{handle, 105, std::nullopt, 0},
                                                     {handle, 105, 2, 0},
                                                     {handle, 105, 3, 17},
                                                     {handle + 1, 105, 3, -1}};
    EXPECT_EQ(platform.subscriptions(), expected);
    EXPECT_EQ(platform.calls("event_mgr_get_handle"), 3U);

    event_mgr_handle second = 0;
    ASSERT_EQ(event_mgr_get_handle(&second, receive, &events), 0);
    EXPECT_NE(second, handle);
    EXPECT_EQ(event_mgr_subscribe_event_class(second, 105), 0);
}

TEST(fake_platform_test, delivers_on_this_thread_or_another)
{
    fake_platform platform;
    std::vector<received> events;
    event_mgr_handle handle = 0;
    ASSERT_EQ(event_mgr_get_handle(&handle, receive, &events), 0);
    EXPECT_TRUE(platform.deliver(105, 3, "/SYS/MB"));
    EXPECT_TRUE(platform.deliver_on_thread(-1, -1, nullptr));
    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(events[0].event_class, 105);
    EXPECT_EQ(events[0].event, 3);
    EXPECT_EQ(events[0].payload, "/SYS/MB");
    EXPECT_EQ(events[0].thread, std::this_thread::get_id());
    EXPECT_EQ(events[1].payload, "(null)");
    EXPECT_NE(events[1].thread, std::this_thread::get_id());
}

TEST(fake_platform_test, data_may_change_while_threads_call)
{
    fake_platform platform;
    platform->record_calls = false;
    platform->components = {component("/SYS", 3)};
    std::atomic<unsigned> seen_by_hook{0};
    platform->on_call = [&](const fake_call &call) {
        seen_by_hook += call.function == "capi_get_inventory" ? 1U : 0U;
    };
    std::atomic<bool> end{false};
    std::atomic<unsigned> lists{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            while (!end) {
                const listing now = list("/SYS", CAPI_INVENTORY_SUBTREE);
                EXPECT_TRUE(now.names == names{"/SYS"} || now.names == (names{"/SYS", "/SYS/MB"}));
                ++lists;
            }
        });
    }
    for (int i = 0; i < 100; ++i) {
        platform->components.push_back(component("/SYS/MB", 1));
        platform->components.pop_back();
    }
    EXPECT_TRUE(fake_system::eventually([&] { return lists > 50; }));
    end = true;
    for (std::thread &t : threads) {
        t.join();
    }
    platform->on_call = nullptr;
    EXPECT_EQ(platform.calls("capi_get_inventory"), lists);
    EXPECT_EQ(seen_by_hook, lists);
    EXPECT_TRUE(platform.all_calls().empty());
    EXPECT_TRUE(platform.all_lists_released());
}

TEST(fake_platform_test, without_an_object_every_call_fails)
{
    int32_t state = 0;
    EXPECT_NE(capi_get_power_state(0, "/A", &state), 0);
    EXPECT_NE(list("/", CAPI_INVENTORY_ROOT).rc, 0);
    event_mgr_handle handle = 0;
    EXPECT_NE(event_mgr_get_handle(&handle, receive, nullptr), 0);
}

} // namespace

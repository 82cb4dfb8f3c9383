// Who watches: what is worth telling, a look at all rows, and the thread.
#include "watch/watcher.h"

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

#include "kavdata/codes.h"
#include "kavdata/live.h"
#include "rooms/platform_tables.h"
#include "watch/look.h"

// A fork that goes on as an agent starts the thread anew.
extern "C" __attribute__((visibility("default"))) const char *__tsan_default_options()
{
    return "die_after_fork=0";
}

namespace
{

using namespace std::chrono_literals;
namespace severities = kavplat::kavPlatEquipmentSeverity;
using kavplat::judge_config_change;
using kavplat::judge_severity;
using kavplat::look_at;
using kavplat::oper_notice;
using kavplat::severity_change;
using kavplat::severity_notice;

enum : int32_t {
    critical = severities::critical,
    major = severities::major,
    unread = severities::indeterminate,
    warning = severities::warning,
    cleared = severities::cleared
};

// ---- What is worth telling ----

struct course {
    const char *name;
    std::vector<int32_t> seen;
    std::vector<severity_change> told;
};

class severities_seen : public testing::TestWithParam<course>
{
};

INSTANTIATE_TEST_SUITE_P(
    , severities_seen,
    testing::Values(course{"at_a_start_nothing", {cleared, cleared}, {}},
                    course{"at_a_start_what_is_raised", {warning, warning}, {{cleared, warning}}},
                    course{"critical_at_once", {cleared, critical}, {{cleared, critical}}},
                    course{"once_is_not_enough", {cleared, warning, cleared, major, cleared}, {}},
                    course{"swinging_about_a_limit",
                           {cleared, major, cleared, major, cleared, major, cleared},
                           {}},
                    course{"swinging_about_the_gravest",
                           {critical, cleared, critical, cleared, critical},
                           {{cleared, critical}}},
                    course{"no_more_than_two_looks_saw",
                           {warning, major, major},
                           {{cleared, warning}, {warning, major}}},
                    course{"no_less_than_two_looks_saw",
                           {critical, major, cleared, cleared},
                           {{cleared, critical}, {critical, major}, {major, cleared}}},
                    course{"unread_counts_for_nothing",
                           {warning, unread, unread, warning, unread, cleared, unread, cleared},
                           {{cleared, warning}, {warning, cleared}}}),
    [](const auto &info) { return info.param.name; });

TEST_P(severities_seen, are_told)
{
    severity_memory memory = {};
    std::vector<severity_change> told;
    for (const int32_t seen : GetParam().seen) {
        if (const auto change = judge_severity(memory, seen)) {
            told.push_back(*change);
        }
    }
    EXPECT_EQ(told, GetParam().told);
}

// Whatever is seen: what is told is where it was, goes where two looks or a critical one
// lead, and reaches whatever lasts.
TEST(severities, of_any_course_are_told_by_the_rules)
{
    constexpr int32_t all[] = {critical, major, warning, cleared, unread};
    std::mt19937 random(7);
    severity_memory memory = {};
    int32_t told = cleared;
    std::vector<int32_t> looks = {cleared};
    for (int i = 0; i < 100000; i++) {
        const int32_t seen = all[random() % std::size(all)];
        const auto change = judge_severity(memory, seen);
        if (seen == unread) {
            ASSERT_FALSE(change);
            continue;
        }
        const int32_t before = looks.back();
        looks.push_back(seen);
        if (change) {
            ASSERT_EQ(change->before, told);
            ASSERT_NE(change->after, told);
            const bool graver = change->after < told;
            const auto leads = [&](int32_t look) {
                return graver ? look <= change->after : look >= change->after;
            };
            ASSERT_TRUE(seen == critical ? change->after == critical : leads(before) && leads(seen))
                << "told " << told << ", then " << before << " and " << seen << " gave "
                << change->after;
            told = change->after;
        }
        if (seen == critical || seen == before) {
            ASSERT_EQ(told, seen) << "it lasts";
        }
    }
}

TEST(config_changes, of_any_course_are_told_five_seconds_apart_and_the_last_one_never_lost)
{
    std::mt19937 random(11);
    for (const uint32_t start : {100U, UINT32_MAX - 100000U}) {
        kavplat::config_change_memory memory;
        memory.told_change = start;
        uint32_t now = start;
        uint32_t last_change = start;
        uint32_t told_at = 0;
        bool was_told = false;
        unsigned told = 0;
        for (int i = 0; i < 20000; i++) {
            now += static_cast<uint32_t>(1 + random() % 200);
            // Spells of changes, and spells without.
            if (i / 50 % 2 == 0 && random() % 3 == 0) {
                last_change = now;
            }
            if (judge_config_change(memory, last_change, now)) {
                ASSERT_TRUE(!was_told || now - told_at >= 500);
                ASSERT_EQ(memory.told_change, last_change);
                was_told = true;
                told_at = now;
                told++;
            } else if (memory.told_change != last_change) {
                ASSERT_LT(now - told_at, 500U) << "it waits without a reason";
            }
        }
        EXPECT_GT(told, 100U);
        judge_config_change(memory, last_change, now + 500);
        EXPECT_EQ(memory.told_change, last_change);
    }
}

TEST(config_changes, of_a_start_are_none)
{
    kavplat::config_change_memory memory;
    memory.told_change = 3;
    EXPECT_FALSE(judge_config_change(memory, 3, 100000));
    EXPECT_TRUE(judge_config_change(memory, 4, 4));
}

// ---- A look at all rows ----

constexpr uint32_t sensor_type = 30;
constexpr uint32_t indicator_type = 31;
constexpr char sensor_name[] = "/SYS/MB/T0";

class watching : public cache_test
{
  protected:
    kavplat::look_memory memory;
    std::vector<kavplat::notice> found;

    watching()
    {
        memory.tells_oper = true;
        kavplat::renew_no_more();
    }
    ~watching() override { kavplat::renew_no_more(); }

    // A board with a sensor of volts: warning from 12.5 on, critical from 14.
    void build_board()
    {
        platform->sensor_types = {sensor_type, CAPI_TYPE_FAULT_SENSOR};
        platform->indicator_types = {indicator_type};
        platform->components = {
            component("/SYS", plain),
            component("/SYS/MB", plain),
            component(sensor_name, sensor_type,
                      {{CAPI_CAP_ENABLE_STATE_BYTE, CAPI_CAP_ENABLE_STATE}}),
            component("/SYS/MB/LED", indicator_type),
            component("/SYS/DISK", plain,
                      {{CAPI_CAP_FIELD_REPLACEABLE_BYTE, CAPI_CAP_FIELD_REPLACEABLE},
                       {CAPI_CAP_ENABLE_STATE_BYTE, CAPI_CAP_ENABLE_STATE}}),
            component("/SYS/BAY", CAPI_TYPE_DRIVE_BAY,
                      {{CAPI_CAP_POWER_BYTE, CAPI_CAP_POWER_READABLE}})};
        say(12);
        platform->indicators["/SYS/MB/LED"] = indicator(CAPI_INDICATOR_ON);
        platform->ready_to_remove["/SYS/DISK"] = CAPI_READY_TO_REMOVE;
        platform->power_states["/SYS/BAY"] = CAPI_POWER_ON;
        platform->enable_states[sensor_name] = {CAPI_ENABLED, ""};
        platform->enable_states["/SYS/DISK"] = {CAPI_ENABLED, ""};
        init_local_cache();
    }

    void say(float reading)
    {
        capi_sensor_record record = threshold_sensor(0, reading);
        record.units = CAPI_UNITS_VOLTS;
        record.upper_non_critical = 12.5F;
        record.upper_critical = 13;
        record.upper_fatal = 14;
        record.flags = CAPI_UPPER_NON_CRITICAL_VALID | CAPI_UPPER_FATAL_VALID;
        platform->sensors[sensor_name] = record;
    }

    bool look(look_at which = look_at::all_rows)
    {
        return kavplat::look(
            memory, which, [] { return true; }, found);
    }

    // What a look with this reading tells of severities, as "before>after".
    std::string told_at(float reading)
    {
        say(reading);
        return told();
    }
    std::string told()
    {
        found.clear();
        pass(1000);
        look();
        std::string all;
        for (const kavplat::notice &n : found) {
            if (const auto *s = std::get_if<severity_notice>(&n)) {
                all += text_of("%u %s in %s: %d>%d", s->index, s->name.c_str(),
                               s->container.c_str(), s->change.before, s->change.after);
                if (s->reading) {
                    all += text_of(", %d e-%d %s", s->reading->value, s->reading->precision,
                                   s->reading->display);
                    all += s->reading->limit ? text_of(" at %d", *s->reading->limit) : "";
                }
                all += "\n";
            }
        }
        return all;
    }

    static void pass(uint32_t hundredths)
    {
        fake_system::set_uptime(netsnmp_get_agent_uptime() + hundredths);
    }

    size_t all_calls() { return platform.all_calls().size(); }

    // Whatever a request wants to read: all columns of all tables, and the states.
    static void request_everything()
    {
        for (const platform_table &table : platform_tables) {
            table_steps steps(table.first, table.next, table.indexes);
            for (bool more = steps.first(); more; more = steps.next()) {
                for (unsigned c = table.min_column; c <= table.max_column; c++) {
                    served(table.handler, c, steps.row());
                }
            }
        }
        const cache_lock_held lock;
        kavplat::end_agent_pass();
        for (uint32_t i = 1; i <= maxPhysicalIndex; i++) {
            kavplat::look_at_states(*kavplat::entry_at(i));
        }
    }
};

TEST_F(watching, asks_for_every_live_value_and_without_the_cache_lock)
{
    build_board();
    platform.forget_calls();
    unsigned asked = 0;
    platform->on_call = [&](const fake_call &call) {
        EXPECT_EQ(pthread_mutex_trylock(&fru_mutex), 0) << call.function << " " << call.name;
        pthread_mutex_unlock(&fru_mutex);
        asked++;
    };
    EXPECT_TRUE(look());
    EXPECT_EQ(asked, 6U);
    EXPECT_EQ(platform.calls("capi_get_sensor", sensor_name), 1U);
    EXPECT_EQ(platform.calls("capi_get_indicator", "/SYS/MB/LED"), 1U);
    EXPECT_EQ(platform.calls("capi_get_rdy2rm_status", "/SYS/DISK"), 1U);
    EXPECT_EQ(platform.calls("capi_get_power_state", "/SYS/BAY"), 1U);
    EXPECT_EQ(platform.calls("capi_get_enable_disable_state", sensor_name), 1U);
    EXPECT_EQ(platform.calls("capi_get_enable_disable_state", "/SYS/DISK"), 1U);
    EXPECT_EQ(row(sensor_name)->numericSensorCol4, 12000);
    EXPECT_EQ(row("/SYS/MB/LED")->alarmCol2, kavplat::kavPlatAlarmState::steady);
    EXPECT_EQ(row("/SYS/DISK")->equipmentCol1, kavplat::kavPlatEquipmentAdminState::locked);
    EXPECT_EQ(row("/SYS/BAY")->holderCol4, kavplat::kavPlatHolderPowerState::on);
}

TEST_F(watching, lets_requests_find_what_it_found_until_it_has_ceased_to)
{
    build_board();
    look();
    kavplat::rest_for(memory, 6000);
    platform.forget_calls();
    pass(6900);
    request_everything();
    EXPECT_EQ(all_calls(), 0U) << "69 seconds later, of 60 that it rests and 10 for a call";
    pass(101);
    request_everything();
    EXPECT_EQ(all_calls(), 6U) << "it is late";
}

TEST_F(watching, keeps_what_it_found_good_while_a_look_takes_long)
{
    build_board();
    look();
    kavplat::rest_for(memory, 1000);
    pass(1500);
    platform.forget_calls();
    unsigned rows = 0;
    kavplat::look(
        memory, look_at::all_rows,
        [&] {
            if (++rows == 1) {
                // The first row is read anew, the others are from the look before.
                const size_t before = all_calls();
                pass(900);
                request_everything();
                EXPECT_EQ(all_calls(), before);
                pass(200); // a call that takes longer than anybody waits
                request_everything();
                EXPECT_EQ(all_calls(), before + 6);
            }
            return true;
        },
        found);
    EXPECT_EQ(rows, 4U);
}

// A row may take five calls, and each may take as long as anybody waits for one.
TEST_F(watching, keeps_what_it_found_good_between_the_calls_for_one_row)
{
    platform->sensor_types = {CAPI_TYPE_FAULT_SENSOR};
    platform->components = {
        component("/SYS", plain),
        component("/SYS/S", CAPI_TYPE_FAULT_SENSOR,
                  {{CAPI_CAP_FIELD_REPLACEABLE_BYTE, CAPI_CAP_FIELD_REPLACEABLE},
                   {CAPI_CAP_ENABLE_STATE_BYTE, CAPI_CAP_ENABLE_STATE}})};
    platform->sensors["/SYS/S"] = discrete_sensor(0, 1);
    platform->enable_states["/SYS/S"] = {CAPI_ENABLED, ""};
    platform->power_states["/SYS/S"] = CAPI_POWER_ON;
    platform->fail["capi_get_rdy2rm_status"] = -1;
    init_local_cache();
    look();
    std::string asked;
    platform->on_call = [&](const fake_call &call) {
        asked += call.function + ' ';
        pass(900);
        const cache_lock_held lock;
        EXPECT_TRUE(kavplat::is_renewed(memory.since, kavplat::agent_uptime())) << asked;
    };
    look();
    EXPECT_EQ(asked, "capi_get_sensor capi_is_sensor_with_OK_semantics "
                     "capi_get_enable_disable_state capi_get_rdy2rm_status capi_get_power_state ");
}

TEST_F(watching, leaves_what_nobody_asked_for_yet_to_requests)
{
    build_board();
    look();
    kavplat::rest_for(memory, 6000);
    platform->sensors["/SYS/MB/T1"] = threshold_sensor(0, 5);
    plug({"/SYS/MB/T1"}, sensor_type);
    insert("/SYS/MB/T1");
    platform.forget_calls();
    {
        const cache_lock_held lock;
        EXPECT_EQ(snmp_read_sensor(row("/SYS/MB/T1")), 0);
    }
    EXPECT_EQ(platform.calls("capi_get_sensor", "/SYS/MB/T1"), 1U);
}

TEST_F(watching, at_new_rows_asks_for_those_alone)
{
    build_board();
    look();
    platform->sensors["/SYS/MB/T1"] = threshold_sensor(0, 5);
    plug({"/SYS/MB/T1"}, sensor_type);
    insert("/SYS/MB/T1");
    platform.forget_calls();
    EXPECT_TRUE(look(look_at::new_rows));
    EXPECT_EQ(all_calls(), 1U);
    EXPECT_EQ(platform.calls("capi_get_sensor", "/SYS/MB/T1"), 1U);
}

// While the platform is asked, all rows are built anew and the index is another's.
TEST_F(watching, applies_an_answer_to_the_row_of_that_name_only)
{
    build_board();
    const uint32_t index = row(sensor_name)->entPhysicalIndex;
    platform->sensors["/SYS/OTHER"] = threshold_sensor(0, 5);
    bool is_first = true;
    platform->on_call = [&](const fake_call &call) {
        if (call.function == "capi_get_sensor" && std::exchange(is_first, false)) {
            {
                const cache_lock_held lock;
                kavplat::drop_cache();
            }
            platform->components = {component("/SYS", plain), component("/SYS/MB", plain),
                                    component("/SYS/OTHER", sensor_type)};
            init_local_cache();
        }
    };
    EXPECT_TRUE(look());
    platform->on_call = nullptr;
    ASSERT_EQ(row("/SYS/OTHER")->entPhysicalIndex, index);
    EXPECT_EQ(row("/SYS/OTHER")->look.outcome, LOOK_NONE);
    EXPECT_EQ(row("/SYS/OTHER")->numericSensorCol4, 0);
}

TEST_F(watching, applies_no_answer_to_a_namesake_that_came_in_the_row_s_place)
{
    build_board();
    const uint32_t index = row(sensor_name)->entPhysicalIndex;
    bool is_first = true;
    platform->on_call = [&](const fake_call &call) {
        if (call.function == "capi_get_sensor" && std::exchange(is_first, false)) {
            {
                const cache_lock_held lock;
                kavplat::drop_cache();
            }
            init_local_cache();
        }
    };
    EXPECT_TRUE(look());
    platform->on_call = nullptr;
    ASSERT_EQ(row(sensor_name)->entPhysicalIndex, index);
    EXPECT_EQ(row(sensor_name)->look.outcome, LOOK_NONE);
}

TEST_F(watching, logs_a_failure_when_it_begins)
{
    build_board();
    platform->fail_for["capi_get_sensor"][sensor_name] = -7;
    platform->fail_for["capi_get_indicator"]["/SYS/MB/LED"] = -7;
    const agent_log log;
    const std::string of_sensor = "snmp_read_sensor:FAILED:capi_get_sensor /SYS/MB/T0, status=-7\n";
    const std::string of_led = "snmp_read_led:FAILED:capi_get_indicator(/SYS/MB/LED)\n";
    for (int i = 0; i < 3; i++) {
        pass(1000);
        look();
        request_everything();
    }
    EXPECT_EQ(log.count(LOG_ERR, of_sensor), 1U);
    EXPECT_EQ(log.count(LOG_ERR, of_led), 1U);
    platform->fail_for.clear();
    look();
    platform->fail_for["capi_get_sensor"][sensor_name] = -7;
    look();
    EXPECT_EQ(log.count(LOG_ERR, of_sensor), 2U);
    {
        const cache_lock_held lock;
        EXPECT_EQ(snmp_read_sensor(row(sensor_name)), -1) << "it is known to have failed";
    }
}

TEST_F(watching, tells_of_a_severity_with_names_reading_and_limit)
{
    build_board();
    EXPECT_EQ(told_at(12), "");
    EXPECT_EQ(told_at(12.75F), "") << "the first look that sees it";
    EXPECT_EQ(told_at(12.8F), "3 /SYS/MB/T0 in /SYS/MB: 7>5, 12800 e-3 volts at 12500\n");
    EXPECT_EQ(told_at(14), "3 /SYS/MB/T0 in /SYS/MB: 5>1, 14000 e-3 volts at 14000\n");
    EXPECT_EQ(told_at(13.5F), "");
    EXPECT_EQ(told_at(13.5F), "3 /SYS/MB/T0 in /SYS/MB: 1>5, 13500 e-3 volts at 12500\n");
    EXPECT_EQ(told_at(12), "");
    EXPECT_EQ(told_at(12), "3 /SYS/MB/T0 in /SYS/MB: 5>7, 12000 e-3 volts at 12500\n");
    EXPECT_EQ(told_at(12), "");
}

// The numeric table cuts both: 12 of 12.5.
TEST_F(watching, compares_a_reading_with_its_limits_as_they_were_given)
{
    build_board();
    platform->sensors[sensor_name].raw_reading = 12;
    EXPECT_EQ(told(), "");
    EXPECT_EQ(told(), "");
    EXPECT_EQ(row(sensor_name)->numericSensorCol4, 12);
    EXPECT_EQ(row(sensor_name)->numericSensorCol11, 12);
}

TEST_F(watching, takes_what_cannot_be_read_as_it_was)
{
    build_board();
    EXPECT_NE(told_at(15), "");
    platform->fail_for["capi_get_sensor"][sensor_name] = -7;
    EXPECT_EQ(told(), "");
    EXPECT_EQ(told(), "");
    platform->fail_for.clear();
    platform->enable_states[sensor_name] = {CAPI_DISABLED, ""};
    EXPECT_EQ(told_at(12), "");
    EXPECT_EQ(told_at(12), "") << "a disabled sensor says nothing";
    platform->enable_states[sensor_name] = {CAPI_ENABLED, ""};
    EXPECT_EQ(told_at(12), "");
    EXPECT_NE(told_at(12), "");
}

TEST_F(watching, clears_what_is_gone)
{
    build_board();
    EXPECT_NE(told_at(15), "");
    remove("/SYS/MB");
    EXPECT_EQ(told(), "3 /SYS/MB/T0 in /SYS/MB: 1>7\n");
    EXPECT_EQ(told(), "");
}

// With a file of indexes the one that comes has the index of the one that went.
TEST_F(watching, clears_what_was_swapped_for_one_that_is_well)
{
    char directory[] = "/tmp/kavplat-watch-XXXXXX";
    ASSERT_NE(mkdtemp(directory), nullptr);
    setenv("KAVPLAT_INDEX_FILE", (std::string(directory) + "/indexes").c_str(), 1);
    reset();
    build_board();
    unsetenv("KAVPLAT_INDEX_FILE");
    EXPECT_NE(told_at(15), "");
    const uint32_t index = row(sensor_name)->entPhysicalIndex;
    remove("/SYS/MB");
    say(12);
    insert("/SYS/MB");
    ASSERT_EQ(row(sensor_name)->entPhysicalIndex, index);
    EXPECT_EQ(told(), "3 /SYS/MB/T0 in /SYS/MB: 1>7\n");
    EXPECT_EQ(told(), "");
    std::filesystem::remove_all(directory);
}

TEST_F(watching, notes_what_an_indicator_raises_when_it_came_and_sends_nothing)
{
    time_t now = 1000;
    fake_system::on_time.set([&now](time_t *) { return now; });
    platform->meanings = {{"/SYS/MB/LED", CAPI_MEANS_SERVICE}};
    build_board();
    platform->indicators["/SYS/MB/LED"] = indicator(CAPI_INDICATOR_OFF);
    look();
    const noted_states &noted = row("/SYS/MB")->noted;
    EXPECT_EQ(noted.states.alarm, 0U);
    EXPECT_EQ(noted.since, 1000);
    for (const bool is_on : {true, false}) {
        platform->indicators["/SYS/MB/LED"] =
            indicator(is_on ? CAPI_INDICATOR_FAST_BLINK : CAPI_INDICATOR_OFF);
        now++;
        pass(1000);
        look();
        EXPECT_EQ(noted.states.alarm, is_on ? 0x04U : 0U);
        EXPECT_EQ(noted.since, now);
        EXPECT_TRUE(found.empty());
    }
}

TEST_F(watching, tells_when_a_component_no_longer_works)
{
    build_board();
    look();
    EXPECT_TRUE(found.empty());
    platform->enable_states["/SYS/DISK"] = {CAPI_DISABLED, ""};
    for (const bool tells : {true, false}) {
        memory.tells_oper = tells;
        pass(1000);
        look();
        ASSERT_EQ(found.size(), tells ? 1U : 0U);
        if (tells) {
            const auto &n = std::get<oper_notice>(found.front());
            EXPECT_EQ(n.index, row("/SYS/DISK")->entPhysicalIndex);
            EXPECT_FALSE(n.is_enabled);
            EXPECT_EQ(n.admin, kavplat::entStateAdmin::locked);
            EXPECT_EQ(n.alarm, 0);
        }
        found.clear();
        platform->enable_states["/SYS/DISK"] = {CAPI_ENABLED, ""};
    }
}

// ---- The thread ----

class watcher : public watching
{
  protected:
    SNMPAlarmCallback *alarm = nullptr;
    // The last number of each notification's name, and of what it tells: "1 /SYS/MB/T0".
    std::vector<std::string> sent;

    watcher()
    {
        init_snmp_once();
        fake_system::on_send_v2trap.set([this](netsnmp_variable_list *varbinds) {
            const netsnmp_variable_list *first = varbinds->next_variable;
            sent.push_back(
                std::to_string(varbinds->val.objid[varbinds->val_len / sizeof(oid) - 1]) + " " +
                (first ? value_of(*first).octets : ""));
        });
        fake_system::on_snmp_alarm_register.set(
            [](unsigned, unsigned flags, SNMPAlarmCallback *callback, void *) {
                EXPECT_EQ(flags, unsigned{SA_REPEAT});
                last_alarm = callback;
                return 1U;
            });
        kavplat::start_watching();
        alarm = last_alarm; // registered once for the process
    }
    ~watcher() override
    {
        kavplat::stop_watching();
        configure("10");
    }

    // As the agent's loop does; once does not do what a thread has to do in between.
    bool eventually(const std::function<bool()> &condition)
    {
        return fake_system::eventually([&] {
            alarm(0, nullptr);
            return condition();
        });
    }

    static void configure(const std::string &value)
    {
        std::string line = "kavplatWatchInterval " + value;
        netsnmp_config(line.data());
    }

    size_t reads() { return platform.calls("capi_get_sensor", sensor_name); }

    bool was_sent(const std::string &notification)
    {
        return std::find(sent.begin(), sent.end(), notification) != sent.end();
    }

    void end_thread()
    {
        configure("0");
        EXPECT_TRUE(eventually([] {
            const cache_lock_held lock;
            const uint32_t now = kavplat::agent_uptime();
            return !kavplat::is_renewed(now, now);
        }));
    }

  private:
    static inline SNMPAlarmCallback *last_alarm = nullptr;

    static void init_snmp_once()
    {
        static const bool once = [] {
            netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
            init_snmp("watch_test");
            return true;
        }();
        static_cast<void>(once);
    }
};

TEST_F(watcher, begins_with_the_agents_loop_and_has_ended_when_it_is_stopped)
{
    build_board();
    platform.forget_calls();
    EXPECT_EQ(reads(), 0U);
    EXPECT_TRUE(eventually([&] { return reads() == 1; }));
    kavplat::stop_watching();
    platform.forget_calls();
    {
        const cache_lock_held lock;
        pass(1000);
        EXPECT_EQ(snmp_read_sensor(row(sensor_name)), 0);
    }
    EXPECT_EQ(reads(), 1U) << "nobody renews it any more";
    kavplat::start_watching();
    EXPECT_TRUE(eventually([&] { return reads() == 2; }));
}

TEST_F(watcher, looks_again_and_again_at_its_interval_and_not_at_all_at_0)
{
    build_board();
    configure("1");
    EXPECT_TRUE(eventually([&] { return reads() >= 3; }));
    configure("0");
    end_thread();
    kavplat::stop_watching(); // waits for its very end
    kavplat::start_watching();
    const size_t before = reads();
    const unsigned threads = fake_system::on_pthread_create.calls();
    for (int i = 0; i < 10; i++) {
        alarm(0, nullptr);
    }
    EXPECT_EQ(fake_system::on_pthread_create.calls(), threads);
    EXPECT_EQ(reads(), before);
    configure("86400");
    EXPECT_TRUE(eventually([&] { return reads() == before + 1; }));
}

TEST_F(watcher, clears_what_was_raised_before_its_thread_began_anew)
{
    build_board();
    for (const bool goes_unwatched : {true, false}) {
        SCOPED_TRACE(goes_unwatched);
        sent.clear();
        say(15);
        configure("86400");
        EXPECT_TRUE(eventually([&] { return was_sent("1 /SYS/MB/T0"); }));
        end_thread();
        pass(1000);
        if (goes_unwatched) {
            remove("/SYS/MB");
        }
        configure("86400");
        if (!goes_unwatched) {
            const size_t before = reads();
            EXPECT_TRUE(eventually([&] { return reads() > before; }));
            remove("/SYS/MB");
        }
        EXPECT_TRUE(eventually([&] { return was_sent("2 /SYS/MB/T0"); }));
        end_thread();
        insert("/SYS/MB");
    }
}

TEST_F(watcher, tells_of_operational_states_from_when_their_module_is_loaded)
{
    build_board();
    configure("1");
    EXPECT_TRUE(eventually([&] { return reads() >= 1; }));
    kavplat::loaded.entityStateMIB = true;
    // One look may be under way, the next one has its end when a third has begun.
    EXPECT_TRUE(eventually([&] { return reads() >= 4; }));
    platform->enable_states["/SYS/DISK"] = {CAPI_DISABLED, ""};
    EXPECT_TRUE(eventually([&] { return was_sent("2 "); })) << "entStateOperDisabled";
}

TEST_F(watcher, is_waited_for_when_it_is_stopped_but_not_for_ever)
{
    build_board();
    std::atomic<bool> hangs = true;
    std::atomic<bool> is_called = false;
    platform->on_call = [&](const fake_call &call) {
        if (call.function == "capi_get_sensor") {
            is_called = true;
            while (hangs) {
                std::this_thread::yield();
            }
        }
    };
    EXPECT_TRUE(eventually([&] { return is_called.load(); }));
    const auto usual = std::exchange(kavplat::longest_wait_for_watcher, 50ms);
    const auto begin = std::chrono::steady_clock::now();
    kavplat::stop_watching();
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 50ms);
    // One that comes back in time is waited for no longer.
    kavplat::longest_wait_for_watcher = std::chrono::hours(1);
    std::thread platform_goes_on([&] { hangs = false; });
    kavplat::stop_watching();
    platform_goes_on.join();
    platform->on_call = nullptr;
    kavplat::longest_wait_for_watcher = usual;
    EXPECT_EQ(platform.calls("capi_get_rdy2rm_status"), 0U) << "it went no further";
    kavplat::start_watching();
    EXPECT_TRUE(eventually([&] { return platform.calls("capi_get_rdy2rm_status") == 1; }));
}

TEST_F(watcher, looks_at_a_new_row_at_once)
{
    configure("86400");
    build_board();
    EXPECT_TRUE(eventually([&] { return platform.calls("capi_get_rdy2rm_status") == 1; }));
    platform->sensors["/SYS/MB/T1"] = threshold_sensor(0, 5);
    plug({"/SYS/MB/T1"}, sensor_type);
    insert("/SYS/MB/T1");
    EXPECT_TRUE(eventually([&] { return platform.calls("capi_get_sensor", "/SYS/MB/T1") == 1; }));
    EXPECT_EQ(reads(), 1U);
}

TEST_F(watcher, refuses_what_is_no_interval)
{
    build_board();
    configure("86400");
    for (const char *bad : {"-1", "ten", "5 s", "86401", "99999999999999999999", "1.5", ""}) {
        const agent_log log;
        configure(bad);
        size_t told = 0;
        for (const log_record &r : log.records()) {
            told += r.text.find("kavplatWatchInterval takes a whole number of seconds from 0") !=
                            std::string::npos
                        ? 1U
                        : 0U;
        }
        EXPECT_EQ(told, 1U) << bad;
    }
    EXPECT_TRUE(eventually([&] { return reads() == 1; }));
    alarm(0, nullptr);
    EXPECT_EQ(reads(), 1U) << "the interval stays as it was";
}

TEST_F(watcher, goes_on_in_a_fork_that_is_an_agent)
{
    build_board();
    configure("1");
    EXPECT_TRUE(eventually([&] { return reads() >= 1; }));
    const pid_t child = fork();
    if (child == 0) {
        const size_t before = reads();
        _exit(eventually([&] { return reads() > before + 1; }) ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

TEST_F(watcher, is_tried_again_when_there_is_no_thread_to_be_had)
{
    build_board();
    const agent_log log;
    fake_system::on_pthread_create.set([](pthread_t *, const pthread_attr_t *,
                                          fake_system::thread_body, void *) { return EAGAIN; });
    alarm(0, nullptr);
    alarm(0, nullptr);
    EXPECT_EQ(log.texts(LOG_ERR).size(), 1U);
    fake_system::on_pthread_create.clear();
    EXPECT_TRUE(eventually([&] { return reads() == 1; }));
}

} // namespace

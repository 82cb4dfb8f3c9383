// Loading the module: the start time, the limit of core files, what is registered and
// how, and what becomes of it without memory.

#include "kavdata/build_info.h"
#include "rooms/local_agent.h"
#include "rooms/platform_tables.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <sys/resource.h>

namespace
{

using strings = std::vector<std::string>;

constexpr const char *start_time_oid = "1.3.6.1.4.1.58213.2.70.101.1.1.1";

// Banners live as long as the process; a second one takes the place of the first.
std::vector<char *> &blocks_of_100()
{
    static std::vector<char *> all;
    return all;
}

class module_init : public platform_table_test
{
  protected:
    local_agent &agent = local_agent::get();
    local_registrations registered;

    static void init()
    {
        fake_system::on_malloc.set([](size_t size) {
            void *block = malloc(size);
            if (size == 100) {
                blocks_of_100().push_back(static_cast<char *>(block));
            }
            return block;
        });
        init_kavPlatMIB();
        fake_system::on_malloc.clear();
    }

    static strings handlers_of(const netsnmp_handler_registration *registration)
    {
        strings names;
        for (const netsnmp_mib_handler *h = registration->handler; h; h = h->next) {
            names.emplace_back(h->handler_name);
        }
        return names;
    }

    static void set_time(time_t now)
    {
        fake_system::on_time.set([now](time_t *where) {
            if (where) {
                *where = now;
            }
            return now;
        });
    }

    static std::string start_time()
    {
        return {reinterpret_cast<const char *>(GetDateAndTime()), GetDateAndTimeLen()};
    }

    static std::string text_of_octets(std::initializer_list<int> octets)
    {
        std::string text;
        for (const int octet : octets) {
            text += static_cast<char>(octet);
        }
        return text;
    }
};

// ---- Start time ----

TEST_F(module_init, converts_a_time_to_eight_octets)
{
    struct tm tm = {};
    tm.tm_year = 126;
    tm.tm_mon = 10;
    tm.tm_mday = 21;
    tm.tm_hour = 23;
    tm.tm_min = 59;
    tm.tm_sec = 58;
    unsigned char octets[9];
    std::fill(std::begin(octets), std::end(octets), static_cast<unsigned char>(0xEE));
    convert_tmToDateAndTime(&tm, octets);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(octets), 9),
              text_of_octets({0x07, 0xEA, 11, 21, 23, 59, 58, 0, 0xEE}));

    // A leap second, the first and the last month, a year of another century.
    tm = {};
    tm.tm_year = -1;
    tm.tm_mday = 1;
    tm.tm_sec = 60;
    convert_tmToDateAndTime(&tm, octets);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(octets), 8),
              text_of_octets({0x07, 0x6B, 1, 1, 0, 0, 60, 0}));
}

TEST_F(module_init, notes_the_start_in_utc)
{
    setenv("TZ", "XYZ+5:30", 1);
    tzset();
    set_time(951868798); // 2000-02-29 23:59:58 UTC
    init();
    unsetenv("TZ");
    tzset();
    const std::string expected = text_of_octets({0x07, 0xD0, 2, 29, 23, 59, 58, 0});
    EXPECT_EQ(GetDateAndTimeLen(), 8U);
    EXPECT_EQ(start_time(), expected);
    EXPECT_EQ(agent.ask(SNMP_MSG_GET, {start_time_oid + std::string(".0")}).varbinds.at(0).value,
              octets_value(expected));
}

TEST_F(module_init, the_start_does_not_move)
{
    set_time(951868798);
    init();
    const std::string before = start_time();
    set_time(1951868798);
    EXPECT_EQ(agent.ask(SNMP_MSG_GET, {start_time_oid + std::string(".0")}).varbinds.at(0).value,
              octets_value(before));
    EXPECT_EQ(start_time(), before);
}

TEST_F(module_init, only_get_asks_for_the_start_time)
{
    set_time(951868798);
    init();
    for (const int mode : std::vector<int>{MODE_GETNEXT, MODE_GETBULK, MODE_SET_RESERVE1,
                                           MODE_SET_ACTION, MODE_SET_UNDO, -1, 1000}) {
        const agent_log log;
        handler_call call(mode);
        call.add_without_table_info(nullptr);
        EXPECT_EQ(call.run(handle_kavPlatStartTime), SNMP_ERR_GENERR) << mode;
        EXPECT_EQ(call.answer(0), no_value()) << mode;
        EXPECT_TRUE(log.records().empty()) << mode;
    }
    handler_call call;
    call.add_without_table_info(nullptr);
    EXPECT_EQ(call.run(handle_kavPlatStartTime), SNMP_ERR_NOERROR);
    EXPECT_EQ(call.answer(0), octets_value(start_time()));
}

TEST_F(module_init, the_start_time_cannot_be_set)
{
    init();
    const pdu_answer answer = agent.ask(SNMP_MSG_SET, {start_time_oid + std::string(".0")});
    EXPECT_EQ(answer.error, SNMP_ERR_NOTWRITABLE);
}

// ---- Core files ----

TEST_F(module_init, limits_core_files_to_10_mib)
{
    testing::internal::CaptureStdout();
    init();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    const std::vector<fake_system::rlimit_call> calls = fake_system::rlimits();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].resource, static_cast<int>(RLIMIT_CORE));
    EXPECT_EQ(calls[0].limit.rlim_cur, 10485760U);
    EXPECT_EQ(calls[0].limit.rlim_max, 10485760U);
}

TEST_F(module_init, goes_on_when_core_files_cannot_be_limited)
{
    fake_system::on_setrlimit.set([](int, const struct rlimit *) {
        errno = EPERM;
        return -1;
    });
    testing::internal::CaptureStdout();
    init();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              text_of("setrlimit failed: error %s\n", strerror(EPERM)));
    EXPECT_EQ(registered.scalars().size(), 1U);
    EXPECT_EQ(registered.tables().size(), registered_tables);
}

// ---- Build banners ----

TEST_F(module_init, keeps_three_texts_of_the_build)
{
    blocks_of_100().reserve(100);
    const size_t before = blocks_of_100().size();
    testing::internal::CaptureStdout();
    init();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "not printed";
    ASSERT_EQ(blocks_of_100().size(), before + 3);
    EXPECT_STREQ(blocks_of_100()[before], " BUILD_NUMBER is 108523 ");
    EXPECT_STREQ(blocks_of_100()[before + 1], " BUILD_DATE is Fri Mar 11 07:19:17 PST 2016 ");
    EXPECT_STREQ(blocks_of_100()[before + 2],
                 text_of(" BUILD_USER is %s ", kavplat::build_user).c_str());
}

TEST_F(module_init, does_without_the_texts_of_the_build)
{
    fake_system::fail_allocation(1, 3);
    init_kavPlatMIB();
    EXPECT_EQ(fake_system::failed_allocations(), 3U);
    EXPECT_EQ(registered.tables().size(), registered_tables);
}

// ---- What is registered ----

TEST_F(module_init, registers_the_scalar_and_thirteen_tables_in_order)
{
    agent_log log({"kavPlatMIB", "trace"});
    init();
    ASSERT_EQ(registered.scalars().size(), 1U);
    const netsnmp_handler_registration *scalar = registered.scalars()[0];
    ASSERT_NE(scalar, nullptr);
    EXPECT_STREQ(scalar->handlerName, "kavPlatStartTime");
    // As net-snmp keeps a scalar.
    EXPECT_EQ(dotted(scalar->rootoid, scalar->rootoid_len), start_time_oid);
    EXPECT_EQ(scalar->modes & HANDLER_CAN_RWRITE, HANDLER_CAN_RONLY);

    ASSERT_EQ(registered.tables().size(), registered_tables);
    strings messages;
    for (size_t i = 0; i < registered_tables; i++) {
        EXPECT_STREQ(registered.tables()[i].registration->handlerName, platform_tables[i].name);
        messages.push_back(
            text_of("Registering table %s as a table iterator\n", platform_tables[i].name));
    }
    EXPECT_EQ(log.debug_texts("kavPlatMIB"), messages);
    EXPECT_TRUE(log.all_traced("kavPlatMIB", "kavPlatMIB"));
    EXPECT_TRUE(log.texts(LOG_ERR).empty());
}

TEST_F(module_init, a_second_load_adds_nothing_and_says_so)
{
    kavplat::loaded.entityMIB = true;
    agent_log log;
    set_time(1000000000);
    init();
    const auto first = start_time();
    EXPECT_TRUE(log.records().empty());
    set_time(1100000000);
    deinit_kavPlatMIB();
    init();
    EXPECT_EQ(registered.tables().size(), registered_tables);
    EXPECT_EQ(registered.scalars().size(), 1U);
    EXPECT_EQ(start_time(), first);
    ASSERT_EQ(log.records().size(), 1U);
    EXPECT_TRUE(log.has(LOG_WARNING, "kavPlatMIB: loaded again, which changes nothing: the tables "
                                     "of the first time go on\n"));
}

TEST_F(module_init, says_when_nobody_fills_the_tables)
{
    agent_log log;
    init();
    EXPECT_EQ(registered.tables().size(), registered_tables);
    ASSERT_EQ(log.records().size(), 1U);
    EXPECT_TRUE(log.has(LOG_WARNING,
                        "kavPlatMIB: loaded without entityMIB, which fills its tables: they stay "
                        "empty until \"dlmod entityMIB\" is there, one line before\n"));
}

TEST_F(module_init, the_scalar_comes_before_the_tables)
{
    size_t tables_before = 99;
    fake_system::on_netsnmp_register_scalar.set([&](netsnmp_handler_registration *registration) {
        tables_before = registered.tables().size();
        netsnmp_handler_registration_free(registration);
        return MIB_REGISTRATION_FAILED;
    });
    init();
    EXPECT_EQ(tables_before, 0U);
    EXPECT_EQ(registered.tables().size(), registered_tables) << "without the scalar too";
}

TEST_F(module_init, unloading_unregisters_nothing)
{
    init();
    build_rows(1);
    kavplat::entry_at(1)->entPhysicalClass = PHYSICAL_CLASS_CHASSIS;
    deinit_kavPlatMIB();
    EXPECT_EQ(agent.ask(SNMP_MSG_GET, {start_time_oid + std::string(".0")}).varbinds.at(0).value,
              octets_value(start_time()));
    EXPECT_EQ(agent.walk(oid_of(table_named("kavPlatEquipmentTable"))).size(), 5U);
}

// ---- How each table is registered ----

class table_init : public module_init, public testing::WithParamInterface<platform_table>
{
  protected:
    const platform_table &table = GetParam();

    std::string no_memory() const
    {
        return text_of("malloc failed in initialize_table_%s\n", table.name);
    }
};

INSTANTIATE_TEST_SUITE_P(each, table_init, testing::ValuesIn(platform_tables),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_P(table_init, as_what_it_is_registered)
{
    agent_log log({"kavPlatMIB", "trace"});
    EXPECT_EQ(table.initialize(), MIB_REGISTERED_OK);
    EXPECT_TRUE(log.traced("kavPlatMIB",
                           text_of("Registering table %s as a table iterator\n", table.name),
                           text_of("initialize_table_%s", table.name), "kavPlatMIB"));
    ASSERT_EQ(registered.tables().size(), 1U);
    const auto &[registration, iterator, result] = registered.tables()[0];
    EXPECT_EQ(result, MIB_REGISTERED_OK);
    EXPECT_STREQ(registration->handlerName, table.name);
    EXPECT_EQ(dotted(registration->rootoid, registration->rootoid_len), oid_of(table));
    EXPECT_EQ(registration->rootoid_len, 13U);
    EXPECT_EQ(registration->modes & HANDLER_CAN_RWRITE, HANDLER_CAN_RONLY);

    EXPECT_EQ(iterator->get_first_data_point, table.first);
    EXPECT_EQ(iterator->get_next_data_point, table.next);
    EXPECT_EQ(iterator->flags, NETSNMP_ITERATOR_FLAG_SORTED);
    const netsnmp_table_registration_info *info = iterator->table_reginfo;
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->min_column, table.min_column);
    EXPECT_EQ(info->max_column, table.max_column);
    EXPECT_EQ(info->number_indexes, table.indexes);
    unsigned indexes = 0;
    for (const netsnmp_variable_list *i = info->indexes; i; i = i->next_variable) {
        EXPECT_EQ(i->type, ASN_INTEGER);
        indexes++;
    }
    EXPECT_EQ(indexes, table.indexes);
}

// The last of the chain is the table's own; "serialize" comes before "table", since
// the rule for the start of a walk makes the iterator miss rows otherwise.
TEST_P(table_init, requests_come_one_by_one)
{
    ASSERT_EQ(table.initialize(), MIB_REGISTERED_OK);
    const strings chain = handlers_of(registered.tables().at(0).registration);
    const auto serialize = std::ranges::find(chain, "serialize");
    ASSERT_NE(serialize, chain.end());
    ASSERT_NE(serialize + 1, chain.end());
    EXPECT_EQ(*(serialize + 1), "table");
    EXPECT_EQ(std::ranges::count(chain, "serialize"), 1);
    EXPECT_EQ(chain.back(), table.name);
    EXPECT_EQ(*(chain.end() - 2), "table_iterator");
    const netsnmp_mib_handler *last = registered.tables().at(0).registration->handler;
    while (last->next) {
        last = last->next;
    }
    EXPECT_EQ(last->access_method, table.handler);
}

TEST_P(table_init, without_a_registration)
{
    fake_system::on_netsnmp_create_handler_registration.set(
        [](const char *, Netsnmp_Node_Handler *, const oid *, size_t, int) {
            return static_cast<netsnmp_handler_registration *>(nullptr);
        });
    agent_log log({"kavPlatMIB"});
    // What there is of the two infos is left to the process. Never destroyed, so
    // that a leak checker, which comes last, still finds them.
    static auto &left = *new std::vector<void *>;
    fake_system::on_calloc.set([](size_t count, size_t size) {
        left.push_back(calloc(count, size));
        return left.back();
    });
    EXPECT_EQ(table.initialize(), SNMPERR_GENERR);
    fake_system::on_calloc.clear();
    EXPECT_EQ(log.texts(LOG_ERR), strings{no_memory()});
    EXPECT_TRUE(log.debug_texts("kavPlatMIB").empty());
    EXPECT_TRUE(registered.tables().empty());
    EXPECT_EQ(left.size() % 2, 0U) << "both infos were asked for";
}

TEST_P(table_init, without_memory_for_one_of_the_infos)
{
    static auto &left = *new std::vector<void *>; // as above
    for (const unsigned nth : {1U, 2U}) {
        agent_log log({"kavPlatMIB"});
        unsigned asked = 0;
        fake_system::on_calloc.set([&](size_t count, size_t size) {
            void *block = ++asked == nth ? nullptr : calloc(count, size);
            left.push_back(block);
            return block;
        });
        fake_system::on_netsnmp_create_handler_registration.set(
            [](const char *name, Netsnmp_Node_Handler *handler, const oid *root, size_t length,
               int modes) {
                auto *created =
                    netsnmp_create_handler_registration(name, handler, root, length, modes);
                left.push_back(created);
                return created;
            });
        EXPECT_EQ(table.initialize(), SNMPERR_GENERR);
        fake_system::on_calloc.clear();
        fake_system::on_netsnmp_create_handler_registration.clear();
        EXPECT_EQ(asked, 2U);
        EXPECT_EQ(log.texts(LOG_ERR), strings{no_memory()}) << "allocation " << nth;
        EXPECT_TRUE(log.debug_texts("kavPlatMIB").empty());
        EXPECT_TRUE(registered.tables().empty());
    }
}

// One that net-snmp does not take is freed by it: nothing may be injected then.
TEST_P(table_init, that_net_snmp_refuses)
{
    fake_system::on_netsnmp_register_table_iterator.set(
        [](netsnmp_handler_registration *registration, netsnmp_iterator_info *) {
            netsnmp_handler_registration_free(registration);
            return MIB_DUPLICATE_REGISTRATION;
        });
    EXPECT_EQ(table.initialize(), MIB_DUPLICATE_REGISTRATION);
}

TEST_P(table_init, that_fails_leaves_the_others)
{
    fake_system::on_netsnmp_create_handler_registration.set(
        [this](const char *name, Netsnmp_Node_Handler *handler, const oid *root, size_t length,
               int modes) -> netsnmp_handler_registration * {
            return name == std::string(table.name)
                       ? nullptr
                       : netsnmp_create_handler_registration(name, handler, root, length, modes);
        });
    static auto &left = *new std::vector<void *>; // as above
    fake_system::on_calloc.set([](size_t count, size_t size) {
        left.push_back(calloc(count, size));
        return left.back();
    });
    agent_log log;
    init();
    // The watchdog table is not among them: nobody asks for it.
    const bool is_registered = std::string(table.name) != watchdog_table.name;
    EXPECT_EQ(log.texts(LOG_ERR), is_registered ? strings{no_memory()} : strings());
    strings expected;
    for (size_t i = 0; i < registered_tables; i++) {
        if (platform_tables[i].name != std::string(table.name)) {
            expected.emplace_back(platform_tables[i].name);
        }
    }
    strings names;
    for (const auto &t : registered.tables()) {
        names.emplace_back(t.registration->handlerName);
    }
    EXPECT_EQ(names, expected);
}

} // namespace

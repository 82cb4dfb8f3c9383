// The ENTITY-MIB module: its start and stop, the scalar, and every column of
// entPhysicalTable.
#include "entityMIB/entityMIB.h"

#include <algorithm>
#include <climits>
#include <map>
#include <sys/wait.h>
#include <unistd.h>

#include "monitor/monitor.h"
#include "rooms/cache_fixture.h"
#include "rooms/local_agent.h"
#include "rooms/requests.h"
#include "rooms/varbind_watch.h"

namespace
{

using std::string;
using std::vector;

constexpr char stop_file[] = "/coredump/snmpd.stop.entity";

// Registrations that a test keeps from the agent. Net-snmp would own them; they
// stay here so that a look at one after the registration is a look at something.
vector<netsnmp_handler_registration *> &kept_registrations()
{
    // Never destroyed, so that a leak checker, which comes last, still finds them.
    static auto &all = *new vector<netsnmp_handler_registration *>;
    return all;
}

struct seen_table {
    string name;
    string root;
    int modes = 0;
    Netsnmp_First_Data_Point *first = nullptr;
    Netsnmp_Next_Data_Point *next = nullptr;
    Netsnmp_Node_Handler *handler = nullptr;
    int flags = 0;
    unsigned min_column = 0;
    unsigned max_column = 0;
    vector<int> indexes; // their types
};

// A start of the module in which every outside step is noted instead of taken.
class entity_module : public cache_test
{
  protected:
    vector<string> steps;
    seen_table table;
    SNMPAlarmCallback *alarm = nullptr;
    u_long now = 0;
    uint32_t stamp_at_registration = 0;
    int table_result = MIB_REGISTERED_OK;

    entity_module()
    {
        using namespace fake_system;
        varbind_watch::start();
        on_stat.set([this](const char *path, struct stat *) {
            steps.push_back(string("stat ") + path);
            return -1;
        });
        on_netsnmp_get_agent_uptime.set([this] {
            steps.emplace_back("uptime");
            return now += 100;
        });
        on_netsnmp_create_handler_registration.set([this](const char *name, auto... rest) {
            steps.push_back(string("create ") + name);
            return netsnmp_create_handler_registration(name, rest...);
        });
        on_netsnmp_register_table_iterator.set(
            [this](netsnmp_handler_registration *registration, netsnmp_iterator_info *iinfo) {
                steps.emplace_back("register table");
                stamp_at_registration = entLastChangeTime;
                look_at(*registration, *iinfo);
                if (table_result != MIB_REGISTERED_OK) {
                    netsnmp_handler_registration_free(registration);
                } else {
                    kept_registrations().push_back(registration);
                    netsnmp_iterator_delete_table(iinfo);
                }
                return table_result;
            });
        on_netsnmp_register_scalar.set([this](netsnmp_handler_registration *registration) {
            steps.push_back("register scalar " +
                            dotted(registration->rootoid, registration->rootoid_len));
            EXPECT_STREQ(registration->handlerName, "entLastChangeTime");
            EXPECT_EQ(registration->modes, HANDLER_CAN_RONLY);
            EXPECT_EQ(registration->handler->access_method, handle_entLastChangeTime);
            kept_registrations().push_back(registration);
            return MIB_REGISTERED_OK;
        });
        on_pthread_create.set([this](pthread_t *id, auto, thread_body body, auto) {
            steps.emplace_back(body == monitor_fru_devices ? "monitor" : "some thread");
            *id = pthread_self();
            return 0;
        });
        on_snmp_alarm_register.set(
            [this](unsigned seconds, unsigned flags, SNMPAlarmCallback *callback, void *argument) {
                steps.push_back(text_of("alarm in %u s, flags %u", seconds, flags));
                EXPECT_EQ(argument, nullptr);
                alarm = callback;
                return 1U;
            });
    }
    ~entity_module() override { varbind_watch::stop(); }

  private:
    void look_at(const netsnmp_handler_registration &registration,
                 const netsnmp_iterator_info &iinfo)
    {
        table.name = registration.handlerName;
        table.root = dotted(registration.rootoid, registration.rootoid_len);
        table.modes = registration.modes;
        table.handler = registration.handler->access_method;
        table.first = iinfo.get_first_data_point;
        table.next = iinfo.get_next_data_point;
        table.flags = iinfo.flags;
        table.min_column = iinfo.table_reginfo->min_column;
        table.max_column = iinfo.table_reginfo->max_column;
        for (const netsnmp_variable_list *index = iinfo.table_reginfo->indexes; index;
             index = index->next_variable) {
            table.indexes.push_back(index->type);
        }
    }
};

// ---- Start ----------------------------------------------------------------

TEST_F(entity_module, starts_in_order)
{
    init_entityMIB();
    EXPECT_EQ(steps,
              (vector<string>{string("stat ") + stop_file, "uptime", "create entPhysicalTable",
                              "register table", "monitor", "alarm in 1 s, flags 0", "uptime",
                              "create entLastChangeTime", "register scalar 1.3.6.1.2.1.47.1.4.1"}));
}

TEST_F(entity_module, a_second_load_adds_nothing_and_says_so)
{
    init_entityMIB();
    steps.clear();
    const uint32_t stamp = entLastChangeTime;
    for (int i = 0; i < 2; i++) {
        const agent_log log;
        deinit_entityMIB(); // by an agent that it does not end
        init_entityMIB();
        EXPECT_EQ(steps, vector<string>());
        EXPECT_EQ(entLastChangeTime, stamp);
        ASSERT_EQ(log.records().size(), 1U);
        EXPECT_TRUE(log.has(LOG_WARNING,
                            "entityMIB: loaded again, which changes nothing: tables, monitor and "
                            "cache of the first time go on\n"));
    }
}

TEST_F(entity_module, stamps_the_change_before_and_after_the_registration)
{
    init_entityMIB();
    EXPECT_EQ(stamp_at_registration, 100U);
    EXPECT_EQ(entLastChangeTime, 200U);
}

TEST_F(entity_module, registers_the_table_read_only_and_sorted)
{
    initialize_table_entPhysicalTable();
    EXPECT_EQ(table.name, "entPhysicalTable");
    EXPECT_EQ(table.root, "1.3.6.1.2.1.47.1.1.1");
    EXPECT_EQ(table.modes, HANDLER_CAN_RONLY);
    EXPECT_EQ(table.first, entPhysicalTable_get_first_data_point);
    EXPECT_EQ(table.next, entPhysicalTable_get_next_data_point);
    EXPECT_EQ(table.handler, entPhysicalTable_handler);
    EXPECT_NE(table.flags & NETSNMP_ITERATOR_FLAG_SORTED, 0);
    EXPECT_EQ(table.min_column, 2U);
    EXPECT_EQ(table.max_column, 16U);
    EXPECT_EQ(table.indexes, vector<int>{ASN_INTEGER});
}

TEST_F(entity_module, start_says_what_it_does)
{
    const agent_log log({"entityMIB", "trace"});
    init_entityMIB();
    EXPECT_EQ(log.debug_texts("entityMIB"),
              (vector<string>{"init_entityMIB\n",
                              "Registering table entPhysicalTable as a table iterator\n",
                              "Initializing\n"}));
    EXPECT_TRUE(log.all_traced("entityMIB", "entityMIB"));
    EXPECT_TRUE(log.traced("entityMIB", "init_entityMIB\n", "init_entityMIB", "entityMIB"));
    EXPECT_TRUE(log.traced("entityMIB", "Registering table entPhysicalTable as a table iterator\n",
                           "initialize_table_entPhysicalTable", "entityMIB"));
    EXPECT_TRUE(log.traced("entityMIB", "Initializing\n", "initialize_entityGeneral", "entityMIB"));
}

TEST_F(entity_module, says_nothing_while_debugging_is_off)
{
    const agent_log log;
    init_entityMIB();
    EXPECT_TRUE(log.records().empty()) << log.records().front().text;
}

TEST_F(entity_module, waits_as_long_as_the_stop_file_exists)
{
    int looks = 0;
    fake_system::on_stat.set([&](const char *path, struct stat *) {
        EXPECT_STREQ(path, stop_file);
        EXPECT_TRUE(steps.empty()) << "went on to " << steps.back();
        return ++looks <= 50 ? 0 : -1;
    });
    init_entityMIB();
    EXPECT_EQ(looks, 51);
    EXPECT_EQ(fake_system::sleeps(), vector<unsigned>(50, 3));
    EXPECT_EQ(steps.back(), "register scalar 1.3.6.1.2.1.47.1.4.1");
}

TEST_F(entity_module, any_failure_to_see_the_stop_file_ends_the_wait)
{
    for (const int error : {ENOENT, EACCES, ENOTDIR, ELOOP, EIO}) {
        int looks = 0;
        fake_system::on_stat.set([&](const char *path, struct stat *) {
            EXPECT_STREQ(path, "/some/stop file");
            errno = error;
            return ++looks == 1 ? 0 : -1;
        });
        snmp_debug_stop("/some/stop file");
        EXPECT_EQ(looks, 2) << error;
    }
    EXPECT_EQ(fake_system::sleeps(), vector<unsigned>(5, 3));
}

TEST_F(entity_module, refused_registrations_stop_nothing)
{
    table_result = MIB_DUPLICATE_REGISTRATION;
    init_entityMIB();
    EXPECT_TRUE(std::ranges::count(steps, "monitor"));
    EXPECT_TRUE(std::ranges::count(steps, "register scalar 1.3.6.1.2.1.47.1.4.1"));
}

TEST_F(entity_module, serialises_requests_after_a_successful_registration)
{
    initialize_table_entPhysicalTable();
    ASSERT_EQ(varbind_watch::injections().size(), 1U);
    EXPECT_EQ(varbind_watch::injections()[0].handler, "serialize");
    EXPECT_EQ(varbind_watch::injections()[0].before, "table");
    EXPECT_EQ(varbind_watch::injections()[0].registration, kept_registrations().back());
}

TEST_F(entity_module, leaves_a_registration_alone_that_failed)
{
    for (const int result : {MIB_REGISTRATION_FAILED, MIB_DUPLICATE_REGISTRATION}) {
        table_result = result;
        initialize_table_entPhysicalTable();
        EXPECT_TRUE(varbind_watch::injections().empty()) << "result " << result;
    }
}

using entity_module_death = entity_module;

TEST_F(entity_module_death, without_memory_for_the_table_information)
{
    EXPECT_DEATH(
        {
            fake_system::fail_allocation(1);
            initialize_table_entPhysicalTable();
        },
        "table_info != \\(\\(void \\*\\)0\\)");
}

TEST_F(entity_module_death, without_memory_for_the_iterator_information)
{
    EXPECT_DEATH(
        {
            snmp_enable_stderrlog();
            char token[] = "entityMIB";
            debug_register_tokens(token);
            snmp_set_do_debugging(1);
            fake_system::fail_allocation(2);
            initialize_table_entPhysicalTable();
        },
        "entityMIB: initialize_table_entPhysicalTable:failed allocating netsnmp_iterator_info "
        "struct\\.\n.*iinfo != \\(\\(void \\*\\)0\\)");
}

// ---- The agent becomes a daemon --------------------------------------------

TEST_F(entity_module, alarm_does_nothing_in_the_process_that_started_the_monitor)
{
    const agent_log log;
    init_entityMIB();
    steps.clear();
    alarm(1, nullptr);
    EXPECT_TRUE(steps.empty()) << steps.back();
    EXPECT_TRUE(log.records().empty());
}

TEST_F(entity_module, alarm_starts_the_monitor_anew_in_a_fork)
{
    const agent_log log;
    build({"/SYS", "/SYS/MB"});
    init_entityMIB();
    steps.clear();
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        alarm(1, nullptr);
        const bool once = std::ranges::count(steps, "monitor") == 1;
        const bool empty = maxPhysicalIndex == 0 && physicalTable == nullptr && htab == nullptr;
        const bool said = static_cast<bool>(
            log.has(LOG_INFO, "entityMIB: the agent became a daemon, the monitor starts anew\n"));
        alarm(1, nullptr);
        const bool only_once = std::ranges::count(steps, "monitor") == 1;
        _exit((once ? 0 : 1) | (empty ? 0 : 2) | (said ? 0 : 4) | (only_once ? 0 : 8));
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status) & 1, 0) << "the monitor was not started";
    EXPECT_EQ(WEXITSTATUS(status) & 2, 0) << "the old cache is still there";
    EXPECT_EQ(WEXITSTATUS(status) & 4, 0) << "nothing was logged";
    EXPECT_EQ(WEXITSTATUS(status) & 8, 0) << "the monitor was started twice";
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(rows(), (vector<string>{"/SYS", "/SYS/MB"})) << "in the parent";
}

// ---- Stop -------------------------------------------------------------------

TEST_F(entity_module, stop_ends_every_snmpd)
{
    build({"/SYS"});
    deinit_entityMIB();
    EXPECT_EQ(fake_system::commands(), vector<string>{"kill -9 `pidof snmpd`"});
    EXPECT_EQ(rows(), vector<string>{"/SYS"}) << "the cache is not freed";
}

TEST_F(entity_module, stop_says_what_it_does)
{
    const agent_log log({"entityMIB", "trace"});
    vector<string> said_before;
    fake_system::on_system.set([&](const char *) {
        said_before = log.debug_texts("entityMIB");
        return 0;
    });
    deinit_entityMIB();
    const vector<string> before = {"deinit_entityMIB\n",
                                   "deinitialize_table_entPhysicalTable START\n"};
    EXPECT_EQ(said_before, before);
    vector<string> all = before;
    all.emplace_back("deinitialize_table_entPhysicalTable FINISH\n");
    EXPECT_EQ(log.debug_texts("entityMIB"), all);
    EXPECT_TRUE(log.all_traced("entityMIB", "entityMIB"));
    EXPECT_TRUE(log.traced("entityMIB", "deinit_entityMIB\n", "deinit_entityMIB", "entityMIB"));
    for (const char *text : {"deinitialize_table_entPhysicalTable START\n",
                             "deinitialize_table_entPhysicalTable FINISH\n"}) {
        EXPECT_TRUE(
            log.traced("entityMIB", text, "deinitialize_table_entPhysicalTable", "entityMIB"));
    }
}

// ---- entLastChangeTime --------------------------------------------------------

class change_time : public cache_test
{
  protected:
    change_time() { varbind_watch::start(); }
    ~change_time() override { varbind_watch::stop(); }
};

TEST_F(change_time, is_served_as_timeticks_of_four_octets)
{
    for (const uint32_t ticks : {0U, 1U, 2147483648U, 4294967295U}) {
        entLastChangeTime = ticks;
        varbind_watch::start();
        handler_call call;
        call.add_without_table_info(nullptr);
        EXPECT_EQ(call.run(handle_entLastChangeTime), SNMP_ERR_NOERROR);
        EXPECT_EQ(call.answer(0), timeticks_value(ticks));
        ASSERT_EQ(varbind_watch::values().size(), 1U);
        EXPECT_EQ(varbind_watch::values()[0].type, ASN_TIMETICKS);
        EXPECT_EQ(varbind_watch::values()[0].length, 4U);
    }
}

TEST_F(change_time, other_modes_are_an_error)
{
    for (const int mode :
         std::initializer_list<int>{0, 1, 2, 3, 4, 5, MODE_GETNEXT, MODE_GETBULK, -1, 77}) {
        const agent_log log;
        handler_call call(mode);
        call.add_without_table_info(nullptr);
        EXPECT_EQ(call.run(handle_entLastChangeTime), 5);
        EXPECT_EQ(call.answer(0), no_value());
        EXPECT_EQ(call.error(0), 0);
        EXPECT_EQ(log.texts(LOG_ERR),
                  vector<string>{text_of("handle_entLastChangeTime:unknown mode (%d)\n", mode)});
    }
}

TEST_F(change_time, takes_no_lock)
{
    const cache_lock_held lock;
    fake_system::on_pthread_mutex_lock.set([](pthread_mutex_t *mutex) {
        EXPECT_NE(mutex, &fru_mutex);
        return pthread_mutex_lock(mutex);
    });
    handler_call call;
    call.add_without_table_info(nullptr);
    EXPECT_EQ(call.run(handle_entLastChangeTime), SNMP_ERR_NOERROR);
    EXPECT_EQ(call.answer(0), timeticks_value(0));
    fake_system::on_pthread_mutex_lock.clear();
}

TEST_F(change_time, survives_a_call_without_requests)
{
    handler_call call;
    EXPECT_EQ(call.run(handle_entLastChangeTime), SNMP_ERR_NOERROR);
}

// ---- A text that may be absent ------------------------------------------------

class maybe_null : public testing::Test
{
  protected:
    netsnmp_variable_list *var = nullptr;

    maybe_null()
    {
        const oid name[] = {1, 3};
        snmp_varlist_add_variable(&var, name, OID_LENGTH(name), ASN_NULL, nullptr, 0);
    }
    ~maybe_null() override { snmp_free_varbind(var); }
};

TEST_F(maybe_null, is_an_empty_text_when_absent)
{
    const agent_log log({"entityMIB", "trace"});
    setStringMaybeNull(var, nullptr);
    EXPECT_EQ(value_of(*var), octets_value(""));
    EXPECT_EQ(log.debug_texts("entityMIB"), vector<string>{"setStringMaybeNull:NULL\n"});
    EXPECT_TRUE(
        log.traced("entityMIB", "setStringMaybeNull:NULL\n", "setStringMaybeNull", "entityMIB"));
}

TEST_F(maybe_null, is_the_text_when_there_is_one)
{
    const agent_log log({"entityMIB", "trace"});
    setStringMaybeNull(var, "SN 0815");
    EXPECT_EQ(value_of(*var), octets_value("SN 0815"));
    EXPECT_EQ(log.debug_texts("entityMIB"), vector<string>{"setStringMaybeNull:SN 0815\n"});
    EXPECT_TRUE(
        log.traced("entityMIB", "setStringMaybeNull:SN 0815\n", "setStringMaybeNull", "entityMIB"));
}

TEST_F(maybe_null, keeps_an_empty_and_a_long_text)
{
    setStringMaybeNull(var, "");
    EXPECT_EQ(value_of(*var), octets_value(""));
    const string text(1000, 'x');
    setStringMaybeNull(var, text.c_str());
    EXPECT_EQ(value_of(*var), octets_value(text));
}

// ---- Columns --------------------------------------------------------------------

class entity_columns : public cache_test
{
  protected:
    phys_entry *entry = nullptr;

    entity_columns()
    {
        build({"/SYS", "/SYS/MB", "/SYS/MB/P3"});
        entry = row("/SYS/MB/P3");
        varbind_watch::start();
    }
    ~entity_columns() override { varbind_watch::stop(); }

    snmp_value column(unsigned number) const
    {
        return served(entPhysicalTable_handler, number, entry);
    }

    // Of the value that the handler last set.
    static void expect_set(u_char type, size_t length)
    {
        ASSERT_FALSE(varbind_watch::values().empty());
        EXPECT_EQ(varbind_watch::values().back().type, type);
        EXPECT_EQ(varbind_watch::values().back().length, length);
        EXPECT_TRUE(varbind_watch::values().back().under_cache_lock);
    }
};

TEST_F(entity_columns, description)
{
    strcpy(entry->entPhysicalDescr, "a processor, the 4th");
    EXPECT_EQ(column(2), octets_value("a processor, the 4th"));
    expect_set(ASN_OCTET_STR, 20);
    memset(entry->entPhysicalDescr, 'd', 255);
    entry->entPhysicalDescr[255] = '\0';
    EXPECT_EQ(column(2), octets_value(string(255, 'd')));
    expect_set(ASN_OCTET_STR, 255);
    entry->entPhysicalDescr[0] = '\0';
    EXPECT_EQ(column(2), octets_value(""));
}

TEST_F(entity_columns, vendor_type)
{
    EXPECT_EQ(column(3), object_id_value("0.0"));
    expect_set(ASN_OBJECT_ID, 2 * sizeof(oid));
    entry->entPhysicalVendorType[0] = 1;
    entry->entPhysicalVendorType[1] = 3;
    EXPECT_EQ(column(3), object_id_value("1.3"));
}

TEST_F(entity_columns, integers)
{
    const std::map<unsigned, int32_t phys_entry::*> fields = {
        {4, &phys_entry::entPhysicalContainedIn},
        {5, &phys_entry::entPhysicalClass},
        {6, &phys_entry::entPhysicalParentRelPos},
        {16, &phys_entry::entPhysicalIsFRU},
    };
    EXPECT_EQ(column(4), integer_value(2));
    EXPECT_EQ(column(5), integer_value(1));
    EXPECT_EQ(column(6), integer_value(4));
    EXPECT_EQ(column(16), integer_value(2));
    for (const auto &[number, field] : fields) {
        for (const int32_t value : {-1, 0, 7, INT32_MIN, INT32_MAX}) {
            entry->*field = value;
            EXPECT_EQ(column(number), integer_value(value)) << "column " << number;
            expect_set(ASN_INTEGER, 4);
        }
    }
}

TEST_F(entity_columns, name)
{
    EXPECT_EQ(column(7), octets_value("/SYS/MB/P3"));
    expect_set(ASN_OCTET_STR, 10);
}

TEST_F(entity_columns, texts_that_may_be_absent)
{
    const std::map<unsigned, char *phys_entry::*> fields = {
        {8, &phys_entry::entPhysicalHardwareRev},  {9, &phys_entry::entPhysicalFirmwareRev},
        {10, &phys_entry::entPhysicalSoftwareRev}, {11, &phys_entry::entPhysicalSerialNum},
        {12, &phys_entry::entPhysicalMfgName},     {13, &phys_entry::entPhysicalModelName},
        {14, &phys_entry::entPhysicalAlias},       {15, &phys_entry::entPhysicalAssetID},
    };
    for (const auto &[number, field] : fields) {
        EXPECT_EQ(column(number), octets_value("")) << "column " << number;
        expect_set(ASN_OCTET_STR, 0);
    }
    for (const auto &[number, field] : fields) {
        const agent_log log({"entityMIB"});
        const string text = "text of column " + std::to_string(number);
        entry->*field = fake_system::heap_text(text.c_str());
        EXPECT_EQ(column(number), octets_value(text));
        expect_set(ASN_OCTET_STR, text.size());
        EXPECT_EQ(log.debug_texts("entityMIB"),
                  vector<string>{"setStringMaybeNull:" + text + "\n"});
    }
}

TEST_F(entity_columns, description_and_name_are_not_of_those_that_may_be_absent)
{
    const agent_log log({"entityMIB"});
    column(2);
    column(7);
    EXPECT_TRUE(log.debug_texts("entityMIB").empty());
}

TEST_F(entity_columns, others_are_logged_and_left_without_a_value)
{
    for (const unsigned number : {0U, 1U, 17U, 18U, 4294967295U}) {
        const agent_log log;
        handler_call call;
        call.add(number, entry);
        call.add(7, entry);
        EXPECT_EQ(call.run(entPhysicalTable_handler), SNMP_ERR_NOERROR);
        EXPECT_EQ(call.answer(0), no_value());
        EXPECT_EQ(call.error(0), 0);
        EXPECT_EQ(call.answer(1), octets_value("/SYS/MB/P3")) << "the next request is served";
        EXPECT_EQ(log.texts(LOG_ERR),
                  vector<string>{text_of("entPhysicalTable_handler:unknown column (%d)\n",
                                         static_cast<int>(number))});
    }
}

TEST_F(entity_columns, request_without_a_row_is_skipped)
{
    const agent_log log;
    handler_call call;
    call.add(2, nullptr);
    call.add(99, nullptr);
    call.add(7, entry);
    call.add_without_table_info(nullptr);
    EXPECT_EQ(call.run(entPhysicalTable_handler), SNMP_ERR_NOERROR);
    for (const size_t i : {0U, 1U, 3U}) {
        EXPECT_EQ(call.answer(i), no_value());
        EXPECT_EQ(call.error(i), 0);
    }
    EXPECT_EQ(call.answer(2), octets_value("/SYS/MB/P3"));
    EXPECT_TRUE(log.texts(LOG_ERR).empty());
}

TEST_F(entity_columns, set_is_refused_for_every_request)
{
    for (int mode = 0; mode <= 5; mode++) {
        const agent_log log;
        handler_call call(mode);
        call.add(2, entry);
        call.add(14, nullptr);
        call.add(99, entry);
        EXPECT_EQ(call.run(entPhysicalTable_handler), 17) << "mode " << mode;
        for (size_t i = 0; i < 3; i++) {
            EXPECT_EQ(call.error(i), 17) << "mode " << mode;
            EXPECT_EQ(call.answer(i), no_value());
        }
        EXPECT_TRUE(log.records().empty());
    }
}

TEST_F(entity_columns, set_is_refused_without_requests)
{
    for (int mode = 0; mode <= 5; mode++) {
        handler_call call(mode);
        EXPECT_EQ(call.run(entPhysicalTable_handler), 17) << "mode " << mode;
    }
}

TEST_F(entity_columns, other_modes_are_logged_and_refused_for_every_request)
{
    for (const int mode :
         std::initializer_list<int>{-1, 6, 7, MODE_GETNEXT, MODE_GETBULK, MODE_GET_STASH, 1000}) {
        const agent_log log;
        handler_call call(mode);
        call.add(2, entry);
        call.add(2, nullptr);
        EXPECT_EQ(call.run(entPhysicalTable_handler), 17);
        EXPECT_EQ(call.error(0), 17);
        EXPECT_EQ(call.error(1), 17);
        EXPECT_EQ(call.answer(0), no_value());
        EXPECT_EQ(log.texts(LOG_ERR),
                  vector<string>{text_of("entPhysicalTable_handler:unsupported mode(%d)\n", mode)});
    }
}

TEST_F(entity_columns, get_without_requests_is_no_error)
{
    handler_call call;
    EXPECT_EQ(call.run(entPhysicalTable_handler), SNMP_ERR_NOERROR);
}

TEST_F(entity_columns, lock_is_taken_once_and_released_in_every_mode)
{
    for (const int mode : std::initializer_list<int>{MODE_GET, 0, 5, 77}) {
        int taken = 0;
        int released = 0;
        fake_system::on_pthread_mutex_lock.set([&](pthread_mutex_t *mutex) {
            taken += mutex == &fru_mutex ? 1 : 0;
            return pthread_mutex_lock(mutex);
        });
        fake_system::on_pthread_mutex_unlock.set([&](pthread_mutex_t *mutex) {
            released += mutex == &fru_mutex ? 1 : 0;
            return pthread_mutex_unlock(mutex);
        });
        const agent_log log;
        handler_call call(mode);
        call.add(2, entry);
        call.add(3, entry);
        call.run(entPhysicalTable_handler);
        EXPECT_EQ(taken, 1) << "mode " << mode;
        EXPECT_EQ(released, 1) << "mode " << mode;
        ASSERT_EQ(pthread_mutex_trylock(&fru_mutex), 0) << "mode " << mode;
        pthread_mutex_unlock(&fru_mutex);
    }
}

// ---- The whole, in an agent -------------------------------------------------------

TEST(entity_agent, answers_a_pdu_as_its_varbinds_one_by_one)
{
    // One fixture's worth of cache, on this test's own terms: what it registers
    // stays registered.
    local_agent &agent = local_agent::get();
    fake_system::scope system;
    fake_system::on_pthread_create.set([](pthread_t *id, auto...) {
        *id = pthread_self();
        return 0;
    });
    fake_platform platform;
    platform->components = {component("/SYS", 200), component("/SYS/A", 200),
                            component("/SYS/B", 200), component("/SYS/C", 200),
                            component("/SYS/D", 200)};
    init_entityMIB();
    init_local_cache();
    monitor_fru_lock();
    set_fru_absent("/SYS/B");
    monitor_fru_unlock();

    const string column = "1.3.6.1.2.1.47.1.1.1.1.7.";
    const auto name = [&](int row, const string &text) {
        return answered_varbind{column + std::to_string(row), octets_value(text)};
    };
    const auto hole = answered_varbind{column + "3", no_value(SNMP_NOSUCHINSTANCE)};
    EXPECT_EQ(
        agent.ask(SNMP_MSG_GET, {column + "5", column + "2", column + "3", column + "1"}).varbinds,
        (vector<answered_varbind>{name(5, "/SYS/D"), name(2, "/SYS/A"), hole, name(1, "/SYS")}));
    EXPECT_EQ(agent.ask(SNMP_MSG_GETNEXT, {column + "4", column + "0", column + "2"}).varbinds,
              (vector<answered_varbind>{name(5, "/SYS/D"), name(1, "/SYS"), name(4, "/SYS/C")}));
    const pdu_answer refused = agent.ask(SNMP_MSG_SET, {"1.3.6.1.2.1.47.1.1.1.1.14.1"});
    EXPECT_EQ(refused.error, SNMP_ERR_NOTWRITABLE);
    monitor_fru_lock();
    kavplat::end_agent_pass();
    kavplat::drop_cache();
    monitor_fru_unlock();
}

} // namespace

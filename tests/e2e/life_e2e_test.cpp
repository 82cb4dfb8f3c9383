// How a real agent with the module starts, becomes a daemon and ends.
#include <csignal>
#include <filesystem>
#include <list>
#include <regex>
#include <string>

#include <gtest/gtest.h>

#include "e2e/expected_rows.h"
#include "harness/agent.h"
#include "harness/client.h"

namespace
{

using namespace std::chrono_literals;
using std::string;
using std::vector;

constexpr int killed = 128 + SIGKILL;

vector<string> names(snmp_client &client)
{
    vector<string> found;
    for (const varbind &v : client.walk(ent_column(7))) {
        found.push_back(v.value.text);
    }
    return found;
}

const vector<string> minimal = {"/SYS", "/SYS/MB", "/SYS/MB/T_AMB", "/SYS/MB/LOCATE"};

string with_another_disk(const string &description)
{
    const size_t at = description.rfind(']');
    return description.substr(0, at) + R"(, { "name": "/SYS/DISK", "type": "disk" } )" +
           description.substr(at);
}

// ---- Start ------------------------------------------------------------------------

TEST(agent_start, waits_while_the_stop_file_exists)
{
    agent server({.debug_tokens = "entityMIB", .wait_for_cache = false});
    const std::filesystem::path stop_file = server.directory() / "stop";
    write_file(stop_file, "");
    server.launch();
    ASSERT_TRUE(eventually([&] { return server.log_has("entityMIB: init_entityMIB"); }));
    // Longer than the pause between two looks.
    EXPECT_FALSE(
        eventually([&] { return server.log_has("Registering table entPhysicalTable"); }, 4s));
    EXPECT_TRUE(server.is_running());
    snmp_client client(server.port());
    client.set_timeout(300ms);
    EXPECT_FALSE(client.is_answered());

    std::filesystem::remove(stop_file);
    EXPECT_TRUE(
        eventually([&] { return server.log_has("Registering table entPhysicalTable"); }, 5s));
    EXPECT_TRUE(eventually([&] { return client.is_answered(); }));
    EXPECT_TRUE(eventually([&] { return names(client) == minimal; }));
}

TEST(agent_start, logs_the_milestones_of_the_build)
{
    agent server;
    ASSERT_NO_THROW(server.start());
    EXPECT_EQ(server.log_count("init_local_cache:local cache initializing\n"), 1U);
    EXPECT_EQ(server.log_count("init_local_cache:local cache processing 4 inventory entries\n"),
              1U);
    EXPECT_EQ(server.log_count("init_local_cache:local cache ready\n"), 1U);
}

TEST(agent_start, as_a_daemon_serves_the_table_and_its_changes)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer can start no thread after a fork beside other threads";
#endif
    agent server({.daemon = true, .debug_tokens = "monitor"});
    ASSERT_NO_THROW(server.start());
    // Events reach the monitor once it has registered in the daemon.
    ASSERT_TRUE(eventually([&] {
        const string log = server.log();
        const size_t daemon = log.find("entityMIB: the agent became a daemon, the monitor starts "
                                       "anew");
        return daemon != string::npos &&
               log.find("register with event mgr done!", daemon) != string::npos;
    })) << "the monitor does not start in the daemon";
    snmp_client client(server.port());
    EXPECT_TRUE(eventually([&] { return names(client) == minimal; }));
    vector<string> more = minimal;
    more.emplace_back("/SYS/DISK");
    write_file(server.description(), with_another_disk(read_file(server.description())));
    EXPECT_TRUE(eventually([&] { return names(client) == more; }));
    EXPECT_NE(server.id(), -1);
}

// The monitor logs a line for each of 300 components while the agent becomes a
// daemon. More starts than a usual run has: KAVPLAT_DAEMON_STARTS=200.
TEST(agent_start, as_a_daemon_survives_what_other_threads_log)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer can start no thread after a fork beside other threads";
#endif
    constexpr size_t at_once = 5;
    const char *given = getenv("KAVPLAT_DAEMON_STARTS");
    const size_t starts = given != nullptr ? std::stoul(given) : 20;
    for (size_t started = 0; started < starts; started += at_once) {
        std::list<agent> servers;
        for (size_t i = 0; i < at_once; i++) {
            servers.emplace_back(agent_options{
                .daemon = true,
                .logs_to_system = true,
                .preload = KAVPLAT_CHURNING_PLATFORM,
                .environment = {{"KAVPLAT_CHURN_STABLE", "299"}, {"KAVPLAT_CHURN_FRU_FAILS", "1"}},
                .wait_for_cache = false});
            ASSERT_NO_THROW(servers.back().start()) << "start " << started + i;
        }
        for (agent &server : servers) {
            snmp_client client(server.port());
            EXPECT_TRUE(eventually([&] { return names(client).size() == 300; }));
        }
    }
}

// ---- End --------------------------------------------------------------------------

// Another process of that name, which the module must not see.
class neighbour
{
  public:
    neighbour()
    {
        const std::filesystem::path program = directory_.path() / "snmpd";
        std::filesystem::copy_file(std::filesystem::canonical("/bin/sleep"), program);
        process_.start({program, "600"}, directory_.path() / "output");
    }
    bool is_alive() { return process_.is_running(); }

  private:
    temporary_directory directory_;
    child_process process_;
};

class agent_end : public testing::Test
{
  protected:
    agent server;
    neighbour other;

    void SetUp() override
    {
        ASSERT_NO_THROW(server.start());
        ASSERT_NE(server.id(), -1);
        ASSERT_TRUE(other.is_alive());
    }

    void expect_killed()
    {
        EXPECT_EQ(server.wait(), killed);
        EXPECT_EQ(server.id(), -1);
        EXPECT_TRUE(other.is_alive());
        snmp_client client(server.port());
        client.set_timeout(300ms);
        EXPECT_FALSE(client.is_answered());
    }
};

TEST_F(agent_end, by_a_termination_signal)
{
    ASSERT_EQ(kill(server.id(), SIGTERM), 0);
    expect_killed();
    EXPECT_TRUE(server.log_has("shutting down"));
}

TEST_F(agent_end, by_a_hangup_signal)
{
    ASSERT_EQ(kill(server.id(), SIGHUP), 0);
    expect_killed();
    EXPECT_TRUE(server.log_has("Reconfiguring daemon"));
}

TEST_F(agent_end, by_unloading_the_module)
{
    // dlmodStatus of the first module: loaded(1); unload(5)
    const object_name status = {1, 3, 6, 1, 4, 1, 2021, 13, 14, 2, 1, 5, 1};
    snmp_client owner(server.port(), "private");
    ASSERT_EQ(owner.get({status}).varbinds.at(0).value, integer_value(1));
    owner.set_timeout(2s);
    EXPECT_EQ(owner.set({{status, integer_value(5)}}).error, -1) << "there was an answer";
    expect_killed();
}

// As the first process of its namespace, which nobody inside it can kill, the agent
// outlives what the module does about a reload.
class first_process : public testing::Test
{
  protected:
    agent server{agent_options{.is_first_process = true,
                               .configuration = "dlmod entitySensorMIB " KAVPLAT_MODULE "\n"
                                                "dlmod entityStateMIB " KAVPLAT_MODULE "\n"
                                                "dlmod entityMappingMIB " KAVPLAT_MODULE "\n"
                                                "kavplatWatchInterval 1\n"}};

    void SetUp() override
    {
        ASSERT_NO_THROW(server.start());
        ASSERT_NE(server.id(), -1);
    }
};

TEST_F(first_process, goes_on_after_a_hangup_signal_as_it_was)
{
    snmp_client client(server.port());
    const object_name sensor_value = {1, 3, 6, 1, 2, 1, 99, 1, 1, 1, 4};
    const auto value = [&] { return client.get_next({sensor_value}).varbinds.at(0); };
    const varbind before = value();
    for (int i = 0; i < 3; i++) {
        const size_t restarts = server.log_count("restarted");
        ASSERT_EQ(kill(server.id(), SIGHUP), 0);
        ASSERT_TRUE(eventually([&] { return server.log_count("restarted") > restarts; }));
    }
    ASSERT_TRUE(
        eventually([&] { return server.log_count("kavPlatMIB: loaded again, which") == 3; }));
    EXPECT_EQ(server.log_count("entityMIB: loaded again, which changes nothing"), 3U);
    EXPECT_EQ(names(client), minimal);
    // The watcher too, with its interval.
    EXPECT_EQ(value(), before);
    EXPECT_EQ(server.log_count("Unknown token"), 0U);
    const string description = read_file(server.description());
    write_file(
        server.description(),
        std::regex_replace(description, std::regex(R"("reading": [0-9.]+)"), R"("reading": 77)"));
    EXPECT_TRUE(eventually([&] { return value().value == integer_value(770); })) << server.log();
    write_file(server.description(), description);
    EXPECT_EQ(server.log_count("local cache ready"), 1U);
    EXPECT_EQ(server.log_count("duplicate registration: MIB modules entPhysicalTable"), 0U);
    // Its rows follow what happens, and each comes once.
    vector<string> more = minimal;
    more.emplace_back("/SYS/DISK");
    write_file(server.description(), with_another_disk(read_file(server.description())));
    EXPECT_TRUE(eventually([&] { return names(client) == more; })) << server.log();
}

TEST_F(first_process, ends_at_a_termination_signal_by_itself)
{
    ASSERT_EQ(kill(server.id(), SIGTERM), 0);
    EXPECT_EQ(server.wait(), 0);
    EXPECT_TRUE(server.log_has("shutting down"));
}

TEST(agent_start, with_a_module_twice_or_without_the_other_says_so)
{
    const string entity = "dlmod entityMIB " KAVPLAT_MODULE "\n";
    const string platform = "dlmod kavPlatMIB " KAVPLAT_MODULE "\n";
    {
        agent server({.configuration = entity + platform + platform});
        ASSERT_NO_THROW(server.start());
        EXPECT_EQ(server.log_count("entityMIB: loaded again, which changes nothing"), 1U);
        EXPECT_EQ(server.log_count("kavPlatMIB: loaded again, which changes nothing"), 2U);
        EXPECT_EQ(server.log_count("kavPlatMIB: loaded without"), 0U);
        snmp_client client(server.port());
        EXPECT_EQ(names(client), minimal);
        EXPECT_EQ(server.log_count("local cache ready"), 1U);
    }
    agent server({.whole_configuration = "agentaddress udp:127.0.0.1:161\n"
                                         "rocommunity public 127.0.0.1\n" +
                                         platform,
                  .wait_for_cache = false});
    ASSERT_NO_THROW(server.start());
    EXPECT_EQ(server.log_count("kavPlatMIB: loaded without entityMIB"), 1U);
    snmp_client client(server.port());
    EXPECT_TRUE(client.walk({1, 3, 6, 1, 4, 1, 58213, 2, 70, 101, 1, 1, 2}).empty());
}

TEST_F(agent_end, takes_every_snmpd_of_its_own_namespace_along)
{
    // The init of the namespace ends with the agent, and all the rest with it.
    const pid_t id = server.id();
    ASSERT_EQ(kill(id, SIGHUP), 0);
    expect_killed();
    EXPECT_FALSE(std::filesystem::exists("/proc/" + std::to_string(id)));
}

TEST(agent_daemon_end, by_a_termination_signal)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer can start no thread after a fork beside other threads";
#endif
    agent server({.daemon = true});
    neighbour other;
    ASSERT_NO_THROW(server.start());
    ASSERT_TRUE(eventually([&] { return server.id() != -1; }));
    ASSERT_EQ(kill(server.id(), SIGTERM), 0);
    EXPECT_EQ(server.wait(), 99);
    EXPECT_EQ(server.id(), -1);
    EXPECT_TRUE(other.is_alive());
}

} // namespace

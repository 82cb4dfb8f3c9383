// Requests that are put off while a platform takes its time: which, and which never.
#include <cstdio>

#include <gtest/gtest.h>

#include "e2e/messages.h"
#include "e2e/slow_platform.h"
#include "harness/agent.h"
#include "harness/client.h"
#include "harness/files.h"
#include "harness/names.h"
#include "harness/process.h"

namespace
{

using namespace std::chrono_literals;

// ---- Others, while a client asks for many readings that are quick each -----------------

struct asked {
    const char *name;
    unsigned count;
    unsigned milliseconds; // of each reading
    bool at_once;          // by one request
};

class many_readings : public testing::TestWithParam<asked>
{
};

INSTANTIATE_TEST_SUITE_P(, many_readings,
                         testing::Values(asked{"of_one_request", 100, 10, true},
                                         asked{"of_one_request_quicker", 250, 4, true},
                                         asked{"of_as_many_requests", 100, 10, false}),
                         [](const auto &info) { return info.param.name; });

TEST_P(many_readings, hold_others_up_for_a_turn_and_not_for_their_sum)
{
    const auto &[name, count, milliseconds, at_once] = GetParam();
    agent server(platform_of_slow_sensors(count, milliseconds));
    ASSERT_NO_THROW(server.start());
    const std::vector<object_name> names = names_of_readings(count);
    const connection client(SOCK_DGRAM, server.port());
    poller other(server.port());
    const auto begin = clock_type::now();
    if (at_once) {
        client.send(get_message("public", names));
        EXPECT_NE(client.read_until(content_of(names.back())), "");
    } else {
        for (const object_name &each : names) {
            client.send(get_message("public", {each}));
        }
        std::string answers;
        for (const object_name &each : names) {
            if (answers.find(content_of(each)) == std::string::npos) {
                answers += client.read_until(content_of(each));
            }
        }
    }
    const double took = seconds_since(begin);
    other.end();
    printf("%u readings of %u ms: %.2f s; %u polls of another object meanwhile, the slowest "
           "%.3f s\n",
           count, milliseconds, took, other.polls, other.worst);
    EXPECT_GE(took, count * milliseconds / 1000.0); // else nothing was slow
    EXPECT_EQ(other.unanswered, 0U);
    EXPECT_LT(other.worst, took / 3); // a turn of it, on a busy machine
}

// ---- What is not put off -----------------------------------------------------------------

// Each reading takes longer than a turn.
constexpr unsigned few = 4;
constexpr unsigned slow_ms = 40;

TEST(turns, a_client_that_closes_its_stream_leaves_its_answer_to_nobody)
{
    agent_options options = platform_of_slow_sensors(few, slow_ms);
    const uint16_t port = free_port();
    options.arguments = {"tcp:127.0.0.1:" + std::to_string(port)};
    agent server(options);
    ASSERT_NO_THROW(server.start());
    const std::vector<object_name> names = names_of_readings(few);
    {
        const connection leaving(SOCK_STREAM, port);
        leaving.send(get_message("public", names));
        leaving.say_no_more();
        leaving.read_until("");
    }
    const connection staying(SOCK_STREAM, port);
    staying.send(get_message("private", names));
    const std::string answers = staying.read_until("private");
    EXPECT_NE(answers.find("private"), std::string::npos);
    EXPECT_EQ(answers.find("public"), std::string::npos) << "the other's community";
    EXPECT_TRUE(snmp_client(server.port()).is_answered());
}

TEST(turns, the_agents_own_queries_go_on_while_a_platform_is_slow)
{
    temporary_directory directory;
    const uint16_t port = free_port();
    const std::string traps = directory.path() / "traps";
    write_file(directory.path() / "snmptrapd.conf", "disableAuthorization yes\n");
    child_process receiver;
    receiver.start({KAVPLAT_SNMPTRAPD, "-f", "-C", "-c", directory.path() / "snmptrapd.conf", "-Lf",
                    traps, "-p", directory.path() / "pid", "-m", "", "-On",
                    "udp:127.0.0.1:" + std::to_string(port)},
                   directory.path() / "output");
    ASSERT_TRUE(eventually([&] { return !read_file(traps).empty(); }))
        << read_file(directory.path() / "output");

    agent_options options = platform_of_slow_sensors(few, slow_ms);
    options.configuration = "createUser internal\n"
                            "rouser internal noauth\n"
                            "iquerySecName internal\n"
                            "trap2sink 127.0.0.1:" +
                            std::to_string(port) +
                            " public\n"
                            "monitor -r 1 -o " +
                            to_text(readings) + " hot " + to_text(readings) + " > 1000\n";
    agent server(options);
    ASSERT_NO_THROW(server.start());
    snmp_client client(server.port());
    unsigned unanswered = 0;
    EXPECT_TRUE(eventually([&] {
        unanswered += client.get({ent_cell(7, 1)}).error == 0 ? 0U : 1U;
        return read_file(traps).find(to_text(readings) + ".3") != std::string::npos;
    })) << read_file(traps);
    EXPECT_EQ(unanswered, 0U);
    EXPECT_EQ(client.walk(readings).size(), few);
}

TEST(turns, a_subagent_finds_the_start_of_a_table_while_its_platform_is_slow)
{
    constexpr unsigned sensors = 20;
    const std::string socket = "tcp:127.0.0.1:" + std::to_string(free_port());
    agent_options master_options;
    master_options.wait_for_cache = false;
    master_options.whole_configuration = "agentAddress udp:127.0.0.1:161\n"
                                         "rocommunity public 127.0.0.1\n"
                                         "master agentx\n"
                                         "agentXTimeout 10\n"
                                         "agentXSocket " +
                                         socket + "\n";
    agent master(master_options);
    ASSERT_NO_THROW(master.start());
    agent_options options = platform_of_slow_sensors(sensors, slow_ms);
    // Without modules of its own that are the master's as well.
    options.arguments = {"-X", "-x", socket, "-I", "dlmod"};
    agent subagent(options);
    subagent.launch();
    snmp_client client(master.port());
    // Its tables come one by one.
    ASSERT_TRUE(eventually([&] { return client.answers_getnext(readings); })) << subagent.log();
    // While it reads, it is asked for a table from that one's very start on.
    connection(SOCK_DGRAM, master.port()).send(get_message("public", names_of_readings(sensors)));
    const std::vector<varbind> found = client.get_next({{1, 3, 6, 1, 2, 1, 47}}).varbinds;
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(to_text(found.front().name), to_text(ent_cell(2, 1)));
    EXPECT_EQ(client.bulk_walk(readings, 10).size(), sensors);
}

// ---- A program's own loop ----------------------------------------------------------------

class loop_of_its_own : public testing::Test
{
  protected:
    // Runs no alarms any more from so many seconds on.
    void start(unsigned seconds)
    {
        host.start({"env", "KAVPLAT_CHURN_STABLE=1", "KAVPLAT_CHURN_SENSORS=" + std::to_string(few),
                    "KAVPLAT_CHURN_SENSOR_MS=" + std::to_string(slow_ms), KAVPLAT_SOAK_CHURNING,
                    std::to_string(port), std::to_string(seconds)},
                   directory.path() / "output");
    }

    temporary_directory directory;
    uint16_t port = free_port();
    child_process host;
};

TEST_F(loop_of_its_own, that_runs_no_alarms_answers_everything)
{
    start(0);
    snmp_client client(port);
    client.set_timeout(2s);
    ASSERT_TRUE(eventually([&] { return client.answers_getnext(readings); }));
    EXPECT_EQ(client.get(names_of_readings(few)).varbinds.size(), few);
    EXPECT_EQ(client.bulk_walk(readings, 10).size(), few);
    EXPECT_TRUE(client.is_answered());
}

TEST_F(loop_of_its_own, that_ceases_to_run_alarms_goes_on_to_answer)
{
    start(1);
    snmp_client client(port);
    client.set_timeout(500ms);
    ASSERT_TRUE(eventually([&] {
        return read_file(directory.path() / "output").find("no more alarms") != std::string::npos &&
               client.answers_getnext(ent_column(7));
    }));
    // What is put off at first, and for a second, nobody takes up again.
    EXPECT_TRUE(
        eventually([&] { return client.get(names_of_readings(few)).varbinds.size() == few; }, 6s))
        << "the readings are slow, and were not asked for before";
    EXPECT_TRUE(client.is_answered());
}

} // namespace

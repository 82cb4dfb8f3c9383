// Platforms that take their time: an agent serves one request after another, so what
// one reading takes is what everybody waits at most.
#include <array>
#include <cstdio>
#include <sys/stat.h>
#include <thread>

#include <gtest/gtest.h>

#include "e2e/slow_platform.h"
#include "harness/agent.h"
#include "harness/client.h"
#include "harness/names.h"

namespace
{

using namespace std::chrono_literals;
constexpr double reading_time = 2.0;
constexpr unsigned sensors = 4;

// All readings by GETNEXT of one object each, by GETBULK, and by one GET.
enum class way { next, bulk, get };

std::vector<varbind> read_all(snmp_client &client, way w)
{
    switch (w) {
    case way::next:
        return client.walk(readings);
    case way::bulk:
        return client.bulk_walk(readings, 10);
    case way::get:
        break;
    }
    return client.get(names_of_readings(sensors)).varbinds;
}

class slow_platform_read : public testing::TestWithParam<way>
{
};

std::string name_of(const testing::TestParamInfo<way> &info)
{
    return std::array{"getnext", "getbulk", "get"}.at(static_cast<size_t>(info.param));
}

INSTANTIATE_TEST_SUITE_P(by, slow_platform_read, testing::Values(way::next, way::bulk, way::get),
                         name_of);

TEST_P(slow_platform_read, others_wait_no_longer_than_for_one_reading)
{
    agent server(platform_of_slow_sensors(sensors, 2000));
    ASSERT_NO_THROW(server.start());
    snmp_client client(server.port());
    client.set_timeout(60s);
    poller other(server.port());
    const auto begin = clock_type::now();
    const std::vector<varbind> found = read_all(client, GetParam());
    const double took = seconds_since(begin);
    other.end();
    printf("%u sensors of %.0f s each read in %.1f s; %u polls of another object meanwhile, the "
           "slowest %.2f s\n",
           sensors, reading_time, took, other.polls, other.worst);
    EXPECT_EQ(found.size(), sensors);
    EXPECT_GE(took, sensors * reading_time); // else nothing was slow
    EXPECT_EQ(other.unanswered, 0U);
    EXPECT_GE(other.polls, sensors);
    EXPECT_LT(other.worst, 2 * reading_time); // what one more reading would take
    // Within ten seconds of the last reading most come from the cache.
    EXPECT_EQ(client.walk(readings), found);
}

// Many names in one GETNEXT: columns of several tables, the last row of one, what is
// no row and what is behind everything.
std::vector<varbind> next_of_many(snmp_client &client)
{
    std::vector<object_name> names;
    for (const unsigned long row : {0UL, 5UL, 31UL, 3UL, 32UL, 99UL}) {
        for (const object_name &column :
             {readings, ent_column(7),
              object_name{1, 3, 6, 1, 4, 1, 58213, 2, 70, 101, 1, 1, 8, 1, 8}}) {
            names.push_back(column);
            names.back().push_back(row);
        }
    }
    names.push_back({1, 3, 9});
    return client.get_next(names).varbinds;
}

TEST(slow_platform, is_answered_for_as_a_quick_one)
{
    constexpr unsigned many = 30;
    agent slow(platform_of_slow_sensors(many, 30));
    agent quick(platform_of_slow_sensors(many, 0));
    ASSERT_NO_THROW(slow.start());
    ASSERT_NO_THROW(quick.start());
    snmp_client of_slow(slow.port());
    snmp_client of_quick(quick.port());
    // Nothing was read before: the answer is made while it waits.
    const std::vector<varbind> next = next_of_many(of_slow);
    EXPECT_EQ(next.size(), 19U);
    EXPECT_EQ(next, next_of_many(of_quick));
    // What there is beside rows and columns that there are not.
    std::vector<object_name> names;
    for (const unsigned long row : {10UL, 99UL, 11UL, 2UL, 12UL}) {
        for (const unsigned long column : {4UL, 99UL}) {
            names.push_back({1, 3, 6, 1, 4, 1, 58213, 2, 70, 101, 1, 1, 8, 1, column, row});
        }
    }
    const std::vector<varbind> got = of_slow.get(names).varbinds;
    EXPECT_EQ(got.size(), names.size());
    EXPECT_EQ(got, of_quick.get(names).varbinds);
    const object_name numeric_sensors = {1, 3, 6, 1, 4, 1, 58213, 2, 70, 101, 1, 1, 8};
    const std::vector<varbind> rows = of_slow.bulk_walk(numeric_sensors, 25);
    EXPECT_GE(rows.size(), many);
    EXPECT_EQ(rows, of_quick.walk(numeric_sensors));
}

// One that asks for much neither holds up the others nor is answered wrongly when
// they ask for the same.
TEST(slow_platform, several_that_ask_for_everything_share_the_waiting)
{
    agent server(platform_of_slow_sensors(sensors, 2000));
    ASSERT_NO_THROW(server.start());
    poller other(server.port());
    constexpr unsigned clients = 3;
    std::vector<std::vector<varbind>> found(clients);
    std::vector<std::thread> threads;
    const auto begin = clock_type::now();
    for (std::vector<varbind> &mine : found) {
        threads.emplace_back([&] {
            snmp_client client(server.port());
            client.set_timeout(120s);
            mine = client.bulk_walk(readings, 10);
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    const double took = seconds_since(begin);
    other.end();
    printf("%u clients were through after %.1f s; %u polls of another object meanwhile, the "
           "slowest %.2f s\n",
           clients, took, other.polls, other.worst);
    EXPECT_EQ(found[0].size(), sensors);
    for (const std::vector<varbind> &each : found) {
        EXPECT_EQ(each, found[0]);
    }
    EXPECT_LT(took, clients * sensors * reading_time); // readings are shared
    EXPECT_EQ(other.unanswered, 0U);
    EXPECT_LT(other.worst, 2 * reading_time);
}

// Clients that send again what was not answered in time, and give up, leave the
// agent as it was.
TEST(slow_platform, outlives_clients_that_give_up)
{
    agent server(platform_of_slow_sensors(sensors, 2000));
    ASSERT_NO_THROW(server.start());
    {
        snmp_client impatient(server.port());
        impatient.set_timeout(20ms);
        // More than are put off at a time.
        for (unsigned i = 0; i < 150; i++) {
            EXPECT_NE(impatient.get_bulk({readings}, 0, 10).error, 0);
        }
    }
    snmp_client client(server.port());
    client.set_timeout(120s);
    EXPECT_EQ(client.bulk_walk(readings, 10).size(), sensors);
    EXPECT_TRUE(client.is_answered());
}

// Nobody writes to these fifos, so that each is a file that blocks, for 200 ms if
// nothing is known of it yet. Others wait for one of them; those who ask for them all
// wait for a few.
TEST(described_platform, blocked_values_stall_a_walk_for_seconds_and_others_for_one_bound)
{
    constexpr unsigned values = 300;
    agent server;
    std::string text = R"({"components": [{"name": "/SYS", "type": "system"})";
    for (unsigned i = 0; i < values; i++) {
        const std::string file = server.description().parent_path() / ("value" + std::to_string(i));
        ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
        text += ",\n{\"name\": \"/SYS/T" + std::to_string(i) +
                R"(", "type": "temperature-sensor", "sensor": {"class": "threshold", "type": )"
                R"("temperature", "units": "degrees-c", "reading": {"file": ")" +
                file + "\"}}}";
    }
    write_file(server.description(), text + "]}\n");
    ASSERT_NO_THROW(server.start());
    snmp_client client(server.port());
    for (const char *which : {"first", "second", "third"}) {
        poller other(server.port());
        const auto begin = clock_type::now();
        const std::vector<varbind> found = client.bulk_walk(readings, 25);
        const double took = seconds_since(begin);
        other.end();
        printf("%s walk of 300 blocked values: %.2f s; %u polls of another object meanwhile, the "
               "slowest %.2f s\n",
               which, took, other.polls, other.worst);
        EXPECT_EQ(found.size(), values);
        EXPECT_LT(took, 5);
        EXPECT_EQ(other.unanswered, 0U);
        EXPECT_LT(other.worst, 0.2 + 0.5); // a busy machine's half
    }
}

} // namespace

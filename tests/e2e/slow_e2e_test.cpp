// Platforms that take their time: an agent serves one request after another, so what
// one reading takes is what everybody waits at most.
#include <atomic>
#include <cstdio>
#include <sys/stat.h>
#include <thread>

#include <gtest/gtest.h>

#include "e2e/agent.h"
#include "e2e/client.h"
#include "e2e/expected_rows.h"

namespace
{

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

// kavPlatNumericSensorTable, its current reading.
const object_name readings = {1, 3, 6, 1, 4, 1, 58213, 2, 70, 101, 1, 1, 8, 1, 4};
const object_name uptime = {1, 3, 6, 1, 2, 1, 1, 3, 0};

double seconds_since(clock_type::time_point begin)
{
    return std::chrono::duration<double>(clock_type::now() - begin).count();
}

TEST(slow_platform, others_wait_no_longer_than_for_one_reading)
{
    constexpr double reading = 2.0;
    agent server({.preload = KAVPLAT_CHURNING_PLATFORM,
                  .environment = {{"KAVPLAT_CHURN_STABLE", "1"},
                                  {"KAVPLAT_CHURN_SENSORS", "6"},
                                  {"KAVPLAT_CHURN_SENSOR_MS", "2000"}}});
    ASSERT_NO_THROW(server.start());
    std::atomic<bool> is_over{false};
    double worst = 0;
    unsigned polls = 0;
    unsigned unanswered = 0;
    std::thread poller([&] {
        snmp_client client(server.port());
        while (!is_over) {
            const auto begin = clock_type::now();
            unanswered += client.get({uptime}).error == 0 ? 0U : 1U;
            worst = std::max(worst, seconds_since(begin));
            polls++;
            std::this_thread::sleep_for(10ms);
        }
    });
    snmp_client client(server.port());
    const auto begin = clock_type::now();
    const std::vector<varbind> found = client.walk(readings);
    const double walked = seconds_since(begin);
    is_over = true;
    poller.join();
    printf("6 sensors of %.0f s each walked in %.1f s; %u polls of another object meanwhile, the "
           "slowest %.2f s\n",
           reading, walked, polls, worst);
    EXPECT_EQ(found.size(), 6U);
    EXPECT_GE(walked, 6 * reading); // else nothing was slow
    EXPECT_EQ(unanswered, 0U);
    EXPECT_GE(polls, 6U);
    EXPECT_LT(worst, reading + 1); // a busy machine's second
}

// Nobody writes to these fifos, so that each is a file that blocks.
TEST(described_platform, a_walk_of_300_blocked_values_stalls_for_seconds_at_most)
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
    // Another object, asked in between, says what a single answer costs.
    const auto begin = clock_type::now();
    const std::vector<varbind> found = client.walk(readings);
    const double first = seconds_since(begin);
    const auto again = clock_type::now();
    EXPECT_EQ(client.walk(readings).size(), values);
    const double second = seconds_since(again);
    printf("300 blocked values walked in %.2f s, once more in %.2f s\n", first, second);
    EXPECT_EQ(found.size(), values);
    EXPECT_LT(first, 5);
    EXPECT_LT(second, 5);
    EXPECT_TRUE(client.is_answered());
}

} // namespace

// What an agent tells by itself, as snmptrapd receives it, and what requests wait for
// while a slow platform is watched.
#include <cstdio>
#include <memory>
#include <regex>
#include <sstream>

#include <gtest/gtest.h>

#include "e2e/slow_platform.h"
#include "harness/agent.h"
#include "harness/client.h"
#include "harness/files.h"
#include "harness/names.h"
#include "harness/process.h"

namespace
{

using namespace std::chrono_literals;

constexpr char modules[] = "dlmod entitySensorMIB " KAVPLAT_MODULE "\n";

// A receiver of traps that knows our MIB modules and writes a line for each of them.
class trap_receiver
{
  public:
    trap_receiver()
    {
        const std::string mibs = KAVPLAT_SOURCE_DIR "/mibs";
        write_file(directory_.path() / "snmptrapd.conf",
                   "disableAuthorization yes\ncreateUser -e 0x8000000001020304 trapper SHA "
                   "\"a long secret\" AES \"another secret\"\nauthUser log trapper priv\n");
        receiver_.start({KAVPLAT_SNMPTRAPD, "-f", "-C", "-c", directory_.path() / "snmptrapd.conf",
                         "-Lf", traps(), "-F", "%v\\n", "-p", directory_.path() / "pid", "-M",
                         mibs + ":" + mibs + "/compact", "-m",
                         "KAV-PLATFORM-NOTIFICATIONS-MIB:ENTITY-SENSOR-MIB:ENTITY-STATE-MIB", "-OQ",
                         "udp:127.0.0.1:" + std::to_string(port_)},
                        directory_.path() / "output");
    }

    bool is_ready()
    {
        return eventually([&] { return !text().empty(); });
    }
    std::string sink() const { return "127.0.0.1:" + std::to_string(port_); }
    std::string text() const { return read_file(traps()); }
    std::string output() const { return read_file(directory_.path() / "output") + text(); }

    // The lines in which there is this text.
    std::vector<std::string> lines_with(const std::string &wanted) const
    {
        std::vector<std::string> found;
        std::istringstream all(text());
        for (std::string line; std::getline(all, line);) {
            if (line.find(wanted) != std::string::npos) {
                found.push_back(line);
            }
        }
        return found;
    }
    bool comes(const std::string &wanted, size_t times = 1) const
    {
        return eventually([&] { return lines_with(wanted).size() >= times; });
    }

  private:
    std::filesystem::path traps() const { return directory_.path() / "traps"; }

    temporary_directory directory_;
    uint16_t port_ = free_port();
    child_process receiver_;
};

class watched_server : public testing::Test
{
  protected:
    trap_receiver receiver;
    std::unique_ptr<agent> server;

    void start(const std::string &more = "kavplatWatchInterval 1\n",
               const std::string &sink = "trap2sink")
    {
        ASSERT_TRUE(receiver.is_ready()) << receiver.output();
        agent_options options;
        options.configuration = modules + more + sink + " " + receiver.sink() +
                                (sink == "trapsess" ? "" : " public") + "\n";
        if (sink == "trapsess") {
            options.configuration = modules + more +
                                    "trapsess -v3 -e 0x8000000001020304 -u trapper -l authPriv -a "
                                    "SHA -A \"a long secret\" -x AES -X \"another secret\" " +
                                    receiver.sink() + "\n";
        }
        server = std::make_unique<agent>(options);
        ASSERT_NO_THROW(server->start());
    }

    void replace(const std::string &what, const std::string &by)
    {
        std::string text = read_file(server->description());
        const size_t at = text.find(what);
        ASSERT_NE(at, std::string::npos) << what;
        replace_file(server->description(), text.replace(at, what.size(), by));
    }
};

constexpr char raised[] = "KAV-PLATFORM-NOTIFICATIONS-MIB::kavPlatSeverityRaised";
constexpr char no_more_raised[] = "KAV-PLATFORM-NOTIFICATIONS-MIB::kavPlatSeverityCleared";
constexpr char oper_enabled[] = "ENTITY-STATE-MIB::entStateOperEnabled";
constexpr char oper_disabled[] = "ENTITY-STATE-MIB::entStateOperDisabled";
constexpr char config_change[] = "ENTITY-MIB::entConfigChange";

class sent_by : public watched_server, public testing::WithParamInterface<const char *>
{
};

INSTANTIATE_TEST_SUITE_P(, sent_by, testing::Values("trap2sink", "informsink", "trapsess"),
                         [](const auto &info) { return std::string(info.param); });

TEST_P(sent_by, a_severity_is_told_when_it_is_raised_and_when_it_is_cleared)
{
    start("kavplatWatchInterval 1\n", GetParam());
    replace("24.5", "41");
    ASSERT_TRUE(receiver.comes(raised)) << receiver.output();
    const std::string line = receiver.lines_with(raised).front();
    for (const char *part :
         {"entPhysicalName.3 = /SYS/MB/T_AMB", "kavPlatNotifyContainerName.0 = /SYS/MB",
          "kavPlatNotifySeverityBefore.0 = cleared", "kavPlatNotifySeverityAfter.0 = major",
          "entPhySensorValue.3 = 410", "entPhySensorPrecision.3 = 1",
          "entPhySensorUnitsDisplay.3 = degrees C", "kavPlatNotifyLimit.0 = 400"}) {
        EXPECT_NE(line.find(part), std::string::npos) << part << " in " << line;
    }
    replace("\"reading\": 41", "\"reading\": 24.5");
    ASSERT_TRUE(receiver.comes(no_more_raised)) << receiver.output();
    const std::string cleared = receiver.lines_with(no_more_raised).front();
    EXPECT_NE(cleared.find("kavPlatNotifySeverityBefore.0 = major"), std::string::npos) << cleared;
    EXPECT_NE(cleared.find("kavPlatNotifySeverityAfter.0 = cleared"), std::string::npos) << cleared;
    EXPECT_EQ(receiver.lines_with(raised).size(), 1U) << receiver.text();
    EXPECT_EQ(receiver.lines_with(config_change).size(), 0U) << "nothing was plugged";
}

TEST_F(watched_server, tells_of_changed_hardware_five_seconds_apart_and_of_the_last_change)
{
    start("kavplatWatchInterval 0\n");
    const char *const root = R"({ "name": "/SYS", "type": "system" },)";
    const auto begin = clock_type::now();
    // One at once, one for all that comes within the five seconds after it.
    for (int i = 0; i < 6; i++) {
        replace(root, std::string(root) + "\n{ \"name\": \"/SYS/NEW" + std::to_string(i) +
                          "\", \"type\": \"disk\" },");
        const std::string name = "/SYS/NEW" + std::to_string(i);
        snmp_client client(server->port());
        ASSERT_TRUE(eventually([&] {
            for (const varbind &v : client.bulk_walk(ent_column(7), 20)) {
                if (v.value.text == name) {
                    return true;
                }
            }
            return false;
        }));
        if (i == 0) {
            ASSERT_TRUE(receiver.comes(config_change)) << receiver.output();
        }
    }
    const double changing = seconds_since(begin);
    ASSERT_TRUE(receiver.comes(config_change, 2)) << receiver.output();
    EXPECT_GE(seconds_since(begin), 5);
    // One more for each five seconds that a busy machine needed for the changes.
    EXPECT_LE(receiver.lines_with(config_change).size(), 2 + static_cast<size_t>(changing / 5))
        << receiver.text();
    EXPECT_EQ(receiver.lines_with(raised).size(), 0U);
}

TEST_F(watched_server, tells_when_a_sensor_no_longer_works_and_when_it_does_again)
{
    start("dlmod entityStateMIB " KAVPLAT_MODULE "\nkavplatWatchInterval 1\n");
    // By this it has been looked at.
    replace("24.5", "41");
    ASSERT_TRUE(receiver.comes(raised)) << receiver.output();
    replace("\"reading\": 41", "\"valid\": false, \"reading\": 41");
    ASSERT_TRUE(receiver.comes(oper_disabled)) << receiver.output();
    EXPECT_NE(receiver.lines_with(oper_disabled).front().find("entStateAdmin.3 = unlocked"),
              std::string::npos)
        << receiver.text();
    EXPECT_NE(receiver.lines_with(oper_disabled).front().find("entStateAlarm.3 = "),
              std::string::npos)
        << receiver.text();
    EXPECT_EQ(receiver.lines_with(oper_enabled).size(), 0U) << receiver.text();
    replace("\"valid\": false, ", "");
    EXPECT_TRUE(receiver.comes(oper_enabled)) << receiver.output();
    EXPECT_EQ(receiver.lines_with(oper_disabled).size(), 1U) << receiver.text();
    EXPECT_EQ(receiver.lines_with(no_more_raised).size(), 0U) << "what cannot be read stays raised";
}

TEST_F(watched_server, as_a_daemon_is_watched_behind_its_fork)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer can start no thread after a fork beside other threads";
#endif
    ASSERT_TRUE(receiver.is_ready());
    agent_options options;
    options.daemon = true;
    options.configuration =
        std::string(modules) + "kavplatWatchInterval 1\ntrap2sink " + receiver.sink() + " public\n";
    server = std::make_unique<agent>(options);
    ASSERT_NO_THROW(server->start());
    replace("24.5", "41");
    EXPECT_TRUE(receiver.comes(raised)) << receiver.output();
}

TEST_F(watched_server, tells_of_an_interval_that_is_none_with_file_and_line)
{
    start("kavplatWatchInterval soon\n");
    const std::regex error("snmpd\\.conf: line \\d+: Error: kavplatWatchInterval takes a whole "
                           "number of seconds from 0");
    EXPECT_TRUE(std::regex_search(server->log(), error)) << server->log();
}

// The stock `monitor` lines of docs/managers.md: two triggers over our tables.
TEST_F(watched_server, may_be_monitored_by_the_agent_itself)
{
    start("kavplatWatchInterval 1\n"
          "createUser internal\nrouser internal noauth\niquerySecName internal\n"
          "monitor -r 1 -o .1.3.6.1.2.1.47.1.1.1.1.7 \"major or worse\" "
          ".1.3.6.1.4.1.58213.2.70.101.1.1.2.1.3 <= 2\n"
          "monitor -r 1 -o .1.3.6.1.2.1.47.1.1.1.1.7 \"hot\" .1.3.6.1.2.1.99.1.1.1.4 > 405\n");
    replace("24.5", "41");
    EXPECT_TRUE(receiver.comes("major or worse")) << receiver.output();
    EXPECT_TRUE(receiver.comes("\"hot\"") || receiver.comes("= hot")) << receiver.output();
    for (const std::string &line : receiver.lines_with("major or worse")) {
        EXPECT_NE(line.find("entPhysicalName.3 = /SYS/MB/T_AMB"), std::string::npos) << line;
    }
}

// ---- A platform of which every reading takes 2 s -----------------------------------------

class slow_readings : public testing::TestWithParam<unsigned>
{
};

INSTANTIATE_TEST_SUITE_P(watched_every, slow_readings, testing::Values(1U, 0U),
                         [](const auto &info) { return std::to_string(info.param); });

// For longer than readings are good without a watcher, every reading is asked for all the
// time.
TEST_P(slow_readings, are_waited_for_only_while_nobody_watches)
{
    constexpr unsigned sensors = 2;
    agent_options options = platform_of_slow_sensors(sensors, 2000);
    options.configuration = modules + ("kavplatWatchInterval " + std::to_string(GetParam()) + "\n");
    agent server(options);
    ASSERT_NO_THROW(server.start());
    snmp_client client(server.port());
    client.set_timeout(60s);
    ASSERT_EQ(client.walk(readings).size(), sensors); // the first time somebody has to ask
    double worst = 0;
    unsigned walks = 0;
    for (const auto begin = clock_type::now(); seconds_since(begin) < 14; walks++) {
        const auto one = clock_type::now();
        ASSERT_EQ(client.get(names_of_readings(sensors)).varbinds.size(), sensors);
        worst = std::max(worst, seconds_since(one));
    }
    printf("%u readings of 2 s each, watched every %u s (0: not): %u requests for all of them in "
           "14 s, the slowest %.3f s\n",
           sensors, GetParam(), walks, worst);
    if (GetParam() != 0) {
        EXPECT_LT(worst, 1);
    } else {
        // One reading at least: both at once only if the second grew old during the first.
        EXPECT_GE(worst, 2) << "else nothing was slow";
    }
}

} // namespace

// What a service processor knows: from a simulator of one, over the loopback, to the
// description and the values that are served of it; and where what it says belongs.
#include "tools/kavplat/describe/describe.h"
#include "tools/kavplat/describe/parts.h"
#include "tools/kavplat/describe/writer.h"

#include "described/format/loader.h"
#include "described/live/live_values.h"
#include "harness/files.h"
#include "harness/process.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;
namespace platform = described_platform;
using namespace kavplat_describe;

namespace
{

using bytes = std::vector<unsigned>;

std::string hexadecimal(const bytes &all)
{
    std::string text;
    for (const unsigned each : all) {
        char one[8];
        std::snprintf(one, sizeof one, " 0x%02x", each & 0xffU);
        text += one;
    }
    return text;
}

void append(bytes &to, const std::string &text)
{
    to.push_back(0xc0U | static_cast<unsigned>(text.size()));
    to.insert(to.end(), text.begin(), text.end());
}

/* A free port of UDP; somebody else may take it before the simulator does. */
uint16_t free_udp_port()
{
    const int to = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    const bool good = ::bind(to, reinterpret_cast<sockaddr *>(&address), length) == 0 &&
                      ::getsockname(to, reinterpret_cast<sockaddr *>(&address), &length) == 0;
    ::close(to);
    return good ? ntohs(address.sin_port) : uint16_t{0};
}

bool is_taken(uint16_t port)
{
    char wanted[24];
    std::snprintf(wanted, sizeof wanted, "0100007F:%04X ", port);
    return read_file("/proc/net/udp").find(wanted) != std::string::npos;
}

/* ipmi_sim with what a test puts into it. Values are bytes that it reads from files. */
class simulated_bmc
{
  public:
    simulated_bmc()
    {
        fs::create_directories(here / "state");
        fs::create_directories(here / "root");
        write_file(here / "password", "secret\n");
        commands_ = "mc_setbmc 0x20\n"
                    "mc_add 0x20 0 no-device-sdrs 0x23 9 8 0x9f 0x1291 0xf02 persist_sdr\n"
                    "sel_enable 0x20 1000 0x0a\n";
    }
    ~simulated_bmc()
    {
        stop();
        if (input_ >= 0) {
            ::close(input_);
        }
    }
    simulated_bmc(const simulated_bmc &) = delete;
    simulated_bmc &operator=(const simulated_bmc &) = delete;

    struct analog {
        unsigned number, entity, instance, type, unit;
        int factor; /* from the byte to the value; 10: tenths */
        const char *name;
        int value;
        bytes upper{}; /* non-critical, critical, non-recoverable */
        bytes lower{};
    };
    void add(const analog &it)
    {
        const auto at = [](const bytes &from, size_t i) { return i < from.size() ? from[i] : 0U; };
        const unsigned mask = (it.lower.empty() ? 0U : 0x07U) | (it.upper.empty() ? 0U : 0x38U);
        bytes record = {0x20,
                        0,
                        it.number,
                        it.entity,
                        it.instance,
                        0x7f,
                        0x68,
                        it.type,
                        1,
                        0,
                        0,
                        0,
                        0,
                        mask,
                        mask,
                        0,
                        it.unit,
                        0,
                        0,
                        static_cast<unsigned>(it.factor == 10 ? 1 : it.factor),
                        0,
                        0,
                        0,
                        0,
                        it.factor == 10 ? 0xf0U : 0U,
                        0,
                        0,
                        0,
                        0,
                        0xff,
                        0,
                        at(it.upper, 2),
                        at(it.upper, 1),
                        at(it.upper, 0),
                        at(it.lower, 2),
                        at(it.lower, 1),
                        at(it.lower, 0),
                        0,
                        0,
                        0,
                        0,
                        0};
        append(record, it.name);
        sensor(it.number, it.type, 1, it.value);
        std::string is_set;
        for (unsigned bit = 6; bit-- > 0;) {
            is_set += (mask >> bit & 1U) != 0 ? '1' : '0';
        }
        commands_ += "sensor_set_threshold 0x20 0 " + std::to_string(it.number) + " settable " +
                     is_set +
                     hexadecimal({at(it.upper, 2), at(it.upper, 1), at(it.upper, 0),
                                  at(it.lower, 2), at(it.lower, 1), at(it.lower, 0)}) +
                     '\n';
        scan(it.number);
        add_record(1, record);
    }

    struct discrete {
        unsigned number, entity, instance, type, reading_type, can_tell;
        const char *name;
        int value;                 /* the states, a bit each */
        std::vector<int> others{}; /* of sensors that share the record, numbered from there on */
    };
    void add(const discrete &it)
    {
        bytes record = {0x20,
                        0,
                        it.number,
                        it.entity,
                        it.instance,
                        0x67,
                        0x40,
                        it.type,
                        it.reading_type,
                        0,
                        0,
                        0,
                        0,
                        it.can_tell & 0xffU,
                        it.can_tell >> 8U,
                        0xc0,
                        0,
                        0,
                        static_cast<unsigned>(1 + it.others.size()),
                        it.others.empty() ? 0U : 0x80U | it.instance,
                        0,
                        0,
                        0,
                        0,
                        0,
                        0};
        append(record, it.name);
        std::vector<int> values = it.others;
        values.insert(values.begin(), it.value);
        for (unsigned i = 0; i < values.size(); i++) {
            sensor(it.number + i, it.type, it.reading_type, values[i]);
            scan(it.number + i);
        }
        add_record(2, record);
    }

    /* What can be replaced, with the area of a product. Number 0 has no record. */
    void add_unit(unsigned number, unsigned entity, unsigned instance,
                  const std::vector<std::string> &product)
    {
        bytes area = {1, 0, 0};
        for (const std::string &each : product) {
            append(area, each);
        }
        area.push_back(0xc1);
        area.resize((area.size() + 8) / 8 * 8, 0);
        area[1] = static_cast<unsigned>(area.size() / 8);
        add_sum(area);
        bytes all = {1, 0, 0, 0, 1, 0, 0, 0};
        add_sum(all);
        all.insert(all.end(), area.begin(), area.end());
        commands_ += "mc_add_fru_data 0x20 " + std::to_string(number) + ' ' +
                     std::to_string(all.size()) + " data" + hexadecimal(all) + '\n';
        if (number != 0) {
            bytes record = {0x20, number, 0x80, 0, 0, 0x10, 0, entity, instance, 0};
            append(record, "unit");
            add_record(0x11, record);
        }
    }

    void set(unsigned number, int value) const
    {
        replace_file(value_file(number), std::to_string(value) + '\n');
    }

    void start()
    {
        const fs::path fifo = here / "input";
        ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
        input_ = ::open(fifo.c_str(), O_RDWR | O_CLOEXEC); /* it ends where its input does */
        write_file(here / "commands", commands_ + "mc_enable 0x20\n");
        for (int tries = 0; tries < 5 && !listens(); tries++) {
            port_ = free_udp_port();
            write_file(here / "lan.conf",
                       "name \"made\"\nset_working_mc 0x20\nstartlan 1\naddr 127.0.0.1 " +
                           std::to_string(port_) +
                           "\npriv_limit admin\nallowed_auths_user md5\nallowed_auths_admin md5\n"
                           "guid a123456789abcdefa123456789abcdef\nendlan\n"
                           "user 2 true \"tester\" \"secret\" admin 10\n");
            program_.start({"/bin/sh", "-c",
                            "exec ipmi_sim -c " + quoted(here / "lan.conf") + " -f " +
                                quoted(here / "commands") + " -s " + quoted(here / "state") + " <" +
                                quoted(fifo)},
                           here / "log");
            eventually([this] { return listens() || !program_.is_running(); });
        }
        ASSERT_TRUE(listens()) << read_file(here / "log");
    }
    void stop() { program_.stop(); }

    std::vector<std::string> describe_command() const
    {
        return {KAVPLAT_COMMAND,
                "describe",
                "--root",
                here / "root",
                "--ipmi-host",
                "127.0.0.1:" + std::to_string(port_),
                "--ipmi-user",
                "tester",
                "--ipmi-password-file",
                here / "password",
                "--values",
                here / "values",
                "--output",
                here / "server.json"};
    }

    temporary_directory here;

  private:
    fs::path value_file(unsigned number) const
    {
        return here.path() / ("value-" + std::to_string(number));
    }
    bool listens() const
    {
        return port_ != 0 && is_taken(port_) &&
               read_file(here / "log").find("mc_enable") != std::string::npos;
    }
    void sensor(unsigned number, unsigned type, unsigned reading_type, int value)
    {
        set(number, value);
        commands_ += "sensor_add 0x20 0 " + std::to_string(number) + ' ' + std::to_string(type) +
                     ' ' + std::to_string(reading_type) + " poll 100 file \"" +
                     value_file(number).string() + "\"\n";
    }
    void scan(unsigned number)
    {
        const std::string none = " 000000000000000";
        commands_ += "sensor_set_event_support 0x20 0 " + std::to_string(number) +
                     " enable scanning none" + none + none + none + none + '\n';
    }
    void add_record(unsigned type, const bytes &record)
    {
        commands_ += "main_sdr_add 0x20" +
                     hexadecimal({0, 0, 0x51, type, static_cast<unsigned>(record.size())}) +
                     hexadecimal(record) + '\n';
    }
    static void add_sum(bytes &all)
    {
        unsigned sum = 0;
        for (const unsigned each : all) {
            sum += each;
        }
        all.back() = (0x100U - (sum & 0xffU)) & 0xffU;
    }

    std::string commands_;
    child_process program_;
    int input_ = -1;
    uint16_t port_ = 0;
};

std::unique_ptr<const platform::description> load(const fs::path &file)
{
    platform::load_result result = platform::load_text(read_file(file), "/");
    for (const platform::load_error &each : result.errors) {
        ADD_FAILURE() << to_text("description", each);
    }
    return std::move(result.loaded);
}

std::optional<double> value_of(const platform::live_value &value)
{
    platform::live_values values(std::chrono::seconds(5));
    platform::live_reading reading{&value};
    values.read({&reading, 1});
    return reading.result;
}

std::string command_line(const std::vector<std::string> &words)
{
    std::string line;
    for (const std::string &each : words) {
        line += quoted(each) + ' ';
    }
    return line + "2>&1";
}

struct expected_sensor {
    const char *name;
    double value;
    int limits; /* how many, and of these: */
    enum platform::threshold which;
    double limit;
    bool valid = true;
};

void expect_sensor(const platform::description &all, expected_sensor expected, bool believed = true)
{
    expected.valid = expected.valid && believed;
    SCOPED_TRACE(expected.name);
    const platform::component *it = platform::find_component(all, expected.name);
    ASSERT_NE(nullptr, it);
    ASSERT_NE(nullptr, it->sensor);
    EXPECT_EQ(expected.valid ? 1 : 0, value_of(*it->sensor->valid));
    if (expected.valid) {
        EXPECT_NEAR(expected.value, value_of(it->sensor->reading).value_or(-1), 1e-4);
    }
    EXPECT_EQ(expected.limits,
              __builtin_popcount(static_cast<unsigned>(it->sensor->flags) & 0x3fU));
    if (expected.limits > 0) {
        EXPECT_NEAR(expected.limit, it->sensor->thresholds[expected.which], 1e-4);
    }
}

/* A rack server's: supplies one of which is missing, fans, an inlet, a drive. */
void build(simulated_bmc &it)
{
    enum : unsigned { celsius = 1, fahrenheit = 2, volts = 4, watts = 6, rpm = 18 };
    it.add(simulated_bmc::analog{.number = 1,
                                 .entity = 0x40,
                                 .instance = 1,
                                 .type = 1,
                                 .unit = celsius,
                                 .factor = 1,
                                 .name = "Inlet Temp",
                                 .value = 24,
                                 .upper = {38, 42, 47},
                                 .lower = {3, 2, 1}});
    it.add(simulated_bmc::analog{.number = 2,
                                 .entity = 7,
                                 .instance = 1,
                                 .type = 2,
                                 .unit = volts,
                                 .factor = 10,
                                 .name = "P12V",
                                 .value = 121,
                                 .upper = {130, 135, 140},
                                 .lower = {}});
    it.add(simulated_bmc::analog{.number = 3,
                                 .entity = 0x1d,
                                 .instance = 1,
                                 .type = 4,
                                 .unit = rpm,
                                 .factor = 60,
                                 .name = "Fan 1",
                                 .value = 90,
                                 .upper = {},
                                 .lower = {20, 10, 5}});
    it.add(simulated_bmc::discrete{.number = 4,
                                   .entity = 0x0a,
                                   .instance = 1,
                                   .type = 8,
                                   .reading_type = 0x6f,
                                   .can_tell = 0x0f,
                                   .name = "PS1 Status",
                                   .value = 0x01});
    it.add(simulated_bmc::analog{.number = 5,
                                 .entity = 0x0a,
                                 .instance = 1,
                                 .type = 0x0b,
                                 .unit = watts,
                                 .factor = 4,
                                 .name = "PS1 Power",
                                 .value = 50,
                                 .upper = {},
                                 .lower = {}});
    it.add(simulated_bmc::discrete{.number = 6,
                                   .entity = 0x0a,
                                   .instance = 2,
                                   .type = 8,
                                   .reading_type = 0x6f,
                                   .can_tell = 0x0f,
                                   .name = "PS2 Status",
                                   .value = 0});
    it.add(simulated_bmc::analog{.number = 7,
                                 .entity = 0x0a,
                                 .instance = 2,
                                 .type = 0x0b,
                                 .unit = watts,
                                 .factor = 4,
                                 .name = "PS2 Power",
                                 .value = 0,
                                 .upper = {},
                                 .lower = {}});
    it.add(simulated_bmc::discrete{.number = 8,
                                   .entity = 4,
                                   .instance = 1,
                                   .type = 0x0d,
                                   .reading_type = 0x6f,
                                   .can_tell = 0x07,
                                   .name = "Drive 1",
                                   .value = 0x03});
    it.add(simulated_bmc::discrete{.number = 9,
                                   .entity = 4,
                                   .instance = 2,
                                   .type = 0x0d,
                                   .reading_type = 0x6f,
                                   .can_tell = 0x03,
                                   .name = "Drive",
                                   .value = 0x01,
                                   .others = {0x03, 0x00}});
    it.add(simulated_bmc::analog{.number = 12,
                                 .entity = 7,
                                 .instance = 1,
                                 .type = 1,
                                 .unit = fahrenheit,
                                 .factor = 1,
                                 .name = "VR Temp",
                                 .value = 104,
                                 .upper = {194, 212, 230},
                                 .lower = {}});
    it.add_unit(0, 0, 0, {"Maker", "Rack One", "R1-PART", "1.0", "SYS-SERIAL", "", ""});
    it.add_unit(1, 0x0a, 1, {"Powers", "PSU 750", "P750", "A3", "PS-1-SERIAL", "", ""});
}

const std::vector<expected_sensor> built_sensors = {
    {"/SYS/T_INLET_TEMP", 24, 6, platform::upper_critical, 42},
    {"/SYS/MB/V_P12V", 12.1, 3, platform::upper_fatal, 14},
    {"/SYS/FAN1/FAN_FAN_1", 5400, 3, platform::lower_critical, 600},
    {"/SYS/PSU1/PRSNT", 2, 0, platform::upper_fatal, 0},
    {"/SYS/PSU1/PS/PS1_STATUS_FAULT", 1, 0, platform::upper_fatal, 0},
    {"/SYS/PSU1/PS/PS1_STATUS_PREDICTIVE", 1, 0, platform::upper_fatal, 0},
    {"/SYS/PSU1/PS/PS1_STATUS_INPUT_LOST", 1, 0, platform::upper_fatal, 0},
    {"/SYS/PSU1/PS/P_PS1_POWER", 200, 0, platform::upper_fatal, 0},
    {"/SYS/PSU2/PRSNT", 1, 0, platform::upper_fatal, 0},
    {"/SYS/HDD1/PRSNT", 2, 0, platform::upper_fatal, 0},
    {"/SYS/HDD1/DRIVE_1_FAULT", 2, 0, platform::upper_fatal, 0},
    {"/SYS/HDD1/DRIVE_1_PREDICTIVE", 1, 0, platform::upper_fatal, 0},
    {"/SYS/HDD2/PRSNT", 2, 0, platform::upper_fatal, 0},
    {"/SYS/HDD2/DRIVE2_FAULT", 1, 0, platform::upper_fatal, 0},
    {"/SYS/HDD3/PRSNT", 2, 0, platform::upper_fatal, 0},
    {"/SYS/HDD3/DRIVE3_FAULT", 2, 0, platform::upper_fatal, 0},
    {"/SYS/HDD4/PRSNT", 1, 0, platform::upper_fatal, 0},
    {"/SYS/HDD4/DRIVE4_FAULT", 1, 0, platform::upper_fatal, 0},
    {"/SYS/MB/T_VR_TEMP", 40, 3, platform::upper_critical, 100},
};

constexpr std::chrono::seconds longest(80); /* reads, ten seconds apart, and a busy machine */

void start_watching(const simulated_bmc &it, child_process &watching)
{
    std::vector<std::string> command = it.describe_command();
    command.emplace_back("--watch");
    watching.start(command, it.here / "log-of-watcher");
}

testing::AssertionResult is_watched(const simulated_bmc &it)
{
    const auto log = [&it] { return read_file(it.here / "log-of-watcher"); };
    const bool good = eventually(
        [&] { return log().find("describes this machine") != std::string::npos; }, longest);
    return (good ? testing::AssertionSuccess() : testing::AssertionFailure()) << log();
}

} // namespace

TEST(bmc, what_it_has_is_described_checked_and_read_from_files)
{
    if (!has_bmc_client()) {
        GTEST_SKIP() << "built without the library that asks service processors";
    }
    simulated_bmc it;
    build(it);
    ASSERT_NO_FATAL_FAILURE(it.start());
    child_process watching;
    start_watching(it, watching);
    ASSERT_TRUE(is_watched(it));
    // Beside who reads the values anew anybody may describe.
    const command_result described = run_command(command_line(it.describe_command()));
    EXPECT_EQ(0, described.status);
    EXPECT_EQ("", described.output);
    const command_result checked = run_command(std::string(KAVPLAT_COMMAND) + " check --user '' " +
                                               quoted(it.here / "server.json") + " 2>&1");
    EXPECT_EQ(0, checked.status) << checked.output;
    EXPECT_EQ(std::string::npos, checked.output.find("warning")) << checked.output;

    const auto all = load(it.here / "server.json");
    ASSERT_NE(nullptr, all);
    for (const expected_sensor &each : built_sensors) {
        expect_sensor(*all, each);
    }
    const auto sensors = std::ranges::count_if(
        all->components, [](const auto &each) { return each.sensor != nullptr; });
    EXPECT_EQ(built_sensors.size(), static_cast<size_t>(sensors));
    EXPECT_EQ(nullptr, platform::find_component(*all, "/SYS/PSU2/PS")); /* it is missing */
    const platform::component *supply = platform::find_component(*all, "/SYS/PSU1/PS");
    ASSERT_NE(nullptr, supply);
    ASSERT_TRUE(supply->fru);
    EXPECT_EQ("PS-1-SERIAL", supply->fru->serial);
    EXPECT_EQ("P750", supply->fru->model);
    EXPECT_EQ("PSU 750", supply->fru->alias);
    EXPECT_EQ("A3", supply->fru->software_revision);
    EXPECT_NE(std::string::npos, read_file(it.here / "server.json").find("SYS-SERIAL"));
}

TEST(bmc, a_value_that_nobody_reads_again_is_not_served_as_a_good_one)
{
    if (!has_bmc_client()) {
        GTEST_SKIP() << "built without the library that asks service processors";
    }
    simulated_bmc it;
    build(it);
    ASSERT_NO_FATAL_FAILURE(it.start());
    const auto expect_no_reading = [&it] {
        const command_result described = run_command(command_line(it.describe_command()));
        EXPECT_EQ(0, described.status);
        EXPECT_EQ("kavplat describe: service processor: its readings need --watch; until then "
                  "none is valid\n",
                  described.output);
        const auto all = load(it.here / "server.json");
        ASSERT_NE(nullptr, all);
        for (const expected_sensor &each : built_sensors) {
            expect_sensor(*all, each, false);
        }
        const platform::component *supply = platform::find_component(*all, "/SYS/PSU1/PS");
        ASSERT_NE(nullptr, supply);
        EXPECT_EQ("PS-1-SERIAL", supply->fru->serial);
    };
    expect_no_reading();
    // A watcher that could not say that it ends leaves its last values behind.
    child_process watching;
    start_watching(it, watching);
    ASSERT_TRUE(is_watched(it));
    const fs::path valid = it.here / "values" / "20.0.01.valid";
    EXPECT_EQ("1\n", read_file(valid));
    ASSERT_EQ(0, ::kill(watching.id(), SIGKILL));
    EXPECT_TRUE(eventually([&] { return !are_kept(it.here / "values"); }));
    EXPECT_EQ("1\n", read_file(valid));
    expect_no_reading();
}

TEST(bmc, a_watcher_writes_values_anew_sees_a_supply_plugged_and_goes_on_without_an_answer)
{
    if (!has_bmc_client()) {
        GTEST_SKIP() << "built without the library that asks service processors";
    }
    simulated_bmc it;
    build(it);
    ASSERT_NO_FATAL_FAILURE(it.start());
    child_process watching;
    start_watching(it, watching);
    const auto log = [&it] { return read_file(it.here / "log-of-watcher"); };
    ASSERT_TRUE(is_watched(it));
    const fs::path inlet = it.here / "values" / "20.0.01";
    EXPECT_EQ("24\n", read_file(inlet));
    EXPECT_EQ(std::string::npos, read_file(it.here / "server.json").find("/SYS/PSU2/PS\""));

    it.set(1, 31);
    it.set(6, 0x01);
    EXPECT_TRUE(eventually([&] { return read_file(inlet) == "31\n"; }, longest)) << log();
    EXPECT_TRUE(eventually(
        [&] {
            return read_file(it.here / "server.json").find("/SYS/PSU2/PS\"") != std::string::npos;
        },
        longest))
        << log();

    it.stop();
    EXPECT_TRUE(eventually([&] { return read_file(inlet.string() + ".valid") == "0\n"; }, longest))
        << log();
    EXPECT_TRUE(eventually([&] { return log().find("does not answer") != log().npos; }, longest))
        << log();
    EXPECT_NE(std::string::npos, read_file(it.here / "server.json").find("/SYS/PSU1/PS\""));
    ASSERT_EQ(0, ::kill(watching.id(), SIGTERM));
    EXPECT_EQ(0, watching.wait(std::chrono::seconds(30)).value_or(-1));
}

TEST(bmc, that_does_not_answer_costs_its_components_and_one_line)
{
    if (!has_bmc_client()) {
        GTEST_SKIP() << "built without the library that asks service processors";
    }
    simulated_bmc nobody;
    const command_result described = run_command(command_line(nobody.describe_command()));
    EXPECT_EQ(0, described.status);
    EXPECT_EQ(1, std::ranges::count(described.output, '\n')) << described.output;
    EXPECT_NE(std::string::npos, described.output.find("service processor: 127.0.0.1"))
        << described.output;
    EXPECT_NE(nullptr, load(nobody.here / "server.json"));
}

TEST(bmc, supplies_and_processors_that_others_told_of_are_not_told_of_twice)
{
    const auto names_with = [](std::vector<std::string> labels, const bmc_inventory &told) {
        machine made;
        for (const std::string &each : labels) {
            component &bay = made.add(made.root(), each, "psu-bay");
            made.add(bay, "PS", "power-supply");
            component &socket = made.add(made.board(), "CPU_" + each, "cpu-socket");
            made.add(socket, "CPU", "processor");
        }
        add_bmc(told, made);
        std::vector<std::string> names;
        const json description = to_json(made);
        for (const json &each : description["components"]) {
            if (each["type"] != "cpu-socket" && each["type"] != "psu-bay") {
                names.push_back(each["name"]);
            }
        }
        return names;
    };
    bmc_inventory told;
    told.directory = "/run/values";
    told.sensors = {
        {.key = "20.0.01", .name = "A", .entity = {0x0a, 1}, .quantity = "power"},
        {.key = "20.0.02", .name = "B", .entity = {0x0a, 2}, .quantity = "power"},
        {.key = "20.0.03", .name = "C", .entity = {0x03, 2}, .quantity = "temperature"},
        {.key = "20.0.04", .name = "D", .entity = {0x41, 1}, .quantity = "temperature"}};
    using list = std::vector<std::string>;
    /* Numbered as the instances are, from 0 on, and not at all. */
    for (const auto &[first, second] :
         {std::pair("PSU1", "PSU2"), std::pair("PSU0", "PSU1"), std::pair("LEFT", "RIGHT")}) {
        const std::string one = first;
        const std::string other = second;
        list expected{"/SYS", "/SYS/MB"};
        for (const auto &[label, value, degrees] :
             {std::tuple(one, "P_A", "T_D"), std::tuple(other, "P_B", "T_C")}) {
            const std::string supply = "/SYS/" + label + "/PS";
            const std::string cpu = "/SYS/MB/CPU_" + label + "/CPU";
            expected.insert(expected.end(),
                            {supply, supply + '/' + value, cpu, cpu + '/' + degrees});
        }
        list found = names_with({one, other}, told);
        std::ranges::sort(expected);
        std::ranges::sort(found);
        EXPECT_EQ(expected, found);
    }
    /* A supply that was there at the start, and was pulled. */
    told.sensors = {{.key = "20.0.05",
                     .name = "PS2",
                     .entity = {0x0a, 2},
                     .flags = {"presence", "fault"},
                     .present = false}};
    const list pulled = names_with({"PSU1", "PSU2"}, told);
    EXPECT_EQ(1, std::ranges::count(pulled, "/SYS/PSU1/PS"));
    EXPECT_EQ(1, std::ranges::count(pulled, "/SYS/PSU2/PRSNT"));
    EXPECT_EQ(0, std::ranges::count(pulled, "/SYS/PSU2/PS"));
}

TEST(bmc, an_inventory_is_the_same_after_it_was_told)
{
    bmc_inventory told;
    told.directory = "/run/values";
    told.sensors = {{.key = "20.0.01",
                     .name = "A",
                     .entity = {0x0a, 1},
                     .quantity = "power",
                     .limits = {{"upper_fatal", 3.5}},
                     .flags = {"fault"},
                     .present = false}};
    told.units = {{.entity = {7, 1}, .whole = true}};
    told.units.front().board.serial = "S";
    EXPECT_EQ(to_json(told), to_json(inventory_of(to_json(told))));
    EXPECT_EQ(3.5, inventory_of(to_json(told)).sensors.at(0).limits.at("upper_fatal"));
    EXPECT_EQ("S", inventory_of(to_json(told)).units.at(0).board.serial);
}

TEST(bmc, flags_are_those_states_that_a_sensor_can_tell)
{
    const auto names = [](unsigned type, unsigned reading_type, uint16_t can_tell) {
        std::string all;
        for (const bmc_flag &each : bmc_flags(type, reading_type, can_tell)) {
            all += std::string(each.name) + ' ';
        }
        return all;
    };
    EXPECT_EQ("presence fault predictive input_lost ", names(0x08, 0x6f, 0));
    EXPECT_EQ("presence fault ", names(0x08, 0x6f, 0x03));
    EXPECT_EQ("presence ", names(0x1d, 0x08, 0x03));
    EXPECT_EQ("fault ", names(0x04, 0x03, 0x03));
    EXPECT_EQ("", names(0x23, 0x6f, 0xff)); /* a watchdog's */
}

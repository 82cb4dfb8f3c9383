#include "described/live/live_values.h"

#include "described/platform.h"
#include "described/support.h"
#include "platform/capi.h"

#include <cmath>
#include <fcntl.h>
#include <functional>
#include <limits>
#include <sys/stat.h>
#include <unistd.h>

using namespace described_platform;
using namespace described_platform_test;
using namespace std::chrono_literals;

namespace
{

using clock_type = std::chrono::steady_clock;

/* Sanitizers and a busy machine take their time; a second bound would take more. */
constexpr auto slack = 5s;

class live : public platform_test
{
  protected:
    void describe_reading(const std::string &binding)
    {
        describe_sensor(R"("class": 1, "type": 1, "reading": )" + binding);
    }

    void describe_sensor(const std::string &members)
    {
        write_file(path,
                   described(R"({"name": "/SYS/T", "type": 16, "sensor": {)" + members + "}}"));
        enumerate();
    }

    static void enumerate()
    {
        uint32_t count = 0;
        capi_inventory_record *items = nullptr;
        ASSERT_EQ(0, capi_get_inventory("/", CAPI_INVENTORY_SUBTREE, &count, &items));
        capi_free_inventory(items, count);
    }

    /* Not a number when the call fails. */
    static float reading(const char *name = "/SYS/T")
    {
        capi_sensor_record record{};
        return capi_get_sensor(0, name, &record) == 0 ? record.reading
                                                      : std::numeric_limits<float>::quiet_NaN();
    }
};

TEST_F(live, a_file_is_read_anew_at_each_call)
{
    write_file(directory / "t", "21\n");
    describe_reading(R"({"file": "t"})");
    for (int i = 0; i < 50; ++i) {
        write_file(directory / "t", std::to_string(i));
        EXPECT_EQ(static_cast<float>(i), reading());
    }
}

TEST_F(live, scale_and_offset_apply_to_the_number)
{
    write_file(directory / "t", "  45500 millidegrees\n");
    describe_reading(R"({"file": ")" + (directory / "t").string() +
                     R"(", "scale": 0.001, "offset": -0.5})");
    EXPECT_FLOAT_EQ(45.0F, reading());
}

TEST_F(live, a_file_that_vanishes_fails_and_one_that_comes_back_is_read)
{
    write_file(directory / "t", "1");
    describe_reading(R"({"file": "t"})");
    EXPECT_EQ(1.0F, reading());
    std::filesystem::remove(directory / "t");
    EXPECT_TRUE(std::isnan(reading()));
    write_file(directory / "t", "2");
    EXPECT_EQ(2.0F, reading());
}

TEST_F(live, what_is_no_number_fails)
{
    describe_reading(R"({"file": "t", "scale": 2})");
    for (const char *text : {"", "  \n ", "hot", "12C", "0x10", "nan", "inf", "-inf", "1e39",
                             "1e999", "--1", "+-1", "+", "1,5"}) {
        write_file(directory / "t", text);
        EXPECT_TRUE(std::isnan(reading())) << text;
    }
    write_file(directory / "t", std::string(5000, '1'));
    EXPECT_TRUE(std::isnan(reading()));
    for (const char *text : {"+1.5e1", "15", "15.0 x", "\t15\r\n"}) {
        write_file(directory / "t", text);
        EXPECT_EQ(30.0F, reading()) << text;
    }
}

TEST_F(live, names_stand_for_codes_in_files_too_and_are_not_scaled)
{
    write_file(path, described(R"({"name": "/SYS/A", "type": 9,
        "power": {"file": "power", "scale": 10}, "ready_to_remove": {"file": "ready"}},
        {"name": "/SYS/L", "type": "led", "indicator": {"state": {"file": "led"}}})"));
    enumerate();
    int32_t code = 0;
    write_file(directory / "power", "standby\n");
    ASSERT_EQ(0, capi_get_power_state(0, "/SYS/A", &code));
    EXPECT_EQ(CAPI_POWER_STANDBY, code);
    write_file(directory / "power", "0.2\n");
    ASSERT_EQ(0, capi_get_power_state(0, "/SYS/A", &code));
    EXPECT_EQ(CAPI_POWER_ON, code);
    write_file(directory / "power", "slow-blink\n");
    EXPECT_EQ(-1, capi_get_power_state(0, "/SYS/A", &code));
    write_file(directory / "power", "300000000\n");
    EXPECT_EQ(-1, capi_get_power_state(0, "/SYS/A", &code)) << "times ten is no 32-bit code";
    write_file(directory / "ready", "false\n");
    ASSERT_EQ(0, capi_get_rdy2rm_status(0, "/SYS/A", &code));
    EXPECT_EQ(CAPI_NOT_READY_TO_REMOVE, code);
    capi_indicator_record led;
    write_file(directory / "led", "fast-blink");
    ASSERT_EQ(0, capi_get_indicator(0, "/SYS/L", &led));
    EXPECT_EQ(CAPI_INDICATOR_FAST_BLINK, led.state);
    std::filesystem::remove(directory / "led");
    EXPECT_EQ(-1, capi_get_indicator(0, "/SYS/L", &led));
}

TEST_F(live, every_bound_part_of_a_sensor_counts)
{
    for (const char *name : {"reading", "raw", "valid", "state"}) {
        write_file(directory / name, "1");
    }
    describe_sensor(R"("class": 2, "type": 0, "reading": {"file": "reading"},
        "raw_reading": {"file": "raw"}, "valid": {"file": "valid"}, "state": {"file": "state"})");
    capi_sensor_record record;
    ASSERT_EQ(0, capi_get_sensor(0, "/SYS/T", &record));
    EXPECT_EQ(CAPI_READING_VALID, record.reading_status);
    write_file(directory / "raw", "255");
    write_file(directory / "state", "failed");
    write_file(directory / "reading", "asserted");
    ASSERT_EQ(0, capi_get_sensor(0, "/SYS/T", &record));
    EXPECT_EQ(255, record.raw_reading);
    EXPECT_EQ(1.0F, record.state);
    EXPECT_EQ(2.0F, record.reading);
    write_file(directory / "raw", "256");
    EXPECT_EQ(-1, capi_get_sensor(0, "/SYS/T", &record));
    write_file(directory / "raw", "0");
    write_file(directory / "state", "?");
    EXPECT_EQ(-1, capi_get_sensor(0, "/SYS/T", &record));
    write_file(directory / "valid", "false");
    ASSERT_EQ(0, capi_get_sensor(0, "/SYS/T", &record));
    EXPECT_EQ(CAPI_READING_INVALID, record.reading_status);
    write_file(directory / "valid", "?");
    EXPECT_EQ(-1, capi_get_sensor(0, "/SYS/T", &record));
}

TEST_F(live, a_fifo_without_a_writer_costs_one_bound_and_then_nothing)
{
    ASSERT_EQ(0, ::mkfifo((directory / "fifo").c_str(), 0600));
    describe_reading(R"({"file": "fifo"})");
    auto begin = clock_type::now();
    EXPECT_TRUE(std::isnan(reading()));
    const auto first = clock_type::now() - begin;
    EXPECT_GE(first, default_read_bound);
    EXPECT_LT(first, default_read_bound + slack);
    begin = clock_type::now();
    for (int i = 0; i < 1000; ++i) {
        EXPECT_TRUE(std::isnan(reading()));
    }
    EXPECT_LT(clock_type::now() - begin, 10 * default_read_bound + slack)
        << "a thousand times the bound is far more";
}

TEST_F(live, the_environment_sets_the_bound)
{
    ::setenv("KAVPLAT_READ_TIMEOUT_MS", "700", 1);
    ASSERT_EQ(0, ::mkfifo((directory / "fifo").c_str(), 0600));
    describe_reading(R"({"file": "fifo"})");
    const auto begin = clock_type::now();
    EXPECT_TRUE(std::isnan(reading()));
    EXPECT_GE(clock_type::now() - begin, 700ms);
}

TEST_F(live, a_bad_bound_in_the_environment_is_told_and_not_taken)
{
    ::setenv("KAVPLAT_READ_TIMEOUT_MS", "soon", 1);
    describe_reading("1");
    EXPECT_TRUE(wait_for_log("KAVPLAT_READ_TIMEOUT_MS: expected milliseconds 1 to 60000, found "
                             "\"soon\"; 200 it is"));
}

TEST_F(live, a_blocked_file_is_served_again_once_it_gives_a_value)
{
    const std::string fifo = (directory / "fifo").string();
    ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
    describe_reading(R"({"file": "fifo"})");
    EXPECT_TRUE(std::isnan(reading()));
    /* The writer comes through whenever a reader of ours has the fifo open. */
    const int writer = ::open(fifo.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(writer, 0);
    ASSERT_EQ(3, ::write(writer, "33\n", 3));
    const auto deadline = clock_type::now() + patience;
    float value = reading();
    while (std::isnan(value) && clock_type::now() < deadline) {
        std::this_thread::yield();
        value = reading();
    }
    EXPECT_EQ(33.0F, value);
    ::close(writer);
}

TEST_F(live, three_hundred_blocked_values_stall_a_walk_for_seconds_only_and_only_once)
{
    std::string components;
    for (int i = 0; i < 300; ++i) {
        const std::string number = std::to_string(i);
        ASSERT_EQ(0, ::mkfifo((directory / ("f" + number)).c_str(), 0600));
        components += (i == 0 ? "" : ",") + (R"({"name": "/SYS/T)" + number +
                                             R"(", "type": 16, "sensor": {"class": 1, "type": 1,
                                             "reading": {"file": "f)" +
                                             number + "\"}}}");
    }
    write_file(path, described(components));
    enumerate();
    const auto walk = [] {
        const auto begin = clock_type::now();
        for (int i = 0; i < 300; ++i) {
            EXPECT_TRUE(std::isnan(reading(("/SYS/T" + std::to_string(i)).c_str())));
        }
        return clock_type::now() - begin;
    };
    const auto first = walk();
    EXPECT_GE(first, default_read_bound);
    EXPECT_LT(first, 5 * default_read_bound + 1s + slack) << "300 bounds are a minute";
    EXPECT_LT(walk(), slack);
    EXPECT_LE(the_machine().values.worker_count(), 16U);
    RecordProperty(
        "milliseconds",
        static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(first).count()));
}

TEST_F(live, a_good_file_is_still_read_when_others_hang)
{
    std::string components = R"({"name": "/SYS/T", "type": 16, "sensor": {"class": 1, "type": 1,
                                 "reading": {"file": "good"}}})";
    for (int i = 0; i < 40; ++i) {
        const std::string number = std::to_string(i);
        ASSERT_EQ(0, ::mkfifo((directory / ("f" + number)).c_str(), 0600));
        components += R"(,{"name": "/SYS/T)" + number + R"(", "type": 16, "sensor": {"class": 1,
                         "type": 1, "reading": {"file": "f)" +
                      number + "\"}}}";
    }
    write_file(directory / "good", "5");
    write_file(path, described(components));
    enumerate();
    for (int i = 0; i < 40; ++i) {
        EXPECT_TRUE(std::isnan(reading(("/SYS/T" + std::to_string(i)).c_str())));
    }
    const auto deadline = clock_type::now() + patience;
    float value = reading();
    while (value != 5.0F && clock_type::now() < deadline) {
        value = reading();
    }
    EXPECT_EQ(5.0F, value);
}

TEST_F(live, files_that_no_description_binds_are_forgotten)
{
    live_values values(default_read_bound);
    std::vector<std::string> files;
    for (int i = 0; i < 100; ++i) {
        files.push_back((directory / std::to_string(i)).string());
        write_file(files.back(), "1");
    }
    values.set_files(files);
    EXPECT_EQ(100U, values.remembered_files());
    values.set_files({files[7]});
    EXPECT_EQ(1U, values.remembered_files());
    live_value bound;
    bound.file = files[7];
    bound.high = 10;
    live_reading reading{&bound};
    values.read({&reading, 1});
    EXPECT_EQ(1.0, reading.result);
}

TEST_F(live, readers_on_many_threads_all_get_their_values)
{
    std::vector<live_value> bound(8);
    for (size_t i = 0; i < bound.size(); ++i) {
        bound[i].file = (directory / std::to_string(i)).string();
        bound[i].high = 100;
        write_file(bound[i].file, std::to_string(i));
    }
    live_values values(10s);
    std::atomic<int> wrong = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int round = 0; round < 100; ++round) {
                std::vector<live_reading> readings;
                for (const live_value &each : bound) {
                    readings.push_back({&each});
                }
                values.read(readings);
                for (size_t i = 0; i < readings.size(); ++i) {
                    wrong += readings[i].result == static_cast<double>(i) ? 0 : 1;
                }
            }
        });
    }
    for (std::thread &each : threads) {
        each.join();
    }
    EXPECT_EQ(0, wrong);
}

std::string line_of(const char *priority, const std::string &rest)
{
    return std::string(priority) + ":/SYS/T: sensor.reading: " + rest + "\n";
}

TEST_F(live, each_fault_of_a_bound_file_is_told_once_with_the_file_and_the_reason)
{
    const std::filesystem::path file = directory / "t";
    const auto holds = [&](const std::string &text) { return [=] { write_file(file, text); }; };
    const auto links_to = [&](const char *target) {
        return [=] { std::filesystem::create_symlink(target, file); };
    };
    const std::string unreadable = "a file that can not be read: ";
    const std::vector<std::pair<std::function<void()>, std::string>> faults = {
        {[] {}, unreadable + "No such file or directory"},
        {links_to("nowhere"), unreadable + "No such file or directory"},
        {links_to("t"), unreadable + "Too many levels of symbolic links"},
        {links_to("server.json/t"), unreadable + "Not a directory"},
        {[&] { std::filesystem::create_directory(file); }, unreadable + "Is a directory"},
        {[&] {
             write_file(file, "1");
             std::filesystem::permissions(file, std::filesystem::perms::none);
         },
         ::geteuid() == 0 ? "" : unreadable + "Permission denied"},
        {[&] { ASSERT_EQ(0, ::mkfifo(file.c_str(), 0600)); }, "no answer in time"},
        {holds(""), "an empty file"},
        {holds(" \n\t"), "an empty file"},
        {holds("hot\n"), "\"hot\""},
        {holds("12C"), "\"12C\""},
        {holds("h\x01\xfft"), "\"h??t\""},
        {holds("nan"), "\"nan\", which is out of range"},
        {holds("-1e39"), "\"-1e39\", which is out of range"},
        {holds("1e999"), "\"1e999\", which is out of range"},
        {holds(std::string(65, '1')), "a word that is too long for either"},
    };
    for (const auto &[make, found] : faults) {
        described_platform_stop();
        write_file(file, "1");
        describe_reading(R"({"file": "t"})");
        EXPECT_EQ(1.0F, reading());
        clear_log();
        std::filesystem::remove(file);
        make();
        std::vector<std::string> expected;
        if (!found.empty()) {
            EXPECT_TRUE(std::isnan(reading()));
            EXPECT_TRUE(std::isnan(reading()));
            expected = {line_of("3", file.string() +
                                         ": expected a number in the range of single precision, "
                                         "found " +
                                         found),
                        line_of("6", file.string() + ": good again")};
        }
        EXPECT_EQ(expected.empty() ? 0U : 1U, log_lines().size()) << found;
        std::filesystem::remove(file);
        write_file(file, "2");
        for (const auto deadline = clock_type::now() + patience;
             reading() != 2.0F && clock_type::now() < deadline;) {
        }
        EXPECT_EQ(2.0F, reading());
        EXPECT_EQ(expected, log_lines());
    }
}

TEST_F(live, a_file_whose_name_has_a_line_end_is_told_in_one_line)
{
    describe_reading(R"({"file": "t\n\u007f\u00fc: forged"})");
    clear_log();
    EXPECT_TRUE(std::isnan(reading()));
    EXPECT_EQ(std::vector<std::string>{line_of(
                  "3", (directory / "t??\u00fc: forged").string() +
                           ": expected a number in the range of single precision, found "
                           "a file that can not be read: No such file or directory")},
              log_lines());
}

TEST_F(live, a_star_finds_the_file_again_when_the_kernel_counts_anew)
{
    const std::filesystem::path device = directory / "device/hwmon";
    std::filesystem::create_directories(device / "hwmon0");
    write_file(device / "hwmon0/temp1_input", "1");
    describe_reading(R"({"file": "device/hwmon/hwmon*/temp1_input"})");
    EXPECT_EQ(1.0F, reading());
    clear_log();
    for (int number = 1; number < 20; ++number) {
        const std::string name = "hwmon" + std::to_string(number);
        std::filesystem::rename(device / ("hwmon" + std::to_string(number - 1)), device / name);
        write_file(device / name / "temp1_input", std::to_string(number));
        EXPECT_EQ(static_cast<float>(number), reading());
    }
    EXPECT_EQ(std::vector<std::string>{}, log_lines());
}

TEST_F(live, a_star_that_fits_none_or_two_is_told_once_and_when_it_is_good_again)
{
    const std::filesystem::path hwmon = directory / "hwmon";
    const auto make = [&](const char *name) {
        std::filesystem::create_directories(hwmon / name);
        write_file(hwmon / name / "t", "1");
    };
    const auto told = [&](const std::string &fault) {
        return line_of(
            fault == "good again" ? "6" : "3",
            (hwmon / "h*/t").string() + ": " +
                (fault == "good again"
                     ? fault
                     : "expected a number in the range of single precision, found " + fault));
    };
    make("h1");
    describe_reading(R"({"file": "hwmon/h*/t"})");
    EXPECT_EQ(1.0F, reading());
    clear_log();
    const auto twice_bad = [&] {
        EXPECT_TRUE(std::isnan(reading()));
        EXPECT_TRUE(std::isnan(reading()));
    };
    make("h2");
    std::filesystem::create_directories(hwmon / "h0");
    EXPECT_EQ(1.0F, reading()) << "it is read as long as it is there";
    std::filesystem::remove(hwmon / "h1/t");
    EXPECT_EQ(1.0F, reading()) << "another one is the only one now";
    make("h1");
    std::filesystem::remove_all(hwmon / "h2");
    make("h3");
    twice_bad();
    std::filesystem::remove_all(hwmon / "h1");
    EXPECT_EQ(1.0F, reading());
    std::filesystem::remove_all(hwmon);
    twice_bad();
    make(".h1");
    twice_bad();
    write_file(hwmon / "h1", "is no directory");
    twice_bad();
    make("h2");
    EXPECT_EQ(1.0F, reading());
    EXPECT_EQ((std::vector<std::string>{
                  told("more than one file that fits the pattern: " + (hwmon / "h1/t").string() +
                       " and " + (hwmon / "h3/t").string()),
                  told("good again"), told("no file that fits the pattern"), told("good again")}),
              log_lines());
}

TEST(pattern, a_star_fits_any_characters_but_a_dot_at_the_beginning)
{
    const struct {
        const char *pattern;
        const char *name;
        bool fits;
    } cases[] = {
        {"hwmon*", "hwmon", true}, {"hwmon*", "hwmon12", true},
        {"hwmon*", "hwmo", false}, {"*", "x", true},
        {"*", ".x", false},        {".*", ".x", true},
        {"a*b*c", "abc", true},    {"a*b*c", "abbcbc", true},
        {"a*b*c", "abcb", false},  {"*aab", "aaaab", true},
        {"**", "x", true},         {"t?", "t1", false},
        {"[ab]*", "a1", false},    {"[ab]*", "[ab]1", true},
        {"a*", "b", false},        {"*_input", "t_input", true},
        {"\\*", "*", false},
    };
    for (const auto &each : cases) {
        EXPECT_EQ(each.fits, fits(each.name, each.pattern)) << each.pattern << ' ' << each.name;
    }
}

class patterns : public platform_test
{
  protected:
    pattern_match found(const char *pattern) const
    {
        return find_match((directory / pattern).string(), clock_type::now() + 10s);
    }
};

TEST_F(patterns, what_is_there_literally_is_meant)
{
    std::filesystem::create_directories(directory / "a*");
    std::filesystem::create_directories(directory / "ab");
    write_file(directory / "a*/t*", "");
    write_file(directory / "a*/t1", "");
    write_file(directory / "ab/t", "");
    EXPECT_EQ(match_outcome::one, found("a*/t*").outcome);
    EXPECT_EQ((directory / "a*/t*").string(), found("a*/t*").path);
    EXPECT_EQ(match_outcome::none, found("a*/x").outcome);
    EXPECT_EQ((directory / "ab/t").string(), found("*b/*").path);
}

TEST_F(patterns, the_search_ends_in_a_hostile_tree)
{
    std::filesystem::create_directories(directory / "loops");
    for (int i = 0; i < 30; ++i) {
        std::filesystem::create_directory_symlink(".", directory / "loops" / std::to_string(i));
    }
    std::string all = (directory / "loops").string();
    for (int i = 0; i < 30; ++i) {
        all += "/*";
    }
    const auto begin = clock_type::now();
    EXPECT_EQ(match_outcome::no_time, find_match(all + "/none", begin + 100ms).outcome);
    EXPECT_LT(clock_type::now() - begin, slack);
    EXPECT_EQ(match_outcome::several, find_match(all, clock_type::now() + slack).outcome);

    std::filesystem::create_directories(directory / "many");
    for (int i = 0; i < 4200; ++i) {
        write_file(directory / "many" / std::to_string(i), "");
    }
    const pattern_match many = found("many/x*");
    EXPECT_EQ(match_outcome::failed, many.outcome);
    EXPECT_EQ(EFBIG, many.error);
}

TEST_F(live, a_value_that_is_bad_in_another_way_is_told_again)
{
    write_file(path, described(R"({"name": "/SYS/A", "type": 9, "power": {"file": "power"}})"));
    enumerate();
    clear_log();
    int32_t code = 0;
    for (const char *text : {"hot", "cold", "", "on", "hot"}) {
        write_file(directory / "power", text);
        capi_get_power_state(0, "/SYS/A", &code);
    }
    const std::string place = "/SYS/A: power: " + (directory / "power").string() + ": ";
    const std::string expected = place + "expected \"off\", \"on\", \"standby\", "
                                         "\"shutting-down\", a number -2147483648 to 2147483647, "
                                         "found ";
    EXPECT_EQ((std::vector<std::string>{
                  "3:" + expected + "\"hot\"\n", "3:" + expected + "an empty file\n",
                  "6:" + place + "good again\n", "3:" + expected + "\"hot\"\n"}),
              log_lines());
}

TEST_F(live, a_value_stays_known_as_bad_while_it_is_bound_and_no_longer)
{
    const std::string bound = R"({"name": "/SYS/A", "type": 9, "power": {"file": "power"}})";
    const auto bad_lines = [&](const std::string &components) {
        replace_file(path, described(components));
        enumerate();
        int32_t code = 0;
        capi_get_power_state(0, "/SYS/A", &code);
        return errors_logged().size();
    };
    EXPECT_EQ(1U, bad_lines(bound));
    EXPECT_EQ(1U, bad_lines(bound + R"(, {"name": "/SYS/B", "type": 9})"));
    EXPECT_EQ(1U, bad_lines(""));
    EXPECT_EQ(2U, bad_lines(bound));
}

TEST_F(live, what_an_invalid_sensor_reads_is_not_complained_of)
{
    describe_sensor(R"("class": 1, "type": 1, "reading": {"file": "t"}, "valid": {"file": "v"})");
    write_file(directory / "v", "false");
    EXPECT_EQ(0.0F, reading());
    EXPECT_EQ(std::vector<std::string>{}, errors_logged());
    write_file(directory / "v", "maybe");
    EXPECT_TRUE(std::isnan(reading()));
    EXPECT_EQ(2U, errors_logged().size()) << "of both";
}

} // namespace

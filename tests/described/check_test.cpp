#include "check.h"

#include "described/format/component_types.h"
#include "described/format/loader.h"
#include "described/support.h"

#include <map>
#include <pwd.h>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

using namespace described_platform;
using namespace described_platform_test;

namespace
{

class check : public platform_test
{
  protected:
    kavplat_check::options asked;
    std::ostringstream out;
    std::ostringstream errors;

    kavplat_check::status run(const std::string &text)
    {
        write_file(path, text);
        asked.files = {path.string()};
        out.str("");
        errors.str("");
        return kavplat_check::run(asked, out, errors);
    }

    /* The lines of warnings without the file's name. */
    std::multiset<std::string> warned(const std::string &text)
    {
        EXPECT_EQ(kavplat_check::good, run(text)) << errors.str();
        std::multiset<std::string> result;
        std::istringstream lines(errors.str());
        for (std::string line; std::getline(lines, line);) {
            EXPECT_TRUE(line.starts_with(path.string() + ":")) << line;
            result.insert(line.substr(path.string().size() + 1));
        }
        return result;
    }
};

/* A sensor that nothing is to be said of, but for these members. */
std::string sensor_of(const std::string &members, const std::string &more = "")
{
    return R"({"name": "/SYS/T", "type": "temperature-sensor")" + more + R"(, "sensor": {)" +
           members + "}}";
}

TEST_F(check, warns_of_what_is_accepted_and_serves_nothing)
{
    const std::string a = R"({"name": "/SYS/A", "type": 9, "capabilities": [)";
    const std::string celsius =
        R"("class": "threshold", "type": "temperature", "units": "degrees-c", "reading": 1)";
    const std::string discrete = R"("class": "discrete", "type": "other", "reading": 1)";
    /* Component, the place that is warned of or none, a part of the words. */
    const struct {
        std::string component;
        std::string place;
        std::string words;
    } cases[] = {
        {a + R"(], "fru": {}})", "/fru", "\"fru-info\""},
        {a + R"("fru-info"], "fru": {}})", "", ""},
        {a + R"(], "interface": "eth0"})", "", ""},
        {sensor_of(celsius, R"(, "interface": "eth0")"), "/interface", "of a sensor"},
        {R"({"name": "/SYS/L", "type": "led", "indicator": {"state": 1, "means": "fault"}})", "",
         ""},
        {R"({"name": "/SYS/L/M", "type": "led", "indicator": {"state": 1, "means": "fault"}},
            {"name": "/SYS/L", "type": "led", "indicator": {"state": 1}})",
         "/indicator/means", "no component holds it"},
        {a + R"(], "power": 1})", "/power", "\"power-readable\""},
        {a + R"("power-readable"], "power": 1})", "", ""},
        {a + R"("power-controllable"], "power": 1})", "", ""},
        {a + R"("power-standby"], "power": 1})", "/power", "\"power-readable\""},
        {a + R"("field-replaceable"], "power": 1})", "", ""},
        {a + R"("field-replaceable"], "power": 1, "ready_to_remove": true})", "/power",
         "\"power-readable\""},
        {a + R"(], "ready_to_remove": true})", "/ready_to_remove", "\"field-replaceable\""},
        {a + R"("field-replaceable"], "ready_to_remove": true})", "", ""},
        {a + R"(], "enable": 1})", "/enable", "\"enable-state\""},
        {a + R"("enable-state"], "enable": 1})", "", ""},
        {sensor_of(celsius), "", ""},
        {sensor_of(celsius, R"(, "capabilities": ["enable-state"])"), "/capabilities",
         "keep each other"},
        {sensor_of(discrete + R"(, "thresholds": {"upper_fatal": 1})"), "/sensor/thresholds",
         "\"threshold\""},
        {sensor_of(discrete + R"(, "thresholds": {})"), "", ""},
        {sensor_of(discrete + R"(, "state": "ok", "ok_semantics": true)"), "", ""},
        {sensor_of(celsius + R"(, "state": "ok")"), "/sensor/state", "\"discrete\""},
        {sensor_of(celsius + R"(, "ok_semantics": true)"), "/sensor/ok_semantics", "\"discrete\""},
        {sensor_of(R"("class": 1, "type": "voltage", "units": "volts", "current": "alternating",
                      "reading": 230)"),
         "", ""},
        {sensor_of(R"("class": 1, "type": 77, "units": "amps", "current": "alternating",
                      "reading": 1)"),
         "/sensor/current", "but volts"},
        {sensor_of(R"("class": 1, "type": "voltage", "units": "kelvin", "reading": 1)"),
         "/sensor/units", "\"kelvin\" is no unit of the type \"voltage\""},
        {sensor_of(R"("class": 1, "type": "humidity", "reading": 1)"), "/sensor/units",
         "\"none\" is no unit of the type \"humidity\""},
        {sensor_of(R"("class": 1, "type": "current", "units": 77, "reading": 1)"), "/sensor/units",
         "77 is no unit of the type \"current\""},
        {sensor_of(R"("class": 1, "type": 77, "units": "volts", "reading": 1)"), "", ""},
        {sensor_of(R"("class": 2, "type": "voltage", "reading": 1)"), "", ""},
        {sensor_of(celsius + R"(, "thresholds": {"lower_fatal": -1, "lower_critical": 0,
            "lower_non_critical": 1, "upper_non_critical": 1, "upper_critical": 3,
            "upper_fatal": 4})"),
         "", ""},
        {sensor_of(celsius + R"(, "thresholds": {"upper_non_critical": 9, "upper_fatal": 8})"),
         "/sensor/thresholds/upper_fatal", "it lies below upper_non_critical"},
        {sensor_of(celsius + R"(, "thresholds": {"lower_critical": 2, "lower_fatal": 3})"),
         "/sensor/thresholds/lower_critical", "it lies below lower_fatal"},
        {sensor_of(celsius + R"(, "thresholds": {"lower_fatal": 5, "upper_critical": -5})"),
         "/sensor/thresholds/upper_critical", "it lies below lower_fatal"},
    };
    for (const auto &each : cases) {
        const std::multiset<std::string> found = warned(described(each.component));
        if (each.place.empty()) {
            EXPECT_TRUE(found.empty()) << each.component << *found.begin();
            continue;
        }
        ASSERT_EQ(1U, found.size()) << each.component;
        EXPECT_NE(std::string::npos, found.begin()->find(" /components/1" + each.place + " (/SYS/"))
            << *found.begin();
        EXPECT_NE(std::string::npos, found.begin()->find("): warning: ")) << *found.begin();
        EXPECT_NE(std::string::npos, found.begin()->find(each.words)) << *found.begin();
        EXPECT_NE(std::string::npos, out.str().find(", 1 warning\n")) << out.str();
    }
}

TEST_F(check, a_warning_has_the_line_of_its_component_in_the_file)
{
    /* The inventory lists /SYS/A before what lies below /SYS/B. */
    const std::multiset<std::string> found =
        warned("{\"components\": [\n{\"name\": \"/SYS\", \"type\": 3},\n"
               "{\"name\": \"/SYS/B/C\", \"type\": 9,\n \"enable\": 1},\n"
               "{\"name\": \"/SYS/A\", \"type\": 9,\n\n \"fru\": {}},\n"
               "{\"name\": \"/SYS/B\", \"type\": 9}]}");
    std::multiset<std::string> places;
    for (const std::string &each : found) {
        places.insert(each.substr(0, each.find(": warning")));
    }
    EXPECT_EQ((std::multiset<std::string>{"4: /components/1/enable (/SYS/B/C)",
                                          "7: /components/2/fru (/SYS/A)"}),
              places);
}

std::string bound(const std::string &file, const std::string &more = "")
{
    return described(R"({"name": "/SYS/L", "type": "led", "indicator": {"state": {"file": ")" +
                     file + "\"" + more + "}}}");
}

TEST_F(check, warns_of_a_bound_file_that_is_absent_or_none)
{
    EXPECT_EQ(
        (std::multiset<std::string>{"2: /components/1/indicator/state/file (/SYS/L): "
                                    "warning: " +
                                    (directory / "led").string() + ": No such file or directory"}),
        warned(bound("led")));
    std::filesystem::create_directory(directory / "led");
    const auto found = warned(bound("led"));
    ASSERT_EQ(1U, found.size());
    EXPECT_TRUE(found.begin()->ends_with("led is a directory")) << *found.begin();
    std::filesystem::remove(directory / "led");
    write_file(directory / "led", "on");
    EXPECT_EQ((std::multiset<std::string>{}), warned(bound("led")));
}

TEST_F(check, warns_of_a_pattern_that_does_not_lead_to_one_file_and_reads_the_one)
{
    const auto ends = [&](const std::string &words) {
        const auto found = warned(bound("led*/state"));
        EXPECT_EQ(1U, found.size());
        return found.size() == 1 && found.begin()->ends_with("led*/state: " + words);
    };
    EXPECT_TRUE(ends("no file that fits the pattern"));
    const std::filesystem::path first = directory / "led1/state";
    const std::filesystem::path second = directory / "led2/state";
    std::filesystem::create_directories(first.parent_path());
    std::filesystem::create_directories(second.parent_path());
    write_file(first, "on");
    asked.read = true;
    EXPECT_EQ((std::multiset<std::string>{}), warned(bound("led*/state")));
    EXPECT_NE(std::string::npos, out.str().find("led*/state (" + first.string() + ")\n"))
        << out.str();
    write_file(second, "on");
    EXPECT_TRUE(ends("more than one file that fits the pattern: " + first.string() + " and " +
                     second.string()));
    std::filesystem::remove_all(second);
    std::filesystem::create_directories(second);
    std::filesystem::remove(first);
    const auto found = warned(bound("led*/state"));
    ASSERT_EQ(1U, found.size());
    EXPECT_TRUE(found.begin()->ends_with("led2/state is a directory")) << *found.begin();
}

/* Somebody who is neither root nor the owner: any other user there is. */
std::string some_other_user()
{
    std::string found;
    ::setpwent();
    while (const passwd *each = ::getpwent()) {
        if (each->pw_uid != 0 && each->pw_uid != ::geteuid()) {
            found = each->pw_name;
            break;
        }
    }
    ::endpwent();
    return found;
}

TEST_F(check, warns_of_files_that_the_user_of_the_agent_may_not_read)
{
    asked.user = some_other_user();
    if (asked.user.empty()) {
        GTEST_SKIP() << "there is no other user here";
    }
    write_file(directory / "led", "on");
    const auto mode = [](const std::filesystem::path &file, mode_t bits) {
        ASSERT_EQ(0, ::chmod(file.c_str(), bits)) << file;
    };
    const auto only = [&](const std::string &words) {
        const auto found = warned(bound("led"));
        EXPECT_EQ(words.empty() ? 0U : 1U, found.size());
        for (const std::string &each : found) {
            EXPECT_TRUE(each.ends_with("warning: " + asked.user + words)) << each;
        }
    };
    write_file(path, "");
    mode(directory, 0755);
    mode(path, 0644);
    mode(directory / "led", 0644);
    only("");
    mode(directory / "led", 0600);
    only(" may not read " + (directory / "led").string());
    mode(directory / "led", 0644);
    mode(path, 0600);
    only(" may not read " + path.string());
    mode(path, 0644);
    mode(directory, 0700); /* keeps him from both */
    const auto found = warned(bound("led"));
    EXPECT_EQ(2U, found.size());
    for (const std::string &each : found) {
        EXPECT_TRUE(each.ends_with(" may not enter " + directory.string())) << each;
    }
}

TEST_F(check, says_what_root_would_refuse)
{
    write_file(path, "");
    ASSERT_EQ(0, ::chmod(path.c_str(), 0666));
    const auto status = run(described(""));
    EXPECT_EQ(::geteuid() == 0 ? kavplat_check::bad : kavplat_check::good, status);
    EXPECT_NE(std::string::npos, errors.str().find("chmod o-w " + path.string())) << errors.str();
}

TEST_F(check, reads_each_bound_value_and_says_why_one_cannot_be_had)
{
    asked.read = true;
    write_file(directory / "t", "24500 and more");
    write_file(directory / "led", "fast-blink\n");
    write_file(directory / "bad", "lukewarm");
    const std::string text = described(
        R"({"name": "/SYS/L", "type": "led", "indicator": {"state": {"file": "led"}}},
           {"name": "/SYS/M", "type": "led", "indicator": {"state": "on"}},
           {"name": "/SYS/T", "type": 16, "sensor": {"class": 1, "type": 1, "units": 1,
              "reading": {"file": "t", "scale": 0.001}, "raw_reading": {"file": "bad"},
              "valid": {"file": "none"}}})");
    EXPECT_EQ(kavplat_check::good, run(text));
    const std::string file = path.string() + ": ";
    const std::string from = ", from " + directory.string();
    std::set<std::string> lines;
    std::istringstream rest(out.str());
    for (std::string line; std::getline(rest, line);) {
        if (!line.starts_with(file + "good")) {
            lines.insert(line);
        }
    }
    ASSERT_EQ(4U, lines.size()) << out.str();
    EXPECT_TRUE(lines.contains(file + "/SYS/L indicator/state: 4 (fast-blink)" + from + "/led"));
    EXPECT_TRUE(lines.contains(file + "/SYS/T sensor/reading: 24.5" + from + "/t"));
    EXPECT_TRUE(lines.contains(file +
                               "/SYS/T sensor/raw_reading: cannot be had (expected a number 0 to "
                               "255, found \"lukewarm\")" +
                               from + "/bad"));
    EXPECT_TRUE(lines.contains(
        file +
        "/SYS/T sensor/valid: cannot be had (expected \"true\", \"false\", a number in the "
        "range of single precision, found a file that can not be read: No such file or "
        "directory)" +
        from + "/none"));
}

TEST_F(check, waits_in_vain_for_each_file_that_hangs_and_blames_no_other)
{
    asked.read = true;
    std::string components;
    for (int i = 0; i < 8; ++i) {
        const std::string name = "fifo" + std::to_string(i);
        ASSERT_EQ(0, ::mkfifo((directory / name).c_str(), 0600));
        components += R"({"name": "/SYS/L)" + std::to_string(i) +
                      R"(", "type": "led", "indicator": {"state": {"file": ")" + name + "\"}}},";
    }
    write_file(directory / "led", "on");
    EXPECT_EQ(kavplat_check::good, run(described(components + R"({"name": "/SYS/Z", "type": "led",
                  "indicator": {"state": {"file": "led"}}})")));
    size_t waited = 0;
    for (size_t at = 0; (at = out.str().find("cannot be had", at)) != std::string::npos; ++at) {
        ++waited;
    }
    EXPECT_EQ(8U, waited) << out.str();
    EXPECT_NE(std::string::npos, out.str().find("/SYS/Z indicator/state: 2 (on)")) << out.str();
}

TEST_F(check, looks_at_all_files_and_is_as_good_as_the_worst)
{
    const std::filesystem::path other = directory / "other.json";
    write_file(path, described(""));
    write_file(other, "{}");
    asked.files = {other.string(), path.string()};
    EXPECT_EQ(kavplat_check::bad, kavplat_check::run(asked, out, errors));
    EXPECT_EQ(path.string() + ": good: root /SYS, 1 component, 0 sensors, 0 indicators, 0 with FRU "
                              "identity, 0 bound files\n",
              out.str());
    EXPECT_TRUE(errors.str().ends_with(other.string() + ": bad: 1 error\n")) << errors.str();
}

TEST_F(check, a_user_that_there_is_not_is_misuse)
{
    asked.user = "nobody-has-this-name";
    EXPECT_EQ(kavplat_check::misused, run(described("")));
    EXPECT_EQ("there is no user nobody-has-this-name\n", errors.str());
}

TEST_F(check, prints_the_catalogue)
{
    kavplat_check::print_types(out);
    std::istringstream lines(out.str());
    size_t count = 0;
    for (std::string line; std::getline(lines, line); ++count) {
        std::istringstream words(line);
        std::string name;
        std::string kind;
        uint32_t number = 0;
        words >> name >> number >> kind >> std::ws;
        std::string text;
        std::getline(words, text);
        const component_type *type = find_component_type(name);
        ASSERT_NE(nullptr, type) << line;
        EXPECT_EQ(type->number, number) << line;
        EXPECT_EQ(type->text, text);
        EXPECT_EQ(type->kind == component_kind::sensor      ? "sensor"
                  : type->kind == component_kind::indicator ? "indicator"
                                                            : "plain",
                  kind);
    }
    EXPECT_EQ(component_types().size(), count);
}

} // namespace

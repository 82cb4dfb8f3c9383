// kavplat plug, unplug and set: a description is changed in its place, and nowhere else.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <sstream>
#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include "described/format/loader.h"
#include "harness/files.h"
#include "tools/kavplat/edit/command.h"

namespace
{

using namespace kavplat_edit;
using nlohmann::json;
using std::string;
using std::vector;

constexpr const char *small = R"({
  "product": { "serial": "P-1" },
  "components": [
    { "name": "/SYS", "type": "system" },

    { "name": "/SYS/BAY0", "type": "drive-bay",   "capabilities": ["holder"] },
    { "name": "/SYS/BAY0/DISK", "type": "disk", "capabilities": ["fru-info"],
      "fru": { "model": "M", "serial": "D-0" } },
    {
      "name": "/SYS/BAY0/DISK/T",
      "type": "temperature-sensor",
      "sensor": {
        "class": "threshold", "type": "temperature",
        "reading": 2.50e1
      }
    },

    { "name": "/SYS/LED", "type": "led", "indicator": {"state":"off"} }
  ]
}
)";

sheet fresh(const string &text = small)
{
    return sheet(text, "/somewhere/");
}

string without(string text, const string &part)
{
    const size_t at = text.find(part);
    EXPECT_NE(at, string::npos) << part;
    return at == string::npos ? text : text.erase(at, part.size());
}

string with(string text, const string &part, const string &other)
{
    const size_t at = text.find(part);
    EXPECT_NE(at, string::npos) << part;
    return at == string::npos ? text : text.replace(at, part.size(), other);
}

// In the order of the text.
vector<string> names_in(const string &text)
{
    vector<string> names;
    const json document = json::parse(text);
    for (const json &each : document["components"]) {
        names.push_back(each["name"]);
    }
    return names;
}

TEST(kavplat_unplug, takes_what_is_named_and_all_below_and_no_other_octet)
{
    const string bay = string(small).substr(string(small).find("{ \"name\": \"/SYS/BAY0\""),
                                            string(small).find("{ \"name\": \"/SYS/LED\"") -
                                                string(small).find("{ \"name\": \"/SYS/BAY0\""));
    string told;
    sheet one = fresh();
    EXPECT_EQ(unplug(one, {"/SYS/BAY0"}, told), "");
    EXPECT_EQ(one.text(), without(small, bay));
    EXPECT_EQ(told, "/SYS/BAY0 is gone with 2 below it\n");

    sheet last = fresh();
    EXPECT_EQ(unplug(last, {"/SYS/LED"}, told), "");
    EXPECT_EQ(last.text(),
              without(small, ",\n\n    { \"name\": \"/SYS/LED\", \"type\": \"led\", \"indicator\": "
                             "{\"state\":\"off\"} }"));

    sheet both = fresh();
    EXPECT_EQ(unplug(both, {"/SYS/LED", "/SYS/BAY0/DISK"}, told), "");
    EXPECT_EQ(names_in(both.text()), (vector<string>{"/SYS", "/SYS/BAY0"}));
}

TEST(kavplat_unplug, refuses_what_is_not_there_and_what_is_all)
{
    string told;
    sheet in = fresh();
    EXPECT_EQ(unplug(in, {"/SYS/NO"}, told), "there is no component /SYS/NO");
    EXPECT_EQ(unplug(in, {"DISK"}, told),
              "there is no component DISK; /SYS/BAY0/DISK may be meant");
    EXPECT_EQ(unplug(in, {"/SYS"}, told), "/SYS is all that there is: a description needs a root");
    EXPECT_EQ(in.text(), small);
}

TEST(kavplat_plug, brings_back_what_was_pulled_where_it_was)
{
    string told;
    for (const string name : {"/SYS/BAY0", "/SYS/BAY0/DISK", "/SYS/LED"}) {
        sheet in = fresh();
        const sheet original = fresh();
        ASSERT_EQ(unplug(in, {name}, told), "");
        ASSERT_EQ(plug(in, original, {name, name, ""}, told), "") << name;
        EXPECT_EQ(names_in(in.text()), names_in(small)) << name;
        EXPECT_EQ(json::parse(in.text()), json::parse(small)) << name;
    }
    sheet in = fresh();
    ASSERT_EQ(unplug(in, {"/SYS/BAY0"}, told), "");
    const sheet original = fresh();
    ASSERT_EQ(plug(in, original, {"/SYS/BAY0", "/SYS/BAY0", ""}, told), "");
    EXPECT_NE(in.text().find("\"type\": \"drive-bay\",   \"capabilities\""), string::npos)
        << "as it was written";
}

TEST(kavplat_plug, copies_all_below_under_the_new_name)
{
    sheet in = fresh();
    string told;
    ASSERT_EQ(plug(in, in, {"/SYS/BAY1", "/SYS/BAY0", "D-1"}, told), "");
    EXPECT_EQ(names_in(in.text()),
              (vector<string>{"/SYS", "/SYS/BAY0", "/SYS/BAY0/DISK", "/SYS/BAY0/DISK/T",
                              "/SYS/BAY1", "/SYS/BAY1/DISK", "/SYS/BAY1/DISK/T", "/SYS/LED"}));
    const json document = json::parse(in.text());
    EXPECT_EQ(document["components"][5]["fru"]["serial"], "D-1");
    EXPECT_EQ(document["components"][2]["fru"]["serial"], "D-0");
    EXPECT_EQ(told, "/SYS/BAY1 is there with 2 below it\n");
    EXPECT_EQ(plug(in, in, {"/SYS/BAY1", "/SYS/BAY0", ""}, told), "/SYS/BAY1 is there already");
    EXPECT_EQ(plug(in, in, {"/SYS/BAY9", "/SYS/NO", ""}, told), "there is no component /SYS/NO");
    EXPECT_EQ(plug(in, in, {"/SYS/L", "/SYS/LED", "x"}, told).substr(0, 13), "0 components ");
}

TEST(kavplat_plug, names_bound_files_of_another_directory_as_what_they_are)
{
    const string bound = with(small, "2.50e1", R"({ "file": "temp", "scale": 0.1 })");
    sheet in(small, "/here/");
    const sheet there(bound, "/there/");
    string told;
    ASSERT_EQ(plug(in, there, {"/SYS/BAY1", "/SYS/BAY0", ""}, told), "");
    const json document = json::parse(in.text());
    EXPECT_EQ(document["components"][6]["name"], "/SYS/BAY1/DISK/T") << "behind its like";
    EXPECT_EQ(document["components"][6]["sensor"]["reading"]["file"], "/there/temp");
}

TEST(kavplat_set, changes_one_value_and_no_other_octet)
{
    struct changed {
        const char *name;
        assignment value;
        const char *part;
        const char *becomes;
    };
    const changed cases[] = {
        {"/SYS/BAY0/DISK/T", {"reading", "95"}, "2.50e1", "95"},
        {"/SYS/BAY0/DISK/T", {"sensor.reading", "-1.50"}, "2.50e1", "-1.50"},
        {"/SYS/LED", {"led", "fast-blink"}, "\"off\"", "\"fast-blink\""},
        {"/SYS/LED", {"state", "2"}, "\"off\"", "2"},
        {"/SYS/BAY0/DISK", {"serial", "007"}, "\"D-0\"", "\"007\""},
        {"/SYS/BAY0/DISK", {"fru.model", "a \"b\""}, "\"M\"", "\"a \\\"b\\\"\""},
        {"product", {"serial", "42"}, "\"P-1\"", "\"42\""},
        {"/SYS/BAY0", {"power", "off"}, "[\"holder\"]", "[\"holder\"], \"power\": \"off\""},
        {"/SYS/BAY0/DISK/T",
         {"upper_critical", "40"},
         "\"reading\": 2.50e1",
         "\"reading\": 2.50e1,\n        \"thresholds\": { \"upper_critical\": 40 }"},
        {"/SYS/BAY0/DISK/T",
         {"valid", "false"},
         "\"reading\": 2.50e1",
         "\"reading\": 2.50e1,\n        \"valid\": false"},
    };
    for (const changed &each : cases) {
        sheet in = fresh();
        string told;
        EXPECT_EQ(set(in, each.name, {each.value}, false, told), "") << each.value.key;
        EXPECT_EQ(in.text(), with(small, each.part, each.becomes)) << each.value.key;
        EXPECT_NE(told, "");
        EXPECT_TRUE(described_platform::load_text(in.text(), "/").loaded) << each.value.key;
    }
}

TEST(kavplat_set, has_the_raw_reading_follow_and_keeps_bindings)
{
    const string raw = with(small, "2.50e1", "25, \"raw_reading\": 25");
    const std::pair<const char *, const char *> cases[] = {
        {"40", "40, \"raw_reading\": 40"},
        {"40.5", "40.5, \"raw_reading\": 25"},
        {"300", "300, \"raw_reading\": 25"},
    };
    string told;
    for (const auto &[value, becomes] : cases) {
        sheet in = fresh(raw);
        EXPECT_EQ(set(in, "/SYS/BAY0/DISK/T", {{"reading", value}}, false, told), "");
        EXPECT_EQ(in.text(), with(raw, "25, \"raw_reading\": 25", becomes));
    }
    const string bound = with(small, "2.50e1", R"({"file": "temp"})");
    sheet in = fresh(bound);
    const string failure = set(in, "/SYS/BAY0/DISK/T", {{"reading", "1"}}, false, told);
    EXPECT_NE(failure.find("is bound to the file \"temp\""), string::npos) << failure;
    EXPECT_EQ(in.text(), bound);
    EXPECT_EQ(set(in, "/SYS/BAY0/DISK/T", {{"reading", "1"}}, true, told), "");
    EXPECT_EQ(in.text(), with(bound, R"({"file": "temp"})", "1"));
    EXPECT_NE(set(in, "/SYS/LED", {{"led", "on"}, {"name", "/SYS/X"}}, false, told), "");
    EXPECT_NE(in.text().find("\"off\""), string::npos) << "all of it or nothing";
}

// Whatever is done, the text says what a model of it says.
TEST(kavplat_edit, walks_at_random_beside_a_model)
{
    const string original = read_file(KAVPLAT_SOURCE_DIR "/servers/rack-2u.json");
    const sheet source(original, "/somewhere/");
    const json all = json::parse(original);
    sheet in(original, "/somewhere/");
    json model = all["components"];
    std::mt19937 random(20261121);
    const auto is_of = [](const string &name, const string &above) {
        return name == above || name.starts_with(above + "/");
    };
    size_t plugged_in = 0;
    for (int step = 0; step < 300; step++) {
        string told;
        const json &chosen = all["components"][random() % all["components"].size()];
        const string name = chosen["name"];
        if (name == "/SYS") {
            continue;
        }
        const bool is_there =
            std::ranges::any_of(model, [&](const json &each) { return each["name"] == name; });
        const string above = name.substr(0, name.rfind('/'));
        const bool has_place =
            std::ranges::any_of(model, [&](const json &each) { return each["name"] == above; });
        if (is_there && random() % 2 == 0 && chosen.contains("indicator")) {
            ASSERT_EQ(set(in, name, {{"led", "slow-blink"}}, true, told), "");
            for (json &each : model) {
                if (each["name"] == name) {
                    each["indicator"]["state"] = "slow-blink";
                }
            }
        } else if (is_there) {
            ASSERT_EQ(unplug(in, {name}, told), "") << name;
            json rest = json::array();
            for (const json &each : model) {
                if (!is_of(each["name"], name)) {
                    rest.push_back(each);
                }
            }
            model = rest;
        } else if (has_place) {
            ASSERT_EQ(plug(in, source, {name, name, ""}, told), "") << name;
            for (const json &each : all["components"]) {
                if (is_of(each["name"], name)) {
                    model.push_back(each);
                }
            }
            plugged_in++;
        }
        json found = json::parse(in.text())["components"];
        json wanted = model;
        const auto by_name = [](const json &one, const json &other) {
            return one["name"] < other["name"];
        };
        std::sort(found.begin(), found.end(), by_name);
        std::sort(wanted.begin(), wanted.end(), by_name);
        ASSERT_EQ(found, wanted) << "after step " << step << " with " << name;
    }
    EXPECT_GE(plugged_in, 20U);
    EXPECT_TRUE(described_platform::load_text(in.text(), "/somewhere/").loaded);
}

TEST(kavplat_edit, replaces_the_file_whole_and_only_by_a_good_one)
{
    const temporary_directory directory;
    const string file = directory / "server.json";
    const string link = directory / "link.json";
    write_file(file, small);
    ASSERT_EQ(chmod(file.c_str(), 0640), 0);
    std::filesystem::create_symlink("server.json", link);
    std::ostringstream out;
    std::ostringstream errors;
    const auto with_value = [](const char *value) {
        return [value](sheet &in, string &told) {
            return set(in, "/SYS/BAY0/DISK/T", {{"reading", value}}, false, told);
        };
    };
    EXPECT_EQ(run({link, ""}, with_value("30"), out, errors), done);
    EXPECT_EQ(out.str(),
              "/SYS/BAY0/DISK/T: sensor.reading: 2.50e1 -> 30\n" + link + ": 5 components\n");
    EXPECT_EQ(read_file(file), with(small, "2.50e1", "30"));
    EXPECT_TRUE(std::filesystem::is_symlink(link));
    struct stat status {
    };
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640U);

    EXPECT_EQ(run({file, ""}, with_value("warm"), out, errors), refused);
    EXPECT_NE(errors.str().find("sensor/reading (/SYS/BAY0/DISK/T): expected"), string::npos)
        << errors.str();
    EXPECT_NE(errors.str().find("is not changed, since it would be bad"), string::npos);
    EXPECT_EQ(read_file(file), with(small, "2.50e1", "30"));

    // Somebody saves it between the reading and the writing.
    errors.str("");
    const auto beside = [&](sheet &in, string &told) {
        write_file(file, string(small) + "\n");
        return set(in, "/SYS/LED", {{"led", "on"}}, false, told);
    };
    EXPECT_EQ(run({file, ""}, beside, out, errors), refused);
    EXPECT_NE(errors.str().find("somebody else has changed it"), string::npos) << errors.str();
    EXPECT_EQ(read_file(file), string(small) + "\n");

    std::ostringstream shown;
    EXPECT_EQ(run({file, "-"}, with_value("31"), shown, errors), done);
    EXPECT_EQ(shown.str(), with(small, "2.50e1", "31") + "\n");
    size_t files = 0;
    for ([[maybe_unused]] const auto &each :
         std::filesystem::directory_iterator(directory.path())) {
        files++;
    }
    EXPECT_EQ(files, 2U) << "no temporary file stays";
}

TEST(kavplat_edit, tells_what_the_change_makes_vain_and_nothing_that_was_so_before)
{
    const temporary_directory directory;
    const string file = directory / "server.json";
    const string limits = with(
        small, "2.50e1", R"(2.50e1, "thresholds": { "upper_critical": 40, "upper_fatal": 45 })");
    // A warning that was there, of a component whose place moves.
    const string text = with(without(limits, R"("capabilities": ["fru-info"],)"), R"("system" },)",
                             R"("system" },
    { "name": "/SYS/A", "type": "led", "indicator": { "state": "off" } },)");
    write_file(file, text);
    const auto told = [&](const editing &edit) {
        std::ostringstream out;
        std::ostringstream errors;
        EXPECT_EQ(run({file, ""}, edit, out, errors), done) << errors.str();
        return errors.str();
    };
    const auto limit = [](const char *key, const char *value) {
        return [=](sheet &in, string &said) {
            return set(in, "/SYS/BAY0/DISK/T", {{key, value}}, false, said);
        };
    };
    const string warned = told(limit("upper_critical", "50"));
    EXPECT_EQ(std::ranges::count(warned, '\n'), 1) << warned;
    EXPECT_TRUE(warned.starts_with(file + ":15: ")) << warned;
    EXPECT_NE(warned.find("(/SYS/BAY0/DISK/T): warning: it lies below upper_critical"),
              string::npos)
        << warned;
    EXPECT_EQ(told([](sheet &in, string &said) { return unplug(in, {"/SYS/A"}, said); }), "");
    EXPECT_EQ(told(limit("reading", "26")), "");
    EXPECT_EQ(told(limit("upper_fatal", "55")), "");
}

} // namespace

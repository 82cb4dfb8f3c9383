// How kavplat shows what it read: as a text, as JSON, as a page.
#include <gtest/gtest.h>

#include <sstream>

#include <nlohmann/json.hpp>

#include "harness/files.h"
#include "harness/process.h"
#include "tools/kavplat/agent/words.h"
#include "tools/kavplat/tree/print.h"

namespace
{

using namespace kavplat_agent;
using namespace kavplat_tree;
using std::string;

entity made(uint32_t index, uint32_t contained_in, const string &name, int32_t class_code = 9)
{
    entity each;
    each.index = index;
    each.contained_in = contained_in;
    each.name = name;
    each.class_code = class_code;
    return each;
}

reading measured(double number, int decimals, const string &unit)
{
    reading sensor;
    sensor.number = number;
    sensor.decimals = decimals;
    sensor.unit = unit;
    return sensor;
}

// A chassis with a sensor that is too hot, one that does not read, and a drive.
box example()
{
    box all;
    all.agent = "rack7";
    all.has_sensors = true;
    entity chassis = made(1, 0, "/SYS", 3);
    chassis.model = "KM-1";
    chassis.serial = "S<1>";
    entity hot = made(2, 1, "/SYS/T", 8);
    hot.description = "Temperature";
    hot.sensor = measured(47, 1, "°C");
    hot.sensor->limits[upper_critical] = 45;
    hot.sensor->limits[upper_warning] = 40;
    entity silent = made(3, 1, "/SYS/F", 8);
    silent.sensor = measured(0, 0, "rpm");
    silent.sensor->status = sensor_status::unavailable;
    entity bay = made(4, 1, "/SYS/HDD0", 5);
    entity drive = made(5, 4, "/SYS/HDD0/DISK", 1);
    drive.is_fru = true;
    all.entities = {chassis, hot, silent, bay, drive};
    make_tree(all);
    judge(all);
    return all;
}

string text_of(const box &all, choice only, const style &how = {})
{
    std::ostringstream text;
    print_text(text, all, {only, all.roots}, how);
    return text.str();
}

TEST(kavplat_tree, stands_in_columns)
{
    EXPECT_EQ(text_of(example(), choice::all),
              "/SYS        chassis                 KM-1  serial S<1>\n"
              "├─ T        sensor     Temperature  47.0 °C  [.. 40 45]  critical: 47.0 °C at or "
              "above 45.0 °C (upper critical)\n"
              "├─ F        sensor                  unavailable          unreadable: its reading "
              "cannot be had\n"
              "└─ HDD0     container\n"
              "   └─ DISK  other                   FRU\n"
              "\n"
              "5 entities, 2 sensors: 1 critical, 1 unreadable\n");
}

TEST(kavplat_tree, shows_only_what_is_chosen_by_its_whole_name)
{
    const std::pair<choice, std::vector<string>> cases[] = {
        {choice::alarms, {"/SYS/T ", "/SYS/F "}},
        {choice::sensors, {"/SYS/T ", "/SYS/F "}},
        {choice::frus, {"/SYS/HDD0/DISK "}}};
    for (const auto &[only, names] : cases) {
        std::istringstream lines(text_of(example(), only));
        string line;
        for (const string &name : names) {
            std::getline(lines, line);
            EXPECT_TRUE(line.starts_with(name)) << line;
        }
        std::getline(lines, line);
        EXPECT_EQ(line, "");
    }
}

TEST(kavplat_tree, has_colours_and_characters_as_its_reader_can_show_them)
{
    const string plain = text_of(example(), choice::all, {.colours = false, .ascii = true});
    EXPECT_TRUE(std::ranges::all_of(plain, [](char c) {
        return c == '\n' || (c >= ' ' && c < 127);
    })) << plain;
    EXPECT_NE(plain.find("|- T "), string::npos);
    EXPECT_NE(plain.find("47.0 C  [.. 40 45]"), string::npos);
    const string coloured = text_of(example(), choice::all, {.colours = true, .ascii = false});
    EXPECT_NE(coloured.find("\033[1;31mcritical: 47.0"), string::npos);
    EXPECT_NE(coloured.find("\033[1;31m/SYS\033[0m"), string::npos) << "something in it is";
}

// Octets of an agent that would do harm where they are shown.
constexpr const char *harmful[] = {"\033[2J",      "a\nb", "\x7f",     "\xC2\x9B",
                                   "\xE2\x80\xAE", "\xFF", "\xE2\x82", "\xED\xA0\x80"};

TEST(kavplat_tree, shows_no_octet_that_moves_the_cursor_or_turns_the_text)
{
    for (const string text : harmful) {
        box all = example();
        all.entities[0].serial = text;
        all.entities[0].description = text;
        all.entities[4].name = text;
        for (const choice only : {choice::all, choice::frus}) {
            const string shown = text_of(all, only);
            EXPECT_EQ(shown.find(text), string::npos) << printable(text);
            EXPECT_NE(shown.find("\\x"), string::npos) << printable(text);
        }
        std::ostringstream json;
        print_json(json, all, {choice::all, all.roots});
        EXPECT_TRUE(nlohmann::json::accept(json.str())) << printable(text);
    }
    EXPECT_EQ(printable("Größe 5 µm \xE2\x82\xAC \xF0\x9F\x98\x80"),
              "Größe 5 µm \xE2\x82\xAC \xF0\x9F\x98\x80")
        << "what is text stays";
    EXPECT_EQ(printable("\xC2\xB5", true), "\\xC2\\xB5");
}

TEST(kavplat_tree, is_the_same_as_json)
{
    std::ostringstream text;
    const box all = example();
    print_json(text, all, {choice::all, all.roots});
    const auto document = nlohmann::json::parse(text.str());
    ASSERT_EQ(document["entities"].size(), 5U);
    EXPECT_EQ(document["entities"][0]["serial"], "S<1>");
    EXPECT_EQ(document["entities"][0]["alarm_below"], "critical");
    EXPECT_FALSE(document["entities"][0].contains("parent"));
    EXPECT_EQ(document["entities"][1]["parent"], 1);
    EXPECT_EQ(document["entities"][1]["sensor"],
              nlohmann::json::parse(R"({"status": "ok", "value": 47.0, "unit": "°C",
                                        "limits": {"upper_warning": 40.0, "upper_critical": 45.0}})"));
    EXPECT_FALSE(document["entities"][2]["sensor"].contains("value")) << "it does not read";
    EXPECT_EQ(document["summary"], "5 entities, 2 sensors: 1 critical, 1 unreadable");
}

TEST(kavplat_tree, is_a_page_in_which_no_text_is_markup)
{
    const string markup = "</script><script>x=1</script><img src=x onerror='x'>\"&";
    box all = example();
    all.agent = markup;
    all.system = markup;
    all.troubles = {markup};
    for (entity &each : all.entities) {
        each.name = each.description = each.model = each.serial = each.manufacturer = each.alias =
            each.hardware_revision = each.firmware_revision = each.software_revision = markup;
        if (each.sensor) {
            each.sensor->unit = markup;
        }
    }
    judge(all);
    for (const choice only : {choice::all, choice::sensors}) {
        std::ostringstream page;
        print_page(page, all, {only, all.roots});
        const string text = page.str();
        const auto count = [&text](const string &what) {
            size_t found = 0;
            for (size_t at = text.find(what); at != string::npos; at = text.find(what, at + 1)) {
                found++;
            }
            return found;
        };
        EXPECT_EQ(count("<script"), 1U) << "the page's own";
        EXPECT_EQ(count("</script"), 1U);
        EXPECT_EQ(count("<img"), 0U);
        EXPECT_EQ(count("http:"), 0U) << "it needs no network";
        EXPECT_EQ(count("https:"), 0U);
        EXPECT_GE(count("&lt;/script&gt;"), 5U);
        // Every box that is opened is closed.
        EXPECT_EQ(count("<details"), count("</details>"));
        EXPECT_EQ(count("<div"), count("</div>"));
        EXPECT_EQ(count("class=\"bar\""), 1U) << "for what reads and has limits";
    }
}

bool has_browser()
{
    return run_command("command -v chromium").status == 0;
}

string browse(const temporary_directory &directory, const string &page, const string &options)
{
    return run_command("HOME=" + quoted(directory.path()) +
                       " timeout 60 chromium --headless --no-sandbox --disable-gpu " + options +
                       " " + quoted("file://" + (directory / page.c_str()).string()) +
                       " 2>/dev/null")
        .output;
}

// What a page is in a browser, when its scripts have run.
string seen_in_browser(const temporary_directory &directory, const string &page,
                       const string &options = "")
{
    return browse(directory, page, "--dump-dom " + options);
}

TEST(kavplat_tree, is_a_page_that_a_browser_searches_and_that_runs_nothing_of_the_agent)
{
    if (!has_browser()) {
        GTEST_SKIP() << "there is no chromium here, so nobody has looked at the page";
    }
    const temporary_directory directory;
    box all = example();
    all.entities[4].serial = "</button><img src=x onerror=\"document.title='harmed'\">";
    std::ostringstream page;
    print_page(page, all, {choice::all, all.roots});
    write_file(directory / "page.html", page.str());
    const auto dom = [&](const string &hash) {
        return seen_in_browser(directory, "page.html" + hash);
    };
    const string whole = dom("");
    EXPECT_NE(whole.find("<title>/SYS at rack7</title>"), string::npos) << whole;
    EXPECT_EQ(whole.find("<img"), string::npos);
    EXPECT_EQ(whole.find("class=\"away"), string::npos);
    const string found = dom("#search=hdd0%20disk");
    EXPECT_NE(found.find("1 found"), string::npos) << found;
    EXPECT_NE(found.find("class=\"part found\" id=\"e5\""), string::npos) << found;
    EXPECT_NE(found.find("class=\"part critical away\" id=\"e2\""), string::npos) << found;
    EXPECT_EQ(found.find("away\" id=\"e4\""), string::npos) << "what it is in stays";
}

TEST(kavplat_tree, is_a_page_that_fits_a_telephone_by_day_and_by_night)
{
    if (!has_browser()) {
        GTEST_SKIP() << "there is no chromium here, so nobody has looked at the page";
    }
    const temporary_directory directory;
    box all = example();
    all.entities[1].name = "/SYS/" + string(80, 'M');
    all.entities[4].serial = string(120, 'S');
    all.entities[4].model = string(300, 'm');
    all.system = string(300, 's');
    std::ostringstream page;
    print_page(page, all, {choice::all, all.roots});
    write_file(directory / "page.html", page.str());
    // No window of a browser is as narrow as a telephone; a frame is.
    write_file(directory / "telephone.html",
               R"(<!DOCTYPE html><body><iframe width=360 height=700 src="page.html"></iframe>
<script>window.onload = () => {
  const page = document.querySelector('iframe').contentDocument;
  const of = (what) => page.defaultView.getComputedStyle(page.querySelector(what));
  document.body.textContent = 'too wide by ' + (page.documentElement.scrollWidth - page.documentElement.clientWidth) +
    ' parts ' + page.querySelectorAll('.part, details').length +
    ' back ' + of('body').backgroundColor + ' text ' + of('body').color;
}</script>)");
    const auto look = [&](const string &face) {
        return seen_in_browser(directory, "telephone.html",
                               "--allow-file-access-from-files "
                               "--blink-settings=preferredColorScheme=" +
                                   face);
    };
    const string light = look("1");
    const string dark = look("0");
    EXPECT_NE(light.find("too wide by 0 parts 5 "), string::npos) << light;
    EXPECT_NE(light.find("back rgb(246, 247, 249) text rgb(28, 35, 48)"), string::npos) << light;
    EXPECT_NE(dark.find("back rgb(20, 24, 31) text rgb(230, 233, 238)"), string::npos) << dark;
}

// As large as a rack server: twenty boards with nineteen sensors each.
box large_example()
{
    box all;
    all.agent = "rack7";
    all.has_sensors = true;
    all.entities = {made(1, 0, "/SYS", 3)};
    for (uint32_t board = 1; board <= 20; board++) {
        const string name = "/SYS/B" + std::to_string(board);
        all.entities.push_back(made(board * 100, 1, name));
        all.entities.back().serial = "BOARD-" + std::to_string(board);
        for (uint32_t i = 1; i < 20; i++) {
            entity each = made(board * 100 + i, board * 100, name + "/T" + std::to_string(i), 8);
            each.description = "Temperature";
            each.sensor = measured(20 + i, 1, "°C");
            each.sensor->limits = {0, 5, 10, 35, 40, 45};
            all.entities.push_back(each);
        }
    }
    make_tree(all);
    judge(all);
    return all;
}

TEST(kavplat_tree, is_a_page_that_is_printed_whole_on_few_sheets)
{
    if (!has_browser()) {
        GTEST_SKIP() << "there is no chromium here, so nobody has looked at the page";
    }
    const temporary_directory directory;
    const box all = large_example();
    std::ostringstream page;
    print_page(page, all, {choice::all, all.roots});
    write_file(directory / "page.html", page.str());
    const string pdf = quoted(directory / "page.pdf");
    browse(directory, "page.html", "--no-pdf-header-footer --print-to-pdf=" + pdf);
    const string paper = run_command("pdfinfo " + pdf).output;
    const size_t told = paper.find("Pages:");
    ASSERT_NE(told, string::npos) << paper;
    const int sheets = std::stoi(paper.substr(told + 6));
    EXPECT_LE(sheets, 17) << "as on a screen it takes 20";
    const string text = run_command("pdftotext -layout " + pdf + " -").output;
    for (size_t at = 0, board = 1; board <= 20; board++) {
        const string serial = "BOARD-" + std::to_string(board);
        at = text.find(serial + "\n", at);
        ASSERT_NE(at, string::npos) << serial;
        at = text.find("T19", at);
        ASSERT_NE(at, string::npos) << "the last sensor of " << serial;
    }
    EXPECT_EQ(text.find("Only what is wrong"), string::npos) << "nothing to press is on paper";
}

TEST(kavplat_tree, of_any_depth_is_shown)
{
    box all;
    all.agent = "deep";
    for (uint32_t i = 1; i <= 5000; i++) {
        all.entities.push_back(made(i, i - 1, "E" + std::to_string(i)));
    }
    make_tree(all);
    judge(all);
    const string text = text_of(all, choice::all);
    EXPECT_NE(text.find("E5000 "), string::npos);
    EXPECT_LT(text.size(), 2000000U);
    std::ostringstream page;
    print_page(page, all, {choice::all, all.roots});
    EXPECT_NE(page.str().find("id=\"e5000\""), string::npos);
}

TEST(kavplat_names, are_found_whole_or_by_their_end)
{
    const box all = example();
    string failure;
    EXPECT_EQ(find_entity(all, "/SYS/HDD0", failure), 3U);
    EXPECT_EQ(find_entity(all, "hdd0/disk", failure), 4U);
    EXPECT_EQ(failure, "");
    EXPECT_FALSE(find_entity(all, "HDD", failure));
    EXPECT_EQ(failure, "rack7 has nothing that is named HDD; there is /SYS/HDD0, /SYS/HDD0/DISK");
    box twice = example();
    twice.entities[3].name = "/SYS/A/T";
    EXPECT_FALSE(find_entity(twice, "T", failure));
    EXPECT_EQ(failure, "T may be /SYS/T or /SYS/A/T");
}

TEST(kavplat_judgement, follows_the_gravest_limit_that_is_reached)
{
    struct judged {
        double number;
        std::vector<std::pair<limit, double>> limits;
        level wanted;
        const char *reason;
    };
    const std::vector<std::pair<limit, double>> all = {{lower_fatal, 0},     {lower_critical, 5},
                                                       {lower_warning, 10},  {upper_warning, 35},
                                                       {upper_critical, 40}, {upper_fatal, 45}};
    const judged cases[] = {
        {20, all, level::good, ""},
        {10.1, all, level::good, ""},
        {10, all, level::warning, "10.0 °C at or below 10.0 °C (lower warning)"},
        {5, all, level::critical, "5.0 °C at or below 5.0 °C (lower critical)"},
        {-3, all, level::critical, "-3.0 °C at or below 0.0 °C (lower fatal)"},
        {34.9, all, level::good, ""},
        {35, all, level::warning, "35.0 °C at or above 35.0 °C (upper warning)"},
        {44, all, level::critical, "44.0 °C at or above 40.0 °C (upper critical)"},
        {45, all, level::critical, "45.0 °C at or above 45.0 °C (upper fatal)"},
        {99, {{upper_warning, 35}}, level::warning, "99.0 °C at or above 35.0 °C (upper warning)"},
        {99, {}, level::good, ""},
    };
    for (const judged &each : cases) {
        box one;
        one.entities = {made(1, 0, "T", 8)};
        one.entities[0].sensor = measured(each.number, 1, "°C");
        for (const auto &[which, number] : each.limits) {
            one.entities[0].sensor->limits[which] = number;
        }
        make_tree(one);
        judge(one);
        EXPECT_EQ(one.entities[0].own, each.wanted) << each.number;
        EXPECT_EQ(one.entities[0].reason, each.reason) << each.number;
    }
}

TEST(kavplat_words, show_readings_as_people_write_them)
{
    const std::tuple<double, int, const char *, const char *> cases[] = {
        {23.8, 1, "°C", "23.8 °C"},        {2.4e9, 0, "Hz", "2.4 GHz"},
        {1500000, 0, "W", "1.5 MW"},       {9999, 0, "W", "9999 W"},
        {250e-6, 6, "A", "250 µA"},        {12e-9, 9, "A", "12 nA"},
        {-0.04, 1, "°C", "0.0 °C"},        {3, 0, "", "3"},
        {4100000, 0, "rpm", "4100000 rpm"}};
    for (const auto &[number, decimals, unit, words] : cases) {
        EXPECT_EQ(number_words(number, decimals, unit), words);
    }
}

} // namespace

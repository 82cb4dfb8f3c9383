// kavplat watch: what is told of a box that changes.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <map>
#include <regex>
#include <set>

#include "harness/agent.h"
#include "harness/names.h"
#include "kavplat_agent/fake_agent.h"
#include "tools/kavplat/watch/changes.h"

namespace
{

using namespace kavplat_agent;
using namespace kavplat_watch;
using std::string;
using namespace std::chrono_literals;

entity made(uint32_t index, uint32_t contained_in, const string &name)
{
    entity each;
    each.index = index;
    each.contained_in = contained_in;
    each.name = name;
    return each;
}

entity measured(uint32_t index, const string &name, double number)
{
    entity each = made(index, 1, name);
    each.sensor.emplace();
    each.sensor->number = number;
    each.sensor->decimals = 1;
    each.sensor->limits[upper_critical] = 50;
    return each;
}

box of(std::vector<entity> entities)
{
    box all;
    all.entities = std::move(entities);
    make_tree(all);
    judge(all);
    return all;
}

string told(const std::vector<change> &all)
{
    string text;
    for (const change &each : all) {
        text += string(kind_name(each.what)) + " " + each.name + ": " + each.text + "\n";
    }
    return text;
}

size_t occurrences(const string &text, const string &what)
{
    size_t found = 0;
    for (size_t at = text.find(what); at != string::npos; at = text.find(what, at + 1)) {
        found++;
    }
    return found;
}

TEST(kavplat_watch, tells_what_came_what_went_and_what_is_another)
{
    entity disk = made(3, 1, "/SYS/D");
    disk.serial = "A";
    const box before =
        of({made(1, 0, "/SYS"), measured(2, "/SYS/T", 20), disk, measured(5, "/SYS/U", 20)});
    EXPECT_EQ(told(changes_between(before, before)), "");
    entity exchanged = disk;
    exchanged.serial = "B";
    entity late = made(9, 1, "/SYS/E\n");
    const box after = of({made(1, 0, "/SYS"), measured(2, "/SYS/T", 60), exchanged,
                          measured(5, "/SYS/U", 20.5), late});
    EXPECT_EQ(told(changes_between(before, after)),
              "went /SYS/D: serial A\n"
              "came /SYS/D: serial B\n"
              "came /SYS/E\n: \n"
              "state /SYS/T: ok -> critical; 20.0 -> 60.0; 60.0 at or above 50.0 (upper critical)\n"
              "reading /SYS/U: 20.0 -> 20.5\n");
}

TEST(kavplat_watch, knows_entities_by_name_and_serial_when_the_agent_began_anew)
{
    entity disk = made(4, 1, "/SYS/D");
    disk.serial = "A";
    entity nameless = made(7, 1, "");
    nameless.description = "Fan";
    const box before = of({made(1, 0, "/SYS"), made(2, 1, "/SYS/F"), measured(3, "/SYS/T", 20),
                           disk, made(5, 1, "TWIN"), made(6, 1, "TWIN"), nameless});
    // Two went, what was behind them moved, what is called alike became one more, and the
    // drive is another one.
    entity exchanged = disk;
    exchanged.index = 3;
    exchanged.serial = "B";
    nameless.index = 9;
    const box after = of({made(1, 0, "/SYS"), measured(2, "/SYS/T", 60), exchanged,
                          made(4, 1, "TWIN"), made(5, 1, "TWIN"), made(6, 1, "TWIN"), nameless});
    const string text = told(changes_between(before, after, run_of_agent::another));
    EXPECT_EQ(
        text,
        "went /SYS/F: \n"
        "went /SYS/D: serial A\n"
        "came /SYS/D: serial B\n"
        "came TWIN: \n"
        "state /SYS/T: ok -> critical; 20.0 -> 60.0; 60.0 at or above 50.0 (upper critical)\n");
    EXPECT_EQ(told(changes_between(after, before, run_of_agent::another)).substr(0, 31),
              "went /SYS/D: serial B\nwent TWIN")
        << "nor is one of them that went";
}

TEST(kavplat_watch, tells_an_agent_that_began_anew_from_a_clock_that_did)
{
    constexpr uint32_t last_tick = 0xFFFFFFFF;
    struct two_answers {
        change_mark before;
        change_mark after;
        std::chrono::seconds passed;
        run_of_agent run;
    };
    const two_answers cases[] = {
        {{1000}, {1200}, 2s, run_of_agent::the_same},
        {{1000}, {1190}, 2s, run_of_agent::the_same},
        {{1000}, {50}, 2s, run_of_agent::another},
        // For an hour nobody could ask; it is up for longer than before, and for too short.
        {{1000}, {350000}, 3600s, run_of_agent::another},
        {{1000}, {361000}, 3600s, run_of_agent::the_same},
        // After 497 days.
        {{last_tick - 99}, {100}, 2s, run_of_agent::the_same},
        {{last_tick - 99}, {359900}, 3600s, run_of_agent::the_same},
        {{last_tick - 99}, {100}, 3600s, run_of_agent::another},
        {{last_tick - 99999}, {100}, 2s, run_of_agent::another},
        // Where our agent tells, it is believed.
        {{1000, 7, "Mon"}, {1200, 7, "Mon"}, 2s, run_of_agent::the_same},
        {{1000, 7, "Mon"}, {1200, 7, "Tue"}, 2s, run_of_agent::another},
        {{1000, 7, "Mon"}, {1200, 0, ""}, 2s, run_of_agent::the_same},
        // What an agent does not serve says nothing.
        {{0}, {0}, 3600s, run_of_agent::the_same},
    };
    for (const two_answers &each : cases) {
        EXPECT_EQ(run_between(each.before, each.after, each.passed), each.run)
            << each.before.uptime << " " << each.after.uptime << " " << each.after.started;
    }
}

TEST(kavplat_commands, watch_asks_a_quiet_box_once_each_time)
{
    const objects served = {{{1, 3, 6, 1, 2, 1, 1, 1, 0}, text_value("a switch")},
                            {uptime(), {snmp_timeticks, 1000, {}, {}}},
                            {{1, 3, 6, 1, 2, 1, 47, 1, 4, 1, 0}, {snmp_timeticks, 7, {}, {}}},
                            {ent_cell(4, 1), integer_value(0)},
                            {ent_cell(5, 1), integer_value(3)},
                            {ent_cell(7, 1), text_value("A")}};
    const auto requests_of = [&](int polls) {
        const fake_agent server(served);
        const command_result result = run_command(
            quoted(KAVPLAT_COMMAND) + " watch -v2c -c public -t 20 --interval 0.05 --readings 0 " +
            "--count " + std::to_string(polls) + " " + server.address());
        EXPECT_EQ(result.status, 0) << result.output;
        EXPECT_EQ(std::ranges::count(result.output, '\n'), 1) << result.output;
        return server.requests();
    };
    const int with_two = requests_of(2);
    EXPECT_GT(with_two, 2);
    EXPECT_EQ(requests_of(9) - with_two, 7);
}

TEST(kavplat_commands, rehearse_a_server_whose_agent_is_watched)
{
    agent server({.description = "servers/rack-2u.json",
                  .configuration = "dlmod entitySensorMIB " KAVPLAT_MODULE "\n"});
    server.start();
    const string where = "127.0.0.1:" + std::to_string(server.port());
    const string out = server.directory() / "watched";
    child_process watch;
    watch.start({KAVPLAT_COMMAND, "watch", "-v2c", "-c", "public", "--interval", "0.1",
                 "--readings", "0", "--json", where},
                out);
    const auto says = [&out](const string &what) {
        return eventually([&] { return read_file(out).find(what) != string::npos; });
    };
    ASSERT_TRUE(says("412 entities")) << read_file(out);
    const string kavplat = quoted(KAVPLAT_COMMAND);
    const string file = quoted(server.description());
    command_result result = run_command(kavplat + " unplug " + file + " /SYS/HDD3");
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_TRUE(says(R"("went","name":"/SYS/HDD3/DISK")")) << read_file(out);
    result = run_command(kavplat + " plug " + file + " /SYS/HDD3 --from " +
                         quoted(KAVPLAT_SOURCE_DIR "/servers/rack-2u.json"));
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_TRUE(says(R"("came","name":"/SYS/HDD3/DISK")")) << read_file(out);

    // An agent that goes is told once.
    server.stop();
    EXPECT_TRUE(says(R"("change":"silent")")) << read_file(out);
}

TEST(kavplat_commands, watch_tells_nothing_but_a_restart_of_an_agent_that_numbers_anew)
{
    // An agent that is started again gets another port; this one stays.
    const string where = "127.0.0.1:" + std::to_string(free_port());
    agent server({.description = "servers/rack-2u.json", .arguments = {"udp:" + where}});
    server.start();
    const string kavplat = quoted(KAVPLAT_COMMAND);
    const string file = quoted(server.description());
    const string out = server.directory() / "watched";
    child_process watch;
    watch.start({KAVPLAT_COMMAND, "watch", "-v2c", "-c", "public", "-r0", "-t1", "--interval",
                 "0.1", "--readings", "0", where},
                out);
    const auto says = [&out](const string &what) {
        return eventually([&] { return read_file(out).find(what) != string::npos; });
    };
    ASSERT_TRUE(says("412 entities")) << read_file(out);
    // Without a fan those behind it get other indexes when they are numbered from 1 again.
    run_command(kavplat + " unplug " + file + " /SYS/FM0");
    ASSERT_TRUE(says("- /SYS/FM0  ")) << read_file(out);
    const size_t until_then = read_file(out).size();
    server.stop();
    server.start();
    ASSERT_TRUE(says("was started anew")) << read_file(out);
    run_command(kavplat + " unplug " + file + " /SYS/HDD3/DISK");
    ASSERT_TRUE(says("- /SYS/HDD3/DISK  ")) << read_file(out);
    const string since = read_file(out).substr(until_then);
    const std::pair<const char *, size_t> expected[] = {
        {"was started anew", 1}, {"  - ", 3}, {"  + ", 0}};
    for (const auto &[what, times] : expected) {
        EXPECT_EQ(occurrences(since, what), times) << what << "\n" << since;
    }
}

TEST(kavplat_commands, watch_reads_at_once_when_it_is_notified)
{
    agent server({.description = "servers/rack-2u.json"});
    server.start();
    const string out = server.directory() / "watched";
    const string here = "127.0.0.1:" + std::to_string(free_port());
    child_process watch;
    watch.start({KAVPLAT_COMMAND, "watch", "-v2c", "-c", "public", "--interval", "600", "--listen",
                 "udp:" + here, "127.0.0.1:" + std::to_string(server.port())},
                out);
    const auto says = [&out](const string &what) {
        return read_file(out).find(what) != string::npos;
    };
    ASSERT_TRUE(eventually([&] { return says("412 entities"); })) << read_file(out);
    const command_result result = run_command(quoted(KAVPLAT_COMMAND) + " unplug " +
                                              quoted(server.description()) + " /SYS/HDD3");
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_TRUE(eventually([&] {
        run_command("MIBS= snmptrap -v2c -c any " + here + " '' 1.3.6.1.2.1.47.2.0.1");
        return says("- /SYS/HDD3/DISK  ");
    })) << read_file(out);
    kill(watch.id(), SIGTERM);
    EXPECT_EQ(watch.wait(std::chrono::seconds(10)), 0) << "a signal ends it well";
}

TEST(kavplat_commands, end_with_the_status_that_they_document)
{
    agent server({.description = "servers/rack-2u.json",
                  .configuration = "dlmod entitySensorMIB " KAVPLAT_MODULE "\n"});
    server.start();
    const string good = " -v2c -c public 127.0.0.1:" + std::to_string(server.port());
    const string silent = " -v2c -c public -r0 -t0.2 127.0.0.1:" + std::to_string(free_port());
    const string page = server.directory() / "page.html";
    struct ended {
        string words;
        int status;
        const char *said;
    };
    const ended cases[] = {
        {"tree" + good, 0, "412 entities, 221 sensors"},
        {"tree --json" + good, 0, "\"entities\": ["},
        {"tree --only frus" + good, 0, "/SYS/HDD3/DISK "},
        {"tree" + good + " HDD3/DISK", 0, "PD8T7-66144036"},
        {"tree" + good + " NOTHING", 1, "has nothing that is named NOTHING; without a name all"},
        {"tree" + silent, 1, "no answer to a request by SNMPv2c"},
        {"tree --only lamps" + good, 2, "--only"},
        {"tree -v 7 127.0.0.1:1", 2, "are not understood"},
        {"watch -v 7 127.0.0.1:1", 2, "are not understood"},
        {"health -v 7 127.0.0.1:1", 3, "are not understood"},
        {"tree --html " + quoted(page) + good, 0, "page.html: 412 entities"},
        {"tree --html /no/such/place" + good, 1, "cannot be written"},
        {"health" + good, 2, "HARDWARE CRITICAL - "},
        {"health --include '/SYS/T_AMB' " + good, 0, "| '/SYS/T_AMB'=23.8;10:35;5:40"},
        {"health --include '/SYS/T_AMB' --require /SYS/NO" + good, 2, "/SYS/NO is missing"},
        {"health" + silent, 3, "HARDWARE UNKNOWN - "},
        {"health --no-such-option" + good, 3, "no-such-option"},
        {"health --timeout 0.3 -r9 -t9 -v2c -c public 127.0.0.1:" + std::to_string(free_port()), 3,
         "HARDWARE UNKNOWN - "},
        {"watch --count 1 --interval 0.05" + good, 0, "412 entities"},
        {"watch" + silent, 1, "no answer"},
        {"set /no/such/file /SYS led=on", 1, "is not changed"},
        {"set " + quoted(server.description()) + " /SYS/LOCATE led", 2, "expected KEY=VALUE"},
        {"plug " + quoted(server.description()) + " /SYS/X", 2, "--from or --like"},
        {"plug " + quoted(server.description()) + " /SYS/X --from " +
             quoted(KAVPLAT_SOURCE_DIR "/servers/minimal.json"),
         1, "minimal.json: there is no component /SYS/X"},
        {"help tre", 2, "there is no subcommand tre; kavplat help lists them"},
        {"help tree > /dev/full", 1, ""},
    };
    for (const ended &each : cases) {
        const command_result result =
            run_command("LC_ALL=C.UTF-8 " + quoted(KAVPLAT_COMMAND) + " " + each.words);
        EXPECT_EQ(result.status, each.status) << each.words << "\n" << result.output.substr(0, 800);
        EXPECT_NE(result.output.find(each.said), string::npos) << each.words << "\n"
                                                               << result.output.substr(0, 800);
        EXPECT_EQ(result.output.find("\033["), string::npos) << "no colours where nobody sees them";
    }
    EXPECT_TRUE(read_file(page).starts_with("<!DOCTYPE html>"));
}

TEST(kavplat_commands, ask_as_snmp_conf_says)
{
    agent server({.description = "servers/minimal.json"});
    server.start();
    const temporary_directory home;
    write_file(home / "snmp.conf", "defVersion 2c\ndefCommunity public\n");
    const string tree =
        quoted(KAVPLAT_COMMAND) + " tree 127.0.0.1:" + std::to_string(server.port());
    const command_result asked = run_command("SNMPCONFPATH=" + quoted(home.path()) + " " + tree);
    EXPECT_EQ(asked.status, 0) << asked.output;
    EXPECT_NE(asked.output.find("4 entities"), string::npos) << asked.output;
    EXPECT_EQ(run_command("SNMPCONFPATH=/nowhere " + tree).status, 1);
}

// What of a text is like this; a hyphen may be written as roff has it.
std::set<string> all_like(const char *pattern, string text)
{
    for (size_t at = text.find("\\-"); at != string::npos; at = text.find("\\-", at)) {
        text.erase(at, 1);
    }
    std::set<string> found;
    const std::regex wanted(pattern);
    for (std::sregex_iterator at(text.begin(), text.end(), wanted), end; at != end; ++at) {
        found.insert(at->str(1));
    }
    return found;
}

string help_of(const string &subcommand)
{
    const command_result help = run_command(quoted(KAVPLAT_COMMAND) + " " + subcommand + " --help");
    EXPECT_EQ(help.status, 0) << subcommand;
    return help.output;
}

string section(const string &manual, const string &title)
{
    const size_t begin = manual.find("\n.SH " + title + "\n");
    return begin == string::npos ? ""
                                 : manual.substr(begin, manual.find("\n.SH ", begin + 1) - begin);
}

TEST(kavplat_manual, says_of_each_subcommand_what_its_help_says)
{
    const string command = help_of("");
    const std::set<string> subcommands =
        all_like("\n  ([a-z]+) ", command.substr(command.find("Subcommands:")));
    EXPECT_GE(subcommands.size(), 9U) << command;

    // One page may be that of several, which refer to it.
    std::map<string, std::vector<string>> pages;
    const string directory = KAVPLAT_SOURCE_DIR "/docs/man/";
    for (const string &each : subcommands) {
        const string page = "kavplat-" + each + ".1";
        ASSERT_TRUE(std::filesystem::exists(directory + page)) << each << " has no page";
        const std::set<string> other =
            all_like("^[.]so man1/(kavplat-[a-z]+[.]1)\n$", read_file(directory + page));
        pages[other.empty() ? page : *other.begin()].push_back(each);
    }
    for (const auto &[page, commands] : pages) {
        const string manual = read_file(directory + page);
        const char *const long_option = "(--[a-z]+(?:-[a-z]+)*)";
        std::set<string> options;
        std::set<string> statuses;
        for (const string &each : commands) {
            const string help = help_of(each);
            EXPECT_NE(help.find("\nExample:\n  kavplat " + each + " "), string::npos) << help;
            options.merge(all_like(long_option, help));
            statuses.merge(all_like("\\bwith ([0-9])\\b", help));
            for (const string &option : all_like("\n  (-[A-Za-z])[, ]", help)) {
                EXPECT_TRUE(option == "-h" || all_like("(-[A-Za-z])\\b", manual).contains(option))
                    << page << " says nothing of " << option;
            }
            EXPECT_TRUE(
                all_like("\n[.]B kavplat ([a-z]+)", section(manual, "SYNOPSIS")).contains(each))
                << page;
        }
        options.erase("--help");
        options.erase("--version"); // of all, in the page of kavplat
        EXPECT_EQ(all_like(long_option, manual), options) << page;
        EXPECT_EQ(all_like("[.]TP\n([0-9])\n", section(manual, "EXIT STATUS")), statuses) << page;
        EXPECT_GE(statuses.size(), 3U) << page;
        EXPECT_NE(section(manual, "EXAMPLE"), "") << page;
    }
}

TEST(kavplat_help, is_that_of_the_subcommand_or_of_all)
{
    const auto told = [](const string &words) {
        const command_result result = run_command(quoted(KAVPLAT_COMMAND) + " " + words);
        EXPECT_EQ(result.status, 0) << words << result.output;
        return result.output;
    };
    EXPECT_EQ(told("help health"), told("health --help"));
    EXPECT_EQ(told("help help"), told("help --help"));
    EXPECT_EQ(told("help"), told("--help"));
}

TEST(kavplat_manual, is_roff_without_a_fault)
{
    // A page that refers to another names it as it is installed.
    const temporary_directory installed;
    std::filesystem::create_directory_symlink(KAVPLAT_SOURCE_DIR "/docs/man", installed / "man1");
    size_t pages = 0;
    for (const auto &each : std::filesystem::directory_iterator(KAVPLAT_SOURCE_DIR "/docs/man")) {
        const command_result formatted =
            run_command("cd " + quoted(installed.path()) +
                        " && groff -man -ww -z -Tutf8 -rCHECKSTYLE=3 " + quoted(each.path()));
        EXPECT_EQ(formatted.output, "") << each.path();
        EXPECT_EQ(formatted.status, 0) << each.path();
        pages++;
    }
    EXPECT_GE(pages, 10U);
}

TEST(kavplat_completion, knows_subcommands_options_and_names)
{
    const std::tuple<const char *, int, const char *> cases[] = {
        {"kavplat un", 1, "unplug\n"},
        {"kavplat help wa", 2, "watch\n"},
        {"kavplat tree --js", 2, "--json\n"},
        {"kavplat tree --only al", 3, "alarms\n"},
        {"kavplat set $minimal /SYS/MB/L", 3, "/SYS/MB/LOCATE\n"},
        {"kavplat set $minimal /SYS/MB/LOCATE l", 4, "led=\n"},
        {"kavplat plug $rack /SYS/MB/L --from $minimal", 3, "/SYS/MB/LOCATE\n"},
    };
    const std::filesystem::path command = KAVPLAT_COMMAND;
    for (const auto &[words, at, completed] : cases) {
        const command_result result = run_command(
            "PATH=" + quoted(command.parent_path()) +
            ":$PATH minimal=" + quoted(KAVPLAT_SOURCE_DIR "/servers/minimal.json") +
            " rack=" + quoted(KAVPLAT_SOURCE_DIR "/servers/rack-2u.json") + " bash -c '. " +
            KAVPLAT_SOURCE_DIR "/tools/kavplat/completion/kavplat; COMP_WORDS=(" + words +
            "); COMP_CWORD=" + std::to_string(at) +
            "; _kavplat; printf \"%s\\n\" \"${COMPREPLY[@]}\"'");
        EXPECT_EQ(result.output, completed) << words;
    }
}

} // namespace

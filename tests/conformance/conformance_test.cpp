// kavplat conformance against platforms that keep every promise, and against ones
// that break exactly one: the check that is meant for it, and no other, says so.
#include <algorithm>
#include <filesystem>
#include <map>
#include <ostream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "harness/files.h"
#include "harness/process.h"

namespace fs = std::filesystem;

namespace
{

struct outcome {
    int status = -1;
    std::string output;                       // and what went to the standard error
    std::map<std::string, std::string> lines; // the first of each check, by its name
    std::set<std::string> broken;
    std::set<std::string> skipped;
};

// The words of "BROKEN NAME: promise: what" up to the colon.
void take_line(outcome &result, const std::string &line)
{
    const size_t blank = line.find(' ');
    const size_t colon = line.find(':');
    if (blank == std::string::npos || colon == std::string::npos || colon < blank) {
        return;
    }
    const std::string word = line.substr(0, blank);
    const std::string name = line.substr(blank + 1, colon - blank - 1);
    if (word == "BROKEN") {
        result.broken.insert(name);
    } else if (word == "skipped") {
        result.skipped.insert(name);
    } else if (word != "ok") {
        return;
    }
    result.lines.emplace(name, line);
}

// Arguments and environment as a shell takes them.
outcome run(const std::string &arguments, const std::string &environment = "")
{
    const command_result ended = run_command("exec env " + environment + " " +
                                             quoted(KAVPLAT_COMMAND) + " conformance " + arguments);
    outcome result;
    result.status = ended.status;
    result.output = ended.output;
    std::istringstream in(result.output);
    for (std::string line; std::getline(in, line);) {
        take_line(result, line);
    }
    return result;
}

std::set<std::string> names_of_checks()
{
    std::set<std::string> names;
    std::istringstream in(run("--list").output);
    for (std::string line; std::getline(in, line);) {
        names.insert(line.substr(0, line.find(' ')));
    }
    return names;
}

outcome run_on_broken(const temporary_directory &d, const std::string &defect,
                      const std::string &options = "--seconds 0.5 --wait 10")
{
    const std::string disk = d / "disk";
    return run(options + " --provoke " + quoted("touch " + quoted(disk)) + " " +
                   quoted(KAVPLAT_BROKEN_PLATFORM),
               "KAVPLAT_BREAK=" + quoted(defect) + " KAVPLAT_DISK=" + quoted(disk));
}

struct defect {
    const char *name;
    const char *check;
    const char *seen;
    const char *options = "--seconds 0.5 --wait 10";
};

void PrintTo(const defect &d, std::ostream *out)
{
    *out << d.name;
}

constexpr defect defects[] = {
    {"root list of one", "root_query", "the first record is \"/SYS\""},
    {"wrong name length", "inventory_names", "/SYS: nac_name_length is 5, but the text has 4"},
    {"name listed twice", "inventory_names", "/SYS/MB/T0 is listed twice"},
    {"child before its container", "inventory_order",
     "/SYS/MB/T0 stands before /SYS/MB, which holds it"},
    {"container left out", "inventory_order",
     "/SYS/MB/T0 is listed, but /SYS/MB, which holds it, is not"},
    {"component outside the root", "inventory_below_root", "/ELSEWHERE is not below the root /SYS"},
    {"subtree without its last", "inventory_subtrees",
     "the list of /SYS/MB lacks /SYS/MB/STATE, which the root's has"},
    {"shared list names", "list_lifetime", "after another list was released"},
    {"lists not released", "list_release", "lists of /SYS, all released, left "},
    {"null list minded", "empty_release", "crashed in capi_free_inventory()"},
    {"unknown name answered", "unknown_names",
     "capi_get_power_state(\"/SYS/NO_SUCH_COMPONENT\") gives 0"},
    {"null description", "descriptions", "type 32: status 0 and a null text"},
    {"description without end", "descriptions", "type 32: no end within 4096 bytes"},
    {"description in a shared buffer", "descriptions_stay", "the text \"server\" has become"},
    {"type flag of 2", "type_flags", "capi_is_sensor_type(30): the flag is 2"},
    {"sensor and indicator", "type_flags", "type 31 is a sensor and an indicator"},
    {"type flag of 8 bytes", "type_flags", "writes behind the flag"},
    {"sensor class of 3", "sensor_info", "/SYS/MB/T0: sensor_class is 3"},
    {"sensor type of 300", "sensor_info", "/SYS/MB/T0: sensor_type is 300"},
    {"units of 11", "sensor_info", "/SYS/MB/T0: units are 11"},
    {"unknown sensor flag", "sensor_info", "/SYS/MB/T0: flags are 0x110"},
    {"threshold without a number", "sensor_info",
     "/SYS/MB/T0: upper_critical is said to be valid and is nan"},
    {"sensor info of 130 bytes", "sensor_info",
     "capi_get_sensor_info(/SYS/MB/T0) writes behind the 128 bytes"},
    {"sensor name without end", "sensor_info", "name has no NUL within its 64 bytes"},
    {"reading without a number", "sensor_reading", "/SYS/MB/T0: a good reading of nan"},
    {"reading of another class", "sensor_reading",
     "/SYS/MB/T0: sensor_class is 2 when it is read, 1 in capi_get_sensor_info"},
    {"reading of 130 bytes", "sensor_reading",
     "capi_get_sensor(/SYS/MB/T0) writes behind the 128 bytes"},
    {"reading without a name's end", "sensor_reading", "name has no NUL within its 64 bytes"},
    {"abort in a call", "sensor_reading", "crashed in capi_get_sensor(/SYS/MB/T0) by SIGABRT"},
    {"OK semantics of the record alone", "ok_semantics",
     "crashed in capi_is_sensor_with_OK_semantics(/SYS/MB/T0)"},
    {"OK semantics of 2", "ok_semantics", "/SYS/MB/STATE: the answer is 2"},
    {"sensor named otherwise in its record", "ok_semantics",
     "/SYS/MB/STATE: 1 for the name, 0 for its record (\"a sensor\")"},
    {"indicator of 257 bytes", "indicators",
     "capi_get_indicator(/SYS/LOCATE) writes behind the 256 bytes"},
    {"every component a service indicator", "indicator_meanings",
     "capi_get_indicator_meaning(/SYS/NO_SUCH_COMPONENT) gives 0, but that is no indicator"},
    {"meaning of 3", "indicator_meanings",
     "capi_get_indicator_meaning(/SYS/LOCATE): the code is 3"},
    {"meaning of 8 bytes", "indicator_meanings",
     "capi_get_indicator_meaning(/SYS/LOCATE) writes behind the 4 bytes"},
    {"power state refused", "power_states", "capi_get_power_state(/SYS/MB) gives -1"},
    {"power state of 8 bytes", "power_states",
     "capi_get_power_state(/SYS/MB) writes behind the 4 bytes"},
    {"ready to remove of 2", "ready_to_remove", "capi_get_rdy2rm_status(/SYS/MB): the code is 2"},
    {"enable state refused", "enable_states", "capi_get_enable_disable_state(/SYS/MB) gives -1"},
    {"enable state of 0", "enable_states", "the code is 0"},
    {"reason too long", "enable_states", "writes byte 21 of a buffer of 20"},
    {"reason without end", "enable_states", "leaves no NUL in a buffer of 20"},
    {"product text without end", "product_record", "description has no NUL within its 80 bytes"},
    {"product of 1025 bytes", "product_record", "writes behind the 1024 bytes"},
    {"chassis text without end", "chassis_record", "manufacturer has no NUL within its 80 bytes"},
    {"chassis of 1025 bytes", "chassis_record", "writes behind the 1024 bytes"},
    {"FRU refused", "fru_records",
     "capi_get_fru_info(/SYS/MB) gives -1, but its capabilities promise it"},
    {"FRU text without end", "fru_records", "serial has no NUL within its 80 bytes"},
    {"FRU of 1025 bytes", "fru_records", "writes behind the 1024 bytes"},
    {"every component an interface", "interface_names",
     "capi_get_interface_name(\"/SYS/NO_SUCH_COMPONENT\") gives 0"},
    {"interface name too long", "interface_names", "writes byte 17 of a buffer of 16"},
    {"interface name without end", "interface_names", "leaves no NUL in a buffer of 16"},
    {"interface without a name", "interface_names", "gives 0 and an empty name"},
    {"identifier too long", "vantor_ids", "writes byte 6 of a buffer of 5"},
    {"identifier without end", "vantor_ids",
     "capi_get_chassis_vantor_id leaves no NUL in a buffer of 51"},
    {"shared sensor buffer", "concurrent_reads",
     "answers one thread among four otherwise than alone"},
    {"one power state at a time", "concurrent_reads",
     "answers one thread among four otherwise than alone"},
    {"one meaning at a time", "concurrent_reads",
     "answers one thread among four otherwise than alone"},
    {"one reading at a time", "concurrent_reads",
     "answers one thread among four otherwise than alone"},
    {"no handle", "event_handle", "event_mgr_get_handle still gives -1", "--seconds 0.5 --wait 3"},
    {"handle of 0", "event_handle", "the handle is 0"},
    {"bad handle taken", "event_bad_handle", "event_mgr_subscribe_event_class of handle 0 gives 0"},
    {"disconnect cannot be subscribed", "event_subscriptions",
     "event_mgr_subscribe_event(-1, -1) gives -1"},
    {"no events", "event_delivery", "nothing was delivered within 2000 ms",
     "--seconds 0.5 --wait 2"},
    {"event inside a call", "event_thread", "came from inside event_mgr_subscribe_event"},
    {"event inside a callback's call", "event_thread", "came from inside capi_get_inventory"},
    {"two events at once", "event_one_at_a_time",
     "event (118, 3) of /SYS/MB/T0 came before the callback had returned"},
    {"unknown event", "event_known", "event (105, 77) of /SYS/DISK is none of the contract"},
    {"event before its subscription", "event_subscribed",
     "event (118, 3) of /SYS/MB/T0 was not subscribed yet"},
    {"null payload", "event_payload", "event (118, 3) of a null payload"},
    {"wrong context", "event_context", "came with context 0x"},
    {"event before the change", "event_state",
     "event (105, 2) of /SYS/DISK: the callback asks for it and gets -1"},
    {"events are lost", "event_order", "/SYS/DISK is listed now, and no event told of it",
     "--seconds 0.5 --wait 4"},
    {"event told twice", "event_order", "hot insert of /SYS/DISK, which was there already",
     "--seconds 0.5 --wait 4"},
    {"event with lock held", "event_calls", "does not answer before the callback returns",
     "--seconds 0.5 --wait 4"},
    {"very slow call", "call_duration", "capi_get_inventory(/) took ", "--seconds 0.5 --wait 4"},
    {"call that hangs", "call_duration", "capi_get_inventory(/) has not returned after ",
     "--seconds 0.5 --wait 0.5"},
};

class a_defect : public testing::TestWithParam<defect>
{
};

std::string test_name(const testing::TestParamInfo<defect> &info)
{
    std::string name = info.param.name;
    std::ranges::replace_if(
        name, [](unsigned char c) { return isalnum(c) == 0; }, '_');
    return name;
}

void expect_all_kept(const outcome &result, const std::set<std::string> &skipped = {})
{
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_EQ(result.broken, std::set<std::string>()) << result.output;
    EXPECT_EQ(result.skipped, skipped) << result.output;
    EXPECT_EQ(result.lines.size(), names_of_checks().size()) << result.output;
}

} // namespace

TEST_P(a_defect, breaks_the_promise_that_is_meant_and_no_other)
{
    const defect &d = GetParam();
    const temporary_directory here;
    const outcome result = run_on_broken(here, d.name, d.options);
    EXPECT_EQ(result.status, 1) << result.output;
    ASSERT_EQ(result.broken, std::set<std::string>{d.check}) << result.output;
    EXPECT_NE(result.lines.at(d.check).find(d.seen), std::string::npos) << result.output;
}

INSTANTIATE_TEST_SUITE_P(conformance, a_defect, testing::ValuesIn(defects), test_name);

TEST(conformance, every_check_has_a_platform_that_breaks_its_promise)
{
    std::set<std::string> covered = {"symbols"}; // whose platform is another library
    for (const defect &d : defects) {
        covered.insert(d.check);
    }
    EXPECT_EQ(covered, names_of_checks());
}

TEST(conformance, a_call_that_is_not_exported_is_named_and_the_rest_is_checked)
{
    const temporary_directory here;
    const outcome result = run("--seconds 0.1 --wait 4 " + quoted(KAVPLAT_PLATFORM_LACKING_A_CALL));
    EXPECT_EQ(result.status, 1) << result.output;
    ASSERT_EQ(result.broken, std::set<std::string>{"symbols"}) << result.output;
    EXPECT_NE(result.lines.at("symbols").find("capi_get_rdy2rm_status is not exported"),
              std::string::npos);
    EXPECT_TRUE(result.skipped.contains("ready_to_remove")) << result.output;
    EXPECT_TRUE(result.lines.at("inventory_order").starts_with("ok ")) << result.output;
}

TEST(conformance, the_fake_platform_keeps_every_promise)
{
    const temporary_directory here;
    expect_all_kept(run_on_broken(here, ""));
}

TEST(conformance, a_removal_is_checked_as_well_as_an_insertion)
{
    const temporary_directory here;
    const std::string disk = here / "disk";
    write_file(disk, "\n");
    expect_all_kept(run("--seconds 0.1 --wait 4 --provoke " + quoted("rm " + quoted(disk)) + " " +
                            quoted(KAVPLAT_BROKEN_PLATFORM),
                        "KAVPLAT_DISK=" + quoted(disk)));
}

TEST(conformance, a_call_of_more_than_a_second_is_a_warning)
{
    const temporary_directory here;
    const outcome result = run_on_broken(here, "slow call");
    expect_all_kept(result);
    EXPECT_NE(result.output.find("warning call_duration: capi_get_inventory(/) took 1"),
              std::string::npos)
        << result.output;
}

TEST(conformance, without_a_command_the_checks_of_events_are_skipped)
{
    const temporary_directory here;
    expect_all_kept(run("--seconds 0.1 " + quoted(KAVPLAT_BROKEN_PLATFORM)),
                    {"event_delivery", "event_thread", "event_one_at_a_time", "event_known",
                     "event_subscribed", "event_payload", "event_context", "event_state",
                     "event_order", "event_calls"});
}

TEST(conformance, one_check_can_be_run_alone)
{
    const outcome result =
        run("--only inventory_order --only root_query " + quoted(KAVPLAT_BROKEN_PLATFORM));
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_EQ(result.lines.size(), 2U) << result.output;
    EXPECT_TRUE(result.lines.contains("inventory_order")) << result.output;
    EXPECT_TRUE(result.lines.contains("root_query")) << result.output;
}

TEST(conformance, what_cannot_be_run_ends_with_2_and_says_why)
{
    const std::string good = quoted(KAVPLAT_BROKEN_PLATFORM);
    const struct {
        std::string arguments;
        const char *said;
    } misuses[] = {
        {"", "LIBRARY or --list is required"},
        {good + " " + good, "not expected"},
        {"--only no_such_check " + good, "there is no check no_such_check"},
        {"--seconds 0 " + good, "--seconds: takes a number above 0, not 0"},
        {"--wait soon " + good, "--wait: takes a number above 0, not soon"},
        {"/no/such/library.so", "cannot load /no/such/library.so"},
        {"--only event_delivery --wait 0.2 --provoke 'exit 7' " + good,
         "--provoke: the command ended with 7"},
    };
    for (const auto &misuse : misuses) {
        const outcome result = run(misuse.arguments);
        EXPECT_EQ(result.status, 2) << misuse.arguments << "\n" << result.output;
        EXPECT_NE(result.output.find(misuse.said), std::string::npos) << misuse.arguments << "\n"
                                                                      << result.output;
    }
}

#ifdef KAVPLAT_DESCRIBED_PLATFORM

namespace
{

outcome run_on_described(const temporary_directory &here, const char *server,
                         const std::string &edit)
{
    const std::string description = here / "server.json";
    copy_source(fs::path(KAVPLAT_SOURCE_DIR) / "servers" / server, description);
    return run("--seconds 1 --provoke " +
                   quoted("sed -i " + quoted(edit) + " " + quoted(description)) + " " +
                   quoted(KAVPLAT_DESCRIBED_PLATFORM),
               "KAVPLAT_DESCRIPTION=" + quoted(description));
}

} // namespace

TEST(conformance, the_described_platform_keeps_every_promise)
{
    const temporary_directory here;
    // A drive goes.
    expect_all_kept(run_on_described(here, "rack-2u.json", "/\"\\/SYS\\/HDD3\"/,/^$/d"));
}

TEST(conformance, the_described_platform_with_little_to_describe_breaks_none)
{
    const temporary_directory here;
    // The indicator goes and one of another name comes.
    expect_all_kept(run_on_described(here, "minimal.json", "s/LOCATE/BEACON/"),
                    {"indicator_meanings", "power_states", "ready_to_remove", "enable_states",
                     "fru_records", "interface_names"});
}

#endif

#include "described/format/loader.h"

#include "described/support.h"

#include <map>
#include <set>
#include <sys/stat.h>

using namespace described_platform;
using namespace described_platform_test;

namespace
{

class loader : public platform_test
{
  protected:
    load_result load_text(const std::string &text)
    {
        write_file(path, text);
        return load_description(path);
    }

    /* Exactly one error, at this place, in words that hold this part. */
    void expect_error(const std::string &text, const std::string &pointer, const std::string &part)
    {
        const load_result result = load_text(text);
        EXPECT_EQ(nullptr, result.loaded);
        ASSERT_EQ(1U, result.errors.size()) << all_of(result);
        EXPECT_EQ(pointer, result.errors[0].pointer);
        EXPECT_NE(std::string::npos, result.errors[0].message.find(part))
            << result.errors[0].message;
        EXPECT_TRUE(to_text(path.string(), result.errors[0]).starts_with(path.string() + ":"));
    }

    /* Of one component behind the root. */
    void expect_component_error(const std::string &component, const std::string &pointer,
                                const std::string &part)
    {
        expect_error(described(component), "/components/1" + pointer, part);
    }

    void expect_sensor_error(const std::string &members, const std::string &pointer,
                             const std::string &part)
    {
        expect_component_error(sensor_with(members), "/sensor" + pointer, part);
    }

    static std::string sensor_with(const std::string &members)
    {
        return R"({"name": "/SYS/T", "type": "temperature-sensor", "sensor": {)" + members + "}}";
    }

    static std::string all_of(const load_result &result)
    {
        std::string text;
        for (const load_error &each : result.errors) {
            text += to_text("file", each) + '\n';
        }
        return text;
    }
};

const std::string good_sensor = R"("class": "threshold", "type": "temperature", "reading": 20)";

TEST_F(loader, takes_the_smallest_description)
{
    const load_result result = load_text(described(""));
    ASSERT_NE(nullptr, result.loaded) << all_of(result);
    ASSERT_EQ(1U, result.loaded->components.size());
    EXPECT_EQ("/SYS", result.loaded->components[0].name);
    EXPECT_EQ(3U, result.loaded->components[0].type);
}

TEST_F(loader, takes_every_key_that_there_is)
{
    const load_result result = load_text(R"({
      "$schema": "../schema/server.schema.json",
      "product": {"model": "M", "serial": "S", "description": "D", "vantor_id": "V"},
      "chassis": {"model": "M", "serial": "S", "description": "D", "manufacturer": "F",
                  "vantor_id": "V"},
      "components": [
        {"name": "/SYS", "type": 3, "capabilities": ["holder", "fru-info"],
         "capability_bytes": [1, 0, 0, 0, 0, 0, 0, 0, 0, 255],
         "fru": {"model": "M", "manufacturer": "F", "serial": "S", "alias": "A",
                 "software_revision": "R"},
         "interface": "eth0", "power": "on", "ready_to_remove": true, "enable": 2},
        {"name": "/SYS/T", "type": "temperature-sensor", "sensor": {
          "class": 1, "type": "temperature", "units": "degrees-c", "current": "alternating",
          "reading": {"file": "t", "scale": 0.001, "offset": -1}, "raw_reading": 255,
          "valid": false, "state": "ok", "ok_semantics": true, "record_name": "T",
          "thresholds": {"upper_fatal": 1, "upper_critical": 2, "upper_non_critical": 3,
                         "lower_fatal": 4, "lower_critical": 5, "lower_non_critical": 6}}},
        {"name": "/SYS/L", "type": "led", "indicator": {"state": "slow-blink", "means": "fault"}}]})");
    ASSERT_NE(nullptr, result.loaded) << all_of(result);
    EXPECT_EQ(std::vector<std::string>{(directory / "t").string()}, result.loaded->bound_files);
}

TEST_F(loader, a_missing_file_is_told_with_the_reason)
{
    const load_result result = load_description(path);
    ASSERT_EQ(1U, result.errors.size());
    EXPECT_EQ(path.string() +
                  ": (document): expected a readable file: open: No such file or directory",
              to_text(path.string(), result.errors[0]));
}

TEST_F(loader, a_directory_or_a_fifo_is_no_description)
{
    ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600));
    for (const std::string &each : {path.string(), directory.string()}) {
        const load_result result = load_description(each);
        ASSERT_EQ(1U, result.errors.size());
        EXPECT_EQ("expected a regular file", result.errors[0].message);
    }
}

TEST_F(loader, a_file_beyond_the_limit_is_refused)
{
    write_file(path, "");
    std::filesystem::resize_file(path, largest_document + 1);
    const load_result result = load_description(path);
    ASSERT_EQ(1U, result.errors.size());
    EXPECT_EQ("expected a file of at most 64 MiB", result.errors[0].message);
}

TEST_F(loader, broken_json_is_told_with_line_and_column)
{
    const load_result result = load_text("{\n  \"components\": [\n    nonsense\n]}");
    ASSERT_EQ(1U, result.errors.size());
    EXPECT_EQ(3U, result.errors[0].line);
    EXPECT_EQ(6U, result.errors[0].column); /* "no" could still have become null's "n" */
    EXPECT_TRUE(to_text("f.json", result.errors[0]).starts_with("f.json:3:6: expected JSON: "))
        << to_text("f.json", result.errors[0]);
}

TEST_F(loader, an_empty_file_and_a_cut_one_are_told_with_their_end)
{
    for (const std::string &text : {std::string(), std::string("{\n\"components\": [")}) {
        const load_result result = load_text(text);
        ASSERT_EQ(1U, result.errors.size()) << text;
        EXPECT_NE(0U, result.errors[0].line);
        EXPECT_NE(std::string::npos, result.errors[0].message.find("end of input"))
            << result.errors[0].message;
    }
}

TEST_F(loader, a_number_beyond_double_precision_is_told_with_its_place)
{
    const load_result result = load_text("{\n\"components\": 1e999}");
    ASSERT_EQ(1U, result.errors.size());
    EXPECT_EQ(2U, result.errors[0].line);
    EXPECT_NE(std::string::npos, result.errors[0].message.find("1e999"));
}

TEST_F(loader, text_that_is_not_utf_8_is_refused)
{
    const load_result result = load_text("{\"components\": \"\xff\"}");
    ASSERT_EQ(1U, result.errors.size());
    EXPECT_EQ(1U, result.errors[0].line);
}

TEST_F(loader, nesting_without_end_is_refused)
{
    const load_result result = load_text("{\"components\": " + std::string(1000000, '['));
    ASSERT_EQ(1U, result.errors.size());
    EXPECT_TRUE(result.errors[0].message.starts_with("expected at most 32 levels"));
    EXPECT_TRUE(result.errors[0].pointer.starts_with("/components/0/0/"));
}

TEST_F(loader, a_repeated_key_is_an_error)
{
    expect_component_error(R"({"name": "/SYS/A", "type": 9, "type": 10})", "/type",
                           "expected each key once, found \"type\" again");
}

TEST_F(loader, a_key_is_escaped_in_its_pointer)
{
    expect_error(R"({"components": [{"name": "/SYS", "type": 3}], "a/b~c": 1})", "/a~1b~0c",
                 "expected no such key here");
}

TEST_F(loader, a_text_without_bounds_is_refused)
{
    const load_result result =
        load_text(described(R"({"name": "/SYS/)" + std::string(5000000, 'x') + R"(", "type": 9})"));
    ASSERT_FALSE(result.errors.empty());
    EXPECT_EQ("/components/1/name", result.errors[0].pointer);
    EXPECT_EQ("expected a text of at most 255 bytes, found 5000005", result.errors[0].message);
}

TEST_F(loader, a_zero_byte_in_a_text_is_refused)
{
    const load_result result = load_text(described(R"({"name": "/SYS/A\u0000B", "type": 9})"));
    ASSERT_EQ(1U, result.errors.size()) << all_of(result);
    EXPECT_EQ("/components/1/name", result.errors[0].pointer);
}

TEST_F(loader, a_control_character_in_a_name_is_refused)
{
    for (const char *name :
         {R"(/SYS/A\tB)", R"(/SYS/\u001b[2J)", R"(/SYS/\u007f)", R"(/SYS/\u0085)"}) {
        expect_component_error(std::string(R"({"name": ")") + name + R"(", "type": 9})", "/name",
                               "a name without control characters");
    }
    expect_sensor_error(good_sensor + R"(, "record_name": "A\nB")", "/record_name",
                        "a name without control characters");
    /* The first that is none, and bytes that only look like one. */
    EXPECT_NE(nullptr, load_text(described(R"({"name": "/SYS/\u00a0\u0180", "type": 9})")).loaded);
}

TEST_F(loader, an_error_is_one_line_whatever_the_file_holds)
{
    const load_result result = load_text(described(R"({"name": "/SYS/A\n3: good", "type": 9,
        "\r\n": 1, ")" + std::string(5000, 'k') + R"(": 1})"));
    ASSERT_EQ(3U, result.errors.size()) << all_of(result);
    for (const load_error &each : result.errors) {
        const std::string text = to_text("f", each);
        EXPECT_EQ(std::string::npos, text.find_first_of("\r\n")) << text;
        EXPECT_NE(std::string::npos, text.find("(/SYS/A\\u000a3: good)")) << text;
        EXPECT_LT(text.size(), 2500U);
    }
}

TEST_F(loader, a_place_is_told_with_line_and_component)
{
    const std::string text = "{\n\"product\":\n{\"model\": 5},\n\"components\": [\n"
                             "{\"name\": \"/SYS\", \"type\": 3},\n"
                             "{\"name\": \"/SYS/A\",\n \"capabilities\": [\n\"flying\"\n],\n"
                             "\"power\":\n{\"scale\": 1},\n\"enable\": 7.5\n,\n"
                             "\"type\": 1,\n \"type\": 9}\n,\n"
                             "{\"type\": 9}, 17\n]}";
    const load_result result = load_text(text);
    std::multiset<std::string> told;
    for (const load_error &each : result.errors) {
        const std::string line = to_text("f", each);
        told.insert(line.substr(0, line.find(": expected")));
    }
    EXPECT_EQ(
        (std::multiset<std::string>{
            "f:3: /product/model", "f:8: /components/1/capabilities/0 (/SYS/A)",
            "f:10: /components/1/power (/SYS/A)", "f:12: /components/1/enable (/SYS/A)",
            "f:15: /components/1/type (/SYS/A)", "f:17: /components/2", "f:17: /components/3"}),
        told)
        << all_of(result);
}

TEST_F(loader, the_nearest_name_is_offered)
{
    const std::string head = R"({"name": "/SYS/A", )";
    expect_component_error(head + R"("type": "powersupply"})", "/type",
                           "did you mean \"power-supply\"?");
    expect_component_error(head + R"("type": "Fna"})", "/type", "did you mean \"fan\"?");
    expect_component_error(head + R"("type": 9, "capabilities": ["hot_plugable"]})",
                           "/capabilities/0", "did you mean \"hot-pluggable\"?");
    expect_component_error(head + R"("type": 9, "capabilties": []})", "/capabilties",
                           "did you mean \"capabilities\"?");
    expect_component_error(head + R"("type": 9, "power": "standbye"})", "/power",
                           "did you mean \"standby\"?");
    expect_sensor_error(good_sensor + R"(, "units": "degrees-k")", "/units",
                        "did you mean \"degrees-c\"?");
    /* Nothing is near enough. */
    const load_result result = load_text(described(head + R"("type": "coffee-machine"})"));
    ASSERT_EQ(1U, result.errors.size());
    EXPECT_TRUE(result.errors[0].message.ends_with("found \"coffee-machine\""))
        << result.errors[0].message;
}

TEST_F(loader, a_number_in_quotes_is_recognised)
{
    expect_component_error(R"({"name": "/SYS/A", "type": "9"})", "/type",
                           "a number stands without quotes");
    expect_sensor_error(R"("class": 1, "type": 1, "reading": "24.5")", "/reading",
                        "a number stands without quotes");
    expect_sensor_error(good_sensor + R"(, "thresholds": {"upper_fatal": "-3"})",
                        "/thresholds/upper_fatal", "a number stands without quotes");
}

TEST_F(loader, what_other_notations_allow_is_told_in_the_terms_of_json)
{
    const std::map<std::string, std::string> cases = {
        {"{ // a server\n", "JSON has no comments"},
        {"{ /* a server */", "JSON has no comments"},
        {"# a server", "JSON has no comments"},
        {"{\"a\": [1, 2,\n]}", "no comma stands behind the last"},
        {"{\"a\": 1,}", "no comma stands behind the last"},
        {"{\"a\": 'on'}", "texts stand in double quotes"},
        {"{\"a\": standby}", "a text stands in quotes: \"standby\""},
        {"{name: 1}", "a text stands in quotes: \"name\""},
        {"{\"a\": .5}", "a number is written like"},
        {"{\"a\": +5}", "a number is written like"},
        {"{\"a\": 007}", "a number is written like"},
        {"{\"a\": 0x1F}", "a number is written like"},
        {"{\"a\": 24.5C}", "a number is written like"},
    };
    for (const auto &[text, hint] : cases) {
        const load_result result = load_text(text);
        ASSERT_EQ(1U, result.errors.size()) << text;
        EXPECT_NE(std::string::npos, result.errors[0].message.find("; " + hint))
            << text << ": " << result.errors[0].message;
    }
    for (const char *text :
         {"{\"a\": 1]", "{\"a\": \"b\n\"}", "{\"a\" 1}", "{\"a\": 1 \"b\": 2}"}) {
        const load_result result = load_text(text);
        ASSERT_EQ(1U, result.errors.size()) << text;
        EXPECT_EQ(std::string::npos, result.errors[0].message.find("stand"))
            << result.errors[0].message;
    }
}

TEST_F(loader, unknown_keys_are_errors_at_every_level)
{
    expect_component_error(R"({"name": "/SYS/A", "type": 9, "colour": "red"})", "/colour",
                           "expected no such key here");
    expect_sensor_error(good_sensor + R"(, "colour": 1)", "/colour", "expected no such key");
    expect_sensor_error(good_sensor + R"(, "thresholds": {"upper": 1})", "/thresholds/upper",
                        "expected no such key");
    expect_component_error(R"({"name": "/SYS/A", "type": 9, "fru": {"colour": ""}})", "/fru/colour",
                           "expected no such key");
    expect_component_error(R"({"name": "/SYS/A", "type": 9, "power": {"file": "f", "unit": 1}})",
                           "/power/unit", "expected no such key");
    expect_error(R"({"components": [{"name": "/SYS", "type": 3}], "product": {"colour": 1}})",
                 "/product/colour", "expected no such key");
    expect_error(R"({"components": [{"name": "/SYS", "type": 3}], "chassis": {"colour": 1}})",
                 "/chassis/colour", "expected no such key");
}

TEST_F(loader, the_document_must_be_an_object_with_components)
{
    expect_error("[]", "", "expected an object");
    expect_error("{}", "", "expected the key \"components\"");
    expect_error(R"({"components": []})", "/components", "at least one component");
    expect_error(R"({"components": {}})", "/components", "at least one component");
    expect_error(R"({"components": [7]})", "/components/0", "expected an object");
}

TEST_F(loader, a_component_needs_name_and_type)
{
    expect_component_error(R"({"type": 9})", "", "expected the key \"name\"");
    expect_component_error(R"({"name": "/SYS/A"})", "", "expected the key \"type\"");
}

TEST_F(loader, bad_names_are_refused)
{
    for (const char *name : {"SYS", "/", "", "/SYS/", "/SYS//A", "//SYS"}) {
        expect_component_error(std::string(R"({"name": ")") + name + R"(", "type": 9})", "/name",
                               "a slash before every part");
    }
    expect_component_error(R"({"name": 5, "type": 9})", "/name", "expected a text");
    expect_component_error(R"({"name": "/SYS/)" + std::string(251, 'x') + R"(", "type": 9})",
                           "/name", "at most 255 bytes, found 256");
}

TEST_F(loader, a_name_of_255_bytes_is_taken)
{
    EXPECT_NE(nullptr, load_text(described(R"({"name": "/SYS/)" + std::string(250, 'x') +
                                           R"(", "type": 9})"))
                           .loaded);
}

TEST_F(loader, the_limit_of_a_name_counts_bytes_and_not_characters)
{
    std::string part;
    for (int i = 0; i < 126; ++i) {
        part += "\xc3\xa4";
    }
    expect_component_error(R"({"name": "/SYS/)" + part + R"(", "type": 9})", "/name",
                           "at most 255 bytes, found 257");
}

TEST_F(loader, impossible_types_are_refused)
{
    for (const char *type : {"\"no-such-type\"", "-1", "4294967296", "18446744073709551615", "9.5",
                             "true", "null", "1e300", "[]"}) {
        expect_component_error(std::string(R"({"name": "/SYS/A", "type": )") + type + "}", "/type",
                               "the name of a component type or an integer 0 to 4294967295");
    }
}

TEST_F(loader, the_largest_type_and_an_unlisted_one_are_taken)
{
    const load_result result = load_text(
        described(R"({"name": "/SYS/A", "type": 4294967295}, {"name": "/SYS/B", "type": 200})"));
    ASSERT_NE(nullptr, result.loaded) << all_of(result);
    EXPECT_EQ(4294967295U, result.loaded->components[1].type);
}

TEST_F(loader, a_repeated_name_is_told_with_both_places)
{
    expect_error(described(R"({"name": "/SYS/A", "type": 9}, {"name": "/SYS/A", "type": 10})"),
                 "/components/2/name",
                 "expected each name once, \"/SYS/A\" is that of "
                 "/components/1");
}

TEST_F(loader, the_root_given_twice_is_one_error)
{
    expect_error(described(R"({"name": "/SYS", "type": 3})"), "/components/1/name",
                 "that of /components/0");
}

TEST_F(loader, a_child_without_parent_is_refused)
{
    expect_component_error(R"({"name": "/SYS/MB/P0", "type": 40})", "/name",
                           "expected a component \"/SYS/MB\" that holds \"/SYS/MB/P0\"");
}

TEST_F(loader, a_component_outside_the_root_is_refused)
{
    expect_component_error(R"({"name": "/X7", "type": 9})", "/name",
                           "expected a component below the root \"/SYS\"");
}

TEST_F(loader, the_first_component_must_be_a_root)
{
    const load_result result = load_text(
        R"({"components": [{"name": "/SYS/A", "type": 9}, {"name": "/SYS", "type": 3}]})");
    ASSERT_FALSE(result.errors.empty());
    EXPECT_EQ("/components/0/name", result.errors[0].pointer);
    EXPECT_TRUE(result.errors[0].message.starts_with("expected the root first"));
}

TEST_F(loader, bad_capabilities_are_refused)
{
    const std::string head = R"({"name": "/SYS/A", "type": 9, )";
    expect_component_error(head + R"("capabilities": ["holder", "flying"]})", "/capabilities/1",
                           "expected one of \"stateful\"");
    expect_component_error(head + R"("capabilities": [3]})", "/capabilities/0", "one of");
    expect_component_error(head + R"("capabilities": "holder"})", "/capabilities", "an array");
    expect_component_error(head + R"("capabilities": ["holder", "resettable", "holder"]})",
                           "/capabilities/2", "expected each capability once, found \"holder\"");
    expect_component_error(head + R"("capability_bytes": [1, 2]})", "/capability_bytes",
                           "an array of 10 integers 0 to 255");
    expect_component_error(head + R"("capability_bytes": [0,0,0,256,0,0,0,0,0,0]})",
                           "/capability_bytes/3", "an integer 0 to 255, found 256");
    expect_component_error(head + R"("capability_bytes": [0,0,0,0,-1,0,0,0,0,0]})",
                           "/capability_bytes/4", "an integer 0 to 255, found -1");
}

TEST_F(loader, identity_texts_are_bounded)
{
    const std::string longer(80, 'x');
    expect_component_error(R"({"name": "/SYS/A", "type": 9, "fru": {"serial": ")" + longer + "\"}}",
                           "/fru/serial", "at most 79 bytes, found 80");
    for (const char *key : {"model", "serial", "description"}) {
        expect_error(
            described("", std::string(R"(, "product": {")") + key + "\": \"" + longer + "\"}"),
            std::string("/product/") + key, "at most 79 bytes, found 80");
    }
    expect_error(described("", R"(, "chassis": {"manufacturer": ")" + longer + "\"}"),
                 "/chassis/manufacturer", "at most 79 bytes, found 80");
    expect_error(described("", R"(, "chassis": {"vantor_id": ")" + std::string(51, 'x') + "\"}"),
                 "/chassis/vantor_id", "at most 50 bytes, found 51");
    expect_error(described("", R"(, "product": {"vantor_id": 5})"), "/product/vantor_id",
                 "a text of at most 50 bytes, found 5");
    expect_error(described("", R"(, "product": [])"), "/product", "an object of model");
    expect_error(described("", R"(, "chassis": 1)"), "/chassis", "an object of model");
}

TEST_F(loader, impossible_state_codes_are_refused)
{
    const std::string head = R"({"name": "/SYS/A", "type": 9, )";
    expect_component_error(head + R"("power": "sleeping"})", "/power",
                           "one of \"off\", \"on\", \"standby\", \"shutting-down\" or an integer");
    expect_component_error(head + R"("power": 2.5})", "/power", "an integer");
    expect_component_error(head + R"("power": 2147483648})", "/power", "found 2147483648");
    expect_component_error(head + R"("power": -2147483649})", "/power", "found -2147483649");
    expect_component_error(head + R"("power": true})", "/power", "found true");
    expect_component_error(head + R"("ready_to_remove": "soon"})", "/ready_to_remove", "\"ready\"");
    expect_component_error(head + R"("ready_to_remove": "false"})", "/ready_to_remove", "integer");
    expect_component_error(head + R"("enable": "maybe"})", "/enable", "\"disabled\"");
}

TEST_F(loader, bad_bindings_are_refused)
{
    const std::string head = R"({"name": "/SYS/A", "type": 9, "power": )";
    expect_component_error(head + "{}}", "/power", "expected the key \"file\"");
    expect_component_error(head + R"({"file": ""}})", "/power/file", "the path of a file");
    expect_component_error(head + R"({"file": 5}})", "/power/file", "a text");
    expect_component_error(head + R"({"file": "f", "scale": "1"}})", "/power/scale", "a number");
    expect_component_error(head + R"({"file": "f", "offset": null}})", "/power/offset", "a number");
    expect_component_error(head + "[1]}", "/power", "a binding");
}

TEST_F(loader, sensor_and_type_must_agree)
{
    expect_component_error(R"({"name": "/SYS/T", "type": "temperature-sensor"})", "",
                           "expected the key \"sensor\": type \"temperature-sensor\" is a sensor");
    expect_component_error(R"({"name": "/SYS/T", "type": 9, "sensor": {)" + good_sensor + "}}",
                           "/sensor", "expected no sensor: type 9 is none");
    expect_component_error(R"({"name": "/SYS/T", "type": 100000, "sensor": {)" + good_sensor + "}}",
                           "/sensor", "expected no sensor");
}

TEST_F(loader, indicator_and_type_must_agree)
{
    expect_component_error(R"({"name": "/SYS/L", "type": "led"})", "",
                           "expected the key \"indicator\": type \"led\" is an indicator");
    expect_component_error(R"({"name": "/SYS/L", "type": 9, "indicator": {"state": 1}})",
                           "/indicator", "expected no indicator: type 9 is none");
    expect_component_error(R"({"name": "/SYS/L", "type": "led", "indicator": {}})", "/indicator",
                           "expected the key \"state\"");
    expect_component_error(R"({"name": "/SYS/L", "type": "led", "indicator": {"state": "red"}})",
                           "/indicator/state", "one of \"off\", \"on\"");
}

TEST_F(loader, bad_sensors_are_refused)
{
    expect_sensor_error(R"("type": "temperature", "reading": 1)", "", "expected the key \"class\"");
    expect_sensor_error(R"("class": "threshold", "reading": 1)", "", "expected the key \"type\"");
    expect_sensor_error(R"("class": "threshold", "type": 1)", "", "expected the key \"reading\"");
    expect_sensor_error(R"("class": "analog", "type": 1, "reading": 1)", "/class",
                        "one of \"threshold\", \"discrete\"");
    expect_sensor_error(R"("class": 1, "type": "heat", "reading": 1)", "/type", "\"temperature\"");
    expect_sensor_error(good_sensor + R"(, "units": "furlongs")", "/units", "\"degrees-c\"");
    expect_sensor_error(good_sensor + R"(, "units": 4294967296)", "/units", "found 4294967296");
    expect_sensor_error(R"("class": 1, "type": 1, "reading": "asserted")", "/reading", "a number");
    expect_sensor_error(R"("class": 1, "type": 1, "reading": 1e39)", "/reading",
                        "in the range of single precision");
    expect_sensor_error(R"("class": 2, "type": 1, "reading": "gone")", "/reading",
                        "one of \"asserted\", \"deasserted\", \"present\", \"absent\" or a number");
    expect_sensor_error(R"("class": 3, "type": 1, "reading": "present")", "/reading", "a number");
    expect_sensor_error(good_sensor + R"(, "raw_reading": 256)", "/raw_reading",
                        "an integer 0 to 255");
    expect_sensor_error(good_sensor + R"(, "raw_reading": 1.5)", "/raw_reading",
                        "an integer 0 to 255");
    expect_sensor_error(good_sensor + R"(, "valid": "maybe")", "/valid", "\"true\"");
    expect_sensor_error(good_sensor + R"(, "valid": "true")", "/valid", "found \"true\"");
    expect_sensor_error(good_sensor + R"(, "state": "broken")", "/state", "\"failed\"");
    expect_sensor_error(good_sensor + R"(, "ok_semantics": 1)", "/ok_semantics", "true or false");
    expect_sensor_error(good_sensor + R"(, "thresholds": {"lower_fatal": "1"})",
                        "/thresholds/lower_fatal", "a number");
    expect_sensor_error(good_sensor + R"(, "thresholds": {"lower_fatal": 1e39})",
                        "/thresholds/lower_fatal", "in the range of single precision");
    expect_sensor_error(good_sensor + R"(, "thresholds": [])", "/thresholds", "an object of");
    expect_sensor_error(good_sensor + R"(, "record_name": ")" + std::string(64, 'x') + '"',
                        "/record_name", "at most 63 bytes, found 64");
}

TEST_F(loader, sensors_of_one_record_name_must_mean_the_same)
{
    const std::string two =
        R"({"name": "/SYS/A", "type": 18, "sensor":
             {"class": 2, "type": 0, "reading": 1, "record_name": "R", "ok_semantics": true}},
           {"name": "/SYS/B", "type": 18, "sensor":
             {"class": 2, "type": 0, "reading": 1, "record_name": "R", "ok_semantics": )";
    expect_error(described(two + "false}}"), "/components/2/sensor",
                 "expected the same ok_semantics as /components/1");
    EXPECT_NE(nullptr, load_text(described(two + "true}}")).loaded);
}

TEST_F(loader, all_errors_are_told_and_not_only_the_first)
{
    const load_result result = load_text(described(R"({"name": "/SYS/A", "type": "x", "power": "y"},
                     {"name": "/SYS/A", "type": 9, "colour": 1},
                     {"name": "/SYS/Q/R", "type": 9})",
                                                   R"(, "product": {"model": 5})"));
    std::set<std::string> places;
    for (const load_error &each : result.errors) {
        places.insert(each.pointer);
    }
    EXPECT_EQ(
        (std::set<std::string>{"/product/model", "/components/1/type", "/components/1/power",
                               "/components/2/colour", "/components/2/name", "/components/3/name"}),
        places)
        << all_of(result);
    EXPECT_EQ(places.size(), result.errors.size()) << all_of(result);
}

TEST_F(loader, an_editor_is_told_the_schema_by_any_text)
{
    const std::string root = R"("components": [{"name": "/SYS", "type": 3}]})";
    for (const std::string &given :
         {std::string(), std::string("no path"), std::string(9999, 'x')}) {
        EXPECT_NE(nullptr, load_text(R"({"$schema": ")" + given + "\", " + root).loaded) << given;
    }
    expect_error(R"({"$schema": 5, )" + root, "/$schema", "expected a text, found 5");
}

TEST_F(loader, a_relative_file_lies_beside_a_link_and_not_beside_its_target)
{
    const std::filesystem::path real = directory / "elsewhere" / "real.json";
    std::filesystem::create_directory(real.parent_path());
    write_file(real, described(R"({"name": "/SYS/X", "type": 9, "power": {"file": "power"}})"));
    std::filesystem::create_symlink(real, path);
    const load_result result = load_description(path);
    ASSERT_NE(nullptr, result.loaded) << all_of(result);
    EXPECT_EQ(directory / "power", result.loaded->components[1].power->file);
}

TEST_F(loader, components_come_depth_first_in_file_order_whatever_the_file_order)
{
    const load_result result = load_text(described(
        R"({"name": "/SYS/B/Y", "type": 9}, {"name": "/SYS/A/X", "type": 9},
           {"name": "/SYS/B", "type": 9}, {"name": "/SYS/A", "type": 9},
           {"name": "/SYS/B/X", "type": 9}, {"name": "/SYS/A/X/Z", "type": 9})"));
    ASSERT_NE(nullptr, result.loaded) << all_of(result);
    std::vector<std::string> names;
    std::vector<size_t> ends;
    for (const component &each : result.loaded->components) {
        names.push_back(each.name);
        ends.push_back(each.subtree_end);
    }
    EXPECT_EQ((std::vector<std::string>{"/SYS", "/SYS/B", "/SYS/B/Y", "/SYS/B/X", "/SYS/A",
                                        "/SYS/A/X", "/SYS/A/X/Z"}),
              names);
    EXPECT_EQ((std::vector<size_t>{7, 4, 3, 4, 7, 7, 7}), ends);
}

TEST_F(loader, a_long_chain_of_containers_needs_no_stack)
{
    std::string components;
    std::string name = "/SYS";
    while (name.size() + 2 <= 255) {
        name += "/A";
        components +=
            (components.empty() ? "" : ",") + (R"({"name": ")" + name + R"(", "type": 9})");
    }
    const load_result result = load_text(described(components));
    ASSERT_NE(nullptr, result.loaded) << all_of(result);
    EXPECT_EQ(name, result.loaded->components.back().name);
}

} // namespace

#include "described/format/codes.h"
#include "described/format/component_types.h"
#include "schema_check.h"
#include "written_files.h"

#include <algorithm>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <sstream>

using namespace described_platform;
using nlohmann::json;

namespace
{

using descriptions = std::map<std::string, std::string>;

/* Each name that a value may be and what an editor says of it. */
descriptions names_in(const json &node)
{
    descriptions result;
    for (const json &each : node.at("anyOf")) {
        if (each.contains("const")) {
            EXPECT_TRUE(result.emplace(each.at("const"), each.at("description")).second) << each;
        }
    }
    return result;
}

/* The names of the table, each described with its code in front. */
testing::AssertionResult are_the_names(const json &node, code_table table)
{
    descriptions given = names_in(node);
    for (const named_code &each : table) {
        if (each.name == "true" || each.name == "false") {
            continue; /* truth values in JSON, names only in a bound file */
        }
        std::ostringstream code;
        code << each.value << ": ";
        const auto found = given.find(std::string(each.name));
        if (found == given.end()) {
            return testing::AssertionFailure() << each.name << " is missing";
        }
        if (!found->second.starts_with(code.str()) || found->second.size() == code.str().size()) {
            return testing::AssertionFailure() << each.name << " is described as " << found->second;
        }
        given.erase(found);
    }
    if (!given.empty()) {
        return testing::AssertionFailure() << given.begin()->first << " is no such name";
    }
    return testing::AssertionSuccess();
}

/* Calls visit for the schema and every schema in it. */
void walk_schemas(const json &node, const std::string &where,
                  const std::function<void(const json &, const std::string &)> &visit)
{
    visit(node, where);
    for (const char *const group : {"properties", "definitions"}) {
        if (node.contains(group)) {
            for (const auto &[name, below] : node.at(group).items()) {
                walk_schemas(below, where + '/' + group + '/' + name, visit);
            }
        }
    }
    if (node.contains("items")) {
        walk_schemas(node.at("items"), where + "/items", visit);
    }
    if (node.contains("anyOf")) {
        for (const json &each : node.at("anyOf")) {
            walk_schemas(each, where + "/anyOf", visit);
        }
    }
}

bool may_be_object(const json &node)
{
    if (!node.contains("type")) {
        return false;
    }
    const json &type = node.at("type");
    return type == "object" ||
           (type.is_array() && std::ranges::find(type, json("object")) != type.end());
}

json small_server()
{
    return json::parse(written::text_of("servers/minimal.json"));
}

struct mistake {
    const char *name;
    std::function<void(json &)> make;
    const char *pointer; /* where the schema must see it */
};

const char *const no_mistake = nullptr;

json &part(json &document, size_t index)
{
    return document["components"][index];
}

const mistake mistakes[] = {
    {"nothing", [](json &) {}, no_mistake},
    {"not_an_object", [](json &d) { d = json::array(); }, ""},
    {"unknown_key", [](json &d) { d["colour"] = 1; }, ""},
    {"no_components", [](json &d) { d.erase("components"); }, ""},
    {"empty_components", [](json &d) { d["components"] = json::array(); }, "/components"},
    {"long_vantor_id", [](json &d) { d["product"]["vantor_id"] = std::string(51, 'v'); },
     "/product/vantor_id"},
    {"vantor_id_that_fits", [](json &d) { d["product"]["vantor_id"] = std::string(50, 'v'); },
     no_mistake},
    {"long_model", [](json &d) { d["product"]["model"] = std::string(80, 'm'); }, "/product/model"},
    {"unknown_chassis_key", [](json &d) { d["chassis"]["alias"] = "x"; }, "/chassis"},
    {"no_name", [](json &d) { part(d, 1).erase("name"); }, "/components/1"},
    {"no_type", [](json &d) { part(d, 1).erase("type"); }, "/components/1"},
    {"name_without_slash", [](json &d) { part(d, 0)["name"] = "SYS"; }, "/components/0/name"},
    {"name_with_empty_part", [](json &d) { part(d, 1)["name"] = "/SYS//MB"; },
     "/components/1/name"},
    {"name_with_slash_at_end", [](json &d) { part(d, 1)["name"] = "/SYS/MB/"; },
     "/components/1/name"},
    {"name_of_slash", [](json &d) { part(d, 0)["name"] = "/"; }, "/components/0/name"},
    {"long_name", [](json &d) { part(d, 1)["name"] = "/" + std::string(255, 'x'); },
     "/components/1/name"},
    {"name_that_fits", [](json &d) { part(d, 1)["name"] = "/" + std::string(254, 'x'); },
     no_mistake},
    {"negative_type", [](json &d) { part(d, 1)["type"] = -1; }, "/components/1/type"},
    {"type_beyond_32_bits", [](json &d) { part(d, 1)["type"] = 4294967296; }, "/components/1/type"},
    {"highest_type", [](json &d) { part(d, 1)["type"] = 4294967295; }, no_mistake},
    {"unknown_type_name", [](json &d) { part(d, 1)["type"] = "motherboard"; },
     "/components/1/type"},
    {"control_character_in_name", [](json &d) { part(d, 1)["name"] = "/SYS/M\tB"; },
     "/components/1/name"},
    {"fractional_type", [](json &d) { part(d, 1)["type"] = 9.5; }, "/components/1/type"},
    {"unknown_capability",
     [](json &d) {
         part(d, 1)["capabilities"] = {"stateful", "edible"};
     },
     "/components/1/capabilities/1"},
    {"capability_twice",
     [](json &d) {
         part(d, 1)["capabilities"] = {"stateful", "stateful"};
     },
     "/components/1/capabilities"},
    {"nine_capability_bytes",
     [](json &d) {
         part(d, 1)["capability_bytes"] = json::array({0, 0, 0, 0, 0, 0, 0, 0, 0});
     },
     "/components/1/capability_bytes"},
    {"capability_byte_of_256",
     [](json &d) {
         part(d, 1)["capability_bytes"] = json::array({0, 0, 0, 0, 0, 0, 0, 0, 0, 256});
     },
     "/components/1/capability_bytes/9"},
    {"unknown_power_name", [](json &d) { part(d, 1)["power"] = "onn"; }, "/components/1/power"},
    {"fractional_power", [](json &d) { part(d, 1)["power"] = 1.5; }, "/components/1/power"},
    {"true_power", [](json &d) { part(d, 1)["power"] = true; }, "/components/1/power"},
    {"power_code", [](json &d) { part(d, 1)["power"] = 17; }, no_mistake},
    {"bound_power",
     [](json &d) {
         part(d, 1)["power"] = {{"file", "a"}, {"scale", 0.5}, {"offset", -1}};
     },
     no_mistake},
    {"binding_without_file",
     [](json &d) {
         part(d, 1)["power"] = {{"scale", 2}};
     },
     "/components/1/power"},
    {"binding_with_unknown_key",
     [](json &d) {
         part(d, 1)["power"] = {{"file", "a"}, {"factor", 2}};
     },
     "/components/1/power"},
    {"binding_to_nameless_file",
     [](json &d) {
         part(d, 1)["power"] = {{"file", ""}};
     },
     "/components/1/power/file"},
    {"scale_in_words",
     [](json &d) {
         part(d, 1)["power"] = {{"file", "a"}, {"scale", "milli"}};
     },
     "/components/1/power/scale"},
    {"true_ready_to_remove", [](json &d) { part(d, 1)["ready_to_remove"] = true; }, no_mistake},
    {"interface", [](json &d) { part(d, 1)["interface"] = "eth0.100"; }, no_mistake},
    {"nameless_interface", [](json &d) { part(d, 1)["interface"] = ""; },
     "/components/1/interface"},
    {"interface_of_two_words", [](json &d) { part(d, 1)["interface"] = "eth 0"; },
     "/components/1/interface"},
    {"interface_named_as_a_directory", [](json &d) { part(d, 1)["interface"] = ".."; },
     "/components/1/interface"},
    {"long_interface", [](json &d) { part(d, 1)["interface"] = "sixteen-letters-"; },
     "/components/1/interface"},
    {"unknown_enable_name", [](json &d) { part(d, 1)["enable"] = "yes"; }, "/components/1/enable"},
    {"sensor_without_reading", [](json &d) { part(d, 2)["sensor"].erase("reading"); },
     "/components/2/sensor"},
    {"threshold_sensor_asserted", [](json &d) { part(d, 2)["sensor"]["reading"] = "asserted"; },
     "/components/2/sensor/reading"},
    {"discrete_sensor_asserted",
     [](json &d) {
         part(d, 2)["sensor"]["class"] = "discrete";
         part(d, 2)["sensor"]["reading"] = "asserted";
     },
     no_mistake},
    {"reading_of_no_class_asserted",
     [](json &d) {
         part(d, 2)["sensor"]["class"] = 3;
         part(d, 2)["sensor"]["reading"] = "asserted";
     },
     "/components/2/sensor/reading"},
    {"alternating_current", [](json &d) { part(d, 2)["sensor"]["current"] = "alternating"; },
     no_mistake},
    {"unknown_current", [](json &d) { part(d, 2)["sensor"]["current"] = "pulsed"; },
     "/components/2/sensor/current"},
    {"unknown_units", [](json &d) { part(d, 2)["sensor"]["units"] = "furlongs"; },
     "/components/2/sensor/units"},
    {"unknown_threshold", [](json &d) { part(d, 2)["sensor"]["thresholds"]["upper"] = 3; },
     "/components/2/sensor/thresholds"},
    {"bound_threshold",
     [](json &d) {
         part(d, 2)["sensor"]["thresholds"]["upper_fatal"] = {{"file", "a"}};
     },
     "/components/2/sensor/thresholds/upper_fatal"},
    {"raw_reading_of_256", [](json &d) { part(d, 2)["sensor"]["raw_reading"] = 256; },
     "/components/2/sensor/raw_reading"},
    {"unknown_indicator_state", [](json &d) { part(d, 3)["indicator"]["state"] = "blink"; },
     "/components/3/indicator/state"},
    {"unknown_meaning", [](json &d) { part(d, 3)["indicator"]["means"] = "locate"; },
     "/components/3/indicator/means"},
    {"meaning_by_its_number", [](json &d) { part(d, 3)["indicator"]["means"] = 1; },
     "/components/3/indicator/means"},
    {"unrecognised_indicator_code", [](json &d) { part(d, 3)["indicator"]["state"] = 9; },
     no_mistake},
};

class SchemaMistakes : public testing::TestWithParam<mistake>
{
};

void PrintTo(const mistake &given, std::ostream *out)
{
    *out << given.name;
}

} // namespace

TEST_P(SchemaMistakes, IsSeenAtItsPlace)
{
    json document = small_server();
    GetParam().make(document);
    const auto errors = check_schema(document);
    if (GetParam().pointer == no_mistake) {
        EXPECT_TRUE(errors.empty()) << errors.front().pointer << ": " << errors.front().message;
        return;
    }
    EXPECT_TRUE(std::ranges::any_of(
        errors, [](const load_error &each) { return each.pointer == GetParam().pointer; }))
        << errors.size() << " errors, the first at "
        << (errors.empty() ? "nowhere" : errors.front().pointer);
}

INSTANTIATE_TEST_SUITE_P(All, SchemaMistakes, testing::ValuesIn(mistakes),
                         [](const auto &one) { return std::string(one.param.name); });

TEST(Schema, NamesEveryCodeAndNoOther)
{
    const json schema = written::schema();
    const json &definitions = schema.at("definitions");
    const json &sensor = definitions.at("sensor").at("properties");
    EXPECT_TRUE(are_the_names(definitions.at("power"), power_codes));
    EXPECT_TRUE(are_the_names(definitions.at("ready_to_remove"), ready_codes));
    EXPECT_TRUE(are_the_names(definitions.at("enable"), enable_codes));
    EXPECT_TRUE(
        are_the_names(definitions.at("indicator").at("properties").at("state"), indicator_codes));
    EXPECT_TRUE(
        are_the_names(definitions.at("indicator").at("properties").at("means"), meaning_codes));
    EXPECT_TRUE(are_the_names(sensor.at("class"), sensor_class_codes));
    EXPECT_TRUE(are_the_names(sensor.at("type"), sensor_type_codes));
    EXPECT_TRUE(are_the_names(sensor.at("units"), sensor_units_codes));
    EXPECT_TRUE(are_the_names(definitions.at("reading"), discrete_codes));
    EXPECT_TRUE(are_the_names(definitions.at("sensor_state"), state_codes));
}

TEST(Schema, NamesEveryCapabilityAndNoOther)
{
    std::set<std::string> expected;
    for (const named_capability &each : capability_names) {
        expected.emplace(each.name);
    }
    std::set<std::string> given;
    for (const auto &[name, description] :
         names_in(written::schema().at("definitions").at("capability"))) {
        given.insert(name);
        EXPECT_GE(description.size(), 10U) << name;
    }
    EXPECT_EQ(given, expected);
}

TEST(Schema, NamesTheTypesOfTheCatalogueAsItDoes)
{
    descriptions expected;
    for (const component_type &each : component_types()) {
        std::string &text = expected[each.name];
        text = std::string(each.text) + ": number " + std::to_string(each.number);
        if (each.kind == component_kind::sensor) {
            text += ", a sensor";
        } else if (each.kind == component_kind::indicator) {
            text += ", an indicator";
        }
    }
    EXPECT_EQ(
        names_in(written::schema().at("definitions").at("component").at("properties").at("type")),
        expected);
}

TEST(Schema, DescribesEveryKey)
{
    size_t seen = 0;
    walk_schemas(written::schema(), "", [&](const json &node, const std::string &where) {
        ++seen;
        if (!node.contains("$ref")) {
            EXPECT_TRUE(node.contains("description")) << where;
            return;
        }
        const std::string reference = node.at("$ref");
        ASSERT_TRUE(reference.starts_with("#/")) << where;
        const json schema = written::schema();
        const json::json_pointer target(reference.substr(1));
        ASSERT_TRUE(schema.contains(target)) << reference;
        EXPECT_TRUE(schema.at(target).contains("description")) << reference;
    });
    EXPECT_GE(seen, 60U);
}

TEST(Schema, LetsNoUnknownKeyPass)
{
    size_t seen = 0;
    walk_schemas(written::schema(), "", [&](const json &node, const std::string &where) {
        if (may_be_object(node)) {
            ++seen;
            EXPECT_TRUE(node.contains("additionalProperties") &&
                        node.at("additionalProperties") == false)
                << where;
        }
    });
    EXPECT_GE(seen, 9U);
}

/* The validator's regular expressions recurse for every character of a text. */
TEST(Schema, LongTextsAreNoDanger)
{
    json document = small_server();
    part(document, 0)["name"] = "/" + std::string(1U << 20, 'x');
    part(document, 1)["power"] = std::string(1U << 20, 'o');
    EXPECT_FALSE(check_schema(document).empty());
}

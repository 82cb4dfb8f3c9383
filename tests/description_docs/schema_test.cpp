#include "described/format/codes.h"
#include "schema_check.h"
#include "written_files.h"

#include <algorithm>
#include <functional>
#include <gtest/gtest.h>
#include <set>

using namespace described_platform;
using nlohmann::json;

namespace
{

std::set<std::string> names_of(code_table table)
{
    std::set<std::string> result;
    for (const named_code &each : table) {
        result.emplace(each.name);
    }
    return result;
}

/* The names of a pattern of the form ^(one|two|three)$. */
std::set<std::string> alternatives(const json &node)
{
    const std::string pattern = node.at("pattern");
    std::set<std::string> result;
    if (!pattern.starts_with("^(") || !pattern.ends_with(")$")) {
        ADD_FAILURE() << pattern << " is not a list of names";
        return result;
    }
    size_t begin = 2;
    for (size_t end = begin; end < pattern.size() - 1; ++end) {
        if (pattern[end] == '|' || pattern[end] == ')') {
            result.insert(pattern.substr(begin, end - begin));
            begin = end + 1;
        }
    }
    return result;
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

    /* true and false are truth values in JSON, names only in a bound file. */
    std::set<std::string> ready = names_of(ready_codes);
    ready.erase("true");
    ready.erase("false");

    EXPECT_EQ(alternatives(definitions.at("power")), names_of(power_codes));
    EXPECT_EQ(alternatives(definitions.at("ready_to_remove")), ready);
    EXPECT_EQ(alternatives(definitions.at("enable")), names_of(enable_codes));
    EXPECT_EQ(alternatives(definitions.at("indicator").at("properties").at("state")),
              names_of(indicator_codes));
    EXPECT_EQ(alternatives(sensor.at("class")), names_of(sensor_class_codes));
    EXPECT_EQ(alternatives(sensor.at("type")), names_of(sensor_type_codes));
    EXPECT_EQ(alternatives(sensor.at("units")), names_of(sensor_units_codes));
    EXPECT_EQ(alternatives(definitions.at("reading")), names_of(discrete_codes));
    EXPECT_EQ(alternatives(definitions.at("sensor_state")), names_of(state_codes));

    std::set<std::string> capabilities;
    for (const named_capability &each : capability_names) {
        capabilities.emplace(each.name);
    }
    EXPECT_EQ(definitions.at("capability").at("enum").get<std::set<std::string>>(), capabilities);
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
    EXPECT_GE(seen, 10U);
}

/* The validator's regular expressions recurse for every character of a text. */
TEST(Schema, LongTextsAreNoDanger)
{
    json document = small_server();
    part(document, 0)["name"] = "/" + std::string(1U << 20, 'x');
    part(document, 1)["power"] = std::string(1U << 20, 'o');
    EXPECT_FALSE(check_schema(document).empty());
}

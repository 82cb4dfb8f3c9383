/* What a change of each key brings: the schema's keys, the reference's table and the events. */
#include "described/format/loader.h"
#include "described/watch/differ.h"
#include "platform/event_mgr.h"
#include "written_files.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <sstream>
#include <unistd.h>

using namespace described_platform;
using nlohmann::json;

namespace
{

/* Every key of a description, each with a value. */
const json everything = json::parse(R"({
  "$schema": "here",
  "product": {"model": "m", "serial": "s", "description": "d", "vantor_id": "v"},
  "chassis": {"model": "m", "serial": "s", "description": "d", "manufacturer": "f",
              "vantor_id": "v"},
  "components": [
    {"name": "/SYS", "type": "system"},
    {"name": "/SYS/A", "type": "disk", "capabilities": ["holder"],
     "capability_bytes": [0, 0, 0, 0, 0, 0, 0, 0, 1, 0],
     "fru": {"model": "m", "manufacturer": "f", "serial": "s", "alias": "a",
             "software_revision": "r"},
     "interface": "e", "power": 1, "ready_to_remove": 1, "enable": 1},
    {"name": "/SYS/L", "type": "led", "indicator": {"state": 1, "means": "fault"}},
    {"name": "/SYS/T", "type": "temperature-sensor",
     "sensor": {"class": 1, "type": 1, "units": 1, "current": "alternating", "reading": 1,
                "raw_reading": 1, "valid": 1, "state": 1, "record_name": "T",
                "thresholds": {"upper_fatal": 1, "upper_critical": 1, "upper_non_critical": 1,
                               "lower_non_critical": 1, "lower_critical": 1, "lower_fatal": 1}}},
    {"name": "/SYS/U", "type": "fault-sensor",
     "sensor": {"class": 2, "type": 1, "reading": 1, "ok_semantics": true}}
  ]
})");

/* Where one more letter, or number, would not do. */
const std::map<std::string, json> other_values = {
    {"type", "serial-port"},
    {"sensor.current", "direct"},
    {"indicator.means", "service"},
    {"capabilities", json::array({"stateful"})},
    {"capability_bytes", json::array({0, 0, 0, 0, 0, 0, 0, 0, 0, 1})},
};

/* "/components/3/sensor/reading" is the key "sensor.reading". */
std::string key_of(const json::json_pointer &where)
{
    std::vector<std::string> parts;
    for (json::json_pointer at = where; !at.empty(); at.pop_back()) {
        parts.insert(parts.begin(), at.back());
    }
    std::string key;
    for (size_t i = parts[0] == "components" ? 2 : 0; i < parts.size(); ++i) {
        key += (key.empty() ? "" : ".") + parts[i];
    }
    return key;
}

bool is_value(const json &value)
{
    return !value.is_object() && (!value.is_array() || value[0].is_primitive());
}

void collect_values(const json &value, const json::json_pointer &where,
                    std::vector<json::json_pointer> &found)
{
    if (is_value(value)) {
        found.push_back(where);
        return;
    }
    for (size_t i = 0; value.is_array() && i < value.size(); ++i) {
        collect_values(value[i], where / i, found);
    }
    for (auto each = value.begin(); value.is_object() && each != value.end(); ++each) {
        collect_values(each.value(), where / each.key(), found);
    }
}

/* Keys of the schema that hold a value; what a binding is made of belongs to its key. */
void collect_schema_keys(const json &schema, const json &node, const std::string &above,
                         std::set<std::string> &values, std::set<std::string> &required)
{
    const json &rule =
        node.contains("$ref")
            ? schema.at(json::json_pointer(node["$ref"].get<std::string>().substr(1)))
            : node;
    if (rule.contains("items") && rule["items"].contains("$ref") && above == "components") {
        collect_schema_keys(schema, rule["items"], "", values, required);
        return;
    }
    if (!rule.contains("properties") || rule["properties"].contains("file")) {
        values.insert(above);
        return;
    }
    for (const auto &[key, below] : rule["properties"].items()) {
        const std::string path = (above.empty() ? "" : above + ".") + key;
        const json names = rule.value("required", json::array());
        if (std::find(names.begin(), names.end(), key) != names.end()) {
            required.insert(path);
        }
        collect_schema_keys(schema, below, path, values, required);
    }
}

struct documented {
    std::string changed;
    std::string gained_or_lost;
};

/* The row of a key in the reference's table; "fru.*" stands for all below "fru". */
std::vector<documented> rows_of(const std::string &key)
{
    std::vector<documented> result;
    std::istringstream lines(written::reference());
    bool inside = false;
    for (std::string line; std::getline(lines, line);) {
        inside = line == "| Key | Another value | Gained or lost |" || (inside && !line.empty());
        std::istringstream cells(line);
        std::string keys;
        documented row;
        if (!inside || !std::getline(cells >> std::ws, keys, '|') ||
            !std::getline(cells, keys, '|') || !std::getline(cells, row.changed, '|') ||
            !std::getline(cells, row.gained_or_lost, '|')) {
            continue;
        }
        for (std::string *each : {&row.changed, &row.gained_or_lost}) {
            std::erase(*each, ' ');
        }
        const size_t dot = key.rfind('.');
        const std::string all_beside = dot == std::string::npos ? key : key.substr(0, dot) + ".*";
        if (keys.find('`' + key + '`') != std::string::npos ||
            keys.find('`' + all_beside + '`') != std::string::npos) {
            result.push_back(row);
        }
    }
    return result;
}

class changes : public testing::Test
{
  protected:
    changes()
    {
        if (::mkdtemp(directory.data()) == nullptr) {
            throw std::runtime_error("no temporary directory");
        }
    }
    ~changes() override { std::filesystem::remove_all(directory); }

    std::unique_ptr<const description> load(const json &document) const
    {
        const std::string path = directory + "/server.json";
        std::ofstream(path) << document;
        load_result result = load_description(path);
        for (const load_error &error : result.errors) {
            ADD_FAILURE() << to_text(path, error);
        }
        return std::move(result.loaded);
    }

    /* In the reference's words. */
    std::string between(const json &before, const json &after) const
    {
        const auto old = load(before);
        const auto now = load(after);
        if (old == nullptr || now == nullptr) {
            return "error";
        }
        std::vector<int> events;
        for (const event &each : differences(old.get(), *now)) {
            events.push_back(each.event_class * 100 + each.event);
        }
        if (events.empty()) {
            const auto compared_live = [&] {
                for (size_t i = 0; i < old->components.size(); ++i) {
                    if (compare(old->components[i], now->components[i]) == difference::live) {
                        return true;
                    }
                }
                return false;
            };
            return compared_live() ? "live" : "nothing";
        }
        constexpr int removed = EVENT_MGR_CLASS_HARDWARE * 100 + EVENT_MGR_HOT_REMOVE;
        constexpr int inserted = EVENT_MGR_CLASS_HARDWARE * 100 + EVENT_MGR_HOT_INSERT;
        constexpr int updated = EVENT_MGR_CLASS_HARDWARE * 100 + EVENT_MGR_UPDATE_INVENTORY;
        constexpr int refreshed = EVENT_MGR_CLASS_INTERNAL * 100 + EVENT_MGR_REFRESH_SENSOR;
        return events == std::vector{removed, inserted} ? "identity"
               : events == std::vector{refreshed}       ? "refresh"
               : events == std::vector{updated}         ? "update"
                                                        : "other events";
    }

    std::string directory =
        (std::filesystem::temp_directory_path() / "kavplat-changes-XXXXXX").string();
};

json other_value(const std::string &key, const json &value)
{
    if (const auto given = other_values.find(key); given != other_values.end()) {
        return given->second;
    }
    if (value.is_boolean()) {
        return !value.get<bool>();
    }
    if (value.is_string()) {
        return value.get<std::string>() + "x";
    }
    return value.get<int>() + 1;
}

TEST_F(changes, of_every_key_bring_what_the_reference_says)
{
    std::set<std::string> known;
    std::set<std::string> required;
    const json schema = written::schema();
    collect_schema_keys(schema, schema, "", known, required);
    EXPECT_GE(known.size(), 39U);

    std::vector<json::json_pointer> values;
    collect_values(everything, json::json_pointer(), values);
    std::set<std::string> tried;
    for (const json::json_pointer &where : values) {
        const std::string key = key_of(where);
        if (where.to_string() == "/components/0/name" ||
            where.to_string() == "/components/0/type") {
            continue; /* of the root; that of another component is tried below */
        }
        SCOPED_TRACE(key);
        tried.insert(key);
        const std::vector<documented> rows = rows_of(key);
        ASSERT_EQ(1U, rows.size()) << "rows in the table";

        json other = everything;
        other[where] = other_value(key, everything[where]);
        if (key == "type" && where.to_string() != "/components/1/type") {
            continue; /* a sensor's type allows no other kind */
        }
        EXPECT_EQ(rows[0].changed, between(everything, other));
        EXPECT_EQ(rows[0].changed, between(other, everything));
        if (rows[0].changed == "live" && key != "sensor.record_name") {
            json bound = everything;
            bound[where] = {{"file", "a"}};
            EXPECT_EQ("live", between(everything, bound));
            for (const json &binding : {json{{"file", "b"}}, json{{"file", "a"}, {"scale", 2}},
                                        json{{"file", "a"}, {"offset", 2}}}) {
                json another = bound;
                another[where] = binding;
                EXPECT_EQ("live", between(bound, another)) << binding;
            }
        }
        EXPECT_EQ(required.contains(key), rows[0].gained_or_lost.empty());
        if (!required.contains(key)) {
            json without = everything;
            without[where.parent_pointer()].erase(where.back());
            EXPECT_EQ(rows[0].gained_or_lost, between(everything, without));
            EXPECT_EQ(rows[0].gained_or_lost, between(without, everything));
        }
    }
    EXPECT_EQ(known, tried);
}

TEST_F(changes, of_a_state_that_ok_semantics_would_leave_behind_are_changes_of_identity)
{
    json with = everything;
    with["components"][3]["sensor"]["ok_semantics"] = true;
    json without = with;
    without["components"][3]["sensor"].erase("state");
    EXPECT_EQ("identity", between(with, without));
    EXPECT_EQ("refresh", between(without, with)) << "a state says what it expects";
}

} // namespace

#include "described/format/loader.h"

#include "described/format/component_types.h"
#include "described/format/schema_check.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <initializer_list>
#include <set>

namespace described_platform
{
namespace
{

using nlohmann::json;

constexpr size_t longest_name = 255;
constexpr size_t longest_identity = 79;
constexpr size_t longest_vantor_id = 50;
constexpr size_t longest_record_name = 63;
constexpr size_t longest_file_name = 4095;

struct value_range {
    double low;
    double high;
    bool whole;
};
constexpr value_range any_code{INT32_MIN, INT32_MAX, true};
constexpr value_range any_byte{0, UINT8_MAX, true};
constexpr value_range any_reading{-static_cast<double>(FLT_MAX), static_cast<double>(FLT_MAX),
                                  false};

struct reader {
    std::string directory; /* with its '/' at the end */
    std::vector<load_error> errors;
};

place below(const place &above, std::string_view key)
{
    return {&above, key, 0};
}

place below(const place &above, size_t index)
{
    return {&above, {}, index};
}

std::string shown(const json &value)
{
    constexpr size_t enough = 40;
    if (value.is_object()) {
        return "an object";
    }
    if (value.is_array()) {
        return "an array";
    }
    std::string text = value.dump(-1, ' ', true, json::error_handler_t::replace);
    if (text.size() > enough) {
        text = text.substr(0, enough) + "...";
    }
    return text;
}

void complain(reader &in, const place &where, std::string message)
{
    in.errors.push_back({to_pointer(&where), std::move(message), 0, 0});
}

void complain(reader &in, const place &where, const std::string &expected, const json &found)
{
    complain(in, where, "expected " + expected + ", found " + shown(found));
}

std::string listed(code_table names)
{
    std::string result;
    for (const named_code &each : names) {
        result += (result.empty() ? "\"" : ", \"") + std::string(each.name) + '"';
    }
    return result;
}

const json *member(const json &object, const char *key)
{
    const auto found = object.find(key);
    return found == object.end() ? nullptr : &*found;
}

bool is_object_of(reader &in, const json &value, const place &where,
                  std::initializer_list<std::string_view> keys)
{
    std::string expected;
    for (const std::string_view key : keys) {
        expected += (expected.empty() ? "" : ", ") + std::string(key);
    }
    if (!value.is_object()) {
        complain(in, where, "an object of " + expected, value);
        return false;
    }
    for (const auto &[key, unused] : value.items()) {
        if (std::ranges::find(keys, key) == keys.end()) {
            complain(in, below(where, key), "expected no such key here, only " + expected);
        }
    }
    return true;
}

bool is_given(reader &in, const json &object, const place &where, const char *key,
              const std::string &expected)
{
    if (member(object, key) != nullptr) {
        return true;
    }
    complain(in, where, std::string("expected the key \"") + key + "\": " + expected);
    return false;
}

/* False and untouched when the key is missing or wrong. */
bool read_text(reader &in, const json &object, const place &where, const char *key, size_t longest,
               std::string &result)
{
    const json *value = member(object, key);
    if (value == nullptr) {
        return false;
    }
    const place here = below(where, key);
    const std::string expected = "a text of at most " + std::to_string(longest) + " bytes";
    if (!value->is_string()) {
        complain(in, here, expected, *value);
        return false;
    }
    const auto &text = value->get_ref<const std::string &>();
    if (text.size() > longest) {
        complain(in, here, "expected " + expected + ", found " + std::to_string(text.size()));
        return false;
    }
    result = text;
    return true;
}

bool read_boolean(reader &in, const json &object, const place &where, const char *key, bool &result)
{
    const json *value = member(object, key);
    if (value == nullptr) {
        return false;
    }
    if (!value->is_boolean()) {
        complain(in, below(where, key), "true or false", *value);
        return false;
    }
    result = value->get<bool>();
    return true;
}

bool read_number(reader &in, const json &object, const place &where, const char *key,
                 value_range range, double &result)
{
    const json *value = member(object, key);
    if (value == nullptr) {
        return false;
    }
    const double number = value->is_number() ? value->get<double>() : NAN;
    if (!(number >= range.low && number <= range.high)) {
        complain(in, below(where, key), "a number in the range of single precision", *value);
        return false;
    }
    result = number;
    return true;
}

std::string range_text(value_range range)
{
    if (!range.whole) {
        return "a number in the range of single precision";
    }
    return "an integer " + std::to_string(static_cast<int64_t>(range.low)) + " to " +
           std::to_string(static_cast<int64_t>(range.high));
}

/* A number or a name; expected is what to say when it is neither. */
bool constant_of(const json &value, code_table names, value_range range, double &result)
{
    if (value.is_number()) {
        if (range.whole && !value.is_number_integer()) {
            return false;
        }
        /* Exact for all integers that fit the range; larger ones only have to
         * stay outside it. */
        result = value.get<double>();
        return result >= range.low && result <= range.high;
    }
    std::string name;
    if (value.is_string()) {
        name = value.get_ref<const std::string &>();
    } else if (value.is_boolean()) {
        name = value.get<bool>() ? "true" : "false";
    }
    const auto found = std::ranges::find(names, name, &named_code::name);
    if (found == names.end()) {
        return false;
    }
    result = found->value;
    return true;
}

bool read_code(reader &in, const json &object, const place &where, const char *key,
               code_table names, int32_t &result)
{
    const json *value = member(object, key);
    if (value == nullptr) {
        return false;
    }
    double code = 0;
    if (value->is_boolean() || !constant_of(*value, names, any_code, code)) {
        complain(in, below(where, key), "one of " + listed(names) + " or " + range_text(any_code),
                 *value);
        return false;
    }
    result = static_cast<int32_t>(code);
    return true;
}

bool read_live(reader &in, const json &object, const place &where, const char *key,
               code_table names, value_range range, live_value &result)
{
    const json *value = member(object, key);
    if (value == nullptr) {
        return false;
    }
    const place here = below(where, key);
    result.names = names;
    result.low = range.low;
    result.high = range.high;
    result.whole = range.whole;
    if (!value->is_object()) {
        if (constant_of(*value, names, range, result.constant)) {
            return true;
        }
        complain(in, here,
                 (names.empty() ? "" : "one of " + listed(names) + " or ") + range_text(range) +
                     " or a binding {\"file\": ...}",
                 *value);
        return false;
    }
    if (!is_object_of(in, *value, here, {"file", "scale", "offset"}) ||
        !is_given(in, *value, here, "file", "the path of the file to read")) {
        return false;
    }
    read_number(in, *value, here, "scale", any_reading, result.scale);
    read_number(in, *value, here, "offset", any_reading, result.offset);
    std::string file;
    if (!read_text(in, *value, here, "file", longest_file_name, file)) {
        return false;
    }
    if (file.empty()) {
        complain(in, below(here, "file"), "expected the path of a file, found \"\"");
        return false;
    }
    result.file = file.front() == '/' ? file : in.directory + file;
    return true;
}

void read_optional_live(reader &in, const json &object, const place &where, const char *key,
                        code_table names, value_range range, std::optional<live_value> &result)
{
    live_value value;
    if (read_live(in, object, where, key, names, range, value)) {
        result = std::move(value);
    }
}

void read_identities(reader &in, const json &document, const place &root, description &result)
{
    if (const json *value = member(document, "product"); value != nullptr) {
        const place here = below(root, "product");
        if (is_object_of(in, *value, here, {"model", "serial", "description", "vantor_id"})) {
            product_identity &product = result.product.emplace();
            std::string vantor_id;
            read_text(in, *value, here, "model", longest_identity, product.model);
            read_text(in, *value, here, "serial", longest_identity, product.serial);
            read_text(in, *value, here, "description", longest_identity, product.description);
            if (read_text(in, *value, here, "vantor_id", longest_vantor_id, vantor_id)) {
                product.vantor_id = vantor_id;
            }
        }
    }
    if (const json *value = member(document, "chassis"); value != nullptr) {
        const place here = below(root, "chassis");
        if (is_object_of(in, *value, here,
                         {"model", "serial", "description", "manufacturer", "vantor_id"})) {
            chassis_identity &chassis = result.chassis.emplace();
            std::string vantor_id;
            read_text(in, *value, here, "model", longest_identity, chassis.model);
            read_text(in, *value, here, "serial", longest_identity, chassis.serial);
            read_text(in, *value, here, "description", longest_identity, chassis.description);
            read_text(in, *value, here, "manufacturer", longest_identity, chassis.manufacturer);
            if (read_text(in, *value, here, "vantor_id", longest_vantor_id, vantor_id)) {
                chassis.vantor_id = vantor_id;
            }
        }
    }
}

void read_capabilities(reader &in, const json &object, const place &where, component &result)
{
    if (const json *names = member(object, "capabilities"); names != nullptr) {
        const place here = below(where, "capabilities");
        if (!names->is_array()) {
            complain(in, here, "an array of capability names", *names);
        } else {
            for (size_t i = 0; i < names->size(); ++i) {
                const json &name = (*names)[i];
                const auto *found =
                    name.is_string()
                        ? std::ranges::find(capability_names, name.get_ref<const std::string &>(),
                                            &named_capability::name)
                        : std::end(capability_names);
                if (found == std::end(capability_names)) {
                    std::string expected;
                    for (const named_capability &each : capability_names) {
                        expected +=
                            (expected.empty() ? "\"" : ", \"") + std::string(each.name) + '"';
                    }
                    complain(in, below(here, i), "one of " + expected, name);
                    continue;
                }
                result.capabilities[found->byte] |= found->mask;
            }
        }
    }
    if (const json *bytes = member(object, "capability_bytes"); bytes != nullptr) {
        const place here = below(where, "capability_bytes");
        if (!bytes->is_array() || bytes->size() != result.capabilities.size()) {
            complain(in, here, "an array of 10 integers 0 to 255", *bytes);
            return;
        }
        for (size_t i = 0; i < bytes->size(); ++i) {
            double byte = 0;
            if ((*bytes)[i].is_boolean() || !constant_of((*bytes)[i], {}, any_byte, byte)) {
                complain(in, below(here, i), "an integer 0 to 255", (*bytes)[i]);
                continue;
            }
            result.capabilities[i] |= static_cast<uint8_t>(byte);
        }
    }
}

void read_fru(reader &in, const json &object, const place &where, component &result)
{
    const json *value = member(object, "fru");
    if (value == nullptr) {
        return;
    }
    const place here = below(where, "fru");
    if (!is_object_of(in, *value, here,
                      {"model", "manufacturer", "serial", "alias", "software_revision"})) {
        return;
    }
    fru_identity &fru = result.fru.emplace();
    read_text(in, *value, here, "model", longest_identity, fru.model);
    read_text(in, *value, here, "manufacturer", longest_identity, fru.manufacturer);
    read_text(in, *value, here, "serial", longest_identity, fru.serial);
    read_text(in, *value, here, "alias", longest_identity, fru.alias);
    read_text(in, *value, here, "software_revision", longest_identity, fru.software_revision);
}

void read_thresholds(reader &in, const json &object, const place &where, sensor &result)
{
    static constexpr struct {
        const char *key;
        threshold which;
        uint16_t flag;
    } known[] = {
        {"upper_fatal", upper_fatal, CAPI_UPPER_FATAL_VALID},
        {"upper_critical", upper_critical, CAPI_UPPER_CRITICAL_VALID},
        {"upper_non_critical", upper_non_critical, CAPI_UPPER_NON_CRITICAL_VALID},
        {"lower_fatal", lower_fatal, CAPI_LOWER_FATAL_VALID},
        {"lower_critical", lower_critical, CAPI_LOWER_CRITICAL_VALID},
        {"lower_non_critical", lower_non_critical, CAPI_LOWER_NON_CRITICAL_VALID},
    };
    const json *value = member(object, "thresholds");
    if (value == nullptr) {
        return;
    }
    const place here = below(where, "thresholds");
    if (!is_object_of(in, *value, here,
                      {"upper_fatal", "upper_critical", "upper_non_critical", "lower_fatal",
                       "lower_critical", "lower_non_critical"})) {
        return;
    }
    for (const auto &each : known) {
        double limit = 0;
        if (read_number(in, *value, here, each.key, any_reading, limit)) {
            result.thresholds[each.which] = static_cast<float>(limit);
            result.flags = static_cast<uint16_t>(result.flags | each.flag);
        }
    }
}

/* A text cut to at most longest bytes, never inside a UTF-8 character. */
std::string cut_text(const std::string &text, size_t longest)
{
    if (text.size() <= longest) {
        return text;
    }
    size_t end = longest;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U) {
        --end;
    }
    return text.substr(0, end);
}

void read_sensor(reader &in, const json &value, const place &here, component &result)
{
    if (!is_object_of(in, value, here,
                      {"class", "type", "units", "reading", "raw_reading", "valid", "thresholds",
                       "state", "ok_semantics", "record_name"})) {
        return;
    }
    result.sensor = std::make_unique<sensor>();
    sensor &into = *result.sensor;
    is_given(in, value, here, "class", "one of " + listed(sensor_class_codes) + " or an integer");
    is_given(in, value, here, "type", "one of " + listed(sensor_type_codes) + " or an integer");
    is_given(in, value, here, "reading", "a number or a binding {\"file\": ...}");
    read_code(in, value, here, "class", sensor_class_codes, into.sensor_class);
    read_code(in, value, here, "type", sensor_type_codes, into.sensor_type);
    read_code(in, value, here, "units", sensor_units_codes, into.units);

    code_table reading_names;
    if (into.sensor_class == CAPI_SENSOR_DISCRETE) {
        reading_names =
            code_table(discrete_codes).first(into.sensor_type == CAPI_SENSOR_PRESENCE ? 4 : 2);
    }
    read_live(in, value, here, "reading", reading_names, any_reading, into.reading);
    read_optional_live(in, value, here, "raw_reading", {}, any_byte, into.raw_reading);
    read_optional_live(in, value, here, "valid", truth_codes, any_reading, into.valid);
    read_optional_live(in, value, here, "state", state_codes, any_reading, into.state);
    read_thresholds(in, value, here, into);
    if (into.state) {
        into.flags |= CAPI_STATE_SEMANTICS;
    }
    read_boolean(in, value, here, "ok_semantics", into.ok_semantics);
    if (!read_text(in, value, here, "record_name", longest_record_name, into.record_name)) {
        into.record_name = cut_text(result.name, longest_record_name);
    }
}

void read_indicator(reader &in, const json &value, const place &here, component &result)
{
    if (is_object_of(in, value, here, {"state"}) &&
        is_given(in, value, here, "state", "one of " + listed(indicator_codes))) {
        read_optional_live(in, value, here, "state", indicator_codes, any_code, result.indicator);
    }
}

bool read_type(reader &in, const json &object, const place &where, uint32_t &result)
{
    if (!is_given(in, object, where, "type", "a component type's name or its number")) {
        return false;
    }
    const json &value = object.at("type");
    const place here = below(where, "type");
    if (value.is_string()) {
        const component_type *type = find_component_type(value.get_ref<const std::string &>());
        if (type != nullptr) {
            result = type->number;
            return true;
        }
    } else if (value.is_number_integer()) {
        const double number = value.get<double>();
        if (number >= 0 && number <= UINT32_MAX) {
            result = static_cast<uint32_t>(number);
            return true;
        }
    }
    complain(in, here, "the name of a component type or an integer 0 to 4294967295", value);
    return false;
}

bool read_name(reader &in, const json &object, const place &where, std::string &result)
{
    if (!is_given(in, object, where, "name", "the component's name") ||
        !read_text(in, object, where, "name", longest_name, result)) {
        return false;
    }
    if (result.size() < 2 || result.front() != '/' || result.back() == '/' ||
        result.find("//") != std::string::npos) {
        complain(in, below(where, "name"),
                 "a name such as \"/SYS/MB\": a slash before every part, "
                 "no empty part",
                 object.at("name"));
        return false;
    }
    return true;
}

/* Null when the component has no usable name and type. */
bool read_component(reader &in, const json &value, const place &here, component &result)
{
    if (!is_object_of(in, value, here,
                      {"name", "type", "capabilities", "capability_bytes", "fru", "power",
                       "ready_to_remove", "enable", "sensor", "indicator"})) {
        return false;
    }
    const bool named = read_name(in, value, here, result.name);
    const bool typed = read_type(in, value, here, result.type);
    read_capabilities(in, value, here, result);
    read_fru(in, value, here, result);
    read_optional_live(in, value, here, "power", power_codes, any_code, result.power);
    read_optional_live(in, value, here, "ready_to_remove", ready_codes, any_code,
                       result.ready_to_remove);
    read_optional_live(in, value, here, "enable", enable_codes, any_code, result.enable);

    const json *sensor_value = member(value, "sensor");
    const json *indicator_value = member(value, "indicator");
    if (sensor_value != nullptr) {
        read_sensor(in, *sensor_value, below(here, "sensor"), result);
    }
    if (indicator_value != nullptr) {
        read_indicator(in, *indicator_value, below(here, "indicator"), result);
    }
    if (typed) {
        const component_kind kind = component_kind_of(result.type);
        const std::string type_text = shown(value.at("type"));
        if (kind == component_kind::sensor) {
            is_given(in, value, here, "sensor", "type " + type_text + " is a sensor");
        } else if (sensor_value != nullptr) {
            complain(in, below(here, "sensor"),
                     "expected no sensor: type " + type_text + " is none");
        }
        if (kind == component_kind::indicator) {
            is_given(in, value, here, "indicator", "type " + type_text + " is an indicator");
        } else if (indicator_value != nullptr) {
            complain(in, below(here, "indicator"),
                     "expected no indicator: type " + type_text + " is none");
        }
    }
    return named;
}

/* Duplicates, components without a container, components outside the root. */
void check_tree(reader &in, const std::vector<component> &components, const place &where)
{
    std::unordered_map<std::string_view, size_t> by_name;
    for (size_t i = 0; i < components.size(); ++i) {
        if (components[i].name.empty()) {
            continue;
        }
        const auto [first, added] = by_name.emplace(components[i].name, i);
        if (!added) {
            const place here = below(where, i);
            complain(in, below(here, "name"),
                     "expected each name once, \"" + components[i].name + "\" is that of " +
                         to_pointer(&where) + "/" + std::to_string(first->second));
        }
    }
    for (size_t i = 0; i < components.size(); ++i) {
        const std::string &name = components[i].name;
        if (name.empty()) {
            continue;
        }
        const place here = below(where, i);
        const place name_place = below(here, "name");
        const std::string parent(parent_name(name));
        if (i == 0) {
            if (!parent.empty()) {
                complain(in, name_place,
                         "expected the root first, a name of one part, found \"" + name + "\"");
            }
        } else if (parent.empty()) {
            if (name != components[0].name) {
                complain(in, name_place,
                         "expected a component below the root \"" + components[0].name +
                             "\", found \"" + name + "\"");
            }
        } else if (!by_name.contains(parent)) {
            complain(in, name_place,
                     "expected a component \"" + parent + "\" that holds \"" + name + "\"");
        }
    }
}

/* A record's name is all that tells for which sensor ok semantics are asked. */
void check_record_names(reader &in, const std::vector<component> &components, const place &where)
{
    std::unordered_map<std::string_view, size_t> known;
    for (size_t i = 0; i < components.size(); ++i) {
        if (!components[i].sensor) {
            continue;
        }
        const sensor &each = *components[i].sensor;
        const auto [first, added] = known.emplace(each.record_name, i);
        if (!added && components[first->second].sensor->ok_semantics != each.ok_semantics) {
            const place here = below(where, i);
            complain(in, below(here, "sensor"),
                     "expected the same ok_semantics as " + to_pointer(&where) + "/" +
                         std::to_string(first->second) + ", which has the same record name \"" +
                         each.record_name + "\"");
        }
    }
}

/* Depth-first with siblings in file order; the components form one tree. */
void put_in_order(std::vector<component> &&unordered, description &result)
{
    std::unordered_map<std::string_view, size_t> by_name;
    for (size_t i = 0; i < unordered.size(); ++i) {
        by_name.emplace(unordered[i].name, i);
    }
    constexpr size_t none = SIZE_MAX;
    std::vector<size_t> first_child(unordered.size(), none);
    std::vector<size_t> next_sibling(unordered.size(), none);
    for (size_t i = unordered.size(); i-- > 1;) { /* backwards: a child goes to the front */
        const size_t parent = by_name.at(parent_name(unordered[i].name));
        next_sibling[i] = first_child[parent];
        first_child[parent] = i;
    }
    struct level {
        size_t component; /* in the result */
        size_t next_child;
    };
    result.components.reserve(unordered.size());
    std::vector<level> open;
    const auto enter = [&](size_t index) {
        open.push_back({result.components.size(), first_child[index]});
        result.components.push_back(std::move(unordered[index]));
    };
    enter(0);
    while (!open.empty()) {
        const size_t child = open.back().next_child;
        if (child == none) {
            result.components[open.back().component].subtree_end = result.components.size();
            open.pop_back();
            continue;
        }
        open.back().next_child = next_sibling[child];
        enter(child);
    }
}

void index_components(description &result)
{
    std::set<std::string> files;
    const auto note_file = [&files](const auto &value) {
        if (value && !value->file.empty()) {
            files.insert(value->file);
        }
    };
    for (size_t i = 0; i < result.components.size(); ++i) {
        const component &each = result.components[i];
        result.by_name.emplace(each.name, i);
        note_file(each.power);
        note_file(each.ready_to_remove);
        note_file(each.enable);
        note_file(each.indicator);
        if (each.sensor) {
            result.by_record_name.emplace(each.sensor->record_name, i);
            note_file(&each.sensor->reading);
            note_file(each.sensor->raw_reading);
            note_file(each.sensor->valid);
            note_file(each.sensor->state);
        }
    }
    result.bound_files.assign(files.begin(), files.end());
}

/* What the schema found and no check of ours told of that place in its own,
 * plainer words. */
void add_schema_errors(reader &in, std::vector<load_error> &&found)
{
    std::vector<std::string> told;
    for (const load_error &each : in.errors) {
        told.push_back(each.pointer + '/');
    }
    std::ranges::sort(told);
    for (load_error &each : found) {
        const std::string here = each.pointer + '/';
        const auto at_or_below = std::ranges::lower_bound(told, here);
        const bool covered = (at_or_below != told.end() && at_or_below->starts_with(here)) ||
                             std::ranges::any_of(told, [&](const std::string &above) {
                                 return above.size() > 1 && here.starts_with(above);
                             });
        if (!covered) {
            in.errors.push_back(std::move(each));
        }
    }
}

std::unique_ptr<description> read_description(reader &in, const json &document)
{
    const place root;
    if (!is_object_of(in, document, root, {"$schema", "product", "chassis", "components"})) {
        return nullptr;
    }
    auto result = std::make_unique<description>();
    read_identities(in, document, root, *result);
    const place here = below(root, "components");
    const std::string expected = "an array of at least one component";
    if (!is_given(in, document, root, "components", expected)) {
        return nullptr;
    }
    const json &list = document.at("components");
    if (!list.is_array() || list.empty()) {
        complain(in, here, expected, list);
        return nullptr;
    }
    std::vector<component> components(list.size());
    for (size_t i = 0; i < list.size(); ++i) {
        if (!read_component(in, list[i], below(here, i), components[i])) {
            components[i].name.clear();
        }
    }
    check_tree(in, components, here);
    check_record_names(in, components, here);
    if (in.errors.empty()) {
        put_in_order(std::move(components), *result);
        index_components(*result);
    }
    return result;
}

} // namespace

load_result load_description(const std::string &path)
{
    load_result result;
    std::string text;
    if (!read_document(path, text, result.signature, result.errors)) {
        return result;
    }
    reader in;
    in.directory = std::string(parent_name(path)) + '/';
    json document;
    if (!parse_document(text, document, in.errors)) {
        result.errors = std::move(in.errors);
        return result;
    }
    /* A text beyond all bounds is told already and none for the schema's
     * regular expressions, which recurse for every character. */
    const bool fit_for_schema = in.errors.empty();
    std::unique_ptr<description> loaded = read_description(in, document);
    if (fit_for_schema) {
        add_schema_errors(in, check_schema(document));
    }
    result.errors = std::move(in.errors);
    if (result.errors.empty() && loaded != nullptr) {
        loaded->signature = result.signature;
        result.loaded = std::move(loaded);
    }
    return result;
}

} // namespace described_platform

#include "described/format/components.h"

#include "described/format/component_types.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace described_platform
{
namespace
{

using nlohmann::json;

constexpr size_t longest_name = 255;
constexpr size_t longest_identity = 79;
constexpr size_t longest_vantor_id = 50;
constexpr size_t longest_record_name = 63;
constexpr size_t longest_interface = CAPI_INTERFACE_NAME_SIZE - 1;

void read_vantor_id(fields &object, std::optional<std::string> &into)
{
    std::string given;
    if (object.text("vantor_id", longest_vantor_id, given)) {
        into = std::move(given);
    }
}

void read_name(reading_state &state, fields &object, std::string &into)
{
    std::string name;
    if (!object.name("name", longest_name, name, need::required)) {
        return;
    }
    if (name.size() < 2 || name.front() != '/' || name.back() == '/' ||
        name.find("//") != std::string::npos) {
        complain(state, object.at("name"),
                 "a name such as \"/SYS/MB\": a slash before every part, no empty part", name);
        return;
    }
    into = std::move(name);
}

/* As the system allows them; a slash or a blank cannot be in one. */
void read_interface(reading_state &state, fields &object, std::string &into)
{
    std::string name;
    if (!object.name("interface", longest_interface, name)) {
        return;
    }
    if (name.empty() || name == "." || name == ".." ||
        name.find_first_of("/: ") != std::string::npos) {
        complain(state, object.at("interface"),
                 "the name of a network interface, such as \"eth0\": no slash, colon or blank",
                 name);
        return;
    }
    into = std::move(name);
}

/* False when it cannot be told what kind of component this is. */
bool read_type(reading_state &state, fields &object, uint32_t &into)
{
    const json *value =
        object.value("type", need::required, "a component type's name or its number");
    if (value == nullptr) {
        return false;
    }
    if (value->is_string()) {
        const component_type *type = find_component_type(value->get_ref<const std::string &>());
        if (type != nullptr) {
            into = type->number;
            return true;
        }
    } else if (const auto number = code_of(*value, {}, {0, UINT32_MAX, true}); number) {
        into = static_cast<uint32_t>(*number);
        return true;
    }
    std::vector<std::string_view> names;
    for (const component_type &each : component_types()) {
        names.emplace_back(each.name);
    }
    complain(state, object.at("type"), "the name of a component type or an integer 0 to 4294967295",
             *value, names);
    return false;
}

void read_capabilities(reading_state &state, const json &names, const place &here, component &into)
{
    if (!names.is_array()) {
        complain(state, here, "an array of capability names", names);
        return;
    }
    std::vector<std::string_view> before;
    for (size_t i = 0; i < names.size(); ++i) {
        const json &name = names[i];
        const auto *found =
            name.is_string()
                ? std::ranges::find(capability_names, name.get_ref<const std::string &>(),
                                    &named_capability::name)
                : std::end(capability_names);
        const place each_place{&here, {}, i};
        if (found == std::end(capability_names)) {
            std::string expected;
            std::vector<std::string_view> known;
            for (const named_capability &each : capability_names) {
                expected +=
                    (expected.empty() ? "one of \"" : ", \"") + std::string(each.name) + '"';
                known.push_back(each.name);
            }
            complain(state, each_place, expected, name, known);
            continue;
        }
        if (std::ranges::find(before, found->name) != before.end()) {
            complain(state, each_place, "each capability once", name);
        }
        before.push_back(found->name);
        into.capabilities[found->byte] |= found->mask;
    }
}

void read_capability_bytes(reading_state &state, const json &bytes, const place &here,
                           component &into)
{
    if (!bytes.is_array() || bytes.size() != into.capabilities.size()) {
        complain(state, here, "an array of 10 integers 0 to 255", bytes);
        return;
    }
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (const auto byte = code_of(bytes[i], {}, any_byte); byte) {
            into.capabilities[i] |= static_cast<uint8_t>(*byte);
        } else {
            complain(state, {&here, {}, i}, "an integer 0 to 255", bytes[i], {});
        }
    }
}

void read_fru(reading_state &state, const json &value, const place &here, component &into)
{
    fru_identity &fru = into.fru.emplace();
    fields object(state, value, here);
    object.text("model", longest_identity, fru.model);
    object.text("manufacturer", longest_identity, fru.manufacturer);
    object.text("serial", longest_identity, fru.serial);
    object.text("alias", longest_identity, fru.alias);
    object.text("software_revision", longest_identity, fru.software_revision);
    object.end();
}

void read_thresholds(reading_state &state, const json &value, const place &here, sensor &into)
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
    fields object(state, value, here);
    for (const auto &each : known) {
        double limit = 0;
        if (object.number(each.key, limit)) {
            into.thresholds[each.which] = static_cast<float>(limit);
            into.flags = static_cast<uint16_t>(into.flags | each.flag);
        }
    }
    object.end();
}

/* Volts are those of a direct voltage, unless it is said. */
void read_current(reading_state &state, const json &value, const place &here, sensor &into)
{
    if (value == "alternating") {
        into.flags |= CAPI_ALTERNATING;
    } else if (value != "direct") {
        complain(state, here, "\"direct\" or \"alternating\"", value, {"direct", "alternating"});
    }
}

void read_sensor(reading_state &state, const json &value, const place &here, component &into)
{
    into.sensor = std::make_unique<sensor>();
    sensor &it = *into.sensor;
    fields object(state, value, here);
    object.code("class", sensor_class_codes, it.sensor_class, need::required);
    object.code("type", sensor_type_codes, it.sensor_type, need::required);
    object.code("units", sensor_units_codes, it.units);
    if (const json *current = object.value("current"); current != nullptr) {
        read_current(state, *current, object.at("current"), it);
    }
    const code_table reading_names =
        it.sensor_class == CAPI_SENSOR_DISCRETE ? code_table(discrete_codes) : code_table();
    object.live("reading", reading_names, any_reading, it.reading, need::required);
    object.live("raw_reading", {}, any_byte, it.raw_reading);
    object.live("valid", truth_codes, any_reading, it.valid);
    object.live("state", state_codes, any_reading, it.state);
    if (const json *limits = object.value("thresholds"); limits != nullptr) {
        read_thresholds(state, *limits, object.at("thresholds"), it);
    }
    object.boolean("ok_semantics", it.ok_semantics);
    if (!object.name("record_name", longest_record_name, it.record_name)) {
        it.record_name = cut_text(into.name, longest_record_name);
    }
    object.end();
    if (it.state) {
        it.flags |= CAPI_STATE_SEMANTICS;
    }
}

/* By its name alone: managers are told a severity for it, so it has to be one of these. */
void read_meaning(reading_state &state, const json &value, const place &here, component &into)
{
    const auto *found = value.is_string()
                            ? std::ranges::find(meaning_codes, value.get_ref<const std::string &>(),
                                                &named_code::name)
                            : std::end(meaning_codes);
    if (found == std::end(meaning_codes)) {
        complain(state, here, "\"service\" or \"fault\"", value, {"service", "fault"});
        return;
    }
    into.indicator_meaning = static_cast<int32_t>(found->value);
}

void read_indicator(reading_state &state, const json &value, const place &here, component &into)
{
    fields object(state, value, here);
    object.live("state", indicator_codes, any_code, into.indicator, need::required);
    if (const json *meaning = object.value("means"); meaning != nullptr) {
        read_meaning(state, *meaning, object.at("means"), into);
    }
    object.end();
}

/* A sensor has "sensor" and nothing else has it; likewise an indicator. */
void check_kind(reading_state &state, const place &here, bool is_of_kind, const char *key,
                const char *kind, const json *value, const json &type)
{
    if (is_of_kind && value == nullptr) {
        complain(state, here,
                 std::string("expected the key \"") + key + "\": type " + shown(type) + " is " +
                     kind);
    }
    if (!is_of_kind && value != nullptr) {
        complain(state, {&here, key, 0},
                 std::string("expected no ") + key + ": type " + shown(type) + " is none");
    }
}

} // namespace

void read_product(reading_state &state, const json &value, const place &here, description &into)
{
    product_identity &product = into.product.emplace();
    fields object(state, value, here);
    object.text("model", longest_identity, product.model);
    object.text("serial", longest_identity, product.serial);
    object.text("description", longest_identity, product.description);
    read_vantor_id(object, product.vantor_id);
    object.end();
}

void read_chassis(reading_state &state, const json &value, const place &here, description &into)
{
    chassis_identity &chassis = into.chassis.emplace();
    fields object(state, value, here);
    object.text("model", longest_identity, chassis.model);
    object.text("serial", longest_identity, chassis.serial);
    object.text("description", longest_identity, chassis.description);
    object.text("manufacturer", longest_identity, chassis.manufacturer);
    read_vantor_id(object, chassis.vantor_id);
    object.end();
}

void read_component(reading_state &state, const json &value, const place &here, component &into)
{
    fields object(state, value, here);
    read_name(state, object, into.name);
    const bool typed = read_type(state, object, into.type);
    if (const json *names = object.value("capabilities"); names != nullptr) {
        read_capabilities(state, *names, object.at("capabilities"), into);
    }
    if (const json *bytes = object.value("capability_bytes"); bytes != nullptr) {
        read_capability_bytes(state, *bytes, object.at("capability_bytes"), into);
    }
    if (const json *fru = object.value("fru"); fru != nullptr) {
        read_fru(state, *fru, object.at("fru"), into);
    }
    read_interface(state, object, into.interface);
    object.live("power", power_codes, any_code, into.power);
    object.live("ready_to_remove", ready_codes, any_code, into.ready_to_remove);
    object.live("enable", enable_codes, any_code, into.enable);
    const json *sensor_value = object.value("sensor");
    if (sensor_value != nullptr) {
        read_sensor(state, *sensor_value, object.at("sensor"), into);
    }
    const json *indicator_value = object.value("indicator");
    if (indicator_value != nullptr) {
        read_indicator(state, *indicator_value, object.at("indicator"), into);
    }
    if (typed) {
        const component_kind kind = component_kind_of(into.type);
        const json &type = value.at("type");
        check_kind(state, here, kind == component_kind::sensor, "sensor", "a sensor", sensor_value,
                   type);
        check_kind(state, here, kind == component_kind::indicator, "indicator", "an indicator",
                   indicator_value, type);
    }
    object.end();
}

} // namespace described_platform

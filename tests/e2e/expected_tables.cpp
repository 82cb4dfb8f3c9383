#include "e2e/expected_tables.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <fstream>
#include <initializer_list>
#include <optional>
#include <stdexcept>
#include <tuple>

#include <nlohmann/json.hpp>

namespace
{

using nlohmann::json;

constexpr int gauge32 = 0x42;

snmp_value gauge(int64_t number)
{
    snmp_value value;
    value.type = gauge32;
    value.number = number;
    return value;
}

bool can(const json &component, std::initializer_list<const char *> any_of)
{
    for (const json &name : component.value("capabilities", json::array())) {
        for (const char *wanted : any_of) {
            if (name == wanted) {
                return true;
            }
        }
    }
    return false;
}

long code_of(const json &value, const std::map<std::string, long> &names)
{
    if (value.is_object()) {
        throw std::runtime_error("a value bound to a file is not worked out here");
    }
    if (value.is_boolean()) {
        return value.get<bool>() ? names.at("true") : names.at("false");
    }
    return value.is_number() ? std::lround(value.get<double>()) : names.at(value);
}

std::optional<long> power_of(const json &component)
{
    if (!component.contains("power")) {
        return std::nullopt;
    }
    return code_of(component["power"],
                   {{"off", 1}, {"on", 2}, {"standby", 3}, {"shutting-down", 4}});
}

// ---- Sensors ----

struct numbers {
    long exponent = 0;
    int64_t reading = 0;
    // Lower and upper, from non-critical to fatal.
    std::array<int64_t, 3> lower = {};
    std::array<int64_t, 3> upper = {};
    std::array<bool, 3> has_lower = {};
    std::array<bool, 3> has_upper = {};

    // The gravest threshold that is reached: 0 non-critical, 2 fatal, -1 none.
    int reached() const
    {
        for (size_t i = 3; i-- != 0;) {
            if ((has_lower[i] && reading <= lower[i]) || (has_upper[i] && reading >= upper[i])) {
                return static_cast<int>(i);
            }
        }
        return -1;
    }
};

struct sensor {
    bool is_numeric = false;
    bool is_slot_number = false;
    bool was_read = true;
    bool is_valid = true;
    long type = 1;
    long units = 1;
    numbers number;
    // Of a two-state sensor.
    bool current = false;
    bool expected = true;
    std::string when_true;
    std::string when_false;
};

long truth(bool value)
{
    return value ? 1 : 2;
}

constexpr const char *limit_names[] = {"non_critical", "critical", "fatal"};

numbers numbers_of(const json &described, bool is_slot_number, bool is_tachometer, bool is_valid)
{
    numbers n;
    const float reading = is_valid ? described.at("reading").get<float>() : 0.0F;
    if (is_slot_number) {
        n.reading = static_cast<int64_t>(reading);
        n.has_lower = n.has_upper = {true, true, true}; // all at 0
        return n;
    }
    const json limits = described.value("thresholds", json::object());
    const bool has_fractions = std::any_of(limits.begin(), limits.end(), [](const json &limit) {
        return limit.get<float>() != std::trunc(limit.get<float>());
    });
    const float raw = described.value("raw_reading", reading == 0 && has_fractions ? 1.0F : 0.0F);
    const bool is_scaled = is_valid && reading != raw && !is_tachometer;
    const auto shown = [&](float value) {
        return static_cast<int64_t>(is_scaled ? double{value} * 1000.0 : double{value});
    };
    n.exponent = is_scaled ? -3 : 0;
    n.reading = is_valid ? shown(reading) : 0;
    for (size_t i = 0; i < 3; i++) {
        const std::string lower = std::string("lower_") + limit_names[i];
        const std::string upper = std::string("upper_") + limit_names[i];
        n.has_lower[i] = limits.contains(lower);
        n.has_upper[i] = limits.contains(upper);
        n.lower[i] = n.has_lower[i] ? shown(limits[lower].get<float>()) : 0;
        n.upper[i] = n.has_upper[i] ? shown(limits[upper].get<float>()) : 0;
    }
    return n;
}

sensor numeric_sensor(const json &described, bool is_slot_number, bool is_valid)
{
    sensor s;
    s.is_numeric = true;
    s.is_slot_number = is_slot_number;
    if (!is_slot_number) {
        const std::map<std::string, std::pair<long, long>> by_units = {
            // type, base unit
            {"degrees-c", {3, 3}}, {"degrees-f", {3, 4}}, {"kelvin", {3, 5}}, {"volts", {4, 6}},
            {"amps", {5, 7}},      {"watts", {1, 8}},     {"rpm", {6, 20}},   {"hertz", {1, 21}},
            {"percent", {1, 66}},  {"hours", {1, 24}},    {"none", {1, 1}}};
        std::tie(s.type, s.units) = by_units.at(described.value("units", "none"));
        if (described.at("type") == "humidity") {
            s.type = 10;
        }
    }
    s.number = numbers_of(described, is_slot_number, s.type == 6, is_valid);
    return s;
}

sensor binary_sensor(const json &described, const std::string &name)
{
    sensor s;
    const std::map<std::string, long> types = {
        {"temperature", 3}, {"voltage", 4}, {"current", 5}, {"tachometer", 6}, {"presence", 12}};
    const auto type = types.find(described.at("type"));
    s.type = type == types.end() ? 1 : type->second;
    s.current = code_of(described.at("reading"),
                        {{"asserted", 2}, {"present", 2}, {"deasserted", 1}, {"absent", 1}}) == 2;
    const auto set = [&](const char *when_true, const char *when_false, bool expected) {
        s.when_true = when_true;
        s.when_false = when_false;
        s.expected = expected;
    };
    const std::string record_name = described.value("record_name", name);
    if (described.contains("state")) {
        if (code_of(described["state"], {{"ok", 0}, {"failed", 1}}) == 1) {
            set("fail", "ok", false);
        } else {
            set("ok", "fail", true);
        }
    } else if (described.at("type") == "presence") {
        set("Present", "Absent", true);
    } else if (described.value("ok_semantics", false)) {
        set("ok", "fail", true);
    } else if (record_name.find("/SYS/IOX") != std::string::npos &&
               record_name.find("SWITCH") != std::string::npos) {
        set("on", "standby", true);
    } else {
        set("fail", "ok", false);
    }
    return s;
}

// A reading bound to a file that is not there. The fields stay as they were built.
bool can_not_be_read(const json &described)
{
    const json &reading = described.at("reading");
    if (!reading.is_object()) {
        return false;
    }
    if (std::filesystem::exists(reading.at("file").get<std::string>())) {
        throw std::runtime_error("a reading bound to a file that is there is not worked out");
    }
    return true;
}

bool is_valid(const json &described)
{
    return !described.contains("valid") ||
           code_of(described["valid"], {{"true", 1}, {"false", 0}}) != 0;
}

sensor sensor_of(const json &component, unsigned long component_type)
{
    const json &described = component.at("sensor");
    const bool was_read = !can_not_be_read(described);
    const bool valid = was_read && is_valid(described);
    sensor s;
    if (described.at("class") == "threshold") {
        s = numeric_sensor(described, component_type == 26, valid);
    } else if (valid) {
        s = binary_sensor(described, component.at("name"));
    } else {
        throw std::runtime_error("a two-state sensor without a valid reading is not worked out");
    }
    s.was_read = was_read;
    s.is_valid = valid;
    return s;
}

// ---- Cells ----

long severity_of(const sensor &s, unsigned long component_type)
{
    if (!s.is_valid) {
        return 4;
    }
    if (s.is_numeric) {
        constexpr long severities[] = {7, 5, 2, 1};
        return severities[s.number.reached() + 1];
    }
    if (s.current == s.expected) {
        return 7;
    }
    return component_type == 18 ? 2 : component_type == 19 ? 5 : 7;
}

std::vector<snmp_value> numeric_cells(const sensor &s)
{
    const numbers &n = s.number;
    unsigned mask = 0;
    for (size_t i = 0; i < 3; i++) {
        mask |= n.has_lower[i] ? 0x80U >> (2 * i) : 0;
        mask |= n.has_upper[i] ? 0x40U >> (2 * i) : 0;
    }
    std::vector<snmp_value> cells;
    for (const int64_t number :
         {int64_t{s.units}, int64_t{n.exponent}, int64_t{1}, n.reading, int64_t{0}, int64_t{255},
          int64_t{0}, n.lower[0], n.upper[0], n.lower[1], n.upper[1], n.lower[2], n.upper[2]}) {
        cells.push_back(integer_value(number));
    }
    cells.push_back(gauge(0));
    cells.push_back(text_value(std::string(1, static_cast<char>(mask))));
    cells.push_back(integer_value(1));
    return cells;
}

std::vector<snmp_value> equipment_cells(const json &component, const expected_row &row,
                                        const std::optional<sensor> &s,
                                        const std::string &container)
{
    long admin = 2;
    if (can(component, {"field-replaceable"})) {
        if (component.contains("ready_to_remove")) {
            admin = code_of(component["ready_to_remove"],
                            {{"ready", 0}, {"not-ready", 1}, {"true", 0}, {"false", 1}}) == 1
                        ? 2
                        : 1;
        } else if (const std::optional<long> power = power_of(component)) {
            admin = *power == 2 ? 2 : *power == 4 ? 3 : 1;
        }
    }
    const bool is_told_unknown = s && s->was_read && !s->is_valid;
    long oper = is_told_unknown ? 1 : 2;
    if (can(component, {"enable-state"}) && component.contains("enable")) {
        oper = code_of(component["enable"], {{"disabled", 1}, {"enabled", 2}}) == 1 ? 1 : 2;
    }
    return {integer_value(admin), integer_value(oper),
            integer_value(s ? severity_of(*s, row.component_type) : 4),
            integer_value(truth(is_told_unknown)), text_value(container)};
}

std::vector<snmp_value> holder_cells(const json &component, const expected_row &row,
                                     const std::map<std::string, json> &by_name)
{
    long occupancy = 4;
    if (can(component, {"holder"})) {
        occupancy = 2;
        const auto presence = by_name.find(row.name + "/PRSNT");
        if (row.component_type == 14 && row.name.starts_with("/SYS/HDD") && row.name.size() < 11 &&
            presence != by_name.end()) {
            const json &described = presence->second.at("sensor");
            const bool asserted = binary_sensor(described, presence->first).current;
            if (described.value("raw_reading", asserted ? 2 : 1) == 1 && is_valid(described)) {
                occupancy = 1;
            }
        }
    }
    long power_state = 2;
    const std::optional<long> power = power_of(component);
    if (power && can(component, {"power-readable", "power-controllable"})) {
        const std::map<long, long> states = {{1, 4}, {2, 3}, {3, 1}, {4, 1}};
        const auto found = states.find(*power);
        power_state = found == states.end() ? 2 : found->second;
    }
    return {integer_value(4), text_value("component"), integer_value(occupancy),
            integer_value(power_state)};
}

std::vector<snmp_value> circuit_pack_cells(const json &component)
{
    const bool controllable =
        can(component, {"power-readable", "power-controllable", "resettable"});
    const bool replaceable =
        controllable || can(component, {"field-replaceable", "fru-info", "hot-pluggable"});
    return {text_value(""), text_value(std::string(1, '\0')), integer_value(truth(replaceable)),
            integer_value(truth(controllable))};
}

std::vector<snmp_value> alarm_cells(const json &component)
{
    const long state = code_of(
        component.at("indicator").at("state"),
        {{"off", 1}, {"on", 2}, {"slow-blink", 3}, {"fast-blink", 4}, {"standby-blink", 5}});
    if (state < 1 || state > 5) {
        return {integer_value(1), integer_value(1), integer_value(3)};
    }
    return {integer_value(3), integer_value(state == 1 ? 2 : state == 2 ? 3 : 4), integer_value(4)};
}

} // namespace

object_name expected_table::cell(unsigned long column, unsigned long index) const
{
    object_name name = entry;
    name.insert(name.end(), {column, index});
    return name;
}

std::vector<varbind> cells_of(const expected_table &table)
{
    std::vector<varbind> all;
    const size_t columns = table.rows.empty() ? 0 : table.rows.begin()->second.size();
    for (size_t column = 0; column < columns; column++) {
        for (const auto &[index, values] : table.rows) {
            all.push_back({table.cell(table.first_column + column, index), values.at(column)});
        }
    }
    return all;
}

expected_table expected_entity_table(const std::vector<expected_row> &rows)
{
    expected_table table = {ent_table(), first_column, {}};
    for (const expected_row &row : rows) {
        for (unsigned column = first_column; column <= last_column; column++) {
            table.rows[row.index].push_back(expected_value(row, column));
        }
    }
    return table;
}

std::map<unsigned long, expected_table>
expected_platform_tables(const std::filesystem::path &description)
{
    const json document = json::parse(std::ifstream(description));
    std::map<std::string, json> by_name;
    for (const json &component : document.at("components")) {
        by_name[component.at("name")] = component;
    }
    const std::vector<expected_row> rows = expected_rows(description, "");

    std::map<unsigned long, expected_table> tables;
    for (unsigned long arc = 2; arc <= 15; arc++) {
        if (arc != 13) { // watchdogs are for another module to ask for
            object_name entry = platform_table(arc);
            entry.push_back(1);
            tables[arc] = {entry, 1, {}};
        }
    }
    for (const expected_row &row : rows) {
        const json &component = by_name.at(row.name);
        const long physical_class = row.physical_class;
        std::optional<sensor> s;
        if (row.kind == "sensor") {
            s = sensor_of(component, row.component_type);
            tables[6].rows[row.index] = {integer_value(s->is_numeric ? 2 : 1),
                                         integer_value(s->type), gauge(0)};
            if (s->is_numeric) {
                tables[8].rows[row.index] = numeric_cells(*s);
            } else {
                tables[7].rows[row.index] = {integer_value(truth(s->current)),
                                             integer_value(truth(s->expected)),
                                             text_value(s->when_true), text_value(s->when_false)};
            }
        }
        if (physical_class == 1 || (physical_class >= 3 && physical_class <= 9)) {
            const std::string container =
                row.contained_in == 0 ? "unknown"
                                      : rows.at(static_cast<size_t>(row.contained_in) - 1).name;
            tables[2].rows[row.index] = equipment_cells(component, row, s, container);
        }
        switch (physical_class) {
        case 1:
            tables[5].rows[row.index] = {integer_value(row.kind == "indicator" ? 2 : 1)};
            if (row.kind == "indicator") {
                tables[12].rows[row.index] = alarm_cells(component);
            }
            break;
        case 5:
            tables[3].rows[row.index] = holder_cells(component, row, by_name);
            break;
        case 6:
            tables[14].rows[row.index] = {integer_value(2)};
            break;
        case 7:
            tables[11].rows[row.index] = {integer_value(2)};
            break;
        case 9:
            tables[4].rows[row.index] = circuit_pack_cells(component);
            break;
        default:
            break;
        }
    }
    return tables;
}

object_name platform_table(unsigned long arc)
{
    return {1, 3, 6, 1, 4, 1, 58213, 2, 70, 101, 1, 1, arc};
}

object_name start_time()
{
    object_name name = platform_table(1);
    name.push_back(0);
    return name;
}

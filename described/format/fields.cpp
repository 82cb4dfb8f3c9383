#include "described/format/fields.h"

#include <algorithm>
#include <cfloat>
#include <charconv>
#include <nlohmann/json.hpp>

namespace described_platform
{

using nlohmann::json;

constexpr value_range any_code{INT32_MIN, INT32_MAX, true};
constexpr value_range any_byte{0, UINT8_MAX, true};
constexpr value_range any_reading{-static_cast<double>(FLT_MAX), static_cast<double>(FLT_MAX),
                                  false};

namespace
{

constexpr size_t longest_file_name = 4095;

std::vector<std::string_view> names_of(code_table table)
{
    std::vector<std::string_view> result;
    for (const named_code &each : table) {
        result.push_back(each.name);
    }
    return result;
}

std::string range_text(value_range range)
{
    if (!range.whole) {
        return "a number in the range of single precision";
    }
    return "an integer " + std::to_string(static_cast<int64_t>(range.low)) + " to " +
           std::to_string(static_cast<int64_t>(range.high));
}

std::string code_text(code_table names, value_range range)
{
    std::string listed;
    for (const named_code &each : names) {
        listed += (listed.empty() ? "one of \"" : ", \"") + std::string(each.name) + '"';
    }
    return (listed.empty() ? "" : listed + " or ") + range_text(range);
}

bool is_number(std::string_view text)
{
    double ignored = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), ignored);
    return error == std::errc() && end == text.data() + text.size();
}

/* JSON's own truth values, which are no texts there. */
bool is_truth_name(std::string_view name)
{
    return name == "true" || name == "false";
}

bool has_control_character(std::string_view text)
{
    for (size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        const bool above = byte == 0xc2 && i + 1 < text.size() &&
                           static_cast<unsigned char>(text[i + 1]) < 0xa0; /* U+0080 to U+009F */
        if (byte < 0x20 || byte == 0x7f || above) {
            return true;
        }
    }
    return false;
}

char folded(char c)
{
    if (c >= 'A' && c <= 'Z') {
        return static_cast<char>(c - 'A' + 'a');
    }
    return c == '_' || c == ' ' ? '-' : c;
}

/* How many letters to insert, leave out, replace or swap with their neighbour. */
size_t distance(std::string_view a, std::string_view b)
{
    std::vector<size_t> two_above;
    std::vector<size_t> above;
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) {
        row[j] = j;
    }
    for (size_t i = 1; i <= a.size(); ++i) {
        two_above = std::move(above);
        above = row;
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            const bool same = folded(a[i - 1]) == folded(b[j - 1]);
            row[j] =
                std::min({above[j] + 1, row[j - 1] + 1, above[j - 1] + (same ? size_t{0} : 1)});
            if (i > 1 && j > 1 && folded(a[i - 1]) == folded(b[j - 2]) &&
                folded(a[i - 2]) == folded(b[j - 1])) {
                row[j] = std::min(row[j], two_above[j - 2] + 1);
            }
        }
    }
    return row[b.size()];
}

std::string nearest_name(std::string_view found, const std::vector<std::string_view> &names)
{
    constexpr size_t longest = 64;
    if (found.empty() || found.size() > longest) {
        return "";
    }
    std::string_view nearest;
    size_t least = SIZE_MAX;
    for (const std::string_view name : names) {
        const size_t apart = distance(found, name);
        if (apart < least && apart <= std::max(found.size(), name.size()) / 3) {
            nearest = name;
            least = apart;
        }
    }
    return nearest.empty() ? "" : "; did you mean \"" + std::string(nearest) + "\"?";
}

std::string hint(const json &found, const std::vector<std::string_view> &names)
{
    if (!found.is_string()) {
        return "";
    }
    const auto &text = found.get_ref<const std::string &>();
    return is_number(text) ? "; a number stands without quotes" : nearest_name(text, names);
}

} // namespace

void complain(reading_state &state, const place &where, std::string message)
{
    state.errors.push_back({to_pointer(&where), std::move(message)});
}

void complain(reading_state &state, const place &where, const std::string &expected,
              const json &found)
{
    complain(state, where, "expected " + expected + ", found " + shown(found));
}

void complain(reading_state &state, const place &where, const std::string &expected,
              const json &found, const std::vector<std::string_view> &names)
{
    complain(state, where, expected, found);
    state.errors.back().message += hint(found, names);
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

std::optional<double> code_of(const json &value, code_table names, value_range range)
{
    if (value.is_number()) {
        /* All integers that fit the range are exact as doubles. */
        const double number = value.get<double>();
        const bool fits = number >= range.low && number <= range.high;
        return fits && (!range.whole || value.is_number_integer()) ? std::optional(number)
                                                                   : std::nullopt;
    }
    std::string_view name;
    if (value.is_string() && !is_truth_name(value.get_ref<const std::string &>())) {
        name = value.get_ref<const std::string &>();
    } else if (value.is_boolean()) {
        name = value.get<bool>() ? "true" : "false";
    }
    const auto found = std::ranges::find(names, name, &named_code::name);
    return found == names.end() ? std::nullopt : std::optional(found->value);
}

fields::fields(reading_state &state, const json &object, const place &where)
    : state_(state), object_(object), where_(where)
{
}

/* expected() is called only to complain. */
template <class Expected>
const json *fields::find(const char *key, need needed, const Expected &expected)
{
    asked_.at(asked_count_++) = key;
    if (!object_.is_object()) {
        return nullptr;
    }
    const auto found = object_.find(key);
    if (found != object_.end()) {
        ++found_count_;
        return &*found;
    }
    if (needed == need::required) {
        complain(state_, where_, std::string("expected the key \"") + key + "\": " + expected());
    }
    return nullptr;
}

const json *fields::value(const char *key, need needed, const char *expected)
{
    return find(key, needed, [&] { return expected; });
}

bool fields::text(const char *key, size_t longest, std::string &into, need needed)
{
    const auto expected = [&] { return "a text of at most " + std::to_string(longest) + " bytes"; };
    const json *found = find(key, needed, expected);
    if (found == nullptr) {
        return false;
    }
    if (!found->is_string()) {
        complain(state_, at(key), expected(), *found);
        return false;
    }
    const auto &given = found->get_ref<const std::string &>();
    if (given.size() > longest) {
        complain(state_, at(key),
                 "expected " + expected() + ", found " + std::to_string(given.size()));
        return false;
    }
    if (given.find('\0') != given.npos) {
        complain(state_, at(key), expected() + " without a zero byte", *found);
        return false;
    }
    into = given;
    return true;
}

bool fields::name(const char *key, size_t longest, std::string &into, need needed)
{
    std::string given;
    if (!text(key, longest, given, needed)) {
        return false;
    }
    if (has_control_character(given)) {
        complain(state_, at(key), "a name without control characters", object_.at(key));
        return false;
    }
    into = std::move(given);
    return true;
}

bool fields::boolean(const char *key, bool &into)
{
    const json *found = find(key, need::optional, [] { return ""; });
    if (found == nullptr) {
        return false;
    }
    if (!found->is_boolean()) {
        complain(state_, at(key), "true or false", *found);
        return false;
    }
    into = found->get<bool>();
    return true;
}

bool fields::number(const char *key, double &into)
{
    const json *found = find(key, need::optional, [] { return ""; });
    if (found == nullptr) {
        return false;
    }
    const std::optional<double> number = code_of(*found, {}, any_reading);
    if (!number) {
        complain(state_, at(key), range_text(any_reading), *found, {});
        return false;
    }
    into = *number;
    return true;
}

bool fields::code(const char *key, code_table names, int32_t &into, need needed)
{
    const auto expected = [&] { return code_text(names, any_code); };
    const json *found = find(key, needed, expected);
    if (found == nullptr) {
        return false;
    }
    const std::optional<double> code = code_of(*found, names, any_code);
    if (!code) {
        complain(state_, at(key), expected(), *found, names_of(names));
        return false;
    }
    into = static_cast<int32_t>(*code);
    return true;
}

bool fields::live(const char *key, code_table names, value_range range, live_value &into,
                  need needed)
{
    const auto expected = [&] { return code_text(names, range) + " or a binding {\"file\": ...}"; };
    const json *found = find(key, needed, expected);
    if (found == nullptr) {
        return false;
    }
    into.names = names;
    into.low = range.low;
    into.high = range.high;
    into.whole = range.whole;
    if (found->is_object()) {
        return read_binding(*found, at(key), into);
    }
    const std::optional<double> constant = code_of(*found, names, range);
    if (!constant) {
        complain(state_, at(key), expected(), *found, names_of(names));
        return false;
    }
    into.constant = *constant;
    return true;
}

void fields::live(const char *key, code_table names, value_range range, rare<live_value> &into,
                  need needed)
{
    live_value value;
    if (live(key, names, range, value, needed)) {
        into = std::move(value);
    }
}

bool fields::read_binding(const json &object, const place &where, live_value &into)
{
    fields binding(state_, object, where);
    std::string file;
    const bool bound = binding.text("file", longest_file_name, file, need::required);
    binding.number("scale", into.scale);
    binding.number("offset", into.offset);
    binding.end();
    if (!bound) {
        return false;
    }
    if (file.empty()) {
        complain(state_, binding.at("file"), "expected the path of a file, found \"\"");
        return false;
    }
    into.file = file.front() == '/' ? file : state_.directory + file;
    return true;
}

bool fields::end()
{
    if (object_.is_object() && found_count_ == object_.size()) {
        return true;
    }
    const std::vector<std::string_view> keys(asked_.data(), asked_.data() + asked_count_);
    std::string listed;
    for (const std::string_view key : keys) {
        listed += (listed.empty() ? "" : ", ") + std::string(key);
    }
    if (!object_.is_object()) {
        complain(state_, where_, "an object of " + listed, object_);
        return false;
    }
    for (const auto &[key, unused] : object_.items()) {
        if (std::ranges::find(keys, key) == keys.end()) {
            complain(state_, {&where_, key, 0},
                     "expected no such key here, only " + listed + nearest_name(key, keys));
        }
    }
    return true;
}

} // namespace described_platform

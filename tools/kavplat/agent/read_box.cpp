#include "read_box.h"

#include <algorithm>
#include <cmath>
#include <map>

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include "words.h"

namespace kavplat_agent
{
namespace
{

using std::optional;

const object_name sys_descr = {1, 3, 6, 1, 2, 1, 1, 1, 0};
const object_name sys_uptime = {1, 3, 6, 1, 2, 1, 1, 3, 0};
const object_name last_change_time = {1, 3, 6, 1, 2, 1, 47, 1, 4, 1, 0};

const object_name start_time = {1, 3, 6, 1, 4, 1, 58213, 2, 70, 101, 1, 1, 1, 0};

const object_name physical_entry = {1, 3, 6, 1, 2, 1, 47, 1, 1, 1, 1};
const object_name sensor_entry = {1, 3, 6, 1, 2, 1, 99, 1, 1, 1};
const object_name state_entry = {1, 3, 6, 1, 2, 1, 131, 1, 1, 1};

/* A table of KAV-PLATFORM-MIB. */
object_name platform_entry(unsigned long table)
{
    return {1, 3, 6, 1, 4, 1, 58213, 2, 70, 101, 1, 1, table, 1};
}

/* Rows of some columns, each as what there is of it. */
class table
{
  public:
    table(const object_name &entry, std::span<const unsigned long> wanted)
    {
        for (const unsigned long number : wanted) {
            object_name root = entry;
            root.push_back(number);
            columns_.push_back({root, {}, {}});
            numbers_.push_back(number);
        }
    }

    std::string read(session &from, size_t &answer_size, std::vector<std::string> &troubles)
    {
        std::string failure = read_columns(from, columns_, answer_size);
        for (const column &each : columns_) {
            if (!each.trouble.empty()) {
                troubles.push_back("column " + to_text(each.root) +
                                   " was not read to its end: " + each.trouble);
            }
        }
        for (size_t i = 0; i < columns_.size(); ++i) {
            for (const cell &each : columns_[i].cells) {
                rows_[each.index].resize(columns_.size());
                rows_[each.index][i] = &each.content;
            }
        }
        return failure;
    }

    using row = std::vector<const value *>;
    const std::map<uint32_t, row> &rows() const { return rows_; }

    const value *at(const row &of, unsigned long number) const
    {
        const auto found = std::ranges::find(numbers_, number);
        return of[static_cast<size_t>(found - numbers_.begin())];
    }
    optional<int64_t> number(const row &of, unsigned long column_number) const
    {
        const value *found = at(of, column_number);
        return found != nullptr && found->is == value::kind::number
                   ? optional<int64_t>(found->number)
                   : std::nullopt;
    }
    std::string text(const row &of, unsigned long column_number) const
    {
        const value *found = at(of, column_number);
        return found != nullptr && found->is == value::kind::text ? found->text : "";
    }

  private:
    std::vector<column> columns_;
    std::vector<unsigned long> numbers_;
    std::map<uint32_t, row> rows_;
};

int32_t code(optional<int64_t> number, int32_t otherwise)
{
    return number ? static_cast<int32_t>(*number) : otherwise;
}

optional<int32_t> code(optional<int64_t> number)
{
    return number ? optional(static_cast<int32_t>(*number)) : std::nullopt;
}

/* Texts of some agents end with octets of 0 or with blanks. */
std::string trimmed(std::string text)
{
    while (!text.empty() && (text.back() == '\0' || text.back() == ' ')) {
        text.pop_back();
    }
    return text;
}

entity *entity_at(box &all, uint32_t index)
{
    const auto found = std::ranges::lower_bound(all.entities, index, {}, &entity::index);
    return found != all.entities.end() && found->index == index ? &*found : nullptr;
}

std::string read_physical(session &from, size_t &answer_size, box &into)
{
    constexpr unsigned long wanted[] = {2, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 16};
    table read(physical_entry, wanted);
    std::string failure = read.read(from, answer_size, into.troubles);
    if (!failure.empty()) {
        return failure;
    }
    for (const auto &[index, row] : read.rows()) {
        entity each;
        each.index = index;
        each.description = trimmed(read.text(row, 2));
        each.contained_in = static_cast<uint32_t>(read.number(row, 4).value_or(0));
        each.class_code = code(read.number(row, 5), 0);
        each.position = code(read.number(row, 6), -1);
        each.name = trimmed(read.text(row, 7));
        each.hardware_revision = trimmed(read.text(row, 8));
        each.firmware_revision = trimmed(read.text(row, 9));
        each.software_revision = trimmed(read.text(row, 10));
        each.serial = trimmed(read.text(row, 11));
        each.manufacturer = trimmed(read.text(row, 12));
        each.model = trimmed(read.text(row, 13));
        each.alias = trimmed(read.text(row, 14));
        if (const optional<int64_t> is_fru = read.number(row, 16)) {
            each.is_fru = *is_fru == 1;
        }
        into.entities.push_back(std::move(each));
    }
    return "";
}

std::string unit_of(int64_t type, const std::string &display)
{
    switch (type) {
    case 3:
        return "V AC";
    case 4:
        return "V";
    case 5:
        return "A";
    case 6:
        return "W";
    case 7:
        return "Hz";
    case 8:
        return "°C";
    case 9:
        return "%";
    case 10:
        return "rpm";
    case 11:
        return "m³/min";
    case 14:
        return "dBm";
    default:
        return printable(display);
    }
}

constexpr int64_t truth_value = 12;

void take_sensor(const table &read, const table::row &row, entity &into)
{
    reading sensor;
    const int64_t type = read.number(row, 1).value_or(1);
    /* units(9), and three powers of ten a step. */
    const int64_t scale = std::clamp<int64_t>((read.number(row, 2).value_or(9) - 9) * 3, -24, 24);
    const int64_t precision = std::clamp<int64_t>(read.number(row, 3).value_or(0), -8, 9);
    const optional<int64_t> number = read.number(row, 4);
    const int64_t status = read.number(row, 5).value_or(1);
    sensor.status = status == 2   ? sensor_status::unavailable
                    : status == 3 ? sensor_status::nonoperational
                                  : sensor_status::ok;
    if (type == truth_value) {
        sensor.two_states = true;
        if (number) {
            sensor.state = *number == 1;
        }
    } else {
        constexpr int64_t end = 1000000000;
        sensor.unit = unit_of(type, trimmed(read.text(row, 6)));
        /* A negative precision says which digits are true, and moves no point. */
        const int64_t decimals = std::max<int64_t>(precision, 0) - scale;
        sensor.decimals = static_cast<int>(std::clamp<int64_t>(decimals, 0, 9));
        if (number) {
            sensor.number =
                static_cast<double>(*number) * std::pow(10.0, -static_cast<double>(decimals));
            sensor.beyond = *number >= end || *number <= -end;
        }
    }
    into.sensor = sensor;
}

std::string read_sensors(session &from, size_t &answer_size, box &into)
{
    constexpr unsigned long wanted[] = {1, 2, 3, 4, 5, 6};
    table read(sensor_entry, wanted);
    std::string failure = read.read(from, answer_size, into.troubles);
    for (const auto &[index, row] : read.rows()) {
        if (entity *each = entity_at(into, index)) {
            take_sensor(read, row, *each);
            into.has_sensors = true;
        }
    }
    return failure;
}

std::string read_states(session &from, size_t &answer_size, box &into)
{
    constexpr unsigned long wanted[] = {2, 3, 5, 6};
    table read(state_entry, wanted);
    std::string failure = read.read(from, answer_size, into.troubles);
    for (const auto &[index, row] : read.rows()) {
        entity *each = entity_at(into, index);
        if (each == nullptr) {
            continue;
        }
        into.has_states = true;
        each->admin = code(read.number(row, 2));
        each->oper = code(read.number(row, 3));
        each->standby = code(read.number(row, 6));
        if (const std::string alarms = read.text(row, 5);
            read.at(row, 5) != nullptr && read.at(row, 5)->is == value::kind::text) {
            each->alarms = alarms.empty() ? uint8_t{0} : static_cast<uint8_t>(alarms.front());
        }
    }
    return failure;
}

std::string read_equipment(session &from, size_t &answer_size, box &into)
{
    /* The severity has the sensor read, and the state follows it. Where the standard's table
     * told all states they are not asked for twice. */
    constexpr unsigned long wanted[] = {3, 1, 2};
    const bool states_are_known = std::ranges::all_of(
        into.entities, [](const entity &each) { return each.admin && each.oper; });
    table read(platform_entry(2), std::span(wanted).first(states_are_known ? 1 : 3));
    std::string failure = read.read(from, answer_size, into.troubles);
    for (const auto &[index, row] : read.rows()) {
        entity *each = entity_at(into, index);
        if (each == nullptr) {
            continue;
        }
        into.has_states = true;
        each->severity = code(read.number(row, 3));
        if (states_are_known) {
            continue;
        }
        /* Its words by the numbers of the standard. */
        const optional<int64_t> admin = read.number(row, 1);
        if (!each->admin && admin) {
            constexpr int32_t standard[] = {2, 4, 3};
            each->admin = *admin >= 1 && *admin <= 3 ? standard[*admin - 1] : 1;
        }
        const optional<int64_t> oper = read.number(row, 2);
        if (!each->oper && oper) {
            each->oper = *oper == 1 ? 2 : 3;
        }
    }
    return failure;
}

/* Units of KAV-PLATFORM-MIB; some are served as degrees C by the standard's table. */
struct platform_unit {
    int64_t code;
    const char *name;
};
constexpr platform_unit platform_units[] = {
    {3, "°C"}, {4, "°F"},   {5, "K"},   {6, "V"},  {7, "A"},
    {8, "W"},  {20, "rpm"}, {21, "Hz"}, {24, "h"}, {66, "%"},
};

double converted(double number, const std::string &from, const std::string &to)
{
    if (to == "°C" && from == "°F") {
        return (number - 32) * 5 / 9;
    }
    return to == "°C" && from == "K" ? number - 273.15 : number;
}

/* Limits, and the reading where the standard's table did not tell it. */
void take_numeric(const table &read, const table::row &row, entity &into, bool standard_is_there)
{
    const auto unit =
        std::ranges::find(platform_units, read.number(row, 1).value_or(1), &platform_unit::code);
    const std::string unit_name = unit == std::end(platform_units) ? "" : unit->name;
    const int64_t exponent = std::clamp<int64_t>(read.number(row, 2).value_or(0), -9, 9);
    const double factor = std::pow(10.0, static_cast<double>(exponent));
    if (!into.sensor) {
        reading sensor;
        sensor.unit = unit_name;
        sensor.decimals = static_cast<int>(std::max<int64_t>(-exponent, 0));
        if (const optional<int64_t> number = read.number(row, 4)) {
            sensor.number = static_cast<double>(*number) * factor;
        }
        into.sensor = sensor;
    }
    struct column_of {
        limit which;
        unsigned long number;
        unsigned bit;
    };
    constexpr column_of columns[] = {
        {lower_warning, 8, 0},   {upper_warning, 9, 1}, {lower_critical, 10, 2},
        {upper_critical, 11, 3}, {lower_fatal, 12, 4},  {upper_fatal, 13, 5},
    };
    const std::string in_force = read.text(row, 15);
    const unsigned bits = in_force.empty() ? 0 : static_cast<unsigned char>(in_force.front());
    bool all_are_zero = true;
    for (const column_of &each : columns) {
        const optional<int64_t> number = read.number(row, each.number);
        if (number && ((bits << each.bit) & 0x80U) != 0) {
            all_are_zero = all_are_zero && *number == 0;
            into.sensor->limits[each.which] =
                converted(static_cast<double>(*number) * factor, unit_name, into.sensor->unit);
        }
    }
    /* What counts slots is no measurement and has limits of 0, all in force. */
    if (bits == 0xFC && all_are_zero) {
        into.sensor->limits = {};
        into.severity.reset();
        into.alarms.reset();
        if (standard_is_there) {
            into.sensor->unit.clear();
        }
    }
}

std::string read_platform_sensors(session &from, size_t &answer_size, box &into)
{
    const bool standard_is_there = into.has_sensors;
    constexpr unsigned long kinds_wanted[] = {2};
    table kinds(platform_entry(6), kinds_wanted);
    constexpr unsigned long numbers_wanted[] = {2, 1, 4, 8, 9, 10, 11, 12, 13, 15};
    table numbers(platform_entry(8), numbers_wanted);
    constexpr unsigned long states_wanted[] = {1, 2, 3, 4};
    table states(platform_entry(7), states_wanted);
    constexpr unsigned long lights_wanted[] = {2};
    table lights(platform_entry(12), lights_wanted);
    for (table *each : {&numbers, &states, &kinds, &lights}) {
        if (std::string failure = each->read(from, answer_size, into.troubles); !failure.empty()) {
            return failure;
        }
    }
    for (const auto &[index, row] : numbers.rows()) {
        if (entity *each = entity_at(into, index)) {
            take_numeric(numbers, row, *each, standard_is_there);
            into.has_sensors = true;
        }
    }
    for (const auto &[index, row] : states.rows()) {
        entity *each = entity_at(into, index);
        const optional<int64_t> state = states.number(row, 1);
        if (each == nullptr || !state) {
            continue;
        }
        into.has_sensors = true;
        if (!each->sensor) {
            each->sensor.emplace();
        }
        each->sensor->two_states = true;
        each->sensor->state = *state == 1;
        each->sensor->text = trimmed(states.text(row, *state == 1 ? 3 : 4));
        if (const optional<int64_t> expected = states.number(row, 2)) {
            each->sensor->expected = *expected == 1;
        }
    }
    constexpr int64_t presence = 12;
    for (const auto &[index, row] : kinds.rows()) {
        entity *each = entity_at(into, index);
        if (each != nullptr && each->sensor && kinds.number(row, 2) == presence) {
            each->sensor->tells_presence = true;
        }
    }
    for (const auto &[index, row] : lights.rows()) {
        if (entity *each = entity_at(into, index)) {
            each->light = code(lights.number(row, 2));
        }
    }
    return "";
}

bool serves_platform(session &from, std::string &failure)
{
    const object_name root[] = {platform_entry(2)};
    const reply answer = from.get_next(root);
    failure = answer.failure;
    return answer.failure.empty() && answer.error == 0 && !answer.values.empty() &&
           is_below(answer.values.front().name, {1, 3, 6, 1, 4, 1, 58213, 2, 70, 101, 1, 1});
}

/* The agent answered and has not one entity: what it has instead. */
std::string explain_nothing(const session &from, const box &read, bool knows_itself)
{
    if (!knows_itself) {
        return from.agent() +
               ": it answers, but shows neither ENTITY-MIB (1.3.6.1.2.1.47) nor who it is: there "
               "is "
               "no such view for the community or user, so see view, access and rocommunity in its "
               "snmpd.conf";
    }
    return from.agent() + ": there is no ENTITY-MIB (1.3.6.1.2.1.47) there. It says that it is \"" +
           printable(read.system) +
           "\". Of our agent: does its snmpd.conf load the module (dlmod entityMIB), and does its "
           "log say that the cache is ready? Of another: does the view of the community or user "
           "hold 1.3.6.1.2.1.47?";
}

uint32_t ticks(const value &from)
{
    return from.is == value::kind::number ? static_cast<uint32_t>(from.number) : 0;
}

} // namespace

bool read_mark(session &from, change_mark &into, std::string &failure)
{
    std::vector<object_name> names = {sys_uptime, last_change_time, start_time};
    reply answer = from.get(names);
    /* Version 1 answers all or nothing. */
    while (answer.error == SNMP_ERR_NOSUCHNAME && answer.error_index >= 1 &&
           static_cast<size_t>(answer.error_index) <= names.size() && names.size() > 1) {
        names.erase(names.begin() + (answer.error_index - 1));
        answer = from.get(names);
    }
    failure = answer.failure;
    into = {};
    for (const value &each : answer.error == 0 ? answer.values : std::vector<value>{}) {
        if (each.name == sys_uptime) {
            into.uptime = ticks(each);
        } else if (each.name == last_change_time) {
            into.last_change = ticks(each);
        } else if (each.name == start_time) {
            into.started = each.text;
        }
    }
    return failure.empty();
}

std::string read_live(session &from, box &into)
{
    const auto begin = std::chrono::steady_clock::now();
    const size_t requests_before = from.requests();
    size_t answer_size = usual_answer;
    into.has_sensors = false;
    into.has_states = false;
    for (entity &each : into.entities) {
        each.admin.reset();
        each.oper.reset();
        each.standby.reset();
        each.alarms.reset();
        each.severity.reset();
        each.light.reset();
        each.sensor.reset();
    }
    std::string failure = read_sensors(from, answer_size, into);
    if (failure.empty()) {
        failure = read_states(from, answer_size, into);
    }
    if (failure.empty() && serves_platform(from, failure)) {
        failure = read_equipment(from, answer_size, into);
        if (failure.empty()) {
            failure = read_platform_sensors(from, answer_size, into);
        }
    }
    judge(into);
    into.requests = from.requests() - requests_before;
    into.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    return failure;
}

std::string read_box(session &from, box &into)
{
    const auto begin = std::chrono::steady_clock::now();
    const size_t requests_before = from.requests();
    into = {};
    into.agent = from.agent();
    /* Each by itself: version 1 answers all or nothing. */
    const object_name descr[] = {sys_descr};
    const reply first = from.get(descr);
    if (!first.failure.empty()) {
        return first.failure;
    }
    const bool knows_itself =
        first.error == 0 && !first.values.empty() && first.values.front().is == value::kind::text;
    if (knows_itself) {
        into.system = first.values.front().text;
    }
    std::string failure;
    if (!read_mark(from, into.mark, failure)) {
        return failure;
    }
    size_t answer_size = usual_answer;
    failure = read_physical(from, answer_size, into);
    if (!failure.empty()) {
        return failure;
    }
    if (into.entities.empty()) {
        return explain_nothing(from, into, knows_itself);
    }
    failure = read_live(from, into);
    if (!failure.empty()) {
        into.troubles.push_back("not all was read: " + failure);
    }
    make_tree(into);
    judge(into);
    into.requests = from.requests() - requests_before;
    into.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    return "";
}

} // namespace kavplat_agent

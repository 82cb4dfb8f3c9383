// ENTITY-STATE-MIB as managers read it from a real agent. What has to be served is
// worked out from the description's JSON and the written rules alone.
#include <algorithm>
#include <ctime>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "e2e/expected_rows.h"
#include "harness/agent.h"
#include "harness/client.h"
#include "harness/names.h"

namespace
{

using nlohmann::json;
using std::string;
using std::vector;

const object_name state_entry = {1, 3, 6, 1, 2, 1, 131, 1, 1, 1};
constexpr char load_states[] = "dlmod entityStateMIB " KAVPLAT_MODULE "\n";

enum : unsigned { alarm_unknown = 0x80, critical = 0x20, major = 0x10, warning = 0x04 };

struct expected_states {
    int64_t admin = 4;   // unlocked
    int64_t oper = 3;    // enabled
    int64_t usage = 1;   // unknown
    unsigned alarm = 0;  // nothing is raised
    int64_t standby = 1; // unknown
    bool operator==(const expected_states &) const = default;
};

void PrintTo(const expected_states &s, std::ostream *out)
{
    *out << "admin " << s.admin << ", oper " << s.oper << ", usage " << s.usage << ", alarm "
         << std::hex << s.alarm << std::dec << ", standby " << s.standby;
}

// One description, by the names of its components.
class described_server
{
  public:
    explicit described_server(const std::filesystem::path &description)
        : rows_(expected_rows(description, ""))
    {
        const json document = json::parse(std::ifstream(description));
        for (const json &component : document.at("components")) {
            const string name = component.at("name");
            components_[name] = component;
            held_by_[name.substr(0, name.rfind('/'))].push_back(name);
        }
        for (const expected_row &row : rows_) {
            kinds_[row.name] = &row;
        }
    }

    std::map<string, expected_states> states() const
    {
        std::map<string, expected_states> all;
        for (const auto &[name, component] : components_) {
            all[name] = states_of(name, component);
        }
        return all;
    }

  private:
    const json &component(const string &name) const { return components_.at(name); }

    static bool can(const json &component, const string &capability)
    {
        const json all = component.value("capabilities", json::array());
        return std::find(all.begin(), all.end(), capability) != all.end();
    }

    vector<string> held_by(const string &name) const
    {
        const auto found = held_by_.find(name);
        return found != held_by_.end() ? found->second : vector<string>();
    }

    static bool is_bound(const json &value) { return value.is_object(); }

    static bool is_valid(const json &sensor)
    {
        const json valid = sensor.value("valid", json(true));
        return valid == json(true) || (valid.is_number() && valid != json(0));
    }

    static bool reads(const json &sensor)
    {
        return is_valid(sensor) && !is_bound(sensor.at("reading"));
    }

    static bool is_true(const json &sensor)
    {
        const json &reading = sensor.at("reading");
        return reading == "asserted" || reading == "present" || reading == json(2);
    }

    // Whether a yes/no says what it says when all is well.
    static bool is_as_expected(const json &sensor)
    {
        bool expected = sensor.value("ok_semantics", false) || sensor.at("type") == "presence";
        if (sensor.contains("state")) {
            const json &state = sensor.at("state");
            expected = state != "failed" && state != json(1);
        }
        return is_true(sensor) == expected;
    }

    static unsigned crossed(const json &sensor)
    {
        const auto reading = sensor.at("reading").get<float>();
        unsigned raised = 0;
        const json limits = sensor.value("thresholds", json::object());
        for (const auto &[name, limit] : limits.items()) {
            const bool is_crossed = name.starts_with("upper") ? reading >= limit.get<float>()
                                                              : reading <= limit.get<float>();
            const unsigned worth = name.ends_with("fatal")          ? critical
                                   : name.ends_with("non_critical") ? warning
                                                                    : major;
            raised |= is_crossed ? worth : 0U;
        }
        return raised;
    }

    static unsigned raised_by_sensor(const json &component)
    {
        const json &sensor = component.at("sensor");
        const json &type = component.at("type");
        if (type == "slot-identity") {
            return 0;
        }
        if (!reads(sensor)) {
            return alarm_unknown;
        }
        if (sensor.at("class") == "threshold") {
            return crossed(sensor);
        }
        if (is_as_expected(sensor)) {
            return 0;
        }
        return type == "fault-sensor" ? major : type == "predictive-sensor" ? warning : 0U;
    }

    // However it blinks; 9 is a code that there is not.
    static unsigned raised_by_indicator(const json &component)
    {
        const json &led = component.at("indicator");
        const json &state = led.at("state");
        const string means = led.value("means", "");
        if (is_bound(state) || state == "off" || state == 9 || means.empty()) {
            return 0;
        }
        return means == "fault" ? critical : warning;
    }

    static int64_t admin_of(const json &component)
    {
        enum { locked = 2, shutting_down = 3, unlocked = 4 };
        if (!can(component, "field-replaceable")) {
            return unlocked;
        }
        if (component.contains("ready_to_remove")) {
            return component["ready_to_remove"] == "not-ready" ? unlocked : locked;
        }
        if (!component.contains("power") || component["power"] == "on") {
            return unlocked;
        }
        return component["power"] == "shutting-down" ? shutting_down : locked;
    }

    expected_states of_sensor(const json &component) const
    {
        const json &sensor = component.at("sensor");
        expected_states s;
        s.admin = admin_of(component);
        s.oper = is_bound(sensor.at("reading")) ? 1 : is_valid(sensor) ? 3 : 2;
        s.alarm = raised_by_sensor(component);
        return s;
    }

    bool is_failed(const string &name) const
    {
        for (const string &held : held_by(name)) {
            const json &c = component(held);
            if (c.at("type") == "fault-sensor" && reads(c["sensor"]) &&
                !is_as_expected(c["sensor"])) {
                return true;
            }
        }
        return false;
    }

    int64_t usage_of(const string &name) const
    {
        enum { unknown = 1, idle = 2, busy = 4 };
        if (!can(component(name), "holder")) {
            return unknown;
        }
        std::optional<bool> told;
        bool is_listed = false;
        for (const string &held : held_by(name)) {
            const json &c = component(held);
            if (c.contains("sensor") && c["sensor"].at("type") == "presence" &&
                reads(c["sensor"])) {
                told = told.value_or(false) || is_true(c["sensor"]);
            }
            constexpr long container = 5;
            is_listed = is_listed || (!c.contains("sensor") && !c.contains("indicator") &&
                                      kinds_.at(held)->physical_class != container);
        }
        return told.value_or(is_listed) ? busy : idle;
    }

    int64_t standby_of(const string &name, int64_t admin, int64_t oper) const
    {
        enum { unknown = 1, providing_service = 4, power_supply = 6, fan = 7 };
        enum { unlocked = 4, enabled = 3 };
        const long physical_class = kinds_.at(name)->physical_class;
        if ((physical_class != power_supply && physical_class != fan) || admin != unlocked ||
            oper != enabled) {
            return unknown;
        }
        bool turns = false;
        bool stands = false;
        for (const string &held : held_by(name)) {
            const json sensor = component(held).value("sensor", json());
            if (sensor.is_null() || !reads(sensor)) {
                continue;
            }
            if (sensor.value("units", "") == "rpm") {
                (sensor.at("reading") > 0 ? turns : stands) = true;
            } else if (sensor.at("type") == "presence" && !is_true(sensor)) {
                return unknown;
            }
        }
        return stands && !turns ? unknown : providing_service;
    }

    expected_states states_of(const string &name, const json &component) const
    {
        if (component.contains("sensor")) {
            return of_sensor(component);
        }
        expected_states s;
        s.admin = admin_of(component);
        s.oper =
            can(component, "enable-state") && component.value("enable", "") == "disabled" ? 2 : 3;
        if (component.contains("indicator")) {
            return s;
        }
        s.oper = is_failed(name) ? 2 : s.oper;
        s.usage = usage_of(name);
        s.standby = standby_of(name, s.admin, s.oper);
        for (const string &held : held_by(name)) {
            const json &c = this->component(held);
            s.alarm |= c.contains("sensor")      ? raised_by_sensor(c) & ~unsigned{alarm_unknown}
                       : c.contains("indicator") ? raised_by_indicator(c)
                                                 : 0U;
        }
        return s;
    }

    vector<expected_row> rows_;
    std::map<string, json> components_;
    std::map<string, vector<string>> held_by_;
    std::map<string, const expected_row *> kinds_;
};

std::map<unsigned long, string> names_by_index(snmp_client &client)
{
    std::map<unsigned long, string> names;
    for (const varbind &v : client.bulk_walk(ent_column(7), 50)) {
        names[v.name.back()] = v.value.text;
    }
    return names;
}

// The moment of a DateAndTime of 11 octets in UTC.
std::optional<time_t> moment_of(const string &text)
{
    const auto octet = [&text](size_t i) { return static_cast<unsigned char>(text[i]); };
    if (text.size() != 11 || text[8] != '+' || octet(9) != 0 || octet(10) != 0 || octet(7) > 9) {
        return std::nullopt;
    }
    std::tm time = {};
    time.tm_year = octet(0) * 256 + octet(1) - 1900;
    time.tm_mon = octet(2) - 1;
    time.tm_mday = octet(3);
    time.tm_hour = octet(4);
    time.tm_min = octet(5);
    time.tm_sec = octet(6);
    return timegm(&time);
}

struct served_states {
    std::map<string, expected_states> rows;
    std::map<string, time_t> changed;
};

served_states look_at(snmp_client &client, const vector<varbind> &walked)
{
    const std::map<unsigned long, string> names = names_by_index(client);
    std::map<string, std::map<unsigned long, snmp_value>> cells;
    for (const varbind &v : walked) {
        EXPECT_EQ(v.name.size(), state_entry.size() + 2) << to_text(v.name);
        cells[names.at(v.name.back())][v.name[state_entry.size()]] = v.value;
    }
    served_states served;
    for (auto &[name, cell] : cells) {
        EXPECT_EQ(cell.size(), 6U) << name;
        EXPECT_EQ(cell[5].text.size(), 1U) << name;
        served.rows[name] = {cell[2].number, cell[3].number, cell[4].number,
                             static_cast<unsigned char>(cell[5].text[0]), cell[6].number};
        const std::optional<time_t> changed = moment_of(cell[1].text);
        EXPECT_TRUE(changed) << name << ": " << testing::PrintToString(cell[1].text);
        served.changed[name] = changed.value_or(0);
    }
    return served;
}

TEST(states, are_those_of_the_description_by_every_kind_of_request)
{
    for (const char *description : {"servers/rack-2u.json", "servers/minimal.json"}) {
        SCOPED_TRACE(description);
        agent server({.description = description, .configuration = load_states});
        const time_t before = time(nullptr);
        ASSERT_NO_THROW(server.start());
        const std::map<string, expected_states> expected =
            described_server(server.description()).states();
        snmp_client client(server.port());
        const vector<varbind> walked = client.walk(state_entry);
        const served_states served = look_at(client, walked);
        EXPECT_EQ(served.rows, expected);
        for (const auto &[name, changed] : served.changed) {
            EXPECT_GE(changed, before) << name << " has the time when its row was made";
            EXPECT_LE(changed, time(nullptr)) << name;
        }
        EXPECT_EQ(client.bulk_walk(state_entry, 40), walked);
        vector<varbind> one_by_one;
        vector<varbind> in_threes;
        for (size_t i = 0; i < walked.size(); i++) {
            const snmp_answer answer = client.get({walked[i].name});
            one_by_one.insert(one_by_one.end(), answer.varbinds.begin(), answer.varbinds.end());
            if (i % 3 == 2) { // against the order of rows and columns
                const snmp_answer three =
                    client.get({walked[i].name, walked[i - 2].name, walked[i - 1].name});
                ASSERT_EQ(three.varbinds.size(), 3U);
                in_threes.insert(in_threes.end(),
                                 {three.varbinds[1], three.varbinds[2], three.varbinds[0]});
            }
        }
        EXPECT_EQ(one_by_one, walked);
        EXPECT_EQ(in_threes, walked);
    }
}

// That the description has enough for the comparison to prove anything.
TEST(states, of_the_rack_server_are_of_every_kind)
{
    const auto expected =
        described_server(std::filesystem::path(KAVPLAT_SOURCE_DIR) / "servers/rack-2u.json")
            .states();
    std::map<string, std::set<int64_t>> seen;
    for (const auto &[name, s] : expected) {
        seen["admin"].insert(s.admin);
        seen["oper"].insert(s.oper);
        seen["usage"].insert(s.usage);
        seen["alarm"].insert(s.alarm);
        seen["standby"].insert(s.standby);
    }
    EXPECT_EQ(seen["admin"], (std::set<int64_t>{2, 3, 4}));
    EXPECT_TRUE(seen["oper"].contains(2) && seen["oper"].contains(3));
    EXPECT_EQ(seen["usage"], (std::set<int64_t>{1, 2, 4}));
    EXPECT_EQ(seen["standby"], (std::set<int64_t>{1, 4}));
    for (const unsigned alarm : {0U, 0x80U, 0x34U, 0x14U, 0x10U, 0x04U}) {
        EXPECT_TRUE(seen["alarm"].contains(alarm)) << std::hex << alarm;
    }
    // One that runs, and one that is switched off.
    EXPECT_EQ(expected.at("/SYS/PB0/PS").standby, 4);
    EXPECT_EQ(expected.at("/SYS/PDB/DC1").standby, 1);
    // By lights alone, and beside a sensor.
    EXPECT_EQ(expected.at("/SYS/HDD2").alarm, warning);
    EXPECT_EQ(expected.at("/SYS/HDD2/SERVICE").alarm, 0U);
    EXPECT_EQ(expected.at("/SYS/FM4").alarm, critical | major);
}

TEST(states, nobody_can_set)
{
    agent server({.configuration = string(load_states) + "rwcommunity writer 127.0.0.1\n"});
    ASSERT_NO_THROW(server.start());
    snmp_client writer(server.port(), "writer");
    object_name admin = state_entry;
    admin.insert(admin.end(), {2, 1});
    constexpr long not_writable = 17;
    EXPECT_EQ(writer.set({{admin, integer_value(2)}}).error, not_writable);
    EXPECT_EQ(writer.get({admin}).varbinds.at(0).value, integer_value(4));
}

TEST(states_module, says_so_and_serves_nothing_without_the_physical_entities)
{
    agent server({.whole_configuration = string("agentAddress udp:127.0.0.1:161\n"
                                                "rocommunity public 127.0.0.1\n") +
                                         load_states,
                  .wait_for_cache = false});
    ASSERT_NO_THROW(server.start());
    EXPECT_EQ(server.log_count("entityStateMIB: nothing is served without entityMIB: put a "
                               "dlmod line for entityMIB before this module's"),
              1U);
    EXPECT_FALSE(snmp_client(server.port()).answers_getnext(state_entry));
}

TEST(states_module, is_told_by_the_agent_among_what_it_serves)
{
    agent server({.configuration = string(load_states) + load_states});
    ASSERT_NO_THROW(server.start());
    EXPECT_EQ(server.log_count("entityStateMIB: loaded again, which changes nothing"), 1U);
    const object_name sysORID = {1, 3, 6, 1, 2, 1, 1, 9, 1, 2};
    size_t told = 0;
    for (const varbind &v : snmp_client(server.port()).walk(sysORID)) {
        told += v.value.object == object_name{1, 3, 6, 1, 2, 1, 131} ? 1U : 0U;
    }
    EXPECT_EQ(told, 1U) << "once, though it was loaded twice";
}

} // namespace

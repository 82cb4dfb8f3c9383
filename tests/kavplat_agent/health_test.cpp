// kavplat health: one line for a monitor, with what a monitor draws.
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "tools/kavplat/health/command.h"

namespace
{

using namespace kavplat_agent;
using kavplat_health::options;
using std::string;

entity made(uint32_t index, uint32_t contained_in, const string &name)
{
    entity each;
    each.index = index;
    each.contained_in = contained_in;
    each.name = name;
    each.class_code = contained_in == 0 ? 3 : 8;
    return each;
}

entity measured(uint32_t index, const string &name, double number, double warns, double alarms)
{
    entity each = made(index, 1, name);
    each.sensor.emplace();
    each.sensor->number = number;
    each.sensor->decimals = 1;
    each.sensor->unit = "°C";
    each.sensor->limits[upper_warning] = warns;
    each.sensor->limits[upper_critical] = alarms;
    return each;
}

box of(std::vector<entity> entities)
{
    box all;
    all.agent = "rack7";
    all.has_sensors = true;
    all.entities = std::move(entities);
    make_tree(all);
    judge(all);
    return all;
}

struct said {
    kavplat_health::status status;
    string first;
    string rest;
};

said report(const box &all, const options &asked = {})
{
    std::ostringstream text;
    const kavplat_health::status status = kavplat_health::report(asked, all, text);
    const string whole = text.str();
    const size_t end = whole.find('\n');
    return {status, whole.substr(0, end), whole.substr(end + 1)};
}

entity unreadable(uint32_t index, const string &name)
{
    entity each = measured(index, name, 0, 1, 2);
    each.sensor->status = sensor_status::unavailable;
    return each;
}

entity absent(uint32_t index, const string &name)
{
    entity each = made(index, 1, name);
    each.sensor.emplace();
    each.sensor->two_states = each.sensor->tells_presence = true;
    each.sensor->state = false;
    each.sensor->expected = true;
    return each;
}

TEST(kavplat_health, tells_the_gravest_first_and_by_its_status)
{
    const entity good = measured(2, "/SYS/A", 20, 40, 50);
    const entity warm = measured(3, "/SYS/B", 45, 40, 50);
    const entity hot = measured(4, "/SYS/C", 55, 40, 50);
    const entity silent = unreadable(5, "/SYS/D");
    const entity root = made(1, 0, "/SYS");
    EXPECT_EQ(report(of({root, good})).first,
              "HARDWARE OK - 2 components, 1 sensor, nothing is wrong | '/SYS/A'=20;~:40;~:50");
    struct reported {
        std::vector<entity> entities;
        kavplat_health::status status;
        const char *begins;
    };
    const reported cases[] = {
        {{root, good}, kavplat_health::ok, "HARDWARE OK - "},
        {{root, good, warm}, kavplat_health::warning, "HARDWARE WARNING - /SYS/B: 45.0 °C at or"},
        {{root, warm, hot}, kavplat_health::critical, "HARDWARE CRITICAL - /SYS/C: 55.0 °C at or"},
        {{root, good, silent}, kavplat_health::unknown, "HARDWARE UNKNOWN - /SYS/D: its reading"},
        {{root, warm, silent}, kavplat_health::warning, "HARDWARE WARNING - /SYS/B: "},
        {{root, hot, silent}, kavplat_health::critical, "HARDWARE CRITICAL - /SYS/C: "},
        {{root}, kavplat_health::unknown, "HARDWARE UNKNOWN - the agent tells of no states"},
    };
    for (const reported &each : cases) {
        const said got = report(of(each.entities));
        EXPECT_EQ(got.status, each.status) << got.first;
        EXPECT_TRUE(got.first.starts_with(each.begins)) << got.first;
    }
    const said all = report(of({root, good, warm, hot, silent}));
    EXPECT_EQ(all.rest, "CRITICAL: /SYS/C: 55.0 °C at or above 50.0 °C (upper critical)\n"
                        "WARNING: /SYS/B: 45.0 °C at or above 40.0 °C (upper warning)\n"
                        "UNKNOWN: /SYS/D: its reading cannot be had\n");
}

TEST(kavplat_health, judges_what_is_included_and_not_excluded)
{
    entity hot = measured(4, "/SYS/FAN0/T", 55, 40, 50);
    hot.contained_in = 3;
    const box all =
        of({made(1, 0, "/SYS"), measured(2, "/SYS/A", 20, 40, 50), made(3, 1, "/SYS/FAN0"), hot});
    struct chosen {
        std::vector<string> include;
        std::vector<string> exclude;
        kavplat_health::status status;
    };
    const chosen cases[] = {
        {{}, {}, kavplat_health::critical},
        {{"/SYS/A"}, {}, kavplat_health::ok},
        {{"*FAN*"}, {}, kavplat_health::critical},
        {{}, {"/SYS/FAN?/*"}, kavplat_health::ok},
        {{"*FAN*", "/SYS/A"}, {"*FAN*"}, kavplat_health::ok},
        {{"/SYS/FAN0"}, {}, kavplat_health::critical},
        {{}, {"/SYS/FAN0"}, kavplat_health::ok},
        {{"/SYS/B"}, {}, kavplat_health::unknown},
    };
    for (const chosen &each : cases) {
        options asked;
        asked.include = each.include;
        asked.exclude = each.exclude;
        EXPECT_EQ(report(all, asked).status, each.status)
            << (each.include.empty() ? "" : each.include[0]);
    }
}

TEST(kavplat_health, tells_what_is_missing_as_it_is_asked)
{
    const box all = of({made(1, 0, "/SYS"), made(2, 1, "/SYS/HDD3"), [] {
                            entity each = absent(3, "/SYS/HDD3/PRSNT");
                            each.contained_in = 2;
                            return each;
                        }()});
    EXPECT_EQ(report(all).status, kavplat_health::ok);
    EXPECT_EQ(report(all).rest, "absent: /SYS/HDD3\n");
    options asked;
    asked.missing = "critical";
    EXPECT_EQ(report(all, asked).first, "HARDWARE CRITICAL - /SYS/HDD3 is missing (1 absent)");
    asked.missing = "warning";
    EXPECT_EQ(report(all, asked).status, kavplat_health::warning);
    asked.missing = "ok";
    asked.require = {"/SYS/HDD*", "/SYS/PS1"};
    EXPECT_EQ(report(all, asked).status, kavplat_health::critical);
    EXPECT_EQ(report(all, asked).first,
              "HARDWARE CRITICAL - /SYS/PS1 is missing: nothing has such a name (1 absent)");
}

TEST(kavplat_health, tells_a_fault_where_it_is_and_not_where_it_is_felt)
{
    entity supply = made(2, 1, "/SYS/PS0");
    supply.class_code = 6;
    supply.severity = 1;
    entity hot = measured(3, "/SYS/PS0/T", 55, 40, 50);
    hot.contained_in = 2;
    const said got = report(of({made(1, 0, "/SYS"), supply, hot}));
    EXPECT_EQ(got.rest, "CRITICAL: /SYS/PS0/T: 55.0 °C at or above 50.0 °C (upper critical)\n");
}

TEST(kavplat_health, keeps_the_form_whatever_things_are_called)
{
    entity odd = measured(2, "/SYS/a|b='c'\nd", 55, 40, 50);
    odd.sensor->limits[lower_warning] = 10;
    odd.sensor->limits[lower_fatal] = -5.5;
    entity humid = measured(3, "/SYS/RH", 41, 80, 90);
    humid.sensor->unit = "%";
    const said got = report(of({made(1, 0, "/SYS"), odd, humid}));
    EXPECT_EQ(std::count(got.first.begin(), got.first.end(), '|'), 1);
    EXPECT_EQ(got.first.substr(got.first.find('|')),
              "| '/SYS/a/b_''c''\\x0Ad'=55;10:40;-5.5:50 '/SYS/RH'=41%;~:80;~:90;0;100");
    EXPECT_EQ(got.rest.find('|'), string::npos);
    options asked;
    asked.no_data = true;
    EXPECT_EQ(report(of({made(1, 0, "/SYS"), odd}), asked).first.find('|'), string::npos);
}

} // namespace

// What lies in what, and which component is which interface of the host.
#include "entityMappingMIB/entityMappingMIB.h"

#include "entityMappingMIB/mapping_tables.h"
#include "rooms/cache_fixture.h"
#include "rooms/local_agent.h"
#include "rooms/requests.h"

#include <chrono>
#include <net/if.h>
#include <random>

namespace
{

using std::string;
using std::vector;

constexpr char contains_root[] = "1.3.6.1.2.1.47.1.3.3";
constexpr char child_column[] = "1.3.6.1.2.1.47.1.3.3.1.1";
constexpr char alias_root[] = "1.3.6.1.2.1.47.1.3.2";
constexpr char alias_column[] = "1.3.6.1.2.1.47.1.3.2.1.2";
constexpr char if_index[] = "1.3.6.1.2.1.2.2.1.1.";

// The interfaces of the test's host.
std::map<string, unsigned> interfaces;

} // namespace

extern "C" unsigned if_nametoindex(const char *name) noexcept
{
    const auto found = interfaces.find(name);
    return found == interfaces.end() ? 0 : found->second;
}

namespace
{

class entityMappingMIB : public cache_test
{
  protected:
    local_agent &agent = local_agent::get();
    local_registrations registered;

    entityMappingMIB()
    {
        kavplat::loaded.entityMIB = true;
        interfaces.clear();
        init_entityMappingMIB();
    }

    static string pair_name(const char *column, uint32_t first, uint32_t second)
    {
        return string(column) + "." + std::to_string(first) + "." + std::to_string(second);
    }

    // All that there is to serve, by what entPhysicalContainedIn says.
    static std::set<std::pair<uint32_t, uint32_t>> contained()
    {
        std::set<std::pair<uint32_t, uint32_t>> all;
        for (uint32_t i = 1; i <= maxPhysicalIndex; i++) {
            const phys_entry *entry = kavplat::entry_at(i);
            if (entry && entry->entPhysicalContainedIn != 0) {
                all.emplace(entry->entPhysicalContainedIn, i);
            }
        }
        return all;
    }

    static vector<answered_varbind> rows_of(const std::set<std::pair<uint32_t, uint32_t>> &pairs)
    {
        vector<answered_varbind> rows;
        for (const auto &[container, child] : pairs) {
            rows.push_back({pair_name(child_column, container, child),
                            integer_value(static_cast<int32_t>(child))});
        }
        return rows;
    }
};

TEST_F(entityMappingMIB, ServesNothingWithoutThePhysicalEntitiesAndOnceWhenLoadedTwice)
{
    EXPECT_EQ(registered.tables().size(), 2U);
    agent_log log;
    init_entityMappingMIB();
    EXPECT_EQ(registered.tables().size(), 2U);
    kavplat::loaded = {};
    init_entityMappingMIB();
    EXPECT_EQ(registered.tables().size(), 2U);
    EXPECT_EQ(log.texts(LOG_WARNING),
              vector<string>{"entityMappingMIB: loaded again, which changes nothing: the tables of "
                             "the first time go on\n"});
    EXPECT_EQ(log.texts(LOG_ERR),
              vector<string>{"entityMappingMIB: nothing is served without entityMIB: put a dlmod "
                             "line for entityMIB before this module's\n"});
}

// Whatever comes and goes: the two sides of the relation say the same, in the order of
// the names, from wherever a walk starts.
TEST_F(entityMappingMIB, WhatAnEntityContainsIsWhatSaysThatItLiesInItAtEveryMoment)
{
    std::mt19937 random(20);
    const auto below = [&](uint32_t end) { return static_cast<uint32_t>(random() % end); };
    build({"/SYS", "/SYS/A", "/SYS/A/A", "/SYS/B", "/SYS/B/A", "/SYS/B/A/A", "/SYS/C"});
    const vector<string> parts = {"/SYS/A", "/SYS/B", "/SYS/B/A", "/SYS/C", "/SYS/D"};
    for (int step = 0; step < 300; step++) {
        const string &part = parts[below(5)];
        if (kavplat::find_name(part.c_str()) != 0) {
            unplug(part);
            remove(part.c_str());
        } else if (const size_t slash = part.rfind('/');
                   kavplat::find_name(part.substr(0, slash).c_str()) != 0) {
            plug({part, part + "/A", part + "/A/A", part + "/B"});
            insert(part.c_str());
        }
        const auto pairs = contained();
        ASSERT_EQ(agent.walk(contains_root), rows_of(pairs)) << "step " << step;
        for (int i = 0; i < 5; i++) {
            const std::pair<uint32_t, uint32_t> place = {below(maxPhysicalIndex + 3),
                                                         below(maxPhysicalIndex + 3)};
            const bool is_row = pairs.contains(place);
            const string name = pair_name(child_column, place.first, place.second);
            EXPECT_EQ(agent.ask(SNMP_MSG_GET, {name}).varbinds.front().value,
                      is_row ? integer_value(static_cast<int32_t>(place.second))
                             : no_value(SNMP_NOSUCHINSTANCE))
                << name;
            const auto next = pairs.upper_bound(place);
            const answered_varbind found = agent.ask(SNMP_MSG_GETNEXT, {name}).varbinds.front();
            if (next != pairs.end()) {
                EXPECT_EQ(found.name, pair_name(child_column, next->first, next->second)) << name;
            } else {
                EXPECT_EQ(found.value, no_value(SNMP_ENDOFMIBVIEW)) << name;
            }
            // A name that ends in the container's index comes before all that it holds.
            const string half = string(child_column) + "." + std::to_string(place.first);
            const auto first_in = pairs.lower_bound({place.first, 0});
            if (first_in != pairs.end()) {
                EXPECT_EQ(agent.ask(SNMP_MSG_GETNEXT, {half}).varbinds.front().name,
                          pair_name(child_column, first_in->first, first_in->second))
                    << half;
            }
        }
    }
}

TEST_F(entityMappingMIB, SeveralPlacesInOnePduAreAnsweredAsOneByOne)
{
    build({"/SYS", "/SYS/A", "/SYS/A/A", "/SYS/B", "/SYS/B/A"});
    const vector<string> names = {pair_name(child_column, 4, 0), child_column,
                                  pair_name(child_column, 1, 2), pair_name(child_column, 2, 3)};
    vector<answered_varbind> one_by_one;
    for (const string &name : names) {
        one_by_one.push_back(agent.ask(SNMP_MSG_GETNEXT, {name}).varbinds.front());
    }
    EXPECT_EQ(agent.ask(SNMP_MSG_GETNEXT, names).varbinds, one_by_one);
    EXPECT_EQ(one_by_one.front().name, pair_name(child_column, 4, 5));
}

TEST_F(entityMappingMIB, AWalkTakesTenTimesAsLongOfTenTimesAsManyEntities)
{
    const auto time_of_walk = [&](uint32_t entities) {
        build_server(entities);
        auto best = std::chrono::nanoseconds::max();
        for (int i = 0; i < 3; i++) {
            const auto begin = std::chrono::steady_clock::now();
            EXPECT_EQ(agent.walk(contains_root).size(), entities - 1);
            best =
                std::min<std::chrono::nanoseconds>(best, std::chrono::steady_clock::now() - begin);
        }
        return best;
    };
    const auto small = time_of_walk(1000);
    // A look at every entity at every step would make it a hundred times.
    EXPECT_LT(time_of_walk(10000), 30 * small);
}

TEST_F(entityMappingMIB, ARowWhoseChildHasGoneSinceIsNoRow)
{
    build({"/SYS", "/SYS/A", "/SYS/B"});
    table_steps steps(kavplat::entPhysicalContainsTable.get_first,
                      kavplat::entPhysicalContainsTable.get_next, 2);
    ASSERT_TRUE(steps.first());
    EXPECT_EQ(steps.index(1), 2U);
    remove("/SYS/B");
    EXPECT_FALSE(steps.next());
    EXPECT_EQ(steps.index(0), 0U);
    EXPECT_EQ(steps.index(1), 0U);
}

TEST_F(entityMappingMIB, APortIsTheInterfaceThatTheHostHasAtThisMoment)
{
    platform->interfaces = {{"/SYS/A", "eth0"}, {"/SYS/C", "eth1"}};
    build({"/SYS", "/SYS/A", "/SYS/B", "/SYS/C"});
    EXPECT_TRUE(agent.walk(alias_root).empty());
    struct {
        std::map<string, unsigned> host;
        vector<answered_varbind> served;
    } const cases[] = {
        {{{"eth0", 3}}, {{pair_name(alias_column, 2, 0), object_id_value(string(if_index) + "3")}}},
        {{{"eth0", 7}, {"eth1", 4294967295}},
         {{pair_name(alias_column, 2, 0), object_id_value(string(if_index) + "7")},
          {pair_name(alias_column, 4, 0), object_id_value(string(if_index) + "4294967295")}}},
        {{{"wan0", 3}}, {}},
        {{{"eth1", 2}}, {{pair_name(alias_column, 4, 0), object_id_value(string(if_index) + "2")}}},
    };
    for (const auto &c : cases) {
        interfaces = c.host;
        EXPECT_EQ(agent.walk(alias_root), c.served);
        for (uint32_t port = 1; port <= 4; port++) {
            for (const uint32_t logical : {0U, 1U}) {
                const string name = pair_name(alias_column, port, logical);
                const auto row = std::ranges::find(c.served, name, &answered_varbind::name);
                EXPECT_EQ(agent.ask(SNMP_MSG_GET, {name}).varbinds.front().value,
                          row == c.served.end() ? no_value(SNMP_NOSUCHINSTANCE) : row->value)
                    << name;
            }
        }
    }
    // Several at once: each its own.
    interfaces = {{"eth0", 7}, {"eth1", 8}};
    const pdu_answer both =
        agent.ask(SNMP_MSG_GET, {pair_name(alias_column, 4, 0), pair_name(alias_column, 2, 0)});
    EXPECT_EQ(both.varbinds[0].value, object_id_value(string(if_index) + "8"));
    EXPECT_EQ(both.varbinds[1].value, object_id_value(string(if_index) + "7"));
}

TEST_F(entityMappingMIB, AnInterfaceThatGoesBeforeItsCellIsServedIsServedAsItWas)
{
    platform->interfaces = {{"/SYS/A", "eth0"}};
    interfaces = {{"eth0", 3}};
    build({"/SYS", "/SYS/A"});
    table_steps steps(kavplat::entAliasMappingTable.get_first,
                      kavplat::entAliasMappingTable.get_next, 2);
    ASSERT_TRUE(steps.first());
    interfaces.clear();
    EXPECT_EQ(served(kavplat::entAliasMappingTable.handler, 2, steps.row()),
              object_id_value(string(if_index) + "3"));
}

TEST_F(entityMappingMIB, ThePlatformIsAskedForTheInterfaceOfWhatIsNeitherSensorNorLed)
{
    enum { sensor_type = 40, led_type };
    platform->sensor_types = {sensor_type};
    platform->indicator_types = {led_type};
    platform->sensors["/SYS/T"] = threshold_sensor(CAPI_SENSOR_TEMPERATURE, 20);
    platform->interfaces = {{"/SYS/A", "fifteen-letters"}, {"/SYS/B", ""}};
    platform->components = {component("/SYS", plain),         component("/SYS/A", plain),
                            component("/SYS/B", plain),       component("/SYS/C", plain),
                            component("/SYS/T", sensor_type), component("/SYS/L", led_type)};
    platform->fail_for["capi_get_interface_name"]["/SYS/C"] = 3;
    agent_log log;
    init_local_cache();
    EXPECT_STREQ(row("/SYS/A")->interfaceName, "fifteen-letters");
    for (const char *none : {"/SYS", "/SYS/B", "/SYS/C", "/SYS/T", "/SYS/L"}) {
        EXPECT_EQ(row(none)->interfaceName, nullptr) << none;
    }
    EXPECT_EQ(platform.calls("capi_get_interface_name"), 4U);
    EXPECT_TRUE(log.texts(LOG_ERR).empty() && log.texts(LOG_WARNING).empty())
        << "most components are none";
}

TEST_F(entityMappingMIB, NothingIsSet)
{
    build({"/SYS", "/SYS/A"});
    const pdu_answer answer = agent.ask(SNMP_MSG_SET, {pair_name(child_column, 1, 2)});
    EXPECT_EQ(answer.error, SNMP_ERR_NOTWRITABLE);
}

} // namespace

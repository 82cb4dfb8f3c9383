// What lies in what, and which port is which interface of the host, asked of a real agent.
#include <atomic>
#include <map>
#include <net/if.h>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "harness/agent.h"
#include "harness/client.h"
#include "harness/files.h"
#include "harness/names.h"
#include "harness/own_network.h"

namespace
{

using namespace std::chrono_literals;
using std::string;
using std::vector;

constexpr char load_mapping[] = "dlmod entityMappingMIB " KAVPLAT_MODULE "\n";
const object_name aliases = {1, 3, 6, 1, 2, 1, 47, 1, 3, 2};
const object_name children = {1, 3, 6, 1, 2, 1, 47, 1, 3, 3, 1, 1};
const object_name if_index = {1, 3, 6, 1, 2, 1, 2, 2, 1, 1};

using relation = std::set<std::pair<unsigned long, unsigned long>>; // container, child

object_name below(object_name name, std::initializer_list<unsigned long> arcs)
{
    name.insert(name.end(), arcs);
    return name;
}

TEST(mapping, containment_is_the_same_from_both_sides)
{
    agent server({.description = "servers/rack-2u.json", .configuration = load_mapping});
    ASSERT_NO_THROW(server.start());
    snmp_client client(server.port());
    relation by_child;
    for (const varbind &v : client.walk(ent_column(4))) {
        if (v.value.number != 0) {
            by_child.emplace(v.value.number, v.name.back());
        }
    }
    EXPECT_GT(by_child.size(), 400U);
    relation by_container;
    const vector<varbind> walked = client.walk(children);
    for (const varbind &v : walked) {
        EXPECT_EQ(v.value, integer_value(static_cast<int64_t>(v.name.back())));
        by_container.emplace(v.name[v.name.size() - 2], v.name.back());
        EXPECT_EQ(client.get({v.name}).varbinds, vector<varbind>{v});
    }
    EXPECT_EQ(by_container, by_child);
    EXPECT_EQ(client.bulk_walk(children, 40), walked);
}

TEST(mapping, is_told_by_the_agent_once_and_serves_nothing_without_the_physical_entities)
{
    {
        agent server({.configuration = string(load_mapping) + load_mapping});
        ASSERT_NO_THROW(server.start());
        const object_name sysORID = {1, 3, 6, 1, 2, 1, 1, 9, 1, 2};
        size_t told = 0;
        for (const varbind &v : snmp_client(server.port()).walk(sysORID)) {
            told += v.value.object == object_name{1, 3, 6, 1, 2, 1, 47} ? 1U : 0U;
        }
        EXPECT_EQ(told, 1U);
        EXPECT_EQ(server.log_count("entityMappingMIB: loaded again, which changes nothing"), 1U);
    }
    agent server({.whole_configuration = string("agentAddress udp:127.0.0.1:161\n"
                                                "rocommunity public 127.0.0.1\n") +
                                         load_mapping,
                  .wait_for_cache = false});
    ASSERT_NO_THROW(server.start());
    EXPECT_EQ(server.log_count("entityMappingMIB: nothing is served without entityMIB: put a "
                               "dlmod line for entityMIB before this module's"),
              1U);
    EXPECT_FALSE(snmp_client(server.port()).answers_getnext(children));
}

// Units come and go 200 times a second.
TEST(mapping, under_churn_no_row_says_other_than_its_child_within_one_pdu)
{
    const temporary_directory directory;
    agent server({.preload = KAVPLAT_CHURNING_PLATFORM,
                  .environment = {{"KAVPLAT_CHURN_EVENTS_PER_SECOND", "200"},
                                  {"KAVPLAT_CHURN_STABLE", "20"},
                                  {"KAVPLAT_CHURN_COUNT", directory.path() / "events"}},
                  .configuration = load_mapping});
    ASSERT_NO_THROW(server.start());
    snmp_client client(server.port());
    size_t both = 0;
    size_t gone = 0;
    const auto end = std::chrono::steady_clock::now() + 5s;
    while (std::chrono::steady_clock::now() < end) {
        for (const varbind &row : client.bulk_walk(children, 20)) {
            const unsigned long child = row.name.back();
            const unsigned long container = row.name[row.name.size() - 2];
            const snmp_answer answer =
                client.get({ent_cell(4, child), row.name, ent_cell(4, child)});
            ASSERT_EQ(answer.varbinds.size(), 3U);
            // A row that goes within the PDU has one of its sides left; no side ever
            // names another.
            for (const varbind &v : answer.varbinds) {
                if (v.value.type == snmp_no_such_instance) {
                    gone++;
                    continue;
                }
                both++;
                EXPECT_EQ(v.value.number,
                          static_cast<int64_t>(v.name == row.name ? child : container))
                    << to_text(row.name);
            }
        }
    }
    EXPECT_GT(both, 1000U);
    RecordProperty("seen", static_cast<int>(both));
    RecordProperty("gone", static_cast<int>(gone));
}

TEST(mapping, a_port_leads_to_its_interface_while_the_host_has_it)
{
    const own_network network;
    const bool can_add = network.add("kavtest0");
    const auto port = [](const string &name, const string &interface) {
        return R"({"name": ")" + name + R"(", "type": "network-port", "interface": ")" + interface +
               "\"}";
    };
    const auto described = [&](const string &first) {
        return R"({"components": [{"name": "/SYS", "type": "system"},)" + port("/SYS/NET0", first) +
               "," + port("/SYS/NET1", "lo") +
               R"(,{"name": "/SYS/NET2", "type": "network-port"}]})";
    };
    agent server({.configuration = load_mapping});
    write_file(server.description(), described("kavtest0"));
    ASSERT_NO_THROW(server.start());
    snmp_client client(server.port());
    const auto row = [](unsigned long index, const char *interface) {
        return varbind{below(aliases, {1, 2, index, 0}),
                       object_value(below(if_index, {if_nametoindex(interface)}))};
    };
    const varbind loopback = row(3, "lo");
    if (!can_add) {
        EXPECT_EQ(client.walk(aliases), vector<varbind>{loopback});
        GTEST_SKIP() << "this machine gives no interface to a test: only lo was looked at";
    }
    EXPECT_EQ(client.walk(aliases), (vector<varbind>{row(2, "kavtest0"), loopback}));
    ASSERT_TRUE(network.rename("kavtest0", "kavtest1"));
    EXPECT_EQ(client.walk(aliases), vector<varbind>{loopback});
    ASSERT_TRUE(network.rename("kavtest1", "kavtest0"));
    EXPECT_EQ(client.walk(aliases), (vector<varbind>{row(2, "kavtest0"), loopback}));
    ASSERT_TRUE(network.remove("kavtest0"));
    EXPECT_EQ(client.walk(aliases), vector<varbind>{loopback});
    EXPECT_EQ(client.get({below(aliases, {1, 2, 2, 0})}).varbinds.front().value, no_instance());
    ASSERT_TRUE(network.add("kavtest0"));
    EXPECT_EQ(client.walk(aliases), (vector<varbind>{row(2, "kavtest0"), loopback}))
        << "with the number that it has now";
}

} // namespace

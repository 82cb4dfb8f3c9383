// Changes of the description while a real agent serves it.
#include <algorithm>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

#include "e2e/expected_rows.h"
#include "harness/agent.h"
#include "harness/client.h"

namespace
{

using nlohmann::ordered_json;
using std::string;
using std::vector;
using names_by_index = std::map<unsigned long, string>;

class hot_plug : public testing::Test
{
  protected:
    agent server{{.debug_tokens = "monitor"}};
    std::unique_ptr<snmp_client> client;

    void SetUp() override
    {
        ASSERT_NO_THROW(server.start());
        client = std::make_unique<snmp_client>(server.port());
        // What follows is told by events, not by the first build.
        ASSERT_TRUE(eventually([&] { return server.log_has("register with event mgr done!"); }));
    }

    names_by_index names()
    {
        names_by_index found;
        for (const varbind &v : client->walk(ent_column(7))) {
            found[v.name.back()] = v.value.text;
        }
        return found;
    }

    testing::AssertionResult serves(const names_by_index &wanted)
    {
        names_by_index found;
        if (eventually([&] { return (found = names()) == wanted; })) {
            return testing::AssertionSuccess();
        }
        return testing::AssertionFailure() << "the rows are " << testing::PrintToString(found);
    }

    snmp_value value(unsigned column, unsigned long index)
    {
        const snmp_answer answer = client->get({ent_cell(column, index)});
        return answer.varbinds.empty() ? snmp_value{} : answer.varbinds[0].value;
    }

    int64_t last_change()
    {
        const snmp_answer answer = client->get({change_time()});
        if (answer.varbinds.size() != 1 || answer.varbinds[0].value.type != snmp_timeticks) {
            throw std::runtime_error("entLastChangeTime is not served");
        }
        return answer.varbinds[0].value.number;
    }

    // The agent's up-time grows by a hundredth: a later change has another stamp.
    void let_time_pass()
    {
        const object_name up_time = {1, 3, 6, 1, 2, 1, 1, 3, 0};
        const int64_t now = client->get({up_time}).varbinds.at(0).value.number;
        ASSERT_TRUE(eventually(
            [&] { return client->get({up_time}).varbinds.at(0).value.number > now + 1; }));
    }

    ordered_json document() const { return ordered_json::parse(read_file(server.description())); }

    void edit(const std::function<void(ordered_json &)> &change)
    {
        ordered_json all = document();
        change(all);
        replace_file(server.description(), all.dump(2));
    }

    static void add(ordered_json &all, const string &name, const string &type)
    {
        all["components"].push_back({{"name", name}, {"type", type}});
    }

    static void drop(ordered_json &all, const string &name)
    {
        auto &list = all["components"];
        for (size_t i = list.size(); i-- > 0;) {
            const string found = list[i]["name"];
            if (found == name || found.starts_with(name + "/")) {
                list.erase(i);
            }
        }
    }

    static ordered_json &component(ordered_json &all, const string &name)
    {
        for (ordered_json &c : all["components"]) {
            if (c["name"] == name) {
                return c;
            }
        }
        throw std::runtime_error("no component " + name);
    }
};

const names_by_index at_first = {
    {1, "/SYS"}, {2, "/SYS/MB"}, {3, "/SYS/MB/T_AMB"}, {4, "/SYS/MB/LOCATE"}};

TEST_F(hot_plug, inserted_component_gets_a_row_behind_the_others)
{
    const int64_t before = last_change();
    let_time_pass();
    edit([](ordered_json &all) { add(all, "/SYS/FAN3", "fan"); });
    names_by_index wanted = at_first;
    wanted[5] = "/SYS/FAN3";
    EXPECT_TRUE(serves(wanted));
    EXPECT_EQ(value(2, 5), text_value("Fan"));
    EXPECT_EQ(value(4, 5), integer_value(1));
    EXPECT_EQ(value(5, 5), integer_value(7));
    EXPECT_EQ(value(6, 5), integer_value(4));
    EXPECT_TRUE(eventually([&] { return last_change() > before; }));
}

TEST_F(hot_plug, inserted_component_comes_with_what_it_holds)
{
    edit([](ordered_json &all) {
        add(all, "/SYS/HDD0", "drive-bay");
        add(all, "/SYS/HDD0/DISK", "disk");
        add(all, "/SYS/HDD0/OK", "power-led");
        component(all, "/SYS/HDD0/OK")["indicator"]["state"] = "on";
    });
    names_by_index wanted = at_first;
    wanted[5] = "/SYS/HDD0";
    wanted[6] = "/SYS/HDD0/DISK";
    wanted[7] = "/SYS/HDD0/OK";
    EXPECT_TRUE(serves(wanted));
    EXPECT_EQ(value(4, 6), integer_value(5));
    EXPECT_EQ(value(4, 7), integer_value(5));
}

TEST_F(hot_plug, many_components_come_at_once)
{
    names_by_index wanted = at_first;
    edit([&](ordered_json &all) {
        for (unsigned i = 0; i < 300; i++) {
            const string name = "/SYS/MB/P" + std::to_string(i);
            add(all, name, "processor");
            wanted[5 + i] = name;
        }
    });
    EXPECT_TRUE(serves(wanted));
    EXPECT_EQ(value(6, 304), integer_value(300));
}

TEST_F(hot_plug, removed_component_leaves_a_hole_that_is_never_filled)
{
    const int64_t before = last_change();
    let_time_pass();
    edit([](ordered_json &all) { drop(all, "/SYS/MB/T_AMB"); });
    EXPECT_TRUE(serves({{1, "/SYS"}, {2, "/SYS/MB"}, {4, "/SYS/MB/LOCATE"}}));
    EXPECT_TRUE(eventually([&] { return last_change() > before; }));
    EXPECT_EQ(value(7, 3), no_instance());
    const snmp_answer next = client->get_next({ent_cell(7, 4), ent_cell(7, 2), ent_cell(7, 3)});
    ASSERT_EQ(next.varbinds.size(), 3U);
    EXPECT_EQ(next.varbinds[0].name, ent_cell(8, 1));
    EXPECT_EQ(next.varbinds[1].name, ent_cell(7, 4));
    EXPECT_EQ(next.varbinds[2].name, ent_cell(7, 4));

    edit([](ordered_json &all) { add(all, "/SYS/NEW", "disk"); });
    EXPECT_TRUE(serves({{1, "/SYS"}, {2, "/SYS/MB"}, {4, "/SYS/MB/LOCATE"}, {5, "/SYS/NEW"}}));
}

TEST_F(hot_plug, hole_at_the_end_of_the_table_ends_the_walk)
{
    edit([](ordered_json &all) { drop(all, "/SYS/MB/LOCATE"); });
    EXPECT_TRUE(serves({{1, "/SYS"}, {2, "/SYS/MB"}, {3, "/SYS/MB/T_AMB"}}));
    EXPECT_EQ(client->walk(ent_table()).size(), 3U * (last_column - first_column + 1));
    EXPECT_EQ(value(7, 4), no_instance());
}

TEST_F(hot_plug, removed_container_takes_what_it_holds_along)
{
    edit([](ordered_json &all) { drop(all, "/SYS/MB"); });
    EXPECT_TRUE(serves({{1, "/SYS"}}));
    for (unsigned long index = 2; index <= 4; index++) {
        EXPECT_EQ(value(7, index), no_instance());
    }
}

TEST_F(hot_plug, changed_component_goes_and_comes_again)
{
    edit([](ordered_json &all) { component(all, "/SYS/MB/LOCATE")["type"] = "fault-led"; });
    names_by_index wanted = at_first;
    wanted.erase(4);
    wanted[5] = "/SYS/MB/LOCATE";
    EXPECT_TRUE(serves(wanted));
    EXPECT_EQ(value(2, 5), text_value("Fault LED"));
    EXPECT_EQ(value(2, 4), no_instance());
}

TEST_F(hot_plug, exchanged_unit_has_its_new_serial_number)
{
    edit([](ordered_json &all) {
        auto &board = component(all, "/SYS/MB");
        board["capabilities"] = {"fru-info"};
        board["fru"]["serial"] = "SN-2";
    });
    EXPECT_TRUE(serves({{1, "/SYS"}, {5, "/SYS/MB"}, {6, "/SYS/MB/T_AMB"}, {7, "/SYS/MB/LOCATE"}}));
    EXPECT_EQ(value(11, 5), text_value("SN-2"));
    EXPECT_EQ(value(16, 5), integer_value(1));
    EXPECT_EQ(value(4, 6), integer_value(5));
}

TEST_F(hot_plug, product_update_keeps_the_rows)
{
    const int64_t before = last_change();
    let_time_pass();
    edit([](ordered_json &all) { all["product"]["serial"] = "KM1-000002"; });
    EXPECT_TRUE(eventually([&] { return last_change() > before; }));
    EXPECT_TRUE(server.log_has("RECEIVE UPDATE INVENTORY EVENT /SYS"));
    EXPECT_TRUE(serves(at_first));
}

TEST_F(hot_plug, chassis_update_keeps_the_rows)
{
    const int64_t before = last_change();
    let_time_pass();
    edit([](ordered_json &all) { all["chassis"]["model"] = "CH-9"; });
    EXPECT_TRUE(eventually([&] { return last_change() > before; }));
    EXPECT_TRUE(server.log_has("RECEIVE UPDATE INVENTORY EVENT /SYS"));
    EXPECT_TRUE(serves(at_first));
}

TEST_F(hot_plug, changed_limits_are_stamped_and_keep_the_rows)
{
    const int64_t before = last_change();
    let_time_pass();
    edit([](ordered_json &all) {
        component(all, "/SYS/MB/T_AMB")["sensor"]["thresholds"]["upper_critical"] = 45;
    });
    EXPECT_TRUE(eventually([&] { return last_change() > before; }));
    EXPECT_TRUE(server.log_has("receive REFRESH_SENSOR message"));
    EXPECT_TRUE(serves(at_first));
}

TEST_F(hot_plug, changed_reading_is_not_announced)
{
    const int64_t before = last_change();
    let_time_pass();
    edit([](ordered_json &all) { component(all, "/SYS/MB/T_AMB")["sensor"]["reading"] = 30; });
    // The next change is seen, so the one before it has been looked at.
    edit([](ordered_json &all) { add(all, "/SYS/NEW", "disk"); });
    names_by_index wanted = at_first;
    wanted[5] = "/SYS/NEW";
    EXPECT_TRUE(serves(wanted));
    EXPECT_GT(last_change(), before);
    EXPECT_FALSE(server.log_has("RECEIVE HOT REMOVE"));
    EXPECT_EQ(server.log_count("RECEIVE HOT INSERT"), 1U);
    EXPECT_FALSE(server.log_has("REFRESH_SENSOR"));
}

// ---- How the file changes ----------------------------------------------------------

TEST_F(hot_plug, file_may_be_written_in_place)
{
    ordered_json all = document();
    add(all, "/SYS/NEW", "disk");
    write_file(server.description(), all.dump(2));
    names_by_index wanted = at_first;
    wanted[5] = "/SYS/NEW";
    EXPECT_TRUE(serves(wanted));
}

TEST_F(hot_plug, file_may_be_replaced_again_and_again)
{
    for (unsigned long i = 5; i < 10; i++) {
        const string name = "/SYS/N" + std::to_string(i);
        edit([&](ordered_json &all) {
            if (i > 5) {
                drop(all, "/SYS/N" + std::to_string(i - 1));
            }
            add(all, name, "disk");
        });
        names_by_index wanted = at_first;
        wanted[i] = name;
        ASSERT_TRUE(serves(wanted));
    }
}

TEST_F(hot_plug, bad_file_keeps_the_rows_and_is_logged)
{
    write_file(server.description(), "{ \"components\": [ { \"name\": \"/SYS\", \"type\": ] }");
    ASSERT_TRUE(eventually([&] { return server.log_has(server.description().string()); }))
        << "the error names the file";
    EXPECT_TRUE(serves(at_first));
    EXPECT_EQ(client->walk(ent_table()).size(), 4U * (last_column - first_column + 1));
}

TEST_F(hot_plug, impossible_component_keeps_the_rows_and_is_logged_with_its_place)
{
    ordered_json all = document();
    const ordered_json good = all;
    all["components"][2]["type"] = "no-such-type";
    replace_file(server.description(), all.dump(2));
    ASSERT_TRUE(eventually([&] { return server.log_has("/components/2/type"); }));
    EXPECT_TRUE(serves(at_first));
    // And a good one is taken again.
    all = good;
    add(all, "/SYS/NEW", "disk");
    replace_file(server.description(), all.dump(2));
    names_by_index wanted = at_first;
    wanted[5] = "/SYS/NEW";
    EXPECT_TRUE(serves(wanted));
}

TEST(bad_start, serves_nothing_until_the_file_is_good)
{
    agent server({.wait_for_cache = false});
    const string good = read_file(server.description());
    write_file(server.description(), "not JSON");
    ASSERT_NO_THROW(server.start());
    ASSERT_TRUE(eventually([&] { return server.log_has(server.description().string()); }));
    snmp_client client(server.port());
    EXPECT_TRUE(client.walk(ent_table()).empty());
    EXPECT_EQ(client.get({ent_cell(7, 1)}).varbinds.at(0).value, no_instance());
    write_file(server.description(), good);
    EXPECT_TRUE(eventually([&] { return client.walk(ent_column(7)).size() == 4; }));
}

// What is read of a description, and the one before while both are compared, is given back
// to the system: the heap of the thread that reads would keep it.
TEST(large_description, takes_no_more_memory_after_changes)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer keeps what is freed";
#endif
    ordered_json all = ordered_json::parse(read_file(KAVPLAT_SOURCE_DIR "/servers/minimal.json"));
    for (int i = 0; i < 10000; i++) {
        all["components"].push_back({{"name", "/SYS/T" + std::to_string(i)},
                                     {"type", "temperature-sensor"},
                                     {"sensor",
                                      {{"class", "threshold"},
                                       {"type", "temperature"},
                                       {"units", "degrees-c"},
                                       {"reading", 20.5}}}});
    }
    const temporary_directory directory;
    write_file(directory.path() / "server.json", all.dump(2));
    agent server({.description = directory.path() / "server.json"});
    ASSERT_NO_THROW(server.start());
    ASSERT_TRUE(eventually([&] { return server.log_has("local cache ready"); }));
    const long at_first = server.memory();
    for (size_t i = 1; i <= 6; i++) {
        all["components"].back()["sensor"]["reading"] = i;
        replace_file(server.description(), all.dump(2));
        ASSERT_TRUE(eventually([&] { return server.log_count("in force; components") == 1 + i; }));
    }
    EXPECT_TRUE(eventually([&] { return server.memory() < at_first + at_first / 10; }))
        << at_first << " KiB grew to " << server.memory();
}

} // namespace

// Indexes that outlive agents: restarts, swaps, and two agents with one file.
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "harness/agent.h"
#include "harness/client.h"
#include "harness/files.h"
#include "harness/names.h"
#include "harness/process.h"

namespace
{

using std::string;
using std::vector;

string described(const vector<string> &names)
{
    string text = R"({"components": [)";
    for (const string &name : names) {
        text += (name == names.front() ? "" : ",") + string(R"({"name": ")") + name +
                R"(", "type": ")" + (name == "/SYS" ? "system" : "disk") + "\"}";
    }
    return text + "]}";
}

using index_of_name = std::map<string, unsigned long>;

index_of_name served_by(const agent &server)
{
    index_of_name all;
    for (const varbind &v : snmp_client(server.port()).walk(ent_column(7))) {
        all[v.value.text] = v.name.back();
    }
    return all;
}

class index_file : public testing::Test
{
  protected:
    temporary_directory directory;
    const string path = directory.path() / "indexes";

    agent_options options(bool daemon = false) const
    {
        return {.daemon = daemon, .environment = {{"KAVPLAT_INDEX_FILE", path}}};
    }
    static void start(agent &server, const vector<string> &names)
    {
        write_file(server.description(), described(names));
        server.start();
    }
    bool says(const string &line) const
    {
        std::ifstream in(path);
        for (string each; std::getline(in, each);) {
            if (each == line) {
                return true;
            }
        }
        return false;
    }
};

TEST_F(index_file, keeps_the_indexes_of_names_over_restarts_and_swaps)
{
    const vector<string> whole = {"/SYS", "/SYS/D0", "/SYS/D0/X", "/SYS/D1", "/SYS/D1/X"};
    const index_of_name expected = {
        {"/SYS", 1}, {"/SYS/D0", 2}, {"/SYS/D0/X", 3}, {"/SYS/D1", 4}, {"/SYS/D1/X", 5}};
    {
        agent first(options());
        ASSERT_NO_THROW(start(first, whole));
        EXPECT_EQ(served_by(first), expected);
        ASSERT_TRUE(eventually([&] { return says("end 5"); }));
    } // by SIGKILL
    {
        agent second(options());
        ASSERT_NO_THROW(start(second, {"/SYS", "/SYS/D1", "/SYS/D1/X"}));
        EXPECT_EQ(served_by(second),
                  (index_of_name{{"/SYS", 1}, {"/SYS/D1", 4}, {"/SYS/D1/X", 5}}));
        write_file(second.description(),
                   described({"/SYS", "/SYS/NEW", "/SYS/D1", "/SYS/D1/X", "/SYS/D0", "/SYS/D0/X"}));
        index_of_name with_new = expected;
        with_new["/SYS/NEW"] = 6;
        EXPECT_TRUE(eventually([&] { return served_by(second) == with_new; }));
        ASSERT_TRUE(eventually([&] { return says("6 /SYS/NEW"); }));
        EXPECT_EQ(second.log_count("prepare_indexes:" + path +
                                   ": 5 names keep their indexes, the highest is 5"),
                  1U);
    }
}

TEST_F(index_file, of_a_daemon_is_read_and_locked_behind_its_fork)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer can start no thread after a fork beside other threads";
#endif
    const index_of_name expected = {
        {"/SYS", 1}, {"/SYS/D0", 2}, {"/SYS/D0/X", 3}, {"/SYS/D1", 4}, {"/SYS/D1/X", 5}};
    {
        agent first(options());
        ASSERT_NO_THROW(start(first, {"/SYS", "/SYS/D0", "/SYS/D0/X", "/SYS/D1", "/SYS/D1/X"}));
        ASSERT_TRUE(eventually([&] { return says("end 5"); }));
    }
    // The child of the fork has the lock and the file of its parent.
    agent daemon(options(true));
    ASSERT_NO_THROW(start(daemon, {"/SYS", "/SYS/D1", "/SYS/D1/X", "/SYS/D0", "/SYS/D0/X"}));
    EXPECT_TRUE(eventually([&] { return served_by(daemon) == expected; }));
    EXPECT_FALSE(daemon.log_has("another agent uses it"));
}

TEST_F(index_file, of_two_agents_is_the_first_one_s)
{
    auto first = std::make_unique<agent>(options());
    ASSERT_NO_THROW(start(*first, {"/SYS", "/SYS/D0", "/SYS/D1"}));
    ASSERT_TRUE(eventually([&] { return says("end 3"); }));
    const index_of_name numbered_anew = {{"/SYS", 1}, {"/SYS/D1", 2}, {"/SYS/D0", 3}};
    {
        agent second(options());
        ASSERT_NO_THROW(start(second, {"/SYS", "/SYS/D1", "/SYS/D0"}));
        EXPECT_EQ(served_by(second), numbered_anew);
        EXPECT_EQ(second.log_count("prepare_indexes:" + path +
                                   ": another agent uses it: no index is remembered"),
                  1U);
        EXPECT_TRUE(says("2 /SYS/D0"));
    }
    first->stop();
    agent third(options());
    ASSERT_NO_THROW(start(third, {"/SYS", "/SYS/D1", "/SYS/D0"}));
    EXPECT_EQ(served_by(third), (index_of_name{{"/SYS", 1}, {"/SYS/D0", 2}, {"/SYS/D1", 3}}));
}

} // namespace

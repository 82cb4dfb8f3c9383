// Who may do what: the agent as an ordinary user, SNMPv3 users, a description that
// everybody may write to.
#include <cstdio>
#include <sstream>
#include <unistd.h>

#include <gtest/gtest.h>

#include "e2e/agent.h"
#include "e2e/client.h"
#include "e2e/expected_rows.h"

namespace
{

namespace fs = std::filesystem;

const object_name reading_of_row_2 = {1, 3, 6, 1, 4, 1, 58213, 2, 70, 101, 1, 1, 8, 1, 4, 2};

// The output of a command and how it ended.
struct command_result {
    std::string output;
    int status;
};

command_result run(const std::string &command)
{
    command_result result;
    FILE *pipe = popen((command + " 2>&1").c_str(), "r");
    if (!pipe) {
        throw std::runtime_error("cannot run " + command);
    }
    for (int c; (c = fgetc(pipe)) != EOF;) {
        result.output.push_back(static_cast<char>(c));
    }
    result.status = pclose(pipe);
    return result;
}

std::string bound_description(const fs::path &value)
{
    return R"({"components": [{"name": "/SYS", "type": "system"},
{"name": "/SYS/T0", "type": "temperature-sensor", "sensor": {"class": "threshold",
 "type": "temperature", "units": "degrees-c", "reading": {"file": ")" +
           value.string() + "\"}}}]}\n";
}

TEST(rights, an_agent_that_became_an_ordinary_user_serves_live_values)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can become somebody else";
    }
    agent server({.user = "nobody"});
    const fs::path value = server.description().parent_path() / "value";
    write_file(value, "21\n");
    write_file(server.description(), bound_description(value));
    ASSERT_NO_THROW(server.start());
    std::istringstream status(read_file("/proc/" + std::to_string(server.id()) + "/status"));
    std::string uids;
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("Uid:")) {
            uids = line;
        }
    }
    EXPECT_EQ(uids, "Uid:\t65534\t65534\t65534\t65534");
    snmp_client client(server.port());
    EXPECT_EQ(client.get({reading_of_row_2}).varbinds.at(0).value, integer_value(21000));
    // What is bound and what is described is still followed.
    write_file(value, "35\n");
    EXPECT_TRUE(eventually([&] {
        return client.get({reading_of_row_2}).varbinds.at(0).value == integer_value(35000);
    }));
    replace_file(server.description(), R"({"components": [{"name": "/SYS", "type": "system"}]})");
    EXPECT_TRUE(eventually([&] { return client.walk(ent_column(7)).size() == 1; }));
}

class version_3 : public testing::Test
{
  protected:
    void SetUp() override { ASSERT_NO_THROW(server.start()); }

    command_result ask(const std::string &how) const
    {
        return run("SNMP_PERSISTENT_DIR=" + server.directory().string() +
                   "/client MIBS= snmpget -On -t 5 -r 1 -v3 -u reader " + how + " udp:127.0.0.1:" +
                   std::to_string(server.port()) + " 1.3.6.1.2.1.47.1.1.1.1.7.1");
    }

    agent server{{.configuration =
                      "rouser reader priv\n"
                      "createUser reader SHA \"a long secret\" AES \"another secret\"\n"}};
};

TEST_F(version_3, a_user_with_authentication_and_privacy_reads)
{
    const command_result right =
        ask("-l authPriv -a SHA -A 'a long secret' -x AES -X 'another secret'");
    EXPECT_EQ(right.status, 0) << right.output;
    EXPECT_NE(right.output.find("\"/SYS\""), std::string::npos) << right.output;
}

TEST_F(version_3, nobody_else_does)
{
    for (const char *how : {"-l authPriv -a SHA -A 'a wrong secret' -x AES -X 'another secret'",
                            "-l authPriv -a SHA -A 'a long secret' -x AES -X 'a wrong secret'",
                            "-l authNoPriv -a SHA -A 'a long secret'", "-l noAuthNoPriv"}) {
        const command_result wrong = ask(how);
        EXPECT_NE(wrong.status, 0) << how;
        EXPECT_EQ(wrong.output.find("/SYS"), std::string::npos) << wrong.output;
    }
}

TEST(rights, a_description_that_everybody_may_write_to_is_refused_to_root)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root has reason to refuse it";
    }
    agent server({.wait_for_cache = false});
    fs::permissions(server.description(), fs::perms::others_write, fs::perm_options::add);
    ASSERT_NO_THROW(server.start());
    EXPECT_TRUE(eventually(
        [&] { return server.log_has("run \"chmod o-w " + server.description().string() + "\""); }));
    snmp_client client(server.port());
    EXPECT_TRUE(client.walk(ent_column(7)).empty());
    // As it says; the library asks again within a few seconds.
    fs::permissions(server.description(), fs::perms::others_write, fs::perm_options::remove);
    EXPECT_TRUE(eventually([&] { return client.walk(ent_column(7)).size() == 4; }));
}

} // namespace

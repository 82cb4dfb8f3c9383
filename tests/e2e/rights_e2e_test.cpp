// Who may do what: the agent as an ordinary user, SNMPv3 users, a description that
// everybody may write to.
#include <arpa/inet.h>
#include <iterator>
#include <set>
#include <sstream>
#include <unistd.h>

#include <gtest/gtest.h>

#include "harness/agent.h"
#include "harness/client.h"
#include "harness/names.h"

namespace
{

namespace fs = std::filesystem;

// kavPlatHolderPowerState, which is asked for at every request.
const object_name power_of_row_2 = {1, 3, 6, 1, 4, 1, 58213, 2, 70, 101, 1, 1, 3, 1, 4, 2};

std::string bound_description(const fs::path &value)
{
    return R"({"components": [{"name": "/SYS", "type": "system"},
{"name": "/SYS/SLOT", "type": "pcie-slot", "capabilities": ["holder", "power-readable"],
 "power": {"file": ")" +
           value.string() + "\"}}]}\n";
}

TEST(rights, an_agent_that_became_an_ordinary_user_serves_live_values)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can become somebody else";
    }
    agent server({.user = "nobody"});
    const fs::path value = server.description().parent_path() / "value";
    write_file(value, "on\n");
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
    EXPECT_EQ(client.get({power_of_row_2}).varbinds.at(0).value, integer_value(3));
    // What is bound and what is described is still followed.
    write_file(value, "off\n");
    EXPECT_TRUE(eventually(
        [&] { return client.get({power_of_row_2}).varbinds.at(0).value == integer_value(4); }));
    replace_file(server.description(), R"({"components": [{"name": "/SYS", "type": "system"}]})");
    EXPECT_TRUE(eventually([&] { return client.walk(ent_column(7)).size() == 1; }));
}

// The example configuration as it is installed, but for the module's place.
std::string example_configuration()
{
    std::string text = read_file(KAVPLAT_EXAMPLE_CONFIGURATION);
    const std::string installed = KAVPLAT_INSTALLED_MODULE;
    size_t modules = 0;
    for (size_t at = 0; (at = text.find(installed, at)) != std::string::npos; modules++) {
        text.replace(at, installed.size(), KAVPLAT_MODULE);
        at += sizeof KAVPLAT_MODULE - 1;
    }
    EXPECT_EQ(modules, 5U);
    return text;
}

// The sockets of a process in /proc/net/WHICH, by their local address and port.
std::vector<std::string> sockets(pid_t id, const std::string &which)
{
    const fs::path process = fs::path("/proc") / std::to_string(id);
    std::set<std::string> inodes;
    for (const fs::directory_entry &each : fs::directory_iterator(process / "fd")) {
        std::error_code gone;
        const std::string target = fs::read_symlink(each, gone);
        if (target.starts_with("socket:[")) {
            inodes.insert(target.substr(8, target.size() - 9));
        }
    }
    std::vector<std::string> found;
    std::istringstream table(read_file(process / "net" / which));
    std::string line;
    std::getline(table, line); // the title
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::vector<std::string> words(std::istream_iterator<std::string>(fields), {});
        if (words.size() > 9 && inodes.contains(words[9])) {
            found.push_back(words[1]);
        }
    }
    return found;
}

// What the tools tell of a value; they may tell of directories before.
std::string value_in(const command_result &result)
{
    const size_t at = result.output.find(" = ");
    return at == std::string::npos ? "" : result.output.substr(at);
}

class example : public testing::Test
{
  protected:
    void SetUp() override { ASSERT_NO_THROW(server.start()); }

    command_result run_client(const std::string &tool, const std::string &how,
                              const std::string &what,
                              const std::string &patience = "-t 5 -r 1") const
    {
        return run_command("SNMP_PERSISTENT_DIR=" + client_state.path().string() +
                           " MIBS= " + tool + " -On " + patience + " " + how +
                           " udp:127.0.0.1:" + std::to_string(server.port()) + " " + what);
    }

    // Asks for the name of the root. The agent has answered by then, or never will: it
    // answered somebody who asked later.
    command_result ask_without_right(const std::string &how) const
    {
        command_result asked = run_client("snmpget", how, root_name, "-t 1 -r 0");
        const command_result later = run_client("snmpget", "-v2c -c public", root_name);
        EXPECT_EQ(later.status, 0) << later.output;
        return asked;
    }

    temporary_directory client_state;
    const std::string right = "-v3 -u reader -l authPriv -a SHA -A 'a long secret' -x AES "
                              "-X 'another secret'";
    const std::string root_name = "1.3.6.1.2.1.47.1.1.1.1.7.1";
    const std::string contact = "1.3.6.1.2.1.1.4.0"; // writable, for those who may

    agent server{
        {.whole_configuration = example_configuration(),
         .persistent_state = "createUser reader SHA \"a long secret\" AES \"another secret\"\n"}};
};

TEST_F(example, listens_to_this_host_alone)
{
    char address[32];
    // As the kernel writes it: the number that the bytes 127.0.0.1 are here.
    snprintf(address, sizeof address, "%08X:%04X", htonl(INADDR_LOOPBACK), server.port());
    EXPECT_EQ(sockets(server.id(), "udp"), std::vector<std::string>{address});
    for (const char *other : {"udp6", "tcp", "tcp6"}) {
        EXPECT_TRUE(sockets(server.id(), other).empty()) << other;
    }
}

TEST_F(example, a_community_reads_and_does_not_write)
{
    const command_result before = run_client("snmpget", "-v2c -c public", contact);
    EXPECT_EQ(before.status, 0) << before.output;
    const command_result read = run_client("snmpget", "-v2c -c public", root_name);
    EXPECT_NE(read.output.find("\"/SYS\""), std::string::npos) << read.output;
    const command_result written = run_client("snmpset", "-v2c -c public", contact + " s somebody");
    EXPECT_NE(written.status, 0);
    EXPECT_NE(written.output.find("noAccess"), std::string::npos) << written.output;
    const command_result after = run_client("snmpget", "-v2c -c public", contact);
    EXPECT_EQ(value_in(after), value_in(before));
    EXPECT_NE(value_in(after), "");
}

TEST_F(example, another_community_is_not_answered)
{
    const command_result asked = ask_without_right("-v2c -c private");
    EXPECT_NE(asked.status, 0);
    EXPECT_NE(asked.output.find("Timeout"), std::string::npos) << asked.output;
}

TEST_F(example, a_user_with_authentication_and_privacy_reads_and_does_not_write)
{
    const command_result read = run_client("snmpget", right, root_name);
    EXPECT_EQ(read.status, 0) << read.output;
    EXPECT_NE(read.output.find("\"/SYS\""), std::string::npos) << read.output;
    const command_result written = run_client("snmpset", right, contact + " s somebody");
    EXPECT_NE(written.status, 0);
    EXPECT_NE(written.output.find("noAccess"), std::string::npos) << written.output;
}

TEST_F(example, no_other_user_reads)
{
    for (const char *how :
         {"-u reader -l authPriv -a SHA -A 'a wrong secret' -x AES -X 'another secret'",
          "-u reader -l authPriv -a SHA -A 'a long secret' -x AES -X 'a wrong secret'",
          "-u reader -l authNoPriv -a SHA -A 'a long secret'", "-u reader -l noAuthNoPriv",
          "-u writer -l authPriv -a SHA -A 'a long secret' -x AES -X 'another secret'"}) {
        const command_result wrong = ask_without_right(std::string("-v3 ") + how);
        EXPECT_NE(wrong.status, 0) << how;
        EXPECT_EQ(wrong.output.find("/SYS"), std::string::npos) << wrong.output;
    }
}

TEST_F(example, the_agent_replaces_the_secrets_by_keys)
{
    const fs::path state = server.directory() / "state" / "snmpd.conf";
    EXPECT_TRUE(eventually([&] { return read_file(state).find("usmUser ") != std::string::npos; }));
    EXPECT_EQ(read_file(state).find("secret"), std::string::npos);
    EXPECT_EQ(fs::status(state).permissions() & (fs::perms::group_all | fs::perms::others_all),
              fs::perms::none);
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

// The platform of the example: it keeps what the contract promises, an agent
// serves it, and the document that walks through it shows its code.
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "harness/agent.h"
#include "harness/client.h"
#include "harness/names.h"

namespace fs = std::filesystem;

namespace
{

const fs::path source = fs::path(KAVPLAT_SOURCE_DIR) / "examples/minimal-platform";

std::vector<std::string> names_served(snmp_client &client)
{
    std::vector<std::string> names;
    for (const varbind &v : client.walk({1, 3, 6, 1, 2, 1, 47, 1, 1, 1, 1, 7})) {
        names.push_back(v.value.text);
    }
    return names;
}

const std::vector<std::string> without_fan = {"/SYS", "/SYS/MB", "/SYS/MB/T_AMB", "/SYS/LOCATE"};
const std::vector<std::string> with_fan = {"/SYS", "/SYS/MB", "/SYS/MB/T_AMB", "/SYS/LOCATE",
                                           "/SYS/FM0"};

void serve_and_plug(bool daemon)
{
    const temporary_directory here;
    const fs::path fan = here.path() / "fan";
    agent server({.daemon = daemon,
                  .preload = KAVPLAT_MINIMAL_PLATFORM,
                  .environment = {{"MINIMAL_PLATFORM_FAN", fan.string()}}});
    ASSERT_NO_THROW(server.start());
    snmp_client client(server.port());
    EXPECT_EQ(names_served(client), without_fan);
    const snmp_answer cells =
        client.get({ent_cell(2, 1), ent_cell(2, 3), ent_cell(11, 2), ent_cell(5, 2)});
    ASSERT_EQ(cells.varbinds.size(), 4U);
    EXPECT_EQ(cells.varbinds[0].value, text_value("Minimal example server"));
    EXPECT_EQ(cells.varbinds[1].value, text_value("Temperature sensor"));
    EXPECT_EQ(cells.varbinds[2].value, text_value("EXB-0001"));
    EXPECT_EQ(cells.varbinds[3].value, integer_value(9)); // module

    write_file(fan, "");
    EXPECT_TRUE(eventually([&] { return names_served(client) == with_fan; }));
    fs::remove(fan);
    EXPECT_TRUE(eventually([&] { return names_served(client) == without_fan; }));
}

void expect_good(const std::string &provocation, const fs::path &fan)
{
    const command_result checked =
        run_command("MINIMAL_PLATFORM_FAN=" + quoted(fan) +
                    " " KAVPLAT_COMMAND " conformance --seconds 0.5 --wait 10 --provoke " +
                    quoted(provocation + " " + quoted(fan)) + " " KAVPLAT_MINIMAL_PLATFORM);
    EXPECT_EQ(checked.status, 0) << checked.output;
}

// The text between "[NAME]" and "[end]" comments of the example.
std::string part(const std::string &code, const std::string &name)
{
    const std::string begin = "/* [" + name + "] */\n";
    const size_t from = code.find(begin);
    const size_t to = code.find("/* [end] */", from);
    if (from == std::string::npos || to == std::string::npos) {
        return "";
    }
    return code.substr(from + begin.size(), to - from - begin.size());
}

} // namespace

TEST(minimal_platform, keeps_every_promise_when_a_component_comes_and_when_it_goes)
{
    const temporary_directory here;
    const fs::path fan = here.path() / "fan";
    expect_good("touch", fan);
    ASSERT_TRUE(fs::exists(fan));
    expect_good("rm", fan);
}

TEST(minimal_platform, is_served_by_an_agent_and_followed_by_it)
{
    serve_and_plug(false);
}

TEST(minimal_platform, is_served_by_an_agent_in_the_background)
{
    serve_and_plug(true);
}

TEST(minimal_platform_document, shows_the_code_of_the_example_in_its_order)
{
    const std::string code = read_file(source / "minimal_platform.c");
    const std::string document =
        read_file(fs::path(KAVPLAT_SOURCE_DIR) / "docs/bring-your-own-platform.md");
    std::string shown;
    size_t blocks = 0;
    for (size_t at = 0; (at = document.find("```c\n", at)) != std::string::npos; blocks++) {
        const size_t end = document.find("```\n", at + 5);
        ASSERT_NE(end, std::string::npos);
        shown += document.substr(at + 5, end - at - 5);
        at = end + 4;
    }
    std::string expected;
    size_t parts = 0;
    for (const char *name :
         {"components", "state", "inventory", "types", "sensor", "absent", "identity", "events"}) {
        const std::string text = part(code, name);
        EXPECT_FALSE(text.empty()) << name;
        expected += text;
        parts++;
    }
    EXPECT_EQ(blocks, parts);
    EXPECT_EQ(shown, expected);
}

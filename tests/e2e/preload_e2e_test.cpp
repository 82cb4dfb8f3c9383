// An implementation of the platform's calls that a process preloads serves it,
// whatever platform the module was linked with.
#include <gtest/gtest.h>

#include "harness/agent.h"
#include "harness/client.h"
#include "harness/names.h"

namespace
{

TEST(preloaded_platform, serves_the_process)
{
    agent server({.preload = KAVPLAT_CHURNING_PLATFORM,
                  .environment = {{"KAVPLAT_CHURN_EVENTS_PER_SECOND", "0"}}});
    ASSERT_NO_THROW(server.start());
    snmp_client client(server.port());
    const snmp_answer answer =
        client.get({ent_cell(7, 1), ent_cell(7, 2), ent_cell(2, 2), ent_cell(11, 2)});
    ASSERT_EQ(answer.varbinds.size(), 4U);
    EXPECT_EQ(answer.varbinds[0].value, text_value("/SYS"));
    EXPECT_EQ(answer.varbinds[1].value, text_value("/SYS/U2"));
    EXPECT_EQ(answer.varbinds[2].value, text_value("a unit of the churning platform"));
    EXPECT_EQ(answer.varbinds[3].value, text_value("SN2"));
    EXPECT_FALSE(server.log_has(server.description().string()));
}

TEST(preloaded_platform, is_not_there_without_the_preload)
{
    agent server;
    ASSERT_NO_THROW(server.start());
    snmp_client client(server.port());
    EXPECT_EQ(client.get({ent_cell(7, 2)}).varbinds.at(0).value, text_value("/SYS/MB"));
}

} // namespace

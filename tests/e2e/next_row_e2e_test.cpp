// The step of a walk that does without net-snmp's helpers (table/next_row) beside the
// helpers: two agents of the same server, of which one traces, so that it takes every
// step through the helpers. Both are sent the same and have to answer the same, to the
// byte.
#include <algorithm>
#include <iterator>
#include <memory>
#include <random>

#include "e2e/messages.h"
#include "harness/agent.h"
#include "harness/client.h"
#include "harness/files.h"
#include "harness/names.h"

namespace
{

// What is not the same in two agents of one server is in no view.
constexpr char configuration[] = "dlmod entitySensorMIB " KAVPLAT_MODULE "\n"
                                 "dlmod entityStateMIB " KAVPLAT_MODULE "\n"
                                 "dlmod entityMappingMIB " KAVPLAT_MODULE "\n"
                                 "kavplatWatchInterval 0\n"
                                 "exactEngineID 0x80000000010203040506\n"
                                 "createUser reader\n"
                                 "view served included .1.3.6.1.2.1.47.1.1.1\n"
                                 "view served included .1.3.6.1.4.1.58213.2.70.101.1.1\n"
                                 "view served excluded .1.3.6.1.4.1.58213.2.70.101.1.1.1\n"
                                 "view served included .1.3.6.1.2.1.99\n"
                                 "view served excluded .1.3.6.1.2.1.99.1.1.1.7\n"
                                 "view served included .1.3.6.1.2.1.131\n"
                                 "view served excluded .1.3.6.1.2.1.131.1.1.1.1\n"
                                 "view served included .1.3.6.1.2.1.47.1.3\n"
                                 "view served included .1.3.6.1.2.1.1.1\n"
                                 "view served included .1.3.6.1.2.1.1.6\n"
                                 // A column each of two tables is left out, and a row.
                                 "view some included .1.3.6.1.2.1.47.1.1.1\n"
                                 "view some excluded .1.3.6.1.2.1.47.1.1.1.1.7\n"
                                 "view some excluded .1.3.6.1.2.1.47.1.1.1.1.0.9 ff:ed\n"
                                 "view some included .1.3.6.1.4.1.58213.2.70.101.1.1.2\n"
                                 "view some excluded .1.3.6.1.4.1.58213.2.70.101.1.1.2.1.2\n"
                                 "view some included .1.3.6.1.4.1.58213.2.70.101.1.1.8\n"
                                 "rocommunity served 127.0.0.1 -V served\n"
                                 "rocommunity some 127.0.0.1 -V some\n"
                                 "rwcommunity written 127.0.0.1 -V served\n"
                                 "rouser reader noauth -V served\n"
                                 // Others' objects inside our tables.
                                 "override .1.3.6.1.2.1.47.1.1.1.1.7.20 octet_str strange\n"
                                 "override .1.3.6.1.2.1.47.1.1.1.1.7.30.1 integer 7\n"
                                 "override .1.3.6.1.4.1.58213.2.70.101.1.1.8.1.4.1 integer 8\n";

// The same of a subagent.
constexpr char of_a_subagent[] = "agentAddress udp:127.0.0.1:161\n"
                                 "override .1.3.6.1.2.1.47.1.1.1.1.7.40 octet_str another\n"
                                 "override .1.3.6.1.2.1.47.1.1.1.1.8.41.2 integer 9\n"
                                 "override .1.3.6.1.2.1.47.1.3.3.1.1.1.3 integer 10\n";
const object_name row_of_a_subagent = ent_cell(7, 40);

constexpr char engine[] = "\x80\x00\x00\x00\x01\x02\x03\x04\x05\x06";

std::string message_v3(const std::string &pdu)
{
    const std::string header = encoded(
        '\x30', encoded(1) + encoded(65507) + encoded('\x04', std::string(1, '\0')) + encoded(3));
    const std::string id(engine, sizeof engine - 1);
    const std::string parameters =
        encoded('\x30', encoded('\x04', id) + encoded(0) + encoded(0) + encoded('\x04', "reader") +
                            encoded('\x04', "") + encoded('\x04', ""));
    return encoded('\x30', encoded(3) + header + encoded('\x04', parameters) +
                               encoded('\x30', encoded('\x04', id) + encoded('\x04', "") + pdu));
}

// What of SNMPv3's header is behind the engine's boots and the time since the last one.
std::string without_time(const std::string &answer)
{
    size_t at = answer.find(std::string(engine, sizeof engine - 1));
    if (at == std::string::npos) {
        return answer;
    }
    at += sizeof engine - 1;
    for (int number = 0; number < 2 && at + 1 < answer.size(); number++) {
        at += 2U + static_cast<unsigned char>(answer[at + 1]);
    }
    return answer.substr(std::min(at, answer.size()));
}

std::string hexadecimal(const std::string &text)
{
    std::string all;
    for (const char c : text) {
        std::array<char, 3> digits;
        snprintf(digits.data(), digits.size(), "%02x", static_cast<unsigned char>(c));
        all += digits.data();
    }
    return all;
}

// Which is that of one agent alone: its start, a reading, a change of state.
bool tells_a_time(const object_name &name)
{
    const std::array<object_name, 3> those = {{{1, 3, 6, 1, 4, 1, 58213, 2, 70, 101, 1, 1, 1, 0},
                                               {1, 3, 6, 1, 2, 1, 99, 1, 1, 1, 7},
                                               {1, 3, 6, 1, 2, 1, 131, 1, 1, 1, 1}}};
    return std::ranges::any_of(those, [&](const object_name &each) {
        return name.size() >= each.size() && std::equal(each.begin(), each.end(), name.begin());
    });
}

class both_agents : public testing::Test
{
  protected:
    void SetUp() override
    {
        for (const char *tokens : {"", "nothing"}) {
            const std::string socket = "tcp:127.0.0.1:" + std::to_string(free_port());
            agents.push_back(std::make_unique<agent>(
                agent_options{.description = "servers/rack-2u.json",
                              .debug_tokens = tokens,
                              .configuration = configuration +
                                               ("master agentx\nagentXSocket " + socket + "\n")}));
            ASSERT_NO_THROW(agents.back()->start());
            clients.push_back(std::make_unique<connection>(SOCK_DGRAM, agents.back()->port()));
            subagents.push_back(std::make_unique<agent>(
                agent_options{.whole_configuration = of_a_subagent,
                              .arguments = {"-X", "-x", socket, "-I", "override"},
                              .wait_for_cache = false}));
            subagents.back()->launch();
        }
        for (const auto &each : agents) {
            snmp_client client(each->port());
            ASSERT_TRUE(eventually([&] {
                return client.get({row_of_a_subagent}).varbinds.at(0).value.text == "another";
            })) << each->log();
        }
        snmp_client client(agents[0]->port());
        for (const object_name &root : roots) {
            for (const varbind &each : client.bulk_walk(root, 50)) {
                served.push_back(each.name);
            }
        }
        snmp_client(agents[1]->port()).bulk_walk(platform_root(), 50); // sensors are read
    }

    unsigned below(unsigned limit) { return static_cast<unsigned>(random() % limit); }

    object_name any_name()
    {
        object_name name = served[below(static_cast<unsigned>(served.size()))];
        switch (below(12)) {
        case 0:
            name.resize(7 + below(static_cast<unsigned>(name.size()) - 6));
            break;
        case 1:
            name.push_back(below(3));
            break;
        case 2:
            name.back() = std::array<unsigned long, 7>{
                0, 411, 412, 413, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF}[below(7)];
            break;
        case 3:
            name[name.size() - 2] = below(20);
            break;
        case 4:
            name[2 + below(static_cast<unsigned>(name.size()) - 2)] += below(3) - 1UL;
            break;
        case 5:
            name = {1, 3, 6, 1, 2, 1, 1, std::array<unsigned long, 2>{1, 6}[below(2)], 0};
            break;
        default:
            break; // as it is
        }
        std::ranges::for_each(name, [](unsigned long &arc) { arc &= 0xFFFFFFFF; });
        return name;
    }

    std::string any_message(int32_t id)
    {
        std::vector<object_name> names(1 + below(below(3) == 0 ? 12 : 2));
        std::ranges::generate(names, [&] { return any_name(); });
        const int version = static_cast<int>(below(4));
        const unsigned kind = below(version == 0 ? 6 : 10);
        const char type = kind == 0   ? set_pdu
                          : kind == 1 ? get_pdu
                          : kind < 6  ? getnext_pdu
                                      : getbulk_pdu;
        const std::string pdu =
            type == getbulk_pdu ? encoded_pdu(type, id, names, static_cast<int32_t>(below(5)) - 1,
                                              static_cast<int32_t>(below(30)) - 1)
                                : encoded_pdu(type, id, names);
        if (version > 1) {
            return message_v3(pdu);
        }
        const char *community = std::array{"served", "served", "some", "written"}[below(4)];
        return message(version, community, pdu);
    }

    void spoil(std::string &text)
    {
        for (unsigned i = 0; i <= below(3); i++) {
            const unsigned at = below(static_cast<unsigned>(text.size()));
            switch (below(3)) {
            case 0:
                text[at] = static_cast<char>(below(256));
                break;
            case 1:
                text.erase(at, 1 + below(4));
                break;
            default:
                text.insert(at, 1 + below(4), static_cast<char>(below(256)));
            }
        }
    }

    // Keeps what each answers before it answers the message behind them. An answer may come
    // later: on a busy machine an agent puts off what takes it long.
    void ask(const std::vector<std::string> &messages)
    {
        for (const auto &client : clients) {
            for (const std::string &each : messages) {
                client->send(each);
            }
            client->send(get_message("public", {behind}));
        }
        for (size_t i = 0; i < clients.size(); i++) {
            for (std::string each; !(each = clients[i]->read()).empty();) {
                if (each.find("public") != std::string::npos &&
                    each.find(content_of(behind)) != std::string::npos) {
                    break;
                }
                answers[i].push_back(without_time(each));
            }
        }
    }

    // In an order that does not tell when they came, and so that a person can read them.
    std::vector<std::string> all_answers(size_t i)
    {
        const size_t most = std::max(answers[0].size(), answers[1].size());
        for (std::string each; answers[i].size() < most && !(each = clients[i]->read()).empty();) {
            answers[i].push_back(without_time(each));
        }
        std::vector<std::string> all;
        std::ranges::transform(answers[i], std::back_inserter(all), hexadecimal);
        std::ranges::sort(all);
        return all;
    }

    const std::vector<object_name> roots = {ent_table(),
                                            {1, 3, 6, 1, 2, 1, 47, 1, 3},
                                            {1, 3, 6, 1, 2, 1, 99},
                                            {1, 3, 6, 1, 2, 1, 131},
                                            platform_root()};
    const object_name behind = {1, 3, 6, 1, 2, 1, 1, 5, 0}; // in no view but that of public
    std::vector<std::unique_ptr<agent>> agents;
    std::vector<std::unique_ptr<agent>> subagents;
    std::vector<std::unique_ptr<connection>> clients;
    std::array<std::vector<std::string>, 2> answers;
    std::vector<object_name> served;
    std::mt19937 random{20};
};

TEST_F(both_agents, answer_thousands_of_odd_and_broken_messages_alike)
{
    constexpr int32_t messages = 2000;
    std::vector<std::string> some;
    for (int32_t id = 1; id <= messages; id++) {
        some.push_back(any_message(id));
        if (below(5) == 0) {
            spoil(some.back());
        }
        if (some.size() == 30) {
            ask(some);
            some.clear();
        }
    }
    const std::vector<std::string> stepped = all_answers(0);
    const std::vector<std::string> helped = all_answers(1);
    printf("%zu of %d were answered\n", stepped.size(), messages);
    EXPECT_GT(stepped.size(), static_cast<size_t>(messages) * 3 / 4);
    ASSERT_EQ(stepped.size(), helped.size());
    for (size_t i = 0; i < stepped.size(); i++) {
        ASSERT_EQ(stepped[i], helped[i]);
    }
}

TEST_F(both_agents, walk_alike)
{
    for (const char *community : {"served", "some", "public"}) {
        size_t objects = 0;
        for (const object_name &root : roots) {
            std::vector<std::vector<varbind>> found;
            for (const auto &each : agents) {
                found.push_back(snmp_client(each->port(), community).bulk_walk(root, 20));
            }
            objects += found[0].size();
            EXPECT_EQ(found[0].size(), found[1].size()) << community;
            for (size_t i = 0; i < std::min(found[0].size(), found[1].size()); i++) {
                if (!tells_a_time(found[0][i].name)) {
                    ASSERT_EQ(found[0][i], found[1][i]) << community;
                }
            }
        }
        EXPECT_GT(objects, 1000U) << community;
    }
}

} // namespace

// Walks of the module's tables beside those of others that serve the same rows.
#include "contender.h"
#include "generated_server.h"
#include "statistics.h"
#include "subjects.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <stdexcept>

namespace fs = std::filesystem;

namespace
{

constexpr size_t sizes[] = {250, 1000, 10000};

enum peer : size_t { own, container, own_portion, agentx, pass_persist, peer_count };

constexpr const char *peer_names[] = {"own", "container_table", "own, in part", "AgentX",
                                      "pass_persist"};

struct server_under_test {
    size_t size = 0;
    fs::path description;
    std::unique_ptr<measured_agent> agent;
    std::unique_ptr<measured_agent> master;
    std::array<std::array<contender, peer_count>, std::size(tables)> contenders;
};

std::string text_for_pass(const varbind &row)
{
    const snmp_value &value = row.value;
    std::string out = to_text(row.name);
    switch (value.type) {
    case snmp_integer:
        return out + "\tinteger\t" + std::to_string(value.number);
    case snmp_octets:
        if (std::ranges::all_of(value.text, [](unsigned char c) { return isprint(c) != 0; })) {
            return out + "\tstring\t" + value.text;
        }
        out += "\toctet\t";
        for (const char c : value.text) {
            char hex[4];
            snprintf(hex, sizeof hex, "%02x ", static_cast<unsigned char>(c));
            out += hex;
        }
        return out;
    case snmp_object_id:
        return out + "\tobjectid\t" + to_text(value.object);
    default:
        return out + "\tgauge\t" + std::to_string(value.number);
    }
}

// As bench/container_module.cpp reads it.
std::string text_for_container(size_t table, const varbind &row)
{
    const measured_table &of = tables[table];
    const snmp_value &value = row.value;
    std::string out = std::to_string(table - platform_tables) + " " +
                      std::to_string(row.name.at(of.own.size())) + " " +
                      std::to_string(row.name.at(of.own.size() + 1)) + " " +
                      (of.indexes == 2 ? std::to_string(row.name.back()) : "0") + " " +
                      std::to_string(value.type);
    switch (value.type) {
    case snmp_octets:
        out += " " + std::to_string(value.text.size());
        for (const char c : value.text) {
            out += " " + std::to_string(static_cast<unsigned char>(c));
        }
        return out;
    case snmp_object_id:
        out += " " + std::to_string(value.object.size());
        for (const unsigned long each : value.object) {
            out += " " + std::to_string(each);
        }
        return out;
    default:
        return out + " " + std::to_string(value.number);
    }
}

// What a peer serves has to be what we serve.
void expect_same(snmp_client &client, const object_name &own_column,
                 const std::vector<varbind> &wanted, const object_name &own_root,
                 const object_name &root, const char *peer)
{
    std::vector<varbind> found = client.bulk_walk(moved(own_column, own_root, root), 50);
    for (varbind &each : found) {
        each.name = moved(each.name, root, own_root);
    }
    const auto [other, ours] = std::ranges::mismatch(found, wanted);
    if (other != found.end() || ours != wanted.end()) {
        const std::string instead = other == found.end() ? "nothing" : text_for_pass(*other);
        throw std::runtime_error(std::string(peer) + " does not serve the rows below " +
                                 to_text(own_column) + " that the module serves, but " + instead +
                                 " where the module serves " +
                                 (ours == wanted.end() ? "nothing" : text_for_pass(*ours)));
    }
}

// Every how many columns the slower peers are asked for, so that the largest table
// does not take them minutes.
unsigned long column_step(size_t size)
{
    return size > 1000 ? 8 : size > 250 ? 4 : 1;
}

fs::path stored_rows_of(const fs::path &directory)
{
    return directory / "stored_rows";
}

void start_agents(server_under_test &server, const fs::path &directory, size_t size)
{
    server.size = size;
    fs::create_directories(directory / "own");
    fs::create_directories(directory / "master");
    server.description = directory / "server.json";
    write_file(server.description, describe_server(generate_server(size)));
    const fs::path rows = directory / "rows";
    server.agent = std::make_unique<measured_agent>(
        directory / "own",
        "dlmod entityMIB " KAVPLAT_MODULE "\n"
        "dlmod kavPlatMIB " KAVPLAT_MODULE "\n"
        "dlmod entitySensorMIB " KAVPLAT_MODULE "\n"
        "dlmod entityStateMIB " KAVPLAT_MODULE "\n"
        "dlmod entityMappingMIB " KAVPLAT_MODULE "\n"
        "kavplatWatchInterval 0\n"
        "dlmod benchContainer " KAVPLAT_BENCH_CONTAINER "\n"
        "benchRows " +
            stored_rows_of(directory).string() +
            "\n"
            "pass_persist .1.3.6.1.4.1.58213.99.3 /usr/bin/perl " KAVPLAT_BENCH_ROWS " " +
            rows.string() + "\n",
        server.description);
    const fs::path agentx_socket = directory / "agentx";
    server.master = std::make_unique<measured_agent>(
        directory / "master", "master agentx\nagentXSocket unix:" + agentx_socket.string() + "\n");
    server.master->start_beside({KAVPLAT_BENCH_AGENTX_HOST, "unix:" + agentx_socket.string()},
                                server.description);
    if (!eventually([&] { return server.agent->log_has("rows copied"); })) {
        server.agent->fail("the cache is not built");
    }
    if (!eventually([&] { return server.master->log_has("local cache ready"); })) {
        server.master->fail("the subagent's cache is not built");
    }
}

void prepare(server_under_test &server, const fs::path &directory)
{
    std::string all_rows;
    std::string stored_rows;
    std::array<column_rows, std::size(tables)> rows;
    snmp_client client(server.agent->port());
    snmp_client master(server.master->port());
    for (size_t t = 0; t < std::size(tables); t++) {
        const measured_table &table = tables[t];
        const std::vector<varbind> walked = client.bulk_walk(table.own, 50);
        rows[t] = by_column(walked, table.own);
        if (rows[t].begin()->first != table.first_column ||
            rows[t].rbegin()->first != table.last_column) {
            throw std::runtime_error(std::string(table.name) + " lacks columns");
        }
        for (varbind row : walked) {
            if (t >= platform_tables) {
                stored_rows += text_for_container(t, row) + "\n";
                continue;
            }
            row.name = moved(row.name, table.own, table.pass);
            all_rows += text_for_pass(row) + "\n";
        }
        auto &contenders = server.contenders[t];
        const walk_range whole = range_of(table.own, walked, table.own, table.own);
        contenders[own] = {server.agent.get(), {whole}, {}};
        contenders[container] = {
            server.agent.get(), {range_of(table.own, walked, table.own, table.container)}, {}};
        if (t < platform_tables) {
            contenders[own_portion].agent = server.agent.get();
            contenders[pass_persist].agent = server.agent.get();
            contenders[agentx].agent = server.master.get();
        }
    }
    write_file(directory / "rows", all_rows);
    replace_file(stored_rows_of(directory), stored_rows);
    if (!eventually([&] { return server.agent->log_has("rows stored"); })) {
        server.agent->fail("the rows of container_table are not there");
    }
    for (size_t t = 0; t < std::size(tables); t++) {
        const measured_table &table = tables[t];
        auto &contenders = server.contenders[t];
        const object_name *roots[peer_count] = {&table.own, &table.container, &table.own,
                                                &table.own, &table.pass};
        for (const auto &[number, column] : rows[t]) {
            const object_name start = with(table.own, number);
            if (number != table.clock_column) {
                expect_same(client, start, column, table.own, table.container, "container_table");
            }
            if (t >= platform_tables ||
                (number - table.first_column) % column_step(server.size) != 0) {
                continue;
            }
            expect_same(client, start, column, table.own, table.pass, "the pass_persist script");
            expect_same(master, start, column, table.own, table.own, "the subagent");
            for (const peer p : {own_portion, agentx, pass_persist}) {
                contenders[p].ranges.push_back(range_of(start, column, table.own, *roots[p]));
            }
        }
        const auto &[number, column] = *rows[t].begin();
        for (size_t p = 0; p < (t < platform_tables ? peer_count : own_portion); p++) {
            contenders[p].warm_up = range_of(with(table.own, number), column, table.own, *roots[p]);
        }
    }
    server.agent->find_processes();
    server.master->find_processes();
}

struct walk_samples {
    // By size, table, kind of request and peer.
    std::array<std::array<std::array<std::array<samples, peer_count>, std::size(kinds)>,
                          std::size(tables)>,
               std::size(sizes)>
        walks;
    // A GETNEXT that costs nothing but itself.
    samples least;
};

contender least_getnext(measured_agent &agent)
{
    const object_name uptime = {1, 3, 6, 1, 2, 1, 1, 3};
    const walk_range range = {encode(uptime), encode(with(uptime, 0)), 1};
    return {&agent, {range}, range};
}

void run_walks(std::vector<server_under_test> &servers, size_t rounds, walk_samples &out)
{
    for (size_t round = 0; round < rounds; round++) {
        fprintf(stderr, "walks: round %zu of %zu\n", round + 1, rounds);
        measure(least_getnext(*servers.front().agent), false, 0, out.least);
        for (size_t t = 0; t < std::size(tables); t++) {
            for (size_t k = 0; k < std::size(kinds); k++) {
                for (size_t s = 0; s < servers.size(); s++) {
                    for (size_t i = 0; i < peer_count; i++) {
                        const size_t p = (i + round) % peer_count;
                        if (!servers[s].contenders[t][p].agent) {
                            continue;
                        }
                        measure(servers[s].contenders[t][p], p == agentx || p == pass_persist,
                                kinds[k].repetitions, out.walks[s][t][k][p]);
                    }
                }
            }
        }
    }
}

std::string verdict(const std::vector<double> &samples, double goal, bool at_least)
{
    const double value = median(samples);
    char text[64];
    snprintf(text, sizeof text, "%s %.2f: %s", at_least ? "at least" : "at most", goal,
             (at_least ? value >= goal : value <= goal) ? "reached" : "missed");
    return text;
}

void print_walks(const walk_samples &measured)
{
    const auto &all = measured.walks;
    printf("## Walks\n\n"
           "How many times the peer's time the module takes less: above 1 the module is quicker.\n"
           "Wall clock as a client sees it / processor time of the agent's processes.\n\n"
           "| Entities | Table | By | container_table | AgentX | pass_persist |\n"
           "|---|---|---|---|---|---|\n");
    for (size_t s = 0; s < std::size(sizes); s++) {
        for (size_t t = 0; t < std::size(tables); t++) {
            for (size_t k = 0; k < std::size(kinds); k++) {
                const auto &of = all[s][t][k];
                printf("| %zu | %s | %s ", sizes[s], tables[t].name, kinds[k].name);
                for (const auto &[peer, ours] : {std::pair{container, own},
                                                 {agentx, own_portion},
                                                 {pass_persist, own_portion}}) {
                    if (of[peer].wall.empty()) {
                        printf("| - ");
                        continue;
                    }
                    printf("| %s / %s ", with_spread(ratios(of[peer].wall, of[ours].wall)).c_str(),
                           with_spread(ratios(of[peer].processor, of[ours].processor)).c_str());
                }
                printf("|\n");
            }
        }
    }
    printf("\n| Goal of the walks | Least median, wall clock | Least median, processor time | |\n"
           "|---|---|---|---|\n");
    const std::tuple<peer, peer, double> goals[] = {
        {container, own, 1.0}, {agentx, own_portion, 5.0}, {pass_persist, own_portion, 8.0}};
    for (const auto &[peer, ours, goal] : goals) {
        std::vector<double> wall;
        std::vector<double> processor;
        for (const auto &size : all) {
            for (const auto &table : size) {
                for (const auto &kind : table) {
                    if (kind[peer].wall.empty()) {
                        continue;
                    }
                    wall.push_back(median(ratios(kind[peer].wall, kind[ours].wall)));
                    processor.push_back(median(ratios(kind[peer].processor, kind[ours].processor)));
                }
            }
        }
        const auto reached =
            std::ranges::count_if(wall, [least = goal](double w) { return w >= least; });
        printf("| at least %.1f of %s | %.2f | %.2f | reached by %td of %zu walks |\n", goal,
               peer_names[peer], std::ranges::min(wall), std::ranges::min(processor), reached,
               wall.size());
    }
    const auto &of = all[0][0][std::size(kinds) - 1];
    printf("\n| A walk by GETNEXT of %s, %zu entities, over as many GETNEXTs of sysUpTime "
           "| Wall clock | Processor time |\n|---|---|---|\n",
           tables[0].name, sizes[0]);
    for (const peer p : {own, container, agentx, pass_persist}) {
        printf("| %s | %s | %s |\n", peer_names[p],
               with_spread(ratios(of[p].wall, measured.least.wall)).c_str(),
               with_spread(ratios(of[p].processor, measured.least.processor)).c_str());
    }
    printf("\n| Cost of a varbind at 10000 entities over that at 250 | Wall clock | Processor time "
           "| Goal |\n"
           "|---|---|---|---|\n");
    for (size_t t = 0; t < std::size(tables); t++) {
        for (size_t k = 0; k < std::size(kinds); k++) {
            const std::vector<double> wall = ratios(all[2][t][k][own].wall, all[0][t][k][own].wall);
            const std::vector<double> processor =
                ratios(all[2][t][k][own].processor, all[0][t][k][own].processor);
            const std::vector<double> peer =
                ratios(all[2][t][k][container].processor, all[0][t][k][container].processor);
            printf("| %s, %s | %s | %s (container_table: %s) | %s |\n", tables[t].name,
                   kinds[k].name, with_spread(wall).c_str(), with_spread(processor).c_str(),
                   with_spread(peer).c_str(), verdict(wall, 1.15, false).c_str());
        }
    }
    fprintf(stderr, "microseconds a varbind, wall clock / processor time:\n");
    for (size_t s = 0; s < std::size(sizes); s++) {
        for (size_t t = 0; t < std::size(tables); t++) {
            for (size_t k = 0; k < std::size(kinds); k++) {
                fprintf(stderr, "%6zu %-26s %-11s", sizes[s], tables[t].name, kinds[k].name);
                for (size_t p = 0; p < peer_count; p++) {
                    if (const samples &one = all[s][t][k][p]; !one.wall.empty()) {
                        fprintf(stderr, " %s %.2f/%.2f", peer_names[p], median(one.wall),
                                median(one.processor));
                    }
                }
                fprintf(stderr, "\n");
            }
        }
    }
    printf("\n");
}

} // namespace

void walks(const fs::path &directory, size_t rounds)
{
    std::vector<server_under_test> servers(std::size(sizes));
    for (size_t s = 0; s < std::size(sizes); s++) {
        const fs::path own_directory = directory / std::to_string(sizes[s]);
        fprintf(stderr, "walks: starting the agents of %zu entities\n", sizes[s]);
        start_agents(servers[s], own_directory, sizes[s]);
        prepare(servers[s], own_directory);
    }
    auto all = std::make_unique<walk_samples>();
    run_walks(servers, rounds, *all);
    print_walks(*all);
}

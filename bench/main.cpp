// Measures how quick the module is against other ways of serving the same rows,
// and prints ratios as a Markdown document.
//
// usage: kavplat-bench [--rounds N] [--only walks|traces|process|latency] [--unpinned]
//
// Clients and agents share one processor, unless --unpinned leaves them to the
// scheduler.
//
// Everything that is compared is measured in turn, round after round, so that
// whatever else the machine does befalls all of it; a ratio is taken within a
// round, and what is told is the median over the rounds with the quartiles.
#include "generated_server.h"
#include "harness/agent.h"
#include "harness/client.h"
#include "light_client.h"
#include "measured_agent.h"
#include "statistics.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/version.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <sched.h>
#include <sstream>
#include <stdexcept>
#include <sys/utsname.h>

namespace fs = std::filesystem;

namespace
{

constexpr size_t sizes[] = {250, 1000, 10000};

struct measured_table {
    const char *name;
    object_name own;
    object_name container;
    object_name pass;
    unsigned long first_column;
    unsigned long last_column;
};

const measured_table tables[] = {
    {"entPhysicalTable",
     {1, 3, 6, 1, 2, 1, 47, 1, 1, 1, 1},
     {1, 3, 6, 1, 4, 1, 58213, 99, 1, 1},
     {1, 3, 6, 1, 4, 1, 58213, 99, 3, 1},
     2,
     16},
    {"kavPlatNumericSensorTable",
     {1, 3, 6, 1, 4, 1, 58213, 2, 70, 101, 1, 1, 8, 1},
     {1, 3, 6, 1, 4, 1, 58213, 99, 2, 1},
     {1, 3, 6, 1, 4, 1, 58213, 99, 3, 2},
     1,
     16},
};

struct request_kind {
    const char *name;
    size_t repetitions;
};

constexpr request_kind kinds[] = {{"GETBULK 50", 50}, {"GETBULK 25", 25}, {"GETNEXT", 0}};

enum peer : size_t { own, container, own_portion, agentx, pass_persist, peer_count };

constexpr const char *peer_names[] = {"own", "container_table", "own, in part", "AgentX",
                                      "pass_persist"};

// Microseconds a varbind, a value for each round.
struct samples {
    std::vector<double> wall;
    std::vector<double> processor;
};

// How one peer is asked for a table.
struct contender {
    measured_agent *agent = nullptr;
    std::vector<walk_range> ranges;
    walk_range warm_up;
};

struct server_under_test {
    size_t size = 0;
    fs::path description;
    std::unique_ptr<measured_agent> agent;
    std::unique_ptr<measured_agent> master;
    std::array<std::array<contender, peer_count>, std::size(tables)> contenders;
};

object_name with(object_name name, unsigned long arc)
{
    name.push_back(arc);
    return name;
}

object_name moved(const object_name &name, const object_name &from, const object_name &to)
{
    object_name out = to;
    out.insert(out.end(), name.begin() + static_cast<ptrdiff_t>(from.size()), name.end());
    return out;
}

// ---- The servers -------------------------------------------------------------

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

using column_rows = std::map<unsigned long, std::vector<varbind>>;

column_rows by_column(const std::vector<varbind> &rows, const object_name &root)
{
    column_rows out;
    for (const varbind &row : rows) {
        out[row.name.at(root.size())].push_back(row);
    }
    return out;
}

walk_range range_of(const object_name &start, const std::vector<varbind> &rows,
                    const object_name &from, const object_name &to)
{
    return {encode(moved(start, from, to)), encode(moved(rows.back().name, from, to)), rows.size()};
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
        "dlmod benchContainer " KAVPLAT_BENCH_CONTAINER "\n"
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
            row.name = moved(row.name, table.own, table.pass);
            all_rows += text_for_pass(row) + "\n";
        }
        auto &contenders = server.contenders[t];
        const walk_range whole = range_of(table.own, walked, table.own, table.own);
        contenders[own] = {server.agent.get(), {whole}, {}};
        contenders[container] = {
            server.agent.get(), {range_of(table.own, walked, table.own, table.container)}, {}};
        contenders[own_portion].agent = server.agent.get();
        contenders[pass_persist].agent = server.agent.get();
        contenders[agentx].agent = server.master.get();
    }
    write_file(directory / "rows", all_rows);
    for (size_t t = 0; t < std::size(tables); t++) {
        const measured_table &table = tables[t];
        auto &contenders = server.contenders[t];
        const object_name *roots[peer_count] = {&table.own, &table.container, &table.own,
                                                &table.own, &table.pass};
        for (const auto &[number, column] : rows[t]) {
            const object_name start = with(table.own, number);
            expect_same(client, start, column, table.own, table.container, "container_table");
            if ((number - table.first_column) % column_step(server.size) != 0) {
                continue;
            }
            expect_same(client, start, column, table.own, table.pass, "the pass_persist script");
            expect_same(master, start, column, table.own, table.own, "the subagent");
            for (const peer p : {own_portion, agentx, pass_persist}) {
                contenders[p].ranges.push_back(range_of(start, column, table.own, *roots[p]));
            }
        }
        const auto &[number, column] = *rows[t].begin();
        for (size_t p = 0; p < peer_count; p++) {
            contenders[p].warm_up = range_of(with(table.own, number), column, table.own, *roots[p]);
        }
    }
    server.agent->find_processes();
    server.master->find_processes();
}

// ---- Walks -------------------------------------------------------------------

size_t length_of(const contender &who)
{
    size_t count = 0;
    for (const walk_range &range : who.ranges) {
        count += range.count;
    }
    return count;
}

double microseconds_now()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

// At least so many varbinds, so that a small table is not over before the clock
// has ticked.
constexpr size_t fewest_varbinds = 15000;

void measure(const contender &who, bool is_slow, size_t repetitions, samples &out)
{
    const size_t length = length_of(who);
    const size_t times = is_slow ? 1 : (fewest_varbinds + length - 1) / length;
    // Sensors older than ten seconds are read anew, which is not what is compared.
    who.agent->client().walk(who.warm_up, 50);
    const uint64_t processor = who.agent->processor_time();
    const double start = microseconds_now();
    for (size_t i = 0; i < times; i++) {
        for (const walk_range &range : who.ranges) {
            who.agent->client().walk(range, repetitions);
        }
    }
    const double varbinds = static_cast<double>(length * times);
    out.wall.push_back((microseconds_now() - start) / varbinds);
    out.processor.push_back(static_cast<double>(who.agent->processor_time() - processor) / 1e3 /
                            varbinds);
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
                    fprintf(stderr, " %s %.2f/%.2f", peer_names[p], median(all[s][t][k][p].wall),
                            median(all[s][t][k][p].processor));
                }
                fprintf(stderr, "\n");
            }
        }
    }
    printf("\n");
}

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

// ---- Traces ------------------------------------------------------------------

void traces(const fs::path &directory, size_t rounds)
{
    constexpr size_t size = 1000;
    fs::create_directories(directory);
    const fs::path description = directory / "server.json";
    write_file(description, describe_server(generate_server(size)));
    std::unique_ptr<measured_agent> agents[2];
    contender contenders[2][std::size(tables)];
    for (size_t i = 0; i < 2; i++) {
        const std::string module = i == 0 ? KAVPLAT_MODULE : KAVPLAT_BENCH_UNTRACED_MODULE;
        const fs::path own_directory = directory / (i == 0 ? "traced" : "untraced");
        fs::create_directories(own_directory);
        agents[i] = std::make_unique<measured_agent>(
            own_directory, "dlmod entityMIB " + module + "\ndlmod kavPlatMIB " + module + "\n",
            description);
        if (!eventually([&] { return agents[i]->log_has("local cache ready"); })) {
            agents[i]->fail("the cache is not built");
        }
        snmp_client client(agents[i]->port());
        for (size_t t = 0; t < std::size(tables); t++) {
            const object_name &root = tables[t].own;
            const std::vector<varbind> rows = client.bulk_walk(root, 50);
            const column_rows columns = by_column(rows, root);
            contenders[i][t] = {
                agents[i].get(),
                {range_of(root, rows, root, root)},
                range_of(with(root, columns.begin()->first), columns.begin()->second, root, root)};
        }
    }
    samples all[2][std::size(tables)][std::size(kinds)];
    for (size_t round = 0; round < 3 * rounds; round++) {
        for (size_t t = 0; t < std::size(tables); t++) {
            for (size_t k = 0; k < std::size(kinds); k++) {
                for (size_t i = 0; i < 2; i++) {
                    const size_t who = (i + round) % 2;
                    measure(contenders[who][t], false, kinds[k].repetitions, all[who][t][k]);
                }
            }
        }
    }
    printf("## Traces, compiled in and off, over compiled out\n\n"
           "| Walk of %zu entities | Wall clock | Processor time |\n|---|---|---|\n",
           size);
    for (size_t t = 0; t < std::size(tables); t++) {
        for (size_t k = 0; k < std::size(kinds); k++) {
            printf("| %s, %s | %s | %s |\n", tables[t].name, kinds[k].name,
                   with_spread(ratios(all[0][t][k].wall, all[1][t][k].wall)).c_str(),
                   with_spread(ratios(all[0][t][k].processor, all[1][t][k].processor)).c_str());
        }
    }
    printf("\n");
}

// ---- Inside a process ----------------------------------------------------------

std::string output_of(const std::string &command)
{
    const command_result result = run_command(command);
    if (result.status != 0) {
        throw std::runtime_error("failed: " + command + "\n" + result.output);
    }
    return result.output;
}

using named_samples = std::map<std::string, std::map<std::string, std::vector<double>>>;

// By the benchmark's name: its time in ns, and its counters.
void add_process_samples(const std::string &program, const std::string &prefix, named_samples &out)
{
    const auto report = nlohmann::json::parse(
        output_of(program + " --benchmark_format=json --benchmark_repetitions=9"
                            " --benchmark_enable_random_interleaving=true 2>/dev/null"));
    for (const auto &run : report.at("benchmarks")) {
        if (run.at("run_type") != "iteration") {
            continue;
        }
        std::string name = run.at("run_name");
        name = prefix + name.substr(0, name.find("/iterations:"));
        name = name.substr(0, name.find("/min_time:"));
        name = name.substr(0, name.find("/manual_time"));
        out[name]["time"].push_back(run.at("real_time").get<double>() / run.value("steps", 1.0));
        if (run.contains("bytes")) {
            out[name]["bytes"].push_back(run.at("bytes"));
        }
    }
}

void print_ratio(const char *what, const std::vector<double> &over,
                 const std::vector<double> &under, const char *unit, double scale)
{
    std::vector<double> shown;
    for (const double value : over) {
        shown.push_back(value * scale);
    }
    printf("| %s | %s | %s %s |\n", what, with_spread(ratios(over, under)).c_str(),
           with_spread(shown).c_str(), unit);
}

void process_figures()
{
    named_samples all;
    add_process_samples(KAVPLAT_BENCH_IN_PROCESS, "", all);
    const auto time = [&](const char *name) { return all.at(name).at("time"); };
    const auto bytes = [&](const char *name) { return all.at(name).at("bytes"); };
    printf("## The cache\n\n"
           "| At 10000 entities over at 250 | Ratio | At 10000 |\n|---|---|---|\n");
    print_ratio("build time an entity", time("build/10000"), time("build/250"), "us", 1e-3);
    print_ratio("memory an entity", bytes("build/10000"), bytes("build/250"), "bytes", 1);
    print_ratio("hot insert of a board with 50 children", time("hot_insert/10000"),
                time("hot_insert/250"), "us", 1e-3);
    print_ratio("hot remove of a board with 50 children", time("hot_remove/10000"),
                time("hot_remove/250"), "us", 1e-3);
    printf("\n## The hash table\n\n"
           "Time of `std::unordered_map` over ours, the same keys, hash and equality: above 1 ours "
           "is quicker.\n\n"
           "| | 250 keys | 10000 keys |\n|---|---|---|\n");
    for (const char *operation : {"insert", "growth", "search", "miss"}) {
        printf("| %s ", operation);
        for (const char *size : {"/250", "/10000"}) {
            const std::string name = std::string("hash_") + operation;
            printf("| %s ", with_spread(ratios(all.at(name + "/map" + size).at("time"),
                                               all.at(name + "/ours" + size).at("time")))
                                .c_str());
        }
        printf("|\n");
    }
    printf("\n");
}

// ---- From file to row ----------------------------------------------------------

void latency()
{
    printf("## From saving the description to the row being served\n\n```\n%s```\n\n",
           output_of(KAVPLAT_BENCH_LATENCY).c_str());
}

// ---- The machine ---------------------------------------------------------------

std::string processor_model()
{
    std::ifstream in("/proc/cpuinfo");
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with("model name")) {
            return line.substr(line.find(':') + 2);
        }
    }
    return "unknown processor";
}

std::string load()
{
    double loads[3] = {};
    char text[32];
    snprintf(text, sizeof text, "%.2f", getloadavg(loads, 3) > 0 ? loads[0] : -1.0);
    return text;
}

void print_machine()
{
    utsname system = {};
    uname(&system);
    printf(
        "# Performance\n\n%s, %ld processors, %s %s, net-snmp %s, gcc %s; load at the start %s\n\n",
        processor_model().c_str(), sysconf(_SC_NPROCESSORS_ONLN), system.sysname, system.release,
        netsnmp_get_version(), __VERSION__, load().c_str());
}

// Client and agent take turns, so one processor serves both, and nothing is
// measured that a processor takes to wake up. Children inherit this.
void keep_to_one_processor()
{
    cpu_set_t allowed;
    if (sched_getaffinity(0, sizeof allowed, &allowed) != 0) {
        return;
    }
    for (size_t i = CPU_SETSIZE; i-- > 0;) {
        if (CPU_ISSET(i, &allowed)) {
            CPU_ZERO(&allowed);
            CPU_SET(i, &allowed);
            sched_setaffinity(0, sizeof allowed, &allowed);
            return;
        }
    }
}

int usage()
{
    fprintf(stderr, "usage: kavplat-bench [--rounds N] [--only walks|traces|process|latency] "
                    "[--unpinned]\n");
    return 2;
}

} // namespace

int main(int argc, char **argv)
{
    size_t rounds = 7;
    std::string only;
    bool is_pinned = true;
    for (int i = 1; i < argc; i++) {
        const std::string word = argv[i];
        if (word == "--rounds" && i + 1 < argc) {
            rounds = strtoul(argv[++i], nullptr, 10);
        } else if (word == "--only" && i + 1 < argc) {
            only = argv[++i];
        } else if (word == "--unpinned") {
            is_pinned = false;
        } else {
            return usage();
        }
    }
    if (rounds == 0) {
        return usage();
    }
    try {
        const temporary_directory directory;
        print_machine();
        if (only.empty() || only == "process") {
            process_figures();
        }
        if (only.empty() || only == "latency") {
            latency();
        }
        if (is_pinned) {
            keep_to_one_processor();
        }
        if (only.empty() || only == "walks") {
            walks(directory.path() / "walks", rounds);
        }
        if (only.empty() || only == "traces") {
            traces(directory.path() / "traces", rounds);
        }
        printf("Load at the end: %s\n", load().c_str());
    } catch (const std::exception &e) {
        fflush(stdout);
        fprintf(stderr, "kavplat-bench: %s\n", e.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}

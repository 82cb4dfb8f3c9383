// What programs of their own measure: the cache and the hash table within a process,
// and the way from a file to a row.
#include "statistics.h"
#include "subjects.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <map>
#include <stdexcept>
#include <string>

#include "harness/process.h"

namespace
{

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

} // namespace

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

void latency()
{
    printf("## From saving the description to the row being served\n\n```\n%s```\n\n",
           output_of(KAVPLAT_BENCH_LATENCY).c_str());
}

// How long it takes from the last byte of a saved description until a client is served the
// new row: median and worst of all saves, half of them insertions, half removals.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "generated_server.h"
#include "harness/agent.h"
#include "harness/client.h"
#include "harness/names.h"

namespace fs = std::filesystem;

namespace
{

using clock_type = std::chrono::steady_clock;
using nlohmann::ordered_json;

double milliseconds(clock_type::duration time)
{
    return std::chrono::duration<double, std::milli>(time).count();
}

double megabytes(long kibibytes)
{
    return static_cast<double>(kibibytes) / 1024;
}

// A description that is saved with and without what it may have besides, in turn. The last
// row of what comes is waited for, until it is there or not there.
struct change {
    const char *what;
    fs::path first; // as the agent begins
    std::string without;
    std::string with;
    unsigned long components;
    unsigned long added;
    int repetitions;
};

void measure(const change &change)
{
    agent server({.description = change.first});
    server.start();
    const long at_first = server.memory();
    snmp_client client(server.port());
    unsigned long index = change.components;
    std::vector<double> times;
    for (int i = 0; i < change.repetitions; i++) {
        const bool inserts = i % 2 == 0;
        if (inserts) {
            index += change.added;
        }
        const object_name cell = ent_cell(7, index);
        replace_file(server.description(), inserts ? change.with : change.without);
        const auto saved = clock_type::now();
        for (;;) {
            const snmp_answer answer = client.get({cell});
            if (answer.varbinds.size() == 1 &&
                (answer.varbinds[0].value == no_instance()) != inserts) {
                break;
            }
            if (clock_type::now() - saved > std::chrono::seconds(30)) {
                throw std::runtime_error("change " + std::to_string(i) + " is not served");
            }
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        times.push_back(milliseconds(clock_type::now() - saved));
    }
    std::ranges::sort(times);
    printf("%s (%lu components): median %.1f ms, worst %.1f ms of %zu; resident %.1f MB, then %.1f "
           "MB\n",
           change.what, change.components, times[times.size() / 2], times.back(), times.size(),
           megabytes(at_first), megabytes(server.memory()));
}

void measure_one_more(const char *what, const fs::path &description, int repetitions)
{
    const ordered_json without =
        ordered_json::parse(read_file(fs::path(KAVPLAT_SOURCE_DIR) / description));
    ordered_json with = without;
    with["components"].push_back({{"name", "/SYS/LATENCY"}, {"type", "disk"}});
    measure({what, description, without.dump(2), with.dump(2), without["components"].size(), 1,
             repetitions});
}

void measure_generated(size_t size, int repetitions)
{
    const temporary_directory directory;
    const fs::path whole = directory.path() / "whole.json";
    const fs::path root = directory.path() / "root.json";
    write_file(whole, describe_server(generate_server(size)));
    write_file(root, describe_server(generate_server(1)));
    measure_one_more("one more in a large server", whole, repetitions);
    measure({"all of a large server, and all but its root removed", root, read_file(root),
             read_file(whole), 1, size - 1, repetitions});
}

} // namespace

int main()
{
    try {
        measure_one_more("servers/minimal.json", "servers/minimal.json", 100);
        measure_one_more("servers/rack-2u.json", "servers/rack-2u.json", 100);
        measure_generated(10000, 20);
    } catch (const std::exception &e) {
        fprintf(stderr, "latency: %s\n", e.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}

// How long it takes from saving the description until a client is served the new
// row: median and worst of 100 saves, half of them insertions, half removals.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "harness/agent.h"
#include "harness/client.h"
#include "harness/names.h"

namespace
{

using clock_type = std::chrono::steady_clock;
using nlohmann::ordered_json;

double milliseconds(clock_type::duration time)
{
    return std::chrono::duration<double, std::milli>(time).count();
}

void measure(const char *description)
{
    agent server({.description = description});
    server.start();
    snmp_client client(server.port());
    const ordered_json without = ordered_json::parse(read_file(server.description()));
    ordered_json with = without;
    with["components"].push_back({{"name", "/SYS/LATENCY"}, {"type", "disk"}});

    unsigned long index = without["components"].size();
    std::vector<double> times;
    for (int i = 0; i < 100; i++) {
        const bool inserts = i % 2 == 0;
        if (inserts) {
            index++;
        }
        const object_name cell = ent_cell(7, index);
        replace_file(server.description(), (inserts ? with : without).dump(2));
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
    printf("%s (%zu components): median %.1f ms, worst %.1f ms of %zu\n", description,
           without["components"].size(), times[times.size() / 2], times.back(), times.size());
}

} // namespace

int main()
{
    try {
        measure("servers/minimal.json");
        measure("servers/rack-2u.json");
    } catch (const std::exception &e) {
        fprintf(stderr, "latency: %s\n", e.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}

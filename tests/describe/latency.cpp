// How long it takes to describe a machine of 250 components, as a program, and from its
// end until a client is served the last of the new rows: median and worst of 30 runs.
#include "harness/agent.h"
#include "harness/client.h"
#include "harness/files.h"
#include "harness/names.h"
#include "harness/process.h"
#include "made_machines/machines.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <thread>
#include <vector>

namespace
{

using clock_type = std::chrono::steady_clock;
using kavplat_describe_test::made_machine;
using nlohmann::ordered_json;

constexpr size_t components = 250;
constexpr int runs = 30;

double milliseconds_since(clock_type::time_point begin)
{
    return std::chrono::duration<double, std::milli>(clock_type::now() - begin).count();
}

/* A rack server, with drives in slots until there is enough of it. */
void build(made_machine &machine)
{
    constexpr unsigned first = 100; // what the server's own slots do not reach
    kavplat_describe_test::kinds_of_machines.front().build(machine);
    for (unsigned i = 0; machine.list().size() + 2 < components; i++) { // the root, the board
        char bus[16];
        char number[16];
        std::snprintf(bus, sizeof bus, "0000:%02x", 0x20 + i / 16);
        std::snprintf(number, sizeof number, "%02x.0", i % 16);
        const std::string drive =
            machine.below(machine.pci(bus, number, "060400"), "00.0", "010802");
        const std::string slot = std::to_string(first + i);
        machine.slot(slot, drive, true);
        build_nvme(machine, drive, "/SYS/MB/SLOT" + slot + "/NVME0", i);
    }
}

void print(const char *what, std::vector<double> times)
{
    std::ranges::sort(times);
    printf("%s: median %.1f ms, worst %.1f ms of %zu\n", what, times[times.size() / 2],
           times.back(), times.size());
}

/* Waits for a row to be there, or to be gone. */
double wait_for(snmp_client &client, unsigned long index, bool there)
{
    const auto begin = clock_type::now();
    for (;;) {
        const snmp_answer answer = client.get({ent_cell(7, index)});
        if (answer.varbinds.size() == 1 && (answer.varbinds[0].value == no_instance()) != there) {
            return milliseconds_since(begin);
        }
        if (milliseconds_since(begin) > 30000) {
            throw std::runtime_error("row " + std::to_string(index) + " is not as it should be");
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
}

void measure()
{
    made_machine machine;
    build(machine);
    const temporary_directory here;
    const std::string file = here / "server.json";
    const std::string command = quoted(KAVPLAT_COMMAND) + " describe --root " +
                                quoted(machine.root()) + " --output " + quoted(file) + " 2>&1";
    const auto describe = [&] {
        const auto begin = clock_type::now();
        const command_result result = run_command(command);
        if (result.status != 0) {
            throw std::runtime_error(result.output);
        }
        return milliseconds_since(begin);
    };
    describe();
    ordered_json nearly_nothing = ordered_json::parse(read_file(file));
    const size_t count = nearly_nothing["components"].size();
    nearly_nothing["components"].get_ref<ordered_json::array_t &>().resize(1);
    replace_file(file, nearly_nothing.dump(2));
    agent server({.environment = {{"KAVPLAT_DESCRIPTION", file}}});
    server.start();
    snmp_client client(server.port());
    std::vector<double> described;
    std::vector<double> served;
    unsigned long last = 1;
    for (int i = 0; i < runs; i++) {
        last += count - 1;
        described.push_back(describe());
        served.push_back(wait_for(client, last, true));
        replace_file(file, nearly_nothing.dump(2));
        wait_for(client, last, false);
    }
    printf("A machine of %zu components\n", count);
    print("described", described);
    print("the last row after that", served);
}

} // namespace

int main()
{
    try {
        measure();
    } catch (const std::exception &e) {
        fprintf(stderr, "latency: %s\n", e.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}

// What the watcher takes of a processor while nobody asks for anything.
#include "generated_server.h"
#include "measured_agent.h"
#include "subjects.h"

#include <chrono>
#include <cstdio>
#include <thread>

#include "harness/files.h"

namespace fs = std::filesystem;

namespace
{

constexpr size_t sizes[] = {250, 10000};
constexpr const char *intervals[] = {"0", "10"};
constexpr std::chrono::seconds settling{15}; // the first look is behind it
constexpr std::chrono::seconds measured{60};

} // namespace

void watcher(const fs::path &directory)
{
    std::unique_ptr<measured_agent> agents[std::size(sizes)][std::size(intervals)];
    for (size_t s = 0; s < std::size(sizes); s++) {
        for (size_t i = 0; i < std::size(intervals); i++) {
            const fs::path own = directory / (std::to_string(sizes[s]) + "-" + intervals[i]);
            fs::create_directories(own);
            write_file(own / "server.json", describe_server(generate_server(sizes[s])));
            agents[s][i] = std::make_unique<measured_agent>(
                own,
                std::string("dlmod entityMIB " KAVPLAT_MODULE "\n"
                            "dlmod entitySensorMIB " KAVPLAT_MODULE "\n"
                            "kavplatWatchInterval ") +
                    intervals[i] + "\n",
                own / "server.json");
            if (!eventually([&] { return agents[s][i]->log_has("local cache ready"); })) {
                agents[s][i]->fail("the cache is not built");
            }
        }
    }
    std::this_thread::sleep_for(settling);
    uint64_t before[std::size(sizes)][std::size(intervals)];
    const auto each = [&](auto &&f) {
        for (size_t s = 0; s < std::size(sizes); s++) {
            for (size_t i = 0; i < std::size(intervals); i++) {
                f(s, i, agents[s][i]->processor_time());
            }
        }
    };
    const auto begin = std::chrono::steady_clock::now();
    each([&](size_t s, size_t i, uint64_t now) { before[s][i] = now; });
    std::this_thread::sleep_for(measured);
    double shares[std::size(sizes)][std::size(intervals)];
    const double took =
        std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - begin).count();
    each([&](size_t s, size_t i, uint64_t now) {
        shares[s][i] = static_cast<double>(now - before[s][i]) / took * 100;
    });
    printf("## Watcher, of one processor while nobody asks\n\n"
           "| Entities | Without | With a look each 10 s |\n|---|---|---|\n");
    for (size_t s = 0; s < std::size(sizes); s++) {
        printf("| %zu | %.3f %% | %.3f %% |\n", sizes[s], shares[s][0], shares[s][1]);
    }
    printf("\n");
}

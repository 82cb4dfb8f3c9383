// What the traces cost while they are off.
#include "contender.h"
#include "generated_server.h"
#include "statistics.h"
#include "subjects.h"

#include <cstdio>

namespace fs = std::filesystem;

void traces(const fs::path &directory, size_t rounds)
{
    constexpr size_t size = 1000;
    fs::create_directories(directory);
    const fs::path description = directory / "server.json";
    write_file(description, describe_server(generate_server(size)));
    std::unique_ptr<measured_agent> agents[2];
    contender contenders[2][platform_tables];
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
        for (size_t t = 0; t < platform_tables; t++) {
            const object_name &root = tables[t].own;
            const std::vector<varbind> rows = client.bulk_walk(root, 50);
            const column_rows columns = by_column(rows, root);
            contenders[i][t] = {
                agents[i].get(),
                {range_of(root, rows, root, root)},
                range_of(with(root, columns.begin()->first), columns.begin()->second, root, root)};
        }
    }
    samples all[2][platform_tables][std::size(kinds)];
    for (size_t round = 0; round < 3 * rounds; round++) {
        for (size_t t = 0; t < platform_tables; t++) {
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
    for (size_t t = 0; t < platform_tables; t++) {
        for (size_t k = 0; k < std::size(kinds); k++) {
            printf("| %s, %s | %s | %s |\n", tables[t].name, kinds[k].name,
                   with_spread(ratios(all[0][t][k].wall, all[1][t][k].wall)).c_str(),
                   with_spread(ratios(all[0][t][k].processor, all[1][t][k].processor)).c_str());
        }
    }
    printf("\n");
}

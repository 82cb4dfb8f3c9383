// The cache and the hash table without an agent.
//
// A benchmark tells its time, and in the counter "steps" by how much to divide it;
// "bytes" is memory a step.
#include "generated_platform.h"
#include "generated_server.h"
#include "kavdata/cache_internal.h"
#include "kavdata/kavdata.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/library/snmp_logging.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

namespace
{

double seconds_since(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

size_t allocated()
{
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

// ---- The cache ---------------------------------------------------------------

void build(benchmark::State &state)
{
    const auto size = static_cast<size_t>(state.range(0));
    use_generated_server(size);
    size_t bytes = 0;
    for (auto _ : state) {
        kavplat::drop_cache();
        const size_t before = allocated();
        const auto start = std::chrono::steady_clock::now();
        init_local_cache();
        state.SetIterationTime(seconds_since(start));
        bytes = allocated() - before;
    }
    if (getMaxPhysicalIndex() != size) {
        state.SkipWithError("the cache was not built");
    }
    state.counters["steps"] = static_cast<double>(size);
    state.counters["bytes"] = static_cast<double>(bytes) / static_cast<double>(size);
}
BENCHMARK(build)->Arg(250)->Arg(10000)->Iterations(20)->UseManualTime();

// Of a cache as it was just built: a board from its middle.
std::string middle_board(size_t size)
{
    return board_name(size / 51 / 2);
}

void hot_remove(benchmark::State &state)
{
    const auto size = static_cast<size_t>(state.range(0));
    use_generated_server(size);
    const std::string board = middle_board(size);
    for (auto _ : state) {
        init_local_cache();
        monitor_fru_lock();
        const auto start = std::chrono::steady_clock::now();
        set_fru_absent(board.c_str());
        state.SetIterationTime(seconds_since(start));
        monitor_fru_unlock();
        if (hashtable_count(htab) != size - 51) {
            state.SkipWithError("the board was not removed");
        }
    }
}
BENCHMARK(hot_remove)->Arg(250)->Arg(10000)->Iterations(20)->UseManualTime();

void hot_insert(benchmark::State &state)
{
    const auto size = static_cast<size_t>(state.range(0));
    use_generated_server(size);
    const std::string board = middle_board(size);
    for (auto _ : state) {
        init_local_cache();
        monitor_fru_lock();
        set_fru_absent(board.c_str());
        const auto start = std::chrono::steady_clock::now();
        set_fru_prsnt(board.c_str());
        state.SetIterationTime(seconds_since(start));
        monitor_fru_unlock();
        if (hashtable_count(htab) != size) {
            state.SkipWithError("the board was not inserted");
        }
    }
}
BENCHMARK(hot_insert)->Arg(250)->Arg(10000)->Iterations(20)->UseManualTime();

// ---- The hash table ----------------------------------------------------------

// The FNV-1a hash of a text, for both tables.
uint32_t hash_text(const char *text)
{
    uint32_t h = 2166136261U;
    for (const char *c = text; *c; c++) {
        h = (h ^ static_cast<unsigned char>(*c)) * 16777619U;
    }
    return h;
}

uint32_t hash_key(const void *key)
{
    return hash_text(static_cast<const char *>(key));
}

int equal_keys(const void *a, const void *b)
{
    return strcmp(static_cast<const char *>(a), static_cast<const char *>(b)) == 0;
}

// Each table behind the same few calls. Keys are texts from strdup, which the
// table frees.

class our_table
{
  public:
    explicit our_table(size_t room)
        : table_(create_hashtable(static_cast<uint32_t>(room * 2), hash_key, equal_keys))
    {
    }
    ~our_table() { hashtable_destroy(table_, 0); }
    our_table(const our_table &) = delete;
    our_table &operator=(const our_table &) = delete;

    void insert(char *key, void *value) { hashtable_insert(table_, key, value); }
    void *search(const char *key) const { return hashtable_search(table_, key); }

  private:
    hashtable *table_;
};

class standard_map
{
  public:
    explicit standard_map(size_t room) { map_.reserve(room * 2); }
    ~standard_map()
    {
        for (const auto &[key, value] : map_) {
            free(key);
        }
    }
    standard_map(const standard_map &) = delete;
    standard_map &operator=(const standard_map &) = delete;

    void insert(char *key, void *value) { map_.emplace(key, value); }
    void *search(const char *key) const
    {
        const auto found = map_.find(const_cast<char *>(key));
        return found == map_.end() ? nullptr : found->second;
    }

  private:
    struct hash {
        size_t operator()(const char *text) const { return hash_text(text); }
    };
    struct equal {
        bool operator()(const char *a, const char *b) const { return strcmp(a, b) == 0; }
    };
    std::unordered_map<char *, void *, hash, equal> map_;
};

std::vector<std::string> names_of(size_t size)
{
    std::vector<std::string> names;
    for (const generated_component &component : generate_server(size)) {
        names.push_back(component.name);
    }
    std::ranges::shuffle(names, std::mt19937(size));
    return names;
}

// Into a table with room for all, or into one that has to grow.
template <class Table>
void insert_all(benchmark::State &state, bool with_room)
{
    const std::vector<std::string> names = names_of(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        std::vector<char *> keys;
        for (const std::string &name : names) {
            keys.push_back(strdup(name.c_str()));
        }
        Table table(with_room ? names.size() : 0);
        const auto start = std::chrono::steady_clock::now();
        for (char *key : keys) {
            table.insert(key, key);
        }
        state.SetIterationTime(seconds_since(start));
    }
    state.counters["steps"] = static_cast<double>(names.size());
}

template <class Table>
void hash_insert(benchmark::State &state)
{
    insert_all<Table>(state, true);
}

template <class Table>
void hash_growth(benchmark::State &state)
{
    insert_all<Table>(state, false);
}

// Each key once in another order than that of the insertions; for a miss with
// something behind it.
template <class Table>
void search_all(benchmark::State &state, const char *suffix)
{
    std::vector<std::string> names = names_of(static_cast<size_t>(state.range(0)));
    Table table(0);
    for (const std::string &name : names) {
        char *key = strdup(name.c_str());
        table.insert(key, key);
    }
    std::ranges::sort(names);
    std::ranges::shuffle(names, std::mt19937(1));
    for (std::string &name : names) {
        name += suffix;
    }
    size_t found = 0;
    size_t searched = 0;
    for (auto _ : state) {
        for (const std::string &name : names) {
            found += table.search(name.c_str()) != nullptr;
        }
        searched += names.size();
    }
    if (found != (*suffix ? 0 : searched)) {
        state.SkipWithError("the table does not hold what it should");
    }
    state.counters["steps"] = static_cast<double>(names.size());
}

template <class Table>
void hash_search(benchmark::State &state)
{
    search_all<Table>(state, "");
}

template <class Table>
void hash_miss(benchmark::State &state)
{
    search_all<Table>(state, "?");
}

void register_hash_benchmarks()
{
    const auto add = [](const char *name, void (*run)(benchmark::State &), bool is_manual) {
        auto *all = benchmark::RegisterBenchmark(name, run)->Arg(250)->Arg(10000);
        if (is_manual) {
            all->UseManualTime()->Iterations(20);
        } else {
            all->MinTime(0.05);
        }
    };
    add("hash_insert/ours", hash_insert<our_table>, true);
    add("hash_insert/map", hash_insert<standard_map>, true);
    add("hash_growth/ours", hash_growth<our_table>, true);
    add("hash_growth/map", hash_growth<standard_map>, true);
    add("hash_search/ours", hash_search<our_table>, false);
    add("hash_search/map", hash_search<standard_map>, false);
    add("hash_miss/ours", hash_miss<our_table>, false);
    add("hash_miss/map", hash_miss<standard_map>, false);
}

} // namespace

int main(int argc, char **argv)
{
    snmp_disable_log();
    register_hash_benchmarks();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}

// Units come and go 200 times a second while clients ask.
#include <atomic>
#include <cstdio>
#include <mutex>
#include <random>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "harness/agent.h"
#include "harness/churning_rows.h"
#include "harness/client.h"
#include "harness/names.h"

namespace
{

using namespace std::chrono_literals;
using std::string;
using std::vector;

constexpr unsigned long stable_rows = 21; // "/SYS" and 20 units
constexpr auto churning_time = 20s;
constexpr bool instrumented = sizeof KAVPLAT_SANITIZER_LIBRARY > 1;

class churn : public testing::Test
{
  protected:
    temporary_directory directory;
    const std::filesystem::path count_file = directory.path() / "events";
    agent server{{.preload = KAVPLAT_CHURNING_PLATFORM,
                  .environment = {{"KAVPLAT_CHURN_EVENTS_PER_SECOND", "200"},
                                  {"KAVPLAT_CHURN_STABLE", std::to_string(stable_rows - 1)},
                                  {"KAVPLAT_CHURN_COUNT", count_file}}}};
    complaints wrong;
    std::atomic<bool> is_over{false};
    std::atomic<unsigned long> walks{0};
    std::atomic<unsigned long> answers{0};
    std::atomic<unsigned long> highest{stable_rows};
    std::atomic<unsigned long> gone_cells{0};

    void check(const varbind &cell)
    {
        if (const string text = complaint(cell); !text.empty()) {
            wrong.add(text);
        }
    }

    // Column after column by GETNEXT and GETBULK in turn. Rows that stay have to be
    // in every walk, and the order increases (which the walk itself sees to).
    void walk()
    {
        try {
            snmp_client client(server.port());
            std::mt19937 random(1);
            while (!is_over) {
                const unsigned column = telling_columns[walks % std::size(telling_columns)];
                const vector<varbind> found =
                    walks % 2 == 0 ? client.walk(ent_column(column))
                                   : client.bulk_walk(ent_column(column),
                                                      1 + static_cast<long>(random() % 30));
                std::set<unsigned long> indexes;
                for (const varbind &cell : found) {
                    check(cell);
                    indexes.insert(cell.name.back());
                }
                for (unsigned long index = 1; index <= stable_rows; index++) {
                    if (!indexes.contains(index)) {
                        wrong.add("a walk of column " + std::to_string(column) +
                                  " without the row " + std::to_string(index));
                    }
                }
                if (!indexes.empty()) {
                    highest = std::max(highest.load(), *indexes.rbegin());
                }
                walks++;
            }
        } catch (const std::exception &e) {
            wrong.add(e.what());
        }
    }

    // Cells of rows that stay, came lately or went, in any order, by GET and
    // GETNEXT.
    void ask()
    {
        try {
            snmp_client client(server.port());
            std::mt19937 random(2);
            while (!is_over) {
                vector<object_name> names;
                for (int i = 0; i < 10; i++) {
                    const unsigned long top = highest + 20;
                    const unsigned long low = top > 150 && random() % 3 != 0 ? top - 150 : 0;
                    names.push_back(ent_cell(telling_columns[random() % std::size(telling_columns)],
                                             low + random() % (top - low)));
                }
                const bool by_get = random() % 2 == 0;
                const snmp_answer answer = by_get ? client.get(names) : client.get_next(names);
                if (answer.error != 0 || answer.varbinds.size() != names.size()) {
                    wrong.add("error " + std::to_string(answer.error));
                    continue;
                }
                for (size_t i = 0; i < names.size(); i++) {
                    const varbind &cell = answer.varbinds[i];
                    if (by_get && cell.name != names[i]) {
                        wrong.add("GET of " + to_text(names[i]) + " gave " + to_text(cell.name));
                    }
                    if (by_get && cell.value == no_instance()) {
                        gone_cells++;
                        if (const unsigned long index = names[i].back();
                            index >= 1 && index <= stable_rows) {
                            wrong.add("no row " + std::to_string(index));
                        }
                        continue;
                    }
                    if (!by_get && cell.name <= names[i]) {
                        wrong.add("behind " + to_text(names[i]) + " comes " + to_text(cell.name));
                    }
                    if (is_below(cell.name, ent_table())) {
                        check(cell);
                    }
                }
                answers++;
            }
        } catch (const std::exception &e) {
            wrong.add(e.what());
        }
    }

    unsigned long events() const
    {
        const string text = read_file(count_file);
        return text.empty() ? 0 : std::stoul(text);
    }
};

TEST_F(churn, answers_only_what_existed_and_keeps_its_memory_flat)
{
    ASSERT_NO_THROW(server.start());
    std::thread walker([this] { walk(); });
    std::thread asker([this] { ask(); });

    const auto begin = std::chrono::steady_clock::now();
    const auto warm = begin + churning_time / 4;
    const auto end = begin + churning_time;
    long memory_when_warm = 0;
    const unsigned long events_at_begin = events();
    while (std::chrono::steady_clock::now() < end && server.is_running()) {
        if (memory_when_warm == 0 && std::chrono::steady_clock::now() > warm) {
            memory_when_warm = server.memory();
        }
        std::this_thread::sleep_for(50ms);
    }
    is_over = true;
    walker.join();
    asker.join();
    ASSERT_TRUE(server.is_running());
    const unsigned long delivered = events() - events_at_begin;
    const long grown = server.memory() - memory_when_warm;
    printf("%lu events, %lu walks, %lu other answers, %lu cells of rows that were gone, highest "
           "index %lu, %ld KiB grown to %ld KiB\n",
           delivered, walks.load(), answers.load(), gone_cells.load(), highest.load(),
           memory_when_warm, memory_when_warm + grown);

    EXPECT_TRUE(wrong.all().empty()) << testing::PrintToString(wrong.all());
    // Without these the test would have seen nothing.
    EXPECT_GT(delivered, 200U * 20 * 9 / 10);
    EXPECT_GT(walks, 10U);
    EXPECT_GT(answers, 50U);
    EXPECT_GT(gone_cells, 0U);
    EXPECT_GT(highest, stable_rows + 1000);
    if (!instrumented) {
        EXPECT_LT(grown, 1024) << "KiB";
    }
}

} // namespace

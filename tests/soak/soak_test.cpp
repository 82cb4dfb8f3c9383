// Four clients walk, walk by bulk, ask for many things at once and send what is no
// SNMP at all, while everything that an agent serves changes under it.
//
// KAVPLAT_SOAK_SECONDS says how long each test soaks; 8 seconds without it.
#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <functional>
#include <netinet/in.h>
#include <random>
#include <set>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "harness/agent.h"
#include "harness/churning_rows.h"
#include "harness/client.h"
#include "harness/names.h"

namespace
{

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

constexpr unsigned events_per_second = 500;
constexpr unsigned long stable_rows = 21;
constexpr bool instrumented = sizeof KAVPLAT_SANITIZER_LIBRARY > 1;

std::chrono::seconds soaking_time()
{
    const char *given = getenv("KAVPLAT_SOAK_SECONDS");
    return given ? std::chrono::seconds(atoi(given)) : 8s;
}

// Twenty inventory updates of the root, however long it soaks: each is logged with
// a line for every index that was ever freed.
unsigned update_period()
{
    return events_per_second * static_cast<unsigned>(soaking_time().count()) / 20;
}

class dice
{
  public:
    explicit dice(unsigned seed) : engine_(seed) {}
    unsigned operator()() { return static_cast<unsigned>(engine_()); }

  private:
    std::mt19937 engine_;
};

// What is walked: a table or more of each module.
enum walked : size_t { entities, aliases, contained, sensors, states, platform, walked_count };

const object_name &root_of(size_t which)
{
    static const object_name roots[walked_count] = {ent_table(),
                                                    {1, 3, 6, 1, 2, 1, 47, 1, 3, 2},
                                                    {1, 3, 6, 1, 2, 1, 47, 1, 3, 3},
                                                    {1, 3, 6, 1, 2, 1, 99},
                                                    {1, 3, 6, 1, 2, 1, 131},
                                                    platform_root()};
    return roots[which];
}

// ---- The clients ----

class clients
{
  public:
    using cell_check = std::function<std::string(const varbind &)>;

    clients(uint16_t port, cell_check check) : port_(port), check_(std::move(check))
    {
        for (auto body :
             {&clients::walk, &clients::bulk_walk, &clients::multi_get, &clients::send_nonsense}) {
            threads_.emplace_back([this, body] {
                try {
                    (this->*body)();
                } catch (const std::exception &e) {
                    wrong.add(e.what());
                }
            });
        }
    }
    ~clients() { stop(); }
    clients(const clients &) = delete;
    clients &operator=(const clients &) = delete;

    void stop()
    {
        is_over_ = true;
        for (std::thread &each : threads_) {
            each.join();
        }
        threads_.clear();
    }

    complaints wrong;
    std::atomic<unsigned long> answers{0};
    std::atomic<unsigned long> walks{0};
    std::array<std::atomic<unsigned long>, walked_count> cells = {}; // seen by walks
    std::atomic<unsigned long> nonsense{0};
    std::atomic<unsigned long> highest{1}; // index seen
    std::atomic<long> worst_us{0};

  private:
    template <class Request>
    snmp_answer timed(Request &&request)
    {
        const auto begin = clock_type::now();
        snmp_answer answer = request();
        const long took =
            std::chrono::duration_cast<std::chrono::microseconds>(clock_type::now() - begin)
                .count();
        long worst = worst_us;
        while (took > worst && !worst_us.compare_exchange_weak(worst, took)) {
        }
        if (answer.error != 0) {
            throw std::runtime_error(answer.error == -1 ? "no answer came"
                                                        : "error " + std::to_string(answer.error));
        }
        answers++;
        return answer;
    }

    void look_at(const varbind &cell)
    {
        if (const std::string text = check_(cell); !text.empty()) {
            wrong.add(text);
        }
        if (is_below(cell.name, ent_table())) {
            highest = std::max(highest.load(), cell.name.back());
        }
    }

    void walk_with(long repetitions)
    {
        snmp_client client(port_);
        dice random(static_cast<unsigned>(repetitions));
        while (!is_over_) {
            for (size_t which = 0; which < walked_count; which++) {
                const object_name &root = root_of(which);
                object_name at = root;
                bool more = true;
                while (more && !is_over_) {
                    const long count =
                        repetitions == 0 ? 0 : 1 + static_cast<long>(random()) % repetitions;
                    const snmp_answer answer = timed([&] {
                        return repetitions == 0 ? client.get_next({at})
                                                : client.get_bulk({at}, 0, count);
                    });
                    if (answer.varbinds.empty()) {
                        throw std::runtime_error("an empty answer behind " + to_text(at));
                    }
                    for (const varbind &cell : answer.varbinds) {
                        if (cell.value.type == snmp_end_of_view || !is_below(cell.name, root)) {
                            more = false;
                            break;
                        }
                        if (cell.name <= at) {
                            throw std::runtime_error("behind " + to_text(at) + " comes " +
                                                     to_text(cell.name));
                        }
                        look_at(cell);
                        cells[which]++;
                        at = cell.name;
                    }
                }
            }
            walks++;
        }
    }
    void walk() { walk_with(0); }
    void bulk_walk() { walk_with(50); }

    void multi_get()
    {
        snmp_client client(port_);
        dice random(3);
        while (!is_over_) {
            std::vector<object_name> names;
            for (int i = 0; i < 12; i++) {
                const unsigned long top = highest + 10;
                const unsigned long low = top > 200 && random() % 3 != 0 ? top - 200 : 0;
                const unsigned column = random() % 2 == 0
                                            ? telling_columns[random() % std::size(telling_columns)]
                                            : 2 + random() % 15;
                names.push_back(ent_cell(column, low + random() % (top - low)));
            }
            const bool by_get = random() % 2 == 0;
            const snmp_answer answer =
                timed([&] { return by_get ? client.get(names) : client.get_next(names); });
            if (answer.varbinds.size() != names.size()) {
                throw std::runtime_error("an answer of other size");
            }
            for (size_t i = 0; i < names.size(); i++) {
                const varbind &cell = answer.varbinds[i];
                if (by_get ? cell.name != names[i] : cell.name <= names[i]) {
                    wrong.add("asked for " + to_text(names[i]) + ", told " + to_text(cell.name));
                }
                if (cell.value != no_instance() && is_below(cell.name, ent_table())) {
                    look_at(cell);
                }
            }
        }
    }

    // A good GETNEXT, spoiled: cut short, with wrong lengths, tags, versions, or with
    // nothing left of it. The agent gives no answer to most of them, and a good one
    // to the good request behind them.
    void send_nonsense()
    {
        const int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_in to = {};
        to.sin_family = AF_INET;
        to.sin_port = htons(port_);
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        snmp_client client(port_);
        dice random(4);
        const std::vector<uint8_t> good = {
            0x30, 0x2C, 0x02, 0x01, 0x01, 0x04, 0x06, 'p',  'u',  'b',  'l',  'i',
            'c',  0xA1, 0x1F, 0x02, 0x04, 0x01, 0x02, 0x03, 0x04, 0x02, 0x01, 0x00,
            0x02, 0x01, 0x00, 0x30, 0x11, 0x30, 0x0F, 0x06, 0x0B, 0x2B, 0x06, 0x01,
            0x02, 0x01, 0x2F, 0x01, 0x01, 0x01, 0x01, 0x02, 0x05, 0x00};
        while (!is_over_) {
            std::vector<uint8_t> packet = good;
            const auto any = [&] { return static_cast<uint8_t>(random()); };
            switch (random() % 6) {
            case 0:
                packet.resize(random() % packet.size());
                break;
            case 1: // a length of the message, the community, the PDU, the varbinds
                packet[std::array<size_t, 5>{1, 6, 14, 28, 30}[random() % 5]] = any();
                break;
            case 2:
                packet[4] = any(); // the version
                break;
            case 3:
                packet[random() % packet.size()] = any();
                break;
            case 4:
                packet.resize(random() % 1500);
                std::generate(packet.begin(), packet.end(), any);
                break;
            default:
                packet[13] = static_cast<uint8_t>(0xA0 + random() % 16); // the command
                break;
            }
            sendto(s, packet.data(), packet.size(), 0, reinterpret_cast<sockaddr *>(&to),
                   sizeof to);
            nonsense++;
            char answer[2048];
            while (recv(s, answer, sizeof answer, 0) >= 0) {
            }
            if (nonsense % 8 == 0) {
                timed([&] { return client.get({uptime()}); });
            }
            std::this_thread::sleep_for(2ms);
        }
        close(s);
    }

    const uint16_t port_;
    const cell_check check_;
    std::atomic<bool> is_over_{false};
    std::vector<std::thread> threads_;
};

// A cell of the churning platform.
std::string churning_cell(const varbind &cell)
{
    if (!is_below(cell.name, ent_table())) {
        return "";
    }
    const auto column = static_cast<unsigned>(cell.name[cell.name.size() - 2]);
    const bool tells = std::ranges::find(telling_columns, column) != std::end(telling_columns);
    return tells ? complaint(cell) : "";
}

struct figures {
    long start = 0;
    long middle = 0;
    long end = 0;
};

// Lets the clients soak the agent; the first tenth is for warming up.
template <class Memory, class Alive>
figures soak(clients &load, Memory memory, Alive is_alive)
{
    figures kib;
    const auto begin = clock_type::now();
    const auto time = soaking_time();
    const auto is_over = [&] {
        // On a machine that has much else to do the first walk may take longer.
        const auto until =
            begin + (load.walks > 0 ? time : std::max<std::chrono::seconds>(10 * time, 60s));
        return clock_type::now() >= until;
    };
    while (!is_over() && is_alive() && load.wrong.all().empty()) {
        const auto gone = clock_type::now() - begin;
        if (kib.start == 0 && gone > time / 10) {
            kib.start = memory();
        }
        if (kib.middle == 0 && gone > time / 2) {
            kib.middle = memory();
        }
        std::this_thread::sleep_for(50ms);
    }
    kib.end = memory();
    load.stop();
    return kib;
}

void report(const char *what, clients &load, unsigned long events, const figures &kib)
{
    printf("%s: %lu requests answered, %lu walks, %lu broken packets, %lu events applied, worst "
           "answer %.1f ms, resident %ld KiB at the start, %ld in the middle, %ld at the end\n",
           what, load.answers.load(), load.walks.load(), load.nonsense.load(), events,
           static_cast<double>(load.worst_us) / 1000, kib.start, kib.middle, kib.end);
}

// Indexes are never used again, so the array of slots grows with them: twice over
// while it is replaced, and with the room that it grows ahead. Nothing else may.
// A sanitizer keeps freed blocks for a while.
void expect_flat(const clients &load, const figures &kib)
{
    const long slots = static_cast<long>(load.highest * 4 * sizeof(void *) / 1024);
    const long slack = instrumented ? 96 * 1024 : 4 * 1024;
    EXPECT_LT(kib.end - kib.start, slots + slack);
    EXPECT_LT(kib.end - kib.middle, slots + slack / 2);
}

// ---- The agents ----

// Every table of these was walked, with rows in it.
void expect_walked(const clients &load, std::initializer_list<walked> tables)
{
    for (const walked each : tables) {
        EXPECT_GT(load.cells[each], 0U) << to_text(root_of(each));
    }
}

// A host program of ours, with its sanitizers' options.
class host : public testing::Test
{
  protected:
    void start(const char *program, const std::vector<std::string> &environment)
    {
        port = free_port();
        const std::string supp = KAVPLAT_SUPPRESSIONS;
        std::vector<std::string> words = {
            "env",
            "TSAN_OPTIONS=exitcode=66:suppressions=" + supp + "/tsan.supp",
            "ASAN_OPTIONS=quarantine_size_mb=4:detect_leaks=1",
            "LSAN_OPTIONS=suppressions=" + supp + "/lsan.supp",
            "UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1",
        };
        words.insert(words.end(), environment.begin(), environment.end());
        words.insert(words.end(), {program, std::to_string(port)});
        process.start(words, output);
        snmp_client client(port);
        client.set_timeout(500ms);
        ASSERT_TRUE(eventually([&] { return client.answers_getnext(ent_table()); }, 60s))
            << read_file(output);
    }

    // Ends it as its user would; a sanitizer that has anything to say says it now.
    void expect_good_end()
    {
        ASSERT_TRUE(process.is_running()) << tail();
        kill(process.id(), SIGTERM);
        const std::optional<int> status = process.wait(60s);
        ASSERT_TRUE(status) << "it does not end";
        EXPECT_EQ(*status, 0) << tail();
        EXPECT_FALSE(tells_of_a_sanitizer(read_file(output))) << tail();
    }

    std::string tail() const
    {
        const std::string text = read_file(output);
        constexpr size_t enough = 20000;
        const size_t sign = text.find("Sanitizer");
        const size_t from = sign != std::string::npos ? sign - std::min<size_t>(sign, 200)
                                                      : text.size() - std::min(text.size(), enough);
        return text.substr(from, enough);
    }

    temporary_directory directory;
    const fs::path output = directory.path() / "output";
    child_process process;
    uint16_t port = 0;
};

TEST_F(host, soaks_while_units_come_and_go)
{
    const fs::path count = directory.path() / "events";
    start(KAVPLAT_SOAK_CHURNING,
          {"KAVPLAT_CHURN_EVENTS_PER_SECOND=" + std::to_string(events_per_second),
           "KAVPLAT_CHURN_STABLE=" + std::to_string(stable_rows - 1),
           "KAVPLAT_CHURN_DISCONNECT=250",
           "KAVPLAT_CHURN_UPDATE=" + std::to_string(update_period()),
           "KAVPLAT_CHURN_COUNT=" + count.string()});
    const auto begin = clock_type::now();
    clients load(port, churning_cell);
    const figures kib = soak(
        load, [this] { return memory_of(process.id()); }, [this] { return process.is_running(); });
    const std::string told = read_file(count);
    const unsigned long events = told.empty() ? 0 : std::stoul(told);
    const double seconds = std::chrono::duration<double>(clock_type::now() - begin).count();
    report("units come and go", load, events, kib);
    EXPECT_TRUE(load.wrong.all().empty()) << testing::PrintToString(load.wrong.all());
    EXPECT_GT(load.answers, 100U);
    EXPECT_GT(static_cast<double>(events),
              seconds * events_per_second * (instrumented ? 0.2 : 0.7));
    expect_walked(load, {entities, contained, states, platform});
    expect_flat(load, kib);
    expect_good_end();
}

// A server of boards with sensors that are bound to files, rewritten all the time.
class rewritten_server
{
  public:
    explicit rewritten_server(const fs::path &directory)
        : directory_(directory), path_(directory / "server.json")
    {
        fs::create_directories(values());
        for (unsigned b = 0; b < boards; b++) {
            present_[b] = true;
            write_file(value(b), "20\n");
        }
        save();
    }

    const fs::path &path() const { return path_; }
    unsigned long changes() const { return changes_; }

    // One save, with as many boards going or coming as the rate asks for.
    void change(dice &random, unsigned toggled)
    {
        for (unsigned i = 0; i < toggled; i++) {
            const unsigned b = random() % boards;
            present_[b] = !present_[b];
            changes_++;
        }
        if (random() % 8 == 0) {
            serial_++;
            changes_++;
        }
        limit_ = 60 + random() % 20; // refreshes the sensors that stay
        save();
        for (unsigned i = 0; i < 5; i++) {
            change_file(value(random() % boards), random);
        }
        if (random() % 64 == 0) { // the connection is lost, and found again
            const fs::path away = directory_.string() + ".away";
            fs::rename(directory_, away);
            std::this_thread::sleep_for(20ms);
            fs::rename(away, directory_);
        }
    }

    std::set<std::string> names() const
    {
        std::set<std::string> all = {"/SYS"};
        for (unsigned b = 0; b < boards; b++) {
            if (present_[b]) {
                all.insert({board(b), board(b) + "/T0", board(b) + "/T1", board(b) + "/OK"});
            }
        }
        return all;
    }

    static bool is_name(const std::string &name)
    {
        if (name == "/SYS") {
            return true;
        }
        for (unsigned b = 0; b < boards; b++) {
            if (name == board(b) ||
                (name.starts_with(board(b) + "/") &&
                 (name.ends_with("/T0") || name.ends_with("/T1") || name.ends_with("/OK")))) {
                return true;
            }
        }
        return false;
    }

  private:
    static constexpr unsigned boards = 60;

    static std::string board(unsigned b) { return "/SYS/B" + std::to_string(b); }
    fs::path values() const { return directory_.string() + ".values"; }
    fs::path value(unsigned b) const { return values() / std::to_string(b); }

    void save()
    {
        std::string text = R"({"product": {"model": "M", "serial": ")" + std::to_string(serial_) +
                           R"("}, "components": [{"name": "/SYS", "type": "system"})";
        for (unsigned b = 0; b < boards; b++) {
            if (!present_[b]) {
                continue;
            }
            const std::string name = board(b);
            const auto sensor = [&](const char *which, const std::string &reading) {
                text +=
                    ",\n{\"name\": \"" + name + which +
                    R"(", "type": "temperature-sensor", "sensor": {"class": "threshold", "type": )"
                    R"("temperature", "units": "degrees-c", "reading": )" +
                    reading +
                    ", \"thresholds\": {\"upper_critical\": " + std::to_string(limit_ + b) + "}}}";
            };
            text += ",\n{\"name\": \"" + name + R"(", "type": "system-board", "interface": "lo"})";
            sensor("/T0", "{\"file\": \"" + value(b).string() + "\"}");
            sensor("/T1", "21.5");
            text += ",\n{\"name\": \"" + name +
                    R"(/OK", "type": "led", "indicator": {"state": "on", "means": "service"}})";
        }
        replace_file(path_, text + "]}\n");
    }

    static void change_file(const fs::path &file, dice &random)
    {
        switch (random() % 6) {
        case 0:
            fs::remove(file);
            break;
        case 1: // a fifo without a writer blocks its readers
            fs::remove(file);
            mkfifo(file.c_str(), 0600);
            break;
        default:
            fs::remove(file);
            write_file(file, std::to_string(15 + random() % 10) + "\n");
            break;
        }
    }

    const fs::path directory_;
    const fs::path path_;
    bool present_[boards] = {};
    unsigned serial_ = 0;
    unsigned limit_ = 60;
    unsigned long changes_ = 0;
};

std::string described_cell(const varbind &cell)
{
    if (!is_below(cell.name, ent_table()) || cell.name[cell.name.size() - 2] != 7) {
        return "";
    }
    return rewritten_server::is_name(cell.value.text) ? "" : testing::PrintToString(cell);
}

TEST_F(host, soaks_while_its_description_and_the_files_it_names_change)
{
    fs::create_directories(directory.path() / "server");
    rewritten_server server(directory.path() / "server");
    start(KAVPLAT_SOAK_DESCRIBED, {"KAVPLAT_DESCRIPTION=" + server.path().string()});
    std::atomic<bool> is_over{false};
    std::string failure;
    std::thread changer([&] {
        try {
            dice random(5);
            auto next = clock_type::now();
            while (!is_over) {
                server.change(random, events_per_second / 10);
                next += 100ms;
                std::this_thread::sleep_until(next);
            }
        } catch (const std::exception &e) {
            failure = e.what();
        }
    });
    clients load(port, described_cell);
    const figures kib = soak(
        load, [this] { return memory_of(process.id()); }, [this] { return process.is_running(); });
    is_over = true;
    changer.join();
    report("description and files change", load, server.changes(), kib);
    EXPECT_EQ(failure, "");
    EXPECT_TRUE(load.wrong.all().empty()) << testing::PrintToString(load.wrong.all());
    EXPECT_GT(load.answers, 100U);
    expect_walked(load, {entities, aliases, contained, sensors, states, platform});
    expect_flat(load, kib);

    // No event was lost: what is served in the end is what the file says.
    snmp_client client(port);
    std::set<std::string> served;
    EXPECT_TRUE(eventually([&] {
        served.clear();
        for (const varbind &cell : client.bulk_walk(ent_column(7), 40)) {
            served.insert(cell.value.text);
        }
        return served == server.names();
    })) << testing::PrintToString(served)
        << "\nexpected " << testing::PrintToString(server.names());
    expect_good_end();
}

class real_agent : public testing::Test
{
};

TEST_F(real_agent, soaks_while_units_come_and_go)
{
    temporary_directory directory;
    const fs::path count = directory.path() / "events";
    agent server{
        {.preload = KAVPLAT_CHURNING_PLATFORM,
         .environment = {{"KAVPLAT_CHURN_EVENTS_PER_SECOND", std::to_string(events_per_second)},
                         {"KAVPLAT_CHURN_STABLE", std::to_string(stable_rows - 1)},
                         {"KAVPLAT_CHURN_DISCONNECT", "250"},
                         {"KAVPLAT_CHURN_UPDATE", std::to_string(update_period())},
                         {"KAVPLAT_CHURN_COUNT", count}},
         .configuration = "dlmod entitySensorMIB " KAVPLAT_MODULE "\n"
                          "dlmod entityStateMIB " KAVPLAT_MODULE "\n"
                          "dlmod entityMappingMIB " KAVPLAT_MODULE "\n"}};
    ASSERT_NO_THROW(server.start());
    clients load(server.port(), churning_cell);
    const figures kib = soak(
        load, [&] { return server.memory(); }, [&] { return server.is_running(); });
    ASSERT_TRUE(server.is_running()) << server.log();
    const std::string told = read_file(count);
    report("in the real agent", load, told.empty() ? 0 : std::stoul(told), kib);
    EXPECT_TRUE(load.wrong.all().empty()) << testing::PrintToString(load.wrong.all());
    EXPECT_GT(load.answers, 100U);
    expect_walked(load, {entities, contained, states, platform});
    expect_flat(load, kib);
}

} // namespace

// Indexes that outlive the agent: who gets which, and the file that they are in.
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "kavdata/index_file.h"
#include "rooms/cache_fixture.h"

namespace
{

using kavplat::file_found;
using kavplat::remembered_indexes;
using kavplat::write_step;
using std::string;
using std::vector;

string content_of(const string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void write_text(const string &path, const string &text)
{
    std::ofstream(path, std::ios::binary) << text;
}

class indexes : public cache_test
{
  protected:
    string directory = "/tmp/kavplat-indexes-XXXXXX";
    string path;

    indexes()
    {
        if (!mkdtemp(directory.data())) {
            throw std::runtime_error("no directory");
        }
        path = directory + "/indexes";
        setenv("KAVPLAT_INDEX_FILE", path.c_str(), 1);
    }
    ~indexes() override
    {
        unsetenv("KAVPLAT_INDEX_FILE");
        kavplat::on_write_step = nullptr;
        std::filesystem::remove_all(directory);
    }

    // The agent ends and another one starts.
    void restart()
    {
        kavplat::save_indexes();
        reset();
        init_local_cache();
        kavplat::save_indexes();
    }
    void restart_with(const vector<string> &names)
    {
        set_components(names);
        restart();
    }
    static uint32_t index(const string &name) { return kavplat::find_name(name.c_str()); }

    static vector<uint32_t> indexes_of(const vector<string> &names)
    {
        vector<uint32_t> all;
        for (const string &name : names) {
            all.push_back(index(name));
        }
        return all;
    }

    vector<string> files() const
    {
        vector<string> names;
        for (const auto &each : std::filesystem::directory_iterator(directory)) {
            names.push_back(each.path().filename());
        }
        std::ranges::sort(names);
        return names;
    }
};

const vector<string> server = {"/SYS", "/SYS/A", "/SYS/A/X", "/SYS/B", "/SYS/B/X", "/SYS/C"};

TEST_F(indexes, stay_over_a_restart_in_another_order_and_with_a_part_missing)
{
    restart_with(server);
    EXPECT_EQ(indexes_of(server), (vector<uint32_t>{1, 2, 3, 4, 5, 6}));
    restart_with({"/SYS", "/SYS/C", "/SYS/B", "/SYS/B/X"});
    EXPECT_EQ(rows(), (vector<string>{"/SYS", "", "", "/SYS/B", "/SYS/B/X", "/SYS/C"}));
    expect_consistent();
    plug({"/SYS/A", "/SYS/A/X", "/SYS/A/Y"});
    insert("/SYS/A");
    EXPECT_EQ(rows(), (vector<string>{"/SYS", "/SYS/A", "/SYS/A/X", "/SYS/B", "/SYS/B/X", "/SYS/C",
                                      "/SYS/A/Y"}));
    EXPECT_EQ(row("/SYS/A/Y")->entPhysicalContainedIn, 2);
    restart();
    EXPECT_EQ(index("/SYS/A/Y"), 7U);
    EXPECT_EQ(files(), (vector<string>{"indexes", "indexes.lock"}));
}

TEST_F(indexes, of_a_thousand_swaps_are_the_same_and_nothing_grows)
{
    restart_with(server);
    remove("/SYS/B");
    insert("/SYS/B"); // makes room for two more, once
    const uint32_t size = localCacheSize;
    struct stat before;
    ASSERT_EQ(stat(path.c_str(), &before), 0);
    for (int i = 0; i < 1000; i++) {
        remove("/SYS/B");
        insert("/SYS/B");
        kavplat::save_indexes();
        ASSERT_EQ(indexes_of(server), (vector<uint32_t>{1, 2, 3, 4, 5, 6}));
    }
    EXPECT_EQ(maxPhysicalIndex, 6U);
    EXPECT_EQ(localCacheSize, size);
    struct stat after;
    ASSERT_EQ(stat(path.c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino) << "what stays the same is not written again";
    expect_consistent();
}

// The change is made and not yet written, as between an event's release of the lock and
// its write: a request that comes just then does not wait for the disk.
TEST_F(indexes, are_never_written_by_a_request)
{
    restart_with(server);
    static unsigned steps;
    steps = 0;
    kavplat::on_write_step = [](write_step) { steps++; };
    const string before = content_of(path);
    plug({"/SYS/D"});
    insert("/SYS/D");
    for (uint32_t i = 1; i <= maxPhysicalIndex; i++) {
        kavplat::begin_agent_pass();
        const cache_lock_held lock;
        ASSERT_EQ(get_entry(i), kavplat::entry_at(i));
        kavplat::look_at_states(*kavplat::entry_at(i));
        kavplat::note_states(*kavplat::entry_at(i));
        kavplat::end_agent_pass();
    }
    EXPECT_EQ(steps, 0U);
    EXPECT_EQ(content_of(path), before);
    kavplat::save_indexes();
    EXPECT_GT(steps, 0U) << "there was something to write";
    EXPECT_NE(content_of(path), before);
}

// A model that knows who had which index, and what comes and goes in any order.
TEST_F(indexes, are_those_that_the_names_had_whatever_comes_and_goes)
{
    std::mt19937 random(8);
    const auto below = [&](size_t end) { return random() % end; };
    vector<string> all = {"/SYS"};
    for (int i = 0; i < 5; i++) {
        const string unit = "/SYS/U" + std::to_string(i);
        all.insert(all.end(), {unit, unit + "/A", unit + "/A/A", unit + "/B"});
    }
    std::map<string, uint32_t> model;
    uint32_t highest = 0;
    std::set<string> plugged(all.begin(), all.end());
    size_t returned = 0;
    const auto check = [&](int step) {
        // New names lie above all that were there, in the order in which they came.
        std::map<uint32_t, string> fresh;
        for (uint32_t i = 1; i <= maxPhysicalIndex; i++) {
            const phys_entry *entry = kavplat::entry_at(i);
            if (!entry) {
                continue;
            }
            const string name = entry->entPhysicalName;
            EXPECT_TRUE(plugged.contains(name)) << step << name;
            EXPECT_GT(i, static_cast<uint32_t>(entry->entPhysicalContainedIn)) << step << name;
            EXPECT_EQ(static_cast<uint32_t>(entry->entPhysicalContainedIn),
                      index(name.substr(0, name.rfind('/'))))
                << step << name;
            if (const auto known = model.find(name); known != model.end()) {
                EXPECT_EQ(known->second, i) << step << name;
                returned++;
            } else {
                fresh[i] = name;
            }
        }
        for (const auto &[i, name] : fresh) {
            EXPECT_EQ(i, ++highest) << step << name;
            model[name] = i;
        }
        EXPECT_EQ(std::ranges::count_if(rows(), [](const string &n) { return !n.empty(); }),
                  static_cast<long>(plugged.size()))
            << step;
        expect_consistent();
        EXPECT_LE(highest, all.size()) << "no name ever has a second index";
    };
    const auto in_any_order = [&] {
        vector<string> names(plugged.begin(), plugged.end());
        std::ranges::shuffle(names, random);
        // A container stands before what it holds.
        std::ranges::stable_sort(names, {},
                                 [](const string &n) { return std::ranges::count(n, '/'); });
        return names;
    };
    plugged = {"/SYS"};
    restart_with({"/SYS"});
    check(-1);
    for (int step = 0; step < 400 && !HasFailure(); step++) {
        const string unit = "/SYS/U" + std::to_string(below(5));
        const auto is_of_unit = [&](const string &name) {
            return name == unit || name.starts_with(unit + "/");
        };
        const bool is_there = plugged.contains(unit);
        switch (below(4)) {
        case 0:
            restart_with(in_any_order());
            break;
        case 1: // changed while the agent was down
            if (is_there) {
                std::erase_if(plugged, is_of_unit);
            } else {
                std::ranges::copy_if(all, std::inserter(plugged, plugged.end()), is_of_unit);
            }
            restart_with(in_any_order());
            break;
        case 2: // seen by an update of the whole
            if (is_there) {
                std::erase_if(plugged, is_of_unit);
            } else {
                std::ranges::copy_if(all, std::inserter(plugged, plugged.end()), is_of_unit);
            }
            set_components(in_any_order());
            update("/SYS");
            break;
        default:
            if (is_there) {
                std::erase_if(plugged, is_of_unit);
                unplug(unit);
                remove(unit.c_str());
            } else {
                std::ranges::copy_if(all, std::inserter(plugged, plugged.end()), is_of_unit);
                set_components(in_any_order());
                insert(unit.c_str());
            }
            break;
        }
        check(step);
        if (below(2) == 0) {
            kavplat::save_indexes();
        }
    }
    EXPECT_GT(returned, 1000U);
}

TEST_F(indexes, a_row_is_never_before_its_container)
{
    restart_with({"/SYS", "/SYS/A"});
    // As an agent of another make might have left it.
    reset();
    write_text(path, "kavplat-indexes 1\nhighest 5\n3 /SYS\n2 /SYS/A\nend 2\n");
    restart();
    EXPECT_EQ(indexes_of({"/SYS", "/SYS/A"}), (vector<uint32_t>{3, 6}));
    restart();
    EXPECT_EQ(indexes_of({"/SYS", "/SYS/A"}), (vector<uint32_t>{3, 6})) << "from then on";
}

TEST_F(indexes, of_nameless_rows_of_namesakes_and_of_names_too_long_are_not_remembered)
{
    const string too_long = "/SYS/" + string(251, 'x');
    const string longest = "/SYS/" + string(250, 'x');
    platform->components = {component("/SYS", plain), nameless_component(plain),
                            component(longest.c_str(), plain), component(too_long.c_str(), plain),
                            component("/SYS/A", plain)};
    restart();
    EXPECT_EQ(index("/SYS/A"), 5U);
    insert("/SYS/A"); // once more: meant
    EXPECT_EQ(index("/SYS/A"), 6U);
    restart();
    EXPECT_EQ(indexes_of({"/SYS", longest, "/SYS/A"}), (vector<uint32_t>{1, 3, 5}));
    EXPECT_EQ(index("Unknown"), 7U);
    EXPECT_EQ(index(too_long), 8U);
}

TEST_F(indexes, are_as_ever_without_a_file)
{
    unsetenv("KAVPLAT_INDEX_FILE");
    for (const vector<string> &names : {server, vector<string>{"/SYS", "/SYS/C"}}) {
        restart_with(names);
        EXPECT_EQ(rows(), names);
    }
    EXPECT_TRUE(files().empty());
}

TEST_F(indexes, the_success_is_told)
{
    restart_with(server);
    const agent_log log;
    restart();
    EXPECT_EQ(log.texts(LOG_INFO).at(2),
              "prepare_indexes:" + path + ": 6 names keep their indexes, the highest is 6\n");
}

TEST_F(indexes, are_read_once_in_a_life)
{
    restart_with(server);
    write_text(path, "garbage\n");
    const agent_log log;
    kavplat::prepare_indexes();
    EXPECT_TRUE(log.texts(LOG_ERR).empty());
    EXPECT_EQ(content_of(path), "garbage\n");
}

// What keeps the order of rows looks for this.
TEST_F(indexes, a_return_to_its_place_below_the_last_one_changes_the_shape)
{
    restart_with(server);
    remove("/SYS/A");
    const uint32_t without = kavplat::shape_of_cache();
    insert("/SYS/A");
    EXPECT_LT(index("/SYS/A"), index("/SYS/C"));
    EXPECT_NE(kavplat::shape_of_cache(), without);
}

TEST_F(indexes, above_the_highest_that_is_remembered_are_good_for_one_run)
{
    write_text(path, "kavplat-indexes 1\nhighest 1048575\n3 /SYS\nend 1\n");
    const agent_log log;
    restart_with(server);
    EXPECT_EQ(indexes_of({"/SYS", "/SYS/A", "/SYS/A/X", "/SYS/C"}),
              (vector<uint32_t>{3, 1048576, 1048577, 1048580}));
    EXPECT_EQ(log.texts(LOG_WARNING),
              vector<string>{"give_index:" + path +
                             ": 1048576 is the highest index that is remembered: what is new from "
                             "now on keeps its index for this run only\n"});
    EXPECT_EQ(content_of(path),
              "kavplat-indexes 1\nhighest 1048576\n3 /SYS\n1048576 /SYS/A\nend 2\n");
    restart_with({"/SYS", "/SYS/B", "/SYS/A"});
    EXPECT_EQ(indexes_of({"/SYS", "/SYS/A", "/SYS/B"}), (vector<uint32_t>{3, 1048576, 1048577}));
}

// ---- A file that cannot be used ------------------------------------------------

TEST_F(indexes, start_afresh_beside_a_broken_file_and_say_so_once)
{
    for (int i = 1; i <= 2; i++) {
        reset();
        write_text(path, "garbage\n");
        agent_log log;
        restart_with({"/SYS", "/SYS/A"});
        remove("/SYS/A");
        insert("/SYS/A");
        kavplat::save_indexes();
        const string kept = path + ".broken-" + std::to_string(i);
        EXPECT_EQ(log.texts(LOG_ERR),
                  vector<string>{"prepare_indexes:" + path +
                                 " can not be used: line 1: expected \"kavplat-indexes 1\": "
                                 "indexes start afresh, it is kept as " +
                                 kept + "\n"});
        EXPECT_EQ(content_of(kept), "garbage\n");
        EXPECT_EQ(indexes_of({"/SYS", "/SYS/A"}), (vector<uint32_t>{1, 2}));
        EXPECT_EQ(content_of(path), "kavplat-indexes 1\nhighest 2\n1 /SYS\n2 /SYS/A\nend 2\n");
    }
}

TEST_F(indexes, without_a_lock_are_not_remembered)
{
    std::filesystem::create_directory(path + ".lock");
    agent_log log;
    restart_with(server);
    const vector<string> told = log.texts(LOG_ERR);
    ASSERT_EQ(told.size(), 1U);
    EXPECT_NE(told[0].find("its lock " + path + ".lock can not be opened: Is a directory"),
              string::npos)
        << told[0];
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(indexes, a_file_larger_than_any_is_not_read)
{
    write_text(path, "");
    std::filesystem::resize_file(path, (std::uintmax_t{256} << 20) + 1);
    remembered_indexes found;
    string why;
    EXPECT_EQ(kavplat::read_index_file(path, found, why), file_found::broken);
    EXPECT_EQ(why, "it is larger than any such file");
}

TEST_F(indexes, what_is_no_file_is_set_aside_and_waited_for_by_nobody)
{
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    restart_with(server);
    reset();
    std::filesystem::remove(path);
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
    restart_with(server);
    EXPECT_EQ(files(),
              (vector<string>{"indexes", "indexes.broken-1", "indexes.broken-2", "indexes.lock"}));
    EXPECT_TRUE(std::filesystem::is_fifo(path + ".broken-1"));
    EXPECT_TRUE(std::filesystem::is_directory(path + ".broken-2"));
}

TEST_F(indexes, of_a_second_agent_with_the_same_file_are_those_without_one)
{
    restart_with(server);
    reset();
    // Another agent: its descriptor is none of this process's.
    setenv("KAVPLAT_INDEX_FILE", (directory + "/other").c_str(), 1);
    restart_with(server);
    const int other = open((path + ".lock").c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(flock(other, LOCK_EX | LOCK_NB), 0);
    setenv("KAVPLAT_INDEX_FILE", path.c_str(), 1);
    const string before = content_of(path);
    agent_log log;
    restart_with({"/SYS", "/SYS/NEW", "/SYS/A"});
    EXPECT_EQ(log.texts(LOG_ERR),
              vector<string>{"prepare_indexes:" + path +
                             ": another agent uses it: no index is remembered\n"});
    EXPECT_EQ(rows(), (vector<string>{"/SYS", "/SYS/NEW", "/SYS/A"}));
    EXPECT_EQ(content_of(path), before);
    close(other);
    restart();
    EXPECT_EQ(indexes_of({"/SYS", "/SYS/A", "/SYS/NEW"}), (vector<uint32_t>{1, 2, 7}));
}

TEST_F(indexes, a_path_that_depends_on_where_the_agent_stands_is_refused)
{
    setenv("KAVPLAT_INDEX_FILE", "indexes", 1);
    const agent_log log;
    restart_with(server);
    EXPECT_EQ(log.texts(LOG_ERR),
              vector<string>{"prepare_indexes:KAVPLAT_INDEX_FILE is no absolute path: indexes: no "
                             "index is remembered\n"});
    EXPECT_EQ(rows(), server);
}

TEST_F(indexes, a_file_that_cannot_be_written_is_told_once_and_when_it_can_again)
{
    restart_with(server);
    ASSERT_EQ(mkdir((path + ".new").c_str(), 0700), 0);
    agent_log log;
    for (const char *name : {"/SYS/D", "/SYS/E"}) {
        plug({name});
        insert(name);
        kavplat::save_indexes();
    }
    EXPECT_EQ(log.texts(LOG_ERR),
              vector<string>{"save_indexes:" + path +
                             " can not be written: open: Is a directory: after a restart new "
                             "components get other indexes\n"});
    std::filesystem::remove(path + ".new");
    kavplat::save_indexes();
    EXPECT_EQ(log.texts(LOG_INFO).back(), "save_indexes:" + path + " is written again\n");
    restart();
    EXPECT_EQ(index("/SYS/E"), 8U);
}

TEST_F(indexes, killed_at_any_step_of_a_write_the_file_is_the_old_one_or_the_new_one)
{
    restart_with(server);
    const string old_text = content_of(path);
    for (const write_step last : {write_step::opened, write_step::half_written, write_step::written,
                                  write_step::synced, write_step::renamed, write_step::finished}) {
        write_text(path, old_text);
        const pid_t child = fork();
        if (child == 0) {
            static write_step the_last;
            the_last = last;
            kavplat::on_write_step = [](write_step step) {
                if (step == the_last) {
                    raise(SIGKILL);
                }
            };
            plug({"/SYS/D"});
            reset();
            init_local_cache();
            kavplat::save_indexes();
            _exit(0);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
        remembered_indexes found;
        string why;
        ASSERT_EQ(kavplat::read_index_file(path, found, why), file_found::good) << why;
        EXPECT_EQ(found.of.size(), last < write_step::renamed ? 6U : 7U);
        // What the dead one left behind is in nobody's way.
        reset();
        restart_with({"/SYS", "/SYS/C", "/SYS/D", "/SYS/E"});
        EXPECT_EQ(index("/SYS/C"), 6U);
        EXPECT_EQ(files(), (vector<string>{"indexes", "indexes.lock"}));
        reset();
        set_components(server);
    }
}

// ---- The format ----------------------------------------------------------------

TEST(index_file, holds_any_name)
{
    std::mt19937 random(3);
    remembered_indexes all;
    while (all.of.size() < 500) {
        string name(1 + random() % kavplat::longest_remembered_name, '\0');
        for (char &c : name) {
            c = static_cast<char>(1 + random() % 255);
        }
        all.of[name] = ++all.highest;
    }
    all.highest += 7;
    const string text = kavplat::text_of(all);
    EXPECT_TRUE(
        std::ranges::all_of(text, [](char c) { return c == '\n' || (c >= ' ' && c <= '~'); }));
    remembered_indexes read;
    string why;
    ASSERT_TRUE(kavplat::parse_indexes(text, read, why)) << why;
    EXPECT_EQ(read.highest, all.highest);
    EXPECT_EQ(read.of, all.of);
    for (const size_t length : {text.size() - 1, text.size() / 2, size_t{1}, size_t{0}}) {
        EXPECT_FALSE(kavplat::parse_indexes(text.substr(0, length), read, why)) << length;
    }
}

TEST(index_file, is_believed_only_as_it_is_written)
{
    const string head = "kavplat-indexes 1\nhighest 3\n";
    const struct {
        string text;
        string why;
    } cases[] = {
        {"", "line 1: the file ends before its end"},
        {"kavplat-indexes 2\n", "line 1: expected \"kavplat-indexes 1\""},
        {"kavplat-indexes 1\n3 /SYS\n", "line 2: expected \"highest\" and a number"},
        {"kavplat-indexes 1\nhighest -1\n", "line 2: expected \"highest\" and a number"},
        {"kavplat-indexes 1\nhighest 1048577\n", "line 2: a highest index that is too high"},
        {head + "/SYS\n", "line 3: expected an index and a name"},
        {head + "1 \n", "line 3: expected an index and a name"},
        {head + "1 /S%4\n", "line 3: expected an index and a name"},
        {head + "1 /S%00\n", "line 3: expected an index and a name"},
        {head + "1 /S\tS\n", "line 3: expected an index and a name"},
        {head + "1 " + string(256, 'x') + "\n", "line 3: expected an index and a name"},
        {head + "1x /SYS\n", "line 3: expected an index and a name"},
        {head + "0 /SYS\n", "line 3: an index that is not from 1 to the highest"},
        {head + "4 /SYS\n", "line 3: an index that is not from 1 to the highest"},
        {head + "1 /SYS\n1 /SYS/A\n", "line 4: an index that a line before it has"},
        {head + "1 /SYS\n2 /SYS\n", "line 4: a name that a line before it has"},
        {head + "1 /SYS\nend 2\n", "line 4: another number of names than there are"},
        {head + "1 /SYS\n", "line 4: the file ends before its end"},
        {head + "1 /SYS\nend 1\n2 /SYS/A\n", "there is more behind its end"},
    };
    for (const auto &c : cases) {
        remembered_indexes read;
        string why;
        EXPECT_FALSE(kavplat::parse_indexes(c.text, read, why)) << c.text;
        EXPECT_EQ(why, c.why) << c.text;
    }
}

} // namespace

/* Watching a description and delivering events, over the event manager's calls. */
#include "described/platform.h"
#include "described/support.h"
#include "platform/capi.h"
#include "platform/event_mgr.h"

#include <algorithm>
#include <csignal>
#include <dirent.h>
#include <fstream>
#include <set>
#include <thread>

using namespace described_platform_test;

namespace
{

std::string plain(const std::string &name)
{
    return R"({"name": ")" + name + R"(", "type": 9})";
}

const std::string empty = described("");

delivered removed(const std::string &name)
{
    return {105, 3, name};
}

delivered inserted(const std::string &name)
{
    return {105, 2, name};
}

using events = std::vector<delivered>;

/* Names listed below a component, empty when it is not known. */
std::vector<std::string> listed_below(const char *name)
{
    uint32_t count = 0;
    capi_inventory_record *items = nullptr;
    std::vector<std::string> result;
    if (capi_get_inventory(name, CAPI_INVENTORY_SUBTREE, &count, &items) == 0) {
        for (uint32_t i = 0; i < count; ++i) {
            result.push_back(items[i].nac_name);
        }
        capi_free_inventory(items, count);
    }
    return result;
}

class event_manager : public platform_test
{
  protected:
    ~event_manager() override { described_platform_stop(); } /* before the subscriber goes */

    event_mgr_handle open()
    {
        event_mgr_handle handle = 0;
        EXPECT_EQ(0, event_mgr_get_handle(&handle, subscriber::callback, &told));
        EXPECT_NE(0U, handle);
        return handle;
    }

    /* As libPlatformMIB does: a handle, the inventory, the subscriptions. */
    event_mgr_handle follow()
    {
        const event_mgr_handle handle = open();
        EXPECT_FALSE(listed_below("/").empty());
        subscribe_all(handle);
        return handle;
    }

    subscriber told;
};

TEST_F(event_manager, a_write_in_place_is_noticed)
{
    write_file(path, empty);
    follow();
    write_file(path, described(plain("/SYS/A")));
    EXPECT_EQ(events{inserted("/SYS/A")}, told.wait_for(1));
}

TEST_F(event_manager, an_atomic_replacement_is_noticed)
{
    write_file(path, empty);
    follow();
    replace_file(path, described(plain("/SYS/A")));
    EXPECT_EQ(events{inserted("/SYS/A")}, told.wait_for(1));
}

TEST_F(event_manager, a_writer_that_keeps_the_file_open_is_noticed)
{
    write_file(path, empty);
    follow();
    std::ofstream file(path, std::ios::trunc);
    file << described(plain("/SYS/A")) << std::flush;
    EXPECT_EQ(events{inserted("/SYS/A")}, told.wait_for(1));
}

TEST_F(event_manager, a_half_written_file_is_not_complained_of)
{
    write_file(path, empty);
    follow();
    const std::string text = described(plain("/SYS/A"));
    std::ofstream file(path, std::ios::trunc);
    file << text.substr(0, text.size() / 2) << std::flush;
    file << text.substr(text.size() / 2) << std::flush;
    file.close();
    EXPECT_EQ(events{inserted("/SYS/A")}, told.wait_for(1));
    EXPECT_EQ(std::vector<std::string>{}, errors_logged());
}

TEST_F(event_manager, a_swapped_symbolic_link_to_the_file_is_noticed)
{
    const auto other = directory / "elsewhere";
    std::filesystem::create_directory(other);
    write_file(other / "one.json", empty);
    write_file(other / "two.json", described(plain("/SYS/A")));
    std::filesystem::create_symlink("elsewhere/one.json", path);
    follow();
    std::filesystem::create_symlink("elsewhere/two.json", directory / "link");
    std::filesystem::rename(directory / "link", path);
    EXPECT_EQ(events{inserted("/SYS/A")}, told.wait_for(1));
    write_file(other / "two.json", empty);
    EXPECT_EQ((events{inserted("/SYS/A"), removed("/SYS/A")}), told.wait_for(2))
        << "the new target is watched";
}

/* The file, or the directory that the path names, is reached through it. */
TEST_F(event_manager, a_swapped_symbolic_link_on_the_way_is_noticed)
{
    std::filesystem::create_directory(directory / "v2");
    write_file(directory / "v2" / "server.json", described(plain("/SYS/A")));
    for (const bool through_a_link_to_the_file : {true, false}) {
        SCOPED_TRACE(through_a_link_to_the_file);
        std::filesystem::create_directory(directory / "v1");
        write_file(directory / "v1" / "server.json", empty);
        std::filesystem::create_directory_symlink("v1", directory / "data");
        if (through_a_link_to_the_file) {
            std::filesystem::create_symlink("data/server.json", path);
        } else {
            ::setenv("KAVPLAT_DESCRIPTION", (directory / "data" / "server.json").c_str(), 1);
        }
        follow();
        std::filesystem::create_directory_symlink("v2", directory / "next");
        std::filesystem::rename(directory / "next", directory / "data");
        std::filesystem::remove_all(directory / "v1");
        EXPECT_EQ(events{inserted("/SYS/A")}, told.wait_for(1)) << "and the directory is not gone";
        described_platform_stop();
        told.events.clear();
        std::filesystem::remove(directory / "data");
    }
}

TEST_F(event_manager, a_deleted_file_is_logged_and_changes_nothing_until_it_is_back)
{
    write_file(path, described(plain("/SYS/A")));
    follow();
    std::filesystem::remove(path);
    ASSERT_TRUE(wait_for_log("refused; the last good description stays in force"));
    EXPECT_EQ((std::vector<std::string>{"/SYS", "/SYS/A"}), listed_below("/SYS"));
    write_file(path, described(plain("/SYS/A") + "," + plain("/SYS/B")));
    EXPECT_EQ(events{inserted("/SYS/B")}, told.wait_for(1));
}

TEST_F(event_manager, a_bad_file_later_is_logged_and_the_last_good_one_stays)
{
    write_file(path, described(plain("/SYS/A")));
    follow();
    replace_file(path, described(plain("/SYS/B") + "," + plain("/SYS/B")));
    ASSERT_TRUE(wait_for_log("/components/2/name (/SYS/B): expected each name once"));
    ASSERT_TRUE(wait_for_log("refused; the last good description stays in force"));
    EXPECT_EQ((std::vector<std::string>{"/SYS", "/SYS/A"}), listed_below("/SYS"));
    replace_file(path, described(plain("/SYS/A") + "," + plain("/SYS/C")));
    EXPECT_EQ(events{inserted("/SYS/C")}, told.wait_for(1));
}

TEST_F(event_manager, an_inserted_component_is_listed_when_its_event_comes)
{
    write_file(path, empty);
    static std::vector<std::string> seen;
    seen.clear();
    told.on_event = [](const delivered &what) { seen = listed_below(what.payload.c_str()); };
    follow();
    write_file(path, described(plain("/SYS/A") + "," + plain("/SYS/A/B")));
    told.wait_for(1);
    EXPECT_EQ((std::vector<std::string>{"/SYS/A", "/SYS/A/B"}), seen);
}

TEST_F(event_manager, what_a_callback_reads_is_what_its_event_told_though_the_file_went_on)
{
    write_file(path, empty);
    static std::filesystem::path file;
    static std::vector<std::vector<std::string>> seen;
    file = path;
    seen.clear();
    told.on_event = [](const delivered &what) {
        if (what.payload == "/SYS/A") {
            write_file(file, described(plain("/SYS/A") + "," + plain("/SYS/A/B")));
        }
        seen.push_back(listed_below(what.payload.c_str()));
    };
    follow();
    write_file(path, described(plain("/SYS/A")));
    EXPECT_EQ((events{inserted("/SYS/A"), inserted("/SYS/A/B")}), told.wait_for(2));
    EXPECT_EQ((std::vector<std::vector<std::string>>{{"/SYS/A"}, {"/SYS/A/B"}}), seen)
        << "a component that is told twice would be listed twice";
}

TEST_F(event_manager, events_come_in_order_one_at_a_time_on_one_thread_that_is_not_ours)
{
    write_file(path, empty);
    follow();
    events expected;
    for (int i = 0; i < 20; ++i) {
        const std::string name = "/SYS/A" + std::to_string(i);
        write_file(path, described(plain(name)));
        if (i > 0) {
            expected.push_back(removed("/SYS/A" + std::to_string(i - 1)));
        }
        expected.push_back(inserted(name));
        ASSERT_EQ(expected, told.wait_for(expected.size()));
    }
    EXPECT_FALSE(told.overlapped);
    for (const pthread_t each : told.threads) {
        EXPECT_TRUE(pthread_equal(each, told.threads[0]));
        EXPECT_FALSE(pthread_equal(each, pthread_self()));
    }
}

TEST_F(event_manager, the_threads_take_no_signal_and_have_names)
{
    write_file(path, described(R"({"name": "/SYS/T", "type": 16, "sensor":
        {"class": 1, "type": 1, "reading": {"file": "t"}}})"));
    write_file(directory / "t", "1");
    static sigset_t mask;
    told.on_event = [](const delivered &) { pthread_sigmask(SIG_SETMASK, nullptr, &mask); };
    follow();
    capi_sensor_record record;
    EXPECT_EQ(0, capi_get_sensor(0, "/SYS/T", &record));
    write_file(path, empty);
    told.wait_for(1);
    for (const int number : {SIGTERM, SIGHUP, SIGINT, SIGALRM, SIGCHLD, SIGUSR1}) {
        EXPECT_EQ(1, sigismember(&mask, number));
    }
    std::set<std::string> names;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm") >> std::ws, name);
        names.insert(name);
    }
    EXPECT_TRUE(names.contains("kavplat-events"));
    EXPECT_TRUE(names.contains("kavplat-read"));
}

TEST_F(event_manager, changes_between_enumeration_and_subscription_are_delivered)
{
    write_file(path, empty);
    const event_mgr_handle handle = open();
    EXPECT_EQ(std::vector<std::string>{"/SYS"}, listed_below("/SYS"));
    write_file(path, described(plain("/SYS/A")));
    while (listed_below("/SYS/A").empty()) { /* until the change is in force */
        write_file(path, described(plain("/SYS/A")));
        /* That was not a full enumeration, so it changes no baseline. */
    }
    subscribe_all(handle);
    EXPECT_EQ(events{inserted("/SYS/A")}, told.wait_for(1));
}

TEST_F(event_manager, what_an_enumeration_has_shown_is_not_delivered_again)
{
    write_file(path, empty);
    const event_mgr_handle handle = open();
    write_file(path, described(plain("/SYS/A")));
    while (listed_below("/SYS/A").empty()) {
        std::this_thread::yield();
    }
    EXPECT_EQ((std::vector<std::string>{"/SYS", "/SYS/A"}), listed_below("/SYS"));
    subscribe_all(handle);
    write_file(path, described(plain("/SYS/A") + "," + plain("/SYS/B")));
    EXPECT_EQ(events{inserted("/SYS/B")}, told.wait_for(1));
}

TEST_F(event_manager, an_enumeration_of_another_subscriber_hides_nothing)
{
    write_file(path, empty);
    const event_mgr_handle handle = open();
    EXPECT_EQ(std::vector<std::string>{"/SYS"}, listed_below("/SYS"));
    write_file(path, described(plain("/SYS/A")));
    while (listed_below("/SYS/A").empty()) {
        std::this_thread::yield();
    }
    static subscriber other;
    std::thread([] {
        event_mgr_handle its_own = 0;
        EXPECT_EQ(0, event_mgr_get_handle(&its_own, subscriber::callback, &other));
        EXPECT_EQ(2U, listed_below("/SYS").size());
    }).join();
    subscribe_all(handle);
    EXPECT_EQ(events{inserted("/SYS/A")}, told.wait_for(1));
}

TEST_F(event_manager, only_what_is_subscribed_is_delivered)
{
    write_file(path, described(plain("/SYS/A")));
    const event_mgr_handle handle = open();
    EXPECT_EQ(0, event_mgr_subscribe_event_class(handle, 105));
    EXPECT_EQ(0, event_mgr_subscribe_event(handle, 105, EVENT_MGR_HOT_REMOVE));
    EXPECT_EQ(0, event_mgr_subscribe_event(handle, -1, -1));
    write_file(path, described(plain("/SYS/B")));
    EXPECT_EQ(events{removed("/SYS/A")}, told.wait_for(1));
    write_file(path, empty);
    EXPECT_EQ((events{removed("/SYS/A"), removed("/SYS/B")}), told.wait_for(2));
}

TEST_F(event_manager, without_a_disconnect_subscription_events_come_too)
{
    write_file(path, empty);
    const event_mgr_handle handle = open();
    EXPECT_EQ(0, event_mgr_subscribe_event(handle, 105, EVENT_MGR_HOT_INSERT));
    write_file(path, described(plain("/SYS/A")));
    EXPECT_EQ(events{inserted("/SYS/A")}, told.wait_for(1));
}

TEST_F(event_manager, several_subscribers_are_all_told)
{
    write_file(path, empty);
    static subscriber others[3];
    const event_mgr_handle first = follow();
    std::set<event_mgr_handle> handles{first};
    for (subscriber &each : others) {
        event_mgr_handle handle = 0;
        ASSERT_EQ(0, event_mgr_get_handle(&handle, subscriber::callback, &each));
        EXPECT_TRUE(handles.insert(handle).second);
        subscribe_all(handle);
    }
    write_file(path, described(plain("/SYS/A")));
    EXPECT_EQ(events{inserted("/SYS/A")}, told.wait_for(1));
    for (subscriber &each : others) {
        EXPECT_EQ(events{inserted("/SYS/A")}, each.wait_for(1));
    }
    described_platform_stop();
}

TEST_F(event_manager, unknown_handles_and_null_arguments_are_refused)
{
    write_file(path, empty);
    event_mgr_handle handle = open();
    EXPECT_NE(0, event_mgr_subscribe_event_class(handle + 1, 105));
    EXPECT_NE(0, event_mgr_subscribe_event(handle + 1, 105, 2));
    EXPECT_NE(0, event_mgr_subscribe_event(0, 105, 2));
    EXPECT_NE(0, event_mgr_get_handle(nullptr, subscriber::callback, &told));
    EXPECT_NE(0, event_mgr_get_handle(&handle, nullptr, &told));
}

/* Longer than whoever asks for a handle goes on asking. */
constexpr std::chrono::hours long_time{1};

TEST_F(event_manager, a_directory_that_comes_late_is_served)
{
    const auto later = directory / "later";
    const auto file = later / "server.json";
    ::setenv("KAVPLAT_DESCRIPTION", file.c_str(), 1);
    const event_mgr_handle handle = open();
    EXPECT_EQ(handle + 1, open()) << "as often as one asks";
    EXPECT_TRUE(listed_below("/").empty());
    EXPECT_EQ((std::vector<std::string>{
                  "3:" + later.string() +
                  "/: the directory of the description is not there; there is no inventory until "
                  "it is back\n"}),
              log_lines());
    described_platform::the_machine().events.let_pass(long_time);
    std::filesystem::create_directory(later);
    ASSERT_TRUE(wait_for_log("the directory of the description is back"));
    ASSERT_TRUE(wait_for_log(": refused; there is no inventory until it is good"));
    described_platform::the_machine().events.let_pass(long_time);
    write_file(file, empty);
    ASSERT_TRUE(wait_for_log(": in force; components: 1 (1 came, 0 went, 0 changed)"));
    EXPECT_EQ(std::vector<std::string>{"/SYS"}, listed_below("/"));
    subscribe_all(handle);
    write_file(file, described(plain("/SYS/A")));
    EXPECT_EQ(events{inserted("/SYS/A")}, told.wait_for(1));
}

TEST_F(event_manager, with_a_bad_file_there_is_a_handle_and_the_inventory_comes_with_a_good_one)
{
    write_file(path, "{");
    const event_mgr_handle handle = open();
    EXPECT_TRUE(listed_below("/").empty());
    write_file(path, empty);
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (listed_below("/").empty() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
    }
    EXPECT_EQ(std::vector<std::string>{"/SYS"}, listed_below("/"));
    subscribe_all(handle);
    write_file(path, described(plain("/SYS/A")));
    EXPECT_EQ(events{inserted("/SYS/A")}, told.wait_for(1)) << "and not the root once more";
}

TEST_F(event_manager, a_directory_that_was_away_is_served_again_after_any_time)
{
    const auto inner = directory / "a" / "b" / "c";
    std::filesystem::create_directories(inner);
    const auto file = inner / "server.json";
    ::setenv("KAVPLAT_DESCRIPTION", file.c_str(), 1);
    write_file(file, described(plain("/SYS/A")));
    follow();
    events expected;
    const auto away = [&](const std::function<void()> &go, const std::function<void()> &come,
                          const std::string &name) {
        clear_log();
        const std::string old = listed_below("/").back();
        go();
        /* Of a rename far above nobody is told. */
        described_platform::the_machine().events.let_pass(std::chrono::seconds(2));
        ASSERT_TRUE(wait_for_log("c/: the directory of the description is gone; its last content "
                                 "stays in force until it is back"));
        described_platform::the_machine().events.let_pass(long_time);
        EXPECT_EQ((std::vector<std::string>{"/SYS", old}), listed_below("/SYS"));
        come();
        replace_file(file, described(plain(name)));
        expected.push_back(removed(old));
        expected.push_back(inserted(name));
        EXPECT_EQ(expected, told.wait_for(expected.size()));
        EXPECT_TRUE(wait_for_log("c/: the directory of the description is back"));
        EXPECT_TRUE(wait_for_log(": in force; components: 2 (1 came, 1 went, 0 changed)"));
        EXPECT_EQ(1U, errors_logged().size());
    };
    away([&] { std::filesystem::remove_all(inner); },
         [&] { std::filesystem::create_directory(inner); }, "/SYS/B");
    away([&] { std::filesystem::rename(inner, directory / "x"); },
         [&] { std::filesystem::rename(directory / "x", inner); }, "/SYS/C");
    away([&] { std::filesystem::rename(directory / "a", directory / "z"); },
         [&] { std::filesystem::rename(directory / "z", directory / "a"); }, "/SYS/D");
}

TEST_F(event_manager, what_comes_into_force_is_said_in_one_line)
{
    const auto line = [&](const char *changes) {
        return "6:" + path.string() + ": in force; components: " + changes + "\n";
    };
    write_file(path, described(plain("/SYS/A") + "," + plain("/SYS/B") + "," + plain("/SYS/C")));
    follow();
    write_file(path, described(plain("/SYS/A") + "," +
                               R"({"name": "/SYS/B", "type": 9, "power": "on"},
                                  {"name": "/SYS/C", "type": 10}, {"name": "/SYS/D", "type": 9},
                                  {"name": "/SYS/E", "type": 9})"));
    told.wait_for(4);
    replace_file(path, described(plain("/SYS/A"), R"(, "product": {})"));
    told.wait_for(9);
    write_file(path, "{");
    ASSERT_TRUE(wait_for_log("refused"));
    replace_file(path, described(plain("/SYS/A"), R"(, "product": {})"));
    ASSERT_TRUE(wait_for_log("(0 came, 0 went, 0 changed)"));
    std::vector<std::string> lines = log_lines();
    std::erase_if(lines, [](const std::string &each) { return each.starts_with("3:"); });
    EXPECT_EQ((std::vector<std::string>{
                  line("4 (4 came, 0 went, 0 changed)"), line("6 (2 came, 0 went, 2 changed)"),
                  line("2 (0 came, 4 went, 0 changed); the identity of product or chassis changed"),
                  line("2 (0 came, 0 went, 0 changed)")}),
              lines);
}

TEST_F(event_manager, fifty_errors_of_a_file_are_enough)
{
    std::string components;
    for (int i = 0; i < 60; ++i) {
        components += (i == 0 ? "" : ",") + (R"({"name": "/SYS/)" + std::to_string(i)) +
                      R"(", "type": "none"})";
    }
    write_file(path, described(components));
    open();
    ASSERT_TRUE(wait_for_log(": refused"));
    const std::vector<std::string> lines = log_lines();
    ASSERT_EQ(52U, lines.size());
    EXPECT_NE(std::string::npos, lines[49].find("/components/50/type"));
    EXPECT_EQ("3:" + path.string() + ": and 10 more errors; kavplat check tells them all\n",
              lines[50]);
}

TEST_F(event_manager, a_callback_may_ask_for_a_handle)
{
    write_file(path, empty);
    static event_mgr_handle second;
    static int status;
    second = 0;
    status = -1;
    told.on_event = [](const delivered &) {
        status = event_mgr_get_handle(&second, subscriber::callback, nullptr);
    };
    const event_mgr_handle first = follow();
    write_file(path, described(plain("/SYS/A")));
    told.wait_for(1);
    EXPECT_EQ(0, status);
    EXPECT_NE(0U, second);
    EXPECT_NE(first, second);
}

TEST_F(event_manager, thresholds_and_identity_are_told)
{
    const auto with = [](const char *limit, const char *model) {
        return described(std::string(R"({"name": "/SYS/T", "type": 16, "sensor":
            {"class": 1, "type": 1, "reading": 1, "thresholds": {"upper_fatal": )") +
                             limit + "}}}",
                         std::string(R"(, "product": {"model": ")") + model + "\"}");
    };
    write_file(path, with("5", "A"));
    follow();
    write_file(path, with("6", "B"));
    EXPECT_EQ((events{{118, 3, "/SYS/T"}, {105, 10, "/SYS"}}), told.wait_for(2));
    capi_sensor_record record;
    ASSERT_EQ(0, capi_get_sensor_info("/SYS/T", CAPI_SENSOR_INFO_ALL, &record));
    EXPECT_EQ(6.0F, record.upper_fatal);
}

TEST_F(event_manager, readers_on_other_threads_always_find_one_whole_description)
{
    const std::string one = described(plain("/SYS/A") + "," + plain("/SYS/A/X"));
    const std::string two = described(plain("/SYS/B") + "," + plain("/SYS/B/X"));
    write_file(path, one);
    follow();
    std::atomic<bool> stop = false;
    std::atomic<int> wrong = 0;
    std::vector<std::thread> readers;
    for (int i = 0; i < 2; ++i) {
        readers.emplace_back([&] {
            while (!stop) {
                const auto all = listed_below("/");
                const bool whole = all == std::vector<std::string>{"/SYS", "/SYS/A", "/SYS/A/X"} ||
                                   all == std::vector<std::string>{"/SYS", "/SYS/B", "/SYS/B/X"};
                wrong += whole ? 0 : 1;
            }
        });
    }
    for (size_t i = 0; i < 20; ++i) {
        replace_file(path, i % 2 == 0 ? two : one);
        told.wait_for(2 * (i + 1));
    }
    stop = true;
    for (std::thread &each : readers) {
        each.join();
    }
    EXPECT_EQ(0, wrong);
    EXPECT_EQ(40U, told.wait_for(40).size());
}

} // namespace

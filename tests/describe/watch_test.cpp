// kavplat describe --watch as a program: what it writes and when, whom it tells, how it ends.
#include "tools/kavplat/describe/describe.h"
#include "tools/kavplat/describe/schedule.h"

#include "harness/agent.h"
#include "harness/client.h"
#include "harness/files.h"
#include "harness/names.h"
#include "harness/process.h"
#include "made_machines/machines.h"

#include <gtest/gtest.h>
#include <umockdev.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <limits>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace fs = std::filesystem;
using kavplat_describe::schedule;
using kavplat_describe_test::made_machine;

namespace
{

/* What systemd listens at. */
class listener
{
  public:
    explicit listener(const fs::path &path)
        : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        if (::bind(socket_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
            throw std::runtime_error("bind");
        }
    }
    ~listener() { ::close(socket_); }
    listener(const listener &) = delete;
    listener &operator=(const listener &) = delete;

    /* Each look tells one state. */
    int states()
    {
        take();
        return states_;
    }
    bool hears(const std::string &wanted)
    {
        return eventually([&] {
            take();
            return all_.find(wanted) != std::string::npos;
        });
    }

  private:
    void take()
    {
        char text[4096];
        ssize_t length = 0;
        while ((length = ::recv(socket_, text, sizeof text, MSG_DONTWAIT)) > 0) {
            const std::string_view one(text, static_cast<size_t>(length));
            states_ += one.find("STATUS=") != std::string_view::npos ? 1 : 0;
            all_ += one;
            all_ += '\n';
        }
    }

    int socket_;
    int states_ = 0;
    std::string all_;
};

/* A machine with two drives, a watcher of it, and udev, which says what the test says. */
class watched_machine
{
  public:
    watched_machine() : udev_(umockdev_testbed_new()), systemd(here / "notify")
    {
        fs::create_directories(here / "out");
        made.nvme(made.pci("0000:00", "01.0", "010802"),
                  {.type = "drive", .serial = "STAYS", .model = "Drive"});
        pulled_ = made.nvme(made.pci("0000:00", "02.0", "010802"),
                            {.type = "drive", .serial = "PULLED", .model = "Drive"});
        const std::string memory = "/sys/devices/system/edac/mc/mc0";
        made.file(memory + "/seconds_since_reset", "8640000\n");
        made.file(memory + "/dimm0/dimm_ue_count", "0\n");
        made.file(memory + "/dimm0/dimm_ce_count", "1000\n");
        device_ = umockdev_testbed_add_device(udev_, "block", "nvme1n1", nullptr, nullptr,
                                              "DEVTYPE", "disk", nullptr);
        ::setenv("NOTIFY_SOCKET", (here / "notify").c_str(), 1);
        watching.start(
            {KAVPLAT_COMMAND, "describe", "--root", made.root(), "--output", file(), "--watch"},
            here / "log");
        ::unsetenv("NOTIFY_SOCKET");
    }
    ~watched_machine()
    {
        watching.stop();
        g_free(device_);
        g_object_unref(udev_);
    }
    watched_machine(const watched_machine &) = delete;
    watched_machine &operator=(const watched_machine &) = delete;

    fs::path file() const { return here / "out" / "server.json"; }
    std::string log() const { return read_file(here / "log"); }
    bool has(const std::string &text) const
    {
        return read_file(file()).find(text) != std::string::npos;
    }
    void pull() const
    {
        const std::string name = fs::path(pulled_).filename();
        fs::remove(made.on_disk("/sys/block/" + name + "n1"));
        fs::remove(made.on_disk("/sys/class/nvme/" + name));
        fs::remove_all(made.on_disk(pulled_));
    }
    void tell(const char *action, int times = 1) const
    {
        constexpr int room = 8; // a socket of this kind holds ten
        for (int i = 0; i < times; i++) {
            if (i % room == 0) {
                eventually([this] { return stat().starts_with("S "); });
            }
            umockdev_testbed_uevent(udev_, device_, action);
        }
    }
    /* How long it had a processor, in milliseconds. */
    long worked() const
    {
        std::istringstream fields(stat());
        std::string skipped;
        for (int i = 0; i < 11; i++) {
            fields >> skipped;
        }
        long user = 0;
        long system = 0;
        fields >> user >> system;
        return (user + system) * 1000 / ::sysconf(_SC_CLK_TCK);
    }

    temporary_directory here;
    made_machine made;

  private:
    /* What the kernel says of the watcher, from its state on. */
    std::string stat() const
    {
        const std::string all = read_file("/proc/" + std::to_string(watching.id()) + "/stat");
        return all.substr(std::min(all.size(), all.rfind(')') + 2));
    }

    UMockdevTestbed *udev_;
    gchar *device_ = nullptr;
    std::string pulled_;

  public:
    listener systemd;
    child_process watching;
};

/* libudev finds the devices that a test makes in a process only that was begun so:
 * the test runs in another one of its own. True where it does here. */
bool is_with_udev()
{
    const char *preloaded = std::getenv("LD_PRELOAD");
    if (preloaded != nullptr && std::strstr(preloaded, "umockdev") != nullptr) {
        return true;
    }
    const auto *test = testing::UnitTest::GetInstance()->current_test_info();
    const command_result result =
        run_command("umockdev-wrapper " + quoted(fs::read_symlink("/proc/self/exe")) +
                    " --gtest_filter=" + test->test_suite_name() + '.' + test->name() + " 2>&1");
    std::cout << result.output;
    EXPECT_EQ(0, result.status);
    EXPECT_NE(std::string::npos, result.output.find("[  PASSED  ] 1 test.")) << result.output;
    return false;
}

ino_t number_of(const fs::path &file)
{
    struct stat status = {};
    return ::stat(file.c_str(), &status) == 0 ? status.st_ino : 0;
}

/* A rack server, with more drives until it has so many components. */
void build_large(made_machine &it, size_t components)
{
    constexpr unsigned devices_of_a_bus = 32;
    kavplat_describe_test::kinds_of_machines[0].build(it);
    for (unsigned i = 0; it.list().size() < components; i++) {
        char device[8];
        std::snprintf(device, sizeof device, "%02x.0", i % devices_of_a_bus);
        const std::string bus = "0000:c" + std::to_string(i / devices_of_a_bus);
        kavplat_describe_test::build_nvme(it, it.pci(bus, device, "010802"), bus + device, i);
    }
}

/* What it ever held of the memory, in KiB. */
long most_memory_of(pid_t process)
{
    const std::string status = read_file("/proc/" + std::to_string(process) + "/status");
    const std::string key = "VmHWM:";
    const size_t at = status.find(key);
    return at == std::string::npos ? std::numeric_limits<long>::max()
                                   : std::stol(status.substr(at + key.size()));
}

} // namespace

TEST(describe_watch, of_250_components_holds_less_than_20_megabytes)
{
    if (KAVPLAT_SANITIZED) {
        GTEST_SKIP() << "a sanitizer takes memory and time of its own";
    }
    made_machine machine;
    build_large(machine, 250);
    const temporary_directory here;
    listener systemd(here / "notify");
    child_process watching;
    ASSERT_EQ(0, ::setenv("NOTIFY_SOCKET", (here / "notify").c_str(), 1));
    watching.start({KAVPLAT_COMMAND, "describe", "--root", machine.root(), "--output",
                    here / "server.json", "--watch"},
                   here / "log");
    ::unsetenv("NOTIFY_SOCKET");
    ASSERT_TRUE(systemd.hears("READY=1")) << read_file(here / "log");
    const long memory = most_memory_of(watching.id());
    EXPECT_LT(memory, 20 * 1024);

    kavplat_describe::options asked;
    asked.root = machine.root();
    const std::string text = kavplat_describe::describe(asked).text;
    EXPECT_EQ(read_file(here / "server.json"), text);
    size_t components = 0;
    for (size_t at = 0; (at = text.find("\"name\":", at)) != std::string::npos; at++) {
        components++;
    }
    EXPECT_GE(components, 250U);
    std::cout << components << " components: " << memory << " KiB at most\n";
}

TEST(describe_watch, writes_the_file_tells_that_it_is_ready_and_ends_on_terminate)
{
    const temporary_directory here;
    fs::create_directories(here / "root");
    listener systemd(here / "notify");
    ASSERT_EQ(0, ::setenv("NOTIFY_SOCKET", (here / "notify").c_str(), 1));
    child_process watching;
    watching.start({KAVPLAT_COMMAND, "describe", "--root", here / "root", "--output",
                    here / "server.json", "--watch"},
                   here / "log");
    ::unsetenv("NOTIFY_SOCKET");
    EXPECT_TRUE(systemd.hears("READY=1")) << read_file(here / "log");
    EXPECT_EQ(0, run_command(std::string(KAVPLAT_COMMAND) + " check --user '' " +
                             quoted(here / "server.json"))
                     .status);
    ASSERT_EQ(0, ::kill(watching.id(), SIGTERM));
    EXPECT_TRUE(systemd.hears("STOPPING=1"));
    EXPECT_EQ(0, watching.wait(std::chrono::seconds(30)).value_or(-1));
    EXPECT_NE(std::string::npos, read_file(here / "log").find("describes this machine"));
}

TEST(describe_output, has_its_directory_made_or_is_refused_with_what_to_do)
{
    const temporary_directory here;
    fs::create_directories(here / "root");
    const std::string command = "umask 077; exec " + quoted(KAVPLAT_COMMAND) +
                                " describe --no-ipmi --root " + quoted(here / "root") +
                                " --output ";
    const command_result once =
        run_command(command + quoted(here / "once" / "server.json") + " 2>&1");
    EXPECT_EQ(0, once.status) << once.output;
    child_process watching;
    watching.start({"sh", "-c", command + quoted(here / "run" / "server.json") + " --watch"},
                   here / "log");
    for (const fs::path &directory : {here / "once", here / "run"}) {
        EXPECT_TRUE(eventually([&] { return fs::exists(directory / "server.json"); }))
            << read_file(here / "log");
        EXPECT_EQ(fs::perms{0755}, fs::status(directory).permissions());
    }
    for (const char *watch : {"", " --watch"}) {
        const command_result result = run_command(
            "timeout 30 sh -c " +
            quoted(command + quoted(here / "no" / "such" / "server.json") + watch) + " 2>&1");
        EXPECT_EQ(1, result.status) << result.output;
        EXPECT_NE(std::string::npos,
                  result.output.find("server.json: its directory is missing and cannot be made (No "
                                     "such file or directory): make it first, as by \"sudo install "
                                     "-d -m 755 " +
                                     (here / "no" / "such").string()))
            << result.output;
    }
    EXPECT_FALSE(fs::exists(here / "no"));
}

TEST(describe_watch, a_drive_goes_with_the_word_of_udev_and_a_storm_costs_one_description)
{
    if (KAVPLAT_SANITIZED) {
        GTEST_SKIP() << "a sanitizer's library and the one that stands for udev do not go together";
    }
    if (!is_with_udev()) {
        return;
    }
    watched_machine it;
    ASSERT_TRUE(it.systemd.hears("READY=1")) << it.log();
    ASSERT_TRUE(it.has("PULLED")) << read_file(it.file());
    // Memory errors are counted from the first look on.
    EXPECT_TRUE(it.has(R"("upper_non_critical": 1050)")) << read_file(it.file());
    const ino_t before = number_of(it.file());
    const long worked_before = it.worked();

    // Nothing differs: the file stays the one that it is.
    const auto begin = std::chrono::steady_clock::now();
    it.tell("change", 1000);
    const auto lasted = std::chrono::duration_cast<std::chrono::milliseconds>(
                            std::chrono::steady_clock::now() - begin)
                            .count();
    EXPECT_TRUE(eventually([&] { return it.systemd.states() > 1; }));
    EXPECT_EQ(before, number_of(it.file()));
    EXPECT_LE(it.systemd.states() - 1, 1 + lasted / schedule::longest_wait);
    EXPECT_LT(it.worked() - worked_before, 1000);

    it.pull();
    it.tell("remove");
    EXPECT_TRUE(eventually([&] { return !it.has("PULLED"); })) << it.log();
    EXPECT_TRUE(it.has("STAYS"));
    EXPECT_NE(before, number_of(it.file()));
    EXPECT_TRUE(eventually([&] { return it.log().find("written anew") != std::string::npos; }))
        << it.log();
    ASSERT_EQ(0, ::kill(it.watching.id(), SIGTERM));
    EXPECT_EQ(0, it.watching.wait(std::chrono::seconds(30)).value_or(-1));
    // Nothing half is left behind.
    EXPECT_EQ(1, std::distance(fs::directory_iterator(it.file().parent_path()),
                               fs::directory_iterator()));
}

TEST(describe_watch, goes_on_where_the_file_can_not_be_written_and_where_the_machine_vanishes)
{
    if (KAVPLAT_SANITIZED) {
        GTEST_SKIP() << "a sanitizer's library and the one that stands for udev do not go together";
    }
    if (!is_with_udev()) {
        return;
    }
    watched_machine it;
    ASSERT_TRUE(it.systemd.hears("READY=1")) << it.log();
    fs::rename(it.here / "out", it.here / "away");
    it.tell("change");
    EXPECT_TRUE(it.systemd.hears("could not be written: ")) << it.log();
    EXPECT_NE(std::string::npos, it.log().find("server.json: No such file or directory"))
        << it.log();
    fs::rename(it.here / "away", it.here / "out");
    it.tell("change");
    EXPECT_TRUE(eventually([&] { return it.log().find("good again") != std::string::npos; }))
        << it.log();

    const std::string good = read_file(it.file());
    fs::rename(it.made.root(), it.here / "vanished");
    it.tell("change");
    EXPECT_TRUE(eventually([&] { return it.log().find("no such directory") != std::string::npos; }))
        << it.log();
    EXPECT_EQ(good, read_file(it.file()));
    fs::rename(it.here / "vanished", it.made.root());
    it.pull();
    it.tell("remove");
    EXPECT_TRUE(eventually([&] { return !it.has("PULLED"); })) << it.log();
}

TEST(describe_watch, a_drive_that_is_pulled_is_gone_from_the_agent_too)
{
    if (KAVPLAT_SANITIZED) {
        GTEST_SKIP() << "a sanitizer's library and the one that stands for udev do not go together";
    }
    if (!is_with_udev()) {
        return;
    }
    watched_machine it;
    ASSERT_TRUE(it.systemd.hears("READY=1")) << it.log();
    agent server({.environment = {{"KAVPLAT_DESCRIPTION", it.file()}}});
    ASSERT_NO_THROW(server.start());
    snmp_client client(server.port());
    const auto row_of = [&client](const std::string &serial) {
        unsigned long found = 0;
        for (const varbind &each : client.bulk_walk(ent_column(11), 20)) {
            found = each.value.text == serial ? each.name.back() : found;
        }
        return found;
    };
    const unsigned long pulled = row_of("PULLED");
    ASSERT_NE(0U, pulled);
    it.pull();
    const auto told = std::chrono::steady_clock::now();
    it.tell("remove");
    // Two seconds on a machine that has the time; here others may be at work.
    constexpr std::chrono::seconds longest(10);
    EXPECT_TRUE(eventually(
        [&] { return client.get({ent_cell(11, pulled)}).varbinds.at(0).value == no_instance(); },
        longest))
        << it.log();
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - told);
    std::cout << "gone from the agent " << took.count() << " ms after the word of it\n";
    RecordProperty("milliseconds", static_cast<int>(took.count()));
    EXPECT_NE(0U, row_of("STAYS"));
}

TEST(describe_watch, takes_a_file_to_write_to)
{
    const command_result result =
        run_command(std::string(KAVPLAT_COMMAND) + " describe --watch 2>&1");
    EXPECT_EQ(2, result.status);
    EXPECT_NE(std::string::npos, result.output.find("--output")) << result.output;
}

TEST(schedule, a_storm_costs_one_look_and_a_change_is_seen_within_two_seconds)
{
    schedule when;
    EXPECT_LE(when.next(), 0); // at once
    when.looked(1000);
    EXPECT_EQ(1000 + schedule::full_look, when.next());
    // A thousand events within a second.
    for (int64_t now = 5000; now < 6000; now++) {
        when.told(now);
        ASSERT_GT(when.next(), now);
    }
    EXPECT_EQ(5999 + schedule::quiet, when.next());
    when.looked(when.next());
    EXPECT_EQ(5999 + schedule::quiet + schedule::full_look, when.next());
    // One that does not end is looked into all the same.
    int looks = 0;
    const int64_t begin = 100000;
    int64_t waited = 0;
    int64_t since = begin;
    for (int64_t now = begin; now < begin + 60000; now += 10) {
        when.told(now);
        if (when.next() <= now) {
            waited = std::max(waited, now - since);
            when.looked(now);
            since = now + 10;
            looks++;
        }
    }
    EXPECT_GE(looks, 30);
    EXPECT_LE(looks, 45);
    EXPECT_LT(waited, 2000);
}

// A description that can not be had, or only half of it: what was good stays in
// force, and the log names the file and what is wrong with it.
#include "described/format/loader.h"
#include "described/platform.h"
#include "described/support.h"

#include "platform/capi.h"
#include "platform/event_mgr.h"

#include <csignal>
#include <fcntl.h>
#include <set>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

using namespace described_platform_test;
namespace fs = std::filesystem;

std::set<std::string> inventory()
{
    std::set<std::string> names;
    uint32_t count = 0;
    capi_inventory_record *items = nullptr;
    if (capi_get_inventory("/", CAPI_INVENTORY_SUBTREE, &count, &items) == 0) {
        for (uint32_t i = 0; i < count; i++) {
            names.insert(items[i].nac_name);
        }
        capi_free_inventory(items, count);
    }
    return names;
}

class description_faults : public platform_test
{
  protected:
    ~description_faults() override { described_platform_stop(); }

    const std::string good = described(R"({"name": "/SYS/MB", "type": "system-board"})");
    const std::set<std::string> good_names = {"/SYS", "/SYS/MB"};
    const std::string more = described(R"({"name": "/SYS/MB", "type": "system-board"},
{"name": "/SYS/MB/P0", "type": "processor"})");
    const std::set<std::string> more_names = {"/SYS", "/SYS/MB", "/SYS/MB/P0"};

    // Somebody listens, as the library does, so that changes are noticed.
    void listen()
    {
        event_mgr_handle handle = 0;
        ASSERT_EQ(event_mgr_get_handle(&handle, subscriber::callback, &listener), 0);
        subscribe_all(handle);
    }

    std::string refused(const std::string &why) const { return path.string() + why; }

    // From here a good file must be taken again.
    void expect_recovery()
    {
        std::error_code ignored;
        fs::remove_all(path, ignored);
        replace_file(path, more);
        listener.wait_for(1);
        EXPECT_EQ(inventory(), more_names);
    }

    subscriber listener;
};

TEST_F(description_faults, a_directory_in_its_place_is_said_and_the_last_good_one_stays)
{
    write_file(path, good);
    listen();
    ASSERT_EQ(inventory(), good_names);
    fs::remove(path);
    fs::create_directory(path);
    EXPECT_TRUE(wait_for_log(refused(": (document): expected a regular file")));
    EXPECT_TRUE(wait_for_log("the last good description stays in force"));
    EXPECT_EQ(inventory(), good_names);
    expect_recovery();
}

TEST_F(description_faults, a_fifo_in_its_place_holds_nobody)
{
    write_file(path, good);
    listen();
    ASSERT_EQ(inventory(), good_names);
    fs::remove(path);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_TRUE(wait_for_log(refused(": (document): expected a regular file")));
    EXPECT_EQ(inventory(), good_names);
    expect_recovery();
}

TEST_F(description_faults, a_link_in_circles_is_said)
{
    fs::create_symlink(path, path);
    EXPECT_TRUE(inventory().empty());
    EXPECT_TRUE(wait_for_log(refused(": (document): expected a readable file: open: Too many "
                                     "levels of symbolic links")));
    EXPECT_TRUE(wait_for_log("there is no inventory until it is good"));
}

TEST_F(description_faults, a_device_is_no_description)
{
    fs::create_symlink("/dev/full", path);
    EXPECT_TRUE(inventory().empty());
    EXPECT_TRUE(wait_for_log(refused(": (document): expected a regular file")));
}

// A writer that runs out of room leaves the beginning of its file.
TEST_F(description_faults, half_a_file_is_said_wherever_it_ends)
{
    write_file(path, good);
    listen();
    ASSERT_EQ(inventory(), good_names);
    for (size_t length = 0; length < more.size() - 2; length += 9) {
        SCOPED_TRACE(length);
        clear_log();
        replace_file(path, more.substr(0, length));
        EXPECT_TRUE(wait_for_log(path.string() + ":"));
        EXPECT_EQ(inventory(), good_names);
    }
    expect_recovery();
}

// The same by a writer that really may not write any further.
TEST_F(description_faults, a_write_that_is_cut_short_keeps_the_last_good_one)
{
    write_file(path, good);
    listen();
    ASSERT_EQ(inventory(), good_names);
    const pid_t writer = fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) {
        const rlimit limit = {40, 40};
        signal(SIGXFSZ, SIG_IGN);
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0) {
            _exit(2);
        }
        const int fd = open(path.c_str(), O_WRONLY | O_TRUNC);
        const bool first = write(fd, more.data(), more.size()) == 40;
        const bool second = write(fd, more.data(), more.size()) < 0;
        _exit(first && second ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(writer, &status, 0), writer);
    ASSERT_EQ(status, 0);
    EXPECT_TRUE(wait_for_log("expected JSON"));
    EXPECT_TRUE(wait_for_log("the last good description stays in force"));
    EXPECT_EQ(inventory(), good_names);
    expect_recovery();
}

TEST_F(description_faults, none_at_the_start_is_said_and_one_that_comes_is_taken)
{
    EXPECT_TRUE(inventory().empty());
    EXPECT_TRUE(
        wait_for_log(refused(": (document): expected a readable file: open: No such file")));
    write_file(path, good);
    EXPECT_EQ(inventory(), good_names);
}

// ---- Rights ----

TEST_F(description_faults, root_trusts_no_file_that_everybody_may_write_to)
{
    struct stat status = {};
    status.st_mode = S_IFREG | 0644;
    EXPECT_TRUE(described_platform::is_trusted(status, 0));
    status.st_mode = S_IFREG | 0664;
    EXPECT_TRUE(described_platform::is_trusted(status, 0));
    status.st_mode = S_IFREG | 0646;
    EXPECT_FALSE(described_platform::is_trusted(status, 0));
    EXPECT_TRUE(described_platform::is_trusted(status, 1000));
}

TEST_F(description_faults, one_that_everybody_may_write_to_is_refused_to_root_alone)
{
    write_file(path, good);
    fs::permissions(path, fs::perms::others_write, fs::perm_options::add);
    if (geteuid() != 0) {
        EXPECT_EQ(inventory(), good_names);
        return;
    }
    EXPECT_TRUE(inventory().empty());
    EXPECT_TRUE(wait_for_log(refused(": (document): expected a file that only its owner and group "
                                     "may write to, since the agent runs as root and opens what "
                                     "the file names: run \"chmod o-w " +
                                     path.string() + "\"")));
    // Doing what it says is enough.
    fs::permissions(path, fs::perms::others_write, fs::perm_options::remove);
    EXPECT_EQ(inventory(), good_names);
}

// A link's own mode says nothing: what counts is the file that is read.
TEST_F(description_faults, behind_a_link_the_mode_of_the_file_counts)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root has reason to refuse it";
    }
    const fs::path target = path.string() + ".target";
    write_file(target, good);
    fs::create_symlink(target, path);
    EXPECT_EQ(inventory(), good_names);
    fs::permissions(target, fs::perms::others_write, fs::perm_options::add);
    described_platform_stop();
    EXPECT_TRUE(inventory().empty());
    EXPECT_TRUE(wait_for_log("run \"chmod o-w " + path.string() + "\""));
    fs::permissions(path, fs::perms::others_write, fs::perm_options::remove); // as it says
    EXPECT_EQ(inventory(), good_names);
}

} // namespace

// A clock that jumps, and files that are not what they should be.
#include "faults/server_under_fault.h"
#include "harness/files.h"

#include <fcntl.h>
#include <filesystem>
#include <future>
#include <sys/stat.h>

namespace
{

using namespace std::chrono_literals;
namespace fs = std::filesystem;

class clock_faults : public server_under_fault
{
  protected:
    // Whether a walk now reads the sensor anew.
    bool is_read()
    {
        platform.forget_calls();
        ask();
        return platform.calls("capi_get_sensor", "/SYS/MB/T0") != 0;
    }
};

TEST_F(clock_faults, a_jump_forwards_reads_anew)
{
    init_local_cache();
    EXPECT_TRUE(is_read());
    EXPECT_FALSE(is_read());
    fake_system::set_uptime(uptime + 999);
    EXPECT_FALSE(is_read());
    fake_system::set_uptime(uptime + 1000);
    EXPECT_TRUE(is_read());
    fake_system::set_uptime(uptime + 2'000'000'000);
    EXPECT_TRUE(is_read());
}

// Up-time that ran backwards is taken for fresh until it has caught up.
TEST_F(clock_faults, a_jump_backwards_serves_what_was_read_until_the_clock_caught_up)
{
    init_local_cache();
    EXPECT_TRUE(is_read());
    const auto before = ask();
    fake_system::set_uptime(10);
    EXPECT_FALSE(is_read());
    EXPECT_EQ(ask(), before);
    fake_system::set_uptime(uptime + 1000);
    EXPECT_TRUE(is_read());
}

TEST_F(clock_faults, the_wrap_of_time_ticks_is_no_jump)
{
    fake_system::set_uptime(UINT32_MAX - 499);
    init_local_cache();
    EXPECT_TRUE(is_read());
    fake_system::set_uptime(u_long{UINT32_MAX} + 1 + 499); // 999 later
    EXPECT_FALSE(is_read());
    fake_system::set_uptime(u_long{UINT32_MAX} + 1 + 500);
    EXPECT_TRUE(is_read());
    event(EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_HOT_REMOVE, "/SYS/MB");
    EXPECT_EQ(entLastChangeTime, 500U);
}

class version_file_faults : public server_under_fault
{
  protected:
    version_file_faults() { fake_system::redirect_path("/etc/static_conf/version.dat", path); }

    // The build ends in time, and the text is the default one.
    void expect_default_firmware()
    {
        // A build that hangs is let go by a writer, so that the test still ends.
        std::future<void> built = std::async(std::launch::async, init_local_cache);
        const bool ended = built.wait_for(20s) == std::future_status::ready;
        EXPECT_TRUE(ended) << "the build waits for the version file";
        if (!ended) {
            const int fd = open(path.c_str(), O_WRONLY | O_NONBLOCK);
            built.wait();
            close(fd);
        }
        ASSERT_EQ(rows().size(), 9U);
        EXPECT_TRUE(std::string(row("/SYS")->entPhysicalFirmwareRev)
                        .starts_with("System Firmware : dev build "));
    }

    const temporary_directory directory;
    const fs::path path = directory / "version.dat";
};

TEST_F(version_file_faults, a_fifo_is_left_alone)
{
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    agent_log log;
    expect_default_firmware();
    EXPECT_TRUE(log.has(LOG_WARNING, "snmp_read_product_info:/etc/static_conf/version.dat is no "
                                     "regular file and is not read\n"));
}

TEST_F(version_file_faults, a_directory_is_left_alone)
{
    fs::create_directory(path);
    agent_log log;
    expect_default_firmware();
    EXPECT_TRUE(log.has(LOG_WARNING, "snmp_read_product_info:/etc/static_conf/version.dat is no "
                                     "regular file and is not read\n"));
}

TEST_F(version_file_faults, one_that_can_not_be_opened_is_said)
{
    write_file(path, "@(#)5.0.1\n");
    fake_system::on_fopen.set([](const char *, const char *) -> FILE * {
        errno = EMFILE;
        return nullptr;
    });
    agent_log log;
    expect_default_firmware();
    EXPECT_TRUE(log.has(LOG_WARNING, "snmp_read_product_info:/etc/static_conf/version.dat can not "
                                     "be opened: Too many open files\n"));
}

// Most hosts have none; that is no fault.
TEST_F(version_file_faults, none_at_all_is_no_fault)
{
    agent_log log;
    expect_default_firmware();
    EXPECT_EQ(complaints(log), 0U);
}

} // namespace

/* A daemon forks after it has loaded its modules: the child has no thread. */
#include "described/live/log.h"
#include "described/live/threads.h"
#include "described/platform.h"
#include "described/support.h"
#include "platform/capi.h"
#include "platform/event_mgr.h"

#include <atomic>
#include <csignal>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace described_platform_test;

namespace
{

/* Runs body in a child; what it returns is the child's status. A child that
 * hangs is ended and gives -1. */
template <class Body>
int in_child(Body body)
{
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(40);
        ::_exit(body());
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

float reading()
{
    capi_sensor_record record{};
    return capi_get_sensor(0, "/SYS/T", &record) == 0 ? record.reading : -1.0F;
}

bool lists(const char *name)
{
    uint32_t count = 0;
    capi_inventory_record *items = nullptr;
    if (capi_get_inventory(name, CAPI_INVENTORY_SUBTREE, &count, &items) != 0) {
        return false;
    }
    capi_free_inventory(items, count);
    return true;
}

class forked : public platform_test
{
  protected:
    forked()
    {
        // A busy machine may be slow to start the thread that reads, and a child
        // starts its own.
        ::setenv("KAVPLAT_READ_TIMEOUT_MS", "10000", 1);
        write_file(directory / "t", "7");
        write_file(path, described(with_sensor));
    }
    ~forked() override { described_platform_stop(); }

    void follow()
    {
        event_mgr_handle handle = 0;
        ASSERT_EQ(0, event_mgr_get_handle(&handle, subscriber::callback, &told));
        ASSERT_TRUE(lists("/"));
        subscribe_all(handle);
    }

    static constexpr const char *with_sensor = R"({"name": "/SYS/T", "type": 16, "sensor":
        {"class": 1, "type": 1, "reading": {"file": "t"}}})";
    subscriber told;
};

TEST_F(forked, the_child_reads_without_asking_for_anything_first)
{
    follow();
    EXPECT_EQ(7.0F, reading());
    EXPECT_EQ(0, in_child([&] {
                  if (!lists("/SYS/T")) {
                      return 1;
                  }
                  if (reading() != 7.0F) {
                      return 2;
                  }
                  write_file(directory / "t", "8");
                  return reading() == 8.0F ? 0 : 3;
              }));
    EXPECT_EQ(8.0F, reading()) << "the parent goes on";
}

/* Lives for as long as body runs again and again, at work; in between it rests. */
class busy_thread
{
  public:
    explicit busy_thread(std::function<void()> body)
        : thread_(described_platform::start_thread("kavplat-test", [this, body = std::move(body)] {
              while (!stop_) {
                  body();
                  const described_platform::at_rest rest;
                  std::this_thread::sleep_for(std::chrono::microseconds(100));
              }
          }))
    {
    }
    ~busy_thread()
    {
        stop_ = true;
        thread_.join();
    }
    busy_thread(const busy_thread &) = delete;
    busy_thread &operator=(const busy_thread &) = delete;

  private:
    std::atomic<bool> stop_ = false;
    std::thread thread_;
};

TEST_F(forked, the_child_finds_none_of_the_threads_at_work)
{
    std::atomic<int> at_work = 0;
    const auto work = [&] {
        ++at_work;
        std::this_thread::sleep_for(std::chrono::microseconds(300));
        --at_work;
    };
    const busy_thread one(work);
    const busy_thread two(work);
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(0, in_child([&] { return at_work.load(); }));
    }
}

TEST_F(forked, a_thread_that_never_rests_is_waited_for_once)
{
    using clock = std::chrono::steady_clock;
    const auto usual =
        std::exchange(described_platform::longest_wait_before_fork, std::chrono::milliseconds(300));
    std::atomic<bool> go_on = false;
    const auto time_of_fork = [] {
        const auto begin = clock::now();
        EXPECT_EQ(0, in_child([] { return 0; }));
        return clock::now() - begin;
    };
    {
        const busy_thread stuck([&] { go_on.wait(false); });
        EXPECT_GE(time_of_fork(), std::chrono::milliseconds(300));
        described_platform::longest_wait_before_fork = patience;
        EXPECT_LT(time_of_fork(), patience);
        go_on = true;
        go_on.notify_all();
    }
    described_platform::longest_wait_before_fork = usual;
}

/* A thread waits for the end of the parent's fork, which waits for another in vain. In
 * the child, whose own forks wait for a thread of its own, there is none of them. */
TEST_F(forked, the_child_waits_for_its_own_threads_alone)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "a sanitizer can start no thread after a fork beside other threads";
#endif
    const auto usual =
        std::exchange(described_platform::longest_wait_before_fork, std::chrono::milliseconds(100));
    std::atomic<bool> go_on = false;
    {
        const busy_thread stuck([&] { go_on.wait(false); });
        const busy_thread waits_for_the_fork([] {});
        EXPECT_EQ(0, in_child([] {
                      described_platform::longest_wait_before_fork = patience;
                      std::atomic<int> at_work = 0;
                      const busy_thread own([&] {
                          ++at_work;
                          std::this_thread::sleep_for(std::chrono::milliseconds(2));
                          --at_work;
                      });
                      int found = 0;
                      for (int i = 0; i < 20; ++i) {
                          found += in_child([&] { return at_work.load(); });
                      }
                      return found;
                  }));
        go_on = true;
        go_on.notify_all();
    }
    described_platform::longest_wait_before_fork = usual;
}

TEST_F(forked, the_child_may_log_though_others_were_logging)
{
    std::atomic<bool> stop = false;
    std::thread other([&] { /* calls the platform, which knows nothing of it */
                            while (!stop) {
                                described_platform::log_info("busy");
                                /* Who never lets go of the log's lock starves the fork. */
                                std::this_thread::sleep_for(std::chrono::microseconds(20));
                            }
    });
    for (int i = 0; i < 200 && !HasFailure(); ++i) {
        EXPECT_EQ(0, in_child([] {
                      described_platform::log_info("child");
                      return 0;
                  }));
    }
    stop = true;
    other.join();
}

TEST_F(forked, the_child_gets_events_with_a_handle_of_its_own)
{
    follow();
    const int status = in_child([&] {
        static subscriber mine;
        event_mgr_handle handle = 0;
        if (event_mgr_get_handle(&handle, subscriber::callback, &mine) != 0 || handle == 0) {
            return 1;
        }
        if (!lists("/")) {
            return 2;
        }
        subscribe_all(handle);
        write_file(path, described(""));
        const auto got = mine.wait_for(1);
        return got == std::vector<delivered>{{105, 3, "/SYS/T"}} ? 0 : 3;
    });
    EXPECT_EQ(0, status);
    EXPECT_EQ((std::vector<delivered>{{105, 3, "/SYS/T"}}), told.wait_for(1))
        << "the parent still watches, too";
}

TEST_F(forked, the_child_keeps_the_last_good_description)
{
    follow();
    write_file(path, "{");
    ASSERT_TRUE(wait_for_log("the last good description stays in force"));
    EXPECT_EQ(0, in_child([] { return lists("/SYS/T") ? 0 : 1; }));
}

TEST_F(forked, a_fork_before_any_use_is_nothing_special)
{
    EXPECT_EQ(0, in_child([] { return lists("/SYS/T") && reading() == 7.0F ? 0 : 1; }));
}

TEST_F(forked, a_child_of_a_child_works_too)
{
    follow();
    EXPECT_EQ(0, in_child([] {
                  if (reading() != 7.0F) {
                      return 1;
                  }
                  return in_child([] { return reading() == 7.0F ? 0 : 2; });
              }));
}

TEST_F(forked, a_fork_while_other_threads_are_inside_the_platform_hangs_nobody)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer's own locks do not survive a fork beside other threads";
#endif
    follow();
    std::atomic<bool> stop = false;
    std::vector<std::thread> busy;
    busy.emplace_back([&] {
        while (!stop) {
            reading();
            lists("/");
        }
    });
    busy.emplace_back([&] {
        while (!stop) {
            event_mgr_handle handle = 0;
            event_mgr_get_handle(&handle, subscriber::callback, nullptr);
        }
    });
    for (int i = 0; i < 20; ++i) {
        replace_file(path, described(with_sensor));
        EXPECT_EQ(0, in_child([] {
                      event_mgr_handle handle = 0;
                      if (event_mgr_get_handle(&handle, subscriber::callback, nullptr) != 0) {
                          return 1;
                      }
                      return lists("/SYS/T") && reading() == 7.0F ? 0 : 2;
                  }));
    }
    stop = true;
    for (std::thread &each : busy) {
        each.join();
    }
}

} // namespace

// What a fork of the agent waits for: threads at work, but not those that wait.

#include <atomic>
#include <thread>
#include <utility>

#include <sys/wait.h>
#include <unistd.h>

#include "rooms/cache_fixture.h"

namespace
{

using namespace std::chrono_literals;
using clock = std::chrono::steady_clock;

class fork_of_the_agent : public cache_test
{
  protected:
    // Where a fork that waits for the wrong thread hangs until the test's time is up.
    const std::chrono::milliseconds usual = std::exchange(kavplat::longest_wait_before_fork, 1h);

    fork_of_the_agent() { kavplat::watch_forks(); }
    ~fork_of_the_agent() override { kavplat::longest_wait_before_fork = usual; }

    // A child that hangs is ended, and gives -1.
    template <class Body>
    static int in_child(Body body)
    {
        const pid_t child = fork();
        if (child == 0) {
            alarm(10);
            _exit(body());
        }
        int status = 0;
        waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    static void pass()
    {
        EXPECT_EQ(in_child([] { return 0; }), 0);
    }
};

// Another thread, at a place that it reaches and stays in until this goes.
class thread_that_stays
{
  public:
    template <class Reach>
    explicit thread_that_stays(Reach reach) : thread_([this, reach] { reach([this] { stay(); }); })
    {
        there_.wait(false);
    }
    ~thread_that_stays()
    {
        go_on_ = true;
        go_on_.notify_all();
        thread_.join();
    }
    thread_that_stays(const thread_that_stays &) = delete;
    thread_that_stays &operator=(const thread_that_stays &) = delete;

  private:
    void stay()
    {
        there_ = true;
        there_.notify_all();
        go_on_.wait(false);
    }

    std::atomic<bool> there_{false};
    std::atomic<bool> go_on_{false};
    std::thread thread_;
};

constexpr auto at_work = [](const auto &stay) {
    const kavplat::at_work work;
    stay();
};
constexpr auto at_rest = [](const auto &stay) {
    const kavplat::at_work work;
    const kavplat::at_rest rest;
    stay();
};

TEST_F(fork_of_the_agent, finds_no_thread_at_work)
{
    std::atomic<bool> stop{false};
    std::atomic<int> inside{0};
    const auto body = [&] {
        while (!stop) {
            const kavplat::at_work work;
            inside++;
            std::this_thread::sleep_for(200us);
            inside--;
            {
                const kavplat::at_rest rest;
                std::this_thread::sleep_for(50us);
            }
            const kavplat::at_work nested;
            inside++;
            std::this_thread::sleep_for(200us);
            inside--;
        }
    };
    std::thread one(body);
    std::thread two(body);
    for (int i = 0; i < 50; i++) {
        EXPECT_EQ(in_child([&] { return inside.load(); }), 0);
    }
    stop = true;
    one.join();
    two.join();
}

TEST_F(fork_of_the_agent, child_may_work_at_once)
{
    const thread_that_stays other(at_rest);
    EXPECT_EQ(in_child([] {
                  const kavplat::at_work work;
                  pass();
                  return kavplat::was_left_behind_by_fork() ? 0 : 1;
              }),
              0);
    EXPECT_FALSE(kavplat::was_left_behind_by_fork());
}

// A platform's call may start a program with a fork of its own.
TEST_F(fork_of_the_agent, waits_for_nobody_when_others_may_wait_for_the_one_who_forks)
{
    const thread_that_stays other(at_work);
    {
        const kavplat::at_work work;
        pass();
    }
    {
        const cache_lock_held lock;
        pass();
    }
}

TEST_F(fork_of_the_agent, waits_once_for_a_thread_that_never_rests)
{
    const thread_that_stays other(at_work);
    kavplat::longest_wait_before_fork = 300ms;
    const auto begin = clock::now();
    pass();
    EXPECT_GE(clock::now() - begin, 300ms);
    kavplat::longest_wait_before_fork = 1h;
    pass();
}

// The locks that a thread outside of any work may hold: a module of the platform that
// looks a name up.
TEST_F(fork_of_the_agent, child_has_the_cache_lock_anew)
{
    const thread_that_stays other([](const auto &stay) {
        const cache_lock_held lock;
        stay();
    });
    EXPECT_EQ(in_child([] { return monitor_fru_lock() + monitor_fru_unlock(); }), 0);
}

TEST_F(fork_of_the_agent, child_has_the_names_lock_anew)
{
    const thread_that_stays other([](const auto &stay) {
        fake_system::on_pthread_mutex_unlock.set([&stay](pthread_mutex_t *mutex) {
            stay();
            return pthread_mutex_unlock(mutex);
        });
        EXPECT_EQ(kavplat::find_name("/SYS/NONE"), 0U);
    });
    fake_system::on_pthread_mutex_unlock.clear();
    EXPECT_EQ(in_child([] { return kavplat::name_index_exists() ? 1 : 0; }), 0);
}

// A thread waits for the end of the parent's fork, which waits for another in vain. In
// the child, whose own forks wait for threads of its own, there is none of them.
TEST_F(fork_of_the_agent, child_waits_for_its_own_threads_alone)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "a sanitizer can start no thread after a fork beside other threads";
#endif
    const auto fork_beside_work = [] {
        std::atomic<bool> is_over{false};
        std::atomic<bool> works{false};
        std::thread other([&] {
            const kavplat::at_work work;
            works = true;
            works.notify_all();
            std::this_thread::sleep_for(20ms); // the fork begins to wait
            is_over = true;
        });
        works.wait(false);
        const int status = in_child([&] { return is_over ? 0 : 1; });
        other.join();
        return status;
    };
    std::thread waits_for_the_fork;
    {
        const thread_that_stays other(at_work);
        waits_for_the_fork = std::thread([] {
            std::this_thread::sleep_for(20ms); // the fork begins to wait
            const kavplat::at_work later;
        });
        kavplat::longest_wait_before_fork = 100ms;
        EXPECT_EQ(in_child([&] {
                      kavplat::longest_wait_before_fork = 1h;
                      return fork_beside_work() + fork_beside_work();
                  }),
                  0);
    }
    waits_for_the_fork.join();
}

std::atomic<bool> fork_begins{false};

TEST_F(fork_of_the_agent, comes_between_two_rows_of_a_build)
{
    // The last that was registered is called first.
    pthread_atfork([] { fork_begins = true; }, nullptr, nullptr);
    fork_begins = false;
    std::vector<std::string> names = {"/SYS"};
    for (int i = 0; i < 200; i++) {
        names.push_back("/SYS/A" + std::to_string(i));
    }
    set_components(names);
    std::atomic<bool> building{false};
    std::atomic<bool> is_forked{false};
    platform->on_call = [&](const fake_call &call) {
        if (call.function != "capi_get_component_desc_str" || is_forked) {
            return;
        }
        if (!building) {
            building = true;
            building.notify_all();
            EXPECT_TRUE(fake_system::eventually([] { return fork_begins.load(); }));
        }
        std::this_thread::sleep_for(2ms); // the fork begins to wait
    };
    const agent_log log; // keeps the messages off the terminal
    std::thread builder([] {
        const kavplat::at_work work;
        init_local_cache();
    });
    building.wait(false);
    const int rows_in_child = in_child([&] { return static_cast<int>(maxPhysicalIndex); });
    is_forked = true;
    EXPECT_GE(rows_in_child, 1);
    EXPECT_LT(rows_in_child, static_cast<int>(names.size()));
    builder.join();
    EXPECT_EQ(rows(), names);
}

} // namespace

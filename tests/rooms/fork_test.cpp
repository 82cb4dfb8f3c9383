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

    template <class Body>
    static int in_child(Body body)
    {
        const pid_t child = fork();
        if (child == 0) {
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
    std::atomic<bool> resting{false};
    std::atomic<bool> go_on{false};
    std::thread other([&] {
        const kavplat::at_work work;
        const kavplat::at_rest rest;
        resting = true;
        resting.notify_all();
        go_on.wait(false);
    });
    resting.wait(false);
    EXPECT_EQ(in_child([] {
                  const kavplat::at_work work;
                  pass();
                  return kavplat::was_left_behind_by_fork() ? 0 : 1;
              }),
              0);
    go_on = true;
    go_on.notify_all();
    other.join();
    EXPECT_FALSE(kavplat::was_left_behind_by_fork());
}

// A platform's call may start a program with a fork of its own.
TEST_F(fork_of_the_agent, waits_for_nobody_when_others_may_wait_for_the_one_who_forks)
{
    std::atomic<bool> working{false};
    std::atomic<bool> go_on{false};
    std::thread other([&] {
        const kavplat::at_work work;
        working = true;
        working.notify_all();
        go_on.wait(false);
    });
    working.wait(false);
    {
        const kavplat::at_work work;
        pass();
    }
    {
        const cache_lock_held lock;
        pass();
    }
    go_on = true;
    go_on.notify_all();
    other.join();
}

TEST_F(fork_of_the_agent, waits_once_for_a_thread_that_never_rests)
{
    std::atomic<bool> working{false};
    std::atomic<bool> go_on{false};
    std::thread other([&] {
        const kavplat::at_work work;
        working = true;
        working.notify_all();
        go_on.wait(false);
    });
    working.wait(false);
    kavplat::longest_wait_before_fork = 300ms;
    const auto begin = clock::now();
    pass();
    EXPECT_GE(clock::now() - begin, 300ms);
    kavplat::longest_wait_before_fork = 1h;
    pass();
    go_on = true;
    go_on.notify_all();
    other.join();
}

TEST_F(fork_of_the_agent, comes_between_two_rows_of_a_build)
{
    set_components({"/SYS", "/SYS/A", "/SYS/B"});
    std::atomic<bool> building{false};
    platform->on_call = [&](const fake_call &call) {
        if (call.function == "capi_get_component_desc_str" && !building) {
            building = true;
            building.notify_all();
            std::this_thread::sleep_for(20ms); // the fork begins to wait
        }
    };
    std::thread builder([] {
        const kavplat::at_work work;
        init_local_cache();
    });
    building.wait(false);
    EXPECT_LT(in_child([] { return static_cast<int>(maxPhysicalIndex); }), 3);
    builder.join();
    EXPECT_EQ(rows(), (std::vector<std::string>{"/SYS", "/SYS/A", "/SYS/B"}));
}

} // namespace

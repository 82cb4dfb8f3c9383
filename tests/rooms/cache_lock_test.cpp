// The cache lock.

#include <cerrno>
#include <thread>

#include "rooms/cache_fixture.h"

namespace
{

using cache_lock = cache_test;

TEST_F(cache_lock, one_thread_at_a_time)
{
    ASSERT_EQ(monitor_fru_lock(), 0);
    std::atomic<bool> tried{false};
    std::atomic<bool> inside{false};
    fake_system::on_pthread_mutex_lock.set([&](pthread_mutex_t *mutex) {
        tried = tried || mutex == &fru_mutex;
        return pthread_mutex_lock(mutex);
    });
    std::thread other([&] {
        EXPECT_EQ(monitor_fru_lock(), 0);
        inside = true;
        EXPECT_EQ(monitor_fru_unlock(), 0);
    });
    EXPECT_TRUE(fake_system::eventually([&] { return tried.load(); }));
    EXPECT_FALSE(inside);
    EXPECT_EQ(monitor_fru_unlock(), 0);
    other.join();
    EXPECT_TRUE(inside);
}

TEST_F(cache_lock, it_is_not_recursive)
{
    ASSERT_EQ(monitor_fru_lock(), 0);
    EXPECT_EQ(pthread_mutex_trylock(&fru_mutex), EBUSY);
    EXPECT_EQ(monitor_fru_unlock(), 0);
    ASSERT_EQ(pthread_mutex_trylock(&fru_mutex), 0);
    EXPECT_EQ(pthread_mutex_unlock(&fru_mutex), 0);
}

TEST_F(cache_lock, results_are_those_of_the_calls_and_nobody_logs)
{
    const agent_log log({"monitor", "kavdata", "trace"});
    fake_system::fail_mutex(fake_system::mutex_call::lock, &fru_mutex, EINVAL, 1);
    fake_system::fail_mutex(fake_system::mutex_call::unlock, &fru_mutex, EPERM, 1);
    EXPECT_EQ(monitor_fru_lock(), EINVAL);
    EXPECT_FALSE(kavplat::this_thread_holds_cache_lock());
    EXPECT_EQ(monitor_fru_unlock(), EPERM);
    EXPECT_EQ(monitor_fru_lock(), 0);
    EXPECT_EQ(monitor_fru_unlock(), 0);
    EXPECT_EQ(log.records().size(), 0U);
}

TEST_F(cache_lock, a_thread_knows_whether_it_holds_it)
{
    EXPECT_FALSE(kavplat::this_thread_holds_cache_lock());
    ASSERT_EQ(monitor_fru_lock(), 0);
    EXPECT_TRUE(kavplat::this_thread_holds_cache_lock());
    std::thread([] { EXPECT_FALSE(kavplat::this_thread_holds_cache_lock()); }).join();
    ASSERT_EQ(monitor_fru_unlock(), 0);
    EXPECT_FALSE(kavplat::this_thread_holds_cache_lock());
}

// Those below need a process of their own, in which nobody has used the lock yet.
class cache_lock_death : public testing::Test
{
  protected:
    cache_lock_death() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

[[noreturn]] void leave(bool passed)
{
    _exit(passed ? 0 : 1);
}

TEST_F(cache_lock_death, it_is_initialised_once_with_default_attributes)
{
    EXPECT_EXIT(
        {
            const fake_system::scope system;
            std::atomic<int> initialised{0};
            std::atomic<int> with_attributes{0};
            fake_system::on_pthread_mutex_init.set(
                [&](pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes) {
                    initialised += mutex == &fru_mutex ? 1 : 0;
                    with_attributes += attributes ? 1 : 0;
                    return pthread_mutex_init(mutex, attributes);
                });
            bool good = monitor_fru_lock() == 0;
            good = good && initialised == 1; // at its first use
            good = good && kavplat::prepare_cache_lock() == 0;
            // It was not renewed while it was held.
            good = good && pthread_mutex_trylock(&fru_mutex) == EBUSY;
            good = good && monitor_fru_unlock() == 0;
            std::thread([&] { good = good && kavplat::prepare_cache_lock() == 0; }).join();
            good = good && monitor_fru_lock() == 0 && monitor_fru_unlock() == 0;
            leave(good && initialised == 1 && with_attributes == 0);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(cache_lock_death, the_child_of_a_fork_has_a_lock_of_its_own)
{
    EXPECT_EXIT(
        {
            bool good = monitor_fru_lock() == 0; // as another thread would hold it
            kavplat::renew_cache_lock();
            good = good && !kavplat::this_thread_holds_cache_lock();
            leave(good && pthread_mutex_trylock(&fru_mutex) == 0);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(cache_lock_death, a_failed_initialisation_is_told_each_time_and_not_repeated)
{
    EXPECT_EXIT(
        {
            const fake_system::scope system;
            fake_system::fail_mutex(fake_system::mutex_call::init, &fru_mutex, ENOMEM, 1);
            bool good = kavplat::prepare_cache_lock() == ENOMEM;
            good = good && kavplat::prepare_cache_lock() == ENOMEM;
            // The lock works as it was before.
            good = good && monitor_fru_lock() == 0;
            good = good && pthread_mutex_trylock(&fru_mutex) == EBUSY;
            leave(good && monitor_fru_unlock() == 0);
        },
        testing::ExitedWithCode(0), "");
}

} // namespace

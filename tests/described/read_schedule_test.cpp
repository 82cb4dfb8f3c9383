#include "described/watch/read_schedule.h"

#include <gtest/gtest.h>

using described_platform::read_order;
using described_platform::read_schedule;
using namespace std::chrono_literals;

namespace
{

const read_schedule::time_point start{1000h};
constexpr read_order now_and_complain{true, true};
constexpr read_order even_if_unchanged{true, false};
constexpr read_order if_changed{false, false};

/* A schedule that was asked at the start. */
read_schedule begun()
{
    read_schedule result;
    EXPECT_TRUE(result.take_check(start)) << "at once";
    EXPECT_EQ(if_changed, result.take_order(true, start));
    result.was_read(if_changed, true, start);
    return result;
}

TEST(read_schedule, checks_for_ever_whether_there_is_something_or_not)
{
    read_schedule all = begun();
    read_schedule::time_point time = start;
    for (int i = 0; i < 100; ++i) {
        if (i % 2 == 0) {
            all.nothing_there();
        }
        EXPECT_EQ(time + 2s, all.next());
        EXPECT_FALSE(all.take_check(time + 2s - 1ns));
        time += i % 3 == 0 ? 1h : 2s;
        EXPECT_TRUE(all.take_check(time));
        EXPECT_EQ(if_changed, all.take_order(true, time));
        EXPECT_EQ(std::nullopt, all.take_order(false, time));
    }
}

TEST(read_schedule, news_are_read_when_it_is_quiet_or_goes_on_for_too_long)
{
    read_schedule all = begun();
    all.changed(start);
    EXPECT_EQ(start + 5ms, all.next());
    EXPECT_EQ(std::nullopt, all.take_order(true, start + 4ms)) << "a check can wait for it";
    EXPECT_EQ(even_if_unchanged, all.take_order(false, start + 5ms));
    all.was_read(even_if_unchanged, true, start + 5ms);
    EXPECT_EQ(start + 2s, all.next());

    for (auto passed = 0ms; passed <= 16ms; passed += 4ms) {
        all.changed(start + passed);
        EXPECT_EQ(std::nullopt, all.take_order(false, start + passed));
    }
    EXPECT_EQ(start + 20ms, all.next());
    EXPECT_EQ(even_if_unchanged, all.take_order(false, start + 20ms));
}

TEST(read_schedule, what_is_bad_is_told_when_nobody_writes_for_a_while)
{
    read_schedule all = begun();
    for (const read_order &bad : {even_if_unchanged, if_changed}) {
        all.was_read(bad, false, start + 5ms);
        EXPECT_EQ(start + 305ms, all.next());
        EXPECT_EQ(std::nullopt, all.take_order(false, start + 304ms));
        EXPECT_EQ(now_and_complain, all.take_order(false, start + 305ms));
        all.was_read(now_and_complain, false, start + 305ms);
        EXPECT_EQ(start + 2s, all.next()) << "and once";
    }
    all.was_read(if_changed, false, start + 5ms);
    all.changed(start + 300ms);
    EXPECT_EQ(std::nullopt, all.take_order(false, start + 304ms));
    EXPECT_EQ(even_if_unchanged, all.take_order(false, start + 305ms)) << "written again";
    all.was_read(even_if_unchanged, true, start + 305ms);
    EXPECT_EQ(start + 2s, all.next());
}

TEST(read_schedule, what_was_to_be_read_of_a_file_that_went_is_forgotten)
{
    read_schedule all = begun();
    all.changed(start);
    all.nothing_there();
    EXPECT_EQ(start + 2s, all.next());
    all.was_read(if_changed, false, start);
    all.nothing_there();
    EXPECT_EQ(start + 2s, all.next());
}

} // namespace

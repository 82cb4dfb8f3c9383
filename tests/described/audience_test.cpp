#include "described/watch/audience.h"

#include <gtest/gtest.h>

using namespace described_platform;
using namespace std::chrono_literals;

namespace
{

const audience::time_point start{1000h};
const std::thread::id somebody = std::this_thread::get_id();
const std::thread::id another;

void ignore(void *, int, int, const char *) {}

description_pointer any_description()
{
    return std::make_shared<const description>();
}

TEST(audience, is_told_a_moment_after_its_last_subscription_or_when_disconnect_ends_them)
{
    const description_pointer old = any_description();
    const description_pointer now = any_description();
    audience all;
    const event_mgr_handle slow = all.open(ignore, nullptr, somebody, old);
    const event_mgr_handle whole = all.open(ignore, nullptr, somebody, old);
    EXPECT_NE(slow, whole);
    for (const event_mgr_handle each : {slow, whole}) {
        EXPECT_TRUE(all.subscribe_class(each, start));
        EXPECT_FALSE(all.take_message(now, start + 1h)) << "a class is no event";
    }
    for (const event_mgr_handle each : {slow, whole}) {
        EXPECT_TRUE(all.subscribe(each, EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_HOT_INSERT, start));
    }
    EXPECT_EQ(start + 200ms, all.next(start));
    EXPECT_FALSE(all.take_message(now, start + 199ms));
    EXPECT_TRUE(all.subscribe(whole, EVENT_MGR_CLASS_CONNECTION, EVENT_MGR_DISCONNECT, start));
    const auto first = all.take_message(now, start);
    ASSERT_TRUE(first);
    EXPECT_EQ(whole, first->handle);
    EXPECT_EQ(old, first->before);
    EXPECT_FALSE(all.take_message(now, start)) << "it knows it now";
    const auto second = all.take_message(now, start + 200ms);
    ASSERT_TRUE(second);
    EXPECT_EQ(slow, second->handle);
    EXPECT_EQ(audience::time_point::max(), all.next(start + 200ms));
    EXPECT_TRUE(all.is_subscribed(slow, EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_HOT_INSERT));
    EXPECT_FALSE(all.is_subscribed(slow, EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_HOT_REMOVE));
}

TEST(audience, who_wants_to_hear_of_a_disconnect_alone_is_told_nothing)
{
    audience all;
    const event_mgr_handle handle = all.open(ignore, nullptr, somebody, any_description());
    EXPECT_TRUE(all.subscribe(handle, EVENT_MGR_CLASS_CONNECTION, EVENT_MGR_DISCONNECT, start));
    EXPECT_FALSE(all.take_message(any_description(), start + 1h));
    EXPECT_FALSE(all.subscribe(handle + 1, EVENT_MGR_CLASS_HARDWARE, 2, start));
    EXPECT_FALSE(all.subscribe_class(handle + 1, start));
}

TEST(audience, an_enumeration_counts_until_something_was_told)
{
    const description_pointer old = any_description();
    const description_pointer listed = any_description();
    const description_pointer next = any_description();
    audience all;
    const event_mgr_handle mine = all.open(ignore, nullptr, somebody, old);
    const event_mgr_handle others = all.open(ignore, nullptr, another, old);
    const auto before = [&](const description_pointer &in_force) {
        std::map<event_mgr_handle, description_pointer> result;
        while (const auto message = all.take_message(in_force, start + 1h)) {
            result[message->handle] = message->before;
        }
        return result;
    };
    all.note_enumeration(somebody, listed);
    for (const event_mgr_handle each : {mine, others}) {
        all.subscribe(each, EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_HOT_INSERT, start);
    }
    EXPECT_EQ((std::map<event_mgr_handle, description_pointer>{{mine, listed}, {others, old}}),
              before(next));
    all.note_enumeration(somebody, old);
    EXPECT_EQ((std::map<event_mgr_handle, description_pointer>{{mine, next}, {others, next}}),
              before(listed));
}

} // namespace

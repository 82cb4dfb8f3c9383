// Allocations that fail, each in turn: the agent lives, what it then serves is
// sound, and the log says that there was no memory.
#include "faults/server_under_fault.h"

// A table that cannot be registered keeps what was allocated for it; that is meant.
extern "C" __attribute__((visibility("default"))) const char *__lsan_default_suppressions();
extern "C" const char *__lsan_default_suppressions()
{
    return "leak:kavplat::register_table\nleak:netsnmp_handler_registration_create\n";
}

namespace
{

class allocation_faults : public server_under_fault
{
  protected:
    // Counts nothing but what the library asks for itself.
    unsigned allocations_of(const std::function<void()> &life)
    {
        fake_system::fail_allocation(~0U); // counts from here
        life();
        const unsigned count = fake_system::allocations();
        fake_system::allow_allocations();
        return count;
    }
};

// Either the failure is made up for and nobody can tell, or the log tells it.
TEST_F(allocation_faults, each_one_in_a_whole_life_is_survived_and_said)
{
    agent_log log;
    live();
    const auto faultless = ask();
    reset();
    const unsigned count = allocations_of([&] { live(); });
    ASSERT_GT(count, 400U);
    unsigned said = 0;
    for (unsigned n = 1; n <= count; n++) {
        SCOPED_TRACE("allocation " + std::to_string(n) + " of " + std::to_string(count));
        reset();
        log.clear();
        fake_system::fail_allocation(n);
        live();
        fake_system::allow_allocations();
        ASSERT_GE(fake_system::failed_allocations(), n);
        if (complaints(log) != 0) {
            said++;
            EXPECT_TRUE(log_names(log, "memory") || log_names(log, "alloc"))
                << testing::PrintToString(log.texts(LOG_ERR))
                << testing::PrintToString(log.texts(LOG_WARNING));
        } else {
            EXPECT_EQ(ask(), faultless) << "something is missing and nothing is said";
        }
        expect_consistent(false);
        EXPECT_TRUE(platform.all_lists_released());
        if (HasFailure()) {
            break;
        }
    }
    EXPECT_GT(said, count / 2);
}

// From some point on there is no memory at all, and later there is again.
TEST_F(allocation_faults, none_from_some_point_on_and_recovery_by_the_next_event)
{
    const unsigned count = allocations_of([&] { live(); });
    for (unsigned n = 1; n <= count; n += 17) {
        SCOPED_TRACE("from allocation " + std::to_string(n));
        reset();
        {
            agent_log log;
            fake_system::fail_allocation(n, ~0U);
            live();
            fake_system::allow_allocations();
            EXPECT_GT(complaints(log), 0U);
        }
        expect_consistent(false);
        // The root's inventory puts every row back that had no memory.
        event(EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_UPDATE_INVENTORY, "/SYS");
        event(EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_UPDATE_INVENTORY, "/SYS");
        for (const char *name : {"/SYS", "/SYS/MB", "/SYS/MB/T0", "/SYS/OK", "/SYS/HDD0"}) {
            EXPECT_NE(row(name), nullptr) << name;
        }
        expect_consistent(false);
        ask();
        if (HasFailure()) {
            break;
        }
    }
}

TEST_F(allocation_faults, large_blocks_alone)
{
    init_local_cache();
    agent_log log;
    fake_system::fail_allocations_from(64 * sizeof(void *));
    event(EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_HOT_INSERT, "/SYS/MANY");
    fake_system::allow_allocations();
    EXPECT_TRUE(log.has(LOG_ERR, "set_fru_prsnt:realloc FAILED\n"));
    EXPECT_TRUE(ask().size() <= 1); // the whole cache went, rather than part of it
    event(EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_HOT_INSERT, "/SYS/MANY");
    EXPECT_NE(row("/SYS/MANY"), nullptr);
    EXPECT_NE(row("/SYS/MB"), nullptr);
}

// A table without memory for its registration is missing, the others are there.
TEST_F(allocation_faults, each_one_while_the_tables_are_registered_costs_that_table)
{
    agent_log log;
    const auto load = [] {
        kavplat::loaded.kavPlatMIB = false;
        init_kavPlatMIB();
    };
    const unsigned count = allocations_of(load);
    ASSERT_GT(count, 20U);
    for (unsigned n = 1; n <= count; n++) {
        SCOPED_TRACE("allocation " + std::to_string(n) + " of " + std::to_string(count));
        log.clear();
        fake_system::fail_allocation(n);
        load();
        fake_system::allow_allocations();
        EXPECT_TRUE(log_names(log, "malloc failed in") || log_names(log, "no memory"))
            << testing::PrintToString(log.texts(LOG_ERR));
    }
}

} // namespace

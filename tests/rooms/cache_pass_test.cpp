// When a row's memory is given back: at once, or when nobody can hold it.

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <new>
#include <set>
#include <thread>

#include <malloc.h>

#include "rooms/cache_fixture.h"

namespace
{

// Watches blocks being freed.
class freed_blocks
{
  public:
    freed_blocks()
    {
        fake_system::on_free.set([this](void *block) {
            {
                const std::lock_guard lock(mutex_);
                blocks_.insert(block);
            }
            free(block);
        });
    }
    ~freed_blocks() { fake_system::on_free.clear(); }
    freed_blocks(const freed_blocks &) = delete;
    freed_blocks &operator=(const freed_blocks &) = delete;

    bool has(const void *block)
    {
        const std::lock_guard lock(mutex_);
        return blocks_.contains(block);
    }

  private:
    std::mutex mutex_;
    std::set<const void *> blocks_;
};

void *block_of(phys_entry **slots)
{
    return reinterpret_cast<char *>(slots) - offsetof(kavplat::slot_array, slots);
}

// The rows that are not freed.
class live_rows
{
  public:
    live_rows()
    {
        fake_system::on_calloc.set([this](size_t n, size_t size) {
            void *block = calloc(n, size);
            if (n * size == sizeof(phys_entry)) {
                rows_.insert(block);
            }
            return block;
        });
        fake_system::on_free.set([this](void *block) {
            rows_.erase(block);
            free(block);
        });
    }
    ~live_rows()
    {
        fake_system::on_calloc.clear();
        fake_system::on_free.clear();
    }
    live_rows(const live_rows &) = delete;
    live_rows &operator=(const live_rows &) = delete;

    size_t count() const { return rows_.size(); }
    bool has(const phys_entry *row) const { return rows_.contains(row); }

  private:
    std::set<const void *> rows_;
};

class cache_pass : public cache_test
{
  protected:
    static void end_pass()
    {
        const cache_lock_held lock;
        kavplat::end_agent_pass();
    }

    // Inserts until the array is replaced.
    void grow()
    {
        phys_entry **before = physicalTable;
        while (physicalTable == before) {
            const std::string name = "/SYS/G" + std::to_string(maxPhysicalIndex);
            plug({name});
            insert(name.c_str());
        }
    }
};

TEST_F(cache_pass, with_nobody_reading_a_row_is_freed_at_once)
{
    build({"/SYS", "/SYS/A"});
    const phys_entry *entry = row("/SYS/A");
    const char *name = entry->entPhysicalName;
    freed_blocks freed;
    remove("/SYS/A");
    EXPECT_TRUE(freed.has(entry));
    EXPECT_TRUE(freed.has(name));
}

TEST_F(cache_pass, a_row_stays_readable_until_the_pass_ends)
{
    build({"/SYS", "/SYS/A", "/SYS/B"});
    freed_blocks freed;
    kavplat::begin_agent_pass();
    const phys_entry *entry = getnext_entry(1);
    ASSERT_NE(entry, nullptr);
    const char *name = entry->entPhysicalName;
    remove("/SYS/A");
    EXPECT_EQ(get_entry(2), nullptr); // unlinked at once
    EXPECT_EQ(kavplat::find_name("/SYS/A"), 0U);
    EXPECT_FALSE(freed.has(entry));
    EXPECT_FALSE(freed.has(name));
    EXPECT_EQ(entry->entPhysicalIndex, 2U);
    EXPECT_STREQ(entry->entPhysicalName, "/SYS/A");
    EXPECT_STREQ(entry->entPhysicalDescr, "a component");
    EXPECT_STREQ(entry->holderCol2, "");
    end_pass();
    EXPECT_TRUE(freed.has(entry));
    EXPECT_TRUE(freed.has(name));
}

TEST_F(cache_pass, every_row_of_a_pass_is_kept_and_freed)
{
    build_server(30);
    freed_blocks freed;
    kavplat::begin_agent_pass();
    std::vector<const phys_entry *> entries;
    for (const phys_entry *e = getnext_entry(0); e; e = getnext_entry(e->entPhysicalIndex)) {
        entries.push_back(e);
    }
    ASSERT_EQ(entries.size(), 30U);
    remove("/SYS"); // with all that it holds
    for (const phys_entry *e : entries) {
        EXPECT_FALSE(freed.has(e));
        EXPECT_NE(e->entPhysicalName[0], '\0');
    }
    end_pass();
    for (const phys_entry *e : entries) {
        EXPECT_TRUE(freed.has(e));
    }
}

TEST_F(cache_pass, a_new_pass_keeps_rows_again)
{
    build({"/SYS", "/SYS/A", "/SYS/B", "/SYS/C"});
    freed_blocks freed;
    const phys_entry *a = row("/SYS/A");
    const phys_entry *b = row("/SYS/B");
    const phys_entry *c = row("/SYS/C");
    kavplat::begin_agent_pass();
    end_pass();
    remove("/SYS/A");
    EXPECT_TRUE(freed.has(a));
    kavplat::begin_agent_pass();
    remove("/SYS/B");
    EXPECT_FALSE(freed.has(b));
    end_pass();
    EXPECT_TRUE(freed.has(b));
    remove("/SYS/C");
    EXPECT_TRUE(freed.has(c));
}

TEST_F(cache_pass, a_replaced_array_stays_readable_until_the_pass_ends)
{
    build({"/SYS", "/SYS/A", "/SYS/B", "/SYS/C", "/SYS/D"});
    freed_blocks freed;
    kavplat::begin_agent_pass();
    phys_entry **old = physicalTable;
    const phys_entry *entry = old[2];
    grow();
    ASSERT_NE(physicalTable, old);
    EXPECT_FALSE(freed.has(block_of(old)));
    EXPECT_EQ(old[2], entry); // the old slots are as they were
    EXPECT_EQ(physicalTable[2], entry);
    end_pass();
    EXPECT_TRUE(freed.has(block_of(old)));
    EXPECT_FALSE(freed.has(entry));
}

TEST_F(cache_pass, with_nobody_reading_a_replaced_array_is_freed_at_once)
{
    build({"/SYS", "/SYS/A", "/SYS/B", "/SYS/C", "/SYS/D"});
    freed_blocks freed;
    phys_entry **old = physicalTable;
    grow();
    EXPECT_TRUE(freed.has(block_of(old)));
}

TEST_F(cache_pass, a_dropped_cache_stays_readable_until_the_pass_ends)
{
    build({"/SYS", "/SYS/A", "/SYS/B", "/SYS/C", "/SYS/D"});
    plug({"/SYS/N", "/SYS/N/X"});
    freed_blocks freed;
    kavplat::begin_agent_pass();
    phys_entry **old = physicalTable;
    const phys_entry *entry = get_entry(2);
    fake_system::fail_allocation(1);
    insert("/SYS/N"); // cannot grow
    fake_system::allow_allocations();
    EXPECT_EQ(get_entry(2), nullptr);
    EXPECT_FALSE(freed.has(entry));
    EXPECT_FALSE(freed.has(block_of(old)));
    EXPECT_STREQ(entry->entPhysicalName, "/SYS/A");
    update("/SYS"); // rebuilds
    EXPECT_NE(get_entry(2), entry);
    EXPECT_FALSE(freed.has(entry));
    end_pass();
    EXPECT_TRUE(freed.has(entry));
    EXPECT_TRUE(freed.has(block_of(old)));
}

TEST_F(cache_pass, no_array_has_less_room_than_one_before_it)
{
    build_server(50);
    ASSERT_EQ(localCacheSize, 60U);
    // A reader may hold an index of the older cache.
    build({"/SYS", "/SYS/A"});
    EXPECT_EQ(localCacheSize, 2U);
    EXPECT_GE(malloc_usable_size(block_of(physicalTable)), 61 * sizeof(phys_entry *));
    EXPECT_EQ(kavplat::entry_at(60), nullptr);
    EXPECT_EQ(physicalTable[60], nullptr);
}

TEST_F(cache_pass, an_unlocked_read_keeps_rows)
{
    build({"/SYS", "/SYS/A", "/SYS/B"});
    freed_blocks freed;
    const phys_entry *a = row("/SYS/A");
    const phys_entry *b = row("/SYS/B");
    {
        const kavplat::unlocked_read one;
        {
            const kavplat::unlocked_read two;
            remove("/SYS/A");
        }
        // The end of a pass does not free what another thread reads.
        kavplat::begin_agent_pass();
        end_pass();
        EXPECT_FALSE(freed.has(a));
        EXPECT_STREQ(a->entPhysicalName, "/SYS/A");
    }
    remove("/SYS/B");
    EXPECT_TRUE(freed.has(a));
    EXPECT_TRUE(freed.has(b));
}

// As of refreshes on two event threads that are never both done.
TEST_F(cache_pass, reads_that_overlap_without_end_keep_few_rows)
{
    build({"/SYS"});
    plug({"/SYS/N"});
    const live_rows live;
    auto newest = std::make_unique<kavplat::unlocked_read>();
    for (int i = 0; i < 20; i++) {
        insert("/SYS/N");
        const phys_entry *gone = row("/SYS/N");
        auto next = std::make_unique<kavplat::unlocked_read>();
        remove("/SYS/N");
        EXPECT_TRUE(live.has(gone)); // which both may hold
        EXPECT_LE(live.count(), 4U) << i;
        newest = std::move(next); // the older one ends
    }
    newest.reset();
    end_pass();
    EXPECT_EQ(live.count(), 0U);
}

// Whatever began before a row went may hold it, however many periods end meanwhile.
TEST_F(cache_pass, a_long_read_keeps_what_it_may_hold_beside_short_ones)
{
    build({"/SYS"});
    plug({"/SYS/N"});
    const live_rows live;
    for (int shift = 0; shift < 3; shift++) {
        insert("/SYS/N");
        const phys_entry *held = row("/SYS/N");
        auto reading = std::make_unique<kavplat::unlocked_read>();
        for (int i = 0; i < shift; i++) {
            end_pass(); // a period may end between its begin and the removal
        }
        remove("/SYS/N");
        for (int i = 0; i < 6; i++) {
            const kavplat::unlocked_read other;
            insert("/SYS/N");
            remove("/SYS/N");
            end_pass();
        }
        EXPECT_TRUE(live.has(held));
        reading.reset();
        end_pass();
        EXPECT_EQ(live.count(), 0U);
    }
}

TEST_F(cache_pass, a_pass_keeps_rows_beyond_an_unlocked_read)
{
    build({"/SYS", "/SYS/A"});
    freed_blocks freed;
    const phys_entry *a = row("/SYS/A");
    kavplat::begin_agent_pass();
    {
        const kavplat::unlocked_read reading;
        remove("/SYS/A");
    }
    EXPECT_FALSE(freed.has(a));
    end_pass();
    EXPECT_TRUE(freed.has(a));
}

TEST_F(cache_pass, a_sensor_that_is_removed_during_its_refresh)
{
    platform->sensor_types = {30};
    platform->sensors["/SYS/T0"] = threshold_sensor(1, 2.5F);
    platform->components = {component("/SYS", plain), component("/SYS/T0", 30)};
    init_local_cache();
    freed_blocks freed;
    const phys_entry *entry = row("/SYS/T0");
    bool removed = false;
    platform->on_call = [&](const fake_call &call) {
        if (call.function == "capi_get_sensor_info" && !removed) {
            std::thread([] { remove("/SYS/T0"); }).join();
            removed = true;
            EXPECT_FALSE(freed.has(entry));
        }
    };
    reload_thresholds("/SYS/T0"); // writes to the row afterwards
    EXPECT_TRUE(removed);
    EXPECT_EQ(get_entry(2), nullptr);
    end_pass();
    EXPECT_TRUE(freed.has(entry));
}

// Before it is found and while it is, as well as later.
TEST_F(cache_pass, a_sensor_that_is_removed_while_its_refresh_looks_it_up)
{
    build({"/SYS", "/SYS/T0"});
    freed_blocks freed;
    const phys_entry *entry = row("/SYS/T0");
    const auto self = std::this_thread::get_id();
    bool removed = false;
    fake_system::on_pthread_mutex_unlock.set([&](pthread_mutex_t *mutex) {
        const int result = pthread_mutex_unlock(mutex);
        if (std::this_thread::get_id() == self && !removed) { // its name was looked at
            removed = true;
            std::thread([] { remove("/SYS/T0"); }).join();
            EXPECT_FALSE(freed.has(entry));
        }
        return result;
    });
    reload_thresholds("/SYS/T0");
    fake_system::on_pthread_mutex_unlock.clear();
    EXPECT_TRUE(removed);
    EXPECT_EQ(get_entry(2), nullptr);
    EXPECT_EQ(platform.calls("capi_get_sensor_info"), 0U);
    end_pass();
    EXPECT_TRUE(freed.has(entry));
}

// Whatever takes rows and arrays out of service: first it does, then it frees them.
TEST_F(cache_pass, nothing_is_freed_that_is_still_to_be_found)
{
    build_server(20);
    std::set<const void *> names;
    for (uint32_t i = 1; i <= maxPhysicalIndex; i++) {
        names.insert(get_entry(i)->entPhysicalName);
    }
    size_t freed_names = 0;
    size_t found = 0;
    fake_system::on_free.set([&](void *block) {
        if (physicalTable && block) {
            found += block == block_of(physicalTable) ? 1U : 0U;
            for (uint32_t i = 0; i <= 20; i++) {
                found += physicalTable[i] == block ? 1U : 0U;
            }
        }
        if (names.erase(block) != 0) {
            freed_names++;
            for (uint32_t b = 0; htab && b < htab->bucket_count; b++) {
                for (const hash_entry *e = htab->buckets[b]; e; e = e->next) {
                    found += *static_cast<const void *const *>(e->key) == block ? 1U : 0U;
                }
            }
        }
        free(block);
    });
    remove("/SYS/C3");
    EXPECT_EQ(freed_names, 1U);
    grow();
    unplug("/SYS/C5");
    update("/SYS");
    EXPECT_EQ(freed_names, 2U);
    plug({"/SYS/N"});
    localCacheSize = maxPhysicalIndex;
    fake_system::fail_allocation(1);
    insert("/SYS/N"); // drops the cache
    EXPECT_EQ(freed_names, 20U);
    fake_system::on_free.clear();
    EXPECT_EQ(found, 0U);
    EXPECT_EQ(maxPhysicalIndex, 0U);
    EXPECT_EQ(physicalTable, nullptr);
    EXPECT_EQ(localCacheSize, 0U);
    EXPECT_EQ(htab, nullptr);
}

TEST_F(cache_pass, memory_stays_flat_while_rows_come_and_go)
{
    // No array of slots is as small as a row from here on, and taken for one.
    kavplat::replace_slots(sizeof(phys_entry));
    build({"/SYS", "/SYS/A"});
    plug({"/SYS/N", "/SYS/N/X"});
    const live_rows live;
    for (int i = 0; i < 50; i++) {
        const bool asked = i % 2 != 0;
        if (asked) {
            kavplat::begin_agent_pass();
        }
        insert("/SYS/N");
        EXPECT_EQ(live.count(), 2U);
        remove("/SYS/N");
        EXPECT_EQ(live.count(), asked ? 2U : 0U);
        if (asked) {
            end_pass();
        }
        EXPECT_EQ(live.count(), 0U);
    }
}

TEST_F(cache_pass, in_the_child_of_a_fork_what_waits_is_forgotten)
{
    build({"/SYS", "/SYS/A", "/SYS/B"});
    freed_blocks freed;
    phys_entry *a = row("/SYS/A");
    const phys_entry *b = row("/SYS/B");
    kavplat::begin_agent_pass();
    // A read that its thread did not live to end.
    alignas(kavplat::unlocked_read) std::byte read[sizeof(kavplat::unlocked_read)];
    new (read) kavplat::unlocked_read;
    remove("/SYS/A");
    kavplat::forget_retired();
    remove("/SYS/B"); // nobody reads any more
    EXPECT_TRUE(freed.has(b));
    EXPECT_FALSE(freed.has(a));
    // The process would keep it; the test gives it back.
    const cache_lock_held lock;
    kavplat::retire(a);
    EXPECT_TRUE(freed.has(a));
}

// A walking agent thread, a refresh of thresholds and lookups by name, while two
// event threads insert, remove and update. The sanitizers do most of the looking.
TEST_F(cache_pass, a_walk_while_events_storm)
{
    constexpr int events = 250;
    constexpr uint32_t sensor_type = 30;
    platform->record_calls = false;
    platform->sensor_types = {sensor_type};
    platform->components = {component("/SYS", plain)};
    for (int i = 0; i < 8; i++) {
        const std::string board = "/SYS/B" + std::to_string(i);
        const std::string sensor = board + "/T0";
        platform->components.push_back(component(board.c_str(), plain));
        platform->components.push_back(component(sensor.c_str(), sensor_type));
        platform->sensors[sensor] = threshold_sensor(CAPI_SENSOR_TEMPERATURE, 20.5F);
    }
    const agent_log log; // keeps the holes' messages off the terminal
    init_local_cache();

    std::atomic<int> storming{2};
    const auto storm = [&](int first) {
        for (int i = 0; i < events; i++) {
            const std::string board = "/SYS/B" + std::to_string((first + i) % 8);
            remove(board.c_str());
            if (i % 10 == 5) {
                update("/SYS");
            } else {
                insert(board.c_str());
            }
            reload_thresholds((board + "/T0").c_str());
        }
        storming--;
    };
    std::thread one(storm, 0);
    std::thread two(storm, 4);
    std::thread refresh([&] {
        while (storming != 0) {
            reload_thresholds("/SYS/B3/T0");
            kav_plat_mib_find_by_nac("/SYS/B5/T0");
        }
    });

    uint64_t served = 0;
    uint64_t wrong = 0;
    uint64_t out_of_order = 0;
    const auto look_at = [&](const phys_entry *entry, uint32_t after) {
        out_of_order += entry->entPhysicalIndex <= after ? 1U : 0U;
        const std::string name = entry->entPhysicalName;
        const bool is_sensor = name.ends_with("/T0");
        wrong += !name.starts_with("/SYS") ||
                         (entry->entPhysicalClass == PHYSICAL_CLASS_SENSOR) != is_sensor ||
                         strcmp(entry->entPhysicalDescr, "a component") != 0
                     ? 1U
                     : 0U;
        served++;
    };
    bool by_class = false;
    do {
        by_class = !by_class;
        const auto next = [&](uint32_t index) {
            return by_class ? getnext_entry_by_ent_class(index, PHYSICAL_CLASS_SENSOR)
                            : getnext_entry(index);
        };
        kavplat::begin_agent_pass();
        uint32_t after = 0;
        for (phys_entry *entry = next(0); entry; entry = next(after)) {
            look_at(entry, after);
            after = entry->entPhysicalIndex;
            phys_entry *same = get_entry(after);
            const cache_lock_held lock;
            if (by_class) {
                snmp_read_sensor(entry);
                const int32_t exponent = kavplat::relaxed_load(entry->numericSensorCol2);
                wrong += exponent != 0 && exponent != -3 ? 1U : 0U;
            }
            wrong += same && same != entry ? 1U : 0U;
            look_at(entry, 0);
            kavplat::end_agent_pass();
            kavplat::begin_agent_pass();
        }
        const cache_lock_held lock;
        kavplat::end_agent_pass();
    } while (storming != 0);
    one.join();
    two.join();
    refresh.join();
    EXPECT_NE(served, 0U);
    EXPECT_EQ(wrong, 0U);
    EXPECT_EQ(out_of_order, 0U);
    for (const std::string &text : log.texts(LOG_ERR)) {
        EXPECT_TRUE(text.find("already NULL") != std::string::npos ||
                    text.find("can not find entry") != std::string::npos)
            << text;
    }
    update("/SYS");
    expect_consistent();
    EXPECT_EQ(hashtable_count(htab), 17U);
}

} // namespace

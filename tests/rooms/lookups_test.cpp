// The lookups by index, class and name, and what they trace.

#include <functional>
#include <limits>
#include <mutex>
#include <utility>

#include "rooms/cache_fixture.h"
#include "trace/trace.h"

namespace
{

using strings = std::vector<std::string>;

constexpr uint32_t highest = std::numeric_limits<uint32_t>::max();
constexpr uint32_t fan_type = 12;
constexpr uint32_t supply_type = 4;

class lookups : public cache_test
{
  protected:
    // Rows 1 (other), 2 (fan) and 5 (power supply); 3 and 4 are holes.
    void build_with_holes()
    {
        platform->components = {component("/SYS", plain), component("/SYS/FAN", fan_type),
                                component("/SYS/A", plain), component("/SYS/B", fan_type),
                                component("/SYS/PS", supply_type)};
        init_local_cache();
        const cache_lock_held lock;
        free_local_cache_entry(3);
        free_local_cache_entry(4);
    }

    static std::string index_line(uint32_t index, const char *caller)
    {
        const phys_entry *entry = physicalTable[index];
        return text_of("%4u %4lu %4lu 0x%8x %s %s\n", index, (unsigned long)index,
                       (unsigned long)maxPhysicalIndex,
                       static_cast<unsigned>(reinterpret_cast<uintptr_t>(entry)),
                       entry->entPhysicalName, caller);
    }

    void expect_all_empty()
    {
        const agent_log log({"IDX"});
        EXPECT_EQ(get_entry(0), nullptr);
        EXPECT_EQ(get_entry(1), nullptr);
        EXPECT_EQ(log.count_debug("IDX", "Table is empty\n"), 2U);
        EXPECT_EQ(getnext_entry(0), nullptr);
        EXPECT_EQ(log.count_debug("IDX", "Table is empty\n"), 3U);
        EXPECT_EQ(get_entry_by_ent_class(1, PHYSICAL_CLASS_FAN), nullptr);
        EXPECT_EQ(log.count_debug("IDX", "Table is empty\n"), 4U);
        EXPECT_EQ(getnext_entry_by_ent_class(0, PHYSICAL_CLASS_FAN), nullptr);
        EXPECT_EQ(log.count_debug("IDX", "Table is empty\n"), 5U);
        EXPECT_EQ(log.texts(LOG_ERR), strings());
    }
};

TEST_F(lookups, before_the_build_every_lookup_finds_an_empty_table)
{
    EXPECT_EQ(physicalTable, nullptr);
    EXPECT_EQ(getMaxPhysicalIndex(), 0U);
    expect_all_empty();
}

TEST_F(lookups, an_inventory_of_nothing_leaves_an_empty_table)
{
    platform->root_list = {component("/", 0), component("/SYS", plain)};
    platform->lists["/SYS"] = {};
    init_local_cache();
    ASSERT_NE(physicalTable, nullptr);
    expect_all_empty();
}

TEST_F(lookups, a_maximum_without_an_array_is_an_empty_table)
{
    maxPhysicalIndex = 3;
    expect_all_empty();
    EXPECT_EQ(kavplat::entry_at(2), nullptr);
    maxPhysicalIndex = 0;
}

TEST_F(lookups, before_the_build_no_name_is_found_and_nothing_is_logged)
{
    const agent_log log;
    EXPECT_EQ(kav_plat_mib_find_by_nac("/SYS"), 0U);
    EXPECT_EQ(hash_nac("/SYS"), 0U);
    EXPECT_EQ(log.texts(LOG_ERR), strings());
}

TEST_F(lookups, get_entry_gives_the_row_and_traces_its_way)
{
    build_with_holes();
    const agent_log log({"IDX", "kavdata:index", "trace"});
    phys_entry *entry = get_entry(2);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->entPhysicalIndex, 2U);
    EXPECT_STREQ(entry->entPhysicalName, "/SYS/FAN");
    EXPECT_EQ(log.debug_texts("IDX"), strings{"get_entry:idx=2\n"});
    EXPECT_EQ(log.debug_texts("kavdata:index"), strings{index_line(2, "get_entry")});
    EXPECT_TRUE(log.traced("IDX", "get_entry:idx=2\n", "get_entry", "kavdata"));
    EXPECT_TRUE(log.traced("kavdata:index", index_line(2, "get_entry"), "DEBUGINDEX", "kavdata"));
}

TEST_F(lookups, get_entry_of_slot_0_or_a_hole_is_not_found)
{
    build_with_holes();
    for (const uint32_t index : {0U, 3U}) {
        const agent_log log({"IDX", "kavdata:index", "trace"});
        EXPECT_EQ(get_entry(index), nullptr);
        EXPECT_EQ(log.debug_texts("IDX"),
                  (strings{text_of("get_entry:idx=%u\n", index), "get_entry NOT FOUND\n"}));
        EXPECT_TRUE(log.traced("IDX", "get_entry NOT FOUND\n", "get_entry", "kavdata"));
        EXPECT_EQ(log.debug_texts("kavdata:index"), strings());
    }
}

TEST_F(lookups, get_entry_above_the_maximum_is_out_of_range)
{
    build_with_holes();
    const agent_log log({"IDX"});
    EXPECT_NE(get_entry(5), nullptr);
    EXPECT_EQ(get_entry(6), nullptr);
    EXPECT_TRUE(log.has_debug("IDX", "get_entry:index 6 out of range\n"));
    EXPECT_EQ(get_entry(highest), nullptr);
    EXPECT_TRUE(log.has_debug("IDX", "get_entry:index 4294967295 out of range\n"));
}

TEST_F(lookups, getnext_entry_skips_holes)
{
    build_with_holes();
    const agent_log log({"IDX", "kavdata:index", "trace"});
    EXPECT_EQ(getnext_entry(0), physicalTable[1]);
    EXPECT_EQ(getnext_entry(1), physicalTable[2]);
    EXPECT_EQ(getnext_entry(2), physicalTable[5]);
    EXPECT_EQ(getnext_entry(3), physicalTable[5]);
    EXPECT_EQ(log.debug_texts("IDX"), strings());
    EXPECT_EQ(log.debug_texts("kavdata:index"),
              (strings{index_line(1, "getnext_entry"), index_line(2, "getnext_entry"),
                       index_line(5, "getnext_entry"), index_line(5, "getnext_entry")}));
}

TEST_F(lookups, getnext_entry_at_the_end_tells_where_it_stopped)
{
    build_with_holes();
    const agent_log log({"IDX", "trace"});
    EXPECT_EQ(getnext_entry(5), nullptr);
    EXPECT_EQ(log.debug_texts("IDX"), strings{"getnext_entry:index 6 NOT FOUND\n"});
    EXPECT_TRUE(log.traced("IDX", "getnext_entry:index 6 NOT FOUND\n", "getnext_entry", "kavdata"));
}

TEST_F(lookups, getnext_entry_above_the_maximum_is_out_of_range)
{
    build_with_holes();
    const agent_log log({"IDX"});
    EXPECT_EQ(getnext_entry(6), nullptr);
    EXPECT_EQ(getnext_entry(highest), nullptr);
    EXPECT_EQ(log.debug_texts("IDX"), (strings{"getnext_entry:index 6 out of range\n",
                                               "getnext_entry:index 4294967295 out of range\n"}));
}

TEST_F(lookups, get_entry_by_class_gives_a_row_of_that_class_only)
{
    build_with_holes();
    agent_log log({"IDX", "kavdata:index"});
    EXPECT_EQ(get_entry_by_ent_class(2, PHYSICAL_CLASS_FAN), physicalTable[2]);
    EXPECT_EQ(log.debug_texts("IDX"),
              (strings{"get_entry_by_ent_class idx=2, class=7\n", "get_entry:idx=2\n"}));
    EXPECT_EQ(log.debug_texts("kavdata:index"),
              (strings{index_line(2, "get_entry"), index_line(2, "get_entry_by_ent_class")}));
    log.clear();
    EXPECT_EQ(get_entry_by_ent_class(2, PHYSICAL_CLASS_SENSOR), nullptr);
    EXPECT_EQ(log.debug_texts("IDX"),
              (strings{"get_entry_by_ent_class idx=2, class=8\n", "get_entry:idx=2\n",
                       "get_entry_by_ent_class: index 2 for class 8 NOT FOUND\n"}));
    log.clear();
    EXPECT_EQ(get_entry_by_ent_class(3, PHYSICAL_CLASS_FAN), nullptr);
    EXPECT_EQ(log.debug_texts("IDX"),
              (strings{"get_entry_by_ent_class idx=3, class=7\n", "get_entry:idx=3\n",
                       "get_entry NOT FOUND\n",
                       "get_entry_by_ent_class: index 3 for class 7 NOT FOUND\n"}));
    EXPECT_EQ(get_entry_by_ent_class(highest, PHYSICAL_CLASS_FAN), nullptr);
}

TEST_F(lookups, getnext_entry_by_class_finds_the_next_of_that_class)
{
    build_with_holes();
    const agent_log log({"IDX", "kavdata:index", "trace"});
    EXPECT_EQ(getnext_entry_by_ent_class(0, PHYSICAL_CLASS_POWER_SUPPLY), physicalTable[5]);
    EXPECT_EQ(getnext_entry_by_ent_class(1, PHYSICAL_CLASS_FAN), physicalTable[2]);
    EXPECT_EQ(log.debug_texts("IDX"),
              (strings{"getnext_entry_by_ent_class idx=0, maxPhysicalIndex=5\n",
                       "getnext_entry_by_ent_class idx=1, maxPhysicalIndex=5\n"}));
    EXPECT_EQ(log.debug_texts("kavdata:index"),
              (strings{index_line(5, "getnext_entry_by_ent_class"),
                       index_line(2, "getnext_entry_by_ent_class")}));
}

TEST_F(lookups, getnext_entry_by_class_is_never_out_of_range)
{
    build_with_holes();
    agent_log log({"IDX"});
    EXPECT_EQ(getnext_entry_by_ent_class(2, PHYSICAL_CLASS_FAN), nullptr);
    EXPECT_EQ(getnext_entry_by_ent_class(5, PHYSICAL_CLASS_FAN), nullptr);
    EXPECT_EQ(log.count_debug("IDX", "getnext_entry_by_ent_class: index 6 for class 7 NOT FOUND\n"),
              2U);
    EXPECT_EQ(getnext_entry_by_ent_class(41, PHYSICAL_CLASS_FAN), nullptr);
    EXPECT_TRUE(
        log.has_debug("IDX", "getnext_entry_by_ent_class: index 42 for class 7 NOT FOUND\n"));
    for (const std::string &text : log.debug_texts("IDX")) {
        EXPECT_EQ(text.find("out of range"), std::string::npos) << text;
    }
}

TEST_F(lookups, the_highest_number_does_not_wrap_into_a_scan)
{
    build_with_holes();
    const agent_log log({"IDX", "kavdata:index"});
    EXPECT_EQ(getnext_entry_by_ent_class(highest, PHYSICAL_CLASS_OTHER), nullptr);
    EXPECT_EQ(log.debug_texts("IDX").back(),
              "getnext_entry_by_ent_class: index 0 for class 1 NOT FOUND\n");
    EXPECT_EQ(getnext_entry(highest), nullptr);
    EXPECT_EQ(log.debug_texts("kavdata:index"), strings());
}

TEST_F(lookups, the_one_accessor_is_safe_at_any_index)
{
    EXPECT_EQ(kavplat::entry_at(0), nullptr);
    EXPECT_EQ(kavplat::entry_at(highest), nullptr);
    build_with_holes();
    EXPECT_EQ(kavplat::entry_at(5), physicalTable[5]);
    EXPECT_EQ(kavplat::entry_at(0), nullptr);
    EXPECT_EQ(kavplat::entry_at(3), nullptr);
    EXPECT_EQ(kavplat::entry_at(highest), nullptr);
    // A row in its slot is not served before the maximum says so.
    physicalTable[6] = physicalTable[5];
    EXPECT_EQ(kavplat::entry_at(6), nullptr);
    physicalTable[6] = nullptr;
}

TEST_F(lookups, the_index_trace_of_no_row)
{
    build_with_holes();
    {
        const agent_log log({"kavdata:index", "trace"});
        kavplat::trace_index(7, nullptr, "a_caller");
        kavplat::trace_index(7, get_entry(2), "a_caller");
        EXPECT_EQ(log.debug_texts("kavdata:index"),
                  (strings{"   7    0    5 0x       0 NULL a_caller\n", index_line(2, "get_entry"),
                           text_of("%4u %4u %4u 0x%8x %s %s\n", 7, 2, 5,
                                   kavplat::printable(physicalTable[2]), "/SYS/FAN", "a_caller")}));
        EXPECT_TRUE(log.all_traced("kavdata:index", "kavdata"));
    }
    const agent_log off;
    kavplat::trace_index(7, nullptr, "a_caller");
    EXPECT_EQ(off.records().size(), 0U);
}

TEST_F(lookups, by_name)
{
    build_with_holes();
    const agent_log log({"kavdata::hash", "trace"});
    EXPECT_EQ(kav_plat_mib_find_by_nac("/SYS/PS"), 5U);
    EXPECT_EQ(kav_plat_mib_find_by_nac("/SYS"), 1U);
    EXPECT_EQ(log.texts(LOG_ERR), strings());
    EXPECT_EQ(log.debug_texts("kavdata::hash"),
              (strings{"kav_plat_mib_find_by_nac:nac=/SYS/PS\n", "hash_nac:nac=/SYS/PS\n",
                       "kav_plat_mib_find_by_nac:nac=/SYS\n", "hash_nac:nac=/SYS\n"}));
    EXPECT_TRUE(log.traced("kavdata::hash", "kav_plat_mib_find_by_nac:nac=/SYS\n",
                           "kav_plat_mib_find_by_nac", "kavdata"));
    EXPECT_TRUE(log.traced("kavdata::hash", "hash_nac:nac=/SYS\n", "hash_nac", "kavdata"));
}

TEST_F(lookups, slash_and_the_empty_name_are_not_found_silently)
{
    // Even where a component is called so.
    build({"/SYS", "/"});
    const agent_log log;
    EXPECT_EQ(kav_plat_mib_find_by_nac("/"), 0U);
    EXPECT_EQ(kav_plat_mib_find_by_nac(""), 0U);
    EXPECT_EQ(hash_nac(nullptr), 0U);
    EXPECT_EQ(log.records().size(), 0U);
}

TEST_F(lookups, an_unknown_name_is_logged)
{
    build_with_holes();
    const agent_log log;
    EXPECT_EQ(kav_plat_mib_find_by_nac("/SYS/NOT"), 0U);
    EXPECT_EQ(log.texts(LOG_ERR), strings{"hash_nac:FAILED:can not find entry /SYS/NOT\n"});
    // A removed row's name is unknown again.
    EXPECT_EQ(hash_nac("/SYS/A"), 0U);
    EXPECT_TRUE(log.has(LOG_ERR, "hash_nac:FAILED:can not find entry /SYS/A\n"));
}

TEST_F(lookups, a_null_name_is_refused_without_the_lock)
{
    build_with_holes();
    std::atomic<unsigned> locks{0};
    fake_system::on_pthread_mutex_lock.set([&](pthread_mutex_t *mutex) {
        locks += mutex == &fru_mutex ? 1U : 0U;
        return pthread_mutex_lock(mutex);
    });
    const agent_log log({"kavdata::hash"});
    EXPECT_EQ(kav_plat_mib_find_by_nac(nullptr), 0U);
    fake_system::on_pthread_mutex_lock.clear();
    EXPECT_EQ(log.texts(LOG_ERR), strings{"kav_plat_mib_find_by_nac:FAILED:nac NULL\n"});
    EXPECT_EQ(log.debug_texts("kavdata::hash"), strings{"kav_plat_mib_find_by_nac:nac=NULL\n"});
    EXPECT_EQ(locks, 0U);
}

TEST_F(lookups, by_name_takes_the_cache_lock_around_the_search)
{
    build_with_holes();
    const auto self = std::this_thread::get_id();
    strings order;
    auto note = [&](const pthread_mutex_t *mutex, const char *what) {
        if (std::this_thread::get_id() == self) {
            order.push_back(std::string(what) + (mutex == &fru_mutex ? " cache" : " names"));
        }
    };
    fake_system::on_pthread_mutex_lock.set([&](pthread_mutex_t *mutex) {
        const int result = pthread_mutex_lock(mutex);
        note(mutex, "lock");
        return result;
    });
    fake_system::on_pthread_mutex_unlock.set([&](pthread_mutex_t *mutex) {
        note(mutex, "unlock");
        return pthread_mutex_unlock(mutex);
    });
    const uint32_t index = kav_plat_mib_find_by_nac("/SYS/FAN");
    fake_system::on_pthread_mutex_lock.clear();
    fake_system::on_pthread_mutex_unlock.clear();
    EXPECT_EQ(index, 2U);
    ASSERT_GE(order.size(), 4U);
    EXPECT_EQ(order.front(), "lock cache");
    EXPECT_EQ(order[1], "lock names");
    EXPECT_EQ(order[order.size() - 2], "unlock names");
    EXPECT_EQ(order.back(), "unlock cache");
}

TEST_F(lookups, of_namesakes_the_newest_is_found)
{
    build({"/SYS", "/SYS/X", "/SYS/X"});
    EXPECT_EQ(kav_plat_mib_find_by_nac("/SYS/X"), 3U);
}

TEST_F(lookups, none_allocates)
{
    build_with_holes();
    const unsigned before = fake_system::allocations();
    get_entry(2);
    getnext_entry(2);
    get_entry_by_ent_class(2, PHYSICAL_CLASS_FAN);
    getnext_entry_by_ent_class(0, PHYSICAL_CLASS_FAN);
    kav_plat_mib_find_by_nac("/SYS/FAN");
    EXPECT_EQ(fake_system::allocations(), before);
}

TEST_F(lookups, setcontext_hands_the_row_to_the_iterator)
{
    build_with_holes();
    netsnmp_variable_list *index = nullptr;
    const long none = 0;
    snmp_varlist_add_variable(&index, nullptr, 0, ASN_INTEGER,
                              reinterpret_cast<const u_char *>(&none), sizeof none);
    ASSERT_NE(index, nullptr);
    // Every bit of it has to be written.
    void *loop_context = reinterpret_cast<void *>(UINTPTR_MAX);
    void *data_context = nullptr;
    const agent_log log; // of a number that has more than 32 bits
    EXPECT_EQ(snmp_setcontext(&loop_context, &data_context, index, physicalTable[5]), index);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(loop_context), 5U);
    EXPECT_EQ(data_context, physicalTable[5]);
    EXPECT_EQ(*index->val.integer, 5);
    EXPECT_EQ(index->type, ASN_INTEGER);
    EXPECT_EQ(log.records().size(), 0U);
    snmp_free_varbind(index);
}

} // namespace

// Changes of the cache while the agent runs.

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <thread>

#include "hashtable/hashtable.h"
#include "rooms/cache_fixture.h"

namespace
{

using strings = std::vector<std::string>;

class hotplug : public cache_test
{
  protected:
    static constexpr u_long later = uptime + 4711;

    hotplug() { fake_system::set_uptime(later); }

    // From a dropped cache the next event rebuilds.
    void drop_by_failed_growth()
    {
        build({"/SYS", "/SYS/A", "/SYS/B", "/SYS/C", "/SYS/D"});
        plug({"/SYS/N", "/SYS/N/X"});
        fake_system::fail_allocation(1);
        insert("/SYS/N");
        fake_system::allow_allocations();
        ASSERT_EQ(physicalTable, nullptr);
        ASSERT_EQ(cache_valid, 0);
    }

    static void expect_dropped()
    {
        EXPECT_EQ(cache_valid, 0);
        EXPECT_EQ(htab, nullptr);
        EXPECT_EQ(physicalTable, nullptr);
        EXPECT_EQ(maxPhysicalIndex, 0U);
        EXPECT_EQ(localCacheSize, 0U);
        EXPECT_EQ(get_entry(1), nullptr);
        EXPECT_EQ(hash_nac("/SYS"), 0U);
    }

    size_t subtree_queries(const char *nac) { return platform.calls("capi_get_inventory", nac); }
};

// ---- One row, and all ----

TEST_F(hotplug, dropping_a_row_leaves_a_hole)
{
    build({"/SYS", "/SYS/A", "/SYS/B"});
    agent_log log({"kavdata::cache", "trace"});
    {
        const cache_lock_held lock;
        free_local_cache_entry(2);
    }
    EXPECT_EQ(rows(), (strings{"/SYS", "", "/SYS/B"}));
    EXPECT_EQ(maxPhysicalIndex, 3U);
    EXPECT_EQ(kavplat::find_name("/SYS/A"), 0U);
    EXPECT_EQ(hashtable_count(htab), 2U);
    expect_consistent();
    EXPECT_EQ(log.debug_texts("kavdata::cache"),
              strings{"free_local_cache_entry:removing entry, index 2\n"});
    expect_traced_by_operation(log, "kavdata");
    EXPECT_EQ(log.texts(LOG_ERR), strings());
    EXPECT_EQ(entLastChangeTime, 0U);
}

TEST_F(hotplug, dropping_what_is_not_there)
{
    build({"/SYS", "/SYS/A"});
    const agent_log log({"kavdata::cache"});
    const cache_lock_held lock;
    free_local_cache_entry(2);
    free_local_cache_entry(2);
    free_local_cache_entry(0);
    free_local_cache_entry(3);
    free_local_cache_entry(UINT32_MAX);
    EXPECT_EQ(log.texts(LOG_ERR),
              (strings{"free_local_cache_entry:cache entry at index 2 already NULL\n",
                       "free_local_cache_entry:cache entry at index 0 already NULL\n",
                       "free_local_cache_entry:index 3 out of bounds (0..2)\n",
                       "free_local_cache_entry:index 4294967295 out of bounds (0..2)\n"}));
    EXPECT_EQ(log.debug_texts("kavdata::cache").size(), 5U);
    expect_consistent();
}

TEST_F(hotplug, dropping_before_the_build)
{
    const agent_log log;
    const cache_lock_held lock;
    free_local_cache_entry(0);
    free_local_cache_entry(1);
    EXPECT_EQ(log.texts(LOG_ERR),
              (strings{"free_local_cache_entry:cache entry at index 0 already NULL\n",
                       "free_local_cache_entry:index 1 out of bounds (0..0)\n"}));
}

TEST_F(hotplug, a_row_without_its_mapping_is_dropped_all_the_same)
{
    build({"/SYS", "/SYS/A"});
    const char *name = "/SYS/A";
    free(hashtable_remove(htab, &name));
    const agent_log log;
    const cache_lock_held lock;
    free_local_cache_entry(2);
    EXPECT_EQ(log.texts(LOG_ERR), strings{"can not free hash item /SYS/A\n"});
    EXPECT_EQ(get_entry(2), nullptr);
}

TEST_F(hotplug, all_texts_of_a_row_are_freed)
{
    build({"/SYS", "/SYS/A"});
    phys_entry *entry = row("/SYS/A");
    // LeakSanitizer watches; and each is freed, once.
    std::set<const void *> owned;
    for (char **text :
         {&entry->entPhysicalHardwareRev, &entry->entPhysicalFirmwareRev,
          &entry->entPhysicalSoftwareRev, &entry->entPhysicalSerialNum, &entry->entPhysicalMfgName,
          &entry->entPhysicalModelName, &entry->entPhysicalAlias, &entry->entPhysicalAssetID}) {
        *text = fake_system::heap_text("text");
        owned.insert(*text);
    }
    owned.insert({entry, entry->entPhysicalName, entry->holderCol2, entry->binarySensorText1,
                  entry->binarySensorText2});
    ASSERT_EQ(owned.size(), 13U);
    std::atomic<size_t> freed{0};
    fake_system::on_free.set([&](void *block) {
        freed += owned.contains(block) ? 1U : 0U;
        free(block);
    });
    remove("/SYS/A");
    fake_system::on_free.clear();
    EXPECT_EQ(freed, 13U);
}

TEST_F(hotplug, dropping_all_rows)
{
    build({"/SYS", "/SYS/A", "/SYS/B", "/SYS/C", "/SYS/D"});
    remove("/SYS/B");
    remove("/SYS/D");
    const agent_log log;
    EXPECT_EQ(free_local_cache(), 0);
    EXPECT_EQ(log.texts(LOG_ERR),
              (strings{"free_local_cache_entry:cache entry at index 3 already NULL\n",
                       "free_local_cache_entry:cache entry at index 5 already NULL\n"}));
    EXPECT_EQ(rows(), strings(5, ""));
    EXPECT_EQ(maxPhysicalIndex, 5U);
    EXPECT_EQ(localCacheSize, 6U);
    EXPECT_EQ(cache_valid, 1);
    ASSERT_NE(htab, nullptr);
    EXPECT_EQ(hashtable_count(htab), 0U);
    // An insertion goes on behind.
    insert("/SYS/B");
    EXPECT_EQ(kavplat::find_name("/SYS/B"), 6U);
    expect_consistent();
}

TEST_F(hotplug, dropping_all_rows_takes_the_lock_and_gives_the_release_s_result)
{
    build({"/SYS", "/SYS/A"});
    std::atomic<int> taken{0};
    fake_system::on_pthread_mutex_lock.set([&](pthread_mutex_t *mutex) {
        taken += mutex == &fru_mutex ? 1 : 0;
        return pthread_mutex_lock(mutex);
    });
    fake_system::fail_mutex(fake_system::mutex_call::unlock, &fru_mutex, EPERM, 1);
    EXPECT_EQ(free_local_cache(), EPERM);
    fake_system::on_pthread_mutex_lock.clear();
    fake_system::on_pthread_mutex_unlock.clear();
    EXPECT_EQ(taken, 1);
    EXPECT_EQ(pthread_mutex_unlock(&fru_mutex), 0);
    EXPECT_EQ(rows(), strings(2, ""));
}

TEST_F(hotplug, dropping_all_rows_does_not_examine_the_lock)
{
    build({"/SYS", "/SYS/A"});
    fake_system::fail_mutex(fake_system::mutex_call::lock, &fru_mutex, EINVAL, 1);
    fake_system::fail_mutex(fake_system::mutex_call::unlock, &fru_mutex, 0, 1);
    EXPECT_EQ(free_local_cache(), 0);
    EXPECT_EQ(rows(), strings(2, ""));
}

// ---- Removal ----

TEST_F(hotplug, removal_takes_a_component_and_what_it_holds)
{
    build({"/SYS/MB/EARLY", "/SYS", "/SYS/MB", "/SYS/MB/P0", "/SYS/MB2", "/SYS/MB/P0/D1",
           "/SYS/X/SYS/MB/Y", "/SYS/MBX/Z"});
    // The first component of the list is the root of this made-up server.
    ASSERT_EQ(maxPhysicalIndex, 1U);
    reset();
    platform->root_list = {component("/", plain), component("/SYS", plain)};
    platform->lists["/SYS"] = platform->components;
    init_local_cache();
    ASSERT_EQ(maxPhysicalIndex, 8U);

    agent_log log({"kavdata::cache", "trace"});
    remove("/SYS/MB");
    // A child before its parent stays; anywhere in the name counts.
    EXPECT_EQ(rows(), (strings{"/SYS/MB/EARLY", "/SYS", "", "", "/SYS/MB2", "", "", "/SYS/MBX/Z"}));
    EXPECT_EQ(maxPhysicalIndex, 8U);
    EXPECT_EQ(entLastChangeTime, later);
    EXPECT_EQ(log.texts(LOG_ERR), strings());
    EXPECT_EQ(log.debug_texts("kavdata::cache"),
              (strings{"set_fru_absent:nacname=/SYS/MB\n",
                       "free_local_cache_entry:removing entry, index 3\n",
                       "free_local_cache_entry:removing entry, index 4\n",
                       "free_local_cache_entry:removing entry, index 6\n",
                       "free_local_cache_entry:removing entry, index 7\n"}));
    expect_traced_by_operation(log, "kavdata");
    expect_consistent();
}

TEST_F(hotplug, removing_what_is_not_cached)
{
    build({"/SYS", "/SYS/A"});
    const agent_log log({"kavdata::hash"});
    remove("/SYS/B");
    EXPECT_EQ(log.texts(LOG_ERR), strings{"set_fru_absent: can not find entry /SYS/B\n"});
    EXPECT_EQ(log.debug_texts("kavdata::hash"), strings()); // htab directly
    EXPECT_EQ(entLastChangeTime, 0U);
    EXPECT_EQ(rows(), (strings{"/SYS", "/SYS/A"}));
    // Unlike a lookup, a removal does not shy at these either.
    remove("");
    remove("/");
    EXPECT_EQ(log.texts(LOG_ERR).size(), 3U);
}

TEST_F(hotplug, null_payloads_do_nothing)
{
    build({"/SYS", "/SYS/A"});
    platform.forget_calls();
    cache_valid = 0; // not even a rebuild
    const agent_log log({"kavdata::cache", "trace"});
    remove(nullptr);
    insert(nullptr);
    update(nullptr);
    EXPECT_EQ(log.debug_texts("kavdata::cache"),
              (strings{"set_fru_absent:nacname=NULL\n", "set_fru_prsnt:nacname=NULL\n",
                       "partial_reconfigure:\n"}));
    expect_traced_by_operation(log, "kavdata");
    EXPECT_EQ(log.texts(LOG_ERR), strings());
    EXPECT_EQ(log.texts(LOG_INFO), strings());
    EXPECT_TRUE(platform.all_calls().empty());
    EXPECT_EQ(entLastChangeTime, 0U);
}

TEST_F(hotplug, the_name_to_remove_may_be_the_row_s_own)
{
    build({"/SYS", "/SYS/MB", "/SYS/MB/P0", "/SYS/Z"});
    remove(row("/SYS/MB")->entPhysicalName);
    EXPECT_EQ(rows(), (strings{"/SYS", "", "", "/SYS/Z"}));
}

TEST_F(hotplug, a_very_long_name_to_remove)
{
    // The child prefix is cut to 254 characters, here before the '/', so that
    // whatever contains those goes.
    const std::string name = "/SYS/" + std::string(260, 'n');
    build({"/SYS", name, name.substr(0, 254), name.substr(0, 253)});
    remove(name.c_str());
    EXPECT_EQ(rows(), (strings{"/SYS", "", "", name.substr(0, 253)}));
}

TEST_F(hotplug, an_index_is_never_used_again)
{
    build({"/SYS", "/SYS/A", "/SYS/B"});
    remove("/SYS/B");
    EXPECT_EQ(maxPhysicalIndex, 3U);
    insert("/SYS/B");
    EXPECT_EQ(rows(), (strings{"/SYS", "/SYS/A", "", "/SYS/B"}));
    EXPECT_EQ(row("/SYS/B")->entPhysicalIndex, 4U);
    expect_consistent();
}

// ---- What a removal finds ----

// Removal by the letter: every name behind the component is looked at.
void remove_from_model(strings &rows, uint32_t index, const std::string &nac)
{
    if (index == 0) {
        return;
    }
    const std::string text = (nac + "/").substr(0, 254);
    rows[index - 1].clear();
    for (size_t i = index; i < rows.size(); i++) {
        if (rows[i].find(text) != std::string::npos) {
            rows[i].clear();
        }
    }
}

// Few parts, so that they come again at other places and within each other; some are
// empty, some longer than the text that a removal looks for, and not all names begin with
// a slash.
std::string odd_name(std::mt19937 &random)
{
    static const strings parts = {
        "SYS", "MB", "MB2", "B", "P0", "", "SYS", "MB", std::string(130, 'n')};
    const auto below = [&](size_t end) { return random() % end; };
    std::string name = below(8) == 0 ? "" : "/";
    const size_t count = 1 + below(5);
    for (size_t i = 0; i < count; i++) {
        name += (i == 0 ? "" : "/") + parts[below(parts.size())];
    }
    return name.empty() ? "/" : name;
}

struct name_memory {
    const char *description;
    unsigned lost_one_time_in; // 0: never
    bool remembers_indexes;
};

class what_a_removal_finds : public hotplug, public testing::WithParamInterface<name_memory>
{
  protected:
    what_a_removal_finds()
    {
        if (GetParam().remembers_indexes) {
            EXPECT_NE(mkdtemp(directory), nullptr);
            setenv("KAVPLAT_INDEX_FILE", (std::string(directory) + "/indexes").c_str(), 1);
        }
    }
    ~what_a_removal_finds() override
    {
        unsetenv("KAVPLAT_INDEX_FILE");
        if (GetParam().remembers_indexes) {
            std::filesystem::remove_all(directory);
        }
    }

  private:
    char directory[32] = "/tmp/kavplat-hotplug-XXXXXX";
};

TEST_P(what_a_removal_finds, is_what_a_look_at_every_later_name_finds)
{
    std::mt19937 random(20261122);
    size_t removals_of_more = 0;
    for (unsigned walk = 0; walk < 20; walk++) {
        reset();
        platform->lists.clear();
        build({"/SYS", "/SYS/MB", "/SYS/MB/P0", "/SYS/MB2"});
        strings expected = rows();
        for (unsigned step = 0; step < 300; step++) {
            if (GetParam().lost_one_time_in != 0 && random() % GetParam().lost_one_time_in == 0) {
                const cache_lock_held lock;
                kavplat::forget_name_parts();
            }
            if (random() % 3 != 0) {
                std::vector<fake_component> inserted;
                for (size_t i = random() % 6 + 1; i > 0; i--) {
                    inserted.push_back(component(odd_name(random).c_str(), plain));
                }
                platform->lists["/SYS"] = inserted;
                insert("/SYS");
                const strings after = rows();
                expected.resize(after.size());
                // Which index a row gets is not what is asked here.
                std::ranges::transform(after, expected, expected.begin(),
                                       [](const std::string &is, const std::string &was) {
                                           return was.empty() ? is : was;
                                       });
                ASSERT_EQ(after, expected);
                continue;
            }
            const std::string nac = odd_name(random);
            const auto count = std::ranges::count(expected, "");
            remove_from_model(expected, kavplat::find_name(nac.c_str()), nac);
            removals_of_more += std::ranges::count(expected, "") > count + 1 ? 1U : 0U;
            remove(nac.c_str());
            ASSERT_EQ(rows(), expected) << "walk " << walk << ", step " << step << ": " << nac;
        }
        expect_consistent();
    }
    EXPECT_GT(removals_of_more, 100U);
}

INSTANTIATE_TEST_SUITE_P(hotplug, what_a_removal_finds,
                         testing::Values(name_memory{"with_memory", 0, false},
                                         name_memory{"where_memory_was_short", 200, false},
                                         name_memory{"of_rows_that_keep_their_indexes", 0, true}),
                         [](const auto &info) { return std::string(info.param.description); });

// ---- Insertion ----

TEST_F(hotplug, insertion_appends_the_component_and_what_it_holds)
{
    build({"/SYS", "/SYS/A", "/SYS/B", "/SYS/C", "/SYS/D", "/SYS/E", "/SYS/F", "/SYS/G", "/SYS/H",
           "/SYS/I", "/SYS/J", "/SYS/K", "/SYS/L", "/SYS/M", "/SYS/N"});
    ASSERT_EQ(localCacheSize, 18U);
    plug({"/SYS/PS3", "/SYS/PS3/T0"});
    platform->components.back().capabilities[9] = CAPI_CAP_RESETTABLE;
    const agent_log log({"kavdata", "trace"});
    insert("/SYS/PS3");
    EXPECT_EQ(maxPhysicalIndex, 17U);
    const phys_entry *one = get_entry(16);
    const phys_entry *two = get_entry(17);
    ASSERT_TRUE(one && two);
    EXPECT_STREQ(one->entPhysicalName, "/SYS/PS3");
    EXPECT_EQ(one->entPhysicalContainedIn, 1);
    EXPECT_EQ(one->entPhysicalParentRelPos, 4);
    EXPECT_EQ(two->entPhysicalContainedIn, 16);
    EXPECT_EQ(two->circuitPackValue2, 1); // get_static_fields
    EXPECT_EQ(entLastChangeTime, later);
    EXPECT_EQ(localCacheSize, 18U);
    EXPECT_TRUE(platform.all_lists_released());
    EXPECT_EQ(log.texts(LOG_ERR), strings());
    EXPECT_EQ(log.texts(LOG_INFO), strings());
    strings own;
    for (const std::string &text : log.debug_texts("kavdata::cache")) {
        if (text.starts_with("set_fru_prsnt")) {
            own.push_back(text);
        }
    }
    EXPECT_EQ(own, (strings{"set_fru_prsnt:nacname=/SYS/PS3\n",
                            "set_fru_prsnt:new cache entry /SYS/PS3\n",
                            "set_fru_prsnt:hashtable_insert /SYS/PS3 at 16\n",
                            "set_fru_prsnt:new cache entry /SYS/PS3/T0\n",
                            "set_fru_prsnt:hashtable_insert /SYS/PS3/T0 at 17\n"}));
    // The dump comes once the row is served.
    const strings dumps = log.debug_texts("kavdata:index");
    EXPECT_TRUE(std::any_of(dumps.begin(), dumps.end(), [](const std::string &text) {
        return text.starts_with("  16   16   16 0x") && text.ends_with(" /SYS/PS3 set_fru_prsnt\n");
    })) << testing::PrintToString(dumps);
    expect_traced_by_operation(log, "kavdata");
    expect_consistent();
}

TEST_F(hotplug, an_inserted_row_is_served_once_it_is_complete)
{
    build({"/SYS", "/SYS/A", "/SYS/B", "/SYS/C", "/SYS/D"});
    plug({"/SYS/N"});
    bool seen = false;
    platform->on_call = [&](const fake_call &call) {
        if (call.function == "capi_get_component_desc_str") {
            EXPECT_EQ(getMaxPhysicalIndex(), 5U);
            EXPECT_EQ(get_entry(6), nullptr);
            seen = true;
        }
    };
    insert("/SYS/N");
    EXPECT_TRUE(seen);
    EXPECT_EQ(getMaxPhysicalIndex(), 6U);
}

TEST_F(hotplug, an_insertion_whose_inventory_fails)
{
    build({"/SYS", "/SYS/A"});
    const agent_log log;
    insert("/SYS/GONE");
    EXPECT_EQ(log.texts(LOG_ERR), strings{"set_fru_prsnt: can not get inventory /SYS/GONE\n"});
    EXPECT_EQ(entLastChangeTime, 0U);
    EXPECT_TRUE(platform.all_lists_released());
}

TEST_F(hotplug, a_list_that_can_be_none_is_a_failed_one)
{
    build({"/SYS", "/SYS/A"});
    platform->lists["/SYS/A"] = {};
    platform->lists["/SYS"] = {};
    for (const bool is_null : {true, false}) {
        platform->null_list_when_empty = is_null;
        platform->count_override = UINT32_MAX;
        platform.forget_calls();
        const agent_log log;
        insert("/SYS/A");
        update("/SYS");
        EXPECT_EQ(log.texts(LOG_ERR), (strings{"set_fru_prsnt: can not get inventory /SYS/A\n",
                                               "partial_reconfigure: can not get inventory "
                                               "/SYS\n"}));
        EXPECT_EQ(log.texts(LOG_INFO), strings());
        EXPECT_EQ(platform.calls("capi_free_inventory"), 0U);
        EXPECT_EQ(rows(), (strings{"/SYS", "/SYS/A"}));
        EXPECT_EQ(entLastChangeTime, 0U);
    }
}

TEST_F(hotplug, an_insertion_of_nothing_keeps_the_list)
{
    build({"/SYS", "/SYS/A"});
    platform->lists["/SYS/N"] = {};
    const size_t released = platform.calls("capi_free_inventory");
    const agent_log log;
    insert("/SYS/N");
    EXPECT_EQ(platform.calls("capi_free_inventory"), released);
    EXPECT_FALSE(platform.all_lists_released());
    EXPECT_EQ(entLastChangeTime, 0U);
    EXPECT_EQ(rows(), (strings{"/SYS", "/SYS/A"}));
    EXPECT_EQ(log.records().size(), 0U);
}

TEST_F(hotplug, names_of_256_and_257_characters)
{
    build({"/SYS", "/SYS/A", "/SYS/B", "/SYS/C", "/SYS/D", "/SYS/E", "/SYS/F", "/SYS/G", "/SYS/H",
           "/SYS/I"});
    const std::string fits = "/SYS/" + std::string(251, 'a');
    const std::string longer = "/SYS/" + std::string(252, 'b');
    plug({fits, longer});
    const agent_log log;
    insert(fits.c_str());
    EXPECT_EQ(log.texts(LOG_ERR), strings());
    insert(longer.c_str());
    EXPECT_EQ(log.texts(LOG_ERR), strings{"set_fru_prsnt:capi component name length (257) has "
                                          "exceeded mib defined max (255)\n"});
    EXPECT_EQ(get_entry(11)->entPhysicalName, fits);
    EXPECT_EQ(get_entry(12)->entPhysicalName, longer);
    EXPECT_EQ(get_entry(12)->entPhysicalContainedIn, 1);
    remove(longer.c_str());
    update("/SYS");
    EXPECT_TRUE(log.has(LOG_ERR, "partial_reconfigure:capi component name length (257) has "
                                 "exceeded mib defined max (255)\n"));
    // The build does not look at the length.
    const size_t said = log.texts(LOG_ERR).size();
    init_local_cache();
    EXPECT_EQ(log.texts(LOG_ERR).size(), said);
}

TEST_F(hotplug, nameless_components_are_unknown_in_insertions_and_updates)
{
    build({"/SYS", "/SYS/A"});
    platform->lists["/SYS/N"] = {component("/SYS/N", plain), nameless_component(plain),
                                 component("", plain)};
    insert("/SYS/N");
    EXPECT_EQ(rows(), (strings{"/SYS", "/SYS/A", "/SYS/N", "Unknown", "Unknown"}));
    expect_consistent();
    remove("Unknown");
    EXPECT_EQ(rows(), (strings{"/SYS", "/SYS/A", "/SYS/N", "Unknown", ""}));
    remove("Unknown");
    expect_consistent();
    // An update takes two of one name for one.
    update("/SYS/N");
    EXPECT_EQ(rows(), (strings{"/SYS", "/SYS/A", "/SYS/N", "", "", "Unknown"}));
    expect_consistent();
}

TEST_F(hotplug, a_repeated_insertion_appends_duplicates)
{
    build({"/SYS", "/SYS/N", "/SYS/N/X"});
    insert("/SYS/N");
    EXPECT_EQ(rows(), (strings{"/SYS", "/SYS/N", "/SYS/N/X", "/SYS/N", "/SYS/N/X"}));
    expect_consistent();
    EXPECT_EQ(hash_nac("/SYS/N"), 4U); // the newest
    EXPECT_EQ(get_entry(5)->entPhysicalContainedIn, 4);
}

TEST_F(hotplug, namesakes_are_removed_one_by_one_each_with_its_own_mapping)
{
    build({"/SYS", "/SYS/A"});
    plug({"/SYS/N", "/SYS/N/X", "/SYS/N/Y"});
    insert("/SYS/N");
    insert("/SYS/N");
    ASSERT_EQ(maxPhysicalIndex, 8U);
    const agent_log log;
    // The newest is found; those behind it that it holds go with it.
    remove("/SYS/N");
    EXPECT_EQ(rows(), (strings{"/SYS", "/SYS/A", "/SYS/N", "/SYS/N/X", "/SYS/N/Y", "", "", ""}));
    expect_consistent();
    EXPECT_EQ(hash_nac("/SYS/N"), 3U);
    unplug("/SYS/N");
    update("/SYS");
    EXPECT_EQ(rows(), (strings{"/SYS", "/SYS/A", "", "", "", "", "", ""}));
    expect_consistent();
    EXPECT_EQ(log.count(LOG_ERR, "free_local_cache_entry:cache entry at index 6 already NULL\n"),
              1U);
    EXPECT_EQ(kavplat::find_name("/SYS/N"), 0U);
}

TEST_F(hotplug, dropping_the_older_namesake_leaves_the_newer_mapping)
{
    build({"/SYS", "/SYS/N"});
    insert("/SYS/N");
    {
        const cache_lock_held lock;
        free_local_cache_entry(2);
    }
    EXPECT_EQ(hash_nac("/SYS/N"), 3U);
    expect_consistent();
    remove("/SYS/N");
    EXPECT_EQ(kavplat::find_name("/SYS/N"), 0U);
    expect_consistent();
}

// ---- Growth ----

TEST_F(hotplug, growth_adds_the_maximum_and_twice_the_insertion)
{
    build_server(42);
    ASSERT_EQ(localCacheSize, 50U);
    for (int i = 0; i < 6; i++) {
        plug({"/SYS/L" + std::to_string(i)});
        insert(("/SYS/L" + std::to_string(i)).c_str());
    }
    ASSERT_EQ(maxPhysicalIndex, 48U);
    ASSERT_EQ(localCacheSize, 50U);
    plug({"/SYS/N", "/SYS/N/X", "/SYS/N/Y"});
    const agent_log log({"kavdata::cache", "trace"});
    insert("/SYS/N");
    EXPECT_EQ(log.texts(LOG_INFO), strings{"set_fru_prsnt:realloc local cache by 6, from 50\n"});
    EXPECT_EQ(localCacheSize, 104U);
    EXPECT_EQ(maxPhysicalIndex, 51U);
    EXPECT_EQ(cache_valid, 1);
    EXPECT_TRUE(
        log.has_debug("kavdata::cache",
                      text_of("set_fru_prsnt:physicalTable=0x%08x, localCacheSize=104\n",
                              static_cast<unsigned>(reinterpret_cast<uintptr_t>(physicalTable)))));
    expect_traced_by_operation(log, "kavdata");
    expect_consistent(); // the added slots are null, the old rows kept
    EXPECT_STREQ(get_entry(1)->entPhysicalName, "/SYS");
    EXPECT_STREQ(get_entry(51)->entPhysicalName, "/SYS/N/Y");
}

TEST_F(hotplug, no_growth_while_there_is_room)
{
    build_server(40);
    localCacheSize = 50;
    plug({"/SYS/N", "/SYS/N/X", "/SYS/N/Y"});
    const agent_log log;
    insert("/SYS/N");
    EXPECT_EQ(localCacheSize, 50U);
    EXPECT_EQ(log.texts(LOG_INFO), strings());
    localCacheSize = 48; // what there is
    expect_consistent();
}

TEST_F(hotplug, the_last_slot_is_used_before_growth)
{
    build_server(42);
    const auto list_of = [&](const char *prefix, int count) {
        std::vector<fake_component> list;
        for (int i = 0; i < count; i++) {
            list.push_back(component((prefix + std::to_string(i)).c_str(), plain));
        }
        return list;
    };
    platform->lists["eight"] = list_of("/SYS/E", 8);
    platform->lists["one"] = list_of("/SYS/O", 1);
    insert("eight");
    EXPECT_EQ(localCacheSize, 50U);
    EXPECT_EQ(maxPhysicalIndex, 50U);
    expect_consistent();
    insert("one");
    EXPECT_EQ(localCacheSize, 102U); // 50 + 50 + 2
    // And the last of the new ones.
    platform->lists["many"] = list_of("/SYS/M", 51);
    insert("many");
    EXPECT_EQ(localCacheSize, 102U);
    EXPECT_EQ(maxPhysicalIndex, 102U);
    EXPECT_NE(get_entry(102), nullptr);
    expect_consistent();
}

TEST_F(hotplug, the_flag_is_down_while_the_array_is_replaced)
{
    build_server(5);
    plug({"/SYS/N", "/SYS/N/X"});
    int during = -1;
    fake_system::on_calloc.set([&](size_t n, size_t size) {
        if (during < 0) {
            during = cache_valid;
        }
        return calloc(n, size);
    });
    insert("/SYS/N");
    fake_system::on_calloc.clear();
    EXPECT_EQ(during, 0);
    EXPECT_EQ(cache_valid, 1);
}

TEST_F(hotplug, failed_growth_drops_the_cache)
{
    build_server(42);
    const auto before = platform.lists_handed_out();
    std::vector<fake_component> list;
    for (int i = 0; i < 9; i++) {
        list.push_back(component(("/SYS/N" + std::to_string(i)).c_str(), plain));
    }
    platform->lists["nine"] = list;
    const agent_log log({"kavdata::cache"});
    fake_system::fail_allocation(1);
    insert("nine");
    EXPECT_EQ(fake_system::failed_allocations(), 1U);
    EXPECT_EQ(log.texts(LOG_INFO), strings{"set_fru_prsnt:realloc local cache by 18, from 50\n"});
    EXPECT_EQ(log.texts(LOG_ERR), strings{"set_fru_prsnt:realloc FAILED\n"});
    EXPECT_TRUE(log.has_debug("kavdata::cache",
                              "set_fru_prsnt:physicalTable=0x00000000, localCacheSize=110\n"));
    EXPECT_EQ(platform.lists_handed_out(), before + 1);
    EXPECT_TRUE(platform.all_lists_released());
    EXPECT_EQ(entLastChangeTime, 0U);
    expect_dropped();
}

TEST_F(hotplug, failed_growth_of_an_update_drops_the_cache)
{
    build_server(5);
    plug({"/SYS/N", "/SYS/N/X"});
    const agent_log log;
    fake_system::fail_allocation(2); // the markers are the first
    update("/SYS");
    EXPECT_EQ(log.texts(LOG_INFO),
              strings{"partial_reconfigure:realloc local cache by 4, from 6\n"});
    EXPECT_EQ(log.texts(LOG_ERR), strings{"partial_reconfigure:realloc FAILED\n"});
    EXPECT_TRUE(platform.all_lists_released());
    EXPECT_EQ(entLastChangeTime, 0U);
    expect_dropped();
}

TEST_F(hotplug, a_removal_rebuilds_a_dropped_cache_and_goes_on)
{
    drop_by_failed_growth();
    const agent_log log;
    remove("/SYS/B");
    EXPECT_EQ(log.texts(LOG_ERR), strings{"set_fru_absent:realloc failure recovery\n"});
    EXPECT_EQ(log.texts(LOG_INFO),
              (strings{"init_local_cache:local cache initializing\n",
                       "init_local_cache:local cache processing 7 inventory entries\n",
                       "init_local_cache:local cache ready\n"}));
    EXPECT_EQ(rows(), (strings{"/SYS", "/SYS/A", "", "/SYS/C", "/SYS/D", "/SYS/N", "/SYS/N/X"}));
    EXPECT_EQ(cache_valid, 1);
    EXPECT_EQ(entLastChangeTime, later);
    expect_consistent();
}

TEST_F(hotplug, an_insertion_rebuilds_a_dropped_cache_and_goes_on)
{
    drop_by_failed_growth();
    const agent_log log;
    insert("/SYS/N");
    EXPECT_EQ(log.texts(LOG_ERR), strings());
    // The rebuild had them already: a repeated insertion.
    EXPECT_EQ(rows(), (strings{"/SYS", "/SYS/A", "/SYS/B", "/SYS/C", "/SYS/D", "/SYS/N", "/SYS/N/X",
                               "/SYS/N", "/SYS/N/X"}));
    EXPECT_EQ(entLastChangeTime, later);
    expect_consistent();
}

TEST_F(hotplug, an_update_only_rebuilds_a_dropped_cache)
{
    drop_by_failed_growth();
    platform.forget_calls();
    const agent_log log;
    update("/SYS/N");
    const strings info = log.texts(LOG_INFO);
    ASSERT_EQ(info.size(), 4U);
    EXPECT_EQ(info[0], "partial_reconfigure: processing realloc failure\n");
    EXPECT_EQ(info[3], "init_local_cache:local cache ready\n");
    EXPECT_EQ(log.texts(LOG_ERR), strings());
    EXPECT_EQ(subtree_queries("/SYS/N"), 0U);
    EXPECT_EQ(maxPhysicalIndex, 7U);
    EXPECT_EQ(entLastChangeTime, 0U);
    expect_consistent();
}

TEST_F(hotplug, a_missing_name_index_or_the_flag_alone_rebuilds_too)
{
    for (const bool flag : {false, true}) {
        for (void (*event)(const char *) : {&hotplug::insert, &hotplug::remove, &hotplug::update}) {
            build({"/SYS", "/SYS/A"});
            if (flag) {
                cache_valid = 0;
            } else {
                kavplat::destroy_name_index(true);
            }
            platform.forget_calls();
            event("/SYS/A");
            EXPECT_EQ(platform.calls("capi_get_inventory", "/SYS"), 1U);
            EXPECT_EQ(cache_valid, 1);
            ASSERT_NE(htab, nullptr);
            EXPECT_NE(kavplat::find_name("/SYS"), 0U);
            expect_consistent();
        }
    }
}

TEST_F(hotplug, events_before_the_build_build)
{
    set_components({"/SYS", "/SYS/A"});
    for (void (*event)(const char *) : {&hotplug::insert, &hotplug::remove, &hotplug::update}) {
        reset();
        event("/SYS/A");
        EXPECT_NE(kavplat::find_name("/SYS"), 0U);
        expect_consistent();
    }
}

TEST_F(hotplug, a_rebuild_that_fails_leaves_events_harmless)
{
    set_components({"/SYS", "/SYS/A"});
    platform->fail_for["capi_get_inventory"]["/SYS"] = -1;
    remove("/SYS/A");
    EXPECT_EQ(physicalTable, nullptr);
    update("/SYS/A");
    EXPECT_EQ(physicalTable, nullptr);
    EXPECT_EQ(entLastChangeTime, 0U);
    insert("/SYS/A"); // whose own inventory is there
    expect_consistent(false);
    platform->fail_for.clear();
    update("/SYS");
    EXPECT_EQ(rows(), (strings{"/SYS", "/SYS/A"}));
    expect_consistent();
}

// ---- Update ----

TEST_F(hotplug, an_update_of_the_root_removes_and_appends)
{
    build({"/SYS", "/SYS/A", "/SYS/B", "/SYS/B/X", "/SYS/C"});
    remove("/SYS/C");
    unplug("/SYS/C");
    unplug("/SYS/B");
    plug({"/SYS/N"});
    entLastChangeTime = 0;
    const agent_log log({"kavdata::cache", "trace"});
    update("/SYS");
    EXPECT_EQ(rows(), (strings{"/SYS", "/SYS/A", "", "", "", "/SYS/N"}));
    EXPECT_EQ(entLastChangeTime, later);
    EXPECT_EQ(log.texts(LOG_ERR),
              strings{"free_local_cache_entry:cache entry at index 5 already NULL\n"});
    EXPECT_EQ(log.texts(LOG_INFO), strings());
    EXPECT_TRUE(platform.all_lists_released());
    strings own;
    for (const std::string &text : log.debug_texts("kavdata::cache")) {
        if (text.starts_with("partial_reconfigure") || text.starts_with("free_local")) {
            own.push_back(text);
        }
    }
    EXPECT_EQ(own, (strings{"partial_reconfigure:\n", "partial_reconfigure:new cache entry /SYS\n",
                            "partial_reconfigure:new cache entry /SYS/A\n",
                            "partial_reconfigure:new cache entry /SYS/N\n",
                            "free_local_cache_entry:removing entry, index 3\n",
                            "free_local_cache_entry:removing entry, index 4\n",
                            "free_local_cache_entry:removing entry, index 5\n",
                            "partial_reconfigure:new cache entry /SYS\n",
                            "partial_reconfigure:new cache entry /SYS/A\n",
                            "partial_reconfigure:new cache entry /SYS/N\n",
                            "partial_reconfigure:new cache entry /SYS/N\n",
                            "partial_reconfigure:hashtable_insert /SYS/N at 6\n"}));
    expect_traced_by_operation(log, "kavdata");
    expect_consistent();
}

TEST_F(hotplug, an_update_of_another_component_removes_nothing)
{
    build({"/SYS", "/SYS/A", "/SYS/A/X", "/SYS/B"});
    unplug("/SYS/A/X");
    unplug("/SYS/B");
    plug({"/SYS/A/N"});
    const agent_log log;
    update("/SYS/A");
    EXPECT_EQ(rows(), (strings{"/SYS", "/SYS/A", "/SYS/A/X", "/SYS/B", "/SYS/A/N"}));
    EXPECT_EQ(entLastChangeTime, later);
    EXPECT_EQ(log.texts(LOG_ERR), strings());
    // Nor does one whose name merely begins like the root's.
    platform->lists["/SY"] = {component("/SYS", plain)};
    update("/SY");
    EXPECT_EQ(maxPhysicalIndex, 5U);
    expect_consistent();
}

TEST_F(hotplug, an_update_without_change_is_stamped)
{
    build({"/SYS", "/SYS/A"});
    update("/SYS");
    EXPECT_EQ(rows(), (strings{"/SYS", "/SYS/A"}));
    EXPECT_EQ(entLastChangeTime, later);
}

TEST_F(hotplug, a_failed_update_names_the_root)
{
    build({"/SYS", "/SYS/A"});
    const agent_log log;
    update("/SYS/GONE");
    EXPECT_EQ(log.texts(LOG_ERR), strings{"partial_reconfigure: can not get inventory /SYS\n"});
    EXPECT_EQ(entLastChangeTime, 0U);
    EXPECT_TRUE(platform.all_lists_released());
}

TEST_F(hotplug, an_update_with_an_empty_list_releases_it)
{
    build({"/SYS", "/SYS/A"});
    platform->lists["/SYS"] = {};
    const size_t released = platform.calls("capi_free_inventory");
    update("/SYS");
    EXPECT_EQ(platform.calls("capi_free_inventory"), released + 1);
    EXPECT_TRUE(platform.all_lists_released());
    EXPECT_EQ(rows(), (strings{"/SYS", "/SYS/A"}));
    EXPECT_EQ(entLastChangeTime, 0U);
}

TEST_F(hotplug, an_update_without_memory_for_its_markers)
{
    build({"/SYS", "/SYS/A"});
    unplug("/SYS/A");
    const agent_log log;
    fake_system::fail_allocation(1);
    update("/SYS");
    EXPECT_EQ(log.texts(LOG_ERR), strings{"partial_reconfigure:calloc FAILED\n"});
    EXPECT_TRUE(platform.all_lists_released());
    EXPECT_EQ(rows(), (strings{"/SYS", "/SYS/A"}));
    EXPECT_EQ(entLastChangeTime, 0U);
    EXPECT_EQ(cache_valid, 1);
}

TEST_F(hotplug, an_update_grows_by_the_new_ones_only)
{
    build_server(5);
    ASSERT_EQ(localCacheSize, 6U);
    plug({"/SYS/N"});
    const agent_log log;
    update("/SYS");
    EXPECT_EQ(log.texts(LOG_INFO), strings());
    EXPECT_EQ(localCacheSize, 6U);
    plug({"/SYS/O"});
    update("/SYS");
    EXPECT_EQ(log.texts(LOG_INFO),
              strings{"partial_reconfigure:realloc local cache by 2, from 6\n"});
    EXPECT_EQ(localCacheSize, 14U); // 6 + 6 + 2
    EXPECT_EQ(maxPhysicalIndex, 7U);
    expect_consistent();
}

TEST_F(hotplug, a_name_that_is_listed_twice_counts_twice_and_is_appended_once)
{
    build_server(5);
    plug({"/SYS/N", "/SYS/N"});
    const agent_log log;
    update("/SYS");
    EXPECT_EQ(log.texts(LOG_INFO),
              strings{"partial_reconfigure:realloc local cache by 4, from 6\n"});
    EXPECT_EQ(localCacheSize, 15U);
    EXPECT_EQ(maxPhysicalIndex, 6U);
    expect_consistent();
}

TEST_F(hotplug, an_update_of_the_root_keeps_the_newest_namesake)
{
    build({"/SYS", "/SYS/N", "/SYS/N/X"});
    insert("/SYS/N");
    update("/SYS");
    EXPECT_EQ(rows(), (strings{"/SYS", "", "", "/SYS/N", "/SYS/N/X"}));
    expect_consistent();
}

TEST_F(hotplug, an_update_beyond_the_highest_index_drops_the_cache)
{
    if (sizeof(size_t) == 4) {
        GTEST_SKIP() << "so many indexes do not fit into 32 bits";
    }
    for (const uint32_t highest : {(1U << 31) - 1, 1U << 31}) {
        reset();
        build({"/SYS", "/SYS/A"});
        plug({"/SYS/N"});
        const agent_log log;
        fake_system::on_calloc.set([&](size_t n, size_t size) -> void * {
            // The markers are looked at for rows that there are.
            return n == size_t{highest} + 1 ? calloc(16, size)
                   : size > (1U << 30)      ? nullptr
                                            : calloc(n, size);
        });
        maxPhysicalIndex = highest; // as if so many rows had come and gone
        update("/SYS/N");
        fake_system::on_calloc.clear();
        // One new row has its index below 2^31, though there is no memory for so
        // many slots; the next one would not.
        EXPECT_EQ(log.texts(LOG_ERR),
                  strings{highest < 1U << 31 ? "partial_reconfigure:realloc FAILED\n"
                                             : "partial_reconfigure: maxPhysicalIndex "
                                               "reconfigure\n"});
        EXPECT_EQ(entLastChangeTime, 0U);
        EXPECT_TRUE(platform.all_lists_released());
        expect_dropped();
    }
    // The next event builds anew.
    update("/SYS");
    EXPECT_EQ(rows(), (strings{"/SYS", "/SYS/A", "/SYS/N"}));
}

// ---- Waiting for an inventory ----

TEST_F(hotplug, an_event_that_waits_for_the_inventory_lets_go_of_the_lock)
{
    set_components({"/SYS", "/SYS/A"});
    platform->inventory_after = 3;
    unsigned free_while_asleep = 0;
    unsigned held_while_asking = 0;
    fake_system::on_sleep.set([&](unsigned) {
        if (pthread_mutex_trylock(&fru_mutex) == 0) {
            free_while_asleep++;
            pthread_mutex_unlock(&fru_mutex);
        }
        return 0U;
    });
    platform->on_call = [&](const fake_call &call) {
        if (call.function == "capi_get_inventory") {
            const int result = pthread_mutex_trylock(&fru_mutex);
            held_while_asking += result == EBUSY ? 1U : 0U;
            if (result == 0) {
                pthread_mutex_unlock(&fru_mutex);
            }
        }
    };
    update("/SYS");
    EXPECT_EQ(free_while_asleep, 3U);
    EXPECT_EQ(held_while_asking, 5U);
    EXPECT_EQ(rows(), (strings{"/SYS", "/SYS/A"}));
    EXPECT_FALSE(kavplat::this_thread_holds_cache_lock());
}

TEST_F(hotplug, of_two_events_that_wait_one_builds)
{
    set_components({"/SYS", "/SYS/A", "/SYS/B", "/SYS/C", "/SYS/D"});
    platform->inventory_after = 1;
    const phys_entry *built = nullptr;
    fake_system::on_sleep.set([&](unsigned) {
        // The other event finds the inventory.
        std::thread other([&] {
            const cache_lock_held lock;
            set_fru_absent("/SYS/B");
            built = row("/SYS/A");
        });
        other.join();
        return 0U;
    });
    remove("/SYS/C");
    EXPECT_EQ(rows(), (strings{"/SYS", "/SYS/A", "", "", "/SYS/D"}));
    EXPECT_EQ(row("/SYS/A"), built);
    EXPECT_EQ(subtree_queries("/SYS"), 1U);
    expect_consistent();
}

// ---- Memory runs out ----

TEST_F(hotplug, insertions_survive_each_failing_allocation)
{
    platform->frus["/SYS/PS0"] = {};
    platform->sensor_types = {30};
    platform->sensors["/SYS/PS0/T0"] = threshold_sensor(1, 2.5F);
    unsigned needed = UINT_MAX;
    for (unsigned nth = 0; nth <= needed; nth++) {
        SCOPED_TRACE(nth);
        reset();
        build({"/SYS", "/SYS/A", "/SYS/B", "/SYS/C", "/SYS/D"});
        platform->components.push_back(
            component("/SYS/PS0", 4, {{CAPI_CAP_FRU_INFO_BYTE, CAPI_CAP_FRU_INFO}}));
        platform->components.push_back(component("/SYS/PS0/T0", 30));
        const agent_log log;
        fake_system::fail_allocation(nth != 0 ? nth : UINT_MAX);
        insert("/SYS/PS0");
        if (nth == 0) {
            needed = fake_system::allocations();
            ASSERT_GT(needed, 20U);
        }
        fake_system::allow_allocations();
        EXPECT_EQ(log.texts(LOG_ERR).empty(), nth == 0);
        EXPECT_TRUE(platform.all_lists_released());
        expect_consistent(nth == 0);
        update("/SYS");
        expect_consistent();
        EXPECT_NE(kavplat::find_name("/SYS/PS0"), 0U);
        EXPECT_NE(kavplat::find_name("/SYS/PS0/T0"), 0U);
        remove("/SYS/PS0");
        expect_consistent();
    }
}

TEST_F(hotplug, updates_survive_each_failing_allocation)
{
    unsigned needed = UINT_MAX;
    for (unsigned nth = 0; nth <= needed; nth++) {
        SCOPED_TRACE(nth);
        reset();
        build({"/SYS", "/SYS/A", "/SYS/B", "/SYS/C", "/SYS/D"});
        unplug("/SYS/B");
        plug({"/SYS/N", "/SYS/N/X"});
        const agent_log log;
        fake_system::fail_allocation(nth != 0 ? nth : UINT_MAX);
        update("/SYS");
        if (nth == 0) {
            needed = fake_system::allocations();
            ASSERT_GT(needed, 15U);
        }
        fake_system::allow_allocations();
        EXPECT_EQ(log.texts(LOG_ERR).empty(), nth == 0);
        EXPECT_TRUE(platform.all_lists_released());
        expect_consistent(nth == 0);
        update("/SYS");
        expect_consistent();
        EXPECT_NE(kavplat::find_name("/SYS/N"), 0U);
        EXPECT_NE(kavplat::find_name("/SYS/N/X"), 0U);
        EXPECT_EQ(kavplat::find_name("/SYS/B"), 0U);
    }
}

// A rebuild in which the allocations fail one after the other.
TEST_F(hotplug, rebuilds_survive_each_failing_allocation)
{
    unsigned needed = UINT_MAX;
    for (unsigned nth = 0; nth <= needed; nth++) {
        SCOPED_TRACE(nth);
        reset();
        set_components({"/SYS", "/SYS/A", "/SYS/B"});
        cache_valid = 0;
        const agent_log log;
        fake_system::fail_allocation(nth != 0 ? nth : UINT_MAX);
        insert("/SYS/B");
        needed = nth == 0 ? fake_system::allocations() : needed;
        fake_system::allow_allocations();
        EXPECT_EQ(log.texts(LOG_ERR).empty(), nth == 0);
        expect_consistent(nth == 0);
        update("/SYS"); // perhaps only a rebuild
        update("/SYS");
        expect_consistent();
        EXPECT_NE(kavplat::find_name("/SYS/A"), 0U);
        EXPECT_NE(kavplat::find_name("/SYS/B"), 0U);
    }
}

} // namespace

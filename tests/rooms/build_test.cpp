// Construction of the cache: waiting for the inventory, sizes, defaults, names,
// containment and relative position.

#include <algorithm>
#include <climits>
#include <cstring>
#include <limits>
#include <thread>

#include <malloc.h>

#include "rooms/cache_fixture.h"

namespace
{

using strings = std::vector<std::string>;

class build_cache : public cache_test
{
  protected:
    strings inventory_calls()
    {
        strings names;
        for (const fake_call &call : platform.all_calls()) {
            if (call.function == "capi_get_inventory") {
                names.push_back(call.name);
            }
        }
        return names;
    }

    int32_t relative_position(const char *name, int32_t contained_in, int32_t before = -77)
    {
        phys_entry entry = {};
        std::string copy = name;
        entry.entPhysicalName = copy.data();
        entry.entPhysicalContainedIn = contained_in;
        int32_t result = before;
        get_parentRelPos(&entry, &result);
        return result;
    }

    static std::string address(const void *p)
    {
        return text_of("0x%08x", static_cast<unsigned>(reinterpret_cast<uintptr_t>(p)));
    }
};

// ---- The name of the root ----

TEST_F(build_cache, root_name_is_that_of_the_second_record)
{
    platform->root_list = {component("/first", plain), component("/second", plain),
                           component("/third", plain)};
    const agent_log log;
    EXPECT_EQ(make_root_nacname(1), 1);
    EXPECT_STREQ(root_nac, "/second");
    EXPECT_EQ(inventory_calls(), strings{"/"});
    EXPECT_EQ(fake_system::sleeps(), std::vector<unsigned>());
    EXPECT_TRUE(platform.all_lists_released());
    EXPECT_EQ(log.records().size(), 0U);
}

TEST_F(build_cache, root_name_is_cut_to_254_characters)
{
    const std::string name = "/" + std::string(300, 'r');
    platform->root_list = {component("/", plain), component(name.c_str(), plain)};
    memset(root_nac, 'x', sizeof root_nac);
    EXPECT_EQ(make_root_nacname(1), 1);
    EXPECT_EQ(std::string(root_nac), name.substr(0, 254));
    EXPECT_EQ(root_nac[255], 'x');
}

TEST_F(build_cache, without_time_the_root_is_not_asked_for)
{
    for (const int seconds : {0, -1, INT_MIN}) {
        const agent_log log;
        EXPECT_EQ(make_root_nacname(seconds), 0);
        EXPECT_EQ(log.texts(LOG_ERR), strings{"make_root_nacname:FAILED:Timed out waiting for "
                                              "capi_get_inventory\n"});
    }
    EXPECT_EQ(platform.calls("capi_get_inventory"), 0U);
    EXPECT_EQ(fake_system::sleeps(), std::vector<unsigned>());
}

TEST_F(build_cache, the_root_is_asked_for_every_three_seconds_until_the_time_is_up)
{
    platform->fail["capi_get_inventory"] = -4;
    for (const auto &[seconds, attempts] :
         {std::pair{1, 1U}, std::pair{3, 1U}, std::pair{4, 2U}, std::pair{7, 3U}}) {
        platform.forget_calls();
        const size_t slept = fake_system::sleeps().size();
        const agent_log log;
        EXPECT_EQ(make_root_nacname(seconds), 0);
        EXPECT_EQ(inventory_calls(), strings(attempts, "/"));
        EXPECT_EQ(fake_system::sleeps().size() - slept, attempts);
        EXPECT_EQ(log.texts(LOG_ERR), strings{"make_root_nacname:FAILED:Timed out waiting for "
                                              "capi_get_inventory\n"});
    }
    const std::vector<unsigned> sleeps = fake_system::sleeps();
    EXPECT_TRUE(std::ranges::all_of(sleeps, [](unsigned s) { return s == 3; }));
    EXPECT_EQ(platform.calls("capi_free_inventory"), 0U);
    EXPECT_STREQ(root_nac, "");
}

TEST_F(build_cache, a_root_list_of_one_is_released_and_asked_for_again)
{
    platform->root_list = {component("/", plain)};
    EXPECT_EQ(make_root_nacname(6), 0);
    EXPECT_EQ(platform.lists_handed_out(), 2U);
    EXPECT_TRUE(platform.all_lists_released());
    EXPECT_EQ(fake_system::sleeps(), std::vector<unsigned>(2, 3));
}

TEST_F(build_cache, a_nameless_root_waits_and_is_asked_for_again)
{
    fake_component of_length_0 = component("/SYS", plain);
    of_length_0.told_length = 0;
    for (const fake_component &root : {nameless_component(plain), of_length_0}) {
        platform->root_list = {component("/", plain), root};
        EXPECT_EQ(make_root_nacname(6), 0);
    }
    EXPECT_EQ(platform.lists_handed_out(), 4U);
    EXPECT_TRUE(platform.all_lists_released());
    EXPECT_STREQ(root_nac, "");
}

TEST_F(build_cache, an_empty_root_list_may_be_null)
{
    platform->root_list = std::vector<fake_component>{};
    platform->null_list_when_empty = true;
    EXPECT_EQ(make_root_nacname(1), 0);
    EXPECT_EQ(platform.calls("capi_free_inventory"), 1U);
    // A list told longer than null is not looked at, nor given back.
    platform->root_count_override = 2;
    EXPECT_EQ(make_root_nacname(1), 0);
    EXPECT_EQ(platform.calls("capi_free_inventory"), 1U);
}

TEST_F(build_cache, waits_until_there_is_an_inventory)
{
    set_components({"/SYS", "/SYS/A"});
    platform->inventory_after = 4;
    const agent_log log;
    init_local_cache();
    EXPECT_EQ(fake_system::sleeps(), std::vector<unsigned>(4, 3));
    EXPECT_EQ(inventory_calls(), (strings{"/", "/", "/", "/", "/", "/SYS"}));
    EXPECT_EQ(rows(), (strings{"/SYS", "/SYS/A"}));
    EXPECT_EQ(log.texts(LOG_ERR), strings());
}

// ---- The build ----

TEST_F(build_cache, says_what_it_does)
{
    set_components({"/SYS", "/SYS/A", "/SYS/B"});
    const agent_log log;
    init_local_cache();
    EXPECT_EQ(log.texts(LOG_INFO),
              (strings{"init_local_cache:local cache initializing\n",
                       "init_local_cache:local cache processing 3 inventory entries\n",
                       "init_local_cache:local cache ready\n"}));
    EXPECT_EQ(log.texts(LOG_ERR), strings());
    EXPECT_EQ(inventory_calls(), (strings{"/", "/SYS"}));
    EXPECT_EQ(platform.lists_handed_out(), 2U);
    EXPECT_TRUE(platform.all_lists_released());
    EXPECT_EQ(cache_valid, 1);
    EXPECT_STREQ(root_nac, "/SYS");
}

TEST_F(build_cache, rows_are_numbered_in_inventory_order)
{
    build({"/SYS", "/SYS/B", "/SYS/A", "/SYS/A/Z"});
    EXPECT_EQ(rows(), (strings{"/SYS", "/SYS/B", "/SYS/A", "/SYS/A/Z"}));
    EXPECT_EQ(getMaxPhysicalIndex(), 4U);
    expect_consistent();
    EXPECT_EQ(hash_nac("/SYS/A/Z"), 4U);
    // The smallest table there is.
    EXPECT_EQ(htab->bucket_count, 53U);
}

TEST_F(build_cache, size_is_a_fifth_more_than_the_inventory_truncated)
{
    constexpr uint32_t sizes[] = {0,  1,  2,  3,  4,  6,  7,  8,  9,  10, 12,
                                  13, 14, 15, 16, 18, 19, 20, 21, 22, 24, 25};
    platform->root_list = {component("/", 0), component("/SYS", plain)};
    platform->lists["/SYS"] = {};
    for (uint32_t count = 0; count < std::size(sizes); count++) {
        size_t largest = 0;
        fake_system::on_calloc.set([&](size_t n, size_t size) {
            largest = std::max(largest, n * size);
            return calloc(n, size);
        });
        init_local_cache();
        fake_system::on_calloc.clear();
        EXPECT_EQ(localCacheSize, sizes[count]) << count << " components";
        EXPECT_EQ(maxPhysicalIndex, count);
        // The slots, all of them, are within the one block, and those that
        // nothing is in are null.
        EXPECT_GE(malloc_usable_size(reinterpret_cast<char *>(physicalTable) -
                                     offsetof(kavplat::slot_array, slots)),
                  offsetof(kavplat::slot_array, slots) +
                      (localCacheSize + 1) * sizeof(phys_entry *));
        expect_consistent();
        platform->lists["/SYS"].push_back(
            component(("/SYS/N" + std::to_string(count)).c_str(), plain));
    }
}

TEST_F(build_cache, every_index_up_to_the_size_takes_a_row)
{
    for (const uint32_t count : {1U, 2U, 3U, 4U, 5U, 9U, 10U}) {
        reset();
        build_server(count);
        const uint32_t size = localCacheSize;
        while (maxPhysicalIndex < size) {
            plug({"/SYS/LATE" + std::to_string(maxPhysicalIndex)});
            insert(("/SYS/LATE" + std::to_string(maxPhysicalIndex)).c_str());
        }
        EXPECT_EQ(localCacheSize, size);
        EXPECT_NE(get_entry(size), nullptr);
        expect_consistent();
    }
}

TEST_F(build_cache, the_inventory_of_the_root_fails)
{
    set_components({"/SYS", "/SYS/A"});
    platform->fail_for["capi_get_inventory"]["/SYS"] = -9;
    const agent_log log;
    init_local_cache();
    EXPECT_EQ(log.texts(LOG_ERR), strings{"init_local_cache:capi_get_inventory(/SYS) failed\n"});
    EXPECT_EQ(log.texts(LOG_INFO), strings{"init_local_cache:local cache initializing\n"});
    EXPECT_EQ(physicalTable, nullptr);
    EXPECT_EQ(htab, nullptr);
    EXPECT_EQ(maxPhysicalIndex, 0U);
    // The list of the root query only: a failed query gave none.
    EXPECT_EQ(platform.calls("capi_free_inventory"), 1U);
    EXPECT_TRUE(platform.all_lists_released());
}

TEST_F(build_cache, a_list_that_can_be_none_is_a_failed_one)
{
    // entPhysicalIndex has no number for more, and no host of 32 bits has addresses.
    const uint32_t too_many = sizeof(void *) == 4 ? INT32_MAX / sizeof(capi_inventory_record) + 1
                                                  : uint32_t{INT32_MAX} + 1;
    set_components({"/SYS"});
    for (const bool is_null : {true, false}) {
        for (const uint32_t count : {uint32_t{1}, too_many, UINT32_MAX - 1, UINT32_MAX}) {
            if (count == 1 && !is_null) {
                continue; // as good as any
            }
            reset();
            platform->lists["/SYS"] = {};
            platform->count_override = count;
            platform->null_list_when_empty = is_null;
            platform.forget_calls();
            const agent_log log;
            init_local_cache();
            EXPECT_EQ(log.texts(LOG_ERR),
                      strings{"init_local_cache:capi_get_inventory(/SYS) failed\n"})
                << count;
            EXPECT_EQ(physicalTable, nullptr);
            EXPECT_EQ(platform.calls("capi_free_inventory"), 1U); // that of the root query
        }
    }
}

TEST_F(build_cache, slots_for_more_than_there_are_addresses_are_refused)
{
    bool asked_for_all = true;
    fake_system::on_calloc.set([&](size_t count, size_t size) -> void * {
        asked_for_all = asked_for_all && uint64_t{count} * size / sizeof(void *) > UINT32_MAX;
        return count * size < (1U << 20) ? calloc(count, size) : nullptr;
    });
    EXPECT_FALSE(kavplat::replace_slots(UINT32_MAX));
    EXPECT_FALSE(kavplat::replace_slots(UINT32_MAX - 1));
    fake_system::on_calloc.clear();
    EXPECT_TRUE(asked_for_all); // on 64 bits; on 32 there is nothing to ask for
    EXPECT_EQ(physicalTable, nullptr);
}

TEST_F(build_cache, no_memory_for_the_array_leaves_an_empty_cache)
{
    const uint32_t count = 1000;
    std::vector<std::string> names;
    for (uint32_t i = 0; i < count; i++) {
        names.push_back(i == 0 ? "/SYS" : "/SYS/C" + std::to_string(i));
    }
    set_components(names);
    fake_system::fail_allocations_from(1200 * sizeof(void *));
    const agent_log log({"kavdata::cache"});
    init_local_cache();
    EXPECT_EQ(fake_system::failed_allocations(), 1U); // not tried again
    EXPECT_EQ(log.texts(LOG_ERR),
              strings{"init_local_cache:alloc failure, attempting (1200) entries\n"});
    EXPECT_EQ(log.texts(LOG_INFO),
              (strings{"init_local_cache:local cache initializing\n",
                       "init_local_cache:local cache processing 1000 inventory entries\n"}));
    EXPECT_TRUE(log.has_debug("kavdata::cache", "init_local_cache:physicalTable=0x00000000, "
                                                "localCacheSize=1200\n"));
    EXPECT_EQ(cache_valid, 0);
    EXPECT_EQ(localCacheSize, 0U);
    EXPECT_EQ(maxPhysicalIndex, 0U);
    EXPECT_EQ(physicalTable, nullptr);
    EXPECT_EQ(htab, nullptr);
    EXPECT_TRUE(platform.all_lists_released());
    EXPECT_EQ(platform.calls("capi_get_component_desc_str"), 0U);
}

TEST_F(build_cache, a_rebuild_starts_from_nothing)
{
    build({"/SYS", "/SYS/A", "/SYS/B"});
    set_components({"/SYS", "/SYS/Z"});
    init_local_cache();
    EXPECT_EQ(rows(), (strings{"/SYS", "/SYS/Z"}));
    EXPECT_EQ(localCacheSize, 2U);
    expect_consistent();
}

TEST_F(build_cache, neither_build_nor_rebuild_is_a_change)
{
    build({"/SYS", "/SYS/A"});
    EXPECT_EQ(entLastChangeTime, 0U);
    entLastChangeTime = 77;
    init_local_cache();
    EXPECT_EQ(entLastChangeTime, 77U);
}

TEST_F(build_cache, takes_no_cache_lock)
{
    unsigned locks = 0;
    fake_system::on_pthread_mutex_lock.set([&](pthread_mutex_t *mutex) {
        locks += mutex == &fru_mutex ? 1U : 0U;
        return pthread_mutex_lock(mutex);
    });
    build({"/SYS", "/SYS/A"});
    fake_system::on_pthread_mutex_lock.clear();
    EXPECT_EQ(locks, 0U);
}

TEST_F(build_cache, each_row_is_served_once_it_is_complete)
{
    set_components({"/SYS", "/SYS/A", "/SYS/B"});
    uint32_t seen = 0;
    platform->on_call = [&](const fake_call &call) {
        if (call.function != "capi_get_component_desc_str") {
            return;
        }
        // The row in the making is not served, those before it are.
        EXPECT_EQ(getMaxPhysicalIndex(), seen);
        EXPECT_EQ(get_entry(seen + 1), nullptr);
        if (seen != 0) {
            const phys_entry *before = get_entry(seen);
            ASSERT_NE(before, nullptr);
            EXPECT_STREQ(before->entPhysicalDescr, "a component");
            EXPECT_EQ(before->entPhysicalContainedIn, seen == 1 ? 0 : 1);
        }
        seen++;
    };
    init_local_cache();
    EXPECT_EQ(seen, 3U);
    EXPECT_EQ(getMaxPhysicalIndex(), 3U);
}

TEST_F(build_cache, the_capabilities_have_their_effect_before_the_row_is_served)
{
    platform->components = {
        component("/SYS", plain, {{CAPI_CAP_RESETTABLE_BYTE, CAPI_CAP_RESETTABLE}})};
    init_local_cache();
    // get_static_fields comes behind the defaults of build_phys_entry.
    EXPECT_EQ(row("/SYS")->circuitPackValue2, 1);
    EXPECT_EQ(row("/SYS")->circuitPackValue1, 1);
}

TEST_F(build_cache, traces)
{
    set_components({"/SYS", "/SYS/P3"});
    const agent_log log({"kavdata", "trace"});
    init_local_cache();
    const phys_entry *one = get_entry(1);
    const phys_entry *two = get_entry(2);
    EXPECT_EQ(
        log.debug_texts("kavdata::cache"),
        (strings{
            "init_local_cache:physicalTable=" + address(physicalTable) + ", localCacheSize=2\n",
            "init_local_cache:entPhysicalName:[/SYS]\n",
            "init_local_cache:hashtable_insert /SYS at 1\n",
            "build_phys_entry:entry=" + address(one) + "\n",
            "read_static_data:init entPhysicalDescr:[a component]\n",
            "capi type  200 -> entPhysClass 1: a component\n",
            "init_local_cache:entPhysicalName:[/SYS/P3]\n",
            "init_local_cache:hashtable_insert /SYS/P3 at 2\n",
            "build_phys_entry:entry=" + address(two) + "\n",
            "read_static_data:init entPhysicalDescr:[a component]\n",
            "capi type  200 -> entPhysClass 1: a component\n",
        }));
    EXPECT_EQ(
        log.debug_texts("kavdata::contained"),
        (strings{"get_containedIn:entry=" + address(one) + ", nac=/SYS\n",
                 "get_containedIn:pos=0\n", "build_phys_entry:get_containedIn done, ci=0\n",
                 "get_containedIn:entry=" + address(two) + ", nac=/SYS/P3\n",
                 "get_containedIn:pos=1\n", "build_phys_entry:get_containedIn done, ci=1\n"}));
    EXPECT_EQ(log.debug_texts("kavdata::relpos"),
              (strings{"get_parentRelPos:entry=" + address(one) + ", /SYS\n",
                       "build_phys_entry:get_parentRelPos done, rp=-1\n",
                       "get_parentRelPos:entry=" + address(two) + ", /SYS/P3\n",
                       "get_parentRelPos:numeric suffix=3\n", "get_parentRelPos:matched=1,num=3\n",
                       "build_phys_entry:get_parentRelPos done, rp=4\n"}));
    EXPECT_EQ(log.debug_texts("kavdata::hash"),
              (strings{"hash_nac:nac=\n", "hash_nac:nac=/SYS\n"}));
    // The rows have no name yet when they are dumped.
    EXPECT_EQ(log.count_debug(
                  "kavdata:index",
                  "   1    1    0 " +
                      text_of("0x%8x", static_cast<unsigned>(reinterpret_cast<uintptr_t>(one))) +
                      " NULL init_local_cache\n"),
              1U);
    EXPECT_TRUE(log.all_traced("kavdata", "kavdata"));
    expect_traced_by_operation(log, "kavdata");
}

// ---- Defaults ----

TEST_F(build_cache, defaults)
{
    fake_component plain_one = component("/SYS", plain);
    plain_one.capabilities = {1, 0, 0, 0, 0, 0, 0, 0xF0, 0x80, 0x10};
    platform->components = {plain_one};
    init_local_cache();
    const phys_entry *e = get_entry(1);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->entPhysicalIndex, 1U);
    EXPECT_STREQ(e->entPhysicalDescr, "a component");
    EXPECT_EQ(e->entPhysicalVendorType[0], 0U);
    EXPECT_EQ(e->entPhysicalVendorType[1], 0U);
    EXPECT_EQ(e->entPhysicalContainedIn, 0);
    EXPECT_EQ(e->entPhysicalClass, 1); // of the type; 2 before it is known
    EXPECT_EQ(e->entPhysicalParentRelPos, -1);
    EXPECT_STREQ(e->entPhysicalName, "/SYS");
    EXPECT_EQ(e->entPhysicalHardwareRev, nullptr);
    EXPECT_EQ(e->entPhysicalFirmwareRev, nullptr);
    EXPECT_EQ(e->entPhysicalSoftwareRev, nullptr);
    EXPECT_EQ(e->entPhysicalSerialNum, nullptr);
    EXPECT_EQ(e->entPhysicalMfgName, nullptr);
    EXPECT_EQ(e->entPhysicalModelName, nullptr);
    EXPECT_EQ(e->entPhysicalAlias, nullptr);
    EXPECT_EQ(e->entPhysicalAssetID, nullptr);
    EXPECT_EQ(e->entPhysicalIsFRU, 2);
    EXPECT_EQ(e->equipmentCol1, 2);
    EXPECT_EQ(e->equipmentCol2, 2);
    EXPECT_EQ(e->equipmentCol3, 7);
    EXPECT_EQ(e->equipmentCol4, 2);
    EXPECT_EQ(e->holderCol1, 4);
    EXPECT_STREQ(e->holderCol2, "");
    EXPECT_GE(malloc_usable_size(e->holderCol2), 32U);
    EXPECT_EQ(e->holderCol3, 4);
    EXPECT_EQ(e->holderCol4, 2);
    EXPECT_EQ(e->circuitPackDescr, e->entPhysicalDescr);
    EXPECT_EQ(e->circuitPackFlag, 0);
    EXPECT_EQ(e->circuitPackValue1, 2);
    EXPECT_EQ(e->circuitPackValue2, 2);
    EXPECT_EQ(e->platPhysicalClass, 1);
    EXPECT_EQ(e->sensorKind, 0);
    EXPECT_EQ(e->sensorCol2, 2);
    EXPECT_EQ(e->sensorCol3, 0U);
    EXPECT_EQ(e->binarySensorValue1, 2);
    EXPECT_EQ(e->binarySensorValue2, 1);
    EXPECT_STREQ(e->binarySensorText1, "");
    EXPECT_STREQ(e->binarySensorText2, "");
    EXPECT_GE(malloc_usable_size(e->binarySensorText1), 256U);
    EXPECT_GE(malloc_usable_size(e->binarySensorText2), 256U);
    EXPECT_EQ(e->numericSensorCol1, 1);
    EXPECT_EQ(e->numericSensorCol2, 0);
    EXPECT_EQ(e->numericSensorCol3, 1);
    EXPECT_EQ(e->numericSensorCol4, 0);
    EXPECT_EQ(e->numericSensorCol5, 0);
    EXPECT_EQ(e->numericSensorCol6, 255);
    EXPECT_EQ(e->numericSensorCol7, 0);
    EXPECT_EQ(e->numericSensorCol8, 0);
    EXPECT_EQ(e->numericSensorCol9, 0);
    EXPECT_EQ(e->numericSensorCol10, 0);
    EXPECT_EQ(e->numericSensorCol11, 0);
    EXPECT_EQ(e->numericSensorCol12, 0);
    EXPECT_EQ(e->numericSensorCol13, 0);
    EXPECT_EQ(e->numericSensorCol14, 0U);
    EXPECT_EQ(e->thresholdMask, 0xFC);
    EXPECT_EQ(e->discreteStateCount, -1);
    EXPECT_EQ(e->discreteSensorValue, 0);
    EXPECT_EQ(e->discreteSensorCol2, 2);
    EXPECT_EQ(e->powerSupplyValue, 2);
    EXPECT_EQ(e->powerSupplyCol2, 2);
    EXPECT_EQ(e->alarmCol1, 3);
    EXPECT_EQ(e->alarmCol2, 2);
    EXPECT_EQ(e->alarmCol3, 4);
    EXPECT_EQ(e->watchdogCol1, 0);
    EXPECT_EQ(e->watchdogCol2, 1);
    EXPECT_EQ(e->watchdogCol3, 1);
    EXPECT_TRUE(std::ranges::equal(e->capiCaps, plain_one.capabilities));
    EXPECT_EQ(e->capiComponentType, plain);
    EXPECT_EQ(e->lastReadTime, 0U);
}

TEST_F(build_cache, build_phys_entry_sets_every_default_anew)
{
    phys_entry entry = {};
    char name[] = "/SYS";
    entry.entPhysicalName = name;
    entry.entPhysicalClass = 9;
    entry.circuitPackFlag = 5;
    entry.circuitPackValue1 = 5;
    entry.circuitPackValue2 = 5;
    entry.watchdogCol3 = 5;
    entry.lastReadTime = 5;
    entry.thresholdMask = 5;
    capi_inventory_record record = {};
    record.component_type = plain;
    record.capabilities[9] = CAPI_CAP_RESETTABLE;
    build_phys_entry(&entry, &record);
    EXPECT_EQ(entry.entPhysicalClass, 1);
    EXPECT_EQ(entry.circuitPackFlag, 0);
    // Not what the capabilities say: those come later.
    EXPECT_EQ(entry.circuitPackValue1, 2);
    EXPECT_EQ(entry.circuitPackValue2, 2);
    EXPECT_EQ(entry.circuitPackDescr, entry.entPhysicalDescr);
    EXPECT_EQ(entry.watchdogCol3, 1);
    EXPECT_EQ(entry.lastReadTime, 0U);
    EXPECT_EQ(entry.thresholdMask, 0xFC);
    free(entry.holderCol2);
    free(entry.binarySensorText1);
    free(entry.binarySensorText2);
}

TEST_F(build_cache, build_phys_entry_without_entry_or_record)
{
    const agent_log log({"kavdata::cache"});
    const capi_inventory_record record = {};
    build_phys_entry(nullptr, &record);
    EXPECT_EQ(log.texts(LOG_ERR), strings{"build_phys_entry:FAILED:entry NULL\n"});
    EXPECT_TRUE(log.has_debug("kavdata::cache", "build_phys_entry:entry=0x00000000\n"));
    phys_entry entry = {};
    build_phys_entry(&entry, nullptr);
    EXPECT_TRUE(log.has(LOG_ERR, "build_phys_entry:FAILED:record NULL\n"));
}

TEST_F(build_cache, the_field_replaceable_bit_makes_a_fru)
{
    for (int bit = 0; bit < 8; bit++) {
        reset();
        platform->components = {component("/SYS", plain, {{2, 1 << bit}})};
        init_local_cache();
        EXPECT_EQ(get_entry(1)->entPhysicalIsFRU, bit == 1 ? 1 : 2) << "bit " << bit;
        EXPECT_EQ(get_entry(1)->capiCaps[2], 1 << bit);
    }
}

// ---- Names ----

TEST_F(build_cache, a_component_without_a_name_is_unknown)
{
    fake_component of_length_0 = component("/SYS/A", plain);
    of_length_0.told_length = 0;
    platform->lists["/SYS"] = {component("/SYS", plain), nameless_component(plain), of_length_0,
                               component("", plain)};
    platform->components = {component("/SYS", plain)};
    const agent_log log;
    init_local_cache();
    EXPECT_EQ(rows(), (strings{"/SYS", "Unknown", "Unknown", "Unknown"}));
    expect_consistent();
    EXPECT_EQ(hash_nac("Unknown"), 4U);
    EXPECT_EQ(log.count(LOG_ERR, "get_containedIn:nac separator not found for Unknown\n"), 3U);
    EXPECT_EQ(row("Unknown")->entPhysicalContainedIn, 0);
    EXPECT_EQ(row("Unknown")->entPhysicalParentRelPos, -1);
}

TEST_F(build_cache, names_are_hashed_one_byte_at_a_time_unsigned)
{
    build({"/SYS"});
    const auto hashes = [](const char *text) {
        return std::pair{htab->hash_fn(&text), hash(htab, &text)};
    };
    EXPECT_EQ(hashes("/SYS"), (std::pair{0xf847a2bbU, 0x6e02bad6U}));
    EXPECT_EQ(hashes("/SYS/HDD"), (std::pair{0xbcd92cb2U, 0x3fd4e853U}));
    EXPECT_EQ(hashes("/SYS/MB/P0"), (std::pair{0x9763c9a3U, 0x6f224f02U}));
    EXPECT_EQ(hashes("Unknown"), (std::pair{0x7911eeddU, 0xd9a1c614U}));
    EXPECT_EQ(hashes("").first, 0U);
    // One step of the hash over the byte 0xFF as 255, by hand: 255 + (255 << 10)
    // = 0x3FCFF, ^ (>> 6) = 0x3FC0C, + (<< 3) = 0x23DC6C, ^ (>> 11) = 0x23D82B,
    // + (<< 15) modulo 2^32.
    EXPECT_EQ(hashes("\xff").first, [] {
        uint32_t h = 0xFF;
        h += h << 10;
        h ^= h >> 6;
        h += h << 3;
        h ^= h >> 11;
        h += h << 15;
        return h;
    }());
    const char *a = "/SYS";
    const std::string same = "/SYS";
    const char *b = same.c_str();
    const char *other = "/SYS/HDD";
    EXPECT_NE(htab->equal_fn(&a, &b), 0);
    EXPECT_EQ(htab->equal_fn(&a, &other), 0);
    EXPECT_EQ(htab->equal_fn(nullptr, &b), 0);
    EXPECT_EQ(htab->equal_fn(&a, nullptr), 0);
}

// ---- Containment ----

TEST_F(build_cache, names_of_the_same_hash_are_told_apart)
{
    build({"/SYS", "/SYS/F105000", "/SYS/F101304", "/SYS/F105000/T0", "/SYS/F101304/T0"});
    const char *one = "/SYS/F105000";
    const char *two = "/SYS/F101304";
    ASSERT_EQ(hash(htab, &one), hash(htab, &two));
    EXPECT_EQ(hash_nac(one), 2U);
    EXPECT_EQ(hash_nac(two), 3U);
    EXPECT_EQ(get_entry(4)->entPhysicalContainedIn, 2);
    EXPECT_EQ(get_entry(5)->entPhysicalContainedIn, 3);
}

TEST_F(build_cache, a_component_is_in_what_its_name_says)
{
    build({"/SYS", "/SYS/MB", "/SYS/MB/P0", "/SYS/MB/P0/D1"});
    EXPECT_EQ(row("/SYS")->entPhysicalContainedIn, 0);
    EXPECT_EQ(row("/SYS/MB")->entPhysicalContainedIn, 1);
    EXPECT_EQ(row("/SYS/MB/P0")->entPhysicalContainedIn, 2);
    EXPECT_EQ(row("/SYS/MB/P0/D1")->entPhysicalContainedIn, 3);
    EXPECT_EQ(row("/SYS/MB/P0/D1")->entPhysicalParentRelPos, 2);
}

TEST_F(build_cache, a_parent_that_is_not_cached_is_none)
{
    set_components({"/SYS", "/SYS/GONE/P5"});
    const agent_log log;
    init_local_cache();
    EXPECT_EQ(get_entry(2)->entPhysicalContainedIn, 0);
    EXPECT_EQ(get_entry(2)->entPhysicalParentRelPos, -1);
    EXPECT_EQ(log.texts(LOG_ERR), strings{"hash_nac:FAILED:can not find entry /SYS/GONE\n"});
}

TEST_F(build_cache, a_parent_that_comes_later_is_none)
{
    set_components({"/SYS", "/SYS/MB/P0", "/SYS/MB"});
    const agent_log log;
    init_local_cache();
    EXPECT_EQ(get_entry(2)->entPhysicalContainedIn, 0);
    EXPECT_TRUE(log.has(LOG_ERR, "hash_nac:FAILED:can not find entry /SYS/MB\n"));
}

TEST_F(build_cache, a_top_level_component_is_in_nothing)
{
    set_components({"/X7"});
    const agent_log log({"kavdata::relpos"});
    init_local_cache();
    EXPECT_EQ(get_entry(1)->entPhysicalContainedIn, 0);
    EXPECT_EQ(get_entry(1)->entPhysicalParentRelPos, -1);
    // The empty path is not looked up, the suffix not parsed.
    EXPECT_EQ(log.texts(LOG_ERR), strings());
    for (const std::string &text : log.debug_texts("kavdata::relpos")) {
        EXPECT_EQ(text.find("suffix"), std::string::npos) << text;
    }
}

TEST_F(build_cache, a_name_without_a_separator_is_in_nothing)
{
    platform->components = {component("/SYS", plain)};
    platform->lists["/SYS"] = {component("/SYS", plain), component("LONER3", plain)};
    const agent_log log;
    init_local_cache();
    EXPECT_EQ(get_entry(2)->entPhysicalContainedIn, 0);
    EXPECT_EQ(get_entry(2)->entPhysicalParentRelPos, -1);
    EXPECT_EQ(log.texts(LOG_ERR), strings{"get_containedIn:nac separator not found for LONER3\n"});
}

TEST_F(build_cache, a_long_name_is_looked_at_up_to_its_255th_character)
{
    // The last separator lies behind what is looked at, so an earlier one counts.
    const std::string name = "/SYS/" + std::string(250, 'n') + "/P1";
    build({"/SYS", name});
    EXPECT_EQ(get_entry(2)->entPhysicalName, name);
    EXPECT_EQ(get_entry(2)->entPhysicalContainedIn, 1);
    EXPECT_EQ(get_entry(2)->entPhysicalParentRelPos, -1);
    EXPECT_EQ(relative_position(("/SYS/" + std::string(249, 'n') + "7123").c_str(), 1), 8);
}

TEST_F(build_cache, containment_without_entry_or_name)
{
    const agent_log log;
    int32_t result = 5;
    get_containedIn(nullptr, &result);
    EXPECT_EQ(result, 0);
    const phys_entry nameless = {};
    result = 5;
    get_containedIn(&nameless, &result);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(log.texts(LOG_ERR), (strings{"get_containedIn:FAILED:entry NULL\n",
                                           "get_containedIn:FAILED:entPhysicalName NULL\n"}));
}

// ---- Relative position ----

TEST_F(build_cache, relative_position_is_the_suffix_plus_one)
{
    EXPECT_EQ(relative_position("/SYS/P0", 1), 1);
    EXPECT_EQ(relative_position("/SYS/HDD10", 1), 11);
    EXPECT_EQ(relative_position("/SYS/FAN3", 1), 4);
    EXPECT_EQ(relative_position("/SYS/P007", 1), 8);
    EXPECT_EQ(relative_position("/SYS/2P9", 1), 10);
    EXPECT_EQ(relative_position("/SYS/42", 1), 43);
}

TEST_F(build_cache, without_a_suffix_the_position_stays)
{
    const agent_log log({"kavdata::relpos"});
    EXPECT_EQ(relative_position("/SYS/FAN", 1), -77);
    EXPECT_TRUE(log.has_debug("kavdata::relpos", "get_parentRelPos:numeric suffix=\n"));
    EXPECT_TRUE(log.has_debug("kavdata::relpos", "get_parentRelPos:matched=-1,num=-1\n"));
    EXPECT_EQ(relative_position("/SYS/FAN1A", 1), -77);
    EXPECT_EQ(relative_position("", 1), -77);
    build({"/SYS", "/SYS/FAN"});
    EXPECT_EQ(row("/SYS/FAN")->entPhysicalParentRelPos, -1);
}

TEST_F(build_cache, the_first_character_is_no_part_of_the_suffix)
{
    EXPECT_EQ(relative_position("7", 1), -77);
    EXPECT_EQ(relative_position("123", 1), 24);
}

TEST_F(build_cache, a_suffix_that_does_not_fit_stops_at_the_highest)
{
    struct {
        std::string suffix;
        int number;
        int position;
    } const cases[] = {{"2147483645", 2147483645, 2147483646},
                       {"2147483646", 2147483646, 2147483647},
                       {"2147483647", 2147483647, 2147483647},
                       {"4294967296", 2147483647, 2147483647},
                       {"18446744073709551616", 2147483647, 2147483647},
                       {std::string(200, '9'), 2147483647, 2147483647}};
    for (const auto &c : cases) {
        const agent_log log({"kavdata::relpos"});
        EXPECT_EQ(relative_position(("/SYS/P" + c.suffix).c_str(), 1), c.position) << c.suffix;
        EXPECT_EQ(log.debug_texts("kavdata::relpos").back(),
                  text_of("get_parentRelPos:matched=1,num=%d\n", c.number));
    }
}

TEST_F(build_cache, in_nothing_there_is_no_position)
{
    const agent_log log({"kavdata::relpos"});
    EXPECT_EQ(relative_position("/P3", 0), -1);
    int32_t result = 9;
    get_parentRelPos(nullptr, &result);
    EXPECT_EQ(result, -1);
    EXPECT_TRUE(log.has_debug("kavdata::relpos", "get_parentRelPos:entry=0x00000000, NULL\n"));
    phys_entry nameless = {};
    nameless.entPhysicalContainedIn = 1;
    result = 9;
    get_parentRelPos(&nameless, &result);
    EXPECT_EQ(result, -1);
}

// ---- Memory runs out ----

TEST_F(build_cache, survives_each_failing_allocation)
{
    platform->components = {
        component("/SYS", CAPI_TYPE_SYSTEM, {{CAPI_CAP_FRU_INFO_BYTE, CAPI_CAP_FRU_INFO}}),
        component("/SYS/MID", CAPI_TYPE_MIDPLANE), component("/SYS/BAY0", CAPI_TYPE_DRIVE_BAY),
        component("/SYS/T0", 30),
        component("/SYS/PS0", 4, {{CAPI_CAP_FRU_INFO_BYTE, CAPI_CAP_FRU_INFO}})};
    platform->sensor_types = {30};
    platform->sensors["/SYS/T0"] = discrete_sensor(CAPI_SENSOR_PRESENCE, 2.0F);
    platform->frus["/SYS"] = {};
    platform->frus["/SYS/PS0"] = {};
    fake_system::fail_allocation(UINT_MAX);
    init_local_cache();
    const unsigned needed = fake_system::allocations();
    ASSERT_GT(needed, 30U);
    for (unsigned nth = 1; nth <= needed; nth++) {
        SCOPED_TRACE(nth);
        reset();
        const agent_log log;
        fake_system::fail_allocation(nth);
        init_local_cache();
        fake_system::allow_allocations();
        EXPECT_FALSE(log.texts(LOG_ERR).empty()) << "nobody said so";
        EXPECT_TRUE(platform.all_lists_released());
        expect_consistent(false);
        for (uint32_t i = 1; i <= maxPhysicalIndex; i++) {
            if (phys_entry *entry = get_entry(i)) {
                snmp_read_sensor(entry);
                kavplat::find_name(entry->entPhysicalName);
            }
        }
        remove("/SYS/PS0");
        update("/SYS");
        expect_consistent(false);
        // An update of the root finds whatever the build had no memory for.
        if (kavplat::cache_is_built()) {
            EXPECT_NE(kavplat::find_name("/SYS/T0"), 0U);
            EXPECT_NE(kavplat::find_name("/SYS/PS0"), 0U);
        }
    }
}

} // namespace

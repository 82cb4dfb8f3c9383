/*
 * What the tests of the cache share: a platform, a cache that is as good as new
 * before and after each test, and a look at the whole of it.
 */
#ifndef KAVPLAT_TESTS_ROOMS_CACHE_FIXTURE_H
#define KAVPLAT_TESTS_ROOMS_CACHE_FIXTURE_H

#include <algorithm>
#include <cstring>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/agent_log.h"
#include "fakes/fake_platform.h"
#include "fakes/fake_system.h"
#include "kavdata/cache_internal.h"
#include "kavdata/kavdata.h"

class cache_lock_held
{
  public:
    cache_lock_held() { EXPECT_EQ(monitor_fru_lock(), 0); }
    ~cache_lock_held() { EXPECT_EQ(monitor_fru_unlock(), 0); }
    cache_lock_held(const cache_lock_held &) = delete;
    cache_lock_held &operator=(const cache_lock_held &) = delete;
};

class cache_test : public testing::Test
{
  protected:
    // A type that is neither sensor nor indicator and brings nothing of its own.
    static constexpr uint32_t plain = 200;
    static constexpr u_long uptime = 123456;

    fake_system::scope system;
    fake_platform platform;

    cache_test()
    {
        fake_system::set_uptime(uptime);
        reset();
    }
    ~cache_test() override
    {
        // Whatever the test had replaced refers to what has gone with it.
        {
            const fake_system::scope put_back;
        }
        platform->on_call = nullptr;
        reset();
    }

    static void reset()
    {
        const cache_lock_held lock;
        kavplat::end_agent_pass();
        kavplat::drop_cache();
        kavplat::forget_indexes();
        cache_valid = 1;
        entLastChangeTime = 0;
        root_nac[0] = '\0';
        kavplat::loaded = {};
    }

    void set_components(const std::vector<std::string> &names, uint32_t type = plain)
    {
        std::vector<fake_component> components;
        for (const std::string &name : names) {
            components.push_back(component(name.c_str(), type));
        }
        platform->components = std::move(components);
    }

    void build(const std::vector<std::string> &names)
    {
        set_components(names);
        if (names.empty()) {
            // A platform with a root but nothing to list; without a root the build
            // would wait for one.
            platform->root_list = {component("/", plain), component("/SYS", plain)};
            platform->lists["/SYS"] = {};
        }
        init_local_cache();
    }

    // "/SYS" and enough below it to make `count` components.
    void build_server(uint32_t count)
    {
        std::vector<std::string> names;
        for (uint32_t i = 0; i < count; i++) {
            names.push_back(i == 0 ? "/SYS" : "/SYS/C" + std::to_string(i - 1));
        }
        build(names);
    }

    // The platform now has these too.
    void plug(const std::vector<std::string> &names, uint32_t type = plain)
    {
        const auto server = platform.locked();
        for (const std::string &name : names) {
            server->components.push_back(component(name.c_str(), type));
        }
    }

    void unplug(const std::string &name)
    {
        const auto server = platform.locked();
        std::erase_if(server->components, [&](const fake_component &c) {
            return c.name == name || (c.name && c.name->starts_with(name + "/"));
        });
    }

    static void insert(const char *nac)
    {
        const cache_lock_held lock;
        set_fru_prsnt(nac);
    }
    static void remove(const char *nac)
    {
        const cache_lock_held lock;
        set_fru_absent(nac);
    }
    static void update(const char *nac)
    {
        const cache_lock_held lock;
        partial_reconfigure(nac);
    }

    // Every debug message that begins with the name of an operation ("name:...")
    // comes behind a trace line of that operation, in the room's name.
    static void expect_traced_by_operation(const agent_log &log, const char *room)
    {
        std::map<std::thread::id, log_record> before;
        size_t seen = 0;
        for (const log_record &r : log.records()) {
            if (r.priority != LOG_DEBUG) {
                continue;
            }
            const size_t end = r.text.find(':');
            if (r.token != "trace" && r.token != "kavdata:index" && end != std::string::npos &&
                r.text.find_first_not_of("abcdefghijklmnopqrstuvwxyzRPS_I") == end) {
                const std::string line = r.text.substr(0, end) + "(): " + room + ", ";
                EXPECT_EQ(before[r.thread].token, "trace") << r.text;
                EXPECT_TRUE(before[r.thread].text.starts_with(line))
                    << r.text << "after " << before[r.thread].text;
                seen++;
            }
            before[r.thread] = r;
        }
        EXPECT_NE(seen, 0U);
    }

    // The names of the rows from index 1 on; "" for a hole.
    static std::vector<std::string> rows()
    {
        std::vector<std::string> names;
        for (uint32_t i = 1; i <= maxPhysicalIndex; i++) {
            const phys_entry *entry = kavplat::entry_at(i);
            names.emplace_back(entry ? entry->entPhysicalName : "");
        }
        return names;
    }

    static phys_entry *row(const char *nac) { return kavplat::entry_at(kavplat::find_name(nac)); }

    // All that a row holds, but where it holds it.
    static std::string image(const phys_entry &entry)
    {
        std::string texts;
        phys_entry bare;
        memcpy(static_cast<void *>(&bare), &entry, sizeof bare);
        for (char *phys_entry::*field :
             {&phys_entry::entPhysicalName, &phys_entry::entPhysicalHardwareRev,
              &phys_entry::entPhysicalFirmwareRev, &phys_entry::entPhysicalSoftwareRev,
              &phys_entry::entPhysicalSerialNum, &phys_entry::entPhysicalMfgName,
              &phys_entry::entPhysicalModelName, &phys_entry::entPhysicalAlias,
              &phys_entry::entPhysicalAssetID, &phys_entry::holderCol2,
              &phys_entry::binarySensorText1, &phys_entry::binarySensorText2,
              &phys_entry::interfaceName}) {
            texts += entry.*field ? '[' + std::string(entry.*field) + ']' : "-";
            bare.*field = nullptr;
        }
        bare.circuitPackDescr = nullptr;
        bare.incarnation = 0;
        for (phys_entry *phys_entry::*link :
             {&phys_entry::next_retired, &phys_entry::first_held, &phys_entry::last_held,
              &phys_entry::next_held, &phys_entry::previous_held}) {
            bare.*link = nullptr;
        }
        bare.noted.since = 0;
        // What a failed call gave is kept to tell of it once; nobody is served it.
        std::fill(std::begin(bare.polledStatus), std::end(bare.polledStatus), 0);
        return texts + std::string(reinterpret_cast<const char *>(&bare), sizeof bare);
    }
    static std::vector<std::string> images()
    {
        std::vector<std::string> all;
        for (uint32_t i = 1; i <= maxPhysicalIndex; i++) {
            const phys_entry *entry = kavplat::entry_at(i);
            all.push_back(entry ? image(*entry) : "");
        }
        return all;
    }

    // Slots, rows and index by name agree: each row knows its slot, and each
    // mapping is that of a row that is there, by its very name pointer. With
    // every_row_named each row has its mapping.
    static void expect_consistent(bool every_row_named = true)
    {
        std::set<std::pair<const char *, uint32_t>> of_rows;
        if (physicalTable) {
            EXPECT_EQ(physicalTable[0], nullptr);
            EXPECT_LE(maxPhysicalIndex, localCacheSize);
            for (uint32_t i = 1; i <= maxPhysicalIndex; i++) {
                if (const phys_entry *entry = physicalTable[i]) {
                    EXPECT_EQ(entry->entPhysicalIndex, i);
                    ASSERT_NE(entry->entPhysicalName, nullptr);
                    of_rows.emplace(entry->entPhysicalName, i);
                }
            }
            for (uint32_t i = maxPhysicalIndex + 1; i <= localCacheSize; i++) {
                EXPECT_EQ(physicalTable[i], nullptr) << "slot " << i;
            }
        } else {
            EXPECT_EQ(maxPhysicalIndex, 0U);
            EXPECT_EQ(localCacheSize, 0U);
        }
        size_t mappings = 0;
        if (htab) {
            for (uint32_t b = 0; b < htab->bucket_count; b++) {
                for (const hash_entry *e = htab->buckets[b]; e; e = e->next) {
                    mappings++;
                    EXPECT_TRUE(of_rows.contains({*static_cast<const char *const *>(e->key),
                                                  *static_cast<const uint32_t *>(e->value)}))
                        << "a mapping to index " << *static_cast<const uint32_t *>(e->value)
                        << " that no row has";
                }
            }
            EXPECT_EQ(mappings, hashtable_count(htab));
        }
        if (every_row_named) {
            EXPECT_EQ(mappings, of_rows.size());
        }
    }
};

#endif

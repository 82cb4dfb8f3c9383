// The hash table by its public calls, with the allocator replaced where memory
// has to run short or out of proportion.

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/fake_system.h"
#include "hashtable/hashtable.h"
#include "hashtable/hashtable_internal.h"

namespace
{

using strings = std::vector<std::string>;

constexpr std::array<uint32_t, 26> expected_primes = {
    53,       97,       193,      389,       769,       1543,      3079,      6151,       12289,
    24593,    49157,    98317,    196613,    393241,    786433,    1572869,   3145739,    6291469,
    12582917, 25165843, 50331653, 100663319, 201326611, 402653189, 805306457, 1610612741,
};
// ceil of the exact product of the prime and 0x1.4ccccc p-1, rounded once to 24
// bits; double precision gives others from 50331653 on.
constexpr std::array<uint32_t, 26> expected_limits = {
    35,      64,       126,      253,      500,       1003,      2002,      3999,       7988,
    15986,   31953,    63907,    127799,   255607,    511182,    1022365,   2044731,    4089455,
    8178896, 16357798, 32715572, 65431156, 130862288, 261724560, 523449152, 1046898240,
};

// Keys are heap texts. The default hash is one-at-a-time over unsigned bytes,
// as the cache uses it; "#N..." hashes to N, so that a test can place a key.
uint32_t one_at_a_time(const char *text)
{
    uint32_t h = 0;
    for (; *text != '\0'; ++text) {
        h += static_cast<unsigned char>(*text);
        h += h << 10;
        h ^= h >> 6;
    }
    h += h << 3;
    h ^= h >> 11;
    h += h << 15;
    return h;
}

struct seen_calls {
    unsigned hashes = 0;
    std::vector<std::pair<const void *, const void *>> equals;
};
seen_calls seen;

uint32_t hash_text(const void *key)
{
    ++seen.hashes;
    const char *text = static_cast<const char *>(key);
    return text[0] == '#' ? static_cast<uint32_t>(strtoul(text + 1, nullptr, 10))
                          : one_at_a_time(text);
}

int equal_text(const void *search_key, const void *stored_key)
{
    seen.equals.emplace_back(search_key, stored_key);
    // Not 1: any nonzero value means equal.
    return strcmp(static_cast<const char *>(search_key), static_cast<const char *>(stored_key)) == 0
               ? -4
               : 0;
}

// The mixing, spelled with rotations rather than as the table spells it.
uint32_t mixed(uint32_t i)
{
    i += ~(i << 9);
    i ^= std::rotl(i, 18);
    i += i << 4;
    i ^= std::rotr(i, 10);
    return i;
}

struct destroyer {
    void operator()(hashtable *table) const { hashtable_destroy(table, 0); }
};
using owned_table = std::unique_ptr<hashtable, destroyer>;

owned_table make_table(uint32_t minsize = 16)
{
    return owned_table(create_hashtable(minsize, hash_text, equal_text));
}

int insert(const owned_table &table, const std::string &key, void *value)
{
    return hashtable_insert(table.get(), fake_system::heap_text(key.c_str()), value);
}

std::vector<std::string> chain(const hashtable *table, uint32_t index)
{
    std::vector<std::string> keys;
    for (const hash_entry *e = table->buckets[index]; e != nullptr; e = e->next) {
        keys.emplace_back(static_cast<const char *>(e->key));
    }
    return keys;
}

// Every entry is in the chain that its hash says, and the count is right.
void expect_consistent(const hashtable *table)
{
    uint32_t entries = 0;
    for (uint32_t i = 0; i < table->bucket_count; ++i) {
        for (const hash_entry *e = table->buckets[i]; e != nullptr; e = e->next) {
            EXPECT_EQ(e->hash_value % table->bucket_count, i);
            EXPECT_EQ(e->hash_value, hash(table, e->key));
            ++entries;
        }
    }
    EXPECT_EQ(entries, table->entry_count);
}

// A key whose mixed hash lands in one chain of `first` buckets and in one of
// `second` buckets.
std::string key_in(uint32_t first, uint32_t first_chain, uint32_t second, uint32_t second_chain,
                   unsigned nth = 0)
{
    for (uint32_t i = 0;; ++i) {
        const uint32_t m = mixed(i);
        if (m % first == first_chain && m % second == second_chain && nth-- == 0) {
            return "#" + std::to_string(i);
        }
    }
}

struct hashtable_test : testing::Test {
    hashtable_test() { seen = {}; }
    fake_system::scope system;
    std::array<int, 4096> values = {};
};

// An allocator that gives calloc's caller an array of whatever size it asks for,
// backed by a small block: what a test may do with a table of 12 GiB of chain
// heads as long as no chain beyond the block is touched.
void pretend_any_array()
{
    fake_system::on_calloc.set([](size_t, size_t) { return calloc(64, sizeof(void *)); });
}

TEST_F(hashtable_test, globals_have_their_values)
{
    EXPECT_EQ(prime_table_length, 26U);
    EXPECT_EQ(std::bit_cast<uint32_t>(max_load_factor), 0x3F266666U);
    static_assert(std::is_same_v<decltype(prime_table_length), const uint32_t>);
    static_assert(std::is_same_v<decltype(max_load_factor), const float>);
}

TEST_F(hashtable_test, records_have_their_fields_in_order)
{
    static_assert(std::is_standard_layout_v<hashtable>);
    static_assert(std::is_standard_layout_v<hash_entry>);
    static_assert(offsetof(hashtable, bucket_count) == 0);
    static_assert(offsetof(hashtable, buckets) == sizeof(void *));
    static_assert(offsetof(hashtable, entry_count) == 2 * sizeof(void *));
    static_assert(offsetof(hashtable, load_limit) == 2 * sizeof(void *) + 4);
    static_assert(offsetof(hashtable, prime_index) == 2 * sizeof(void *) + 8);
    static_assert(offsetof(hashtable, hash_fn) > offsetof(hashtable, prime_index));
    static_assert(offsetof(hashtable, equal_fn) == offsetof(hashtable, hash_fn) + sizeof(void *));
    static_assert(offsetof(hash_entry, key) == 0);
    static_assert(offsetof(hash_entry, value) == sizeof(void *));
    static_assert(offsetof(hash_entry, hash_value) == 2 * sizeof(void *));
    static_assert(offsetof(hash_entry, next) == 3 * sizeof(void *) || sizeof(void *) == 4);

    const owned_table table = make_table();
    ASSERT_EQ(insert(table, "/SYS", &values[1]), -1);
    const uint32_t index = hash(table.get(), "/SYS") % 53;
    const hash_entry *entry = table->buckets[index];
    ASSERT_NE(entry, nullptr);
    EXPECT_STREQ(static_cast<const char *>(entry->key), "/SYS");
    EXPECT_EQ(entry->value, &values[1]);
    EXPECT_EQ(entry->hash_value, 0x6e02bad6U);
    EXPECT_EQ(entry->next, nullptr);
}

TEST_F(hashtable_test, creation_takes_the_first_prime_above_minsize)
{
    struct {
        uint32_t minsize, bucket_count, load_limit, prime_index;
    } const cases[] = {{0, 53, 35, 0},    {1, 53, 35, 0},     {16, 53, 35, 0},
                       {52, 53, 35, 0},   {53, 97, 64, 1},    {96, 97, 64, 1},
                       {97, 193, 126, 2}, {193, 389, 253, 3}, {1000, 1543, 1003, 5}};
    for (const auto &c : cases) {
        const owned_table table = make_table(c.minsize);
        ASSERT_NE(table, nullptr) << c.minsize;
        EXPECT_EQ(table->bucket_count, c.bucket_count) << c.minsize;
        EXPECT_EQ(table->load_limit, c.load_limit) << c.minsize;
        EXPECT_EQ(table->prime_index, c.prime_index) << c.minsize;
        EXPECT_EQ(table->entry_count, 0U);
        EXPECT_EQ(table->hash_fn, hash_text);
        EXPECT_EQ(table->equal_fn, equal_text);
        for (uint32_t i = 0; i < table->bucket_count; ++i) {
            EXPECT_EQ(table->buckets[i], nullptr);
        }
    }
}

TEST_F(hashtable_test, creation_zeroes_chain_heads_in_used_memory)
{
    fake_system::on_malloc.set([&](size_t size) {
        void *block = malloc(size);
        memset(block, 0x5A, size);
        return block;
    });
    const owned_table table = make_table();
    for (uint32_t i = 0; i < 53; ++i) {
        ASSERT_EQ(table->buckets[i], nullptr);
    }
}

// The heads of the largest table are more than 32 bits can address.
constexpr bool has_largest_table = sizeof(size_t) > 4;
constexpr uint32_t usable_primes = has_largest_table ? 26 : 25;

TEST_F(hashtable_test, creation_accepts_at_most_two_to_the_thirtieth)
{
    EXPECT_EQ(create_hashtable((1U << 30) + 1, hash_text, equal_text), nullptr);
    EXPECT_EQ(create_hashtable(std::numeric_limits<uint32_t>::max(), hash_text, equal_text),
              nullptr);
    EXPECT_EQ(fake_system::allocations(), 0U);

    pretend_any_array();
    hashtable *table = create_hashtable(1U << 30, hash_text, equal_text);
    if (!has_largest_table) {
        EXPECT_EQ(table, nullptr);
        return;
    }
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->bucket_count, 1610612741U);
    EXPECT_EQ(table->load_limit, 1046898240U);
    EXPECT_EQ(table->prime_index, 25U);
    // The array is not as long as the table says.
    table->bucket_count = 0;
    hashtable_destroy(table, 0);
}

TEST_F(hashtable_test, creation_asks_for_a_chain_head_a_bucket_and_one_more)
{
    std::vector<size_t> sizes;
    fake_system::on_calloc.set([&](size_t count, size_t size) {
        sizes.push_back(count * size);
        return calloc(count, size);
    });
    fake_system::on_malloc.set([&](size_t size) {
        sizes.push_back(size);
        return malloc(size);
    });
    const owned_table table = make_table(53);
    ASSERT_EQ(sizes.size(), 2U);
    EXPECT_EQ(sizes[0], sizeof(hashtable));
    EXPECT_EQ(sizes[1], 98 * sizeof(void *));
}

TEST_F(hashtable_test, creation_fails_without_memory_and_keeps_none)
{
    unsigned freed = 0;
    fake_system::on_free.set([&](void *block) {
        freed += block != nullptr ? 1 : 0;
        free(block);
    });
    fake_system::fail_allocation(1);
    EXPECT_EQ(create_hashtable(16, hash_text, equal_text), nullptr);
    EXPECT_EQ(fake_system::allocations(), 1U);
    EXPECT_EQ(freed, 0U);

    fake_system::fail_allocation(2);
    EXPECT_EQ(create_hashtable(16, hash_text, equal_text), nullptr);
    EXPECT_EQ(fake_system::allocations(), 2U);
    EXPECT_EQ(freed, 1U);
}

TEST_F(hashtable_test, load_limits_of_all_primes_are_single_precision)
{
    pretend_any_array();
    for (uint32_t i = 0; i < usable_primes; ++i) {
        const uint32_t minsize = i == 0 ? 0 : expected_primes[i - 1];
        hashtable *table = create_hashtable(minsize, hash_text, equal_text);
        ASSERT_NE(table, nullptr) << i;
        EXPECT_EQ(table->prime_index, i);
        EXPECT_EQ(table->bucket_count, expected_primes[i]);
        EXPECT_EQ(table->load_limit, expected_limits[i]);
        table->bucket_count = 0;
        hashtable_destroy(table, 0);
    }
}

TEST_F(hashtable_test, growth_computes_the_same_limits)
{
    pretend_any_array();
    hashtable *table = create_hashtable(0, hash_text, equal_text);
    for (uint32_t i = 1; i < usable_primes; ++i) {
        table->bucket_count = 0; // no old chain is looked at
        ASSERT_EQ(hashtable_grow(table), -1) << i;
        EXPECT_EQ(table->prime_index, i);
        EXPECT_EQ(table->bucket_count, expected_primes[i]);
        EXPECT_EQ(table->load_limit, expected_limits[i]);
    }
    table->bucket_count = 0;
    hashtable_destroy(table, 0);
}

TEST_F(hashtable_test, hash_mixes_what_the_creators_function_gives)
{
    const owned_table table = make_table();
    struct {
        const char *key;
        uint32_t plain, mixed_hash;
    } const vectors[] = {{"/SYS", 0xf847a2bb, 0x6e02bad6},
                         {"/SYS/HDD", 0xbcd92cb2, 0x3fd4e853},
                         {"/SYS/MB/P0", 0x9763c9a3, 0x6f224f02},
                         {"Unknown", 0x7911eedd, 0xd9a1c614}};
    for (const auto &v : vectors) {
        EXPECT_EQ(one_at_a_time(v.key), v.plain) << v.key;
        EXPECT_EQ(hash(table.get(), v.key), v.mixed_hash) << v.key;
    }
    for (const char *key : {"#0", "#1", "#4294967295", "#2147483648", "#305419896"}) {
        EXPECT_EQ(hash(table.get(), key), mixed(hash_text(key))) << key;
    }
}

TEST_F(hashtable_test, insertion_pushes_at_the_head_of_the_chain)
{
    const owned_table table = make_table();
    std::vector<std::string> keys;
    for (unsigned n = 0; n < 3; ++n) {
        keys.push_back(key_in(53, 7, 1, 0, n));
        EXPECT_EQ(insert(table, keys.back(), &values[n]), -1);
    }
    std::ranges::reverse(keys);
    EXPECT_EQ(chain(table.get(), 7), keys);
    EXPECT_EQ(hashtable_count(table.get()), 3U);
    EXPECT_EQ(seen.hashes, 3U); // one for each insertion
    EXPECT_TRUE(seen.equals.empty());
}

TEST_F(hashtable_test, insertion_without_memory_restores_the_count_and_leaves_the_key)
{
    const owned_table table = make_table();
    ASSERT_EQ(insert(table, "/SYS", &values[0]), -1);
    char *key = fake_system::heap_text("/SYS/MB");
    fake_system::fail_allocation(1);
    EXPECT_EQ(hashtable_insert(table.get(), key, &values[1]), 0);
    EXPECT_EQ(hashtable_count(table.get()), 1U);
    EXPECT_EQ(hashtable_search(table.get(), "/SYS/MB"), nullptr);
    EXPECT_EQ(hashtable_insert(table.get(), key, &values[1]), -1);
    EXPECT_EQ(hashtable_search(table.get(), "/SYS/MB"), &values[1]);
    expect_consistent(table.get());
}

TEST_F(hashtable_test, the_thirty_sixth_insertion_grows_to_97)
{
    const owned_table table = make_table();
    for (uint32_t i = 0; i < 35; ++i) {
        ASSERT_EQ(insert(table, "/SYS/F" + std::to_string(i), &values[i]), -1);
    }
    EXPECT_EQ(table->bucket_count, 53U);
    const unsigned hashes_before = seen.hashes;
    ASSERT_EQ(insert(table, "/SYS/F35", &values[35]), -1);
    EXPECT_EQ(seen.hashes, hashes_before + 1); // the new key's; growth calls none
    EXPECT_EQ(table->bucket_count, 97U);
    EXPECT_EQ(table->load_limit, 64U);
    EXPECT_EQ(table->prime_index, 1U);
    EXPECT_EQ(hashtable_count(table.get()), 36U);
    expect_consistent(table.get());
    for (uint32_t i = 0; i < 36; ++i) {
        EXPECT_EQ(hashtable_search(table.get(), ("/SYS/F" + std::to_string(i)).c_str()),
                  &values[i]);
    }
}

TEST_F(hashtable_test, growth_reverses_entries_that_share_a_chain_before_and_after)
{
    const owned_table table = make_table();
    const std::string a = key_in(53, 7, 97, 11, 0);
    const std::string b = key_in(53, 7, 97, 11, 1);
    const std::string c = key_in(53, 7, 97, 11, 2);
    // From a later old chain into the same new one: pushed after, so before them.
    const std::string d = key_in(53, 8, 97, 11);
    for (const std::string &key : {d, a, b, c}) {
        insert(table, key, &values[0]);
    }
    ASSERT_EQ(chain(table.get(), 7), (std::vector{c, b, a}));
    const unsigned hashes_before = seen.hashes;
    EXPECT_EQ(hashtable_grow(table.get()), -1);
    EXPECT_EQ(seen.hashes, hashes_before);
    EXPECT_EQ(chain(table.get(), 11), (std::vector{d, a, b, c}));
    expect_consistent(table.get());
}

TEST_F(hashtable_test, growth_frees_the_old_array)
{
    const owned_table table = make_table();
    const void *old_array = table->buckets;
    std::vector<void *> freed;
    fake_system::on_free.set([&](void *block) {
        freed.push_back(block);
        free(block);
    });
    ASSERT_EQ(hashtable_grow(table.get()), -1);
    fake_system::on_free.clear();
    ASSERT_EQ(freed.size(), 1U);
    EXPECT_EQ(freed[0], old_array);
    EXPECT_NE(table->buckets, old_array);
}

TEST_F(hashtable_test, growth_without_any_memory_changes_nothing_and_insertion_goes_on)
{
    const owned_table table = make_table();
    for (uint32_t i = 0; i < 35; ++i) {
        insert(table, "/SYS/F" + std::to_string(i), &values[i]);
    }
    hash_entry **const buckets = table->buckets;
    fake_system::fail_allocation(1, 2); // the fresh array and the stretched one
    EXPECT_EQ(hashtable_grow(table.get()), 0);
    EXPECT_EQ(fake_system::failed_allocations(), 2U);
    EXPECT_EQ(table->bucket_count, 53U);
    EXPECT_EQ(table->buckets, buckets);
    EXPECT_EQ(table->load_limit, 35U);
    EXPECT_EQ(table->prime_index, 0U);
    EXPECT_EQ(table->entry_count, 35U);

    fake_system::fail_allocation(1, 2); // the entry itself is to be had
    EXPECT_EQ(insert(table, "/SYS/F35", &values[35]), -1);
    EXPECT_EQ(table->bucket_count, 53U);
    EXPECT_EQ(hashtable_count(table.get()), 36U);
    expect_consistent(table.get());
    for (uint32_t i = 0; i < 36; ++i) {
        EXPECT_EQ(hashtable_search(table.get(), ("/SYS/F" + std::to_string(i)).c_str()),
                  &values[i]);
    }
    // The next one grows.
    EXPECT_EQ(insert(table, "/SYS/F36", &values[36]), -1);
    EXPECT_EQ(table->bucket_count, 97U);
    expect_consistent(table.get());
}

// The fresh array fails once; the stretched one holds what a test wrote into
// its new slots.
struct growth_fallback : hashtable_test {
    void stretch_with_first_new_slot(void *found)
    {
        fake_system::on_realloc.set([found](void *block, size_t size) {
            auto **array = static_cast<void **>(realloc(block, size));
            for (size_t i = 53; i < 97; ++i) {
                // Anything but null, to see that the slots are cleared.
                array[i] = i == 53 ? found : array;
            }
            return static_cast<void *>(array);
        });
        fake_system::fail_allocation(1);
    }
};

TEST_F(growth_fallback, clears_bytes_where_the_first_new_slot_points)
{
    const owned_table table = make_table();
    std::array<unsigned char, 128> target = {};
    target.fill(0xEE);
    stretch_with_first_new_slot(target.data());
    EXPECT_EQ(hashtable_grow(table.get()), -1);
    // 97 - 53 = 44 bytes, not slots.
    for (size_t i = 0; i < target.size(); ++i) {
        EXPECT_EQ(target[i], i < 44 ? 0x00 : 0xEE) << i;
    }
    EXPECT_EQ(table->bucket_count, 97U);
    EXPECT_EQ(table->load_limit, 64U);
    EXPECT_EQ(table->prime_index, 1U);
    for (uint32_t i = 0; i < 97; ++i) {
        EXPECT_EQ(table->buckets[i], nullptr) << i;
    }
}

// What realloc appends is anything; a pointer that it happens to look like must not
// be followed. What lies behind it is somebody else's.
TEST_F(growth_fallback, follows_nothing_that_realloc_appended)
{
    size_t allocated = 0;
    fake_system::on_calloc.set([&](size_t count, size_t size) {
        allocated = count * size;
        return calloc(count, size);
    });
    const owned_table table = make_table();
    const unsigned char *behind = nullptr;
    fake_system::on_realloc.set([&](void *block, size_t size) {
        void *moved = malloc(size + 1);
        memset(moved, 0x5A, size + 1);
        behind = static_cast<unsigned char *>(moved) + size;
        memcpy(moved, block, allocated);
        free(block);
        return moved;
    });
    for (int growth = 0; growth < 2; growth++) {
        fake_system::fail_allocation(1);
        EXPECT_EQ(hashtable_grow(table.get()), -1);
        allocated = (table->bucket_count + 1) * sizeof(void *);
        EXPECT_EQ(*behind, 0x5A);
    }
    EXPECT_EQ(table->bucket_count, 193U);
    for (uint32_t i = 0; i < 193; ++i) {
        EXPECT_EQ(table->buckets[i], nullptr) << i;
    }
}

TEST_F(growth_fallback, clears_nothing_where_the_first_new_slot_is_null)
{
    const owned_table table = make_table();
    stretch_with_first_new_slot(nullptr);
    EXPECT_EQ(hashtable_grow(table.get()), -1);
    EXPECT_EQ(table->bucket_count, 97U);
    for (uint32_t i = 0; i < 97; ++i) {
        EXPECT_EQ(table->buckets[i], nullptr) << i;
    }
}

TEST_F(growth_fallback, rehashes_in_place_and_keeps_the_place_of_what_stays)
{
    const owned_table table = make_table();
    // In chain 7 of 53: two that stay, and others that move to an earlier, a
    // later old and a new chain.
    const std::string stays1 = key_in(53, 7, 97, 7, 0);
    const std::string stays2 = key_in(53, 7, 97, 7, 1);
    const std::string earlier = key_in(53, 7, 97, 3);
    const std::string later1 = key_in(53, 7, 97, 20, 0);
    const std::string later2 = key_in(53, 7, 97, 20, 1);
    const std::string beyond = key_in(53, 7, 97, 90);
    // In the way: in 20 already and staying there.
    const std::string native = key_in(53, 20, 97, 20);
    ASSERT_EQ(insert(table, key_in(53, 52, 97, 3), &values[0]), -1); // the last chain
    for (const std::string &key : {native, stays1, later1, earlier, beyond, later2, stays2}) {
        ASSERT_EQ(insert(table, key, &values[0]), -1);
    }
    ASSERT_EQ(chain(table.get(), 7),
              (std::vector{stays2, later2, beyond, earlier, later1, stays1}));
    const unsigned hashes_before = seen.hashes;
    stretch_with_first_new_slot(nullptr);
    EXPECT_EQ(hashtable_grow(table.get()), -1);
    EXPECT_EQ(seen.hashes, hashes_before);
    EXPECT_EQ(chain(table.get(), 7), (std::vector{stays2, stays1}));
    EXPECT_EQ(chain(table.get(), 3), (std::vector{key_in(53, 52, 97, 3), earlier}));
    EXPECT_EQ(chain(table.get(), 52), strings());
    EXPECT_EQ(chain(table.get(), 20), (std::vector{later1, later2, native}));
    EXPECT_EQ(chain(table.get(), 90), (std::vector{beyond}));
    expect_consistent(table.get());
}

TEST_F(hashtable_test, a_table_at_the_last_prime_takes_any_number)
{
    // The largest table is 12 GiB of chain heads: a small one that believes to
    // be at the last prime has the same rule to follow.
    const owned_table table = make_table();
    table->prime_index = 25;
    EXPECT_EQ(hashtable_grow(table.get()), 0);
    for (uint32_t i = 0; i < 200; ++i) {
        ASSERT_EQ(insert(table, "/SYS/F" + std::to_string(i), &values[i]), -1);
    }
    EXPECT_EQ(table->bucket_count, 53U);
    EXPECT_EQ(table->load_limit, 35U);
    EXPECT_EQ(table->prime_index, 25U);
    EXPECT_EQ(hashtable_count(table.get()), 200U);
    expect_consistent(table.get());
    for (uint32_t i = 0; i < 200; ++i) {
        EXPECT_EQ(hashtable_search(table.get(), ("/SYS/F" + std::to_string(i)).c_str()),
                  &values[i]);
    }
}

TEST_F(hashtable_test, growth_ends_at_the_last_prime)
{
    if (!has_largest_table) {
        GTEST_SKIP() << "the last table does not fit into 32 bits";
    }
    pretend_any_array();
    hashtable *table = create_hashtable(1U << 30, hash_text, equal_text);
    ASSERT_NE(table, nullptr);
    const unsigned allocations_before = fake_system::allocations();
    EXPECT_EQ(hashtable_grow(table), 0);
    EXPECT_EQ(fake_system::allocations(), allocations_before);
    EXPECT_EQ(table->bucket_count, 1610612741U);
    EXPECT_EQ(table->load_limit, 1046898240U);
    EXPECT_EQ(table->prime_index, 25U);
    table->bucket_count = 0;
    hashtable_destroy(table, 0);
}

TEST_F(hashtable_test, search_hands_the_search_key_first)
{
    const owned_table table = make_table();
    char *stored = fake_system::heap_text("/SYS/MB");
    ASSERT_EQ(hashtable_insert(table.get(), stored, &values[0]), -1);
    const char wanted[] = "/SYS/MB";
    EXPECT_EQ(hashtable_search(table.get(), wanted), &values[0]);
    ASSERT_EQ(seen.equals.size(), 1U);
    EXPECT_EQ(seen.equals[0].first, wanted);
    EXPECT_EQ(seen.equals[0].second, stored);
    EXPECT_EQ(seen.hashes, 2U); // the insertion's and the search's
}

TEST_F(hashtable_test, keys_are_compared_only_where_the_whole_hash_agrees)
{
    const owned_table table = make_table();
    insert(table, key_in(53, 7, 1, 0, 0), &values[0]);
    EXPECT_EQ(hashtable_search(table.get(), key_in(53, 7, 1, 0, 1).c_str()), nullptr);
    EXPECT_TRUE(seen.equals.empty());

    // The same hash and yet another key.
    insert(table, "#12", &values[1]);
    insert(table, "#12x", &values[2]);
    EXPECT_EQ(hashtable_search(table.get(), "#12"), &values[1]);
    EXPECT_EQ(hashtable_search(table.get(), "#12x"), &values[2]);
    EXPECT_EQ(hashtable_search(table.get(), "#12y"), nullptr);
    EXPECT_EQ(seen.equals.size(), 2U + 1U + 2U);
}

TEST_F(hashtable_test, removal_gives_the_value_back_and_frees_key_and_entry)
{
    const owned_table table = make_table();
    char *stored = fake_system::heap_text("/SYS/MB");
    char *value = fake_system::heap_text("value");
    ASSERT_EQ(hashtable_insert(table.get(), stored, value), -1);
    const uint32_t index = hash(table.get(), "/SYS/MB") % 53;
    const void *entry = table->buckets[index];
    seen = {};
    std::vector<const void *> freed;
    fake_system::on_free.set([&](void *block) {
        freed.push_back(block);
        free(block);
    });
    const char wanted[] = "/SYS/MB";
    EXPECT_EQ(hashtable_remove(table.get(), wanted), value);
    fake_system::on_free.clear();
    EXPECT_EQ(freed, (std::vector<const void *>{stored, entry}));
    EXPECT_EQ(seen.hashes, 2U); // once for the chain, once for the comparison
    ASSERT_EQ(seen.equals.size(), 1U);
    EXPECT_EQ(seen.equals[0].first, wanted);
    EXPECT_EQ(hashtable_count(table.get()), 0U);
    EXPECT_EQ(table->buckets[index], nullptr);
    EXPECT_STREQ(value, "value"); // the caller's from here on
    free(value);
}

TEST_F(hashtable_test, removal_takes_out_the_head_the_middle_and_the_end_of_a_chain)
{
    const owned_table table = make_table();
    std::vector<std::string> keys;
    for (unsigned n = 0; n < 5; ++n) {
        keys.push_back(key_in(53, 7, 1, 0, n));
        insert(table, keys.back(), &values[n]);
    }
    EXPECT_EQ(hashtable_remove(table.get(), keys[4].c_str()), &values[4]);
    EXPECT_EQ(chain(table.get(), 7), (std::vector{keys[3], keys[2], keys[1], keys[0]}));
    EXPECT_EQ(hashtable_remove(table.get(), keys[2].c_str()), &values[2]);
    EXPECT_EQ(chain(table.get(), 7), (std::vector{keys[3], keys[1], keys[0]}));
    EXPECT_EQ(hashtable_remove(table.get(), keys[0].c_str()), &values[0]);
    EXPECT_EQ(chain(table.get(), 7), (std::vector{keys[3], keys[1]}));
    EXPECT_EQ(hashtable_count(table.get()), 2U);
}

TEST_F(hashtable_test, removal_by_the_stored_key_itself_is_safe)
{
    const owned_table table = make_table();
    char *stored = fake_system::heap_text("/SYS/MB");
    ASSERT_EQ(hashtable_insert(table.get(), stored, &values[3]), -1);
    EXPECT_EQ(hashtable_remove(table.get(), stored), &values[3]);
    EXPECT_EQ(hashtable_count(table.get()), 0U);
}

// Beside a model: for each key the values that it was stored with, the latest last.
// Many keys share their whole hash with others, some values are null, and memory
// runs short at any time.
TEST_F(hashtable_test, a_walk_with_namesakes_null_values_and_failures_agrees_with_a_model)
{
    std::mt19937 random(20260311); // NOLINT(cert-msc32-c,cert-msc51-cpp): the same each time
    const auto below = [&](unsigned n) { return static_cast<unsigned>(random() % n); };
    const owned_table table = make_table();
    std::map<std::string, std::vector<void *>> model;
    uint32_t count = 0;
    unsigned stretched = 0;
    for (unsigned step = 0; step < 12000; ++step) {
        const std::string key = "#" + std::to_string(below(1500)) + "abc"[below(3)];
        std::vector<void *> &stored = model[key];
        // It shrinks now and then; chains in use and not are those of a larger table.
        if (below(10) < (step / 3000 % 2 == 0 ? 6U : 3U)) {
            const bool grows = count + 1 > table->load_limit;
            const unsigned failures = grows || below(4) == 0 ? below(4) : 0;
            // The fresh array, the stretched one and the entry, or the entry alone.
            const bool fails = failures >= (grows ? 3U : 1U);
            const uint32_t buckets = table->bucket_count;
            void *value = below(4) == 0 ? nullptr : &values[below(4096)];
            char *heap_key = fake_system::heap_text(key.c_str());
            if (failures != 0) {
                fake_system::fail_allocation(1, failures);
            }
            ASSERT_EQ(hashtable_insert(table.get(), heap_key, value), fails ? 0 : -1);
            fake_system::allow_allocations();
            ASSERT_EQ(table->bucket_count != buckets, grows && failures < 2);
            stretched += grows && failures == 1 ? 1U : 0U;
            if (table->bucket_count != buckets) {
                // Entries that move change their order, among them those of one key.
                for (auto &[moved, entries] : model) {
                    const uint32_t h = mixed(hash_text(moved.c_str()));
                    if (failures == 0 || h % buckets != h % table->bucket_count) {
                        std::ranges::reverse(entries);
                    }
                }
            }
            if (fails) {
                free(heap_key);
            } else {
                stored.push_back(value);
                count++;
            }
        } else {
            ASSERT_EQ(hashtable_remove(table.get(), key.c_str()),
                      stored.empty() ? nullptr : stored.back());
            if (!stored.empty()) {
                stored.pop_back();
                count--;
            }
        }
        ASSERT_EQ(hashtable_search(table.get(), key.c_str()),
                  stored.empty() ? nullptr : stored.back());
        ASSERT_EQ(hashtable_count(table.get()), count);
    }
    EXPECT_GE(table->bucket_count, 3079U);
    EXPECT_GE(stretched, 2U);
    expect_consistent(table.get());
    for (const auto &[key, stored] : model) {
        EXPECT_EQ(hashtable_search(table.get(), key.c_str()),
                  stored.empty() ? nullptr : stored.back());
    }
}

// What is freed by destroying a table of three entries, in order: two in the first
// chain (the later one first) and one in the last.
struct hashtable_destruction : hashtable_test {
    void expect_frees(int free_values)
    {
        hashtable *table = create_hashtable(16, hash_text, equal_text);
        const std::string names[] = {key_in(53, 52, 1, 0), key_in(53, 0, 1, 0, 0),
                                     key_in(53, 0, 1, 0, 1)};
        std::array<char *, 3> keys = {};
        std::array<char *, 3> held = {};
        std::array<const void *, 3> entries = {};
        for (size_t i = 0; i < 3; ++i) {
            keys[i] = fake_system::heap_text(names[i].c_str());
            held[i] = fake_system::heap_text("value");
            ASSERT_EQ(hashtable_insert(table, keys[i], held[i]), -1);
            entries[i] = table->buckets[i == 0 ? 52 : 0];
        }
        std::vector<const void *> expected;
        for (const size_t i : {2U, 1U, 0U}) {
            expected.push_back(keys[i]);
            if (free_values != 0) {
                expected.push_back(held[i]);
            }
            expected.push_back(entries[i]);
        }
        expected.push_back(table->buckets);
        expected.push_back(table);

        std::vector<const void *> freed;
        fake_system::on_free.set([&](void *block) {
            freed.push_back(block);
            free(block);
        });
        hashtable_destroy(table, free_values);
        fake_system::on_free.clear();
        EXPECT_EQ(freed, expected);
        if (free_values == 0) {
            for (char *value : held) {
                EXPECT_STREQ(value, "value");
                free(value);
            }
        }
    }
};

TEST_F(hashtable_destruction, leaves_the_values_alive)
{
    expect_frees(0);
}

TEST_F(hashtable_destruction, frees_the_values_when_told)
{
    expect_frees(1);
}

TEST_F(hashtable_destruction, takes_any_nonzero_for_yes)
{
    expect_frees(-2);
}

TEST_F(hashtable_test, null_tables_give_empty_results)
{
    EXPECT_EQ(hashtable_insert(nullptr, values.data(), values.data()), 0);
    EXPECT_EQ(hashtable_search(nullptr, "/SYS"), nullptr);
    EXPECT_EQ(hashtable_remove(nullptr, "/SYS"), nullptr);
    EXPECT_EQ(hashtable_grow(nullptr), 0);
    EXPECT_EQ(hash(nullptr, "/SYS"), 0U);
    fake_system::on_free.forget_calls();
    hashtable_destroy(nullptr, 0);
    hashtable_destroy(nullptr, 1);
    EXPECT_EQ(fake_system::on_free.calls(), 0U);
    EXPECT_EQ(seen.hashes, 0U);
}

} // namespace

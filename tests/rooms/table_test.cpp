// The mechanism of the iterator tables: where a walk starts, how it goes on and
// ends, and what a row is while a request is served. Told on entPhysicalTable,
// and on a table of the test's own for what that one does not use.
#include "table/table.h"

#include <thread>

#include "entityMIB/entityMIB.h"
#include "entityMIB/entPhysicalTable.h"
#include "rooms/cache_fixture.h"
#include "rooms/requests.h"
#include "rooms/varbind_watch.h"

namespace
{

using std::string;
using std::vector;

// ---- A table of the test's own -------------------------------------------------

extern const kavplat::table sample;

netsnmp_variable_list *sample_first(void **loop, void **data, netsnmp_variable_list *index,
                                    netsnmp_iterator_info *)
{
    return kavplat::table_get_first(sample, loop, data, index);
}

netsnmp_variable_list *sample_next(void **loop, void **data, netsnmp_variable_list *index,
                                   netsnmp_iterator_info *)
{
    return kavplat::table_get_next(sample, loop, data, index);
}

int sample_handler(netsnmp_mib_handler *, netsnmp_handler_registration *,
                   netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests)
{
    return kavplat::table_handle(sample, reqinfo, requests);
}

constexpr oid sample_root[] = {1, 3, 6, 1, 4, 1, 58213, 9};

constexpr kavplat::column sample_columns[] = {
    kavplat::gauge<&phys_entry::sensorCol3>(4, "aGauge"),
    kavplat::text<&phys_entry::holderCol2>(5, "aText"),
    kavplat::constant<-7>(6, "aConstant"),
};

constinit const kavplat::table sample = {
    .name = "sampleTable",
    .source = "sample",
    .root = sample_root,
    .columns = sample_columns,
    .rows = kavplat::all_rows,
    .start = kavplat::start_rule::first_above_maximum,
    .modes = kavplat::mode_rule::refuse_all,
    .get_first = sample_first,
    .get_next = sample_next,
    .handler = sample_handler,
};

// ---- Walks --------------------------------------------------------------------

class table_walk : public cache_test
{
  protected:
    table_walk() { build({"/SYS", "/SYS/A", "/SYS/B", "/SYS/C", "/SYS/D"}); }

    // Rows that hold nothing of one another, so that the first can go alone.
    void build_list(const vector<string> &names)
    {
        {
            const auto server = platform.locked();
            vector<fake_component> &listed = server->lists["/SYS"];
            for (const string &name : names) {
                listed.push_back(component(name.c_str(), plain));
            }
        }
        build({"/SYS"});
    }

    static table_steps entity_steps()
    {
        return table_steps(entPhysicalTable_get_first_data_point,
                           entPhysicalTable_get_next_data_point);
    }

    // Where a walk lands that starts at an index; 0: nowhere.
    static uint32_t landing(uint32_t start)
    {
        table_steps steps(entPhysicalTable_get_first_data_point,
                          entPhysicalTable_get_next_data_point);
        steps.set_index(start);
        if (!steps.first()) {
            return 0;
        }
        EXPECT_EQ(steps.row(), kavplat::entry_at(steps.index()));
        EXPECT_EQ(steps.loop_context,
                  reinterpret_cast<void *>(static_cast<uintptr_t>(steps.index())));
        return steps.index();
    }

    static vector<uint32_t> walk(table_steps &steps)
    {
        vector<uint32_t> seen;
        for (bool more = steps.first(); more; more = steps.next()) {
            EXPECT_EQ(steps.row(), kavplat::entry_at(steps.index()));
            seen.push_back(steps.index());
        }
        return seen;
    }
};

TEST_F(table_walk, delivers_every_row_in_order)
{
    table_steps steps = entity_steps();
    EXPECT_EQ(walk(steps), (vector<uint32_t>{1, 2, 3, 4, 5}));
}

TEST_F(table_walk, skips_holes)
{
    remove("/SYS/B");
    remove("/SYS/C");
    table_steps steps = entity_steps();
    EXPECT_EQ(walk(steps), (vector<uint32_t>{1, 2, 5}));
}

TEST_F(table_walk, starts_at_an_index_below_the_maximum)
{
    EXPECT_EQ(landing(1), 1U);
    EXPECT_EQ(landing(2), 2U);
    EXPECT_EQ(landing(4), 4U);
}

TEST_F(table_walk, starts_at_the_first_row_from_the_maximum_on)
{
    EXPECT_EQ(landing(5), 1U);
    EXPECT_EQ(landing(6), 1U);
    EXPECT_EQ(landing(0x7FFFFFFF), 1U);
    EXPECT_EQ(landing(0x80000000), 1U);
    EXPECT_EQ(landing(0xFFFFFFFF), 1U);
}

TEST_F(table_walk, starts_behind_a_hole)
{
    build_list({"/FIRST", "/SYS/A", "/SYS/B", "/SYS/C", "/SYS/D"});
    remove("/FIRST");
    remove("/SYS/B");
    EXPECT_EQ(landing(0), 2U);
    EXPECT_EQ(landing(1), 2U);
    EXPECT_EQ(landing(3), 4U);
    EXPECT_EQ(landing(5), 2U) << "from 1, which is a hole";
}

TEST_F(table_walk, finds_the_only_row)
{
    build({"/SYS"});
    for (const uint32_t start : {0U, 1U, 2U}) {
        EXPECT_EQ(landing(start), 1U);
    }
}

TEST_F(table_walk, ends_with_index_0)
{
    table_steps steps = entity_steps();
    steps.set_index(4);
    ASSERT_TRUE(steps.first());
    ASSERT_TRUE(steps.next());
    EXPECT_EQ(steps.index(), 5U);
    EXPECT_FALSE(steps.next());
    EXPECT_EQ(steps.index(), 0U);
}

TEST_F(table_walk, that_finds_nothing_at_its_start_ends_with_index_0)
{
    remove("/SYS/C");
    remove("/SYS/D");
    table_steps steps = entity_steps();
    steps.set_index(4);
    EXPECT_FALSE(steps.first());
    EXPECT_EQ(steps.index(), 0U);
}

TEST_F(table_walk, of_an_empty_cache_leaves_the_index_alone)
{
    reset();
    ASSERT_EQ(maxPhysicalIndex, 0U);
    table_steps steps = entity_steps();
    steps.set_index(3);
    steps.loop_context = &steps;
    EXPECT_FALSE(steps.first());
    EXPECT_FALSE(steps.next());
    EXPECT_EQ(steps.index(), 3U);
    EXPECT_EQ(steps.loop_context, &steps);
    EXPECT_EQ(steps.data_context, nullptr);
}

TEST_F(table_walk, of_a_cache_without_slots_leaves_the_index_alone)
{
    phys_entry **const slots = physicalTable;
    physicalTable = nullptr;
    table_steps steps = entity_steps();
    steps.set_index(3);
    EXPECT_FALSE(steps.first());
    EXPECT_FALSE(steps.next());
    EXPECT_EQ(steps.index(), 3U);
    physicalTable = slots;
}

TEST_F(table_walk, that_the_cache_empties_under_ends_there)
{
    table_steps steps = entity_steps();
    ASSERT_TRUE(steps.first());
    {
        const cache_lock_held lock;
        kavplat::drop_cache();
    }
    EXPECT_FALSE(steps.next());
    EXPECT_EQ(steps.index(), 1U);
}

TEST_F(table_walk, traces_its_indexes)
{
    build_list({"/FIRST", "/SYS/A", "/SYS/B"});
    remove("/FIRST");
    const agent_log log({"entityMIB", "trace"});
    table_steps steps = entity_steps();
    steps.set_index(77);
    ASSERT_TRUE(steps.first());
    ASSERT_TRUE(steps.next());
    EXPECT_EQ(log.debug_texts("entityMIB"),
              (vector<string>{"entPhysicalTable_get_first_data_point: idx=1\n",
                              "entPhysicalTable_get_next_data_point: idx=1\n",
                              "entPhysicalTable_get_next_data_point: idx=2\n"}));
    EXPECT_TRUE(log.traced("entityMIB", "entPhysicalTable_get_first_data_point: idx=1\n",
                           "entPhysicalTable_get_first_data_point", "entityMIB"));
    EXPECT_TRUE(log.traced("entityMIB", "entPhysicalTable_get_next_data_point: idx=2\n",
                           "entPhysicalTable_get_next_data_point", "entityMIB"));
}

TEST_F(table_walk, of_an_empty_cache_traces_nothing_of_its_own)
{
    reset();
    const agent_log log({"entityMIB"});
    table_steps steps = entity_steps();
    EXPECT_FALSE(steps.first());
    EXPECT_FALSE(steps.next());
    EXPECT_TRUE(log.debug_texts("entityMIB").empty());
}

TEST_F(table_walk, takes_no_lock)
{
    const cache_lock_held lock;
    fake_system::on_pthread_mutex_lock.set([](pthread_mutex_t *mutex) {
        EXPECT_NE(mutex, &fru_mutex);
        return pthread_mutex_lock(mutex);
    });
    table_steps steps = entity_steps();
    EXPECT_TRUE(steps.first());
    EXPECT_TRUE(steps.next());
    fake_system::on_pthread_mutex_lock.clear();
}

TEST_F(table_walk, may_start_at_the_maximum_where_the_table_says_so)
{
    table_steps steps(sample_first, sample_next);
    steps.set_index(5);
    ASSERT_TRUE(steps.first());
    EXPECT_EQ(steps.index(), 5U);
    steps.set_index(6);
    ASSERT_TRUE(steps.first());
    EXPECT_EQ(steps.index(), 1U);
}

TEST_F(table_walk, gives_the_handler_what_it_serves)
{
    table_steps steps = entity_steps();
    vector<string> names;
    for (bool more = steps.first(); more; more = steps.next()) {
        names.push_back(served(entPhysicalTable_handler, 7, steps.row()).octets);
    }
    EXPECT_EQ(names, (vector<string>{"/SYS", "/SYS/A", "/SYS/B", "/SYS/C", "/SYS/D"}));
}

// ---- A row that goes away between a walk and its handler -----------------------

class row_under_a_reader : public table_walk
{
  protected:
    vector<void *> freed;

    row_under_a_reader()
    {
        fake_system::on_free.set([this](void *block) {
            if (counting) {
                freed.push_back(block);
            }
            free(block);
        });
    }
    ~row_under_a_reader() override { fake_system::on_free.clear(); }

    void remove_counting(const char *nac)
    {
        counting = true;
        remove(nac);
        counting = false;
    }
    bool is_freed(const void *block) const
    {
        return std::find(freed.begin(), freed.end(), block) != freed.end();
    }

    bool counting = false;
};

TEST_F(row_under_a_reader, stays_until_the_handler_is_done)
{
    table_steps steps = entity_steps();
    steps.set_index(3);
    ASSERT_TRUE(steps.first());
    const void *const found = steps.row();
    std::thread([&] { remove_counting("/SYS/B"); }).join();
    EXPECT_EQ(kavplat::entry_at(3), nullptr) << "unlinked at once";
    EXPECT_FALSE(is_freed(found));
    handler_call call;
    call.add(7, found);
    counting = true;
    EXPECT_EQ(call.run(entPhysicalTable_handler), SNMP_ERR_NOERROR);
    counting = false;
    EXPECT_EQ(call.answer(0), octets_value("/SYS/B"));
    EXPECT_TRUE(is_freed(found));
}

TEST_F(row_under_a_reader, is_freed_at_once_when_nobody_reads)
{
    served(entPhysicalTable_handler, 7, kavplat::entry_at(1));
    const void *const removed = kavplat::entry_at(3);
    remove_counting("/SYS/B");
    EXPECT_TRUE(is_freed(removed));
}

TEST_F(row_under_a_reader, every_kind_of_handler_call_ends_the_pass)
{
    for (const int mode : std::initializer_list<int>{MODE_GET, 0, 77}) {
        build({"/SYS", "/SYS/A"});
        table_steps steps = entity_steps();
        ASSERT_TRUE(steps.first());
        const agent_log log;
        handler_call call(mode);
        call.run(entPhysicalTable_handler);
        const void *const removed = kavplat::entry_at(2);
        freed.clear();
        remove_counting("/SYS/A");
        EXPECT_TRUE(is_freed(removed)) << "mode " << mode;
    }
}

// ---- Cells and columns of other kinds ------------------------------------------

class sample_cells : public table_walk
{
  protected:
    phys_entry *entry = kavplat::entry_at(1);

    sample_cells() { varbind_watch::start(); }
    ~sample_cells() override { varbind_watch::stop(); }
};

TEST_F(sample_cells, gauge_is_unsigned)
{
    for (const uint32_t value : {0U, 1U, 4294967295U}) {
        entry->sensorCol3 = value;
        EXPECT_EQ(served(sample_handler, 4, entry), gauge_value(value));
        EXPECT_EQ(varbind_watch::values().back().length, 4U);
    }
}

TEST_F(sample_cells, null_text_is_an_empty_one)
{
    strcpy(entry->holderCol2, "component");
    EXPECT_EQ(served(sample_handler, 5, entry), octets_value("component"));
    char *const text = entry->holderCol2;
    entry->holderCol2 = nullptr;
    EXPECT_EQ(served(sample_handler, 5, entry), octets_value(""));
    entry->holderCol2 = text;
}

TEST_F(sample_cells, constant_is_the_same_for_every_row)
{
    EXPECT_EQ(served(sample_handler, 6, entry), integer_value(-7));
    EXPECT_EQ(served(sample_handler, 6, kavplat::entry_at(2)), integer_value(-7));
}

TEST_F(sample_cells, columns_are_found_by_number_not_by_place)
{
    for (const unsigned number : {0U, 1U, 3U, 7U}) {
        const agent_log log;
        EXPECT_EQ(served(sample_handler, number, entry), no_value());
        EXPECT_EQ(log.texts(LOG_ERR),
                  vector<string>{text_of("sampleTable_handler:unknown column (%u)\n", number)});
    }
}

} // namespace

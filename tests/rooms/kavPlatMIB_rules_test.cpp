// What all platform tables have in common, and the rules in which they differ:
// walks, empty caches, modes, requests without a row, locking and traces.

#include "rooms/platform_tables.h"

#include <algorithm>
#include <stdexcept>

namespace
{

using indexes = std::vector<uint32_t>;

class platform_table_rules : public platform_table_test,
                             public testing::WithParamInterface<platform_table>
{
  protected:
    const platform_table &table = GetParam();

    // Six entries, of which these are rows.
    void build_with_rows(const indexes &wanted)
    {
        build_rows(6);
        for (const uint32_t i : wanted) {
            table.make_row(*kavplat::entry_at(i));
        }
    }

    // As a walk finds them: a discrete sensor has three rows.
    indexes found(const indexes &entities) const
    {
        indexes all;
        for (const uint32_t i : entities) {
            all.insert(all.end(), table.indexes == 2 ? 3 : 1, i);
        }
        return all;
    }

    indexes walked(uint32_t start = 0) const { return indexes_of(table, start); }

    // Any row's context will do where the handler does not come to serve it.
    const void *any_row()
    {
        table_steps steps(table.first, table.next, table.indexes);
        EXPECT_TRUE(steps.first());
        end_pass();
        return steps.row();
    }

    std::string handler_name() const { return table.name + std::string("_handler"); }
};

INSTANTIATE_TEST_SUITE_P(each, platform_table_rules, testing::ValuesIn(platform_tables),
                         [](const auto &info) { return std::string(info.param.name); });

// ---- Walks ----

TEST_P(platform_table_rules, a_walk_finds_the_rows_in_ascending_order)
{
    build_with_rows({2, 4, 5});
    EXPECT_EQ(walked(), found({2, 4, 5}));
}

TEST_P(platform_table_rules, no_entry_of_its_own_no_rows)
{
    build_with_rows({});
    EXPECT_EQ(walked(), indexes());
}

TEST_P(platform_table_rules, first_and_last_entry_are_rows)
{
    build_with_rows({1, 6});
    EXPECT_EQ(walked(), found({1, 6}));
}

TEST_P(platform_table_rules, holes_are_skipped)
{
    build_with_rows({1, 2, 3, 4, 6});
    // Not through a hot removal, which takes the whole subtree.
    {
        const cache_lock_held lock;
        free_local_cache_entry(3);
        free_local_cache_entry(6);
    }
    EXPECT_EQ(walked(), found({1, 2, 4}));
}

TEST_P(platform_table_rules, a_walk_starts_at_the_index_of_the_varbind)
{
    build_with_rows({1, 3, 6});
    EXPECT_EQ(walked(1), found({1, 3, 6}));
    EXPECT_EQ(walked(2), found({3, 6}));
    EXPECT_EQ(walked(3), found({3, 6}));
    EXPECT_EQ(walked(4), found({6}));
}

TEST_P(platform_table_rules, the_highest_index_is_a_start_and_only_what_is_above_it_begins_at_1)
{
    build_with_rows({1, 3, 6});
    EXPECT_EQ(walked(6), found({6}));
    EXPECT_EQ(walked(7), found({1, 3, 6}));
    EXPECT_EQ(walked(4294967295U), found({1, 3, 6}));
}

TEST_P(platform_table_rules, a_step_leaves_entity_and_index)
{
    build_with_rows({2, 5});
    table_steps steps(table.first, table.next, table.indexes);
    ASSERT_TRUE(steps.first());
    EXPECT_EQ(steps.index(), 2U);
    if (table.indexes == 1) {
        EXPECT_EQ(steps.row(), kavplat::entry_at(2));
        EXPECT_EQ(steps.loop_context, reinterpret_cast<void *>(uintptr_t{2}));
        ASSERT_TRUE(steps.next());
        EXPECT_EQ(steps.row(), kavplat::entry_at(5));
        EXPECT_EQ(steps.loop_context, reinterpret_cast<void *>(uintptr_t{5}));
    } else {
        EXPECT_NE(steps.row(), nullptr);
        EXPECT_EQ(steps.index(1), 1U);
    }
    end_pass();
}

// A walk goes on in the next column only because its index varbind is 0 then.
TEST_P(platform_table_rules, the_end_of_a_scan_sets_the_index_to_0)
{
    build_with_rows({2});
    table_steps steps(table.first, table.next, table.indexes);
    ASSERT_TRUE(steps.first());
    while (steps.next()) {
        EXPECT_EQ(steps.index(), 2U);
    }
    EXPECT_EQ(steps.index(), 0U);

    // By get-first too, that passes on to get-next.
    table_steps behind(table.first, table.next, table.indexes);
    behind.set_index(3);
    EXPECT_FALSE(behind.first());
    EXPECT_EQ(behind.index(), 0U);
    end_pass();
}

TEST_P(platform_table_rules, a_removed_entity_does_not_stop_the_walk)
{
    build_with_rows({2, 3, 5});
    table_steps steps(table.first, table.next, table.indexes);
    ASSERT_TRUE(steps.first());
    const indexes second = table.indexes == 2 ? indexes{2} : indexes{3};
    ASSERT_TRUE(steps.next());
    EXPECT_EQ(steps.index(), second[0]);
    {
        const cache_lock_held lock;
        free_local_cache_entry(2);
        free_local_cache_entry(3);
    }
    ASSERT_TRUE(steps.next());
    EXPECT_EQ(steps.index(), 5U);
    end_pass();
}

TEST_P(platform_table_rules, the_highest_index_is_read_anew_at_every_step)
{
    build_with_rows({2, 6});
    table_steps steps(table.first, table.next, table.indexes);
    ASSERT_TRUE(steps.first());
    for (unsigned states = table.indexes == 2 ? 2 : 0; states != 0; states--) {
        ASSERT_TRUE(steps.next());
    }
    plug({"/SYS/LATE"});
    update("/SYS");
    ASSERT_EQ(maxPhysicalIndex, 7U);
    kavplat::entry_at(7)->entPhysicalClass = port_class;
    table.make_row(*kavplat::entry_at(7));
    kavplat::entry_at(6)->entPhysicalClass = port_class;
    ASSERT_TRUE(steps.next());
    EXPECT_EQ(steps.index(), 7U);
    end_pass();
}

// ---- An empty cache ----

// Where the emptiness of the cache is looked at first, the walk's state stays as it
// was; elsewhere an empty cache is a scan that finds nothing.
TEST_P(platform_table_rules, an_empty_cache_has_no_rows)
{
    ASSERT_EQ(maxPhysicalIndex, 0U);
    ASSERT_EQ(physicalTable, nullptr);
    table_steps first(table.first, table.next, table.indexes);
    first.set_index(77);
    first.loop_context = &first;
    EXPECT_FALSE(first.first());
    EXPECT_EQ(first.index(), table.empty == empty_check::none ? 0U : 77U);
    EXPECT_EQ(first.loop_context == &first, table.empty == empty_check::both);

    table_steps next(table.first, table.next, table.indexes);
    next.set_index(77);
    next.loop_context = reinterpret_cast<void *>(uintptr_t{1});
    EXPECT_FALSE(next.next());
    EXPECT_EQ(next.index(), table.empty == empty_check::none ? 0U : 77U);
    end_pass();
}

TEST_P(platform_table_rules, a_missing_array_of_slots_is_an_empty_cache)
{
    build_with_rows({2});
    phys_entry **slots = std::exchange(physicalTable, nullptr);
    table_steps first(table.first, table.next, table.indexes);
    first.set_index(2);
    EXPECT_FALSE(first.first());
    EXPECT_EQ(first.index(), table.empty == empty_check::none ? 0U : 2U);

    table_steps next(table.first, table.next, table.indexes);
    next.set_index(2);
    EXPECT_FALSE(next.next());
    EXPECT_EQ(next.index(), table.empty == empty_check::none ? 0U : 2U);
    physicalTable = slots;
    end_pass();
}

TEST_P(platform_table_rules, a_highest_index_of_0_is_an_empty_cache)
{
    build_with_rows({2});
    maxPhysicalIndex = 0;
    table_steps first(table.first, table.next, table.indexes);
    first.set_index(2);
    EXPECT_FALSE(first.first());
    EXPECT_EQ(first.index(), table.empty == empty_check::none ? 0U : 2U);
    maxPhysicalIndex = 6;
    end_pass();
}

// ---- Traces ----

TEST_P(platform_table_rules, index_dumps)
{
    build_with_rows({2, 4});
    // The six columns of the dump line, of one step.
    const auto line = [](uint32_t index, const char *caller) {
        const phys_entry *e = kavplat::entry_at(index);
        const bool is_row = e && e->entPhysicalClass != static_cast<int32_t>(port_class);
        const auto address =
            static_cast<unsigned>(reinterpret_cast<uintptr_t>(is_row ? e : nullptr));
        return text_of("%4u %4lu %4lu 0x%8x %4d %40s %s\n", index,
                       static_cast<unsigned long>(is_row ? index : 0), 6UL, address,
                       is_row ? e->entPhysicalClass : 0, is_row ? e->entPhysicalName : "NULL",
                       caller);
    };
    const std::string first = table.name + std::string("_get_first_data_point");
    const std::string next = table.name + std::string("_get_next_data_point");
    const auto first_line = [&](uint32_t index) { return line(index, first.c_str()); };
    const auto next_line = [&](uint32_t index) { return line(index, next.c_str()); };

    std::vector<std::string> from_1;
    std::vector<std::string> from_2;
    switch (table.dump) {
    case dumped::nothing:
        break;
    case dumped::steps:
        from_1 = {first_line(1), next_line(2), next_line(4), line(4, next.c_str())};
        // The step that finds nothing more names where it stood.
        from_1.back() =
            text_of("%4u %4lu %4lu 0x%8x %4d %40s %s\n", 4U, 0UL, 6UL, 0U, 0, "NULL", next.c_str());
        from_2 = {first_line(2), next_line(4), from_1.back()};
        break;
    case dumped::rows:
        from_1 = {next_line(2), next_line(4)};
        from_2 = {first_line(2), next_line(4)};
        break;
    case dumped::rows_of_next:
        from_1 = {next_line(2), next_line(4)};
        from_2 = {next_line(4)};
        if (table.indexes == 2) {
            from_1 = {next_line(2), next_line(2), next_line(2),
                      next_line(4), next_line(4), next_line(4)};
            from_2.assign(from_1.begin() + 1, from_1.end());
        }
        break;
    }
    for (const auto &[start, lines] : {std::pair{1U, from_1}, {2U, from_2}}) {
        agent_log log({"kavPlat::index", "trace"});
        EXPECT_EQ(walked(start), found({2, 4}));
        EXPECT_EQ(log.debug_texts("kavPlat::index"), lines) << "from " << start;
        if (!lines.empty()) {
            EXPECT_TRUE(log.all_traced("kavPlat::index", "kavPlatMIB"));
        }
    }
}

// A table whose rows are all entries of a class looks them up by it, and that is traced.
TEST_P(platform_table_rules, lookups_by_class)
{
    static const std::map<std::string, int> class_of = {
        {"kavPlatPhysicalTable", 1},    {"kavPlatEquipmentHolderTable", 5},
        {"kavPlatPowerSupplyTable", 6}, {"kavPlatFanTable", 7},
        {"kavPlatSensorTable", 8},      {"kavPlatCircuitPackTable", 9},
    };
    build_with_rows({2, 4});
    const auto found_class = class_of.find(table.name);
    const int wanted = found_class != class_of.end() ? found_class->second : 0;
    const auto at = [&](unsigned index) {
        return std::vector<std::string>{
            text_of("get_entry_by_ent_class idx=%u, class=%d\n", index, wanted),
            text_of("get_entry:idx=%u\n", index)};
    };
    const auto after = [](unsigned index) {
        return text_of("getnext_entry_by_ent_class idx=%u, maxPhysicalIndex=6\n", index);
    };
    const auto row = [](unsigned index, const char *caller) {
        const phys_entry *e = kavplat::entry_at(index);
        return text_of("%4u %4u    6 0x%8x %s %s\n", index, index,
                       static_cast<unsigned>(reinterpret_cast<uintptr_t>(e)), e->entPhysicalName,
                       caller);
    };
    const std::string end =
        text_of("getnext_entry_by_ent_class: index 7 for class %d NOT FOUND\n", wanted);

    struct {
        unsigned start;
        std::vector<std::string> lookups;
        std::vector<std::string> rows;
    } cases[] = {
        {1, at(1), {row(1, "get_entry"), row(2, "getnext_entry_by_ent_class")}},
        {2, at(2), {row(2, "get_entry"), row(2, "get_entry_by_ent_class")}},
    };
    cases[0].lookups.push_back(
        text_of("get_entry_by_ent_class: index 1 for class %d NOT FOUND\n", wanted));
    cases[0].lookups.push_back(after(1));
    for (auto &[start, lookups, rows] : cases) {
        lookups.insert(lookups.end(), {after(2), after(4), end});
        rows.push_back(row(4, "getnext_entry_by_ent_class"));
        if (wanted == 0) {
            lookups.clear();
            rows.clear();
        }
        const agent_log log({"IDX", "kavdata:index"});
        EXPECT_EQ(walked(start), found({2, 4}));
        EXPECT_EQ(log.debug_texts("IDX"), lookups) << "from " << start;
        EXPECT_EQ(log.debug_texts("kavdata:index"), rows) << "from " << start;
    }
}

TEST_P(platform_table_rules, nothing_is_dumped_while_debugging_is_off)
{
    build_with_rows({2, 4});
    agent_log log;
    EXPECT_EQ(walked(), found({2, 4}));
    EXPECT_TRUE(log.records().empty());
}

// ---- Columns ----

TEST_P(platform_table_rules, every_column_is_answered)
{
    build_with_rows({2});
    const void *row = any_row();
    for (unsigned column = table.min_column; column <= table.max_column; column++) {
        const agent_log log;
        EXPECT_NE(served(table.handler, column, row).type, ASN_NULL) << "column " << column;
        EXPECT_TRUE(log.texts(LOG_ERR).empty()) << "column " << column;
    }
}

TEST_P(platform_table_rules, an_unknown_column_is_logged_once_and_not_answered)
{
    build_with_rows({2});
    const void *row = any_row();
    for (const unsigned column : {0U, table.min_column - 1, table.max_column + 1, 255U}) {
        const agent_log log;
        handler_call call;
        call.add(column, row);
        EXPECT_EQ(call.run(table.handler), SNMP_ERR_NOERROR);
        EXPECT_EQ(call.answer(0), no_value()) << "column " << column;
        EXPECT_EQ(call.error(0), SNMP_ERR_NOERROR);
        EXPECT_FALSE(call.is_processed(0));
        EXPECT_EQ(
            log.texts(LOG_ERR),
            std::vector<std::string>(1, text_of("%s:unknown column (%d)\n", handler_name().c_str(),
                                                static_cast<int>(column))));
    }
}

// ---- Requests ----

TEST_P(platform_table_rules, a_request_without_a_row_has_no_such_instance)
{
    build_with_rows({2});
    platform.forget_calls();
    const agent_log log;
    handler_call call;
    call.add(table.min_column, nullptr);
    call.add(table.max_column + 1, nullptr);
    EXPECT_EQ(call.run(table.handler), SNMP_ERR_NOERROR);
    EXPECT_EQ(call.answer(0), no_value(SNMP_NOSUCHINSTANCE));
    EXPECT_EQ(call.answer(1), no_value(SNMP_NOSUCHINSTANCE));
    EXPECT_TRUE(log.records().empty());
    EXPECT_TRUE(platform.all_calls().empty());
}

// In RESERVE1, the first mode of a SET, net-snmp makes noCreation of it.
TEST_P(platform_table_rules, a_set_without_a_row_gets_that_and_nothing_further)
{
    build_with_rows({2});
    handler_call call(MODE_SET_RESERVE1);
    call.add(table.min_column, nullptr);
    const bool answers = table.modes == other_modes::refused;
    EXPECT_EQ(call.run(table.handler), SNMP_ERR_NOERROR);
    EXPECT_EQ(call.error(0), answers ? SNMP_ERR_NOCREATION : SNMP_ERR_NOERROR);
}

TEST_P(platform_table_rules, a_request_without_a_row_hides_no_other)
{
    build_with_rows({2});
    const void *row = any_row();
    const snmp_value value = served(table.handler, table.min_column, row);
    handler_call call;
    call.add(table.min_column, row);
    call.add(table.min_column, nullptr);
    call.add_without_table_info(row);
    call.add(table.min_column, row).processed = 1;
    call.add(table.min_column, row);
    EXPECT_EQ(call.run(table.handler), SNMP_ERR_NOERROR);
    EXPECT_EQ(call.answer(0), value);
    EXPECT_EQ(call.answer(1), no_value(SNMP_NOSUCHINSTANCE));
    EXPECT_EQ(call.answer(2), no_value()) << "without table information";
    EXPECT_EQ(call.answer(3), no_value()) << "processed already";
    EXPECT_EQ(call.answer(4), value);
}

TEST_P(platform_table_rules, no_requests_at_all)
{
    for (const int mode : std::vector<int>{MODE_GET, MODE_SET_RESERVE1, MODE_GETNEXT}) {
        handler_call call(mode);
        EXPECT_EQ(call.run(table.handler), SNMP_ERR_NOERROR) << "mode " << mode;
        EXPECT_EQ(pthread_mutex_trylock(&fru_mutex), 0) << "mode " << mode;
        pthread_mutex_unlock(&fru_mutex);
    }
}

// ---- Modes ----

TEST_P(platform_table_rules, every_mode_of_a_set)
{
    build_with_rows({2});
    const void *row = any_row();
    const bool refuses = table.modes == other_modes::refused;
    const int expected = refuses ? SNMP_ERR_NOTWRITABLE : SNMP_ERR_NOERROR;
    for (int mode = MODE_SET_RESERVE1; mode <= MODE_SET_UNDO; mode++) {
        const agent_log log;
        handler_call call(mode);
        call.add(table.min_column, row);
        call.add(table.max_column, row);
        EXPECT_EQ(call.run(table.handler), expected) << "mode " << mode;
        for (const size_t i : {0U, 1U}) {
            EXPECT_EQ(call.error(i), expected) << "mode " << mode;
            EXPECT_EQ(call.answer(i), no_value()) << "mode " << mode;
        }
        EXPECT_TRUE(log.records().empty()) << "mode " << mode;
    }
}

// A later request that is not refused does not hide that one was.
TEST_P(platform_table_rules, a_set_is_refused_as_a_whole)
{
    build_with_rows({2});
    const void *row = any_row();
    handler_call call(MODE_SET_RESERVE1);
    call.add(table.min_column, row);
    call.add(table.min_column, nullptr);
    EXPECT_EQ(call.run(table.handler),
              table.modes == other_modes::refused ? SNMP_ERR_NOTWRITABLE : SNMP_ERR_NOERROR);
}

TEST_P(platform_table_rules, a_mode_that_is_neither_get_nor_set)
{
    build_with_rows({2});
    const void *row = any_row();
    for (const int mode : std::vector<int>{-1, 6, 159, MODE_GETNEXT, MODE_GETBULK, 1000}) {
        const agent_log log;
        handler_call call(mode);
        call.add(table.min_column, row);
        if (table.modes == other_modes::refused) {
            EXPECT_EQ(call.run(table.handler), SNMP_ERR_GENERR) << "mode " << mode;
            EXPECT_EQ(log.texts(LOG_ERR),
                      std::vector<std::string>(
                          1, text_of(table.unsupported_mode, handler_name().c_str(), mode)));
        } else {
            EXPECT_EQ(call.run(table.handler), SNMP_ERR_NOERROR) << "mode " << mode;
            EXPECT_TRUE(log.records().empty()) << "mode " << mode;
        }
        EXPECT_EQ(call.error(0), SNMP_ERR_NOERROR) << "mode " << mode;
        EXPECT_EQ(call.answer(0), no_value()) << "mode " << mode;
    }
}

// ---- Locking ----

TEST_P(platform_table_rules, the_cache_is_locked_for_the_call)
{
    build_with_rows({2});
    const void *row = any_row();
    for (const int mode : std::vector<int>{MODE_GET, MODE_SET_RESERVE1, MODE_GETNEXT}) {
        unsigned locked = 0;
        fake_system::on_pthread_mutex_lock.set([&](pthread_mutex_t *mutex) {
            locked += mutex == &fru_mutex ? 1 : 0;
            return pthread_mutex_lock(mutex);
        });
        unsigned unlocked = 0;
        fake_system::on_pthread_mutex_unlock.set([&](pthread_mutex_t *mutex) {
            unlocked += mutex == &fru_mutex ? 1 : 0;
            return pthread_mutex_unlock(mutex);
        });
        const agent_log log;
        handler_call call(mode);
        call.add(table.min_column, row);
        call.run(table.handler);
        fake_system::on_pthread_mutex_lock.clear();
        fake_system::on_pthread_mutex_unlock.clear();
        const bool without = mode != MODE_GET && table.modes == other_modes::ignored_without_lock;
        EXPECT_EQ(locked, without ? 0U : 1U) << "mode " << mode;
        EXPECT_EQ(unlocked, locked) << "mode " << mode;
    }
}

TEST_P(platform_table_rules, the_platform_is_asked_under_the_lock)
{
    build_with_rows({2});
    phys_entry &e = *kavplat::entry_at(2);
    std::fill(std::begin(e.capiCaps), std::end(e.capiCaps), uint8_t{0xFF});
    const void *row = any_row();
    std::vector<std::string> asked_without;
    size_t asked = 0;
    {
        const auto server = platform.locked();
        server->on_call = [&](const fake_call &c) {
            asked++;
            if (pthread_mutex_trylock(&fru_mutex) == 0) {
                pthread_mutex_unlock(&fru_mutex);
                asked_without.push_back(c.function);
            }
        };
    }
    const agent_log log;
    for (unsigned column = table.min_column; column <= table.max_column; column++) {
        e.lastReadTime = 0;
        served(table.handler, column, row);
    }
    platform->on_call = nullptr;
    EXPECT_EQ(asked_without, std::vector<std::string>());
    const std::string name = table.name;
    const bool live = name == "kavPlatEquipmentTable" || name == "kavPlatEquipmentHolderTable" ||
                      name == "kavPlatAlarmTable" || name == "kavPlatSensorTable" ||
                      name == "kavPlatBinarySensorTable" || name == "kavPlatNumericSensorTable" ||
                      name == "kavPlatDiscreteSensorTable";
    EXPECT_EQ(asked != 0, live) << asked << " calls";
}

TEST_P(platform_table_rules, walking_takes_no_lock)
{
    build_with_rows({2, 4});
    const cache_lock_held lock;
    table_steps steps(table.first, table.next, table.indexes);
    indexes all;
    for (bool more = steps.first(); more; more = steps.next()) {
        all.push_back(steps.index());
    }
    EXPECT_EQ(all, found({2, 4}));
    kavplat::end_agent_pass();
}

// ---- Deinitialising ----

TEST_P(platform_table_rules, deinitialising_does_nothing)
{
    build_with_rows({2});
    const agent_log log({"kavPlatMIB", "trace"});
    table.deinitialize();
    EXPECT_TRUE(log.records().empty());
    EXPECT_EQ(walked(), found({2}));
}

} // namespace

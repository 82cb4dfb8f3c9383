// The tables that list one class of hardware each.

#include "rooms/platform_tables.h"

namespace
{

using indexes = std::vector<uint32_t>;

class hardware_tables : public platform_table_test
{
  protected:
    static constexpr const char *name = "/SYS/C0";

    void SetUp() override
    {
        build_rows(2);
        std::fill(std::begin(entry().capiCaps), std::end(entry().capiCaps), uint8_t{0});
        platform.forget_calls();
    }

    static phys_entry &entry() { return *kavplat::entry_at(2); }

    snmp_value column(const char *table, unsigned number)
    {
        return served(table_named(table).handler, number, &entry());
    }
};

TEST_F(hardware_tables, each_lists_its_class)
{
    build_rows(13);
    for (int32_t i = 1; i <= 13; i++) {
        kavplat::entry_at(static_cast<uint32_t>(i))->entPhysicalClass = i - 1;
        kavplat::entry_at(static_cast<uint32_t>(i))->powerSupplyValue = 3;
    }
    // Class is index - 1.
    EXPECT_EQ(indexes_of(table_named("kavPlatPhysicalTable")), indexes{2});
    EXPECT_EQ(indexes_of(table_named("kavPlatEquipmentHolderTable")), indexes{6});
    EXPECT_EQ(indexes_of(table_named("kavPlatCircuitPackTable")), indexes{10});
    EXPECT_EQ(indexes_of(table_named("kavPlatPowerSupplyTable")), indexes{7});
    EXPECT_EQ(indexes_of(table_named("kavPlatFanTable")), indexes{8});
    EXPECT_EQ(indexes_of(table_named("kavPlatBatteryTable")), indexes{7});
}

TEST_F(hardware_tables, a_battery_is_in_both_tables_of_power)
{
    build_rows(5);
    for (uint32_t i = 1; i <= 5; i++) {
        kavplat::entry_at(i)->entPhysicalClass = PHYSICAL_CLASS_POWER_SUPPLY;
        kavplat::entry_at(i)->powerSupplyValue = static_cast<int32_t>(i);
    }
    EXPECT_EQ(indexes_of(table_named("kavPlatPowerSupplyTable")), (indexes{1, 2, 3, 4, 5}));
    EXPECT_EQ(indexes_of(table_named("kavPlatBatteryTable")), indexes{3});
}

TEST_F(hardware_tables, every_entity_of_class_other_has_a_finer_class)
{
    build_rows(3);
    for (uint32_t i = 1; i <= 3; i++) {
        kavplat::entry_at(i)->entPhysicalClass = PHYSICAL_CLASS_OTHER;
        kavplat::entry_at(i)->platPhysicalClass = static_cast<int32_t>(i);
    }
    EXPECT_EQ(indexes_of(table_named("kavPlatPhysicalTable")), (indexes{1, 2, 3}));
    for (uint32_t i = 1; i <= 3; i++) {
        EXPECT_EQ(served(kavPlatPhysicalTable_handler, 1, kavplat::entry_at(i)),
                  integer_value(static_cast<int32_t>(i)));
    }
}

// As no two fields agree, a column that served another's would be noticed.
TEST_F(hardware_tables, columns_serve_their_fields)
{
    phys_entry &e = entry();
    e.platPhysicalClass = 11;
    e.holderCol1 = 12;
    set_text(*reinterpret_cast<char(*)[HOLDER_TEXT_SIZE]>(e.holderCol2), "bay of disks");
    e.holderCol3 = 13;
    e.holderCol4 = -14;
    e.circuitPackFlag = 0x95;
    e.circuitPackValue1 = 15;
    e.circuitPackValue2 = 16;
    e.powerSupplyValue = 17;
    e.powerSupplyCol2 = 18;
    e.discreteSensorCol2 = 19;
    EXPECT_EQ(column("kavPlatPhysicalTable", 1), integer_value(11));
    EXPECT_EQ(column("kavPlatEquipmentHolderTable", 1), integer_value(12));
    EXPECT_EQ(column("kavPlatEquipmentHolderTable", 2), octets_value("bay of disks"));
    EXPECT_EQ(column("kavPlatEquipmentHolderTable", 3), integer_value(13));
    EXPECT_EQ(column("kavPlatEquipmentHolderTable", 4), integer_value(-14));
    EXPECT_EQ(column("kavPlatCircuitPackTable", 2), octets_value("\x95"));
    EXPECT_EQ(column("kavPlatCircuitPackTable", 3), integer_value(15));
    EXPECT_EQ(column("kavPlatCircuitPackTable", 4), integer_value(16));
    EXPECT_EQ(column("kavPlatPowerSupplyTable", 1), integer_value(17));
    EXPECT_EQ(column("kavPlatBatteryTable", 1), integer_value(18));
    EXPECT_EQ(column("kavPlatFanTable", 1), integer_value(19));
    EXPECT_TRUE(platform.all_calls().empty()) << "none of these asks the platform";
}

TEST_F(hardware_tables, as_built)
{
    EXPECT_EQ(column("kavPlatPhysicalTable", 1), integer_value(1));
    EXPECT_EQ(column("kavPlatEquipmentHolderTable", 1), integer_value(4));
    EXPECT_EQ(column("kavPlatEquipmentHolderTable", 2), octets_value(""));
    EXPECT_EQ(column("kavPlatEquipmentHolderTable", 3), integer_value(4));
    EXPECT_EQ(column("kavPlatEquipmentHolderTable", 4), integer_value(2));
    EXPECT_EQ(column("kavPlatCircuitPackTable", 2), octets_value(std::string(1, '\0')));
    EXPECT_EQ(column("kavPlatCircuitPackTable", 3), integer_value(2));
    EXPECT_EQ(column("kavPlatCircuitPackTable", 4), integer_value(2));
    EXPECT_EQ(column("kavPlatPowerSupplyTable", 1), integer_value(2));
    EXPECT_EQ(column("kavPlatBatteryTable", 1), integer_value(2));
    EXPECT_EQ(column("kavPlatFanTable", 1), integer_value(2));
}

TEST_F(hardware_tables, the_type_of_a_circuit_pack_is_empty_though_the_entry_has_one)
{
    set_text(entry().entPhysicalDescr, "a riser card");
    ASSERT_STREQ(entry().circuitPackDescr, "a riser card");
    EXPECT_EQ(column("kavPlatCircuitPackTable", 1), octets_value(""));
}

TEST_F(hardware_tables, a_holder_text_that_has_no_memory_is_empty)
{
    char *text = std::exchange(entry().holderCol2, nullptr);
    EXPECT_EQ(column("kavPlatEquipmentHolderTable", 2), octets_value(""));
    entry().holderCol2 = text;
}

// ---- The power of a holder ----

TEST_F(hardware_tables, each_power_state_of_a_holder)
{
    entry().capiCaps[3] = 0x02;
    for (const auto &[power, state] :
         {std::pair{1, 4}, {2, 3}, {3, 1}, {4, 1}, {0, 2}, {5, 2}, {-1, 2}}) {
        platform->power_states[name] = power;
        entry().holderCol4 = 77;
        EXPECT_EQ(column("kavPlatEquipmentHolderTable", 4), integer_value(state)) << power;
        EXPECT_EQ(entry().holderCol4, state) << power;
    }
    EXPECT_EQ(platform.calls("capi_get_power_state", name), 7U);
}

TEST_F(hardware_tables, the_power_of_a_holder_is_asked_where_it_is_readable_or_controllable)
{
    platform->power_states[name] = CAPI_POWER_ON;
    for (unsigned caps = 0; caps < 256; caps++) {
        platform.forget_calls();
        entry().capiCaps[3] = static_cast<uint8_t>(caps);
        entry().holderCol4 = 77;
        const bool asked = (caps & 0x06) != 0;
        EXPECT_EQ(column("kavPlatEquipmentHolderTable", 4), integer_value(asked ? 3 : 77)) << caps;
        EXPECT_EQ(platform.calls("capi_get_power_state"), asked ? 1U : 0U) << caps;
    }
    std::fill(std::begin(entry().capiCaps), std::end(entry().capiCaps), uint8_t{0xFF});
    entry().capiCaps[3] = 0;
    entry().holderCol4 = 77;
    EXPECT_EQ(column("kavPlatEquipmentHolderTable", 4), integer_value(77));
}

TEST_F(hardware_tables, a_power_state_that_cannot_be_read_stays)
{
    entry().capiCaps[3] = 0x04;
    entry().holderCol4 = 3;
    EXPECT_EQ(column("kavPlatEquipmentHolderTable", 4), integer_value(3));
    EXPECT_EQ(platform.calls("capi_get_power_state", name), 1U);
    EXPECT_EQ(entry().holderCol4, 3);
}

TEST_F(hardware_tables, the_power_of_a_holder_is_read_at_every_request)
{
    entry().capiCaps[3] = 0x02;
    entry().lastReadTime = static_cast<uint32_t>(uptime);
    platform->power_states[name] = CAPI_POWER_ON;
    EXPECT_EQ(column("kavPlatEquipmentHolderTable", 4), integer_value(3));
    platform->power_states[name] = CAPI_POWER_OFF;
    EXPECT_EQ(column("kavPlatEquipmentHolderTable", 4), integer_value(4));
    EXPECT_EQ(entry().lastReadTime, uptime) << "not stamped";
}

TEST_F(hardware_tables, only_column_4_of_a_holder_asks_for_power)
{
    entry().capiCaps[3] = 0x06;
    for (const unsigned number : {1U, 2U, 3U}) {
        column("kavPlatEquipmentHolderTable", number);
    }
    EXPECT_EQ(platform.calls("capi_get_power_state"), 0U);
}

// ---- Watchdogs ----

TEST_F(hardware_tables, rows_of_the_watchdog_table)
{
    build_rows(5);
    for (uint32_t i = 1; i <= 5; i++) {
        kavplat::entry_at(i)->entPhysicalClass = PHYSICAL_CLASS_OTHER;
        kavplat::entry_at(i)->platPhysicalClass = static_cast<int32_t>(i);
    }
    EXPECT_EQ(indexes_of(watchdog_table), indexes{3});
    EXPECT_EQ(indexes_of(table_named("kavPlatAlarmTable")), indexes{2});
    kavplat::entry_at(3)->entPhysicalClass = PHYSICAL_CLASS_MODULE;
    EXPECT_EQ(indexes_of(watchdog_table), indexes());
}

TEST_F(hardware_tables, a_watchdog_as_built)
{
    EXPECT_EQ(column("kavPlatWatchdogTable", 1), integer_value(0));
    EXPECT_EQ(column("kavPlatWatchdogTable", 2), integer_value(1));
    EXPECT_EQ(column("kavPlatWatchdogTable", 3), octets_value(""));
    EXPECT_EQ(column("kavPlatWatchdogTable", 4), integer_value(1));
}

TEST_F(hardware_tables, columns_of_a_watchdog_serve_their_fields)
{
    entry().watchdogCol1 = -21;
    entry().watchdogCol2 = 22;
    EXPECT_EQ(column("kavPlatWatchdogTable", 1), integer_value(-21));
    EXPECT_EQ(column("kavPlatWatchdogTable", 2), integer_value(22));
}

// The same on hosts of either byte order.
TEST_F(hardware_tables, one_word_of_a_watchdog_is_text_and_number)
{
    entry().watchdogCol3 = 0x41420043; // "AB", NUL, "C"
    EXPECT_EQ(column("kavPlatWatchdogTable", 3), octets_value("AB"));
    EXPECT_EQ(column("kavPlatWatchdogTable", 4), integer_value(0x41420043));
    entry().watchdogCol3 = 0x41424344; // without a NUL
    EXPECT_EQ(column("kavPlatWatchdogTable", 3), octets_value("ABCD"));
    entry().watchdogCol3 = 0x00424344;
    EXPECT_EQ(column("kavPlatWatchdogTable", 3), octets_value(""));
}

// Whatever a platform lists, nothing of it becomes a watchdog or a battery.
TEST_F(hardware_tables, no_component_type_makes_a_watchdog_or_a_battery)
{
    std::vector<fake_component> components = {component("/SYS", CAPI_TYPE_SYSTEM)};
    for (uint32_t type = 0; type < 300; type++) {
        components.push_back(component(("/SYS/T" + std::to_string(type)).c_str(), type));
    }
    platform->components = components;
    platform->sensor_types = {18, 19, 26, 30};
    platform->indicator_types = {31};
    init_local_cache();
    ASSERT_EQ(maxPhysicalIndex, 301U);
    EXPECT_EQ(indexes_of(watchdog_table), indexes());
    EXPECT_EQ(indexes_of(table_named("kavPlatBatteryTable")), indexes());
    EXPECT_NE(indexes_of(table_named("kavPlatPowerSupplyTable")), indexes());
}

} // namespace

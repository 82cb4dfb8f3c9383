// What docs/oddities.md tells of several rooms or tables at once.

#include "rooms/platform_tables.h"

namespace
{

constexpr unsigned oper_state = 2;
constexpr unsigned severity = 3;
constexpr unsigned state_unknown = 4;

class oddities : public platform_table_test
{
  protected:
    static constexpr const char *name = "/SYS/S";

    // "/SYS" and one sensor.
    void build_sensor(const capi_sensor_record &record)
    {
        constexpr uint32_t type = 30;
        platform->components = {component("/SYS", plain), component(name, type)};
        platform->sensor_types = {type};
        platform->sensors[name] = record;
        init_local_cache();
        ASSERT_EQ(maxPhysicalIndex, 2U);
    }

    static phys_entry &entry() { return *kavplat::entry_at(2); }
    static snmp_value equipment(unsigned column)
    {
        return served(kavPlatEquipmentTable_handler, column, &entry());
    }
    static snmp_value numeric(unsigned column)
    {
        return served(kavPlatNumericSensorTable_handler, column, &entry());
    }
    size_t reads() { return platform.calls("capi_get_sensor", name); }
};

TEST_F(oddities, a_refresh_leaves_whole_limits_beside_a_scaled_reading_until_the_next_read)
{
    capi_sensor_record record = threshold_sensor(CAPI_SENSOR_TEMPERATURE, 25.5F);
    record.upper_fatal = 90.0F;
    record.flags = CAPI_UPPER_FATAL_VALID;
    build_sensor(record);
    EXPECT_EQ(equipment(severity), integer_value(7));

    reload_thresholds(name);
    fake_system::set_uptime(uptime + 999);
    EXPECT_EQ(numeric(4), integer_value(25500));
    EXPECT_EQ(numeric(2), integer_value(0));
    EXPECT_EQ(numeric(13), integer_value(90));
    EXPECT_EQ(equipment(severity), integer_value(1)) << "25500 is above 90";
    EXPECT_EQ(reads(), 1U);

    fake_system::set_uptime(uptime + 1000);
    EXPECT_EQ(equipment(severity), integer_value(7));
    EXPECT_EQ(numeric(2), integer_value(-3));
    EXPECT_EQ(numeric(13), integer_value(90000));
}

TEST_F(oddities, neither_state_column_of_a_sensor_reads_it)
{
    capi_sensor_record record = threshold_sensor(CAPI_SENSOR_TEMPERATURE, 25.0F);
    record.reading_status = CAPI_READING_INVALID;
    build_sensor(record);
    EXPECT_EQ(equipment(oper_state), integer_value(2));
    EXPECT_EQ(equipment(state_unknown), integer_value(2));
    EXPECT_EQ(reads(), 0U);

    EXPECT_EQ(equipment(severity), integer_value(4));
    EXPECT_EQ(equipment(oper_state), integer_value(1));
    EXPECT_EQ(equipment(state_unknown), integer_value(1));

    // A read that fails altogether leaves both as they are, for better and for worse.
    platform->sensors[name].reading_status = CAPI_READING_VALID;
    platform->fail["capi_get_sensor"] = -1;
    EXPECT_EQ(equipment(severity), integer_value(4));
    EXPECT_EQ(equipment(oper_state), integer_value(1));
    EXPECT_EQ(equipment(state_unknown), integer_value(1));

    platform->fail.clear();
    EXPECT_EQ(equipment(oper_state), integer_value(1)) << "not read yet";
    EXPECT_EQ(equipment(severity), integer_value(7));
    EXPECT_EQ(equipment(oper_state), integer_value(2));
    EXPECT_EQ(equipment(state_unknown), integer_value(2));
}

TEST_F(oddities, a_sensor_that_is_only_asked_for_its_enable_state_shows_its_defaults)
{
    build_sensor(discrete_sensor(CAPI_SENSOR_PRESENCE, 2.0F));
    entry().capiCaps[CAPI_CAP_ENABLE_STATE_BYTE] |= CAPI_CAP_ENABLE_STATE;
    platform->enable_states[name] = {CAPI_ENABLED, ""};
    EXPECT_EQ(equipment(oper_state), integer_value(2));
    for (const auto &[column, value] :
         {std::pair{1U, integer_value(2)}, {3U, octets_value("")}, {4U, octets_value("")}}) {
        EXPECT_EQ(served(kavPlatBinarySensorTable_handler, column, &entry()), value) << column;
    }
    EXPECT_EQ(reads(), 0U);
}

TEST_F(oddities, a_sensor_of_neither_kind_is_unset_and_cleared)
{
    capi_sensor_record record = threshold_sensor(CAPI_SENSOR_TEMPERATURE, 25.0F);
    record.sensor_class = 3;
    build_sensor(record);
    EXPECT_EQ(served(kavPlatSensorTable_handler, 1, &entry()), integer_value(0));
    EXPECT_EQ(equipment(severity), integer_value(7));
    EXPECT_GT(reads(), 0U) << "it was read, and nothing of it is shown";
    for (const char *table : {"kavPlatBinarySensorTable", "kavPlatNumericSensorTable"}) {
        EXPECT_EQ(indexes_of(table_named(table)), std::vector<uint32_t>()) << table;
    }
}

// Growth takes the entries of a chain from its head and puts each at the head of its
// new one.
TEST_F(oddities, a_growing_index_of_names_turns_namesakes_round)
{
    std::vector<std::string> names = {"/SYS", "/SYS/X", "/SYS/X"};
    while (names.size() < 35) {
        names.push_back("/SYS/C" + std::to_string(names.size()));
    }
    build(names);
    EXPECT_EQ(kav_plat_mib_find_by_nac("/SYS/X"), 3U);
    plug({"/SYS/NEW"});
    insert("/SYS/NEW");
    EXPECT_EQ(htab->bucket_count, 97U);
    EXPECT_EQ(kav_plat_mib_find_by_nac("/SYS/X"), 2U);
}

} // namespace

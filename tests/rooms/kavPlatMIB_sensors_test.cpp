// The sensor tables: which sensors each lists, the read before a column is served,
// and the columns.

#include "rooms/platform_tables.h"
#include "rooms/varbind_watch.h"

namespace
{

using indexes = std::vector<uint32_t>;
using strings = std::vector<std::string>;

constexpr uint32_t sensor_type = 30;

class sensor_tables : public platform_table_test
{
  protected:
    static constexpr const char *name = "/SYS/S";

    // "/SYS" and one sensor, built from what the platform says of it.
    void build_sensor(const capi_sensor_record &record, uint32_t type = sensor_type)
    {
        platform->components = {component("/SYS", CAPI_TYPE_SYSTEM), component(name, type)};
        platform->sensor_types = {type};
        platform->sensors[name] = record;
        init_local_cache();
        ASSERT_EQ(maxPhysicalIndex, 2U);
        platform.forget_calls();
    }

    // The platform knows that it is a sensor and nothing more.
    void build_unknown_sensor()
    {
        build_sensor(threshold_sensor(CAPI_SENSOR_TEMPERATURE, 25.0F));
        platform->fail["capi_get_sensor_info"] = -1;
        platform->fail["capi_get_sensor"] = -1;
        init_local_cache();
        ASSERT_EQ(entry().sensorKind, SENSOR_KIND_NONE);
    }

    static phys_entry &entry() { return *kavplat::entry_at(2); }

    static snmp_value sensor(unsigned column)
    {
        return served(kavPlatSensorTable_handler, column, &entry());
    }
    static snmp_value binary(unsigned column)
    {
        return served(kavPlatBinarySensorTable_handler, column, &entry());
    }
    static snmp_value numeric(unsigned column)
    {
        return served(kavPlatNumericSensorTable_handler, column, &entry());
    }

    size_t reads() { return platform.calls("capi_get_sensor", name); }
    void expire() { entry().lastReadTime = 0; }
};

// ---- Rows ----

TEST_F(sensor_tables, each_lists_its_kind)
{
    build_rows(12);
    for (uint32_t i = 1; i <= 6; i++) {
        kavplat::entry_at(i)->entPhysicalClass = PHYSICAL_CLASS_SENSOR;
        kavplat::entry_at(i)->sensorKind = static_cast<int32_t>(i) - 2;
        // Of the same kinds, but no sensors.
        kavplat::entry_at(i + 6)->entPhysicalClass = PHYSICAL_CLASS_MODULE;
        kavplat::entry_at(i + 6)->sensorKind = static_cast<int32_t>(i) - 2;
    }
    // Kind is index - 2.
    EXPECT_EQ(indexes_of(table_named("kavPlatSensorTable")), (indexes{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(indexes_of(table_named("kavPlatBinarySensorTable")), indexes{3});
    EXPECT_EQ(indexes_of(table_named("kavPlatNumericSensorTable")), indexes{4});
    EXPECT_EQ(indexes_of(table_named("kavPlatDiscreteSensorTable")), indexes{5});
}

// ---- The read before a column is served ----

struct sensor_table {
    const char *table;
    bool reads_in_set_modes;
};

void PrintTo(const sensor_table &t, std::ostream *out)
{
    *out << t.table;
}

class each_sensor_table : public sensor_tables, public testing::WithParamInterface<sensor_table>
{
  protected:
    const platform_table &table = table_named(GetParam().table);
};

INSTANTIATE_TEST_SUITE_P(each, each_sensor_table,
                         testing::Values(sensor_table{"kavPlatSensorTable", true},
                                         sensor_table{"kavPlatBinarySensorTable", true},
                                         sensor_table{"kavPlatNumericSensorTable", true},
                                         sensor_table{"kavPlatDiscreteSensorTable", false}),
                         [](const auto &info) { return std::string(info.param.table); });

TEST_P(each_sensor_table, every_column_reads_a_sensor_that_is_not_fresh)
{
    build_sensor(threshold_sensor(CAPI_SENSOR_TEMPERATURE, 25.0F));
    for (unsigned column = table.min_column; column <= table.max_column; column++) {
        expire();
        platform.forget_calls();
        served(table.handler, column, &entry());
        EXPECT_EQ(reads(), 1U) << "column " << column;
        EXPECT_EQ(entry().lastReadTime, uptime);
        served(table.handler, column, &entry());
        EXPECT_EQ(reads(), 1U) << "column " << column << " again";
    }
}

TEST_P(each_sensor_table, a_reading_is_good_for_ten_seconds)
{
    build_sensor(threshold_sensor(CAPI_SENSOR_TEMPERATURE, 25.0F));
    struct {
        uint32_t stamp;
        uint32_t now;
        bool is_read;
    } const cases[] = {{0, 1, true},
                       {1000, 1999, false},
                       {1000, 2000, true},
                       {4294967000U, 703, false},
                       {4294967000U, 704, true},
                       {1000, 999, false}};
    for (const auto &[stamp, now, is_read] : cases) {
        platform.forget_calls();
        fake_system::set_uptime(now);
        entry().lastReadTime = stamp;
        served(table.handler, 1, &entry());
        EXPECT_EQ(reads(), is_read ? 1U : 0U) << stamp << " at " << now;
        EXPECT_EQ(entry().lastReadTime, is_read ? now : stamp);
    }
}

TEST_P(each_sensor_table, a_failed_read_is_traced_and_the_last_values_are_served)
{
    build_sensor(threshold_sensor(CAPI_SENSOR_TEMPERATURE, 25.0F));
    std::vector<snmp_value> before;
    for (unsigned column = table.min_column; column <= table.max_column; column++) {
        before.push_back(served(table.handler, column, &entry()));
    }
    platform->fail_for["capi_get_sensor"][name] = -7;
    const std::string message =
        text_of("%s_handler:snmp_read_sensor failed, skipping: %s\n", table.name, name);
    for (unsigned column = table.min_column; column <= table.max_column; column++) {
        agent_log log({"kavdata::sensor", "trace"});
        expire();
        EXPECT_EQ(served(table.handler, column, &entry()), before[column - table.min_column]);
        EXPECT_EQ(log.count_debug("kavdata::sensor", message), 1U) << "column " << column;
        EXPECT_TRUE(log.traced("kavdata::sensor", message, table.name + std::string("_handler"),
                               "kavPlatMIB"));
    }
}

// The log has what the read itself has to say, and nothing of the table.
TEST_P(each_sensor_table, a_failed_read_is_no_error_of_the_table)
{
    build_sensor(threshold_sensor(CAPI_SENSOR_TEMPERATURE, 25.0F));
    platform->fail_for["capi_get_sensor"][name] = -7;
    const agent_log log;
    served(table.handler, 1, &entry());
    EXPECT_EQ(log.records().size(), 1U);
    EXPECT_TRUE(
        log.has(LOG_ERR, text_of("snmp_read_sensor:FAILED:capi_get_sensor %s, status=-7\n", name)));
}

TEST_P(each_sensor_table, a_reading_that_is_not_valid_is_a_failed_read)
{
    auto record = threshold_sensor(CAPI_SENSOR_TEMPERATURE, 25.0F);
    record.reading_status = CAPI_READING_INVALID;
    build_sensor(record);
    const agent_log log({"kavdata::sensor"});
    served(table.handler, 1, &entry());
    EXPECT_TRUE(log.has_debug(
        "kavdata::sensor",
        text_of("%s_handler:snmp_read_sensor failed, skipping: %s\n", table.name, name)));
}

TEST_P(each_sensor_table, a_good_read_is_not_traced_as_failed)
{
    build_sensor(threshold_sensor(CAPI_SENSOR_TEMPERATURE, 25.0F));
    const agent_log log({"kavdata::sensor"});
    served(table.handler, 1, &entry());
    for (const std::string &text : log.debug_texts("kavdata::sensor")) {
        EXPECT_EQ(text.find("failed"), std::string::npos) << text;
    }
    EXPECT_EQ(reads(), 1U);
}

TEST_P(each_sensor_table, the_read_goes_before_the_mode_and_the_column)
{
    build_sensor(threshold_sensor(CAPI_SENSOR_TEMPERATURE, 25.0F));
    for (const int mode : std::vector<int>{MODE_SET_RESERVE1, MODE_GETNEXT}) {
        expire();
        platform.forget_calls();
        const agent_log log;
        handler_call call(mode);
        call.add(1, &entry());
        call.run(table.handler);
        EXPECT_EQ(reads(), GetParam().reads_in_set_modes ? 1U : 0U) << "mode " << mode;
    }
    expire();
    platform.forget_calls();
    const agent_log log;
    handler_call call;
    call.add(99, &entry());
    call.run(table.handler);
    EXPECT_EQ(reads(), 1U);
}

TEST_P(each_sensor_table, one_read_serves_all_requests_of_a_call)
{
    build_sensor(threshold_sensor(CAPI_SENSOR_TEMPERATURE, 25.0F));
    handler_call call;
    for (unsigned i = 0; i < 5; i++) {
        call.add(1, &entry());
    }
    EXPECT_EQ(call.run(table.handler), SNMP_ERR_NOERROR);
    EXPECT_EQ(reads(), 1U);
}

// ---- kavPlatSensorTable ----

TEST_F(sensor_tables, columns_of_every_sensor)
{
    build_sensor(threshold_sensor(CAPI_SENSOR_TEMPERATURE, 25.0F));
    entry().lastReadTime = uptime;
    entry().sensorKind = -11;
    entry().sensorCol2 = 12;
    entry().sensorCol3 = 4294967295U;
    EXPECT_EQ(sensor(1), integer_value(-11));
    EXPECT_EQ(sensor(2), integer_value(12));
    EXPECT_EQ(sensor(3), gauge_value(4294967295U));
}

TEST_F(sensor_tables, kind_and_type_as_the_platform_tells_them)
{
    struct {
        capi_sensor_record record;
        int32_t units;
        int kind;
        int type;
    } const cases[] = {
        {threshold_sensor(CAPI_SENSOR_TEMPERATURE, 1.0F), CAPI_UNITS_DEGREES_C, 2, 3},
        {threshold_sensor(CAPI_SENSOR_VOLTAGE, 1.0F), CAPI_UNITS_VOLTS, 2, 4},
        {threshold_sensor(CAPI_SENSOR_CURRENT, 1.0F), CAPI_UNITS_AMPS, 2, 5},
        {threshold_sensor(CAPI_SENSOR_TACHOMETER, 1.0F), CAPI_UNITS_RPM, 2, 6},
        {threshold_sensor(CAPI_SENSOR_HUMIDITY, 1.0F), CAPI_UNITS_PERCENT, 2, 10},
        {threshold_sensor(99, 1.0F), 0, 2, 1},
        {discrete_sensor(CAPI_SENSOR_VOLTAGE, 1.0F), 0, 1, 4},
        {discrete_sensor(CAPI_SENSOR_PRESENCE, 1.0F), 0, 1, 12},
        {discrete_sensor(99, 1.0F), 0, 1, 1},
    };
    for (auto [record, units, kind, type] : cases) {
        record.units = units;
        build_sensor(record);
        EXPECT_EQ(sensor(1), integer_value(kind));
        EXPECT_EQ(sensor(2), integer_value(type)) << "sensor type " << record.sensor_type;
        EXPECT_EQ(sensor(3), gauge_value(0));
    }
}

TEST_F(sensor_tables, a_sensor_of_which_nothing_is_known)
{
    build_unknown_sensor();
    EXPECT_EQ(indexes_of(table_named("kavPlatSensorTable")), indexes{2});
    EXPECT_EQ(sensor(1), integer_value(0));
    EXPECT_EQ(sensor(2), integer_value(1));
    EXPECT_EQ(sensor(3), gauge_value(0));
    for (const char *table :
         {"kavPlatBinarySensorTable", "kavPlatNumericSensorTable", "kavPlatDiscreteSensorTable"}) {
        EXPECT_EQ(indexes_of(table_named(table)), indexes()) << table;
    }
}

// ---- kavPlatBinarySensorTable ----

TEST_F(sensor_tables, columns_of_a_binary_sensor_serve_their_fields)
{
    build_sensor(discrete_sensor(CAPI_SENSOR_PRESENCE, 2.0F));
    entry().lastReadTime = uptime;
    entry().binarySensorValue1 = -31;
    entry().binarySensorValue2 = 32;
    set_text(*reinterpret_cast<char(*)[SENSOR_TEXT_SIZE]>(entry().binarySensorText1), "yes");
    set_text(*reinterpret_cast<char(*)[SENSOR_TEXT_SIZE]>(entry().binarySensorText2),
             std::string(255, 'n'));
    EXPECT_EQ(binary(1), integer_value(-31));
    EXPECT_EQ(binary(2), integer_value(32));
    EXPECT_EQ(binary(3), octets_value("yes"));
    EXPECT_EQ(binary(4), octets_value(std::string(255, 'n')));
}

TEST_F(sensor_tables, a_binary_sensor_as_built_and_never_read)
{
    build_unknown_sensor();
    EXPECT_EQ(binary(1), integer_value(2));
    EXPECT_EQ(binary(2), integer_value(1));
    EXPECT_EQ(binary(3), octets_value(""));
    EXPECT_EQ(binary(4), octets_value(""));
}

TEST_F(sensor_tables, binary_texts_that_have_no_memory_are_empty)
{
    build_unknown_sensor();
    char *one = std::exchange(entry().binarySensorText1, nullptr);
    char *two = std::exchange(entry().binarySensorText2, nullptr);
    EXPECT_EQ(binary(3), octets_value(""));
    EXPECT_EQ(binary(4), octets_value(""));
    entry().binarySensorText1 = one;
    entry().binarySensorText2 = two;
}

TEST_F(sensor_tables, what_a_read_makes_of_a_binary_sensor)
{
    struct binary_case {
        const char *what;
        capi_sensor_record record;
        bool ok_semantics;
        const char *record_name;
        int current;
        int expected;
        const char *when_true;
        const char *when_false;
    };
    const auto with_state = [](float reading, float state) {
        capi_sensor_record record = discrete_sensor(99, reading);
        record.flags = CAPI_STATE_SEMANTICS;
        record.state = state;
        return record;
    };
    const binary_case cases[] = {
        {"failed state", with_state(2.0F, 1.0F), false, name, 1, 2, "fail", "ok"},
        {"other state", with_state(1.0F, 2.0F), false, name, 2, 1, "ok", "fail"},
        {"present", discrete_sensor(CAPI_SENSOR_PRESENCE, 2.0F), false, name, 1, 1, "Present",
         "Absent"},
        {"absent", discrete_sensor(CAPI_SENSOR_PRESENCE, 1.0F), false, name, 2, 1, "Present",
         "Absent"},
        {"ok when asserted", discrete_sensor(99, 2.0F), true, name, 1, 1, "ok", "fail"},
        {"switch", discrete_sensor(99, 2.0F), false, "/SYS/IOX/SWITCH", 1, 1, "on", "standby"},
        {"no switch", discrete_sensor(99, 2.0F), false, "/SYS/IOX/X", 1, 2, "fail", "ok"},
        {"fault", discrete_sensor(99, 0.0F), false, name, 2, 2, "fail", "ok"},
    };
    for (binary_case c : cases) {
        set_text(c.record.name, c.record_name);
        platform->ok_semantics.clear();
        if (c.ok_semantics) {
            platform->ok_semantics.insert(c.record_name);
        }
        build_sensor(c.record);
        EXPECT_EQ(binary(1), integer_value(c.current)) << c.what;
        EXPECT_EQ(binary(2), integer_value(c.expected)) << c.what;
        EXPECT_EQ(binary(3), octets_value(c.when_true)) << c.what;
        EXPECT_EQ(binary(4), octets_value(c.when_false)) << c.what;
    }
}

// The type of a sensor can change with the read that its column itself brings.
TEST_F(sensor_tables, a_presence_sensor_shows_its_type_at_the_first_request)
{
    build_sensor(discrete_sensor(99, 2.0F));
    ASSERT_EQ(entry().sensorCol2, 1);
    platform->sensors[name] = discrete_sensor(CAPI_SENSOR_PRESENCE, 2.0F);
    EXPECT_EQ(sensor(2), integer_value(12));
}

// ---- kavPlatNumericSensorTable ----

TEST_F(sensor_tables, columns_of_a_numeric_sensor_serve_their_fields)
{
    build_sensor(threshold_sensor(CAPI_SENSOR_TEMPERATURE, 25.0F));
    phys_entry &e = entry();
    e.lastReadTime = uptime;
    e.numericSensorCol1 = 101;
    e.numericSensorCol2 = -3;
    e.numericSensorCol3 = 103;
    e.numericSensorCol4 = -25500;
    e.numericSensorCol5 = 105;
    e.numericSensorCol6 = 106;
    e.numericSensorCol7 = 107;
    e.numericSensorCol8 = -108;  // lower non-critical
    e.numericSensorCol9 = -109;  // lower critical
    e.numericSensorCol10 = -110; // lower fatal
    e.numericSensorCol11 = 111;  // upper non-critical
    e.numericSensorCol12 = 112;  // upper critical
    e.numericSensorCol13 = 113;  // upper fatal
    e.numericSensorCol14 = 4000000114U;
    e.thresholdMask = 0xA4;
    EXPECT_EQ(numeric(1), integer_value(101));
    EXPECT_EQ(numeric(2), integer_value(-3));
    EXPECT_EQ(numeric(3), integer_value(103));
    EXPECT_EQ(numeric(4), integer_value(-25500));
    EXPECT_EQ(numeric(5), integer_value(105));
    EXPECT_EQ(numeric(6), integer_value(106));
    EXPECT_EQ(numeric(7), integer_value(107));
    EXPECT_EQ(numeric(8), integer_value(-108));
    EXPECT_EQ(numeric(9), integer_value(111));
    EXPECT_EQ(numeric(10), integer_value(-109));
    EXPECT_EQ(numeric(11), integer_value(112));
    EXPECT_EQ(numeric(12), integer_value(-110));
    EXPECT_EQ(numeric(13), integer_value(113));
    EXPECT_EQ(numeric(14), gauge_value(4000000114U));
    EXPECT_EQ(numeric(15), octets_value("\xA4"));
    EXPECT_EQ(numeric(16), integer_value(1));
}

TEST_F(sensor_tables, a_numeric_sensor_as_built_and_never_read)
{
    build_unknown_sensor();
    const std::map<unsigned, int> not_zero = {{1, 1}, {3, 1}, {6, 255}, {16, 1}};
    for (unsigned column = 1; column <= 16; column++) {
        if (column == 14) {
            EXPECT_EQ(numeric(column), gauge_value(0));
        } else if (column == 15) {
            EXPECT_EQ(numeric(column), octets_value("\xFC"));
        } else {
            const auto found = not_zero.find(column);
            EXPECT_EQ(numeric(column), integer_value(found == not_zero.end() ? 0 : found->second))
                << column;
        }
    }
}

capi_sensor_record with_thresholds(capi_sensor_record record)
{
    record.lower_fatal = -5.5F;
    record.lower_critical = 0.0F;
    record.lower_non_critical = 5.25F;
    record.upper_non_critical = 60.75F;
    record.upper_critical = 70.0F;
    record.upper_fatal = 80.0F;
    record.flags = 0x3F;
    record.units = CAPI_UNITS_DEGREES_C;
    return record;
}

TEST_F(sensor_tables, thresholds_and_mask_of_a_whole_reading)
{
    auto record = with_thresholds(threshold_sensor(CAPI_SENSOR_TEMPERATURE, 25.0F));
    record.raw_reading = 25;
    build_sensor(record);
    EXPECT_EQ(numeric(1), integer_value(3));
    EXPECT_EQ(numeric(2), integer_value(0));
    EXPECT_EQ(numeric(4), integer_value(25));
    // Columns 8 to 13, cut off.
    const int expected[] = {5, 60, 0, 70, -5, 80};
    for (unsigned column = 8; column <= 13; column++) {
        EXPECT_EQ(numeric(column), integer_value(expected[column - 8])) << column;
    }
    EXPECT_EQ(numeric(15), octets_value("\xFC"));
}

TEST_F(sensor_tables, each_threshold_flag_has_its_bit)
{
    const std::pair<uint16_t, unsigned char> bits[] = {{0x01, 0x80}, {0x08, 0x40}, {0x02, 0x20},
                                                       {0x10, 0x10}, {0x04, 0x08}, {0x20, 0x04},
                                                       {0x00, 0x00}, {0x40, 0x00}};
    for (const auto &[flag, bit] : bits) {
        auto record = with_thresholds(threshold_sensor(CAPI_SENSOR_TEMPERATURE, 25.0F));
        record.flags = flag;
        build_sensor(record);
        EXPECT_EQ(numeric(15), octets_value(std::string(1, static_cast<char>(bit)))) << flag;
    }
}

// The one trap of the table: a scaled read changes exponent and thresholds, and the
// next whole reading is served unscaled beside them.
TEST_F(sensor_tables, scaling_is_not_undone_by_a_whole_reading)
{
    auto record = with_thresholds(threshold_sensor(CAPI_SENSOR_TEMPERATURE, 25.5F));
    record.raw_reading = 25;
    build_sensor(record);
    const int scaled[] = {5250, 60750, 0, 70000, -5500, 80000};
    EXPECT_EQ(numeric(4), integer_value(25500));
    EXPECT_EQ(numeric(2), integer_value(-3));
    for (unsigned column = 8; column <= 13; column++) {
        EXPECT_EQ(numeric(column), integer_value(scaled[column - 8])) << column;
    }
    EXPECT_EQ(served(kavPlatEquipmentTable_handler, 3, &entry()), integer_value(7));

    record.reading = 26.0F;
    record.raw_reading = 26;
    platform->sensors[name] = record;
    expire();
    EXPECT_EQ(numeric(4), integer_value(26));
    EXPECT_EQ(numeric(2), integer_value(-3));
    for (unsigned column = 8; column <= 13; column++) {
        EXPECT_EQ(numeric(column), integer_value(scaled[column - 8])) << column;
    }
    // 26 against 5250 and 0: the lower non-critical threshold looks crossed.
    EXPECT_EQ(served(kavPlatEquipmentTable_handler, 3, &entry()), integer_value(5));
}

TEST_F(sensor_tables, column_2_is_served_with_the_read_that_changes_it)
{
    auto record = with_thresholds(threshold_sensor(CAPI_SENSOR_TEMPERATURE, 25.5F));
    record.raw_reading = 25;
    build_sensor(record);
    ASSERT_EQ(entry().numericSensorCol2, 0);
    EXPECT_EQ(numeric(2), integer_value(-3));
}

TEST_F(sensor_tables, a_tachometer_is_never_scaled)
{
    auto record = with_thresholds(threshold_sensor(CAPI_SENSOR_TACHOMETER, 4321.5F));
    record.units = CAPI_UNITS_RPM;
    build_sensor(record);
    EXPECT_EQ(numeric(4), integer_value(4321));
    EXPECT_EQ(numeric(2), integer_value(0));
    EXPECT_EQ(numeric(9), integer_value(60));
}

TEST_F(sensor_tables, a_cold_room_is_negative)
{
    auto record = with_thresholds(threshold_sensor(CAPI_SENSOR_TEMPERATURE, -12.5F));
    build_sensor(record);
    EXPECT_EQ(numeric(4), integer_value(-12500));
    EXPECT_EQ(served(kavPlatEquipmentTable_handler, 3, &entry()), integer_value(1));
}

TEST_F(sensor_tables, a_slot_number_is_a_numeric_reading)
{
    build_sensor(threshold_sensor(99, 7.5F), CAPI_TYPE_SLOT_IDENTITY);
    EXPECT_EQ(indexes_of(table_named("kavPlatNumericSensorTable")), indexes{2});
    EXPECT_EQ(numeric(4), integer_value(7));
    EXPECT_EQ(numeric(2), integer_value(0));
}

// Its thresholds are those that every entry begins with, all at 0, and every one of
// them is in force, so any number has crossed one that is fatal. What the platform
// knows of thresholds comes only with a refresh.
TEST_F(sensor_tables, a_slot_number_is_always_critical)
{
    auto record = with_thresholds(threshold_sensor(99, 7.0F));
    record.raw_reading = 7;
    build_sensor(record, CAPI_TYPE_SLOT_IDENTITY);
    for (const float number : {7.0F, 1.0F, 0.0F, -1.0F, 255.0F}) {
        record.reading = number;
        platform->sensors[name] = record;
        expire();
        EXPECT_EQ(served(kavPlatEquipmentTable_handler, 3, &entry()), integer_value(1)) << number;
    }
    EXPECT_EQ(numeric(15), octets_value("\xFC"));
    for (unsigned column = 8; column <= 13; column++) {
        EXPECT_EQ(numeric(column), integer_value(0)) << column;
    }

    record.reading = 7.0F;
    record.flags = 0;
    platform->sensors[name] = record;
    expire();
    reload_thresholds(name);
    EXPECT_EQ(numeric(4), integer_value(7));
    EXPECT_EQ(numeric(15), octets_value(std::string(1, '\0')));
    EXPECT_EQ(served(kavPlatEquipmentTable_handler, 3, &entry()), integer_value(7));
}

// ---- kavPlatDiscreteSensorTable ----

TEST_F(sensor_tables, the_column_of_a_discrete_sensor)
{
    build_sensor(discrete_sensor(99, 2.0F));
    entry().sensorKind = SENSOR_KIND_DISCRETE;
    EXPECT_EQ(indexes_of(table_named("kavPlatDiscreteSensorTable")), indexes{2});
    EXPECT_EQ(served(kavPlatDiscreteSensorTable_handler, 1, &entry()), integer_value(0));
    EXPECT_EQ(reads(), 1U) << "read live, though that does not reach the column";
    entry().discreteSensorValue = -3;
    EXPECT_EQ(served(kavPlatDiscreteSensorTable_handler, 1, &entry()), integer_value(-3));
}

TEST_F(sensor_tables, no_sensor_of_a_platform_is_discrete)
{
    for (const int32_t sensor_class : {0, 1, 2, 3, 4}) {
        auto record = discrete_sensor(CAPI_SENSOR_PRESENCE, 2.0F);
        record.sensor_class = sensor_class;
        build_sensor(record);
        EXPECT_EQ(indexes_of(table_named("kavPlatDiscreteSensorTable")), indexes()) << sensor_class;
    }
}

// ---- How values are handed over ----

// Numbers are 4 bytes on every host; a text is as long as it is.
TEST_F(sensor_tables, numbers_are_handed_over_as_four_bytes)
{
    build_rows(1);
    phys_entry &e = *kavplat::entry_at(1);
    e.lastReadTime = uptime;
    for (const platform_table &table : platform_tables) {
        if (table.indexes == 2) {
            continue; // its rows are no entries
        }
        for (unsigned column = table.min_column; column <= table.max_column; column++) {
            varbind_watch::start();
            const snmp_value value = served(table.handler, column, &e);
            varbind_watch::stop();
            ASSERT_EQ(varbind_watch::values().size(), 1U) << table.name << " " << column;
            const varbind_watch::value &handed = varbind_watch::values().front();
            EXPECT_EQ(handed.type, value.type) << table.name << " " << column;
            EXPECT_EQ(handed.length, value.type == ASN_OCTET_STR ? value.octets.size() : 4U)
                << table.name << " " << column;
            EXPECT_TRUE(handed.under_cache_lock) << table.name << " " << column;
        }
    }
}

} // namespace

// ENTITY-SENSOR-MIB: which sensors have a row, how they are measured, and when the
// platform is asked.
#include "entitySensorMIB/entitySensorMIB.h"

#include "entityMIB/entityMIB.h"
#include "entitySensorMIB/entPhySensorTable.h"
#include "kavdata/measure.h"
#include "kavPlatMIB/kavPlatMIB.h"
#include "rooms/cache_fixture.h"
#include "rooms/requests.h"

#include <cmath>
#include <limits>

namespace
{

constexpr uint32_t sensor_component = 30;
constexpr char sensor_name[] = "/SYS/S";

struct sensor_row {
    int64_t type = 0;
    int64_t precision = 0;
    int64_t value = 0;
    int64_t status = 0;
    std::string display;
    bool operator==(const sensor_row &) const = default;
};

void PrintTo(const sensor_row &row, std::ostream *out)
{
    *out << "type " << row.type << ", precision " << row.precision << ", value " << row.value
         << ", status " << row.status << ", in " << testing::PrintToString(row.display);
}

enum { ok = 1, unavailable = 2, nonoperational = 3 };

class entitySensorMIB : public cache_test
{
  protected:
    // A server whose only sensor is this one.
    phys_entry *build_sensor(const capi_sensor_record &record,
                             std::initializer_list<fake_capability> capabilities = {},
                             uint32_t component_type = sensor_component)
    {
        platform->sensor_types = {component_type};
        platform->components = {component("/SYS", plain),
                                component(sensor_name, component_type, capabilities)};
        say(record);
        reset();
        init_local_cache();
        return row(sensor_name);
    }

    void say(const capi_sensor_record &record) { platform->sensors[sensor_name] = record; }

    static capi_sensor_record numeric(int32_t units, float reading, int32_t sensor_type = 0)
    {
        capi_sensor_record record = threshold_sensor(sensor_type, reading);
        record.units = units;
        return record;
    }

    static snmp_value ask(unsigned column, const phys_entry *entry)
    {
        return served(kavplat::entPhySensorTable.handler, column, entry);
    }

    static sensor_row row_of(const phys_entry *entry)
    {
        EXPECT_EQ(ask(2, entry), integer_value(9)) << "the scale is always units";
        EXPECT_EQ(ask(8, entry), gauge_value(0)) << "renewed on demand";
        return {ask(1, entry).number, ask(3, entry).number, ask(4, entry).number,
                ask(5, entry).number, ask(6, entry).octets};
    }

    static void walk(table_steps steps, Netsnmp_Node_Handler *handler, unsigned first_column,
                     unsigned last_column)
    {
        for (bool more = steps.first(); more; more = steps.next()) {
            for (unsigned column = first_column; column <= last_column; column++) {
                served(handler, column, steps.row());
            }
        }
        const cache_lock_held lock;
        kavplat::end_agent_pass();
    }

    static std::vector<std::string> names_of_rows()
    {
        std::vector<std::string> names;
        table_steps steps(kavplat::entPhySensorTable.get_first,
                          kavplat::entPhySensorTable.get_next);
        for (bool more = steps.first(); more; more = steps.next()) {
            names.emplace_back(static_cast<const phys_entry *>(steps.row())->entPhysicalName);
        }
        return names;
    }

    static void pass(uint32_t hundredths)
    {
        fake_system::set_uptime(netsnmp_get_agent_uptime() + hundredths);
    }
};

struct measured {
    int32_t units;
    int32_t sensor_type;
    float reading;
    sensor_row row;
};

TEST_F(entitySensorMIB, MeasuresByUnitsWithAPrecisionThatIsTheUnitsOwn)
{
    const measured cases[] = {
        {CAPI_UNITS_DEGREES_C, 0, 23.75F, {8, 1, 238, ok, "degrees C"}},
        {CAPI_UNITS_DEGREES_C, 0, -23.75F, {8, 1, -238, ok, "degrees C"}},
        {CAPI_UNITS_DEGREES_C, 0, 23, {8, 1, 230, ok, "degrees C"}},
        // A half that no float is exactly: 0.35 lies below it, 0.45 above.
        {CAPI_UNITS_DEGREES_C, 0, 0.35F, {8, 1, 4, ok, "degrees C"}},
        {CAPI_UNITS_DEGREES_C, 0, -0.35F, {8, 1, -4, ok, "degrees C"}},
        {CAPI_UNITS_DEGREES_C, 0, 0.44F, {8, 1, 4, ok, "degrees C"}},
        {CAPI_UNITS_DEGREES_F, 0, 212, {8, 1, 1000, ok, "degrees C"}},
        {CAPI_UNITS_DEGREES_F, 0, 0, {8, 1, -178, ok, "degrees C"}},
        // A half that the conversion makes a little less of.
        {CAPI_UNITS_KELVIN, 0, 200.1F, {8, 1, -731, ok, "degrees C"}},
        {CAPI_UNITS_KELVIN, 0, 0, {8, 1, -2732, ok, "degrees C"}},
        {CAPI_UNITS_VOLTS, 0, 12.06F, {4, 3, 12060, ok, "volts"}},
        {CAPI_UNITS_AMPS, 0, 0.0005F, {5, 3, 1, ok, "amperes"}},
        {CAPI_UNITS_WATTS, 0, 812.34F, {6, 1, 8123, ok, "watts"}},
        {CAPI_UNITS_RPM, 0, 4999.5F, {10, 0, 5000, ok, "RPM"}},
        {CAPI_UNITS_HERTZ, 0, 50.01F, {7, 2, 5001, ok, "hertz"}},
        {CAPI_UNITS_PERCENT, 0, 41.5F, {1, 1, 415, ok, "%"}},
        {CAPI_UNITS_PERCENT, CAPI_SENSOR_HUMIDITY, 41.5F, {9, 1, 415, ok, "%"}},
        {CAPI_UNITS_HOURS, 0, 12345, {1, 0, 12345, ok, "hours"}},
        {0, 0, 7, {1, 0, 7, ok, ""}},
        {CAPI_UNITS_DEGREES_C, CAPI_SENSOR_HUMIDITY, 7, {8, 1, 70, ok, "degrees C"}},
        {99, CAPI_SENSOR_HUMIDITY, 7, {1, 0, 7, ok, ""}},
        // What is beyond the range is served as its ends.
        {CAPI_UNITS_VOLTS, 0, 2e6F, {4, 3, 1000000000, ok, "volts"}},
        {CAPI_UNITS_RPM, 0, -3e38F, {10, 0, -1000000000, ok, "RPM"}},
        {CAPI_UNITS_RPM, 0, INFINITY, {10, 0, 1000000000, ok, "RPM"}},
        {CAPI_UNITS_RPM, 0, NAN, {10, 0, 0, unavailable, "RPM"}},
    };
    for (const measured &c : cases) {
        EXPECT_EQ(row_of(build_sensor(numeric(c.units, c.reading, c.sensor_type))), c.row)
            << "units " << c.units << ", reading " << c.reading;
    }
}

TEST_F(entitySensorMIB, AnAlternatingVoltageIsToldApartWhereThePlatformSaysSo)
{
    const struct {
        int32_t units;
        uint16_t flags;
        sensor_row row;
    } cases[] = {
        {CAPI_UNITS_VOLTS, CAPI_ALTERNATING, {3, 3, 230500, ok, "volts AC"}},
        {CAPI_UNITS_VOLTS, 0xFF7F, {4, 3, 230500, ok, "volts"}},
        {CAPI_UNITS_AMPS, CAPI_ALTERNATING, {5, 3, 230500, ok, "amperes"}},
        {CAPI_UNITS_HERTZ, CAPI_ALTERNATING, {7, 2, 23050, ok, "hertz"}},
    };
    for (const auto &c : cases) {
        capi_sensor_record record = numeric(c.units, 230.5F);
        record.flags = c.flags;
        phys_entry *entry = build_sensor(record);
        EXPECT_EQ(row_of(entry), c.row) << c.flags;
        // It is what the sensor is, not what it reads.
        record.flags = 0;
        say(record);
        pass(1000);
        EXPECT_EQ(row_of(entry), c.row) << c.flags;
    }
}

// The numeric table's exponent follows the reading; a manager that takes a factor
// once must not see it here.
TEST_F(entitySensorMIB, PrecisionDoesNotFollowTheReading)
{
    capi_sensor_record record = numeric(CAPI_UNITS_DEGREES_C, 25);
    record.raw_reading = 25;
    const phys_entry *entry = build_sensor(record);
    for (const float reading : {25.0F, 25.5F, 25.0F, 1000.25F, NAN}) {
        record.reading = reading;
        say(record);
        pass(1000);
        const sensor_row seen = row_of(entry);
        EXPECT_EQ(seen.type, 8);
        EXPECT_EQ(seen.precision, 1);
    }
    EXPECT_EQ(entry->numericSensorCol2, -3) << "there it does";
}

TEST_F(entitySensorMIB, AYesOrNoIsATruthValue)
{
    for (const auto &[reading, value] : {std::pair{2.0F, 1}, {1.0F, 2}, {0.0F, 2}}) {
        const phys_entry *entry = build_sensor(discrete_sensor(CAPI_SENSOR_PRESENCE, reading));
        EXPECT_EQ(row_of(entry), (sensor_row{12, 0, value, ok, ""})) << reading;
    }
}

TEST_F(entitySensorMIB, OnlyASensorOfANumberOrAYesNoHasARow)
{
    enum { numeric_type = 40, binary_type, neither_type, unknown_type };
    platform->sensor_types = {numeric_type, binary_type, neither_type, unknown_type,
                              CAPI_TYPE_SLOT_IDENTITY};
    platform->components = {component("/SYS", CAPI_TYPE_SYSTEM),
                            component("/SYS/NUMBER", numeric_type),
                            component("/SYS/SLOT_ID", CAPI_TYPE_SLOT_IDENTITY),
                            component("/SYS/NEITHER", neither_type),
                            component("/SYS/UNKNOWN", unknown_type),
                            component("/SYS/YES_OR_NO", binary_type)};
    platform->sensors["/SYS/NUMBER"] = numeric(CAPI_UNITS_RPM, 1);
    platform->sensors["/SYS/SLOT_ID"] = numeric(0, 3);
    platform->sensors["/SYS/YES_OR_NO"] = discrete_sensor(CAPI_SENSOR_PRESENCE, 2);
    platform->sensors["/SYS/NEITHER"] = numeric(CAPI_UNITS_RPM, 1);
    platform->sensors["/SYS/NEITHER"].sensor_class = 3;
    platform->fail_for["capi_get_sensor_info"]["/SYS/UNKNOWN"] = -1;
    init_local_cache();
    EXPECT_EQ(names_of_rows(), (std::vector<std::string>{"/SYS/NUMBER", "/SYS/YES_OR_NO"}));
}

TEST_F(entitySensorMIB, AReadingThatCannotBeHadIsUnavailableAndOneMarkedInvalidNonoperational)
{
    capi_sensor_record record = numeric(CAPI_UNITS_RPM, 4000);
    phys_entry *entry = build_sensor(record);
    EXPECT_EQ(row_of(entry), (sensor_row{10, 0, 4000, ok, "RPM"}));

    for (const int status : {-1, 7}) {
        pass(1000);
        platform->fail["capi_get_sensor"] = status;
        EXPECT_EQ(row_of(entry), (sensor_row{10, 0, 0, unavailable, "RPM"})) << status;
        EXPECT_EQ(ask(7, entry), timeticks_value(static_cast<uint32_t>(netsnmp_get_agent_uptime())))
            << "when it was found so";
    }
    platform->fail.clear();
    record.reading_status = CAPI_READING_INVALID;
    say(record);
    pass(1000);
    EXPECT_EQ(row_of(entry), (sensor_row{10, 0, 0, nonoperational, "RPM"}));

    record.reading_status = CAPI_READING_VALID;
    say(record);
    pass(1000);
    EXPECT_EQ(row_of(entry), (sensor_row{10, 0, 4000, ok, "RPM"}));
}

TEST_F(entitySensorMIB, ADisabledSensorIsNonoperational)
{
    phys_entry *entry = build_sensor(numeric(CAPI_UNITS_RPM, 4000),
                                     {{CAPI_CAP_ENABLE_STATE_BYTE, CAPI_CAP_ENABLE_STATE}});
    struct {
        int status;
        int32_t state;
        int64_t expected;
    } const cases[] = {{0, CAPI_DISABLED, nonoperational},
                       {0, CAPI_ENABLED, ok},
                       {0, CAPI_DISABLED, nonoperational},
                       {5, CAPI_DISABLED, ok}}; // nobody says that it is disabled
    for (const auto &c : cases) {
        platform->enable_states[sensor_name] = {c.state, ""};
        platform->fail["capi_get_enable_disable_state"] = c.status;
        pass(1000);
        EXPECT_EQ(row_of(entry).status, c.expected);
    }
    // Without the capability nobody asks.
    platform->enable_states[sensor_name] = {CAPI_DISABLED, ""};
    platform->fail.clear();
    entry = build_sensor(numeric(CAPI_UNITS_RPM, 4000));
    platform.forget_calls();
    EXPECT_EQ(row_of(entry).status, ok);
    EXPECT_EQ(platform.calls("capi_get_enable_disable_state"), 0U);
}

TEST_F(entitySensorMIB, ThePlatformIsAskedOnceInTenSecondsWhateverItAnswers)
{
    phys_entry *entry = build_sensor(numeric(CAPI_UNITS_RPM, 4000),
                                     {{CAPI_CAP_ENABLE_STATE_BYTE, CAPI_CAP_ENABLE_STATE}});
    for (const int status : {0, -1}) {
        platform->fail["capi_get_sensor"] = status;
        platform->fail["capi_get_enable_disable_state"] = status;
        pass(1000);
        platform.forget_calls();
        row_of(entry);
        pass(999);
        row_of(entry);
        EXPECT_EQ(platform.calls("capi_get_sensor"), 1U);
        EXPECT_EQ(platform.calls("capi_get_enable_disable_state"), 1U);
        pass(1);
        row_of(entry);
        EXPECT_EQ(platform.calls("capi_get_sensor"), 2U);
        EXPECT_EQ(platform.calls("capi_get_enable_disable_state"), 2U);
        pass(1000);
    }
}

// Each call for each sensor comes no more often than in that one of the two walks, alone,
// which makes it most.
TEST_F(entitySensorMIB, AReadForTheNumericTableServesThisOneToo)
{
    const fake_capability has_enable = {CAPI_CAP_ENABLE_STATE_BYTE, CAPI_CAP_ENABLE_STATE};
    platform->sensor_types = {sensor_component};
    platform->components = {component("/SYS", plain), component("/SYS/A", sensor_component),
                            component("/SYS/B", sensor_component, {has_enable}),
                            component("/SYS/BAD", sensor_component, {has_enable}),
                            component("/SYS/GONE", sensor_component)};
    for (const char *name : {"/SYS/A", "/SYS/B", "/SYS/BAD", "/SYS/GONE"}) {
        platform->sensors[name] = numeric(CAPI_UNITS_RPM, 4000);
        platform->enable_states[name] = {CAPI_ENABLED, ""};
    }
    init_local_cache();
    platform->sensors["/SYS/BAD"].reading_status = CAPI_READING_INVALID;
    platform->fail_for["capi_get_sensor"]["/SYS/GONE"] = -1;
    const agent_log quiet;
    using walks = std::vector<std::function<void()>>;
    const auto calls_of = [&](const walks &all) {
        pass(1000);
        platform.forget_calls();
        for (const auto &walk : all) {
            walk();
        }
        std::map<std::string, unsigned> calls;
        for (const fake_call &call : platform.all_calls()) {
            calls[call.function + " " + call.name]++;
        }
        return calls;
    };
    const auto numeric_table = [] {
        walk({kavPlatNumericSensorTable_get_first_data_point,
              kavPlatNumericSensorTable_get_next_data_point},
             kavPlatNumericSensorTable_handler, 1, 16);
    };
    const auto sensor_table = [] {
        const kavplat::table &t = kavplat::entPhySensorTable;
        walk({t.get_first, t.get_next}, t.handler, 1, 8);
    };
    const auto alone = calls_of({numeric_table});
    auto expected = calls_of({sensor_table});
    EXPECT_EQ(expected, (std::map<std::string, unsigned>{
                            {"capi_get_sensor /SYS/A", 1},
                            {"capi_get_sensor /SYS/B", 1},
                            {"capi_get_sensor /SYS/BAD", 1},
                            {"capi_get_sensor /SYS/GONE", 1},
                            {"capi_get_enable_disable_state /SYS/B", 1},
                            {"capi_get_enable_disable_state /SYS/BAD", 1},
                        }));
    for (const auto &[call, times] : alone) {
        expected[call] = std::max(expected[call], times);
    }
    EXPECT_EQ(calls_of({numeric_table, sensor_table}), expected);
    // The other way round but for what fails: the numeric table asks for that each time.
    for (const char *failing : {"capi_get_sensor /SYS/BAD", "capi_get_sensor /SYS/GONE"}) {
        expected[failing]++;
    }
    EXPECT_EQ(calls_of({sensor_table, numeric_table}), expected);
}

// The enable state stamps the sensor as read, which keeps the platform's own tables
// from reading it. This table says what is so.
TEST_F(entitySensorMIB, AnEnableStateReadIsNotTakenForAReading)
{
    phys_entry *entry = build_sensor(numeric(CAPI_UNITS_RPM, 4000));
    entry->lastReadTime = static_cast<uint32_t>(netsnmp_get_agent_uptime());
    EXPECT_EQ(row_of(entry), (sensor_row{10, 0, 4000, ok, "RPM"}));
}

} // namespace

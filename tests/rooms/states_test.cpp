// The states of entities: what follows from what, when the platform is asked, and when a
// change is noted.
#include "kavdata/codes.h"
#include "kavdata/severity.h"
#include "rooms/cache_fixture.h"

#include <cmath>

inline void PrintTo(const entity_states &s, std::ostream *out)
{
    *out << "admin " << s.admin << ", oper " << s.oper << ", usage " << s.usage << ", standby "
         << s.standby << ", alarm " << std::hex << s.alarm << std::dec;
}

namespace
{

enum : uint32_t { sensor_type = 30, led_type = 31, fan_type = 12, supply_type = 4, bay_type = 14 };
enum : uint32_t { unknown = 0x80, critical = 0x20, major = 0x10, warning = 0x04 };

// What holds the sensor under test: a component of class other, and the sensor.
constexpr char part[] = "/SYS/X";
constexpr char instrument[] = "/SYS/X/S";

class states : public cache_test
{
  protected:
    states()
    {
        platform->sensor_types = {sensor_type, CAPI_TYPE_FAULT_SENSOR, CAPI_TYPE_PREDICTIVE_SENSOR,
                                  CAPI_TYPE_SLOT_IDENTITY};
        platform->indicator_types = {led_type};
    }

    void build_components(std::initializer_list<fake_component> components)
    {
        platform->components = components;
        reset();
        init_local_cache();
    }

    static entity_states seen(const char *name)
    {
        const cache_lock_held lock;
        phys_entry &entry = *row(name);
        kavplat::look_at_states(entry);
        return kavplat::states_of(entry);
    }

    static void pass(uint32_t hundredths)
    {
        fake_system::set_uptime(netsnmp_get_agent_uptime() + hundredths);
    }
    static void pass_ten_seconds() { pass(1000); }

    static capi_sensor_record numeric(float reading, uint16_t limits = 0x3F)
    {
        capi_sensor_record record = threshold_sensor(CAPI_SENSOR_TEMPERATURE, reading);
        record.lower_fatal = -10;
        record.lower_critical = 0;
        record.lower_non_critical = 9.5F;
        record.upper_non_critical = 59.5F;
        record.upper_critical = 70;
        record.upper_fatal = 80;
        record.flags = limits;
        return record;
    }
    static capi_sensor_record yes_or_no(bool yes) { return discrete_sensor(0, yes ? 2.0F : 1.0F); }
    static capi_sensor_record invalid(capi_sensor_record record)
    {
        record.reading_status = CAPI_READING_INVALID;
        return record;
    }
};

struct sensor_case {
    const char *what;
    uint32_t type;
    capi_sensor_record record;
    int status; // of the call
    uint32_t alarm;
    int32_t oper;
    uint32_t alarm_of_part;
    int32_t oper_of_part;
};

// The severity that is told of what an alarm has.
int32_t gravest(uint32_t alarm)
{
    return alarm & critical  ? kavplat::kavPlatEquipmentSeverity::critical
           : alarm & major   ? kavplat::kavPlatEquipmentSeverity::major
           : alarm & warning ? kavplat::kavPlatEquipmentSeverity::warning
           : alarm & unknown ? kavplat::kavPlatEquipmentSeverity::indeterminate
                             : kavplat::kavPlatEquipmentSeverity::cleared;
}

TEST_F(states, ASensorRaisesOnItselfAndOnWhatHoldsItAndFailsIt)
{
    enum { oper_unknown = 1, disabled = 2, enabled = 3 };
    capi_sensor_record whole = numeric(59);
    whole.raw_reading = 59; // served as a whole number, and so are its limits
    capi_sensor_record other_class = numeric(100);
    other_class.sensor_class = 3;
    const sensor_case cases[] = {
        {"well", sensor_type, numeric(25), 0, 0, enabled, 0, enabled},
        {"below 59.5", sensor_type, whole, 0, 0, enabled, 0, enabled},
        {"at 59.5", sensor_type, numeric(59.5F), 0, warning, enabled, warning, enabled},
        {"at 70", sensor_type, numeric(70), 0, major | warning, enabled, major | warning, enabled},
        {"at 80", sensor_type, numeric(80), 0, critical | major | warning, enabled,
         critical | major | warning, enabled},
        {"at 9.5", sensor_type, numeric(9.5F), 0, warning, enabled, warning, enabled},
        {"below 0", sensor_type, numeric(-1), 0, major | warning, enabled, major | warning,
         enabled},
        {"below -10", sensor_type, numeric(-11), 0, critical | major | warning, enabled,
         critical | major | warning, enabled},
        {"only the fatal limit in force", sensor_type, numeric(90, CAPI_UPPER_FATAL_VALID), 0,
         critical, enabled, critical, enabled},
        {"no limit in force", sensor_type, numeric(90, 0), 0, 0, enabled, 0, enabled},
        {"no number", sensor_type, numeric(NAN), 0, unknown, oper_unknown, 0, enabled},
        {"not valid", sensor_type, invalid(numeric(90)), 0, unknown, disabled, 0, enabled},
        {"not to be had", sensor_type, numeric(90), -1, unknown, oper_unknown, 0, enabled},
        {"of no kind that can be judged", sensor_type, other_class, 0, unknown, enabled, 0,
         enabled},
        {"yes", sensor_type, yes_or_no(true), 0, 0, enabled, 0, enabled},
        {"no fault", CAPI_TYPE_FAULT_SENSOR, yes_or_no(false), 0, 0, enabled, 0, enabled},
        {"fault", CAPI_TYPE_FAULT_SENSOR, yes_or_no(true), 0, major, enabled, major, disabled},
        {"fault not valid", CAPI_TYPE_FAULT_SENSOR, invalid(yes_or_no(true)), 0, unknown, disabled,
         0, enabled},
        {"fault not to be had", CAPI_TYPE_FAULT_SENSOR, yes_or_no(true), 5, unknown, oper_unknown,
         0, enabled},
        {"about to fail", CAPI_TYPE_PREDICTIVE_SENSOR, yes_or_no(true), 0, warning, enabled,
         warning, enabled},
        {"slot identity", CAPI_TYPE_SLOT_IDENTITY, numeric(90), 0, 0, enabled, 0, enabled},
        {"slot identity not to be had", CAPI_TYPE_SLOT_IDENTITY, numeric(90), -1, 0, oper_unknown,
         0, enabled},
    };
    for (const sensor_case &c : cases) {
        SCOPED_TRACE(c.what);
        platform->fail.clear();
        platform->sensors[instrument] = c.record;
        build_components({component("/SYS", plain), component(part, plain),
                          component(instrument, c.type), component("/SYS/Y", plain)});
        platform->fail["capi_get_sensor"] = c.status;
        const agent_log quiet;
        EXPECT_EQ(seen(instrument), (entity_states{4, c.oper, 1, 1, c.alarm}));
        EXPECT_EQ(seen(part), (entity_states{4, c.oper_of_part, 1, 1, c.alarm_of_part}));
        EXPECT_EQ(kavplat::severity_at_last_look(*row(instrument)),
                  gravest(c.record.sensor_class == other_class.sensor_class ? 0 : c.alarm));
        for (const char *other : {"/SYS", "/SYS/Y"}) {
            EXPECT_EQ(seen(other), (entity_states{4, enabled, 1, 1, 0})) << other;
        }
    }
}

// The numbers of the numeric table follow the scale of the reading; the alarm does not.
TEST_F(states, AReadingIsComparedInThePlatformsUnitsWhateverTheScale)
{
    capi_sensor_record record = numeric(25.5F);
    platform->sensors[instrument] = record;
    build_components(
        {component("/SYS", plain), component(part, plain), component(instrument, sensor_type)});
    EXPECT_EQ(seen(instrument).alarm, 0U);
    record.reading = 25;
    record.raw_reading = 25;
    platform->sensors[instrument] = record;
    pass_ten_seconds();
    EXPECT_EQ(seen(instrument).alarm, 0U);
    EXPECT_EQ(row(instrument)->numericSensorCol4, 25);
    EXPECT_EQ(row(instrument)->numericSensorCol12, 70000) << "a limit of the other scale";
    // A limit that the platform changed.
    record.upper_non_critical = 24;
    platform->sensors[instrument] = record;
    reload_thresholds(instrument);
    EXPECT_EQ(seen(part).alarm, warning);
}

TEST_F(states, AllAlarmsOfOneComponentComeTogether)
{
    platform->sensors["/SYS/X/P"] = yes_or_no(true);
    platform->sensors["/SYS/X/T"] = numeric(90, CAPI_UPPER_FATAL_VALID);
    platform->sensors["/SYS/X/BAD"] = invalid(numeric(90));
    build_components({component("/SYS", plain), component(part, plain),
                      component("/SYS/X/P", CAPI_TYPE_PREDICTIVE_SENSOR),
                      component("/SYS/X/T", sensor_type), component("/SYS/X/BAD", sensor_type)});
    EXPECT_EQ(seen(part).alarm, critical | warning);
    remove("/SYS/X/P");
    EXPECT_EQ(seen(part).alarm, critical);
    remove("/SYS/X/T");
    EXPECT_EQ(seen(part).alarm, 0U);
    insert("/SYS/X/T");
    EXPECT_EQ(seen(part).alarm, critical);
}

struct indicator_case {
    const char *what;
    int32_t meaning;
    int32_t state;
    int status; // of the call
    bool is_disabled;
    uint32_t alarm_of_part;
};

TEST_F(states, AnIndicatorThatMeansSomethingRaisesItOnWhatHoldsItWhileItIsOn)
{
    const indicator_case cases[] = {
        {"off", CAPI_MEANS_FAULT, CAPI_INDICATOR_OFF, 0, false, 0},
        {"fault", CAPI_MEANS_FAULT, CAPI_INDICATOR_ON, 0, false, critical},
        {"service", CAPI_MEANS_SERVICE, CAPI_INDICATOR_ON, 0, false, warning},
        {"slow", CAPI_MEANS_SERVICE, CAPI_INDICATOR_SLOW_BLINK, 0, false, warning},
        {"fast", CAPI_MEANS_FAULT, CAPI_INDICATOR_FAST_BLINK, 0, false, critical},
        {"standby", CAPI_MEANS_SERVICE, CAPI_INDICATOR_STANDBY_BLINK, 0, false, warning},
        {"unrecognised", CAPI_MEANS_FAULT, 9, 0, false, 0},
        {"not to be had", CAPI_MEANS_FAULT, CAPI_INDICATOR_ON, -1, false, 0},
        {"disabled", CAPI_MEANS_FAULT, CAPI_INDICATOR_ON, 0, true, 0},
        {"a meaning of tomorrow", CAPI_MEANS_FAULT + 1, CAPI_INDICATOR_ON, 0, false, 0},
    };
    for (const indicator_case &c : cases) {
        SCOPED_TRACE(c.what);
        platform->fail.clear();
        platform->meanings = {{"/SYS/X/LED", c.meaning}};
        platform->indicators["/SYS/X/LED"] = indicator(c.state);
        platform->enable_states["/SYS/X/LED"] = {c.is_disabled ? CAPI_DISABLED : CAPI_ENABLED, ""};
        build_components({component("/SYS", plain), component(part, plain),
                          component("/SYS/X/LED", led_type,
                                    {{CAPI_CAP_ENABLE_STATE_BYTE, CAPI_CAP_ENABLE_STATE}}),
                          component("/SYS/X/PLAIN", plain)});
        platform->fail["capi_get_indicator"] = c.status;
        const agent_log quiet;
        EXPECT_FALSE(kavplat::are_states_known(*row(part)));
        EXPECT_EQ(seen(part), (entity_states{4, 3, 1, 1, c.alarm_of_part}));
        EXPECT_TRUE(kavplat::are_states_known(*row(part)));
        EXPECT_EQ(seen("/SYS/X/LED"), (entity_states{4, c.is_disabled ? 2 : 3, 1, 1, 0}));
        for (const char *other : {"/SYS", "/SYS/X/PLAIN"}) {
            EXPECT_EQ(seen(other), (entity_states{4, 3, 1, 1, 0})) << other;
        }
    }
}

TEST_F(states, WhatAnIndicatorRaisesComesBesideWhatSensorsRaiseAndIsAChange)
{
    platform->meanings = {{"/SYS/X/LED", CAPI_MEANS_SERVICE}, {"/SYS/X/S/LED", CAPI_MEANS_FAULT}};
    platform->indicators["/SYS/X/LED"] = indicator(CAPI_INDICATOR_OFF);
    platform->indicators["/SYS/X/S/LED"] = indicator(CAPI_INDICATOR_ON);
    platform->sensors[instrument] = yes_or_no(true);
    build_components({component("/SYS", plain), component(part, plain),
                      component(instrument, CAPI_TYPE_FAULT_SENSOR),
                      component("/SYS/X/LED", led_type), component("/SYS/X/S/LED", led_type)});
    EXPECT_EQ(seen(part).alarm, major);
    EXPECT_EQ(seen(instrument).alarm, major) << "a sensor is no component";
    const cache_lock_held lock;
    phys_entry &entry = *row(part);
    EXPECT_FALSE(kavplat::note_states(entry));
    platform->indicators["/SYS/X/LED"] = indicator(CAPI_INDICATOR_SLOW_BLINK);
    pass(999);
    kavplat::look_at_states(entry);
    EXPECT_FALSE(kavplat::note_states(entry)) << "it was asked for within ten seconds";
    pass(1);
    kavplat::look_at_states(entry);
    const auto change = kavplat::note_states(entry);
    ASSERT_TRUE(change);
    EXPECT_EQ(change->before.alarm, major);
    EXPECT_EQ(change->after.alarm, major | warning);
    EXPECT_EQ(row("/SYS/X/LED")->alarmCol2, kavplat::kavPlatAlarmState::alternating)
        << "one read serves both tables";
    EXPECT_EQ(platform.calls("capi_get_indicator"), 2U);
    EXPECT_EQ(platform.calls("capi_get_indicator_meaning"), 2U) << "once, with the row";
}

TEST_F(states, AnIndicatorThatMeansNothingRaisesNothingAndIsNotAsked)
{
    platform->indicators["/SYS/X/LED"] = indicator(CAPI_INDICATOR_ON);
    build_components(
        {component("/SYS", plain), component(part, plain), component("/SYS/X/LED", led_type)});
    EXPECT_EQ(seen(part), (entity_states{4, 3, 1, 1, 0}));
    EXPECT_EQ(seen("/SYS/X/LED"), (entity_states{4, 3, 1, 1, 0}));
    EXPECT_EQ(platform.calls("capi_get_indicator"), 0U);
}

TEST_F(states, AdminAndOperAreThoseOfTheEquipment)
{
    build_components({component("/SYS", plain),
                      component(part, plain,
                                {{CAPI_CAP_FIELD_REPLACEABLE_BYTE, CAPI_CAP_FIELD_REPLACEABLE},
                                 {CAPI_CAP_ENABLE_STATE_BYTE, CAPI_CAP_ENABLE_STATE}})});
    struct {
        int ready_status, ready, power_status, power, enable_status, enable;
        int32_t admin, oper;
    } const cases[] = {
        {-1, 0, -1, 0, -1, 0, 4, 3}, // nobody says anything
        {0, CAPI_NOT_READY_TO_REMOVE, 0, CAPI_POWER_OFF, 0, CAPI_ENABLED, 4, 3},
        {0, CAPI_READY_TO_REMOVE, 0, CAPI_POWER_ON, 0, CAPI_DISABLED, 2, 2},
        {-1, 0, -1, 0, -1, 0, 2, 2}, // then it is as it was
        {-1, 0, 0, CAPI_POWER_SHUTTING_DOWN, 0, CAPI_ENABLED, 3, 3},
        {-1, 0, 0, CAPI_POWER_ON, 0, CAPI_ENABLED, 4, 3},
        {-1, 0, 0, CAPI_POWER_STANDBY, 0, CAPI_ENABLED, 2, 3},
    };
    const agent_log quiet;
    for (const auto &c : cases) {
        platform->fail["capi_get_rdy2rm_status"] = c.ready_status;
        platform->fail["capi_get_power_state"] = c.power_status;
        platform->fail["capi_get_enable_disable_state"] = c.enable_status;
        platform->ready_to_remove[part] = c.ready;
        platform->power_states[part] = c.power;
        platform->enable_states[part] = {c.enable, ""};
        pass_ten_seconds();
        EXPECT_EQ(seen(part), (entity_states{c.admin, c.oper, 1, 1, 0})) << &c - cases;
    }
}

TEST_F(states, ADisabledSensorIsDisabledAndRaisesNothing)
{
    platform->sensors[instrument] = yes_or_no(true);
    platform->enable_states[instrument] = {CAPI_DISABLED, ""};
    build_components({component("/SYS", plain), component(part, plain),
                      component(instrument, CAPI_TYPE_FAULT_SENSOR,
                                {{CAPI_CAP_ENABLE_STATE_BYTE, CAPI_CAP_ENABLE_STATE}})});
    EXPECT_EQ(seen(instrument), (entity_states{4, 2, 1, 1, 0}));
    EXPECT_EQ(seen(part), (entity_states{4, 3, 1, 1, 0}));
}

TEST_F(states, AHolderIsIdleOrBusyByItsPresenceSensorAndElseByWhatIsListed)
{
    enum { idle = 2, busy = 4 };
    const fake_capability holder = {CAPI_CAP_HOLDER_BYTE, CAPI_CAP_HOLDER};
    const fake_component card = component("/SYS/X/CARD", plain);
    const fake_component slot = component("/SYS/X/SLOT", bay_type, {holder});
    const fake_component presence = component(instrument, sensor_type);
    struct {
        std::vector<fake_component> held;
        capi_sensor_record sensor;
        int32_t usage;
    } const cases[] = {
        {{}, {}, idle},
        {{card}, {}, busy},
        {{slot}, {}, idle}, // a place in it is no component
        {{component("/SYS/X/LED", led_type)}, {}, idle},
        {{presence}, discrete_sensor(CAPI_SENSOR_PRESENCE, 2), busy},
        {{presence}, discrete_sensor(CAPI_SENSOR_PRESENCE, 1), idle},
        {{presence, card}, discrete_sensor(CAPI_SENSOR_PRESENCE, 1), idle},
        {{presence, card}, invalid(discrete_sensor(CAPI_SENSOR_PRESENCE, 1)), busy},
        {{presence}, discrete_sensor(CAPI_SENSOR_VOLTAGE, 2), idle},
    };
    for (const auto &c : cases) {
        platform->sensors[instrument] = c.sensor;
        for (const bool is_holder : {true, false}) {
            std::vector<fake_component> all = {component("/SYS", plain)};
            all.push_back(is_holder ? component(part, bay_type, {holder})
                                    : component(part, bay_type));
            all.insert(all.end(), c.held.begin(), c.held.end());
            platform->components = all;
            reset();
            init_local_cache();
            EXPECT_EQ(seen(part).usage, is_holder ? c.usage : 1) << &c - cases;
        }
    }
}

TEST_F(states, ASupplyOrFanProvidesServiceWhileNothingSaysThatItDoesNotRun)
{
    enum { standby_unknown = 1, providing_service = 4 };
    capi_sensor_record still = threshold_sensor(CAPI_SENSOR_TACHOMETER, 0);
    still.units = CAPI_UNITS_RPM;
    capi_sensor_record turning = still;
    turning.reading = 4000;
    struct {
        std::map<std::string, std::pair<uint32_t, capi_sensor_record>> sensors;
        int32_t standby;
    } const cases[] = {
        {{}, providing_service},
        {{{"/SYS/X/A", {sensor_type, turning}}}, providing_service},
        {{{"/SYS/X/A", {sensor_type, still}}}, standby_unknown},
        {{{"/SYS/X/A", {sensor_type, still}}, {"/SYS/X/B", {sensor_type, turning}}},
         providing_service},
        {{{"/SYS/X/A", {sensor_type, invalid(still)}}}, providing_service},
        {{{"/SYS/X/A", {CAPI_TYPE_FAULT_SENSOR, yes_or_no(true)}}}, standby_unknown},
        {{{"/SYS/X/A", {sensor_type, discrete_sensor(CAPI_SENSOR_PRESENCE, 1)}}}, standby_unknown},
        {{{"/SYS/X/A", {sensor_type, discrete_sensor(CAPI_SENSOR_PRESENCE, 2)}}},
         providing_service},
    };
    for (const auto &c : cases) {
        for (const uint32_t type : std::initializer_list<uint32_t>{fan_type, supply_type, plain}) {
            std::vector<fake_component> all = {component("/SYS", plain), component(part, type)};
            for (const auto &[name, sensor] : c.sensors) {
                all.push_back(component(name.c_str(), sensor.first));
                platform->sensors[name] = sensor.second;
            }
            platform->components = all;
            reset();
            init_local_cache();
            EXPECT_EQ(seen(part).standby, type == plain ? standby_unknown : c.standby)
                << &c - cases;
        }
    }
}

// Whether it is switched off the platform tells with whether it may be removed.
TEST_F(states, ASupplyOrFanThatIsLockedProvidesNoService)
{
    enum { standby_unknown = 1, providing_service = 4 };
    platform->fail["capi_get_rdy2rm_status"] = -1;
    for (const uint32_t type : {fan_type, supply_type}) {
        build_components({component("/SYS", plain), component(part, type,
                                                              {{CAPI_CAP_FIELD_REPLACEABLE_BYTE,
                                                                CAPI_CAP_FIELD_REPLACEABLE}})});
        for (const int32_t power :
             {CAPI_POWER_ON, CAPI_POWER_OFF, CAPI_POWER_STANDBY, CAPI_POWER_SHUTTING_DOWN}) {
            platform->power_states[part] = power;
            pass_ten_seconds();
            EXPECT_EQ(seen(part).standby,
                      power == CAPI_POWER_ON ? providing_service : standby_unknown)
                << power;
        }
    }
}

// Every entity of the server once, as a walk does, and again.
TEST_F(states, ThePlatformIsAskedOnceInTenSecondsForEachThingWhateverItAnswers)
{
    const fake_capability replaceable = {CAPI_CAP_FIELD_REPLACEABLE_BYTE,
                                         CAPI_CAP_FIELD_REPLACEABLE};
    const fake_capability has_enable = {CAPI_CAP_ENABLE_STATE_BYTE, CAPI_CAP_ENABLE_STATE};
    build_components({component("/SYS", plain, {replaceable, has_enable}),
                      component(part, plain, {replaceable, has_enable}),
                      component(instrument, sensor_type, {has_enable}),
                      component("/SYS/X/LED", led_type, {has_enable}),
                      component("/SYS/X/PLAIN_LED", led_type)});
    const agent_log quiet;
    for (const int status : {0, -1}) {
        {
            const auto server = platform.locked();
            server->sensors[instrument] = numeric(25);
            for (const char *name : {"/SYS", part, instrument, "/SYS/X/LED"}) {
                server->ready_to_remove[name] = 0;
                server->power_states[name] = CAPI_POWER_ON;
                server->enable_states[name] = {CAPI_ENABLED, ""};
                server->indicators[name] = indicator(CAPI_INDICATOR_ON);
            }
            for (const char *call :
                 {"capi_get_sensor", "capi_get_rdy2rm_status", "capi_get_enable_disable_state",
                  "capi_get_indicator", "capi_get_power_state"}) {
                server->fail[call] = status;
            }
        }
        pass_ten_seconds();
        platform.forget_calls();
        for (int walk = 0; walk < 3; walk++) {
            for (uint32_t i = 1; i <= maxPhysicalIndex; i++) {
                seen(kavplat::entry_at(i)->entPhysicalName);
            }
            pass(333);
        }
        EXPECT_EQ(platform.calls("capi_get_sensor"), 1U);
        EXPECT_EQ(platform.calls("capi_get_rdy2rm_status"), 2U);
        EXPECT_EQ(platform.calls("capi_get_power_state"), status == 0 ? 0U : 2U);
        EXPECT_EQ(platform.calls("capi_get_enable_disable_state"), 4U);
        EXPECT_EQ(row("/SYS/X/LED")->lastReadTime, 0U) << "nobody read it";
        pass(1);
        seen(part);
        EXPECT_EQ(platform.calls("capi_get_sensor"), 2U) << "after ten seconds again";
    }
}

TEST_F(states, ComputingAsksNobody)
{
    platform->sensors[instrument] = numeric(90);
    build_components(
        {component("/SYS", plain), component(part, plain), component(instrument, sensor_type)});
    pass_ten_seconds();
    platform.forget_calls();
    const cache_lock_held lock;
    for (uint32_t i = 1; i <= maxPhysicalIndex; i++) {
        kavplat::states_of(*kavplat::entry_at(i));
        kavplat::note_states(*kavplat::entry_at(i));
    }
    EXPECT_TRUE(platform.all_calls().empty());
}

TEST_F(states, AChangeIsNotedWithItsTimeAndTheFirstIsNoChange)
{
    time_t now = 1000;
    fake_system::on_time.set([&now](time_t *) { return now; });
    platform->sensors[instrument] = yes_or_no(true);
    build_components({component("/SYS", plain), component(part, plain),
                      component(instrument, CAPI_TYPE_FAULT_SENSOR)});
    const cache_lock_held lock;
    phys_entry &entry = *row(part);
    EXPECT_EQ(entry.noted.since, 1000);

    now = 1001;
    EXPECT_FALSE(kavplat::are_states_known(entry));
    EXPECT_FALSE(kavplat::note_states(entry));
    kavplat::look_at_states(entry);
    EXPECT_TRUE(kavplat::are_states_known(entry));
    EXPECT_FALSE(kavplat::note_states(entry)) << "that it was so from the start is no change";
    EXPECT_EQ(entry.noted.since, 1000);
    EXPECT_FALSE(kavplat::take_oper_change(entry));

    for (const bool is_faulty : {false, true}) {
        platform->sensors[instrument] = yes_or_no(is_faulty);
        pass_ten_seconds();
        now++;
        kavplat::look_at_states(entry);
        const auto change = kavplat::note_states(entry);
        ASSERT_TRUE(change);
        const entity_states well = {4, 3, 1, 1, 0};
        const entity_states faulty = {4, 2, 1, 1, major};
        EXPECT_EQ(change->before, is_faulty ? well : faulty);
        EXPECT_EQ(change->after, is_faulty ? faulty : well);
        EXPECT_EQ(entry.noted.since, now);
        EXPECT_FALSE(kavplat::note_states(entry)) << "once";
        now++;
        const auto oper = kavplat::take_oper_change(entry);
        ASSERT_TRUE(oper) << "though it was noted before";
        EXPECT_EQ(oper->before.oper, is_faulty ? 3 : 2);
        EXPECT_EQ(oper->after, change->after);
        EXPECT_FALSE(kavplat::take_oper_change(entry)) << "once";
        EXPECT_EQ(entry.noted.since, now - 1);
    }
}

struct oper_course {
    const char *what;
    std::string seen; // of each look: Enabled, Disabled, Unknown
    std::string told;
};

// What could not be read for a while has not become what it is anew.
TEST_F(states, AnOperationalStateIsToldWhenItIsAnotherThanTheLastThatWasKnown)
{
    const oper_course courses[] = {
        {"swings", "EDED", "E>D D>E E>D "},
        {"stays", "EE", ""},
        {"not read in between", "EUEUUE", ""},
        {"another after it was not read", "EUDUUDUE", "E>D D>E "},
        {"not read at first", "UUEUD", "E>D "},
        {"disabled at first", "UDUDUE", "D>E "},
    };
    for (const oper_course &c : courses) {
        SCOPED_TRACE(c.what);
        build_components(
            {component("/SYS", plain), component(part, plain), component(instrument, sensor_type)});
        const agent_log quiet;
        std::string told;
        for (const char oper : c.seen) {
            platform->fail["capi_get_sensor"] = oper == 'U' ? -1 : 0;
            platform->sensors[instrument] = oper == 'D' ? invalid(numeric(25)) : numeric(25);
            pass_ten_seconds();
            const cache_lock_held lock;
            phys_entry &entry = *row(instrument);
            kavplat::look_at_states(entry);
            kavplat::note_states(entry);
            if (const auto change = kavplat::take_oper_change(entry)) {
                const auto letter = [](int32_t state) { return " UDET"[state]; };
                told += {letter(change->before.oper), '>', letter(change->after.oper), ' '};
            }
        }
        EXPECT_EQ(told, c.told);
    }
}

TEST_F(states, EachStateAloneCountsAsAChange)
{
    const fake_capability replaceable = {CAPI_CAP_FIELD_REPLACEABLE_BYTE,
                                         CAPI_CAP_FIELD_REPLACEABLE};
    const fake_capability holder = {CAPI_CAP_HOLDER_BYTE, CAPI_CAP_HOLDER};
    const fake_capability has_enable = {CAPI_CAP_ENABLE_STATE_BYTE, CAPI_CAP_ENABLE_STATE};
    platform->ready_to_remove[part] = CAPI_READY_TO_REMOVE;
    platform->enable_states[part] = {CAPI_ENABLED, ""};
    platform->sensors[instrument] = numeric(25);
    platform->sensors["/SYS/X/TACH"] = threshold_sensor(CAPI_SENSOR_TACHOMETER, 0);
    platform->sensors["/SYS/X/TACH"].units = CAPI_UNITS_RPM;
    build_components({component("/SYS", plain),
                      component(part, fan_type, {replaceable, holder, has_enable}),
                      component(instrument, sensor_type)});
    phys_entry &entry = *row(part);
    const auto change = [&] {
        const cache_lock_held lock;
        pass_ten_seconds();
        kavplat::look_at_states(entry);
        return kavplat::note_states(entry);
    };
    EXPECT_FALSE(change());
    EXPECT_EQ(entry.noted.states, (entity_states{2, 3, 2, 1, 0}));
    platform->fail["capi_get_rdy2rm_status"] = -1;
    platform->power_states[part] = CAPI_POWER_SHUTTING_DOWN;
    EXPECT_EQ(change().value().after, (entity_states{3, 3, 2, 1, 0}));
    platform->power_states[part] = CAPI_POWER_ON;
    EXPECT_EQ(change().value().after, (entity_states{4, 3, 2, 4, 0}));
    platform->sensors[instrument] = numeric(60);
    EXPECT_EQ(change().value().after, (entity_states{4, 3, 2, 4, warning}));
    plug({"/SYS/X/CARD"});
    insert("/SYS/X/CARD");
    EXPECT_EQ(change().value().after, (entity_states{4, 3, 4, 4, warning}));
    plug({"/SYS/X/TACH"}, sensor_type);
    insert("/SYS/X/TACH");
    EXPECT_EQ(change().value().after, (entity_states{4, 3, 4, 1, warning}));
    platform->enable_states[part] = {CAPI_DISABLED, ""};
    EXPECT_EQ(change().value().after, (entity_states{4, 2, 4, 1, warning}));
    EXPECT_FALSE(change());
}

// The list of what a component holds, against the rows that name it as their container,
// while components come and go.
TEST_F(states, WhatAComponentHoldsIsWhatNamesItAsItsContainer)
{
    build_server(1);
    uint32_t random = 1;
    const auto next = [&random](uint32_t below) {
        random = random * 1664525 + 1013904223;
        return (random >> 8) % below;
    };
    const agent_log quiet;
    for (int step = 0; step < 400; step++) {
        std::string name = "/SYS/A" + std::to_string(next(3));
        for (uint32_t depth = next(3); depth > 0; depth--) {
            name += "/B" + std::to_string(next(3));
        }
        if (next(5) < 3) {
            plug({name});
            insert(name.c_str());
        } else {
            unplug(name);
            remove(name.c_str());
        }
        if (step % 50 == 49) {
            update("/SYS");
        }
        const cache_lock_held lock;
        for (uint32_t i = 1; i <= maxPhysicalIndex; i++) {
            const phys_entry *container = kavplat::entry_at(i);
            if (!container) {
                continue;
            }
            std::vector<const phys_entry *> expected;
            for (uint32_t j = 1; j <= maxPhysicalIndex; j++) {
                const phys_entry *entry = kavplat::entry_at(j);
                if (entry && entry->entPhysicalContainedIn == static_cast<int32_t>(i)) {
                    expected.push_back(entry);
                }
            }
            std::vector<const phys_entry *> held;
            for (const phys_entry *e = kavplat::first_held(*container); e;
                 e = kavplat::next_held(*e)) {
                held.push_back(e);
            }
            ASSERT_EQ(held, expected) << "of " << container->entPhysicalName << " at step " << step;
        }
    }
}

} // namespace

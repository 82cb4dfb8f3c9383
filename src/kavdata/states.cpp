// The states of an entity, in the terms of ENTITY-STATE-MIB: what is asked for them, and
// what follows from what the cache holds.
#include "kavdata/cache_internal.h"
#include "kavdata/codes.h"
#include "kavdata/live.h"
#include "kavdata/thresholds.h"

#include <cmath>
#include <ctime>

namespace kavplat
{

namespace
{

bool is_sensor(const phys_entry &entry)
{
    return entry.entPhysicalClass == PHYSICAL_CLASS_SENSOR;
}

bool is_indicator(const phys_entry &entry)
{
    return entry.platPhysicalClass == kavPlatPhysicalClass::alarm;
}

// Whether the states of what holds it depend on it. A slot identity is a number on a
// plate.
bool is_instrument(const phys_entry &entry)
{
    return is_sensor(entry) && entry.capiComponentType != CAPI_TYPE_SLOT_IDENTITY;
}

// As an instrument, but of what is raised alone: somebody said what it means that it is on.
bool is_telling_indicator(const phys_entry &entry)
{
    return is_indicator(entry) && entry.indicatorMeaning != 0;
}

// Calls f with each that `is_one` of what a component holds; a sensor or an indicator is
// no component that something is said of.
template <class F>
void for_each_held(const phys_entry &component, bool (*is_one)(const phys_entry &), F &&f)
{
    if (is_sensor(component) || is_indicator(component)) {
        return;
    }
    for (phys_entry *held = first_held(component); held; held = next_held(*held)) {
        if (is_one(*held)) {
            f(*held);
        }
    }
}

template <class F>
void for_each_instrument(const phys_entry &component, F &&f)
{
    for_each_held(component, is_instrument, f);
}

// ---- What a sensor says ----

enum class reading { none, given, not_to_be_had, not_valid };

reading reading_of(const phys_entry &sensor)
{
    const sensor_look &look = sensor.look;
    if (look.disabled || look.outcome == LOOK_INVALID) {
        return reading::not_valid;
    }
    if (look.outcome == LOOK_NONE) {
        return reading::none;
    }
    return look.outcome == LOOK_READ && !std::isnan(look.reading) ? reading::given
                                                                  : reading::not_to_be_had;
}

constexpr uint32_t bit(int32_t number)
{
    return 0x80U >> number;
}

uint32_t bit_of_severity(int32_t severity)
{
    switch (severity) {
    case kavPlatEquipmentSeverity::critical:
        return bit(entStateAlarm::critical);
    case kavPlatEquipmentSeverity::major:
        return bit(entStateAlarm::major);
    case kavPlatEquipmentSeverity::minor:
        return bit(entStateAlarm::minor);
    case kavPlatEquipmentSeverity::warning:
        return bit(entStateAlarm::warning);
    default:
        return 0;
    }
}

// Each limit in force that the reading crossed, as the platform told both: the numbers
// of the numeric table were cut, or follow the scale of another reading.
uint32_t crossed_limits(const phys_entry &sensor)
{
    const uint8_t mask = relaxed_load(sensor.thresholdMask);
    const float now = sensor.look.reading;
    uint32_t raised = 0;
    for (size_t i = 0; i < std::size(thresholds); i++) {
        const threshold &t = thresholds[i];
        const float limit = relaxed_load(sensor.limits[i]);
        if ((mask & t.mask_bit()) && (t.is_upper ? now >= limit : now <= limit)) {
            raised |= bit_of_severity(t.severity);
        }
    }
    return raised;
}

bool deviates(const phys_entry &sensor)
{
    return sensor.sensorKind == SENSOR_KIND_BINARY && reading_of(sensor) == reading::given &&
           sensor.binarySensorValue1 != sensor.binarySensorValue2;
}

bool says_failed(const phys_entry &instrument)
{
    return instrument.capiComponentType == CAPI_TYPE_FAULT_SENSOR && deviates(instrument);
}

uint32_t alarms_of_sensor(const phys_entry &sensor)
{
    if (!is_instrument(sensor) || sensor.look.disabled) {
        return 0;
    }
    switch (reading_of(sensor)) {
    case reading::none:
        return 0;
    case reading::given:
        break;
    default:
        return bit(entStateAlarm::unknown);
    }
    if (sensor.sensorKind == SENSOR_KIND_NUMERIC) {
        return crossed_limits(sensor);
    }
    if (sensor.sensorKind != SENSOR_KIND_BINARY) {
        return bit(entStateAlarm::unknown);
    }
    if (!deviates(sensor)) {
        return 0;
    }
    switch (sensor.capiComponentType) {
    case CAPI_TYPE_FAULT_SENSOR:
        return bit(entStateAlarm::major);
    case CAPI_TYPE_PREDICTIVE_SENSOR:
        return bit(entStateAlarm::warning);
    default:
        return 0;
    }
}

// However it blinks: who built it chose that. One that cannot be read, or shows what is not
// known here, raises nothing.
bool is_lit(const phys_entry &indicator)
{
    return indicator.look.outcome == LOOK_READ && !indicator.look.disabled &&
           (indicator.alarmCol2 == kavPlatAlarmState::steady ||
            indicator.alarmCol2 == kavPlatAlarmState::alternating);
}

// What an indicator raises on the component that holds it; nothing on its own row, for it
// is not what has failed.
uint32_t alarms_by_indicator(const phys_entry &indicator)
{
    if (!is_lit(indicator)) {
        return 0;
    }
    switch (indicator.indicatorMeaning) {
    case CAPI_MEANS_SERVICE:
        return bit(entStateAlarm::warning);
    case CAPI_MEANS_FAULT:
        return bit(entStateAlarm::critical);
    default:
        return 0;
    }
}

uint32_t alarms_of(const phys_entry &entry)
{
    if (is_sensor(entry)) {
        return alarms_of_sensor(entry);
    }
    uint32_t raised = 0;
    for_each_instrument(
        entry, [&raised](const phys_entry &instrument) { raised |= alarms_of_sensor(instrument); });
    for_each_held(entry, is_telling_indicator, [&raised](const phys_entry &indicator) {
        raised |= alarms_by_indicator(indicator);
    });
    // That one of its sensors does not read is an alarm of that sensor's row.
    return raised & ~bit(entStateAlarm::unknown);
}

// ---- The other states ----

int32_t admin_of(const phys_entry &entry)
{
    switch (entry.equipmentCol1) {
    case kavPlatEquipmentAdminState::locked:
        return entStateAdmin::locked;
    case kavPlatEquipmentAdminState::unlocked:
        return entStateAdmin::unlocked;
    case kavPlatEquipmentAdminState::shuttingDown:
        return entStateAdmin::shuttingDown;
    default:
        return entStateAdmin::unknown;
    }
}

int32_t equipment_oper(const phys_entry &entry)
{
    return entry.equipmentCol2 == kavPlatEquipmentOperState::disabled ? entStateOper::disabled
                                                                      : entStateOper::enabled;
}

int32_t oper_of(const phys_entry &entry)
{
    if (is_sensor(entry)) {
        switch (reading_of(entry)) {
        case reading::given:
            return entStateOper::enabled;
        case reading::not_valid:
            return entStateOper::disabled;
        case reading::not_to_be_had:
            return entStateOper::unknown;
        case reading::none:
            break;
        }
        return equipment_oper(entry);
    }
    bool failed = false;
    for_each_instrument(
        entry, [&failed](const phys_entry &instrument) { failed |= says_failed(instrument); });
    return failed ? entStateOper::disabled : equipment_oper(entry);
}

// What its presence sensors say counts, and without one what the inventory lists.
int32_t usage_of(const phys_entry &entry)
{
    if (!(entry.capiCaps[CAPI_CAP_HOLDER_BYTE] & CAPI_CAP_HOLDER)) {
        return entStateUsage::unknown;
    }
    bool is_told = false;
    bool is_present = false;
    bool is_listed = false;
    for (const phys_entry *held = first_held(entry); held; held = next_held(*held)) {
        if (!is_sensor(*held)) {
            is_listed |= !is_indicator(*held) && held->entPhysicalClass != PHYSICAL_CLASS_CONTAINER;
        } else if (held->sensorKind == SENSOR_KIND_BINARY &&
                   held->sensorCol2 == kavPlatSensorType::presence &&
                   reading_of(*held) == reading::given) {
            is_told = true;
            is_present |= held->binarySensorValue1 == TRUTH_TRUE;
        }
    }
    return (is_told ? is_present : is_listed) ? entStateUsage::busy : entStateUsage::idle;
}

// A power supply or a fan that is enabled and unlocked runs, unless one of its sensors says
// that it is absent or all that count turns say that it stands still. One without power is
// locked; one that is shutting down has ceased to be of use.
int32_t standby_of(const phys_entry &entry, int32_t admin, int32_t oper)
{
    if ((entry.entPhysicalClass != PHYSICAL_CLASS_POWER_SUPPLY &&
         entry.entPhysicalClass != PHYSICAL_CLASS_FAN) ||
        admin != entStateAdmin::unlocked || oper != entStateOper::enabled) {
        return entStateStandby::unknown;
    }
    bool stands_still = false;
    bool turns = false;
    bool is_absent = false;
    for_each_instrument(entry, [&](const phys_entry &instrument) {
        if (reading_of(instrument) != reading::given) {
            return;
        }
        if (instrument.sensorKind == SENSOR_KIND_NUMERIC &&
            instrument.sensorCol2 == kavPlatSensorType::tachometer) {
            (instrument.look.reading > 0 ? turns : stands_still) = true;
        } else if (instrument.sensorKind == SENSOR_KIND_BINARY &&
                   instrument.sensorCol2 == kavPlatSensorType::presence) {
            is_absent |= instrument.binarySensorValue1 != TRUTH_TRUE;
        }
    });
    return is_absent || (stands_still && !turns) ? entStateStandby::unknown
                                                 : entStateStandby::providingService;
}

// ---- Asking ----

constexpr char looking[] = "look_at_states";

// Of all but sensors, which are looked at as a whole.
void look_at_enable_state(phys_entry &entry, uint32_t now)
{
    if (!has_enable_state(entry) || is_current(entry.look.state_time, now)) {
        return;
    }
    const uint32_t last_read = entry.lastReadTime;
    apply_enable_state(looking, entry, ask_enable_state(entry.entPhysicalName), now);
    if (is_indicator(entry)) {
        // Or its table would take the indicator as read.
        entry.lastReadTime = last_read;
    }
}

void look_at_indicator(phys_entry &entry)
{
    const uint32_t now = agent_uptime();
    look_at_enable_state(entry, now);
    if (is_current(entry.look.time, now)) {
        return;
    }
    const call_answer answer = ask_indicator(entry.entPhysicalName);
    if (answer.status != 0) {
        log_failed_indicator(entry.entPhysicalName);
    }
    apply_indicator(entry, answer, now);
}

} // namespace

void look_at_states(phys_entry &entry)
{
    const uint32_t now = agent_uptime();
    if (has_admin_state(entry) && !is_current(entry.adminTime, now)) {
        apply_admin_state(looking, entry, ask_admin_state(entry.entPhysicalName), now);
    }
    if (is_sensor(entry)) {
        look_at_sensor(entry);
        return;
    }
    look_at_enable_state(entry, now);
    for_each_instrument(entry, look_at_sensor);
    for_each_held(entry, is_telling_indicator, look_at_indicator);
}

entity_states states_of(const phys_entry &entry)
{
    const int32_t admin = admin_of(entry);
    const int32_t oper = oper_of(entry);
    return {.admin = admin,
            .oper = oper,
            .usage = usage_of(entry),
            .standby = standby_of(entry, admin, oper),
            .alarm = alarms_of(entry)};
}

bool are_states_known(const phys_entry &entry)
{
    if ((has_admin_state(entry) && entry.adminTime == 0) ||
        (has_enable_state(entry) && entry.look.state_time == 0) ||
        (is_sensor(entry) && entry.look.time == 0)) {
        return false;
    }
    bool are_known = true;
    const auto count_in = [&are_known](const phys_entry &held) {
        are_known = are_known && held.look.time != 0;
    };
    for_each_instrument(entry, count_in);
    for_each_held(entry, is_telling_indicator, count_in);
    return are_known;
}

std::optional<states_change> note_states(phys_entry &entry)
{
    if (!are_states_known(entry)) {
        return {};
    }
    const entity_states now = states_of(entry);
    noted_states &noted = entry.noted;
    const states_change change = {.before = noted.states, .after = now};
    if (noted.are_known && change.before == now) {
        return {};
    }
    noted.states = now;
    if (!noted.are_known) {
        noted.are_known = 1;
        return {};
    }
    noted.since = time(nullptr);
    return change;
}

std::optional<states_change> take_oper_change(phys_entry &entry)
{
    noted_states &noted = entry.noted;
    const int32_t told = noted.told_oper;
    // What cannot be read for a while is nothing to tell, nor is its return.
    if (!noted.are_known || told == noted.states.oper ||
        noted.states.oper == entStateOper::unknown) {
        return {};
    }
    noted.told_oper = noted.states.oper;
    if (told == 0) {
        return {};
    }
    states_change change = {.before = noted.states, .after = noted.states};
    change.before.oper = told;
    return change;
}

} // namespace kavplat

#include "watch/look.h"

#include "kavdata/codes.h"
#include "kavdata/live.h"
#include "kavdata/measure.h"
#include "kavdata/severity.h"
#include "kavdata/thresholds.h"

#include <algorithm>
#include <cstring>

namespace kavplat
{

namespace
{

constexpr char caller[] = "watch";

// For so long after the last sign of life what was found is good: one call of the platform
// may take as long. In hundredths of a second.
constexpr uint32_t longest_call = 1000;

// Rows that are looked through in one go under the lock.
constexpr uint32_t rows_at_a_time = 256;

class KAV_SCOPED_CAPABILITY cache_guard
{
  public:
    cache_guard() KAV_ACQUIRE(cache_lock) { take_cache_lock(); }
    ~cache_guard() KAV_RELEASE() { monitor_fru_unlock(); }
    cache_guard(const cache_guard &) = delete;
    cache_guard &operator=(const cache_guard &) = delete;
};

// What asking needs to know of a row.
struct subject {
    uint32_t index = 0;
    uint32_t incarnation = 0;
    std::string name;
    uint32_t component_type = 0;
    bool is_sensor = false;
    bool is_indicator = false;
    bool has_admin = false;
    bool has_enable = false;
    bool has_power = false;
};

struct answers {
    uint32_t asked_at;
    sensor_answer sensor;
    call_answer indicator;
    admin_answer admin;
    call_answer enable;
    call_answer power;
};

bool is_indicator(const phys_entry &row)
{
    return row.entPhysicalClass == PHYSICAL_CLASS_OTHER &&
           row.platPhysicalClass == kavPlatPhysicalClass::alarm;
}

bool was_asked(const phys_entry &row)
{
    return row.look.time != 0 || row.look.state_time != 0 || row.adminTime != 0 ||
           row.powerTime != 0;
}

bool take(subject &s, uint32_t index, const phys_entry &row)
{
    s.is_sensor = row.entPhysicalClass == PHYSICAL_CLASS_SENSOR;
    s.is_indicator = is_indicator(row);
    s.has_admin = has_admin_state(row);
    s.has_enable = has_enable_state(row);
    // Of what can hold something alone it is served.
    s.has_power = row.entPhysicalClass == PHYSICAL_CLASS_CONTAINER && has_power_state(row);
    if (!row.entPhysicalName ||
        !(s.is_sensor || s.is_indicator || s.has_admin || s.has_enable || s.has_power)) {
        return false;
    }
    s.index = index;
    s.incarnation = row.incarnation;
    s.name = row.entPhysicalName;
    s.component_type = row.capiComponentType;
    return true;
}

// The first row from index on of which there is something to ask. Index 0: none.
void find_subject(subject &s, uint32_t index, look_at which, uint32_t since)
{
    for (s.index = 0; s.index == 0 && index <= getMaxPhysicalIndex();) {
        const cache_guard lock;
        promise_renewal(since, agent_uptime() + longest_call);
        const uint32_t end = index + rows_at_a_time;
        for (; s.index == 0 && index < end && index <= getMaxPhysicalIndex(); index++) {
            const phys_entry *row = entry_at(index);
            if (row && (which == look_at::all_rows || !was_asked(*row))) {
                take(s, index, *row);
            }
        }
    }
}

answers ask(const subject &s, uint32_t since)
{
    answers a = {};
    a.asked_at = agent_uptime();
    const char *name = s.name.c_str();
    const auto renew = [since] {
        const cache_guard lock;
        promise_renewal(since, agent_uptime() + longest_call);
    };
    if (s.is_sensor) {
        renew();
        a.sensor = ask_sensor(name, s.component_type, renew);
    } else if (s.is_indicator) {
        renew();
        a.indicator = ask_indicator(name);
    }
    if (s.has_enable) {
        renew();
        a.enable = ask_enable_state(name);
    }
    if (s.has_admin) {
        renew();
        a.admin = ask_admin_state(name, renew);
    }
    if (s.has_power) {
        renew();
        a.power = ask_power_state(name);
    }
    return a;
}

// A failure is told of when it begins, not at every look.
void apply(phys_entry &row, const subject &s, const answers &a)
{
    const bool had_failed = row.look.outcome == LOOK_FAILED;
    if (s.is_sensor) {
        if (apply_sensor(row, a.sensor, a.asked_at); a.sensor.status != 0 && !had_failed) {
            log_failed_sensor(row.entPhysicalName, a.sensor.status);
        }
    } else if (s.is_indicator) {
        if (apply_indicator(row, a.indicator, a.asked_at); a.indicator.status != 0 && !had_failed) {
            log_failed_indicator(row.entPhysicalName);
        }
    }
    if (s.has_enable) {
        const uint32_t last_read = row.lastReadTime;
        apply_enable_state(caller, row, a.enable, a.asked_at);
        if (s.is_sensor || s.is_indicator) {
            // It has not been read by that.
            row.lastReadTime = last_read;
        }
    }
    if (s.has_admin) {
        apply_admin_state(caller, row, a.admin, a.asked_at);
    }
    if (s.has_power) {
        apply_power_state(caller, row, a.power, a.asked_at);
    }
}

std::string name_of_container(const phys_entry &row)
{
    const auto index = static_cast<uint32_t>(row.entPhysicalContainedIn);
    const phys_entry *container = index != 0 ? entry_at(index) : nullptr;
    return container && container->entPhysicalName ? container->entPhysicalName : "";
}

// The limit that stands for the change: one that the reading reached, or the one that it
// had reached when something was raised.
std::optional<told_reading> reading_of(const phys_entry &row, severity_memory &told, int32_t after)
{
    if (row.sensorKind != SENSOR_KIND_NUMERIC) {
        return {};
    }
    if (const int place = reached_limit(row, after); place >= 0) {
        told.limit = place + 1;
    }
    const measure &m = measure_of(row);
    told_reading reading = {value_of(row), m.precision, m.display, {}};
    if (told.limit != 0) {
        reading.limit = scaled(row, relaxed_load(row.limits[told.limit - 1]));
    }
    return reading;
}

void judge(look_memory &memory, uint32_t index, phys_entry &row, std::vector<notice> &found)
{
    // Remembered when all memory is there that it takes to tell it.
    severity_memory told = row.severity;
    if (const auto change = judge_severity(told, severity_at_last_look(row))) {
        severity_notice n = {index, row.entPhysicalName, name_of_container(row), *change,
                             reading_of(row, told, change->after)};
        if (change->after == kavPlatEquipmentSeverity::cleared) {
            memory.raised.erase(index);
        } else {
            memory.raised[index] = {row.incarnation, n.name, n.container, change->after};
        }
        found.emplace_back(std::move(n));
    }
    row.severity = told;
}

// Whoever has a ticket for what is gone may close it.
void clear_what_is_gone(look_memory &memory, std::vector<notice> &found)
{
    for (auto it = memory.raised.begin(); it != memory.raised.end();) {
        const auto &[index, raised] = *it;
        const phys_entry *row = entry_at(index);
        if (row && row->incarnation == raised.incarnation) {
            ++it;
            continue;
        }
        found.emplace_back(severity_notice{index,
                                           raised.name,
                                           raised.container,
                                           {raised.severity, kavPlatEquipmentSeverity::cleared},
                                           {}});
        it = memory.raised.erase(it);
    }
}

// The states of a component follow from what it holds, so they come when all was asked.
void note_all_states(const look_memory &memory, std::vector<notice> &found)
{
    for (uint32_t index = 1; index <= getMaxPhysicalIndex();) {
        const cache_guard lock;
        const uint32_t end = index + rows_at_a_time;
        for (; index < end && index <= getMaxPhysicalIndex(); index++) {
            phys_entry *row = entry_at(index);
            if (!row) {
                continue;
            }
            note_states(*row);
            if (!memory.tells_oper) {
                continue;
            }
            if (const auto change = take_oper_change(*row)) {
                const entity_states &now = change->after;
                found.emplace_back(oper_notice{index, now.oper == entStateOper::enabled, now.admin,
                                               static_cast<uint8_t>(now.alarm)});
            }
        }
    }
}

} // namespace

bool look(look_memory &memory, look_at which, const std::function<bool()> &go_on,
          std::vector<notice> &found)
{
    const uint32_t begin = agent_uptime();
    if (!memory.has_begun) {
        memory.has_begun = true;
        memory.since = begin;
    }
    subject s;
    for (find_subject(s, 1, which, memory.since); s.index != 0;
         find_subject(s, s.index + 1, which, memory.since)) {
        const answers a = ask(s, memory.since);
        {
            const cache_guard lock;
            // Meanwhile the row may have gone, and another may have its index, even one
            // of its name.
            phys_entry *row = entry_at(s.index);
            if (row && row->incarnation == s.incarnation) {
                apply(*row, s, a);
                if (s.is_sensor) {
                    judge(memory, s.index, *row, found);
                }
            }
        }
        if (!go_on()) {
            return false;
        }
    }
    {
        const cache_guard lock;
        clear_what_is_gone(memory, found);
    }
    note_all_states(memory, found);
    if (which == look_at::all_rows) {
        memory.since = begin;
    }
    return true;
}

void rest_for(const look_memory &memory, uint32_t hundredths)
{
    const cache_guard lock;
    promise_renewal(memory.since, agent_uptime() + hundredths + longest_call);
}

} // namespace kavplat

// Live values, read in two halves: what asks the platform knows the row by a copy of
// what identifies it and needs no lock; what applies an answer to the row runs under
// the cache lock and asks nobody. A request does both under the lock, one after the
// other; who watches asks without it.
#ifndef KAVPLAT_KAVDATA_LIVE_H
#define KAVPLAT_KAVDATA_LIVE_H

#include "kavdata/cache.h"

#include <functional>

namespace kavplat
{

// What a call that tells one number gave; the value of a failed call says nothing.
struct call_answer {
    int status;
    int32_t value;
};

struct sensor_answer {
    int status;
    bool has_ok_semantics; // asked only of sensors whose record does not say it
    capi_sensor_record record;
};

// Whether an entity is ready to be removed and, where that is not known, its power.
struct admin_answer {
    call_answer ready;
    call_answer power;
};

// ---- Ask: any thread ----
//
// What may take two calls of the platform calls `between` before the second.

using between_calls = std::function<void()>;
inline void nothing_between_calls() {}

sensor_answer ask_sensor(const char *name, uint32_t component_type,
                         const between_calls &between = nothing_between_calls);
call_answer ask_indicator(const char *name);
call_answer ask_enable_state(const char *name);
call_answer ask_power_state(const char *name);
admin_answer ask_admin_state(const char *name,
                             const between_calls &between = nothing_between_calls);

// ---- Apply: cache lock held; now is the agent's up-time of the question ----

// As snmp_read_sensor and snmp_read_led give: 0 with a good reading, else -1.
int apply_sensor(phys_entry &row, const sensor_answer &answer, uint32_t now);
int apply_indicator(phys_entry &row, const call_answer &answer, uint32_t now);

// Into equipmentCol1, equipmentCol2 and holderCol4; caller is whom a failure is told of.
void apply_admin_state(const char *caller, phys_entry &row, const admin_answer &answer,
                       uint32_t now);
void apply_enable_state(const char *caller, phys_entry &row, const call_answer &answer,
                        uint32_t now);
void apply_power_state(const char *caller, phys_entry &row, const call_answer &answer,
                       uint32_t now);

// ---- Watching: cache lock held ----
//
// Somebody may renew all live values again and again, and says so: what was asked at
// `since` or later is good until `until`, however old it is by then. Both are up-times
// of the agent. He says it anew before each call, so that requests ask for themselves
// again soon after he has ceased to, or when one call keeps him for long.

void promise_renewal(uint32_t since, uint32_t until);
void renew_no_more();

// Whether what was asked at `stamp` (0: never) is renewed by somebody.
bool is_renewed(uint32_t stamp, uint32_t now);

// Whether it need not be asked for: it is, or it was asked for within ten seconds.
bool is_current(uint32_t stamp, uint32_t now);

// ---- What a failure is told as ----

void log_failed_sensor(const char *name, int status);
void log_failed_indicator(const char *name);

// ---- Which of these an entity has ----

inline bool has_admin_state(const phys_entry &entry)
{
    return entry.capiCaps[CAPI_CAP_FIELD_REPLACEABLE_BYTE] & CAPI_CAP_FIELD_REPLACEABLE;
}

inline bool has_enable_state(const phys_entry &entry)
{
    return entry.capiCaps[CAPI_CAP_ENABLE_STATE_BYTE] & CAPI_CAP_ENABLE_STATE;
}

inline bool has_power_state(const phys_entry &entry)
{
    return entry.capiCaps[CAPI_CAP_POWER_BYTE] &
           (CAPI_CAP_POWER_READABLE | CAPI_CAP_POWER_CONTROLLABLE);
}

} // namespace kavplat

#endif

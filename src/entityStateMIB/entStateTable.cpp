#include "entityStateMIB/entStateTable.h"

#include "kavdata/cache.h"

#include <chrono>

namespace kavplat
{

namespace
{

constexpr oid root[] = {1, 3, 6, 1, 2, 1, 131, 1, 1};

// What is served is what is noted, so that states and time go together.
void look_and_note(phys_entry &entry) KAV_REQUIRES(cache_lock)
{
    look_at_states(entry);
    note_states(entry);
}

entity_states current(phys_entry &entry) KAV_REQUIRES(cache_lock)
{
    look_and_note(entry);
    // In the first hundredth of a second of its up-time the agent knows no time of a
    // look, so nothing counts as looked at.
    return entry.noted.are_known ? entry.noted.states : states_of(entry);
}

// A DateAndTime of 11 octets: in UTC, and saying so.
cell last_changed(phys_entry &entry) KAV_REQUIRES(cache_lock)
{
    using namespace std::chrono;
    look_and_note(entry);
    const sys_seconds time{seconds{entry.noted.since}};
    const sys_days day = floor<days>(time);
    const year_month_day date{day};
    const hh_mm_ss clock{time - day};
    const auto year = static_cast<unsigned>(static_cast<int>(date.year()));
    constexpr u_char tenths = 0; // states are looked at no closer
    return {.length = 11,
            .octets = {static_cast<u_char>(year >> 8), static_cast<u_char>(year),
                       static_cast<u_char>(static_cast<unsigned>(date.month())),
                       static_cast<u_char>(static_cast<unsigned>(date.day())),
                       static_cast<u_char>(clock.hours().count()),
                       static_cast<u_char>(clock.minutes().count()),
                       static_cast<u_char>(clock.seconds().count()), tenths, '+', 0, 0}};
}

template <int32_t entity_states::*State>
int32_t state(phys_entry &entry) KAV_REQUIRES(cache_lock)
{
    return current(entry).*State;
}

cell alarm(phys_entry &entry) KAV_REQUIRES(cache_lock)
{
    return {.length = 1, .octets = {static_cast<u_char>(current(entry).alarm)}};
}

constexpr column columns[] = {
    octets_from<last_changed>(1, "entStateLastChanged"),
    integer_from<state<&entity_states::admin>>(2, "entStateAdmin"),
    integer_from<state<&entity_states::oper>>(3, "entStateOper"),
    integer_from<state<&entity_states::usage>>(4, "entStateUsage"),
    octets_from<alarm>(5, "entStateAlarm"),
    integer_from<state<&entity_states::standby>>(6, "entStateStandby"),
};

} // namespace

constinit const table entStateTable = {
    .name = "entStateTable",
    .source = KAVPLAT_ROOM,
    .root = root,
    .columns = columns,
    .rows = all_rows,
    .get_first = get_first_of<entStateTable>,
    .get_next = get_next_of<entStateTable>,
    .handler = handler_of<entStateTable>,
};

} // namespace kavplat

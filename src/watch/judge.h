// What is worth telling a manager: decided by what was seen, without clock, lock or
// agent.
#ifndef KAVPLAT_WATCH_JUDGE_H
#define KAVPLAT_WATCH_JUDGE_H

#include "kavdata/phys_entry.h"

#include <cstdint>
#include <optional>

namespace kavplat
{

// kavPlatEquipmentSeverity: the lower the number, the graver; indeterminate is none of
// these and is never told.
struct severity_change {
    int32_t before;
    int32_t after;

    bool operator==(const severity_change &) const = default;
};

// What is to be told after a look that saw `seen`, if anything; remembered in `told`,
// which a row that was never looked at has as zeros.
//
// What is critical is told at once. Any other change is told when two looks on end saw
// one in the same direction, and then no more of it than both saw: a reading that swings
// about a limit is told once at most. A look that saw nothing (indeterminate) counts for
// nothing. Before the first look nothing is raised, so that after a start only what is
// raised then is told.
std::optional<severity_change> judge_severity(severity_memory &told, int32_t seen);

// The severity that was told last.
int32_t told_severity(const severity_memory &told);

// Times are up-times of the agent, in hundredths of a second.
inline constexpr uint32_t least_between_config_changes = 500;

// entConfigChange is sent when entLastChangeTime is another than that of the last one,
// and five seconds after that one at the earliest: the last change is told of, late
// perhaps.
struct config_change_memory {
    uint32_t told_change = 0; // entLastChangeTime then, or at the start
    bool was_told = false;
    uint32_t told_at = 0;
};

// Whether one is to be sent now; takes it as sent.
bool judge_config_change(config_change_memory &memory, uint32_t last_change, uint32_t now);

} // namespace kavplat

#endif

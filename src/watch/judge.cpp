#include "watch/judge.h"

#include "kavdata/codes.h"

#include <algorithm>
#include <utility>

namespace kavplat
{

namespace severities = kavPlatEquipmentSeverity;

int32_t told_severity(const severity_memory &told)
{
    return told.told != 0 ? told.told : int32_t{severities::cleared};
}

std::optional<severity_change> judge_severity(severity_memory &memory, int32_t seen)
{
    if (seen == severities::indeterminate) {
        return {};
    }
    const int32_t told = told_severity(memory);
    const int32_t seen_before = std::exchange(memory.seen, seen);
    int32_t now = told;
    if (seen == severities::critical) {
        now = seen;
    } else if (seen_before != 0) {
        const auto [graver, lesser] = std::minmax(seen_before, seen);
        if (lesser < told) {
            now = lesser;
        } else if (graver > told) {
            now = graver;
        }
    }
    memory.told = now;
    if (now == told) {
        return {};
    }
    return severity_change{told, now};
}

bool judge_config_change(config_change_memory &memory, uint32_t last_change, uint32_t now)
{
    if (last_change == memory.told_change ||
        (memory.was_told && now - memory.told_at < least_between_config_changes)) {
        return false;
    }
    memory = {last_change, true, now};
    return true;
}

} // namespace kavplat

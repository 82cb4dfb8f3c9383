// What is to be told to managers: noted by whoever sees it, on any thread, and sent by
// the agent's thread, which alone may do that.
#ifndef KAVPLAT_WATCH_NOTICES_H
#define KAVPLAT_WATCH_NOTICES_H

#include "watch/judge.h"

#include <optional>
#include <string>
#include <vector>

namespace kavplat
{

// A reading as ENTITY-SENSOR-MIB measures it.
struct told_reading {
    int32_t value;
    int32_t precision;
    const char *display;          // lives as long as the program
    std::optional<int32_t> limit; // reached or left by the reading, in the same measure
};

struct severity_notice {
    uint32_t index;
    std::string name;
    std::string container; // its name; empty: none
    severity_change change;
    std::optional<told_reading> reading; // of a numeric sensor
};

// A change of the operational state, with what ENTITY-STATE-MIB wants told of it.
struct oper_notice {
    uint32_t index;
    bool is_enabled;
    int32_t admin;
    uint8_t alarm; // the octet of the BITS
};

// ---- Agent's thread ----

void send_notice(const severity_notice &notice);
void send_notice(const oper_notice &notice);
void send_config_change();

} // namespace kavplat

#endif

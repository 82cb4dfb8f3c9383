/*
 * What an agent tells of a box: its physical entities as a tree, with their states
 * and readings, from whichever of ENTITY-MIB, ENTITY-STATE-MIB, ENTITY-SENSOR-MIB and
 * KAV-PLATFORM-MIB it serves. Plain data; all that prints it reads it alone.
 */
#ifndef KAVPLAT_AGENT_ENTITY_H
#define KAVPLAT_AGENT_ENTITY_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kavplat_agent
{

/* How an entity is, each graver than those before it. */
enum class level { unjudged, good, unread, warning, critical };

enum limit {
    lower_fatal,
    lower_critical,
    lower_warning,
    upper_warning,
    upper_critical,
    upper_fatal,
    limit_count
};

enum class sensor_status { ok, unavailable, nonoperational };

struct reading {
    std::string unit = {}; /* "°C"; empty: none */
    int decimals = 0;      /* that the value has */
    std::optional<double> number = {};
    bool beyond = false; /* the number is the end of what the agent can serve */
    std::array<std::optional<double>, limit_count> limits{};

    bool two_states = false; /* then there is no number, but: */
    std::optional<bool> state = {};
    std::optional<bool> expected = {};
    std::string text = {}; /* what the state means, where the agent tells */
    bool tells_presence = false;

    sensor_status status = sensor_status::ok;
};

struct entity {
    uint32_t index = 0;
    uint32_t contained_in = 0; /* as the agent tells; parent is what was made of it */
    int32_t class_code = 0;    /* of IANAPhysicalClass; 0: not told */
    int32_t position = -1;
    /* Octets of the agent: see printable() before they go anywhere. */
    std::string name = {};
    std::string description = {};
    std::string model = {};
    std::string serial = {};
    std::string manufacturer = {};
    std::string hardware_revision = {};
    std::string firmware_revision = {};
    std::string software_revision = {};
    std::string alias = {};
    std::optional<bool> is_fru = {};

    /* Codes as the agent serves them; none: not told. */
    std::optional<int32_t> admin = {};    /* EntityAdminState */
    std::optional<int32_t> oper = {};     /* EntityOperState */
    std::optional<int32_t> standby = {};  /* EntityStandbyStatus */
    std::optional<uint8_t> alarms = {};   /* EntityAlarmStatus, its first octet */
    std::optional<int32_t> severity = {}; /* kavPlatEquipmentSeverity */
    std::optional<int32_t> light = {};    /* kavPlatAlarmState */
    std::optional<reading> sensor = {};

    /* What judge() made of it. */
    level own = level::unjudged;   /* of itself, not of what is in it */
    level worst = level::unjudged; /* with all that is in it */
    std::string reason = {};       /* of a level from unread on */
    bool inherited = false;        /* something below it has the same trouble */

    /* Places in box::entities. */
    std::optional<size_t> parent = {};
    std::vector<size_t> children = {};
};

/* What tells whether a box has to be read again. */
struct change_mark {
    uint32_t uptime = 0;      /* hundredths of seconds; 0 also where it is not served */
    uint32_t last_change = 0; /* entLastChangeTime; likewise */
    std::string started = {}; /* kavPlatStartTime, octets; empty: not served */
};

struct box {
    std::string agent;
    std::string system;           /* sysDescr of the agent */
    change_mark mark;             /* from before the entities were read */
    bool has_sensors = false;     /* ENTITY-SENSOR-MIB or the sensors of KAV-PLATFORM-MIB */
    bool has_states = false;      /* ENTITY-STATE-MIB or the states of KAV-PLATFORM-MIB */
    std::vector<entity> entities; /* by increasing index */
    std::vector<size_t> roots;
    std::vector<std::string> troubles; /* what could not be read, or contradicts itself */
    size_t requests = 0;
    double seconds = 0; /* that the reading took */
};

/* Sets parents, children and roots from contained_in: whatever the agent tells, each
 * entity is in the tree once. */
void make_tree(box &all);

/* Sets own, worst, reason and inherited. */
void judge(box &all);

/* The name, or what can stand for it where the agent gives none. */
std::string shown_name(const entity &each);

/* A place and its depth, in the tree's order. */
struct tree_line {
    size_t at;
    size_t depth;
};
std::vector<tree_line> in_order(const box &all, const std::vector<size_t> &from);

/* The entity that is meant by a name: the whole of it, or else its end behind a
 * slash, in any case. None: failure says what is wrong, and what there is instead. */
std::optional<size_t> find_entity(const box &all, const std::string &name, std::string &failure);

} // namespace kavplat_agent

#endif

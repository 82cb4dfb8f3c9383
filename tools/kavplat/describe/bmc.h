/*
 * What a service processor says of the machine by IPMI, from its records of sensors and
 * of what can be replaced. Who asks it is bmc_client.h; here is what the answers mean.
 */
#ifndef KAVPLAT_DESCRIBE_BMC_H
#define KAVPLAT_DESCRIBE_BMC_H

#include "tools/kavplat/describe/machine.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kavplat_describe
{

/* Which one of a kind: kinds are numbered by IPMI, instances from 0
 * or 1 on by the maker. */
struct bmc_entity {
    unsigned kind = 0;
    unsigned instance = 0;

    auto operator<=>(const bmc_entity &) const = default;
};

struct bmc_sensor {
    std::string key;  /* "20.0.3a": its owner, unit and number; and the name of its file */
    std::string name; /* as the service processor calls it */
    bmc_entity entity{};
    std::string quantity{};                 /* "temperature"; empty: it has flags */
    std::map<std::string, double> limits{}; /* by the keys of a description */
    std::vector<std::string> flags{};       /* "presence", "fault": files of key and flag */
    std::optional<bool> present{};          /* what it says of the entity */
};

/* What can be replaced, and says what it is. */
struct bmc_unit {
    bmc_entity entity{};
    identity product{};
    identity board{};
    identity chassis{};
    bool whole = false; /* the machine itself, with its board and chassis */
};

struct bmc_inventory {
    std::string directory{}; /* absolute: the files of the sensors */
    std::vector<bmc_sensor> sensors{};
    std::vector<bmc_unit> units{};
};

/* One of the states of a discrete sensor, or several that mean the same. */
struct bmc_flag {
    const char *name;
    uint16_t states;
};

/* What of a discrete sensor is described: flags of which at least one state is among
 * those that the sensor can tell; all when it does not say which. */
std::vector<bmc_flag> bmc_flags(unsigned sensor_type, unsigned reading_type, uint16_t can_tell);

/* A sensor's value is in the file of its key, or of key, dot and flag; whether it is to
 * be believed in that of key and ".valid". */
std::string bmc_file(const std::string &directory, const std::string &key, const char *what = "");

/* From now on no value in those files is to be believed. */
void disbelieve(const bmc_inventory &told);

/* Values are current as long as somebody reads them again and again. Who does says so
 * until its process ends, however it ends; false: somebody else has said it. */
bool keep_values(const std::string &directory);
bool are_kept(const std::string &directory);

/* Lays what the service processor knows over what was found: what is there already is
 * not found once more. */
void add_bmc(const bmc_inventory &told, machine &into);

json to_json(const bmc_inventory &told);
/* Throws when it is no inventory. */
bmc_inventory inventory_of(const json &text);

} // namespace kavplat_describe

#endif

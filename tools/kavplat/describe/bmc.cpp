#include "tools/kavplat/describe/bmc.h"

#include "tools/kavplat/describe/output.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace kavplat_describe
{
namespace
{

constexpr unsigned any = 0x100;
constexpr unsigned specific = 0x6f; /* states that the type of the sensor numbers */

/* Which states mean what, by the types of sensor and of reading. Where both the first
 * and a later line fit, each adds its flag. */
constexpr struct {
    unsigned sensor_type;
    unsigned reading_type;
    bmc_flag flag;
} known_flags[] = {
    {any, 0x08, {"presence", 1U << 1U}},
    {0x25, specific, {"presence", 1U << 0U}},
    {0x07, specific, {"presence", 1U << 7U}},
    {0x08, specific, {"presence", 1U << 0U}},
    {0x0c, specific, {"presence", 1U << 6U}},
    {0x0d, specific, {"presence", 1U << 0U}},
    /* Of fans, supplies and drives that only say whether: it is whether they fail. */
    {0x04, 0x03, {"fault", 1U << 1U}},
    {0x08, 0x03, {"fault", 1U << 1U}},
    {0x0d, 0x03, {"fault", 1U << 1U}},
    {any, 0x04, {"predictive", 1U << 1U}},
    {any, 0x07, {"fault", 0x6c}},      /* critical, non-recoverable */
    {any, 0x07, {"predictive", 0x12}}, /* non-critical */
    {any, 0x0b, {"fault", 0x22}},      /* redundancy lost, resources do not suffice */
    {0x05, specific, {"intrusion", 1U << 0U}},
    {0x07, specific, {"fault", 0x087f}}, /* internal error, thermal trip, failed self test */
    {0x08, specific, {"fault", 1U << 1U}},
    {0x08, specific, {"predictive", 1U << 2U}},
    {0x08, specific, {"input_lost", 0x38}},
    {0x0c, specific, {"fault", 0x96}}, /* uncorrectable, parity, disabled, configuration */
    {0x0c, specific, {"predictive", 1U << 5U}},
    {0x0d, specific, {"fault", 1U << 1U}},
    {0x0d, specific, {"predictive", 1U << 2U}},
};

json to_json(const identity &it)
{
    return {{"model", it.model},
            {"manufacturer", it.manufacturer},
            {"serial", it.serial},
            {"alias", it.alias},
            {"revision", it.software_revision}};
}

identity identity_of(const json &text)
{
    return {.model = text.at("model"),
            .manufacturer = text.at("manufacturer"),
            .serial = text.at("serial"),
            .alias = text.at("alias"),
            .software_revision = text.at("revision")};
}

json to_json(bmc_entity it)
{
    return json::array({it.kind, it.instance});
}

bmc_entity entity_of(const json &text)
{
    return {.kind = text.at(0), .instance = text.at(1)};
}

} // namespace

std::vector<bmc_flag> bmc_flags(unsigned sensor_type, unsigned reading_type, uint16_t can_tell)
{
    std::vector<bmc_flag> found;
    for (const auto &each : known_flags) {
        if ((each.sensor_type == any || each.sensor_type == sensor_type) &&
            each.reading_type == reading_type &&
            (can_tell == 0 || (each.flag.states & can_tell) != 0)) {
            found.push_back(each.flag);
        }
    }
    return found;
}

std::string bmc_file(const std::string &directory, const std::string &key, const char *what)
{
    return directory + '/' + key + (*what == '\0' ? "" : ".") + what;
}

void disbelieve(const bmc_inventory &told)
{
    std::string ignored; /* there is nobody left to tell */
    for (const bmc_sensor &each : told.sensors) {
        replace_file(bmc_file(told.directory, each.key, "valid"), "0\n", ignored, false);
    }
}

namespace
{

/* A lock that the kernel takes away with the process; below 0: it is not to be had. */
int lock(const std::string &directory, int how)
{
    const int descriptor = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor >= 0 && ::flock(descriptor, how | LOCK_NB) != 0) {
        ::close(descriptor);
        return -1;
    }
    return descriptor;
}

} // namespace

bool keep_values(const std::string &directory)
{
    return lock(directory, LOCK_EX) >= 0; /* to the end of the process: it stays open */
}

bool are_kept(const std::string &directory)
{
    errno = 0;
    const int free = lock(directory, LOCK_SH);
    if (free >= 0) {
        ::close(free);
    }
    return free < 0 && errno == EWOULDBLOCK;
}

json to_json(const bmc_inventory &told)
{
    json sensors = json::array();
    for (const bmc_sensor &each : told.sensors) {
        json one = {
            {"key", each.key},           {"name", each.name},     {"entity", to_json(each.entity)},
            {"quantity", each.quantity}, {"limits", each.limits}, {"flags", each.flags}};
        if (each.present) {
            one["present"] = *each.present;
        }
        sensors.push_back(std::move(one));
    }
    json units = json::array();
    for (const bmc_unit &each : told.units) {
        units.push_back({{"entity", to_json(each.entity)},
                         {"product", to_json(each.product)},
                         {"board", to_json(each.board)},
                         {"chassis", to_json(each.chassis)},
                         {"whole", each.whole}});
    }
    return {{"directory", told.directory},
            {"sensors", std::move(sensors)},
            {"units", std::move(units)}};
}

bmc_inventory inventory_of(const json &text)
{
    bmc_inventory told;
    told.directory = text.at("directory");
    for (const json &each : text.at("sensors")) {
        bmc_sensor one;
        one.key = each.at("key");
        one.name = each.at("name");
        one.entity = entity_of(each.at("entity"));
        one.quantity = each.at("quantity");
        one.limits = each.at("limits").get<std::map<std::string, double>>();
        one.flags = each.at("flags").get<std::vector<std::string>>();
        if (each.contains("present")) {
            one.present = each.at("present").get<bool>();
        }
        told.sensors.push_back(std::move(one));
    }
    for (const json &each : text.at("units")) {
        told.units.push_back({.entity = entity_of(each.at("entity")),
                              .product = identity_of(each.at("product")),
                              .board = identity_of(each.at("board")),
                              .chassis = identity_of(each.at("chassis")),
                              .whole = each.at("whole")});
    }
    return told;
}

} // namespace kavplat_describe

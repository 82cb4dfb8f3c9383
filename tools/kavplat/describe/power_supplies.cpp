#include "tools/kavplat/describe/locations.h"
#include "tools/kavplat/describe/parts.h"
#include "tools/kavplat/describe/sources.h"

#include <algorithm>

namespace kavplat_describe
{
namespace
{

constexpr struct {
    const char *kernel; /* as the kernel calls the kind of supply */
    const char *type;
} kinds[] = {{"Battery", "battery"}, {"UPS", "power-supply"}, {"Mains", "ac-power-supply"}};

constexpr double micro = 1e-6;
constexpr double tenth = 0.1;
const measured microvolts{"voltage-sensor", "voltage", "volts", micro};
const measured microamperes{"current-sensor", "current", "amps", micro};
const measured tenths_of_degrees{"temperature-sensor", "temperature", "degrees-c", tenth};

const struct {
    const char *file;
    const char *label;
    const measured &what;
} readings[] = {
    {"capacity", "CHARGE", charge},     {"voltage_now", "V", microvolts},
    {"current_now", "I", microamperes}, {"power_now", "P", power},
    {"temp", "T", tenths_of_degrees},
};

/* What a battery holds when it is full, in percent of what it held when it was new. */
void add_life(const tree &files, const std::string &path, component &supply, machine &into)
{
    constexpr double percent = 100;
    for (const char *stem : {"/energy_full", "/charge_full"}) {
        const auto fresh = files.number(path + stem + "_design");
        if (files.is_file(path + stem) && fresh.value_or(0) > 0) {
            measured life = charge;
            life.scale = percent / static_cast<double>(*fresh);
            add_reading(files, into, supply, "LIFE", life, path + stem);
            return;
        }
    }
}

} // namespace

void find_power_supplies(const tree &files, machine &into)
{
    const std::string directory = "/sys/class/power_supply";
    for (const std::string &name : files.names(directory)) {
        const std::string path = files.real(directory + '/' + name);
        const std::string type = files.text(path + "/type");
        const auto *kind =
            std::ranges::find_if(kinds, [&](const auto &known) { return type == known.kernel; });
        if (kind == std::end(kinds) || files.text(path + "/scope") == "Device") {
            continue; /* of a mouse, or of a socket that gives power to others */
        }
        component &supply = into.add(into.root(), label_of(name), kind->type, path);
        supply.fru.model = files.text(path + "/model_name");
        supply.fru.manufacturer = files.text(path + "/manufacturer");
        supply.fru.serial = files.text(path + "/serial_number");
        into.is_device(supply, path);
        if (files.is_file(path + "/present")) {
            add_presence(files, into, supply, path + "/present");
        }
        if (files.is_file(path + "/online")) {
            add_flag(files, into, supply, "ONLINE", "state-sensor", path + "/online", true);
        }
        for (const auto &each : readings) {
            if (files.is_file(path + '/' + each.file)) {
                add_reading(files, into, supply, each.label, each.what, path + '/' + each.file);
            }
        }
        add_life(files, path, supply, into);
        if (const std::string status = files.text(path + "/status"); !status.empty()) {
            add_state(into, supply, "CHARGING", "state-sensor", status == "Charging");
            add_state(into, supply, "DISCHARGING", "state-sensor", status == "Discharging");
        }
        if (const std::string health = files.text(path + "/health"); !health.empty()) {
            add_state(into, supply, "HEALTH", "fault-sensor",
                      health != "Good" && health != "Unknown");
        }
    }
}

} // namespace kavplat_describe

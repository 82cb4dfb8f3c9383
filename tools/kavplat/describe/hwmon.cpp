#include "tools/kavplat/describe/locations.h"
#include "tools/kavplat/describe/parts.h"
#include "tools/kavplat/describe/sources.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <map>
#include <set>

namespace kavplat_describe
{
namespace
{

/* What the kernel measures, by the first letters of the file. */
struct quantity {
    const char *stem;
    const char *label;
    const measured *what; /* null: only whether it is so */
};

const quantity quantities[] = {
    {"temp", "T", &temperature},   {"fan", "FAN", &speed},
    {"in", "V", &voltage},         {"curr", "I", &current},
    {"power", "P", &power},        {"energy", "E", &energy},
    {"humidity", "RH", &humidity}, {"intrusion", "INTRUSION", nullptr},
};

struct channel {
    const quantity *what = nullptr;
    unsigned number = 0;
    std::set<std::string> files; /* what stands after "temp1_" */
    std::string label;           /* what it is called, or empty */
};

struct chip {
    std::string name;
    std::string directory; /* that holds the files */
    std::string device;    /* empty: none */
};

/* By kind and number, as in the table above. */
using channels = std::map<std::pair<size_t, unsigned>, channel>;

channels channels_of(const tree &files, const std::string &directory)
{
    channels found;
    for (const std::string &file : files.names(directory)) {
        const size_t underscore = file.find('_');
        if (underscore == file.npos) {
            continue;
        }
        for (size_t i = 0; i < std::size(quantities); ++i) {
            if (const auto number = number_after(file.substr(0, underscore), quantities[i].stem)) {
                channel &each = found[{i, *number}];
                each.what = &quantities[i];
                each.number = *number;
                each.files.insert(file.substr(underscore + 1));
            }
        }
    }
    std::map<std::string, int> times;
    for (auto &[unused, each] : found) {
        if (each.files.contains("label")) {
            each.label = label_of(files.text(directory + '/' + each.what->stem +
                                             std::to_string(each.number) + "_label"),
                                  "");
            ++times[each.what->label + each.label];
        }
    }
    for (auto &[unused, each] : found) {
        if (each.label.empty()) {
            each.label = std::to_string(each.number);
        } else if (times[each.what->label + each.label] > 1) {
            each.label += '_' + std::to_string(each.number);
        }
    }
    return found;
}

/* The driver's gravest are to be trusted most. */
constexpr struct {
    const char *file;
    const char *key;
} limits[] = {
    {"crit", "upper_critical"},    {"emergency", "upper_fatal"},  {"lcrit", "lower_critical"},
    {"max", "upper_non_critical"}, {"min", "lower_non_critical"},
};

void add_limits(const tree &files, const std::string &stem, const channel &of, component &into)
{
    constexpr double fine = 1e6; /* no unit of the kernel is smaller */
    std::vector<std::pair<std::string, double>> found;
    for (const auto &each : limits) {
        const auto given = of.files.contains(each.file) ? files.number(stem + each.file)
                                                        : std::optional<int64_t>();
        if (given) {
            found.emplace_back(
                each.key,
                std::round(static_cast<double>(*given) * of.what->what->scale * fine) / fine);
        }
    }
    add_limits(into, *of.what->what, found);
}

/* An alarm of a limit that is none of the critical ones is a warning. */
bool is_warning(const std::string &file)
{
    return file == "max_alarm" || file == "min_alarm" || file == "cap_alarm";
}

void add_channel(const tree &files, const chip &of, const std::string &prefix, const channel &each,
                 component &holder, machine &into)
{
    const std::string stem =
        of.directory + '/' + each.what->stem + std::to_string(each.number) + '_';
    const std::string label = each.what->label + prefix + '_' + each.label;
    const char *reading = each.files.contains("input")     ? "input"
                          : each.files.contains("average") ? "average"
                                                           : nullptr;
    if (each.what->what != nullptr && reading != nullptr) {
        component &sensor =
            add_reading(files, into, holder, label, *each.what->what, stem + reading);
        sensor.where = of.directory;
        add_limits(files, stem, each, sensor);
    }
    for (const std::string &file : each.files) {
        if (file == "alarm" || file == "fault" || file.ends_with("_alarm")) {
            add_flag(files, into, holder, label + '_' + label_of(file),
                     is_warning(file) ? "predictive-sensor" : "fault-sensor", stem + file)
                .where = of.directory;
        }
    }
}

/* Of what sits in a processor, by the number of its package. */
component *processor_of(const chip &it, const machine &all)
{
    constexpr unsigned first_node = 0x18; /* device number of the first processor's functions */
    const std::string_view last = last_part(it.device);
    std::optional<unsigned> package;
    if (it.name == "coretemp") {
        package = number_after(last, "coretemp.");
    } else if (is_pci_address(last) && (it.name == "k10temp" || it.name == "zenpower" ||
                                        it.name == "k8temp" || it.name == "fam15h_power")) {
        package = static_cast<unsigned>(std::stoul(std::string(last.substr(8, 2)), nullptr, 16)) -
                  first_node;
    }
    return package && *package < all.processors.size() ? all.processors[*package] : nullptr;
}

/* The serial number in what a memory module says of itself; none: it has none, or is of
 * an unknown kind. A byte takes such a bus a while, so these few are read alone. */
std::optional<uint32_t> serial_in(const tree &files, const std::string &eeprom)
{
    constexpr size_t place_of_kind = 2;
    constexpr struct {
        unsigned char kind;
        size_t serial;
    } kinds[] = {{0x0b, 122}, {0x0c, 325}, {0x12, 517}}; /* DDR3, DDR4, DDR5 */
    const std::string kind = files.part(eeprom, place_of_kind, 1);
    const auto *known = std::ranges::find_if(kinds, [&kind](const auto &each) {
        return !kind.empty() && each.kind == static_cast<unsigned char>(kind.front());
    });
    if (known == std::end(kinds)) {
        return std::nullopt;
    }
    uint32_t serial = 0;
    const std::string bytes = files.part(eeprom, known->serial, sizeof serial);
    for (const char each : bytes) {
        serial = serial << 8U | static_cast<unsigned char>(each);
    }
    const bool is_filled_in = serial != 0 && serial != UINT32_MAX;
    return bytes.size() == sizeof serial && is_filled_in ? std::optional(serial) : std::nullopt;
}

/* Firmware writes it down in hexadecimal, from either end. */
bool is_serial(const std::string &text, uint32_t serial)
{
    uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, 16);
    return error == std::errc() && end == text.data() + text.size() &&
           (number == serial || number == __builtin_bswap32(serial));
}

/* Of what sits on a memory module, by the module's serial number: a chip for temperatures
 * has its neighbour with that beside it on the bus, 18 and 50 to 1f and 57; later ones
 * hold it themselves. */
component *module_of(const tree &files, const chip &it, const machine &all)
{
    const std::string address(last_part(it.device));
    std::string eeprom = it.device + "/eeprom";
    if (it.name == "jc42") {
        constexpr std::string_view eight = "89abcdef";
        const size_t dash = address.find("-001");
        const size_t which = address.empty() ? eight.npos : eight.find(address.back());
        if (dash == address.npos || dash + 5 != address.size() || which == eight.npos) {
            return nullptr;
        }
        eeprom = std::string(without_last_part(it.device)) + '/' + address.substr(0, dash) +
                 "-005" + std::to_string(which) + "/eeprom";
    } else if (it.name != "spd5118") {
        return nullptr;
    }
    const std::optional<uint32_t> serial = serial_in(files, eeprom);
    component *found = nullptr;
    for (const auto &[unused, module] : all.memory_modules) {
        if (serial && is_serial(identity_text(module->fru.serial), *serial)) {
            if (found != nullptr && found != module) {
                return nullptr; /* what two have tells neither */
            }
            found = module;
        }
    }
    return found;
}

/* The way to a PCI device, by which a chip on the board is called. */
std::string way_to(const std::string &device, machine &all)
{
    const location where = locate(all, device);
    const bool on_board = where.holder == &all.board();
    const char *between = on_board || where.rest.empty() ? "" : "-";
    return (on_board ? "" : where.holder->label) + between + where.rest;
}

/* "1F.4-0018": the controller of a bus, the address there, and what lies between. The
 * number of the bus changes, so where a controller has several the kernel's name of this
 * one tells which it is. Empty: it is on no such bus. on_board: or else the controller is
 * on what has the sensors, and need not be told. */
std::string i2c_place(const tree &files, const std::string &device, bool on_board, machine &all)
{
    const std::string_view bus = "i2c-";
    std::vector<std::string> place;
    std::string so_far;
    bool found = false;
    for (size_t begin = 1; begin < device.size();) {
        const size_t end = std::min(device.find('/', begin), device.size());
        const std::string part = device.substr(begin, end - begin);
        begin = end + 1;
        if (number_after(part, bus)) {
            if (!found && on_board) {
                const std::string way = way_to(so_far, all);
                place.push_back(way.empty() ? label_of(last_part(so_far)) : way);
            }
            const std::vector<std::string> beside = files.names(so_far);
            if (std::ranges::count_if(beside, [bus](const std::string &each) {
                    return number_after(each, bus).has_value();
                }) > 1) {
                std::string name = files.text(so_far + '/' + part + "/name");
                if (const size_t dash = name.find('-', bus.size()); name.starts_with(bus)) {
                    name.erase(0, dash + 1); /* "i2c-1-mux (chan_id 0)" */
                }
                place.push_back(label_of(name, label_of(part)));
            }
            found = true;
        } else if (found) {
            place.push_back(label_of(part.substr(part.find('-') + 1)));
        }
        so_far += '/' + part;
    }
    std::string text;
    for (const std::string &each : place) {
        text += (text.empty() ? "" : "-") + each;
    }
    return found ? text : "";
}

/* Which chip it is, where that does not follow from what it stands on. */
std::string chip_label(const tree &files, const chip &it, bool on_board, machine &all)
{
    if (const std::string place = i2c_place(files, it.device, on_board, all); !place.empty()) {
        return label_of(it.name) + '-' + place;
    }
    if (!on_board) {
        return "";
    }
    const std::string_view last = last_part(it.device);
    const size_t dash = last.find('-');
    if (last.starts_with(it.name)) {
        return label_of(last);
    }
    if (is_pci_address(last)) {
        return label_of(it.name) + '-' + way_to(it.device, all);
    }
    if (dash != last.npos && number_after(last.substr(0, dash), "")) {
        return label_of(it.name) + '-' + label_of(last.substr(dash + 1));
    }
    return label_of(it.name);
}

} // namespace

void find_hwmon(const tree &files, machine &into)
{
    const std::string directory = "/sys/class/hwmon";
    for (const std::string &name : files.names(directory)) {
        chip it;
        it.directory = files.real(directory + '/' + name);
        it.device = files.real(it.directory + "/device");
        if (it.directory.empty()) {
            continue;
        }
        if (!files.is_file(it.directory + "/name") && files.is_file(it.device + "/name")) {
            it.directory = it.device; /* as drivers of old have it */
        }
        it.name = files.text(it.directory + "/name");
        component *owner = processor_of(it, into);
        component *const module = owner == nullptr ? module_of(files, it, into) : nullptr;
        if (module != nullptr) {
            owner = module;
        }
        if (owner == nullptr && !it.device.empty()) {
            owner = into.at_device(it.device);
        }
        const bool on_board = owner == nullptr || owner == &into.board();
        component &holder = on_board ? into.board() : *owner;
        /* A memory module has one. */
        const std::string label = module != nullptr ? "" : chip_label(files, it, on_board, into);
        const std::string prefix = label.empty() ? "" : '_' + label;
        for (const auto &[unused, each] : channels_of(files, it.directory)) {
            add_channel(files, it, prefix, each, holder, into);
        }
    }
}

} // namespace kavplat_describe

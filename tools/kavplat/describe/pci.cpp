#include "tools/kavplat/describe/locations.h"
#include "tools/kavplat/describe/parts.h"
#include "tools/kavplat/describe/pci_names.h"
#include "tools/kavplat/describe/sources.h"

#include <algorithm>
#include <charconv>
#include <map>

namespace kavplat_describe
{
namespace
{

const std::string bus_directory = "/sys/bus/pci/devices";

/* The first that a class begins with decides. */
constexpr struct {
    const char *number; /* base class, sub-class */
    const char *stem;
    const char *type;
} kinds[] = {
    {"0108", "NVME", "storage-controller"}, /* until a driver shows the drive in it */
    {"01", "HBA", "storage-controller"},
    {"02", "NET", "network-adapter"},
    {"03", "GPU", "accelerator"},
    {"0c04", "HBA", "storage-controller"}, /* Fibre Channel */
    {"0c06", "NET", "network-adapter"},    /* InfiniBand */
    {"0b40", "ACC", "accelerator"},
    {"12", "ACC", "accelerator"},
};

struct pci_device {
    std::string path;
    std::string number; /* class: six digits */
    unsigned vendor = 0;
    unsigned device = 0;
    unsigned subsystem_vendor = 0;
    unsigned subsystem_device = 0;
};

using pci_devices = std::map<std::string, pci_device, std::less<>>; /* by address */

pci_devices devices_of(const tree &files)
{
    pci_devices found;
    for (const std::string &address : files.names(bus_directory)) {
        const std::string path = files.real(bus_directory + '/' + address);
        if (!is_pci_address(address) || !path.ends_with('/' + address)) {
            continue;
        }
        const auto number = [&](const char *name) {
            return static_cast<unsigned>(files.number(path + name).value_or(0));
        };
        const std::string type = files.text(path + "/class");
        found[address] = {path,
                          type.starts_with("0x") ? type.substr(2) : type,
                          number("/vendor"),
                          number("/device"),
                          number("/subsystem_vendor"),
                          number("/subsystem_device")};
    }
    return found;
}

bool is_bridge(const pci_device &each)
{
    return each.number.starts_with("0604");
}

void identify(const pci_device &each, const pci_names &names, component &into)
{
    const auto give = [](std::string &text, std::string found) {
        if (text.empty()) {
            text = std::move(found);
        }
    };
    give(into.fru.model, names.device(each.vendor, each.device));
    give(into.fru.manufacturer, names.vendor(each.vendor));
    std::string card =
        names.subsystem(each.vendor, each.device, each.subsystem_vendor, each.subsystem_device);
    if (card != into.fru.model) { /* which the database gives where it knows no card */
        give(into.fru.alias, std::move(card));
    }
}

/* Slots in which cards come and go. What the board's table says of one is kept. */
void find_slots(const tree &files, machine &into)
{
    const std::string directory = "/sys/bus/pci/slots";
    for (const std::string &name : files.names(directory)) {
        const std::string path = directory + '/' + name;
        const std::string address = files.text(path + "/address");
        if (!is_pci_address(address + ".0")) {
            continue;
        }
        component *slot = slot_at(into, address);
        if (slot == nullptr) {
            slot = &into.add(into.board(), "SLOT" + label_of(name), "pcie-slot", address);
            slot->capabilities = {"holder"};
            into.slots[address + ".0"] = slot;
        }
        if (files.is_file(path + "/power")) {
            slot->capabilities.emplace_back("power-readable");
            slot->keys["power"] = bound_to(files, path + "/power", 1, 1);
        }
        if (files.is_file(path + "/adapter")) {
            add_presence(files, into, *slot, path + "/adapter");
        }
        add_indicator(files, into, *slot, "ATTENTION", "led", path + "/attention");
    }
}

/* The bridges above a device become components, but for the ports of the root, which
 * are part of processor and chip set, and those that a slot stands for. */
void add_bridges_above(const pci_devices &devices, const std::string &path, const pci_names &names,
                       machine &into)
{
    bool at_root = true;
    for (size_t begin = 1, end = 0; end = path.find('/', begin), end != std::string::npos;
         begin = end + 1) {
        const auto device = devices.find(path.substr(begin, end - begin));
        if (device == devices.end()) {
            continue;
        }
        const pci_device &bridge = device->second;
        if (!at_root && is_bridge(bridge) && exactly_at(into, bridge.path) == nullptr &&
            slot_at(into, device->first) == nullptr) {
            const location where = locate(into, bridge.path);
            component &made =
                into.add(*where.holder, "BRIDGE" + where.rest, "io-module", bridge.path);
            identify(bridge, names, made);
            into.is_device(made, bridge.path);
        }
        at_root = false;
    }
}

} // namespace

void find_pci(const tree &files, machine &into)
{
    const pci_devices devices = devices_of(files);
    const pci_names names;
    find_slots(files, into);
    for (const auto &[address, each] : devices) {
        const auto *kind = std::ranges::find_if(kinds, [&number = each.number](const auto &known) {
            return number.starts_with(known.number);
        });
        if (kind == std::end(kinds) || files.is_directory(each.path + "/physfn")) {
            continue; /* virtual functions come and go as somebody sets them up */
        }
        add_bridges_above(devices, each.path, names, into);
        if (component *known = exactly_at(into, each.path); known != nullptr) {
            identify(each, names, *known);    /* the board's table of devices has it too */
            if (known->type == "io-module") { /* where that does not tell what it is */
                known->type = kind->type;
            }
        } else {
            const location where = locate(into, each.path);
            component &made =
                into.add(*where.holder, kind->stem + where.rest, kind->type, each.path);
            identify(each, names, made);
            into.is_device(made, each.path);
        }
    }
}

} // namespace kavplat_describe

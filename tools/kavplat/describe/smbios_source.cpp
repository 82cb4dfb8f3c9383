#include "tools/kavplat/describe/smbios.h"
#include "tools/kavplat/describe/sources.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>

namespace kavplat_describe
{
namespace
{

using smbios::structure;

constexpr size_t largest_table = size_t{1} << 20;
constexpr size_t most_components = 2000;

std::string hexadecimal(unsigned number, int digits)
{
    char text[16];
    std::snprintf(text, sizeof text, "%0*X", digits, number);
    return text;
}

std::string joined(std::string one, std::string_view separator, std::string_view other)
{
    if (!one.empty() && !other.empty()) {
        one += separator;
    }
    return one += other;
}

struct reading {
    const tree &files;
    machine &into;
    std::vector<structure> all;
    std::map<uint16_t, component *> boards;    /* by handle */
    std::map<uint16_t, component *> on_boards; /* what a board says that it holds, by handle */
    std::vector<component *> sockets;

    bool has(uint8_t type) const
    {
        return std::ranges::any_of(all, [type](const structure &it) { return it.type == type; });
    }

    const structure *find(uint8_t type, uint16_t handle) const
    {
        const auto found = std::ranges::find_if(all, [type, handle](const structure &it) {
            return it.type == type && it.handle == handle;
        });
        return found == all.end() ? nullptr : &*found;
    }

    /* The board that says that it holds the structure, else the main one. */
    component &board_of(const structure &it)
    {
        const auto found = on_boards.find(it.handle);
        return found == on_boards.end() ? into.board() : *found->second;
    }

    /* At the place that the text names, or of that kind where it names none. */
    component &add(component &parent, std::string_view text, const char *kind, const char *type,
                   const structure &it)
    {
        return into.add(parent, label_of(identity_text(text), kind), type,
                        'H' + hexadecimal(it.handle, 4));
    }
};

identity identity_at(const structure &it, size_t manufacturer, size_t model, size_t serial)
{
    return {.model = identity_text(it.text(model)),
            .manufacturer = identity_text(it.text(manufacturer)),
            .serial = identity_text(it.text(serial)),
            .alias = {},
            .software_revision = {}};
}

/* A bus address as the kernel writes it; empty: there is none. */
std::string bus_address(const structure &it, size_t offset)
{
    const unsigned bus = it.byte(offset + 2);
    const unsigned device = it.byte(offset + 3);
    if (!it.has(offset, 4) || bus == 0xff || device == 0xff || (bus == 0 && device == 0)) {
        return {};
    }
    char text[32];
    std::snprintf(text, sizeof text, "%04x:%02x:%02x.%x", it.word(offset), bus, device >> 3,
                  device & 7);
    return text;
}

void add_system(reading &table, const structure &it)
{
    machine &into = table.into;
    if (!into.product.model.empty() || !into.product.serial.empty()) {
        return; // one was enough
    }
    const identity found = identity_at(it, 4, 5, 7);
    into.product.model = found.model;
    into.product.serial = found.serial;
    into.product.description =
        joined(joined(found.manufacturer, " ", found.model), ", ", identity_text(it.text(6)));
    into.root().fru = found;
}

const char *board_type(uint8_t kind)
{
    switch (kind) {
    case 0x03:
        return "blade";
    case 0x04:
        return "switch-module";
    case 0x05:
        return "management-module";
    case 0x06:
    case 0x0b:
    case 0x0c:
        return "cpu-board";
    case 0x07:
        return "io-module";
    case 0x08:
        return "memory-riser";
    case 0x0d:
        return "backplane";
    default:
        return "system-board";
    }
}

bool is_main_board(const structure &it)
{
    constexpr uint8_t motherboard = 0x0a;
    constexpr uint8_t hosts = 0x01;
    return it.byte(0x0d) == motherboard || (it.byte(0x09) & hosts) != 0;
}

/* The main board is there already; the others are where a board says that it holds
 * them, or beside it. */
void add_boards(reading &table)
{
    std::vector<const structure *> found;
    for (const structure &it : table.all) {
        if (it.type == smbios::board) {
            found.push_back(&it);
        }
    }
    const auto main =
        std::ranges::find_if(found, [](const structure *it) { return is_main_board(*it); });
    if (main != found.end()) {
        std::rotate(found.begin(), main, main + 1);
    }
    component &first = table.into.board();
    for (const structure *it : found) {
        component *board = &first;
        if (it != found.front()) {
            const bool is_another = std::strcmp(board_type(it->byte(0x0d)), "system-board") == 0;
            const std::string location = identity_text(it->text(0x0a));
            board = &table.add(table.into.root(),
                               !location.empty() ? location : identity_text(it->text(5)),
                               is_another ? "MB" : "BOARD", board_type(it->byte(0x0d)), *it);
        }
        board->fru = identity_at(*it, 4, 5, 7);
        board->fru.alias = identity_text(it->text(6));
        table.boards.emplace(it->handle, board);
    }
    for (const structure *it : found) {
        component *board = table.boards.at(it->handle);
        for (size_t i = 0; i < it->byte(0x0e) && it->has(0x0f + 2 * i, 2); i++) {
            const uint16_t held = it->word(0x0f + 2 * i);
            const auto inner = table.boards.find(held);
            if (inner == table.boards.end()) {
                table.on_boards.emplace(held, board);
                continue;
            }
            // What stands later can hold nothing that stands before it, so there is no circle.
            const auto place_of = [&table](const component *one) {
                return std::ranges::find_if(table.into.all,
                                            [one](const component &each) { return &each == one; });
            };
            if (inner->second != &first && place_of(board) < place_of(inner->second)) {
                inner->second->parent = board;
            }
        }
    }
}

void add_bios(reading &table, const structure &it)
{
    std::string &revision = table.into.board().fru.software_revision;
    if (revision.empty()) {
        revision = identity_text(it.text(5));
    }
}

void add_chassis(reading &table, const structure &it)
{
    static constexpr const char *kinds[] = {"",
                                            "",
                                            "",
                                            "Desktop",
                                            "Low-profile desktop",
                                            "Pizza box",
                                            "Mini tower",
                                            "Tower",
                                            "Portable",
                                            "Laptop",
                                            "Notebook",
                                            "Hand-held",
                                            "",
                                            "All in one",
                                            "Sub-notebook",
                                            "",
                                            "Lunch box",
                                            "Server",
                                            "Expansion chassis",
                                            "Sub-chassis",
                                            "",
                                            "Peripheral chassis",
                                            "RAID chassis",
                                            "Rack mount chassis",
                                            "Sealed-case computer",
                                            "Multi-system chassis",
                                            "",
                                            "",
                                            "Blade",
                                            "Blade enclosure",
                                            "Tablet",
                                            "Convertible",
                                            "Detachable",
                                            "IoT gateway",
                                            "Embedded computer",
                                            "Mini computer",
                                            "Stick computer"};
    machine &into = table.into;
    const size_t kind = it.byte(5) & 0x7fU;
    identity found = identity_at(it, 4, 6, 7);
    const bool is_first = into.chassis.serial.empty() && into.chassis.description.empty();
    const std::string described = kind < std::size(kinds) ? kinds[kind] : "";
    if (is_first) {
        into.chassis = {.model = found.model,
                        .serial = found.serial,
                        .description = described,
                        .manufacturer = found.manufacturer};
    }
    // Those of one make say of themselves what was said of the product.
    if (!found.serial.empty() && found.serial != into.product.serial) {
        found.alias = described;
        table.add(into.root(), {}, "CHASSIS", "enclosure", it).fru = found;
    }
}

void add_processor(reading &table, const structure &it)
{
    constexpr uint8_t is_there = 0x40;
    component &socket = table.add(table.board_of(it), it.text(4), "CPU", "cpu-socket", it);
    socket.capabilities = {"holder"};
    table.sockets.push_back(&socket);
    if (it.has(0x18) && (it.byte(0x18) & is_there) == 0) {
        return;
    }
    component &processor = table.into.add(socket, "CPU", "processor");
    processor.fru = identity_at(it, 7, 0x10, 0x20);
    const std::string part = identity_text(it.text(0x22));
    if (!part.empty() && processor.fru.model.find(part) == std::string::npos) {
        processor.fru.model = joined(processor.fru.model, " ", '(' + part + ')');
    }
    table.into.processors.push_back(&processor);
}

/* A locator that begins with a socket's is beside that socket: P0_D3 is D3 of P0. */
component &beside_socket(reading &table, const structure &it, std::string &label)
{
    component *nearest = nullptr;
    for (component *each : table.sockets) {
        if (label.size() > each->label.size() + 1 && label.starts_with(each->label) &&
            (label[each->label.size()] == '_' || label[each->label.size()] == '-') &&
            (nearest == nullptr || each->label.size() > nearest->label.size())) {
            nearest = each;
        }
    }
    if (nearest == nullptr) {
        return table.board_of(it);
    }
    label.erase(0, nearest->label.size() + 1);
    return *nearest;
}

const char *memory_type(uint8_t kind)
{
    switch (kind) {
    case 0x0f:
        return "SDRAM";
    case 0x12:
        return "DDR";
    case 0x13:
    case 0x14:
        return "DDR2";
    case 0x18:
        return "DDR3";
    case 0x1a:
        return "DDR4";
    case 0x1b:
        return "LPDDR";
    case 0x1c:
        return "LPDDR2";
    case 0x1d:
        return "LPDDR3";
    case 0x1e:
        return "LPDDR4";
    case 0x1f:
        return "NVDIMM";
    case 0x20:
    case 0x21:
        return "HBM";
    case 0x22:
        return "DDR5";
    case 0x23:
        return "LPDDR5";
    default:
        return "";
    }
}

std::string memory_text(int64_t mebibytes, const char *kind, uint32_t transfers)
{
    std::string text;
    if (mebibytes > 0) {
        text = mebibytes % 1024 == 0 ? std::to_string(mebibytes / 1024) + " GiB"
                                     : std::to_string(mebibytes) + " MiB";
    }
    text = joined(text, " ", kind);
    return transfers == 0 ? text : joined(text, " ", std::to_string(transfers) + " MT/s");
}

void add_module(reading &table, component &slot, const structure &it, int64_t size)
{
    component &module = table.into.add(slot, "DIMM", "memory-module");
    module.fru = identity_at(it, 0x17, 0x1a, 0x18);
    uint32_t speed = it.word(0x20) != 0 ? it.word(0x20) : it.word(0x15);
    if (speed == 0xffff) {
        speed = it.dword(0x58) != 0 ? it.dword(0x58) : it.dword(0x54);
    }
    module.fru.alias = memory_text(size, memory_type(it.byte(0x12)), speed);
    module.fru.software_revision = identity_text(it.text(0x2b));
    const std::string locator = identity_text(it.text(0x10));
    table.into.memory_modules.emplace(locator, &module);
    table.into.memory_modules.emplace(joined(identity_text(it.text(0x11)), " ", locator), &module);
}

void add_memory(reading &table)
{
    constexpr uint8_t system_memory = 3;
    std::map<std::string, int> locators;
    for (const structure &it : table.all) {
        if (it.type == smbios::memory_device) {
            locators[label_of(identity_text(it.text(0x10)), "DIMM")]++;
        }
    }
    for (const structure &it : table.all) {
        if (it.type != smbios::memory_device || table.into.all.size() > most_components) {
            continue;
        }
        // Flash that holds the firmware is listed among the modules here and there.
        const structure *array = table.find(smbios::memory_array, it.word(4));
        if (array != nullptr && array->byte(5) > system_memory) {
            continue;
        }
        std::string label = label_of(identity_text(it.text(0x10)), "DIMM");
        if (locators[label] > 1) { // as "DIMM 0" of each channel, which the bank tells
            label = label_of(joined(identity_text(it.text(0x11)), " ", label), label);
        }
        component &parent = beside_socket(table, it, label);
        component &slot = table.add(parent, label, "DIMM", "dimm-slot", it);
        slot.capabilities = {"holder"};
        if (const int64_t size = smbios::memory_size(it); size != 0) {
            add_module(table, slot, it, size);
        }
    }
}

/* Of tables that know no memory devices yet. */
void add_old_memory(reading &table, const structure &it)
{
    constexpr uint8_t largest = 0x1f;
    constexpr uint8_t not_there = 0x7f;
    if (table.has(smbios::memory_device)) {
        return;
    }
    component &slot = table.add(table.board_of(it), it.text(4), "DIMM", "dimm-slot", it);
    slot.capabilities = {"holder"};
    const uint8_t size = it.byte(9) & 0x7fU;
    if (size != not_there && it.has(9)) {
        component &module = table.into.add(slot, "DIMM", "memory-module");
        module.fru.alias = memory_text(size <= largest ? int64_t{1} << size : -1, "", 0);
    }
}

const char *slot_type(uint8_t kind)
{
    switch (kind) {
    case 0x14:
    case 0x15:
    case 0x16:
    case 0x17:
        return "m2-slot";
    case 0x1f: /* U.2, of each generation of PCIe */
    case 0x20:
    case 0x24:
    case 0x25:
    case 0xc5: /* E1.S, E1.L */
    case 0xc6: /* E3.S, E3.L */
        return "drive-bay";
    case 0x21:
    case 0x22:
    case 0x23:
        return "mezzanine-slot";
    case 0x26:
    case 0x27:
    case 0x28:
        return "network-module-slot";
    default:
        return "pcie-slot";
    }
}

void add_slot(reading &table, const structure &it)
{
    const char *type = slot_type(it.byte(5));
    component &slot = table.add(table.board_of(it), it.text(4), "SLOT", type, it);
    slot.capabilities = {"holder"};
    if (const std::string address = bus_address(it, 0x0d); !address.empty()) {
        table.into.slots.emplace(address, &slot);
    }
}

const char *onboard_type(uint8_t kind)
{
    switch (kind & 0x7fU) {
    case 0x03:
        return "accelerator";
    case 0x04:
    case 0x08:
    case 0x09:
    case 0x0a:
    case 0x0e: /* eMMC */
    case 0x0f: /* NVMe */
    case 0x10: /* UFS */
        return "storage-controller";
    case 0x05:
    case 0x06:
    case 0x0b:
    case 0x0d:
        return "network-adapter";
    default:
        return "io-module";
    }
}

std::string onboard_label(const structure &it)
{
    return label_of(identity_text(it.text(4)), "DEVICE");
}

/* What tells the devices of one designation apart: the number that the board gives them,
 * or else their function. One that is switched off counts, since it may be switched on. */
std::string number_among_alike(const reading &table, const structure &it, const std::string &label)
{
    constexpr size_t instance = 0x06;
    constexpr size_t function = 0x0a;
    for (const size_t offset : {instance, function}) {
        const auto number_of = [offset](const structure &one) {
            return one.byte(offset) & (offset == function ? 0x07U : 0xffU);
        };
        std::set<unsigned> numbers;
        size_t alike = 0;
        for (const structure &each : table.all) {
            if (each.type == it.type && onboard_label(each) == label) {
                ++alike;
                numbers.insert(number_of(each));
            }
        }
        if (alike > 1 && numbers.size() == alike) {
            return '_' + std::to_string(number_of(it));
        }
    }
    return "";
}

constexpr uint8_t is_enabled = 0x80;

void add_onboard(reading &table, const structure &it)
{
    if ((it.byte(5) & is_enabled) == 0) {
        return;
    }
    const std::string label = onboard_label(it);
    component &device =
        table.add(table.board_of(it), {}, (label + number_among_alike(table, it, label)).c_str(),
                  onboard_type(it.byte(5)), it);
    if (const std::string address = bus_address(it, 7); !address.empty()) {
        table.into.is_device(device, table.files.real("/sys/bus/pci/devices/" + address));
    }
}

void add_old_onboard(reading &table, const structure &it)
{
    if (table.has(smbios::onboard_device)) {
        return;
    }
    for (size_t at = 4; it.has(at, 2); at += 2) {
        if ((it.byte(at) & is_enabled) != 0) {
            table.add(table.board_of(it), it.text(at + 1), "DEVICE", onboard_type(it.byte(at)), it);
        }
    }
}

void add_battery(reading &table, const structure &it)
{
    const std::string directory = "/sys/class/power_supply";
    for (const std::string &each : table.files.names(directory)) {
        if (table.files.text(directory + '/' + each + "/type") == "Battery") {
            return; // the kernel knows more of it
        }
    }
    component &battery = table.add(table.into.root(), it.text(4), "BATTERY", "battery", it);
    battery.fru = identity_at(it, 5, 8, 7);
    if (battery.fru.serial.empty() && it.word(0x10) != 0) {
        battery.fru.serial = hexadecimal(it.word(0x10), 4);
    }
}

void add_cooling(reading &table, const structure &it)
{
    constexpr uint8_t first_fan = 0x03;
    constexpr uint8_t blower = 0x04;
    constexpr uint8_t last_fan = 0x07;
    const uint8_t kind = it.byte(6) & 0x1fU;
    if (kind >= first_fan && kind <= last_fan) {
        table.add(table.into.root(), it.text(0x0e), "FAN", kind == blower ? "blower" : "fan", it);
    }
}

void add_power_supply(reading &table, const structure &it)
{
    constexpr uint16_t hot_replaceable = 0x01;
    constexpr uint16_t is_there = 0x02;
    constexpr uint16_t not_known = 0x8000;
    const std::string location = identity_text(it.text(5));
    component &bay = table.add(table.into.root(), !location.empty() ? location : it.text(6), "PSU",
                               "psu-bay", it);
    bay.capabilities = {"holder"};
    if (it.has(0x0e, 2) && (it.word(0x0e) & is_there) == 0) {
        return;
    }
    component &supply = table.into.add(bay, "PS", "power-supply");
    supply.fru = identity_at(it, 7, 0x0a, 8);
    if (supply.fru.model.empty()) {
        supply.fru.model = identity_text(it.text(6));
    }
    supply.fru.software_revision = identity_text(it.text(0x0b));
    if (const uint16_t watts = it.word(0x0c); watts != 0 && watts != not_known && watts != 0xffff) {
        supply.fru.alias = std::to_string(watts) + " W";
    }
    if ((it.word(0x0e) & hot_replaceable) != 0) {
        supply.capabilities = {"hot-pluggable"};
    }
}

void add_controller(reading &table, const structure &it)
{
    table.add(table.into.root(), {}, "SP", "service-processor", it);
}

void add_trusted_module(reading &table, const structure &it)
{
    component &module = table.add(table.board_of(it), {}, "TPM", "trusted-module", it);
    if (it.has(0x08, 2)) {
        module.fru.manufacturer = identity_text(it.fields.substr(4, 4));
        module.fru.model = "TPM " + std::to_string(it.byte(8)) + '.' + std::to_string(it.byte(9));
    }
}

/* Boards before what stands on them, sockets before the modules beside them. */
void add_all(reading &table)
{
    static constexpr struct {
        uint8_t type;
        void (*add)(reading &table, const structure &it);
    } known[] = {
        {smbios::system, add_system},
        {smbios::bios, add_bios},
        {smbios::chassis, add_chassis},
        {smbios::processor, add_processor},
        {smbios::old_memory_module, add_old_memory},
        {smbios::slot, add_slot},
        {smbios::onboard_device, add_onboard},
        {smbios::old_onboard_devices, add_old_onboard},
        {smbios::battery, add_battery},
        {smbios::cooling, add_cooling},
        {smbios::power_supply, add_power_supply},
        {smbios::management_controller, add_controller},
        {smbios::trusted_module, add_trusted_module},
    };
    add_boards(table);
    for (const auto &each : known) {
        for (const structure &it : table.all) {
            if (it.type == each.type && table.into.all.size() <= most_components) {
                each.add(table, it);
            }
        }
    }
    add_memory(table);
}

bool find_in_table(const tree &files, machine &into)
{
    const std::string directory = "/sys/firmware/dmi/tables/";
    const tree::content bytes = files.read(directory + "DMI", largest_table);
    if (bytes.error != 0) {
        if (bytes.error != ENOENT && bytes.error != ENOTDIR && bytes.error != EACCES) {
            into.complain("SMBIOS: " + directory + "DMI: " + std::strerror(bytes.error));
        }
        return false;
    }
    const tree::content entry = files.read(directory + "smbios_entry_point");
    if (entry.error == 0) {
        const smbios::entry_point it = smbios::read_entry_point(entry.bytes);
        if (!it.fault.empty()) {
            into.complain("SMBIOS: " + directory + "smbios_entry_point: " + it.fault +
                          "; the table is read all the same");
        }
    }
    smbios::table found = smbios::read_table(bytes.bytes);
    if (!found.fault.empty()) {
        into.complain("SMBIOS: " + directory + "DMI: " + found.fault +
                      "; what stands before is used");
    }
    reading table = {.files = files,
                     .into = into,
                     .all = std::move(found.structures),
                     .boards = {},
                     .on_boards = {},
                     .sockets = {}};
    add_all(table);
    if (into.all.size() > most_components) {
        into.complain("SMBIOS: the table names more components than any machine has; the rest is "
                      "left out");
    }
    return !table.all.empty();
}

/* What the kernel makes of the table for everybody to read. */
bool find_in_class(const tree &files, machine &into)
{
    const auto read = [&files](const char *name) {
        return identity_text(files.text(std::string("/sys/class/dmi/id/") + name));
    };
    if (!files.is_directory("/sys/class/dmi/id")) {
        return false;
    }
    const std::string maker = read("sys_vendor");
    into.product.model = read("product_name");
    into.product.serial = read("product_serial");
    into.product.description =
        joined(joined(maker, " ", into.product.model), ", ", read("product_version"));
    into.root().fru = {.model = into.product.model,
                       .manufacturer = maker,
                       .serial = into.product.serial,
                       .alias = {},
                       .software_revision = {}};
    into.chassis = {.model = read("chassis_version"),
                    .serial = read("chassis_serial"),
                    .description = {},
                    .manufacturer = read("chassis_vendor")};
    into.board().fru = {.model = read("board_name"),
                        .manufacturer = read("board_vendor"),
                        .serial = read("board_serial"),
                        .alias = read("board_version"),
                        .software_revision = read("bios_version")};
    return true;
}

/* Machines whose firmware hands over a device tree have no SMBIOS. */
void find_in_device_tree(const tree &files, machine &into)
{
    const std::string directory = "/sys/firmware/devicetree/base/";
    into.product.model = identity_text(files.text(directory + "model"));
    into.product.serial = identity_text(files.text(directory + "serial-number"));
    into.product.description = into.product.model;
    into.root().fru.model = into.product.model;
    into.root().fru.serial = into.product.serial;
    into.board().fru.model = into.product.model;
}

} // namespace

void find_smbios(const tree &files, machine &into)
{
    if (!find_in_table(files, into) && !find_in_class(files, into)) {
        find_in_device_tree(files, into);
    }
}

} // namespace kavplat_describe

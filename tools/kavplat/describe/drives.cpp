#include "tools/kavplat/describe/locations.h"
#include "tools/kavplat/describe/parts.h"
#include "tools/kavplat/describe/sources.h"

#include <algorithm>
#include <map>

namespace kavplat_describe
{
namespace
{

using bays = std::map<std::string, component *>; /* by the real path of the SCSI device in it */

/* On what a path leads that is no drive of this machine. */
constexpr const char *foreign[] = {"/virtual/", "/usb",   "/session", "/rport-",
                                   "/virtio",   "/vmbus", "/VMBUS",   "/xen"};

/* What calls itself a drive and is made of others, or of a file. */
constexpr const char *virtual_models[] = {"QEMU ",         "VBOX ",       "Virtual ",
                                          "VMware ",       "scsi_debug",  "LOGICAL VOLUME",
                                          "Logical Drive", "VIRTUAL-DISK"};

/* Drivers that show arrays as drives. */
constexpr struct {
    const char *driver;
    unsigned first_channel; /* of arrays; below it drives are passed through */
} array_drivers[] = {{"megaraid_sas", 2}, {"aacraid", 0}, {"arcmsr", 0}, {"3w-9xxx", 0},
                     {"3w-sas", 0},       {"ips", 0},     {"gdth", 0},   {"dpt_i2o", 0},
                     {"mylex", 0},        {"myrb", 0},    {"myrs", 0}};

struct scsi_address {
    unsigned host = 0, channel = 0, target = 0, lun = 0;
};

std::optional<scsi_address> scsi_address_of(std::string_view part)
{
    scsi_address found;
    unsigned *const into[] = {&found.host, &found.channel, &found.target, &found.lun};
    for (unsigned *each : into) {
        const size_t end = std::min(part.find(':'), part.size());
        const auto number = number_after(part.substr(0, end), "");
        const bool last = each == &found.lun;
        if (!number || (end == part.size()) != last) {
            return std::nullopt;
        }
        *each = *number;
        part.remove_prefix(last ? end : end + 1);
    }
    return found;
}

/* "/sys/devices/.../ata3" and "ata3", of the part of a path that begins so. */
struct path_part {
    std::string path;
    std::string name;
};

std::optional<path_part> part_of(const std::string &path, std::string_view stem)
{
    for (size_t begin = path.find(stem); begin != std::string::npos;
         begin = path.find(stem, begin + 1)) {
        const size_t digit = begin + stem.size();
        if (begin > 0 && path[begin - 1] == '/' && digit < path.size() && path[digit] >= '0' &&
            path[digit] <= '9') {
            const size_t end = std::min(path.find('/', begin), path.size());
            return path_part{path.substr(0, end), path.substr(begin, end - begin)};
        }
    }
    return std::nullopt;
}

/* What udev wrote down of a block device. */
std::map<std::string, std::string> udev_properties(const tree &files, const std::string &block)
{
    constexpr size_t most = 65536;
    std::map<std::string, std::string> found;
    const std::string text =
        files.read("/run/udev/data/b" + files.text(block + "/dev"), most).bytes;
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = std::min(text.find('\n', begin), text.size());
        const size_t equals = text.find('=', begin);
        if (text.compare(begin, 2, "E:") == 0 && equals < end) {
            found[text.substr(begin + 2, equals - begin - 2)] =
                text.substr(equals + 1, end - equals - 1);
        }
        begin = end + 1;
    }
    return found;
}

/* "SAMSUNG\x20MZ7" */
std::string decoded(const std::string &text)
{
    std::string result;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text.compare(i, 2, "\\x") == 0 && i + 3 < text.size()) {
            result += static_cast<char>(std::strtoul(text.substr(i + 2, 2).c_str(), nullptr, 16));
            i += 3;
        } else {
            result += text[i];
        }
    }
    return result;
}

/* Of what an ATA device says of itself: words of two characters, the second first. */
std::string ata_text(const std::string &page, size_t word, size_t words)
{
    constexpr size_t identify_data = 60; /* in the page of SCSI to ATA translation */
    std::string text;
    for (size_t at = identify_data + 2 * word; words > 0; --words, at += 2) {
        if (at + 1 < page.size()) {
            text += page[at + 1];
            text += page[at];
        }
    }
    return identity_text(text);
}

std::string unit_serial(const std::string &page)
{
    constexpr size_t header = 4;
    return page.size() > header && page[1] == '\x80' ? identity_text(page.substr(header)) : "";
}

void first_of(std::string &into, std::initializer_list<std::string> texts)
{
    for (const std::string &each : texts) {
        if (into.empty()) {
            into = identity_text(each);
        }
    }
}

identity identity_of(const tree &files, const std::string &block, const std::string &device)
{
    constexpr size_t model_word = 27, model_words = 20, serial_word = 10, serial_words = 10,
                     firmware_word = 23, firmware_words = 4;
    const std::string page = files.read(device + "/vpd_pg89").bytes;
    auto known = udev_properties(files, block);
    const std::string vendor = files.text(device + "/vendor");
    identity it;
    first_of(it.model, {ata_text(page, model_word, model_words), decoded(known["ID_MODEL_ENC"]),
                        files.text(device + "/model")});
    first_of(it.serial, {ata_text(page, serial_word, serial_words),
                         unit_serial(files.read(device + "/vpd_pg80").bytes),
                         known["ID_SCSI_SERIAL"], known["ID_SERIAL_SHORT"]});
    first_of(it.software_revision, {ata_text(page, firmware_word, firmware_words),
                                    known["ID_REVISION"], files.text(device + "/rev")});
    it.manufacturer = vendor == "ATA" ? "" : identity_text(vendor);
    return it;
}

bool is_virtual(const tree &files, const std::string &device, const scsi_address &address)
{
    const std::string model = files.text(device + "/vendor") + ' ' + files.text(device + "/model");
    if (std::ranges::any_of(virtual_models,
                            [&](const char *text) { return model.find(text) != model.npos; })) {
        return true;
    }
    const std::string level = files.text(device + "/raid_level");
    if (!level.empty() && level != "N/A") {
        return true;
    }
    const std::string driver =
        files.text("/sys/class/scsi_host/host" + std::to_string(address.host) + "/proc_name");
    if (driver.starts_with("mpt") || driver.starts_with("mpi3mr")) {
        return !part_of(device, "end_device-"); /* an array hangs on no link */
    }
    return std::ranges::any_of(array_drivers, [&](const auto &each) {
        return driver == each.driver && address.channel >= each.first_channel;
    });
}

/* The lowest link of a port, as what it hangs on numbers its links. */
std::optional<int64_t> sas_link(const tree &files, const std::string &port, const std::string &name)
{
    constexpr int64_t not_known = 0xff;
    std::optional<int64_t> lowest;
    for (const std::string &each : files.names(port)) {
        const auto number = number_after(each.substr(each.rfind(':') + 1), "");
        if (each.starts_with("phy-") && number && (!lowest || *number < *lowest)) {
            lowest = *number;
        }
    }
    if (!lowest) {
        lowest = files.number(port + '/' + name + "/sas_device/" + name + "/phy_identifier");
    }
    return lowest && *lowest >= 0 && *lowest < not_known ? lowest : std::nullopt;
}

/* The way to a SAS drive: the link of the controller, and of each expander behind it;
 * empty: not all of them are known. */
std::string sas_links(const tree &files, const std::string &device)
{
    std::string links;
    for (size_t begin = 1; begin < device.size();) {
        const size_t end = std::min(device.find('/', begin), device.size());
        const std::string part = device.substr(begin, end - begin);
        if (part.starts_with("expander-") || part.starts_with("end_device-")) {
            const auto link = sas_link(files, device.substr(0, begin - 1), part);
            if (!link) {
                return "";
            }
            links += (links.empty() ? "" : "-") + std::to_string(*link);
        }
        begin = end + 1;
    }
    return links;
}

/* What tells a drive from the others of its controller. */
std::string place_of(const tree &files, const std::string &device, const scsi_address &address)
{
    if (const auto ata = part_of(device, "ata"); ata) {
        const auto port = files.number(ata->path + "/ata_port/" + ata->name + "/port_no");
        std::string place = std::to_string(port.value_or(1) - 1);
        return address.target == 0 ? place : place + '-' + std::to_string(address.target);
    }
    if (const auto sas = part_of(device, "end_device-"); sas) {
        const std::string link = sas->path + "/sas_device/" + sas->name;
        if (const auto bay = files.number(link + "/bay_identifier"); bay) {
            return std::to_string(*bay);
        }
        if (const std::string links = sas_links(files, device); !links.empty()) {
            return "_PHY" + links;
        }
        if (const std::string name = files.text(link + "/sas_address"); !name.empty()) {
            return '_' + label_of(name.substr(name.starts_with("0x") ? 2 : 0));
        }
    }
    return std::to_string(address.channel) + '.' + std::to_string(address.target);
}

void find_nvme(const tree &files, machine &into)
{
    const std::string directory = "/sys/class/nvme";
    for (const std::string &name : files.names(directory)) {
        const std::string path = files.real(directory + '/' + name);
        const std::string device(without_last_part(without_last_part(path)));
        if (!path.ends_with("/nvme/" + name) || !is_pci_address(last_part(device))) {
            continue; /* somewhere in a network */
        }
        component *known = exactly_at(into, device); /* its controller, by other sources */
        if (known == nullptr) {
            const location where = locate(into, device);
            known = &into.add(*where.holder, "NVME" + where.rest, "nvme-disk", device);
        }
        component &drive = *known;
        drive.type = "nvme-disk";
        drive.fru.model = files.text(path + "/model");
        drive.fru.serial = files.text(path + "/serial");
        drive.fru.software_revision = files.text(path + "/firmware_rev");
        into.is_device(drive, device);
    }
}

void find_bays(const tree &files, const std::string &enclosure, component &shelf, machine &into,
               bays &found)
{
    for (const std::string &name : files.names(enclosure)) {
        const std::string path = enclosure + '/' + name;
        const std::string type = files.text(path + "/type");
        if (type != "device" && type != "array device") {
            continue;
        }
        const auto slot = files.number(path + "/slot");
        component &bay = into.add(shelf, slot ? "HDD" + std::to_string(*slot) : label_of(name),
                                  "drive-bay", name);
        bay.capabilities = {"holder"};
        const std::string device = files.real(path + "/device");
        if (!device.empty()) {
            found[device] = &bay;
        }
        add_presence(into, bay, !device.empty());
        if (files.is_file(path + "/power_status")) {
            bay.capabilities.emplace_back("power-readable");
            bay.keys["power"] = bound_to(files, path + "/power_status");
        }
        add_indicator(files, into, bay, "LOCATE", "locate-led", path + "/locate");
        /* 2: lit because somebody asked for it, 4: because the shelf found a fault. */
        add_indicator(files, into, bay, "FAULT", "fault-led", path + "/fault", 0.5);
        add_indicator(files, into, bay, "ACT", "led", path + "/active");
    }
}

void find_shelves(const tree &files, machine &into, bays &found)
{
    const std::string directory = "/sys/class/enclosure";
    for (const std::string &name : files.names(directory)) {
        const std::string path = files.real(directory + '/' + name);
        const std::string device = files.real(path + "/device");
        if (path.empty()) {
            continue;
        }
        const std::string id = files.text(path + "/id");
        component &shelf = into.add(into.root(),
                                    "SHELF_" + label_of(id.starts_with("0x") ? id.substr(2) : id,
                                                        label_of(locate(into, path).rest)),
                                    "enclosure", path);
        shelf.fru.model = files.text(device + "/model");
        shelf.fru.manufacturer = files.text(device + "/vendor");
        shelf.fru.software_revision = files.text(device + "/rev");
        shelf.fru.serial = unit_serial(files.read(device + "/vpd_pg80").bytes);
        if (!device.empty()) {
            into.is_device(shelf, device);
        }
        find_bays(files, path, shelf, into, found);
    }
}

void find_scsi(const tree &files, const bays &holders, machine &into)
{
    const std::string directory = "/sys/block";
    constexpr int64_t optical = 5;
    for (const std::string &name : files.names(directory)) {
        const std::string block = files.real(directory + '/' + name);
        const std::string device = files.real(block + "/device");
        const auto address = scsi_address_of(last_part(device));
        if (!address ||
            std::ranges::any_of(
                foreign, [&](const char *part) { return device.find(part) != device.npos; }) ||
            is_virtual(files, device, *address)) {
            continue;
        }
        const bool disc = files.number(device + "/type") == optical;
        const bool turns = files.number(block + "/queue/rotational").value_or(1) != 0;
        const char *type = disc ? "optical-drive" : turns ? "disk" : "solid-state-disk";
        const auto bay = holders.find(device);
        component *controller = into.at_device(device);
        component &drive =
            bay != holders.end()
                ? into.add(*bay->second, "DISK", type, device)
                : into.add(controller == nullptr ? into.board() : *controller,
                           (disc ? "DVD" : "DISK") + place_of(files, device, *address), type,
                           device);
        drive.fru = identity_of(files, block, device);
        into.is_device(drive, device);
    }
}

} // namespace

void find_drives(const tree &files, machine &into)
{
    find_nvme(files, into);
    bays found;
    find_shelves(files, into, found);
    find_scsi(files, found, into);
}

} // namespace kavplat_describe

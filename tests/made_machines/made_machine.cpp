#include "made_machines/made_machine.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace kavplat_describe_test
{
namespace
{

std::string temporary_directory()
{
    std::string path = std::filesystem::temp_directory_path() / "kavplat-machine-XXXXXX";
    if (::mkdtemp(path.data()) == nullptr) {
        throw std::runtime_error("no temporary directory");
    }
    return path;
}

std::string last_part(const std::string &path)
{
    return path.substr(path.rfind('/') + 1);
}

/* As a device gives its serial number: four bytes before it. */
std::string serial_page(const std::string &serial)
{
    std::string page("\0\x80\0\0", 4);
    page[3] = static_cast<char>(serial.size());
    return page + serial;
}

/* Words of two characters, the second first, filled up with blanks. */
void put_ata_text(std::string &page, size_t word, size_t words, std::string text)
{
    text.resize(2 * words, ' ');
    for (size_t i = 0; i < text.size(); ++i) {
        page.at(60 + 2 * word + (i ^ 1U)) = text[i];
    }
}

std::string ata_page(const built &drive)
{
    std::string page(572, '\0');
    put_ata_text(page, 10, 10, drive.serial);
    put_ata_text(page, 23, 4, drive.revision);
    put_ata_text(page, 27, 20, drive.model);
    return page;
}

} // namespace

made_machine::made_machine(order of_the_kernel)
    : order_(of_the_kernel), root_(temporary_directory())
{
    directory("/sys/devices");
    directory("/sys/class");
    directory("/proc");
    directory("/run");
}

made_machine::~made_machine()
{
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
}

void made_machine::file(const std::string &path, const std::string &text) const
{
    std::filesystem::create_directories(on_disk(path).parent_path());
    std::ofstream(on_disk(path), std::ios::binary) << text;
}

void made_machine::directory(const std::string &path) const
{
    std::filesystem::create_directories(on_disk(path));
}

/* Relative, as the kernel's are. */
void made_machine::link(const std::string &path, const std::string &target) const
{
    std::filesystem::create_directories(on_disk(path).parent_path());
    std::filesystem::create_symlink(
        std::filesystem::path(target).lexically_relative(std::filesystem::path(path).parent_path()),
        on_disk(path));
}

std::string made_machine::counted(const std::string &stem)
{
    constexpr unsigned last = 99;
    const unsigned next = counters_[stem]++;
    return stem + std::to_string(order_ == order::forwards ? next : last - next);
}

std::string made_machine::add_pci(const std::string &path, const std::string &type) const
{
    file(path + "/class", "0x" + type + '\n');
    file(path + "/vendor", "0x8086\n");
    file(path + "/device", "0x1572\n");
    link("/sys/bus/pci/devices/" + last_part(path), path);
    return path;
}

std::string made_machine::pci(const std::string &root_bus, const std::string &number,
                              const std::string &type)
{
    return add_pci("/sys/devices/pci" + root_bus + '/' + root_bus + ':' + number, type);
}

std::string made_machine::below(const std::string &bridge, const std::string &number,
                                const std::string &type)
{
    std::string &bus = buses_[bridge];
    if (bus.empty()) {
        char text[8];
        std::snprintf(text, sizeof text, "%02x",
                      100U + static_cast<unsigned>(std::stoul(counted("").c_str())));
        bus = text;
    }
    return add_pci(bridge + "/0000:" + bus + ':' + number, type);
}

std::string made_machine::first_below(const std::string &bridge) const
{
    return bridge + "/0000:" + buses_.at(bridge) + ":00.0";
}

void made_machine::slot(const std::string &name, const std::string &device, bool hot_plug,
                        const std::string &as, const std::string &type)
{
    const std::string described = as.empty() ? "/SYS/MB/SLOT" + name : as;
    const std::string path = "/sys/bus/pci/slots/" + name;
    const std::string address = last_part(device);
    file(path + "/address", address.substr(0, address.size() - 2) + '\n');
    expect(described, {.type = type});
    if (hot_plug) {
        file(path + "/adapter", "1\n");
        file(path + "/power", "1\n");
        file(path + "/attention", "0\n");
        expect(described + "/PRSNT", {.type = "presence-sensor", .reading = 2});
        expect(described + "/ATTENTION", {.type = "led", .reading = 1});
    }
}

std::string made_machine::nvme(const std::string &device, const built &drive)
{
    const std::string name = counted("nvme");
    const std::string path = device + "/nvme/" + name;
    file(path + "/model", drive.model + "        \n");
    file(path + "/serial", drive.serial + "  \n");
    file(path + "/firmware_rev", drive.revision + '\n');
    file(path + "/transport", "pcie\n");
    link(path + "/device", device);
    link("/sys/class/nvme/" + name, path);
    const std::string disk = name + "n1";
    file(path + '/' + disk + "/size", "1875385008\n");
    file(path + '/' + disk + '/' + disk + "p1/partition", "1\n");
    link(path + '/' + disk + "/device", path);
    link("/sys/block/" + disk, path + '/' + disk);
    return path;
}

std::string made_machine::block(const std::string &device, const built &drive, const texts &more)
{
    const std::string name = counted("sd");
    const std::string path = device + "/block/" + name;
    const bool disc = drive.type == "optical-drive";
    file(device + "/type", disc ? "5\n" : "0\n");
    file(device + "/model", drive.model.substr(0, 16) + '\n');
    file(device + "/rev", drive.revision.substr(0, 4) + '\n');
    file(path + "/dev", "8:" + name.substr(2) + '\n');
    file(path + "/queue/rotational", drive.type == "solid-state-disk" ? "0\n" : "1\n");
    for (const auto &[key, text] : more) {
        file(device + '/' + key, text);
    }
    link(path + "/device", device);
    link("/sys/block/" + name, path);
    return device;
}

std::string made_machine::sata(const std::string &controller, unsigned port, const built &drive)
{
    const std::string ata = counted("ata");
    const std::string host = counted("host").substr(4);
    const std::string path = controller + '/' + ata;
    file(path + "/ata_port/" + ata + "/port_no", std::to_string(port) + '\n');
    file("/sys/class/scsi_host/host" + host + "/proc_name", "ahci\n");
    return block(path + "/host" + host + "/target" + host + ":0:0/" + host + ":0:0:0", drive,
                 {{"vendor", "ATA     \n"},
                  {"vpd_pg80", serial_page("  " + drive.serial)},
                  {"vpd_pg89", ata_page(drive)}});
}

std::string made_machine::scsi(const std::string &host, const std::string &link_name,
                               unsigned target, const built &drive, const texts &more)
{
    const std::string number = last_part(host).substr(4);
    const std::string id = number + ":0:" + std::to_string(target);
    texts all = {{"vendor", "MAKER   \n"}, {"vpd_pg80", serial_page(drive.serial)}};
    all.insert(all.end(), more.begin(), more.end());
    return block(host + '/' + link_name + "/target" + id + '/' + id + ":0", drive, all);
}

std::string made_machine::shelf(const std::string &host, unsigned target, const std::string &id)
{
    const std::string number = last_part(host).substr(4);
    const std::string address = number + ":0:" + std::to_string(target);
    const std::string device = host + "/target" + address + '/' + address + ":0";
    const std::string path = device + "/enclosure/" + address + ":0";
    file(device + "/vendor", "SHELVES\n");
    file(device + "/model", "S4-24\n");
    file(device + "/rev", "0105\n");
    file(device + "/vpd_pg80", serial_page("SH-" + id));
    file(path + "/id", "0x" + id + '\n');
    link(path + "/device", device);
    link("/sys/class/enclosure/" + address + ":0", path);
    return path;
}

void made_machine::bay(const std::string &shelf, unsigned slot, const std::string &drive, int fault,
                       int locate) const
{
    char name[16];
    std::snprintf(name, sizeof name, "Slot %02u", slot);
    const std::string path = shelf + '/' + name;
    file(path + "/type", "array device\n");
    file(path + "/slot", std::to_string(slot) + '\n');
    file(path + "/status", drive.empty() ? "not installed\n" : "OK\n");
    file(path + "/fault", std::to_string(fault) + '\n');
    file(path + "/locate", std::to_string(locate) + '\n');
    file(path + "/active", "0\n");
    if (!drive.empty()) {
        link(path + "/device", drive);
    }
}

void made_machine::hwmon(const std::string &device, const std::string &chip, const texts &files)
{
    const std::string name = counted("hwmon");
    /* A device of a class has its sensors beside it, others have a directory for them. */
    const std::string path = device + (chip == "nvme" ? "/" : "/hwmon/") + name;
    file(path + "/name", chip + '\n');
    for (const auto &[key, text] : files) {
        file(path + '/' + key, text + '\n');
    }
    link(path + "/device", device);
    link("/sys/class/hwmon/" + name, path);
}

std::string made_machine::port(const std::string &device, unsigned number,
                               const std::string &address)
{
    const std::string name = counted("eth");
    const std::string path = device + "/net/" + name;
    file(path + "/address", address + '\n');
    file(path + "/addr_assign_type", "0\n");
    file(path + "/dev_port", std::to_string(number) + '\n');
    file(path + "/type", "1\n");
    link(path + "/device", device);
    link("/sys/class/net/" + name, path);
    return name;
}

void made_machine::processors(unsigned packages, unsigned cores, const std::string &model) const
{
    std::string text;
    for (unsigned i = 0; i < packages * cores; ++i) {
        const std::string number = std::to_string(i);
        file("/sys/devices/system/cpu/cpu" + number + "/topology/physical_package_id",
             std::to_string(i / cores) + '\n');
        text.append("processor\t: ").append(number).append("\nmodel name\t: ");
        text.append(model).append("\n\n");
    }
    file("/proc/cpuinfo", text);
}

std::string made_machine::supply(const std::string &name, const texts &files) const
{
    const std::string path = "/sys/devices/LNXSYSTM:00/PNP0C0A:00/power_supply/" + name;
    for (const auto &[key, text] : files) {
        file(path + '/' + key, text + '\n');
    }
    link("/sys/class/power_supply/" + name, path);
    return path;
}

} // namespace kavplat_describe_test

#include "made_machines/machines.h"

#include "describe/smbios_builder.h"

namespace kavplat_describe_test
{
namespace
{

const texts core_sensors = {{"temp1_input", "45000"},
                            {"temp1_label", "Package id 0"},
                            {"temp1_max", "80000"},
                            {"temp1_crit", "90000"},
                            {"temp1_crit_alarm", "0"}};

void expect_cores(made_machine &it, const std::string &on)
{
    it.expect(on + "/T_PACKAGE_ID_0",
              {.type = "temperature-sensor",
               .reading = 45,
               .limits = {{"upper_non_critical", 80}, {"upper_critical", 90}}});
    it.expect(on + "/T_PACKAGE_ID_0_CRIT_ALARM", {.type = "fault-sensor", .reading = 1});
}

} // namespace

void build_nvme(made_machine &it, const std::string &device, const std::string &name, unsigned n)
{
    const built drive{.type = "nvme-disk",
                      .serial = "S64GNE0T" + std::to_string(1000 + n),
                      .model = "Flash 960",
                      .revision = "GDC5902Q"};
    const std::string controller = it.nvme(device, drive);
    it.expect(name, drive);
    /* What a drive says that has no limits of its own. */
    it.hwmon(controller, "nvme",
             {{"temp1_input", std::to_string(30000 + 1000 * n)},
              {"temp1_label", "Composite"},
              {"temp1_max", "65261850"},
              {"temp1_min", "-273150"},
              {"temp1_crit", "84850"},
              {"temp1_alarm", "0"}});
    it.expect(
        name + "/T_COMPOSITE",
        {.type = "temperature-sensor", .reading = 30.0 + n, .limits = {{"upper_critical", 84.85}}});
    it.expect(name + "/T_COMPOSITE_ALARM", {.type = "fault-sensor", .reading = 1});
}

namespace
{

void build_card(made_machine &it, const std::string &bridge, const std::string &name)
{
    for (unsigned i = 0; i < 2; ++i) {
        const std::string function = it.below(bridge, "00." + std::to_string(i), "020000");
        const std::string mac = "00:1b:21:00:00:0" + std::to_string(i);
        const std::string adapter = name + std::to_string(i);
        it.expect(adapter, {.type = "network-adapter"});
        it.expect(adapter + "/PORT0",
                  {.type = "network-port", .serial = mac, .interface = it.port(function, 0, mac)});
    }
    /* A share for a guest. */
    const std::string share = it.below(bridge, "02.0", "020000");
    it.link(share + "/physfn", bridge);
    it.port(share, 0, "02:00:00:00:00:99");
}

void build_shelf(made_machine &it)
{
    const std::string controller = it.below(it.pci("0000:ae", "00.0", "060400"), "00.0", "010700");
    it.expect("/SYS/MB/HBAAE-0-0", {.type = "storage-controller"});
    const std::string number = it.counted("host").substr(4);
    const std::string host = controller + "/host" + number;
    it.file("/sys/class/scsi_host/host" + number + "/proc_name", "mpt3sas\n");
    const std::string shelf =
        it.shelf(host + "/end_device-" + number + ":9", 40, "500304801f3b6c7f");
    const std::string name = "/SYS/SHELF_500304801F3B6C7F";
    it.expect(name, {.type = "enclosure",
                     .serial = "SH-500304801f3b6c7f",
                     .model = "S4-24",
                     .revision = "0105",
                     .maker = "SHELVES"});
    for (unsigned slot = 0; slot < 12; ++slot) {
        const std::string bay = name + "/HDD" + std::to_string(slot);
        const bool full = slot % 4 != 3;
        std::string device;
        if (full) {
            const built drive{.type = "disk",
                              .serial = "ZA1000" + std::to_string(slot),
                              .model = "ST8000NM",
                              .revision = "E004",
                              .maker = "MAKER"};
            device =
                it.scsi(host, "end_device-" + number + ':' + std::to_string(slot), slot, drive);
            it.expect(bay + "/DISK", drive);
        }
        const int fault = slot == 1 ? 2 : slot == 2 ? 4 : 0;
        it.bay(shelf, slot, device, fault, slot == 5 ? 1 : 0);
        it.expect(bay, {.type = "drive-bay"});
        it.expect(bay + "/PRSNT", {.type = "presence-sensor", .reading = full ? 2 : 1});
        it.expect(bay + "/LOCATE", {.type = "locate-led", .reading = slot == 5 ? 2 : 1});
        it.expect(bay + "/FAULT", {.type = "fault-led", .reading = 1 + fault / 2});
        it.expect(bay + "/ACT", {.type = "led", .reading = 1});
    }
    /* An array is made of drives, and is none. */
    it.scsi(host, "target", 90,
            {.type = "disk", .serial = "ARRAY", .model = "Array", .revision = "1"});
}

/* As the kernel shows the memory controller's counters of a module. */
void add_error_counters(const made_machine &it, const std::string &module, const std::string &label,
                        const std::string &location, const std::string &uncorrected,
                        const std::string &corrected)
{
    const std::string path = "/sys/devices/system/edac/mc/mc0/" + module + '/';
    it.file(path + "dimm_label", label + '\n');
    it.file(path + "dimm_location", location + '\n');
    it.file(path + "size", "32768\n");
    it.file(path + "dimm_ue_count", uncorrected + '\n');
    it.file(path + "dimm_ce_count", corrected + '\n');
}

void expect_errors(made_machine &it, const std::string &module, const std::string &suffix,
                   double uncorrected, double corrected)
{
    it.expect(module + "/UE" + suffix,
              {.type = "fault-sensor", .reading = uncorrected, .limits = {{"upper_critical", 1}}});
    it.expect(module + "/CE" + suffix, {.type = "predictive-sensor",
                                        .reading = corrected,
                                        .limits = {{"upper_non_critical", 50}}});
}

/* The bus of a device, and its number and function there, as firmware writes them. */
std::pair<uint8_t, uint8_t> firmware_address(const std::string &device)
{
    const std::string address = device.substr(device.rfind('/') + 1);
    const auto number = [&address](size_t at, size_t digits) {
        return std::stoul(address.substr(at, digits), nullptr, 16);
    };
    return {static_cast<uint8_t>(number(5, 2)),
            static_cast<uint8_t>(number(8, 2) << 3U | number(11, 1))};
}

void build_sockets(made_machine &it, smbios_builder &table)
{
    it.processors(2, 4, "Processor 6230R");
    for (unsigned i = 0; i < 2; ++i) {
        const std::string socket = "CPU" + std::to_string(i + 1);
        const std::string name = "/SYS/MB/" + socket;
        const built processor{.type = "processor",
                              .serial = "P-" + std::to_string(i),
                              .model = "Processor 6230R (PN-1)"};
        smbios_made::processor(table, 32, socket, "Processor 6230R", processor.serial);
        it.expect(name, {.type = "cpu-socket"});
        it.expect(name + "/CPU", processor);
        it.hwmon("/sys/devices/platform/coretemp." + std::to_string(i), "coretemp", core_sensors);
        expect_cores(it, name + "/CPU");
        for (const char *place : {"A1", "A10", "A2"}) {
            const std::string slot = name + "/DIMM_" + place;
            const bool full = std::string(place) != "A2";
            const std::string serial = "M-" + std::to_string(i) + place;
            smbios_made::memory(table, 32, socket + "_DIMM_" + place, "", full ? 32768 : 0, serial);
            it.expect(slot, {.type = "dimm-slot"});
            if (full) {
                it.expect(slot + "/DIMM",
                          {.type = "memory-module", .serial = serial, .model = "MM-32"});
            }
        }
    }
    /* One by its locator, which begins as another's does; one that the driver calls otherwise. */
    add_error_counters(it, "dimm0", "CPU2_DIMM_A10", "channel 0 slot 0", "3", "60");
    add_error_counters(it, "dimm1", "CPU_SrcID#0_Chan#1_DIMM#0", "channel 1 slot 0", "0", "7");
    expect_errors(it, "/SYS/MB/CPU2/DIMM_A10/DIMM", "", 3, 60);
    expect_errors(it, "/SYS/MB", "_MC0_CHANNEL_1_SLOT_0", 0, 7);
}

/* Half of the bays are known to the kernel alone, the others to both. */
void build_bays(made_machine &it, smbios_builder &table)
{
    constexpr uint8_t u2 = 0x25;
    for (unsigned i = 0; i < 8; ++i) {
        const std::string bridge = it.pci("0000:17", "0" + std::to_string(i) + ".0", "060400");
        const std::string drive = it.below(bridge, "00.0", "010802");
        const std::string number = std::to_string(20 + i);
        const bool in_table = i % 2 == 1;
        if (in_table) {
            const auto [bus, place] = firmware_address(drive);
            smbios_made::slot(table, 32, "NVMe Bay " + number, bus, place, u2);
        }
        const std::string name = (in_table ? "/SYS/MB/NVME_BAY_" : "/SYS/MB/SLOT") + number;
        it.slot(number, drive, true, name, in_table ? "drive-bay" : "pcie-slot");
        build_nvme(it, drive, name + "/NVME0", i);
    }
}

void build_onboard_ports(made_machine &it, smbios_builder &table)
{
    constexpr uint8_t ethernet = 5;
    const std::string bridge = it.pci("0000:00", "1c.0", "060400");
    for (unsigned i = 0; i < 2; ++i) {
        const std::string adapter = it.below(bridge, "00." + std::to_string(i), "020000");
        const auto [bus, place] = firmware_address(adapter);
        smbios_made::onboard(table, "Onboard LAN", ethernet, static_cast<uint8_t>(i + 1), bus,
                             place);
        const std::string name = "/SYS/MB/ONBOARD_LAN_" + std::to_string(i + 1);
        const std::string mac = "00:1b:21:00:01:0" + std::to_string(i);
        it.expect(name, {.type = "network-adapter"});
        it.expect(name + "/PORT0",
                  {.type = "network-port", .serial = mac, .interface = it.port(adapter, 0, mac)});
    }
}

void build_server(made_machine &it)
{
    smbios_builder table;
    smbios_made::system(table, 32, "Maker", "Server 2", "SERVER-1");
    smbios_made::board(table, "Serverboard", "BOARD-1");
    it.expect("/SYS/MB", {.type = "system-board", .serial = "BOARD-1", .model = "Serverboard"});
    build_sockets(it, table);
    build_bays(it, table);
    build_onboard_ports(it, table);
    build_shelf(it);
    /* A slot that firmware names by the card in it, one by the port above, an empty one. */
    const std::string card = it.pci("0000:85", "02.0", "060400");
    build_card(it, card, "/SYS/MB/PCIE_SLOT_4/NET");
    const std::string port = it.pci("0000:85", "03.0", "060400");
    it.below(port, "00.0", "120000");
    it.expect("/SYS/MB/PCIE_SLOT_5/ACC0", {.type = "accelerator"});
    for (const auto &[number, device] :
         {std::pair(4, it.first_below(card)), {5, port}, {6, std::string()}}) {
        const auto [bus, place] =
            device.empty() ? std::pair<uint8_t, uint8_t>(0xff, 0xff) : firmware_address(device);
        smbios_made::slot(table, 32, "PCIe Slot " + std::to_string(number), bus, place);
        it.expect("/SYS/MB/PCIE_SLOT_" + std::to_string(number), {.type = "pcie-slot"});
    }
    for (const char *number : {"1", "2"}) {
        const std::string name = std::string("/SYS/PSU") + number;
        const built supply{.type = "power-supply",
                           .serial = std::string("PS-") + number,
                           .model = "S-750",
                           .revision = "01A"};
        smbios_made::power_supply(table, std::string("PSU") + number, supply.serial, true);
        it.expect(name, {.type = "psu-bay"});
        it.expect(name + "/PS", supply);
    }
    table.end();
    it.file("/sys/firmware/dmi/tables/DMI", table.table);
    it.file("/sys/firmware/dmi/tables/smbios_entry_point", table.entry_point(3, 2));
}

} // namespace

void build_workstation(made_machine &it)
{
    it.processors(1, 8, "Processor 9 5900X");
    it.expect("/SYS/MB/P0", {.type = "processor", .model = "Processor 9 5900X"});
    const std::string node = it.pci("0000:00", "18.3", "060000");
    it.hwmon(node, "k10temp", {{"temp1_input", "51250"}, {"temp1_label", "Tctl"}});
    it.expect("/SYS/MB/P0/T_TCTL", {.type = "temperature-sensor", .reading = 51.25});
    const std::string board = "/sys/devices/platform/nct6775.656";
    it.hwmon(board, "nct6798",
             {{"in0_input", "992"},
              {"in0_min", "0"},
              {"in0_max", "1744"},
              {"in0_alarm", "1"},
              {"fan2_input", "1180"},
              {"fan2_min", "300"},
              {"temp1_input", "34000"},
              {"temp1_label", "SYSTIN"},
              {"temp1_max", "0"},
              {"temp2_input", "35000"},
              {"temp2_label", "AUX"},
              {"temp3_input", "36000"},
              {"temp3_label", "AUX"},
              {"temp3_fault", "0"},
              {"intrusion0_alarm", "0"},
              {"pwm2", "128"}});
    const std::string chip = "NCT6798_";
    it.expect(
        "/SYS/MB/V_" + chip + "0",
        {.type = "voltage-sensor", .reading = 0.992, .limits = {{"upper_non_critical", 1.744}}});
    it.expect("/SYS/MB/V_" + chip + "0_ALARM", {.type = "fault-sensor", .reading = 2});
    it.expect("/SYS/MB/FAN_" + chip + "2",
              {.type = "tachometer", .reading = 1180, .limits = {{"lower_non_critical", 300}}});
    it.expect("/SYS/MB/T_" + chip + "SYSTIN", {.type = "temperature-sensor", .reading = 34});
    it.expect("/SYS/MB/T_" + chip + "AUX_2", {.type = "temperature-sensor", .reading = 35});
    it.expect("/SYS/MB/T_" + chip + "AUX_3", {.type = "temperature-sensor", .reading = 36});
    it.expect("/SYS/MB/T_" + chip + "AUX_3_FAULT", {.type = "fault-sensor", .reading = 1});
    it.expect("/SYS/MB/INTRUSION_" + chip + "0_ALARM", {.type = "fault-sensor", .reading = 1});

    const std::string controller = it.pci("0000:00", "17.0", "010601");
    it.expect("/SYS/MB/HBA17.0", {.type = "storage-controller"});
    const built ssd{.type = "solid-state-disk",
                    .serial = "S3Z8NB0K123456",
                    .model = "Solid State Drive 860 PRO 512GB",
                    .revision = "RVM01B6Q"};
    const built dvd{
        .type = "optical-drive", .serial = "K8YD", .model = "DVDRAM GH24NSD1", .revision = "LG00"};
    const std::string drive = it.sata(controller, 3, ssd);
    it.sata(controller, 6, dvd);
    it.hwmon(drive, "drivetemp",
             {{"temp1_input", "29000"},
              {"temp1_lcrit", "-40000"},
              {"temp1_min", "0"},
              {"temp1_max", "70000"},
              {"temp1_crit", "60000"}});
    it.expect("/SYS/MB/HBA17.0/DISK2", ssd);
    it.expect("/SYS/MB/HBA17.0/DVD5", dvd);
    it.expect(
        "/SYS/MB/HBA17.0/DISK2/T_1",
        {.type = "temperature-sensor",
         .reading = 29,
         .limits = {{"lower_critical", -40}, {"lower_non_critical", 0}, {"upper_critical", 60}}});

    /* A card with a switch on it, of which two chips hang. */
    const std::string root = it.pci("0000:00", "01.1", "060400");
    const std::string top = it.below(root, "00.0", "060400");
    for (const char *port : {"08.0", "09.0"}) {
        const std::string part = std::string("/SYS/MB/BRIDGE1.1-0/BRIDGE") + port[1] + ".0";
        it.below(it.below(top, port, "060400"), "00.0", "030200");
        it.expect(part, {.type = "io-module"});
        it.expect(part + "/GPU0", {.type = "accelerator"});
    }
    it.below(top, "0a.0", "060400"); /* nothing hangs below this one */
    it.expect("/SYS/MB/BRIDGE1.1-0", {.type = "io-module"});
    /* Of modules that no table tells of. */
    add_error_counters(it, "dimm0", "CPU_SrcID#0_Chan#0_DIMM#0", "channel 0 slot 0", "3", "60");
    const std::string module = "/SYS/MB/DIMM_MC0_CHANNEL_0_SLOT_0";
    it.expect(module, {.type = "memory-module"});
    expect_errors(it, module, "", 3, 60);
    const std::string usb = it.pci("0000:00", "14.0", "0c0330");
    it.expect("/SYS/MB/NET_USB2.1",
              {.type = "network-port",
               .serial = "00:e0:4c:68:00:01",
               .interface = it.port(usb + "/usb1/1-2/1-2.1/1-2.1:1.0", 0, "00:e0:4c:68:00:01")});
    it.file("/sys/devices/virtual/block/loop0/size", "8\n");
    it.link("/sys/block/loop0", "/sys/devices/virtual/block/loop0");
    it.file("/sys/devices/virtual/net/lo/address", "00:00:00:00:00:00\n");
    it.link("/sys/class/net/lo", "/sys/devices/virtual/net/lo");
}

namespace
{

} // namespace

void build_laptop(made_machine &it)
{
    it.processors(1, 4, "Processor i7-8565U");
    it.expect("/SYS/MB/P0", {.type = "processor", .model = "Processor i7-8565U"});
    it.hwmon("/sys/devices/platform/coretemp.0", "coretemp", core_sensors);
    expect_cores(it, "/SYS/MB/P0");
    const std::string battery = it.supply("BAT0", {{"type", "Battery"},
                                                   {"present", "1"},
                                                   {"status", "Discharging"},
                                                   {"health", "Overheat"},
                                                   {"capacity", "87"},
                                                   {"voltage_now", "12345000"},
                                                   {"power_now", "8100000"},
                                                   {"energy_full", "45000000"},
                                                   {"energy_full_design", "50000000"},
                                                   {"manufacturer", "Cells"},
                                                   {"model_name", "45N1"},
                                                   {"serial_number", "4711"}});
    /* The same once more, by its own driver. */
    it.hwmon(battery, "BAT0", {{"in0_input", "12345"}});
    it.supply("AC", {{"type", "Mains"}, {"online", "0"}});
    it.supply("hidpp_battery_0", {{"type", "Battery"}, {"scope", "Device"}});
    it.expect("/SYS/BAT0",
              {.type = "battery", .serial = "4711", .model = "45N1", .maker = "Cells"});
    it.expect("/SYS/BAT0/PRSNT", {.type = "presence-sensor", .reading = 2});
    it.expect("/SYS/BAT0/CHARGE", {.type = "usage-sensor", .reading = 87});
    it.expect("/SYS/BAT0/V", {.type = "voltage-sensor", .reading = 12.345});
    it.expect("/SYS/BAT0/V_0", {.type = "voltage-sensor", .reading = 12.345});
    it.expect("/SYS/BAT0/P", {.type = "power-sensor", .reading = 8.1});
    it.expect("/SYS/BAT0/LIFE", {.type = "usage-sensor", .reading = 90});
    it.expect("/SYS/BAT0/CHARGING", {.type = "state-sensor", .reading = 1});
    it.expect("/SYS/BAT0/DISCHARGING", {.type = "state-sensor", .reading = 2});
    it.expect("/SYS/BAT0/HEALTH", {.type = "fault-sensor", .reading = 2});
    it.expect("/SYS/AC", {.type = "ac-power-supply"});
    it.expect("/SYS/AC/ONLINE", {.type = "state-sensor", .reading = 1});
    const std::string bridge = it.pci("0000:00", "1d.4", "060400");
    build_nvme(it, it.below(bridge, "00.0", "010802"), "/SYS/MB/NVME1D.4-0", 3);
    const auto light = [&](const std::string &path, const char *brightest, const char *brightness) {
        it.file(path + "/brightness", brightness);
        it.file(path + "/max_brightness", brightest);
        it.link("/sys/class/leds/" + path.substr(path.rfind('/') + 1), path);
    };
    light("/sys/devices/platform/i8042/serio0/input/input3/input3::capslock", "1\n", "1\n");
    light("/sys/devices/platform/thinkpad/leds/tpacpi::power", "255\n", "255\n");
    light("/sys/devices/platform/thinkpad/leds/tpacpi::kbd_backlight", "2\n", "0\n");
    light("/sys/devices/platform/thinkpad/leds/tpacpi::standby", "255\n", "100\n"); /* dimly */
    light("/sys/devices/platform/thinkpad/leds/platform::micmute", "1\n", "1\n");
    it.expect("/SYS/LED_TPACPI_POWER", {.type = "power-led", .reading = 2});
    it.expect("/SYS/LED_TPACPI_STANDBY", {.type = "led", .reading = 2});
    it.expect("/SYS/LED_PLATFORM_MICMUTE", {.type = "led", .reading = 2});
    const auto zone = [&](const char *type, const char *temperature) {
        const std::string path = "/sys/devices/virtual/thermal/" + it.counted("thermal_zone");
        it.file(path + "/type", type);
        it.file(path + "/temp", temperature);
        it.file(path + "/trip_point_0_type", "critical\n");
        it.file(path + "/trip_point_0_temp", "110000\n");
        it.link("/sys/class/thermal/" + path.substr(path.rfind('/') + 1), path);
    };
    zone("x86_pkg_temp\n", "45000\n"); /* as the processor's own sensor says */
    zone("INT3400 Thermal\n", "20000\n");
    it.expect("/SYS/MB/T_INT3400_THERMAL",
              {.type = "temperature-sensor", .reading = 20, .limits = {{"upper_fatal", 110}}});
}

namespace
{

void build_small_computer(made_machine &it)
{
    it.processors(1, 4, "");
    it.expect("/SYS/MB/P0", {.type = "processor"});
    const std::string zone = "/sys/devices/virtual/thermal/" + it.counted("thermal_zone");
    it.file(zone + "/type", "cpu-thermal\n");
    it.file(zone + "/temp", "48312\n");
    it.link("/sys/class/thermal/" + zone.substr(zone.rfind('/') + 1), zone);
    it.expect("/SYS/MB/P0/T_CPU-THERMAL", {.type = "temperature-sensor", .reading = 48.312});
    const std::string mac = "dc:a6:32:00:00:01";
    it.expect("/SYS/MB/NET_FD580000.ETHERNET_0",
              {.type = "network-port",
               .serial = mac,
               .interface = it.port("/sys/devices/platform/scb/fd580000.ethernet", 0, mac)});
    const std::string led = "/sys/devices/platform/leds/leds/ACT";
    it.file(led + "/brightness", "0\n");
    it.file(led + "/max_brightness", "255\n");
    it.link("/sys/class/leds/ACT", led);
    it.expect("/SYS/LED_ACT", {.type = "led", .reading = 1});
    const std::string dog = "/sys/devices/platform/soc/fe100000.watchdog";
    it.file(dog + "/watchdog/watchdog0/state", "active\n");
    it.link(dog + "/watchdog/watchdog0/device", dog);
    it.link("/sys/class/watchdog/watchdog0", dog + "/watchdog/watchdog0");
    it.expect("/SYS/MB/WATCHDOG_FE100000.WATCHDOG", {.type = "state-sensor", .reading = 2});
}

/* One of four in a chassis, with what it knows of itself and of what it is in. */
void build_node(made_machine &it)
{
    constexpr uint8_t multi_system = 0x19;
    constexpr uint8_t blade = 0x1c;
    smbios_builder table;
    smbios_made::system(table, 32, "Maker", "Node 4", "NODE-3-SYSTEM");
    const uint16_t chassis = table.add(3, 0x16, {{5, 1, multi_system}},
                                       {{4, "Maker"}, {6, "V1"}, {7, "CHASSIS-OF-FOUR"}});
    table.add(3, 0x16, {{5, 1, blade}}, {{4, "Maker"}, {6, "V2"}, {7, "NODE-3-TRAY"}});
    smbios_made::board(table, "Midplane", "MID-1", 0x0d, "Midplane");
    smbios_made::board(table, "Nodeboard", "NODE-3-BOARD", 0x0a, "Node 3", {chassis});
    for (unsigned i = 0; i < 2; ++i) {
        const std::string cpu = "CPU" + std::to_string(i + 1);
        const std::string serial = "CPU-" + std::to_string(i);
        smbios_made::processor(table, 32, cpu, "Processor 7543", serial);
        it.expect("/SYS/MB/" + cpu, {.type = "cpu-socket"});
        it.expect("/SYS/MB/" + cpu + "/CPU", {.type = "processor",
                                              .serial = serial,
                                              .model = "Processor 7543 (PN-1)",
                                              .maker = "Chipmaker"});
    }
    it.expect("/SYS/MB", {.type = "system-board",
                          .serial = "NODE-3-BOARD",
                          .model = "Nodeboard",
                          .maker = "Boardmaker"});
    it.expect("/SYS/MIDPLANE",
              {.type = "backplane", .serial = "MID-1", .model = "Midplane", .maker = "Boardmaker"});
    it.expect("/SYS/CHASSIS", {.type = "enclosure", .serial = "CHASSIS-OF-FOUR", .maker = "Maker"});
    /* The second of that name has its handle in it. */
    it.expect("/SYS/CHASSIS_H0012",
              {.type = "enclosure", .serial = "NODE-3-TRAY", .maker = "Maker"});
    table.end();
    it.file("/sys/firmware/dmi/tables/DMI", table.table);
    it.file("/sys/firmware/dmi/tables/smbios_entry_point", table.entry_point(3, 2));
    it.processors(2, 2, "Processor 7543");
    for (unsigned i = 0; i < 4; ++i) {
        const std::string port = it.pci("0000:4" + std::to_string(i), "01.0", "060400");
        build_nvme(it, it.below(port, "00.0", "010802"),
                   "/SYS/MB/NVME4" + std::to_string(i) + "-1.0-0", i);
    }
}

} // namespace

const std::array<kind_of_machine, 6> kinds_of_machines = {
    {{"rack_server", build_server},
     {"workstation", build_workstation},
     {"laptop", build_laptop},
     {"virtual_machine", [](made_machine &) {}},
     {"single_board_computer", build_small_computer},
     {"node_of_a_chassis", build_node}}};

} // namespace kavplat_describe_test

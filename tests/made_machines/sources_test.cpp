#include "made_machines/machines.h"
#include "made_machines/modules.h"

#include "check.h"
#include "describe/smbios_builder.h"
#include "described/format/component_types.h"
#include "described/format/loader.h"
#include "described/live/live_values.h"
#include "tools/kavplat/describe/describe.h"
#include "tools/kavplat/describe/error_window.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <set>
#include <sys/resource.h>
#include <sys/stat.h>

using namespace kavplat_describe_test;
namespace platform = described_platform;

namespace
{

using order = made_machine::order;

kavplat_describe::described describe(const made_machine &machine)
{
    kavplat_describe::options asked;
    asked.root = machine.root();
    return kavplat_describe::describe(asked);
}

std::unique_ptr<const platform::description> load(const kavplat_describe::described &it)
{
    platform::load_result result = platform::load_text(it.text, "/");
    for (const platform::load_error &each : result.errors) {
        ADD_FAILURE() << to_text("description", each);
    }
    return std::move(result.loaded);
}

std::optional<double> value_of(const platform::live_value &value)
{
    static platform::live_values values(std::chrono::seconds(5));
    platform::live_reading reading{&value};
    values.read({&reading, 1});
    return reading.result;
}

std::map<std::string, double> limits_of(const platform::sensor &it)
{
    static const std::tuple<const char *, platform::threshold, int> all[] = {
        {"upper_fatal", platform::upper_fatal, CAPI_UPPER_FATAL_VALID},
        {"upper_critical", platform::upper_critical, CAPI_UPPER_CRITICAL_VALID},
        {"upper_non_critical", platform::upper_non_critical, CAPI_UPPER_NON_CRITICAL_VALID},
        {"lower_fatal", platform::lower_fatal, CAPI_LOWER_FATAL_VALID},
        {"lower_critical", platform::lower_critical, CAPI_LOWER_CRITICAL_VALID},
        {"lower_non_critical", platform::lower_non_critical, CAPI_LOWER_NON_CRITICAL_VALID},
    };
    std::map<std::string, double> found;
    for (const auto &[key, which, flag] : all) {
        if ((it.flags & flag) != 0) {
            found[key] = std::round(static_cast<double>(it.thresholds[which]) * 1000) / 1000;
        }
    }
    return found;
}

std::string type_name(uint32_t number)
{
    for (const platform::component_type &each : platform::component_types()) {
        if (each.number == number) {
            return each.name;
        }
    }
    return std::to_string(number);
}

void expect_as_built(const built &expected, const platform::component &found)
{
    SCOPED_TRACE(found.name);
    EXPECT_EQ(expected.type, type_name(found.type));
    const platform::fru_identity fru = found.fru ? *found.fru : platform::fru_identity();
    EXPECT_EQ(expected.serial, fru.serial);
    if (!expected.model.empty()) {
        EXPECT_EQ(expected.model, fru.model);
    }
    EXPECT_EQ(expected.revision, fru.software_revision);
    if (!expected.maker.empty()) {
        EXPECT_EQ(expected.maker, fru.manufacturer);
    }
    EXPECT_EQ(expected.interface, found.interface);
    if (found.sensor != nullptr) {
        const auto reading = value_of(found.sensor->reading);
        EXPECT_EQ(expected.reading.has_value(), reading.has_value());
        EXPECT_NEAR(expected.reading.value_or(0), reading.value_or(0), 1e-6);
        EXPECT_EQ(expected.limits, limits_of(*found.sensor));
    } else if (found.indicator) {
        EXPECT_EQ(expected.reading, value_of(*found.indicator));
    } else {
        EXPECT_FALSE(expected.reading.has_value());
    }
}

void expect_as_built(const made_machine &machine)
{
    const auto description = load(describe(machine));
    ASSERT_NE(nullptr, description);
    std::map<std::string, built> missing = machine.list();
    missing.erase("/SYS");
    for (const platform::component &each : description->components) {
        const auto expected = missing.find(each.name);
        if (expected != missing.end()) {
            expect_as_built(expected->second, each);
            missing.erase(expected);
        } else {
            EXPECT_TRUE(each.name == "/SYS" || each.name == "/SYS/MB")
                << each.name << " was not built";
        }
    }
    for (const auto &[name, unused] : missing) {
        ADD_FAILURE() << name << " is not described";
    }
}

class machines : public testing::TestWithParam<kind_of_machine>
{
};

INSTANTIATE_TEST_SUITE_P(all, machines, testing::ValuesIn(kinds_of_machines),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_P(machines, are_described_as_they_were_built)
{
    made_machine machine;
    GetParam().build(machine);
    expect_as_built(machine);
}

std::vector<std::string> names_in_order(const made_machine &machine)
{
    std::vector<std::string> names;
    const auto description = nlohmann::json::parse(describe(machine).text);
    for (const auto &each : description.at("components")) {
        names.push_back(each.at("name"));
    }
    EXPECT_EQ("/SYS", names.at(0));
    return names;
}

TEST_P(machines, keep_names_and_order_when_the_kernel_counts_otherwise)
{
    made_machine one;
    made_machine other(order::backwards);
    GetParam().build(one);
    GetParam().build(other);
    EXPECT_EQ(names_in_order(one), names_in_order(other));
    expect_as_built(other);
}

TEST_P(machines, pass_the_check_without_a_warning)
{
    made_machine machine;
    GetParam().build(machine);
    const auto description = load(describe(machine));
    ASSERT_NE(nullptr, description);
    for (const auto &each : kavplat_check::warnings(*description)) {
        ADD_FAILURE() << to_text("", each);
    }
    for (const auto &each : kavplat_check::file_warnings(*description, "")) {
        ADD_FAILURE() << to_text("", each);
    }
}

/* What is in one order in both, and all of the second. */
bool is_part_of(const std::vector<std::string> &all, const std::vector<std::string> &some)
{
    auto from = all.begin();
    return std::ranges::all_of(some, [&](const std::string &name) {
        from = std::find(from, all.end(), name);
        return from != all.end();
    });
}

/* Each thing goes with all that hangs on it, as when it is pulled. */
TEST_P(machines, keep_all_other_names_when_one_thing_is_gone)
{
    namespace fs = std::filesystem;
    constexpr size_t most_of_one = 12; /* a battery, or the chip on the board, with its sensors */
    made_machine machine;
    GetParam().build(machine);
    const std::vector<std::string> before = names_in_order(machine);
    std::map<fs::path, fs::path> links; /* and where on the disk they lead */
    for (const char *place : {"/sys/class/nvme", "/sys/class/hwmon", "/sys/class/net", "/sys/block",
                              "/sys/class/leds", "/sys/class/power_supply"}) {
        if (fs::exists(machine.on_disk(place))) {
            for (const auto &each : fs::directory_iterator(machine.on_disk(place))) {
                links[each.path()] = fs::canonical(each.path());
            }
        }
    }
    for (const auto &[thing, device] : links) {
        std::map<fs::path, fs::path> gone;
        for (const auto &[link, target] : links) {
            if (link == thing || target.string().starts_with(device.string() + '/')) {
                gone[link] = fs::read_symlink(link);
                fs::remove(link);
            }
        }
        /* A zone may show itself now, of which a sensor said the same. */
        std::vector<std::string> after = names_in_order(machine);
        std::erase_if(after, [&](const std::string &name) {
            return std::ranges::find(before, name) == before.end();
        });
        EXPECT_TRUE(is_part_of(before, after)) << thing;
        EXPECT_GE(after.size() + most_of_one, before.size()) << thing;
        for (const auto &[link, target] : gone) {
            fs::create_symlink(target, link);
        }
    }
}

TEST(drives, are_those_of_the_machine_and_no_others)
{
    made_machine machine;
    const std::string controller = machine.pci("0000:00", "03.0", "010400");
    const built drive{.type = "disk", .serial = "S1", .model = "M1", .revision = "R1"};
    const auto host_of = [&](const char *driver, const std::string &below) {
        const std::string host = machine.counted("host");
        machine.file("/sys/class/scsi_host/" + host + "/proc_name", driver);
        return below + '/' + host;
    };
    machine.expect("/SYS/MB/HBA3.0", {.type = "storage-controller"});
    const std::string raid = host_of("megaraid_sas", controller);
    machine.scsi(raid, "target", 4, drive);
    machine.expect("/SYS/MB/HBA3.0/DISK0.4", drive);
    machine.scsi(host_of("hpsa", controller), "x", 0, drive, {{"raid_level", "RAID 5\n"}});
    machine.scsi(host_of("aacraid", controller), "x", 0, drive);
    machine.scsi(host_of("iscsi_tcp", "/sys/devices/platform"), "session1", 0, drive);
    machine.scsi(host_of("qla2xxx", controller), "rport-3:0-0", 0, drive);
    machine.scsi(host_of("usb-storage", controller + "/usb2/2-1/2-1:1.0"), "x", 0, drive);
    machine.scsi(host_of("virtio_scsi", controller + "/virtio3"), "x", 0, drive);
    built made_up = drive;
    made_up.model = "VBOX HARDDISK";
    machine.scsi(host_of("ahci", controller), "x", 0, made_up);
    machine.file("/sys/devices/virtual/nvme-fabrics/ctl/nvme7/model", "Far away\n");
    machine.link("/sys/class/nvme/nvme7", "/sys/devices/virtual/nvme-fabrics/ctl/nvme7");
    expect_as_built(machine);
}

TEST(drives, are_identified_by_udev_where_the_kernel_says_less)
{
    made_machine machine;
    const std::string host = machine.pci("0000:00", "03.0", "010700") + "/host0";
    const built drive{.type = "disk", .model = "Short model", .revision = "1"};
    const std::string device = machine.scsi(host, "end_device-0:1", 1, drive, {{"vpd_pg80", ""}});
    machine.file(host + "/end_device-0:1/sas_device/end_device-0:1/bay_identifier", "7\n");
    machine.file("/run/udev/data/b8:0", "S:disk/by-id/x\nE:ID_MODEL=Short_model\n"
                                        "E:ID_MODEL_ENC=Long\\x20model\\x20\n"
                                        "E:ID_SERIAL_SHORT=5000c500\nE:ID_SCSI_SERIAL=ZC1\n"
                                        "E:ID_REVISION=E004\n");
    machine.expect("/SYS/MB/HBA3.0", {.type = "storage-controller"});
    machine.expect("/SYS/MB/HBA3.0/DISK7",
                   {.type = "disk", .serial = "ZC1", .model = "Long model", .revision = "E004"});
    expect_as_built(machine);
}

TEST(drives, are_named_by_the_links_on_the_way_and_not_by_what_they_say_of_themselves)
{
    made_machine machine;
    const built drive{.type = "disk", .serial = "S1", .model = "M1", .revision = "R1"};
    const std::string host = machine.pci("0000:00", "03.0", "010700") + "/host0";
    const auto add = [&](const std::string &port, const std::string &name, unsigned target,
                         const char *address) {
        machine.scsi(host, port + '/' + name, target, drive);
        const std::string link = host + '/' + port + '/' + name + "/sas_device/" + name + '/';
        machine.file(link + "sas_address", std::string("0x") + address + '\n');
        return link;
    };
    add("port-0:0", "end_device-0:0", 1, "5000c500a1b2c3d5");
    machine.directory(host + "/port-0:0/phy-0:6");
    machine.directory(host + "/port-0:0/phy-0:5");
    machine.file(add("port-0:1", "end_device-0:1", 2, "5000c500a1b2c3d9") + "phy_identifier", "2");
    const std::string expander = "port-0:2/expander-0:0";
    machine.file(host + '/' + expander + "/sas_device/expander-0:0/phy_identifier", "4\n");
    machine.directory(host + '/' + expander + "/port-0:0:9/phy-0:0:7");
    add(expander + "/port-0:0:9", "end_device-0:0:9", 3, "5000c500a1b2c3e1");
    machine.file(add("port-0:3", "end_device-0:3", 4, "5000c500a1b2c3ef") + "phy_identifier",
                 "255\n");
    machine.expect("/SYS/MB/HBA3.0", {.type = "storage-controller"});
    for (const char *place : {"PHY5", "PHY2", "PHY4-7", "5000C500A1B2C3EF"}) {
        machine.expect(std::string("/SYS/MB/HBA3.0/DISK_") + place, drive);
    }
    expect_as_built(machine);
}

TEST(drives, that_the_board_lists_are_not_there_twice)
{
    made_machine machine;
    constexpr uint8_t video = 3, other = 1, nvme = 0x0f, u2 = 0x20;
    constexpr uint8_t at_1c = 0x1c << 3, at_1d = 0x1d << 3, at_02 = 2 << 3, at_1f = 0x1f << 3;
    smbios_builder table;
    smbios_made::slot(table, 26, "U.2 Bay 0", 0, at_1c, u2);
    smbios_made::onboard(table, "Onboard NVMe", nvme, 1, 0, at_1d);
    smbios_made::onboard(table, "Onboard VGA", video, 1, 0, at_02);
    smbios_made::onboard(table, "Onboard LAN", other, 1, 0, at_1f);
    table.end();
    machine.file("/sys/firmware/dmi/tables/DMI", table.table);
    machine.expect("/SYS/MB/U.2_BAY_0", {.type = "drive-bay"});
    build_nvme(machine, machine.pci("0000:00", "1c.0", "010802"), "/SYS/MB/U.2_BAY_0/NVME0", 1);
    build_nvme(machine, machine.pci("0000:00", "1d.0", "010802"), "/SYS/MB/ONBOARD_NVME", 2);
    machine.pci("0000:00", "02.0", "030000");
    machine.expect("/SYS/MB/ONBOARD_VGA", {.type = "accelerator"});
    const std::string mac = "02:00:00:00:00:01";
    machine.expect("/SYS/MB/ONBOARD_LAN", {.type = "network-adapter"});
    machine.expect("/SYS/MB/ONBOARD_LAN/PORT0",
                   {.type = "network-port",
                    .serial = mac,
                    .interface = machine.port(machine.pci("0000:00", "1f.0", "020000"), 0, mac)});
    expect_as_built(machine);
}

TEST(cards, are_there_whatever_bus_they_serve_and_without_a_driver_too)
{
    made_machine machine;
    const std::pair<const char *, const char *> kinds[] = {{"0c0400", "HBA"},
                                                           {"0c0600", "NET"},
                                                           {"010802", "NVME"},
                                                           {"120000", "ACC"},
                                                           {"0c0500", ""}};
    int number = 0x10;
    for (const auto &[kind, stem] : kinds) {
        char device[8];
        std::snprintf(device, sizeof device, "%02x.0", number++);
        machine.pci("0000:00", device, kind);
        if (*stem != '\0') {
            machine.expect(std::string("/SYS/MB/") + stem + device,
                           {.type = *stem == 'N' && stem[1] == 'E' ? "network-adapter"
                                    : *stem == 'A'                 ? "accelerator"
                                                                   : "storage-controller"});
        }
    }
    expect_as_built(machine);
}

TEST(cards, have_no_alias_that_is_their_model_once_more)
{
    made_machine machine;
    const std::string adapter = machine.pci("0000:00", "03.0", "020000");
    for (const char *vendor : {"/vendor", "/subsystem_vendor"}) {
        machine.file(adapter + vendor, "0x1af4\n");
    }
    for (const char *device : {"/device", "/subsystem_device"}) {
        machine.file(adapter + device, "0x1041\n");
    }
    const auto description = load(describe(machine));
    const auto &fru = platform::find_component(*description, "/SYS/MB/NET3.0")->fru;
    if (!fru) {
        GTEST_SKIP() << "built without the library of names";
    }
    EXPECT_NE("", fru->model);
    EXPECT_EQ("", fru->alias);
}

TEST(network, a_port_of_a_bond_has_its_own_address)
{
    made_machine machine;
    const std::string adapter = machine.pci("0000:00", "03.0", "020000");
    machine.port(adapter, 0, "02:00:00:00:00:01");
    machine.port(adapter, 1, "02:00:00:00:00:01");
    machine.file(adapter + "/net/eth0/addr_assign_type", "3\n");
    machine.file(adapter + "/net/eth0/bonding_slave/perm_hwaddr", "00:1b:21:00:00:01\n");
    machine.file(adapter + "/net/eth1/addr_assign_type", "1\n");
    machine.expect("/SYS/MB/NET3.0", {.type = "network-adapter"});
    machine.expect("/SYS/MB/NET3.0/PORT0",
                   {.type = "network-port", .serial = "00:1b:21:00:00:01", .interface = "eth0"});
    machine.expect("/SYS/MB/NET3.0/PORT1", {.type = "network-port", .interface = "eth1"});
    expect_as_built(machine);
}

TEST(network, a_port_says_what_the_kernel_calls_its_interface)
{
    for (const order each : {order::forwards, order::backwards}) {
        made_machine machine(each);
        const std::string adapter = machine.pci("0000:00", "03.0", "020000");
        machine.port(adapter, 0, "02:00:00:00:00:01");
        const auto description = load(describe(machine));
        EXPECT_EQ(each == order::forwards ? "eth0" : "eth99",
                  platform::find_component(*description, "/SYS/MB/NET3.0/PORT0")->interface);
        EXPECT_EQ("", platform::find_component(*description, "/SYS/MB/NET3.0")->interface);
    }
}

TEST(cages, of_ports_hold_what_is_plugged_and_are_there_without_it)
{
    made_machine machine;
    const std::string adapter = machine.pci("0000:00", "03.0", "020000");
    for (unsigned i = 0; i < 4; ++i) {
        const std::string address = "02:00:00:00:00:0" + std::to_string(i);
        machine.expect("/SYS/MB/NET3.0/PORT" + std::to_string(i),
                       {.type = "network-port",
                        .serial = address,
                        .interface = machine.port(adapter, i, address)});
    }
    machine.expect("/SYS/MB/NET3.0", {.type = "network-adapter"});
    const auto expect_cage = [&](const std::string &port, bool plugged) {
        machine.expect(port + "/CAGE", {.type = "transceiver-cage"});
        machine.expect(port + "/CAGE/PRSNT",
                       {.type = "presence-sensor", .reading = plugged ? 2 : 1});
    };
    machine.file("/run/kavplat/modules/eth0", four_lane_module("SN-40"));
    expect_cage("/SYS/MB/NET3.0/PORT0", true);
    machine.expect("/SYS/MB/NET3.0/PORT0/CAGE/XCVR",
                   {.type = "transceiver", .serial = "SN-40", .model = "QSFP28-100G-LR4"});
    machine.file("/run/kavplat/modules/eth1", "");
    expect_cage("/SYS/MB/NET3.0/PORT1", false);
    // The third one's cage is in the device tree, with the module's own sensors.
    const std::string number("\0\0\0\7", 4);
    const std::string cage = "/sys/devices/platform/sfp-2";
    machine.file(adapter + "/net/eth2/of_node/sfp", number);
    machine.file("/sys/devices/platform/sfp-1/of_node/phandle", std::string("\0\0\0\6", 4));
    machine.link("/sys/bus/platform/drivers/sfp/sfp-1", "/sys/devices/platform/sfp-1");
    machine.file(cage + "/of_node/phandle", number);
    machine.link("/sys/bus/platform/drivers/sfp/sfp-2", cage);
    machine.file("/run/kavplat/modules/eth2", small_module("SN-41"));
    machine.hwmon(cage, "sfp_2", {{"temp1_input", "31000"}, {"temp1_label", "temperature"}});
    expect_cage("/SYS/MB/NET3.0/PORT2", true);
    const std::string module = "/SYS/MB/NET3.0/PORT2/CAGE/XCVR";
    machine.expect(module, {.type = "transceiver", .serial = "SN-41", .model = "SFP-10G-SR"});
    machine.expect(module + "/T_TEMPERATURE", {.type = "temperature-sensor", .reading = 31});
    expect_as_built(machine);
}

TEST(slots, say_whether_their_card_has_power_where_the_kernel_can_tell)
{
    made_machine machine;
    machine.slot("1", machine.pci("0000:17", "00.0", "060400"), true);
    machine.slot("2", machine.pci("0000:17", "01.0", "060400"), false);
    const auto description = load(describe(machine));
    const auto &power = platform::find_component(*description, "/SYS/MB/SLOT1")->power;
    ASSERT_TRUE(power);
    EXPECT_EQ(CAPI_POWER_ON, value_of(*power));
    machine.file("/sys/bus/pci/slots/1/power", "0\n");
    EXPECT_EQ(CAPI_POWER_OFF, value_of(*power));
    EXPECT_FALSE(platform::find_component(*description, "/SYS/MB/SLOT2")->power);
}

TEST(sensors, have_the_kernel_s_units_and_the_limits_that_make_sense)
{
    using limits = std::map<std::string, double>;
    const struct {
        const char *stem;
        texts files;
        const char *label;
        built expected;
    } cases[] = {
        {"temp1",
         {{"input", "-5000"},
          {"lcrit", "-10000"},
          {"min", "-8000"},
          {"max", "70000"},
          {"crit", "80000"},
          {"emergency", "90000"}},
         "T",
         {"temperature-sensor", "", "", "", -5,
          limits{{"lower_critical", -10},
                 {"lower_non_critical", -8},
                 {"upper_non_critical", 70},
                 {"upper_critical", 80},
                 {"upper_fatal", 90}}}},
        {"temp1",
         {{"input", "1000"}, {"max", "127000"}, {"crit", "100000"}, {"min", "100000"}},
         "T",
         {"temperature-sensor", "", "", "", 1, limits{{"upper_critical", 100}}}},
        {"temp1",
         {{"input", "1000"}, {"max", "hot"}, {"crit", "0"}},
         "T",
         {"temperature-sensor", "", "", "", 1, {}}},
        {"temp1", {{"input", ""}}, "T", {"temperature-sensor", "", "", "", std::nullopt, {}}},
        {"in1",
         {{"input", "12050"}, {"min", "11400"}, {"max", "12600"}, {"crit", "12600"}},
         "V",
         {"voltage-sensor", "", "", "", 12.05,
          limits{{"lower_non_critical", 11.4},
                 {"upper_non_critical", 12.6},
                 {"upper_critical", 12.6}}}},
        {"in1",
         {{"input", "-12000"}, {"min", "-13200"}, {"max", "-10800"}},
         "V",
         {"voltage-sensor", "", "", "", -12,
          limits{{"lower_non_critical", -13.2}, {"upper_non_critical", -10.8}}}},
        {"temp1",
         {{"input", "1000"}, {"max", "-5000"}},
         "T",
         {"temperature-sensor", "", "", "", 1, {}}},
        {"curr1", {{"input", "250"}, {"max", "0"}}, "I", {"current-sensor", "", "", "", 0.25, {}}},
        {"power1",
         {{"average", "65500000"}, {"crit", "250000000"}},
         "P",
         {"power-sensor", "", "", "", 65.5, limits{{"upper_critical", 250}}}},
        {"energy1", {{"input", "2500000"}}, "E", {"usage-sensor", "", "", "", 2.5, {}}},
        {"humidity1", {{"input", "45300"}}, "RH", {"humidity-sensor", "", "", "", 45.3, {}}},
        {"fan1",
         {{"input", "0"}, {"min", "600"}, {"max", "500"}},
         "FAN",
         {"tachometer", "", "", "", 0, limits{{"upper_non_critical", 500}}}},
    };
    for (const auto &each : cases) {
        made_machine machine;
        texts files;
        for (const auto &[key, text] : each.files) {
            files.emplace_back(std::string(each.stem) + '_' + key, text);
        }
        machine.hwmon("/sys/devices/platform/chip.1", "chip", files);
        machine.expect(std::string("/SYS/MB/") + each.label + "_CHIP.1_1", each.expected);
        SCOPED_TRACE(each.stem);
        expect_as_built(machine);
    }
}

/* A memory module that counts its errors, and who looks at it now and then. */
struct counting_module {
    static constexpr int64_t minute = 60 * 1000;
    static constexpr int64_t day = 24 * 60 * minute;

    made_machine machine;
    kavplat_describe::error_history seen;
    kavplat_describe::error_history *watcher = &seen;
    std::string counter = "/sys/devices/system/edac/mc/mc0/dimm0/dimm_ce_count";

    explicit counting_module(int64_t days_of_counting)
    {
        machine.file("/sys/devices/system/edac/mc/mc0/seconds_since_reset",
                     std::to_string(days_of_counting * day / 1000));
        machine.file("/sys/devices/system/edac/mc/mc0/dimm0/dimm_ue_count", "0\n");
        counts(0);
    }

    void counts(int64_t errors) const { machine.file(counter, std::to_string(errors) + '\n'); }

    /* What the sensor says from then on: the limit is as it was when somebody looked. */
    std::function<bool()> look_at(int64_t when)
    {
        seen.now = when;
        kavplat_describe::options asked;
        asked.root = machine.root();
        asked.errors = watcher;
        const std::shared_ptr description = load(kavplat_describe::describe(asked));
        return [description] {
            for (const platform::component &each : description->components) {
                if (each.name.ends_with("/CE")) {
                    const std::optional<double> reading = value_of(each.sensor->reading);
                    return reading && *reading >= limits_of(*each.sensor).at("upper_non_critical");
                }
            }
            ADD_FAILURE() << "there is no sensor";
            return false;
        };
    }
};

TEST(memory_errors, of_a_watched_module_are_those_of_the_last_day)
{
    counting_module it(200);
    it.counts(4000); // long ago
    EXPECT_FALSE(it.look_at(0)());
    it.counts(4020);
    int64_t now = 0;
    for (; now <= 2 * it.day; now += 10 * it.minute) {
        ASSERT_FALSE(it.look_at(now)()) << now;
    }
    // The sensor follows the counter itself, and does not wait for somebody to look.
    const std::function<bool()> predicts = it.look_at(now);
    it.counts(4020 + 49);
    EXPECT_FALSE(predicts());
    it.counts(4020 + 50);
    EXPECT_TRUE(predicts());
    const int64_t begin = now += 10 * it.minute;
    for (; now < begin + it.day; now += 10 * it.minute) {
        ASSERT_TRUE(it.look_at(now)()) << now;
    }
    EXPECT_FALSE(it.look_at(now)());
}

TEST(memory_errors, that_come_slowly_are_no_reason_to_worry_however_many_they_become)
{
    counting_module it(0);
    int64_t errors = 0;
    // 48 a day, looked at more often than is remembered.
    for (int64_t now = 0; now < 10 * it.day; now += 30 * it.minute) {
        it.counts(++errors);
        ASSERT_FALSE(it.look_at(now)()) << now;
        ASSERT_FALSE(it.look_at(now + it.minute)()) << now;
    }
    EXPECT_EQ(480, errors);
}

TEST(memory_errors, are_not_forgotten_when_the_counter_begins_again_or_can_not_be_read)
{
    counting_module it(200);
    it.look_at(0);
    it.counts(30);
    EXPECT_FALSE(it.look_at(1 * it.minute)());
    it.counts(10); // after 30 of before
    EXPECT_FALSE(it.look_at(11 * it.minute)());
    it.counts(20);
    EXPECT_TRUE(it.look_at(21 * it.minute)());
    it.machine.file(it.counter, "no number\n");
    const std::function<bool()> predicts = it.look_at(31 * it.minute);
    EXPECT_FALSE(predicts());
    it.counts(20);
    EXPECT_TRUE(predicts());
}

TEST(memory_errors, before_somebody_watched_for_a_day_are_held_against_their_average_too)
{
    for (const bool is_watched : {false, true}) {
        counting_module it(9);
        if (!is_watched) {
            it.watcher = nullptr;
        }
        it.counts(499);
        EXPECT_FALSE(it.look_at(0)());
        it.counts(500); // ten days have begun
        EXPECT_TRUE(it.look_at(it.minute)());
        EXPECT_EQ(!is_watched, it.look_at(it.day + it.minute)());
    }
}

/* What a memory module says of itself: of which kind it is, and its serial number. */
std::string module_says(char kind, size_t bytes, size_t place, const std::string &serial)
{
    std::string all(bytes, '\0');
    all[2] = kind;
    return all.replace(place, serial.size(), serial);
}

TEST(sensors, of_a_memory_module_are_on_the_one_with_that_serial_number)
{
    made_machine machine;
    smbios_builder table;
    const std::pair<const char *, const char *> modules[] = {
        {"A1", "1A2B3C4D"}, {"A2", "0D0C0B0A"}, {"A3", "00c0ffee"}, {"A4", "11223344"},
        {"A5", "TWIN 77"},  {"A6", "77777777"}, {"A7", "77777777"}, {"A8", "FFFFFFFF"}};
    for (const auto &[locator, serial] : modules) {
        smbios_made::memory(table, 33, locator, "", 8192, serial);
    }
    table.end();
    machine.file("/sys/firmware/dmi/tables/DMI", table.table);
    const std::string bus = "/sys/devices/pci0000:00/0000:00:1f.4/i2c-7/";
    const auto chip = [&](const char *name, const std::string &address) {
        machine.hwmon(bus + address, name, {{"temp1_input", "38000"}});
    };
    const auto eeprom = [&](const std::string &address, const std::string &says) {
        machine.file(bus + address + "/eeprom", says);
    };
    constexpr char ddr3 = 0x0b;
    constexpr char ddr4 = 0x0c;
    constexpr char ddr5 = 0x12;
    using namespace std::string_literals;
    chip("jc42", "7-0018");
    eeprom("7-0050", module_says(ddr4, 512, 325, "\x1a\x2b\x3c\x4d"));
    chip("jc42", "7-001f"); // whose number SMBIOS has from the other end
    eeprom("7-0057", module_says(ddr3, 256, 122, "\x0a\x0b\x0c\x0d"));
    chip("spd5118", "7-0051");
    eeprom("7-0051", module_says(ddr5, 1024, 517, "\0\xc0\xff\xee"s));
    // Nothing that tells: another kind's place, a number that nobody has, one of two, none
    // at all, an end before it, no file, and a chip of another kind.
    chip("jc42", "7-001a");
    eeprom("7-0052", module_says(ddr3, 512, 325, "\x11\x22\x33\x44"));
    chip("jc42", "7-001b");
    eeprom("7-0053", module_says(ddr4, 512, 325, "\x99\x99\x99\x99"));
    chip("jc42", "7-001c");
    eeprom("7-0054", module_says(ddr4, 512, 325, "\x77\x77\x77\x77"));
    chip("jc42", "7-001d");
    eeprom("7-0055", module_says(ddr4, 512, 325, "\xff\xff\xff\xff"));
    chip("jc42", "7-001e");
    eeprom("7-0056", module_says(ddr4, 328, 325, "\x11\x22\x33"));
    chip("spd5118", "7-0058");
    chip("lm75", "7-0048");
    eeprom("7-0048", module_says(ddr4, 512, 325, "\x1a\x2b\x3c\x4d"));
    ASSERT_EQ(0, ::mkfifo(machine.on_disk(bus + "7-0058/eeprom").c_str(), 0600));

    const auto description = load(describe(machine));
    std::set<std::string> found;
    for (const platform::component &each : description->components) {
        if (each.sensor != nullptr) {
            found.insert(each.name);
        }
    }
    EXPECT_EQ(
        (std::set<std::string>{"/SYS/MB/A1/DIMM/T_1", "/SYS/MB/A2/DIMM/T_1", "/SYS/MB/A3/DIMM/T_1",
                               "/SYS/MB/T_JC42-1F.4-001A_1", "/SYS/MB/T_JC42-1F.4-001B_1",
                               "/SYS/MB/T_JC42-1F.4-001C_1", "/SYS/MB/T_JC42-1F.4-001D_1",
                               "/SYS/MB/T_JC42-1F.4-001E_1", "/SYS/MB/T_LM75-1F.4-0048_1",
                               "/SYS/MB/T_SPD5118-1F.4-0058_1"}),
        found);
}

/* Sensors of one kind at one address, on every sort of bus. */
struct alike {
    const char *name;
    std::string device;
};

std::vector<alike> build_alike(made_machine &machine)
{
    const auto bus = [&machine](const std::string &above, const std::string &name) {
        const std::string path = above + '/' + machine.counted("i2c-");
        machine.file(path + "/name", name + '\n');
        return path;
    };
    const auto at = [](const std::string &path, const char *address) {
        return path + '/' + path.substr(path.rfind('-') + 1) + '-' + address;
    };
    const std::string both = machine.pci("0000:00", "14.0", "0c0500");
    const std::string single = machine.pci("0000:00", "1f.4", "0c0500");
    const std::string main = bus(single, "SMBus I801 adapter at efa0");
    const std::string mux = at(main, "0070");
    const std::string prefix = main.substr(main.rfind('/') + 1) + "-mux (chan_id ";
    const std::string board = bus("/sys/devices/platform/soc/fe804000.i2c", "bcm2835");
    std::vector<alike> all = {
        {"JC42-14.0-SMBUS_PIIX4_ADAPTER_PORT_0-0018",
         at(bus(both, "SMBus PIIX4 adapter port 0"), "0018")},
        {"JC42-14.0-SMBUS_PIIX4_ADAPTER_PORT_2-0018",
         at(bus(both, "SMBus PIIX4 adapter port 2"), "0018")},
        {"JC42-1F.4-0018", at(main, "0018")},
        {"JC42-1F.4-001A", at(main, "001a")},
        {"JC42-1F.4-0070-MUX_CHAN_ID_0-0018", at(bus(mux, prefix + "0)"), "0018")},
        {"JC42-1F.4-0070-MUX_CHAN_ID_1-0018", at(bus(mux, prefix + "1)"), "0018")},
        {"JC42-FE804000.I2C-0018", at(board, "0018")},
        {"K10TEMP-18.3", machine.pci("0000:00", "18.3", "060000")},
        {"K10TEMP-1A.3", machine.pci("0000:00", "1a.3", "060000")},
    };
    int number = 0;
    for (const alike &each : all) {
        machine.hwmon(each.device, std::string(each.name).starts_with("K10") ? "k10temp" : "jc42",
                      {{"temp1_input", std::to_string(1000 * ++number)}});
    }
    return all;
}

TEST(sensors, of_one_kind_keep_their_names_whichever_is_gone)
{
    for (const order each : {order::forwards, order::backwards}) {
        constexpr size_t count = 9;
        for (size_t gone = 0; gone <= count; ++gone) {
            SCOPED_TRACE(gone);
            made_machine machine(each);
            const std::vector<alike> all = build_alike(machine);
            ASSERT_EQ(count, all.size());
            for (size_t i = 0; i < count; ++i) {
                if (i != gone) {
                    machine.expect(
                        "/SYS/MB/T_" + std::string(all[i].name) + "_1",
                        {.type = "temperature-sensor", .reading = static_cast<double>(i + 1)});
                    continue;
                }
                for (const auto &link :
                     std::filesystem::directory_iterator(machine.on_disk("/sys/class/hwmon"))) {
                    const std::string path = std::filesystem::canonical(link.path());
                    if (path.find(all[i].device + "/hwmon/") != path.npos) {
                        std::filesystem::remove(link.path());
                        break;
                    }
                }
            }
            expect_as_built(machine);
        }
    }
}

TEST(bindings, survive_another_count_and_another_card)
{
    made_machine machine;
    const std::string bridge = machine.pci("0000:00", "1d.4", "060400");
    build_nvme(machine, machine.below(bridge, "00.0", "010802"), "/SYS/MB/NVME1D.4-0", 3);
    const auto description = load(describe(machine));
    const auto reading = [&] {
        return value_of(platform::find_component(*description, "/SYS/MB/NVME1D.4-0/T_COMPOSITE")
                            ->sensor->reading);
    };
    EXPECT_EQ(33, reading());
    const std::filesystem::path below = machine.on_disk(bridge);
    std::filesystem::rename(below / "0000:64:00.0/nvme/nvme0/hwmon0",
                            below / "0000:64:00.0/nvme/nvme0/hwmon9");
    EXPECT_EQ(33, reading());
    std::filesystem::rename(below / "0000:64:00.0/nvme/nvme0", below / "0000:64:00.0/nvme/nvme4");
    EXPECT_EQ(33, reading());
    std::filesystem::rename(below / "0000:64:00.0", below / "0000:66:00.0");
    EXPECT_EQ(33, reading());
}

/* A description comes out, and nothing in it had to be left out. */
void expect_good(const made_machine &machine, const std::string &what)
{
    const kavplat_describe::described result = describe(machine);
    const auto description = load(result);
    EXPECT_NE(nullptr, description) << what;
    for (const std::string &each : result.complaints) {
        EXPECT_EQ(std::string::npos, each.find("left out")) << what << ": " << each;
    }
}

constexpr uintmax_t huge = uintmax_t{1} << 30U;

/* In KiB: the most that this process ever had. */
long most_memory()
{
    rusage used = {};
    EXPECT_EQ(0, ::getrusage(RUSAGE_SELF, &used));
    return used.ru_maxrss;
}

constexpr long most_growth = 64L * 1024;

TEST(hostile_trees, give_a_good_description_in_bounded_time_and_memory)
{
    made_machine machine;
    build_workstation(machine);
    const std::filesystem::path classes = machine.on_disk("/sys/class");
    for (int i = 0; i < 50; ++i) {
        const std::string number = std::to_string(i);
        std::filesystem::create_directory_symlink(".", classes / ("hwmon/hwmon" + number + "0"));
        machine.link("/sys/class/power_supply/loop" + number,
                     "/sys/class/power_supply/loop" + std::to_string((i + 1) % 50));
    }
    const std::string many = "/sys/devices/platform/many";
    texts channels;
    for (int i = 0; i < 1000; ++i) {
        channels.emplace_back("temp" + std::to_string(i) + "_label", std::string(300, 'x'));
    }
    channels.emplace_back("temp7_input", std::string(100000, '7'));
    channels.emplace_back("temp8_input", "8");
    machine.hwmon(many, "many\x1b[2J\n\xff", channels);
    const std::string pipe = "/sys/devices/platform/pipe/hwmon/hwmon77";
    machine.directory(pipe);
    machine.link("/sys/class/hwmon/hwmon77", pipe);
    for (const char *name : {"/name", "/temp1_input", "/temp1_label", "/temp1_max"}) {
        ASSERT_EQ(0, ::mkfifo(machine.on_disk(pipe + name).c_str(), 0600));
    }
    machine.file("/sys/devices/platform/odd/leds/a\nb::c/brightness", "1");
    machine.link("/sys/class/leds/a\nb::c", "/sys/devices/platform/odd/leds/a\nb::c");
    machine.file(many + "/hwmon/hwmon88/temp1_input", "1");
    machine.file(many + "/hwmon/hwmon88/temp1_label", "");
    machine.link("/sys/class/hwmon/hwmon88", many + "/hwmon/hwmon88");
    for (const char *name : {"/sys/firmware/dmi/tables/DMI", "/proc/cpuinfo",
                             "/sys/devices/platform/many/hwmon/hwmon88/temp1_label"}) {
        machine.file(name, "");
        std::filesystem::resize_file(machine.on_disk(name), huge);
    }
    const std::clock_t begin = std::clock();
    const long memory_before = most_memory();
    expect_good(machine, "hostile");
    if (!KAVPLAT_SANITIZED) { /* which keep what is freed */
        EXPECT_LT(most_memory() - memory_before, most_growth);
    }
    EXPECT_LT(static_cast<double>(std::clock() - begin) / CLOCKS_PER_SEC, 20);
    EXPECT_TRUE(is_part_of(names_in_order(machine), {"/SYS/MB/HBA17.0", "/SYS/MB/HBA17.0/DISK2"}));
}

/* One file or link after the other becomes something else. */
TEST(hostile_trees, of_any_kind_give_a_good_description)
{
    constexpr int rounds = 20;
    constexpr size_t changes = 25;
    uint32_t state = 20240607;
    const auto random = [&state](size_t below) {
        state = state * 1664525U + 1013904223U;
        return static_cast<size_t>(state >> 8U) % below;
    };
    for (int round = 0; round < rounds; ++round) {
        made_machine machine;
        void (*const build)(made_machine &) = round % 2 == 0 ? build_workstation : build_laptop;
        build(machine);
        std::vector<std::filesystem::path> all;
        for (const auto &each : std::filesystem::recursive_directory_iterator(machine.root())) {
            all.push_back(each.path());
        }
        std::ranges::sort(all);
        for (size_t i = 0; i < changes; ++i) {
            const std::filesystem::path &path = all[random(all.size())];
            std::error_code ignored;
            std::filesystem::remove_all(path, ignored);
            static const std::string texts_of_old[] = {"",
                                                       "-1\n",
                                                       "9223372036854775807",
                                                       "0x",
                                                       "\xff\xfe\x00\x01",
                                                       "../../..",
                                                       std::string(5000, 'A'),
                                                       "1e999",
                                                       "/SYS//x\n",
                                                       "\xc3",
                                                       std::string(40, '\x07')};
            switch (random(5)) {
            case 0:
                ::mkfifo(path.c_str(), 0600);
                break;
            case 1:
                std::filesystem::create_symlink(all[random(all.size())], path, ignored);
                break;
            case 2:
                std::filesystem::create_symlink("..", path, ignored);
                break;
            case 3:
                std::filesystem::create_directory(path, ignored);
                break;
            default:
                std::ofstream(path) << texts_of_old[random(std::size(texts_of_old))];
            }
        }
        const long memory_before = most_memory();
        expect_good(machine, "round " + std::to_string(round));
        if (!KAVPLAT_SANITIZED) {
            EXPECT_LT(most_memory() - memory_before, most_growth) << round;
        }
    }
}

} // namespace

// kavplat capture: what is packed describes the machine once more, and tells nobody whose it is.
#include "tools/kavplat/describe/describe.h"

#include "describe/smbios_builder.h"
#include "harness/files.h"
#include "harness/process.h"
#include "made_machines/made_machine.h"
#include "made_machines/modules.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <sstream>
#include <sys/stat.h>

namespace fs = std::filesystem;
using kavplat_describe_test::made_machine;
using kavplat_describe_test::small_module;

namespace
{

std::string without_root(std::string text, const std::string &root)
{
    for (size_t at = 0; !root.empty() && (at = text.find(root, at)) != text.npos;) {
        text.erase(at, root.size());
    }
    return text;
}

/* The description, and what was said of it, wherever the machine's files are. */
std::string description_of(const fs::path &root, const std::string &more = "")
{
    const command_result result = run_command(std::string(KAVPLAT_COMMAND) + " describe " + more +
                                              " --root " + quoted(root) + " 2>&1");
    EXPECT_EQ(0, result.status) << result.output;
    return without_root(result.output, root == "/" ? "" : root.string());
}

/* An archive, and what tar makes of it. */
struct captured {
    explicit captured(const fs::path &root, const std::string &more = "")
    {
        const fs::path archive = here / "machine.tar.zst";
        const command_result result =
            run_command(std::string(KAVPLAT_COMMAND) + " capture " + more + " --root " +
                        quoted(root) + ' ' + quoted(archive) + " 2>&1");
        EXPECT_EQ(0, result.status) << result.output;
        struct stat status = {};
        EXPECT_EQ(0, ::stat(archive.c_str(), &status));
        EXPECT_EQ(0600U, status.st_mode & 07777U);
        fs::create_directory(unpacked());
        const command_result unpacking =
            run_command("tar -xf " + quoted(archive) + " -C " + quoted(unpacked()) + " 2>&1");
        EXPECT_EQ(0, unpacking.status) << unpacking.output;
    }
    fs::path unpacked() const { return here / "machine"; }

    temporary_directory here;
};

/* Every file by its name, with what it holds or where it leads. */
std::map<std::string, std::string> files_below(const fs::path &directory)
{
    std::map<std::string, std::string> found;
    for (const auto &each : fs::recursive_directory_iterator(directory)) {
        const std::string name = each.path().lexically_relative(directory);
        if (each.is_symlink()) {
            found[name] = fs::read_symlink(each.path());
        } else if (each.is_regular_file()) {
            found[name] = read_file(each.path());
        }
    }
    return found;
}

/* Each of them is the machine's own. */
constexpr const char *secret_texts[] = {
    "SERIAL-OF-1-SYSTEM",  "SERIAL-OF-2-BOARD",  "ASSET-OF-2-BOARD",    "SERIAL-OF-3-CHASSIS",
    "ASSET-OF-3-CHASSIS",  "SERIAL-OF-4-SOCKET", "SERIAL-OF-17-MODULE", "ASSET-OF-17-MODULE",
    "SERIAL-OF-39-SUPPLY", "MAKER-SECRET-209",   "NVME-SERIAL-7",       "SATA-SERIAL-8",
    "MODULE-SERIAL-6",     "SAS-SERIAL-9",       "02:5e:10:aa:bb:cc",   "SATASERIAL8UDEV",
    "4c4c4544-0042-3510",  "EEPROM-SERIAL-10"};

std::string table_with_secrets()
{
    smbios_builder all;
    all.add(0, 0x18, {}, {{4, "Firmware Ltd."}, {5, "1.2.3"}});
    all.add(1, 0x1b, {{0x08, 8, 0x1122334455667788}, {0x10, 8, 0x99aabbccddeeff01}},
            {{4, "Maker"}, {5, "Server 2000"}, {7, "SERIAL-OF-1-SYSTEM"}});
    all.add(2, 0x0f, {{0x0d, 1, 0x0a}},
            {{4, "Maker"}, {5, "Board 12"}, {7, "SERIAL-OF-2-BOARD"}, {8, "ASSET-OF-2-BOARD"}});
    all.add(
        3, 0x16, {{5, 1, 0x17}},
        {{4, "Maker"}, {6, "Chassis 2U"}, {7, "SERIAL-OF-3-CHASSIS"}, {8, "ASSET-OF-3-CHASSIS"}});
    all.add(4, 0x2a, {{0x05, 1, 3}, {0x18, 1, 0x41}},
            {{4, "P0"}, {7, "Intel"}, {0x10, "Xeon 6"}, {0x20, "SERIAL-OF-4-SOCKET"}});
    all.add(126, 0x08, {{4, 4, 0x01020304}}, {{5, "unused, with SERIAL-OF-1-SYSTEM"}});
    all.add(16, 0x17, {{4, 1, 3}, {5, 1, 3}, {0x0d, 2, 1}});
    all.add(17, 0x28, {{0x0c, 2, 0x4000}, {0x12, 1, 0x1a}},
            {{0x10, "P0_D0"},
             {0x17, "Memory Inc."},
             {0x18, "SERIAL-OF-17-MODULE"},
             {0x19, "ASSET-OF-17-MODULE"},
             {0x1a, "DDR-1"}});
    all.add(39, 0x16, {{0x0e, 2, 2}}, {{5, "Left"}, {7, "PSU 1"}, {8, "SERIAL-OF-39-SUPPLY"}});
    all.add(209, 0x10, {{4, 8, 0xccbbaa105e02}}, {{0x0c, "MAKER-SECRET-209"}});
    all.end();
    return all.table;
}

/* Something of every source, with a secret wherever one can be; no name comes from one. */
void build(made_machine &all)
{
    smbios_builder entry;
    all.file("/sys/firmware/dmi/tables/DMI", table_with_secrets());
    all.file("/sys/firmware/dmi/tables/smbios_entry_point", entry.entry_point(3, 2));
    all.processors(1, 2, "Xeon 6");
    all.nvme(all.pci("0000:00", "01.0", "010802"),
             {.type = "nvme-disk", .serial = "NVME-SERIAL-7", .model = "NV 100"});
    const std::string disk = all.sata(all.pci("0000:00", "1f.2", "010601"), 2,
                                      {.type = "disk", .serial = "SATA-SERIAL-8", .model = "ST 4"});
    all.file("/run/udev/data/b8:0", "S:disk/by-id/ata-ST_4_SATASERIAL8UDEV\n"
                                    "E:ID_MODEL_ENC=ST\\x204\nE:ID_SERIAL_SHORT=SATASERIAL8UDEV\n"
                                    "E:ID_PART_TABLE_UUID=4c4c4544-0042-3510-8052-b4c04f333532\n");
    const std::string host = all.pci("0000:00", "03.0", "010700") + "/host9";
    const std::string shelf = all.shelf(host, 8, "500605b0000272bf");
    all.bay(shelf, 3,
            all.scsi(host, "port-9:0/end_device-9:0", 2,
                     {.type = "disk", .serial = "SAS-SERIAL-9", .model = "SAS 1"}),
            0, 1);
    const std::string port = all.pci("0000:00", "19.0", "020000");
    all.port(port, 0, "02:5e:10:aa:bb:cc");
    all.file("/run/kavplat/modules/eth0", small_module("MODULE-SERIAL-6"));
    all.hwmon(
        "/sys/devices/platform/coretemp.0", "coretemp",
        {{"temp1_input", "45000"}, {"temp1_label", "Package id 0"}, {"temp1_crit", "100000"}});
    const std::string module = "/sys/devices/pci0000:00/0000:00:1f.4/i2c-0/0-0050";
    all.hwmon(module, "spd5118", {{"temp1_input", "38000"}});
    std::string says(1024, '\0');
    says[2] = 0x12;
    all.file(module + "/eeprom", says.replace(517, 16, "EEPROM-SERIAL-10"));
    all.supply("BAT0", {{"type", "Battery"},
                        {"present", "1"},
                        {"status", "Full"},
                        {"model_name", "Cells 1"},
                        {"serial_number", "SERIAL-OF-39-SUPPLY"}});
    // Not the machine's own, but of what is near it.
    all.supply("hid-02:5e:10:aa:bb:cd-battery", {{"type", "Battery"}, {"scope", "Device"}});
    all.supply("hid-02:5e:10:aa:bb:ce-battery", {{"type", "Battery"}, {"scope", "Device"}});
}

} // namespace

TEST(capture, of_a_machine_gives_the_same_description_and_the_same_complaints)
{
    made_machine machine;
    build(machine);
    // Read no further than its bounds, there and here.
    machine.file("/sys/firmware/dmi/tables/smbios_entry_point", std::string(5000, '_'));
    machine.link("/sys/class/hwmon/hwmon77", "/sys/class/hwmon/hwmon77");
    const std::string wanted = description_of(machine.root());
    const captured it(machine.root());
    EXPECT_EQ(wanted, description_of(it.unpacked()));
    for (const char *text : {"NVME-SERIAL-7", "SATA-SERIAL-8", "SAS-SERIAL-9", "MODULE-SERIAL-6",
                             "SERIAL-OF-17-MODULE", "02:5e:10:aa:bb:cc", "/SYS/MB/P0/D0"}) {
        EXPECT_NE(std::string::npos, wanted.find(text)) << text << " in " << wanted;
    }
    // What a value is bound to goes with it, so that an agent can serve the capture.
    EXPECT_EQ("45000\n", read_file(it.unpacked() /
                                   "sys/devices/platform/coretemp.0/hwmon/hwmon0/temp1_input"));
    EXPECT_TRUE(fs::is_symlink(it.unpacked() / "sys/class/hwmon/hwmon0"));
    EXPECT_NE(std::string::npos, read_file(it.unpacked() / "capture.txt").find("kavplat "));
}

TEST(capture, of_this_machine_describes_it_elsewhere)
{
    const captured it("/");
    EXPECT_EQ(description_of("/"), description_of(it.unpacked()));
}

TEST(capture, is_anonymous_where_it_is_asked_to_be)
{
    made_machine machine;
    build(machine);
    const captured open(machine.root());
    const captured blank(machine.root(), "--anonymous");
    // But for the shelf, whose name is its identifier.
    std::string wanted = description_of(machine.root(), "--no-serials");
    const std::string shelf = "500605B0000272BF";
    std::string line;
    for (size_t at = 0; (at = wanted.find(shelf, at)) != wanted.npos;) {
        wanted.replace(at, shelf.size(), shelf.size(), '0');
    }
    const std::string found = description_of(blank.unpacked(), "--no-serials");
    size_t missed = 0; // a chassis is there only where its serial number is another one
    for (std::istringstream lines(wanted); std::getline(lines, line);) {
        missed += line.find("\"name\": ") != line.npos && found.find(line) == found.npos ? 1U : 0U;
    }
    EXPECT_EQ(1U, missed) << found;
    // Nor does it say anything that --no-serials would take out.
    const std::string described = description_of(blank.unpacked());
    EXPECT_EQ(std::string::npos, described.find("\"serial\"")) << described;

    const auto plain = files_below(open.unpacked());
    const auto covered = files_below(blank.unpacked());
    std::string all_plain;
    for (const auto &[name, text] : plain) {
        all_plain += name + text + '\n';
    }
    ASSERT_EQ(plain.size(), covered.size());
    for (const auto &[name, text] : covered) {
        for (const char *secret : secret_texts) {
            EXPECT_EQ(std::string::npos, (name + text).find(secret)) << secret << " in " << name;
        }
        // The half of an ATA page that is the serial number, by pairs the other way round.
        EXPECT_EQ(std::string::npos, text.find("AST-AESIRLA")) << name;
        const auto as_it_was = plain.find(name);
        if (as_it_was != plain.end() && name != "capture.txt") {
            EXPECT_EQ(as_it_was->second.size(), text.size()) << name;
        }
    }
    for (const char *secret : secret_texts) {
        EXPECT_NE(std::string::npos, all_plain.find(secret)) << secret << " was not packed at all";
    }
    EXPECT_TRUE(covered.contains("sys/class/power_supply/hid-00:00:00:00:00:01-battery"));
    EXPECT_TRUE(covered.contains("sys/class/power_supply/hid-00:00:00:00:00:02-battery"));
    // What is no secret stays, in the same place of the table.
    const std::string table = covered.at("sys/firmware/dmi/tables/DMI");
    const std::string before = plain.at("sys/firmware/dmi/tables/DMI");
    for (const char *text : {"Server 2000", "Board 12", "Xeon 6", "P0_D0", "DDR-1", "PSU 1"}) {
        EXPECT_EQ(before.find(text), table.find(text)) << text;
    }
}

TEST(capture, that_can_not_be_written_leaves_nothing_and_says_why)
{
    made_machine machine;
    build(machine);
    const temporary_directory here;
    const std::string command = std::string(KAVPLAT_COMMAND) + " capture --root ";
    fs::create_directories(here / "taken");
    write_file(here / "taken" / "x", "");
    for (const char *name : {"taken", "absent/machine.tar.zst"}) {
        const command_result result =
            run_command(command + quoted(machine.root()) + ' ' + quoted(here / name) + " 2>&1");
        EXPECT_EQ(1, result.status) << result.output;
        EXPECT_NE(std::string::npos, result.output.find(name)) << result.output;
    }
    const command_result nothing = run_command(command + quoted(here / "nowhere") + ' ' +
                                               quoted(here / "machine.tar.zst") + " 2>&1");
    EXPECT_EQ(1, nothing.status);
    EXPECT_NE(std::string::npos, nothing.output.find("nowhere")) << nothing.output;
    EXPECT_EQ(1, std::distance(fs::directory_iterator(here.path()), fs::directory_iterator()));
}

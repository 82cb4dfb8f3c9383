// What a table of SMBIOS says, as it was made and as other programs read the same bytes,
// and what becomes of one that is broken.
#include "smbios_builder.h"
#include "tools/kavplat/describe/smbios.h"
#include "tools/kavplat/describe/sources.h"
#include "tools/kavplat/describe/writer.h"

#include "harness/files.h"
#include "harness/process.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <regex>
#include <set>

namespace fs = std::filesystem;
using namespace kavplat_describe;

namespace
{

struct machine_files {
    temporary_directory here;

    void put(const std::string &path, const std::string &bytes) const
    {
        const fs::path file = here.path() / path.substr(1);
        fs::create_directories(file.parent_path());
        write_file(file, bytes);
    }
    void put(const smbios_builder &table, int major, int minor) const
    {
        put("/sys/firmware/dmi/tables/DMI", table.table);
        put("/sys/firmware/dmi/tables/smbios_entry_point", table.entry_point(major, minor));
    }
    json described(std::vector<std::string> *complaints = nullptr) const
    {
        const tree files(here.path());
        machine found;
        find_smbios(files, found);
        json result = to_json(found);
        if (complaints != nullptr) {
            *complaints = found.complaints;
        }
        return result;
    }
};

const json *named(const json &description, const std::string &name)
{
    for (const json &each : description["components"]) {
        if (each["name"] == name) {
            return &each;
        }
    }
    return nullptr;
}

std::string fru(const json &description, const std::string &name, const char *key)
{
    const json *found = named(description, name);
    return found == nullptr                 ? "no such component"
           : !found->contains("fru")        ? "no identity"
           : !(*found)["fru"].contains(key) ? ""
                                            : (*found)["fru"][key].get<std::string>();
}

std::string type_of(const json &description, const std::string &name)
{
    const json *found = named(description, name);
    return found == nullptr ? "no such component" : (*found)["type"].get<std::string>();
}

/* Two sockets of which one is empty, modules beside them, slots and supplies. */
smbios_builder rack_server(int version)
{
    using namespace smbios_made;
    smbios_builder made;
    made.add(0, 0x12, {}, {{4, "Firmwares"}, {5, "2.17.1"}});
    system(made, version, "Serverworks Inc.", "SW-2240", "SW2240-77");
    board(made, "SWB-1", "B-0001");
    made.add(3, version >= 21 ? 0x15 : 9, {{5, 1, 0x17}}, {{4, "Serverworks Inc."}, {7, "C-0001"}});
    processor(made, version, "P0", "Chip 9000", "CPU-1");
    processor(made, version, "P1", "Chip 9000", "", false);
    const uint16_t array = made.add(16, 0x0f, {{4, 1, 3}, {5, 1, 3}});
    memory(made, version, "P0_D10", "BANK 1", 16384, "M-10", array);
    memory(made, version, "P0_D2", "BANK 0", 65536, "M-2", array);
    memory(made, version, "P1_D0", "BANK 2", 0, "", array);
    const uint16_t flash = made.add(16, 0x0f, {{4, 1, 3}, {5, 1, 5}});
    memory(made, version, "SYSTEM ROM", "", 8, "", flash);
    slot(made, version, "PCIe Slot 4", 0x3b, 0);
    power_supply(made, "PSU1", "PS-0001", true);
    power_supply(made, "PSU2", "", false);
    made.end();
    return made;
}

/* "Handle 0x0042, DMI type 17, 84 bytes" and what stands below it. */
struct decoded {
    int type;
    unsigned handle;
    std::map<std::string, std::string> fields;
};

std::vector<decoded> by_dmidecode(const std::string &dump)
{
    const temporary_directory here;
    write_file(here / "dump", dump);
    const std::string output =
        run_command("dmidecode --from-dump " + quoted(here / "dump") + " 2>&1").output;
    std::vector<decoded> all;
    static const std::regex head(R"(Handle 0x([0-9A-F]{4}), DMI type ([0-9]+), [0-9]+ bytes)");
    static const std::regex field("\t([^\t:]+): (.*)");
    std::istringstream lines(output);
    std::smatch found;
    for (std::string line; std::getline(lines, line);) {
        if (std::regex_match(line, found, head)) {
            all.push_back({std::stoi(found[2]),
                           static_cast<unsigned>(std::stoul(found[1], nullptr, 16)),
                           {}});
        } else if (!all.empty() && std::regex_match(line, found, field)) {
            all.back().fields[found[1]] = found[2];
        }
    }
    return all;
}

int64_t mebibytes(const std::string &size)
{
    if (size == "No Module Installed") {
        return 0;
    }
    if (size == "Unknown") {
        return -1;
    }
    std::istringstream from(size);
    int64_t number = 0;
    std::string unit;
    from >> number >> unit;
    return unit == "kB"   ? std::max<int64_t>(number / 1024, 1)
           : unit == "MB" ? number
           : unit == "GB" ? number * 1024
           : unit == "TB" ? number * 1024 * 1024
                          : -2;
}

bool is_plain(std::string_view text)
{
    return std::ranges::all_of(text, [](char c) { return c >= 0x20 && c < 0x7f; });
}

/* What both read of the same bytes; nothing of what dmidecode does not print. */
void expect_like_dmidecode(const std::string &table, const std::string &dump,
                           const std::string &about)
{
    const smbios::table ours = smbios::read_table(table);
    std::vector<decoded> theirs = by_dmidecode(dump);
    std::erase_if(theirs, [](const decoded &each) { return each.type >= 126; });
    ASSERT_EQ(ours.structures.size(), theirs.size()) << about << ours.fault;
    static const struct {
        int type;
        const char *field;
        size_t offset;
    } texts[] = {
        {1, "Product Name", 5},       {1, "Serial Number", 7},   {2, "Product Name", 5},
        {2, "Serial Number", 7},      {4, "Version", 0x10},      {4, "Serial Number", 0x20},
        {4, "Socket Designation", 4}, {17, "Locator", 0x10},     {17, "Bank Locator", 0x11},
        {17, "Serial Number", 0x18},  {17, "Part Number", 0x1a}, {9, "Designation", 4},
        {39, "Serial Number", 8},     {39, "Location", 5},
    };
    size_t compared = 0;
    for (size_t i = 0; i < theirs.size(); i++) {
        const smbios::structure &it = ours.structures[i];
        ASSERT_EQ(theirs[i].type, it.type) << about;
        ASSERT_EQ(theirs[i].handle, it.handle) << about;
        const auto &fields = theirs[i].fields;
        for (const auto &each : texts) {
            const auto found = fields.find(each.field);
            if (each.type == it.type && found != fields.end() && is_plain(it.text(each.offset)) &&
                it.byte(each.offset) != 0 && found->second != "<BAD INDEX>") {
                EXPECT_EQ(found->second, it.text(each.offset)) << about << each.field;
                compared++;
            }
        }
        if (it.type == 17 && fields.contains("Size")) {
            EXPECT_EQ(mebibytes(fields.at("Size")), smbios::memory_size(it))
                << about << fields.at("Size");
            compared++;
        }
        if (it.type == 9 && fields.contains("Bus Address")) {
            char address[32];
            std::snprintf(address, sizeof address, "%04x:%02x:%02x.%x", it.word(0x0d),
                          it.byte(0x0f), it.byte(0x10) >> 3, it.byte(0x10) & 7);
            EXPECT_EQ(fields.at("Bus Address"), address) << about;
            compared++;
        }
    }
    EXPECT_GT(compared, theirs.size() / 2) << about;
}

} // namespace

TEST(smbios, a_server_of_each_version_is_what_it_was_made_of)
{
    for (const int version : {20, 21, 23, 24, 26, 27, 28, 30, 32, 33, 36}) {
        const machine_files files;
        files.put(rack_server(version), version / 10, version % 10);
        std::vector<std::string> complaints;
        const json all = files.described(&complaints);
        EXPECT_TRUE(complaints.empty()) << version << ": " << complaints.front();
        EXPECT_EQ("SW-2240", all["product"]["model"]) << version;
        EXPECT_EQ("SW2240-77", all["product"]["serial"]);
        EXPECT_EQ("Serverworks Inc. SW-2240, V1", all["product"]["description"]);
        EXPECT_EQ("C-0001", fru(all, "/SYS/CHASSIS", "serial"));
        EXPECT_EQ("B-0001", fru(all, "/SYS/MB", "serial"));
        EXPECT_EQ("2.17.1", fru(all, "/SYS/MB", "software_revision"));
        EXPECT_EQ(version >= 23 ? "Chip 9000 (PN-1)" : "Chip 9000",
                  fru(all, "/SYS/MB/P0/CPU", "model"));
        EXPECT_EQ(version >= 23 ? "CPU-1" : "", fru(all, "/SYS/MB/P0/CPU", "serial"));
        EXPECT_EQ("no identity", fru(all, "/SYS/MB/P1", "model"));
        EXPECT_EQ(nullptr, named(all, "/SYS/MB/P1/CPU"));
        EXPECT_EQ(version >= 23 ? "M-2" : "", fru(all, "/SYS/MB/P0/D2/DIMM", "serial")) << version;
        EXPECT_EQ(version >= 27   ? "64 GiB DDR4 2933 MT/s"
                  : version >= 23 ? "DDR4 3200 MT/s"
                                  : "DDR4",
                  fru(all, "/SYS/MB/P0/D2/DIMM", "alias"))
            << version;
        EXPECT_NE(nullptr, named(all, "/SYS/MB/P1/D0"));
        EXPECT_EQ(nullptr, named(all, "/SYS/MB/P1/D0/DIMM"));
        EXPECT_EQ(nullptr, named(all, "/SYS/MB/SYSTEM_ROM"));
        EXPECT_EQ("pcie-slot", type_of(all, "/SYS/MB/PCIE_SLOT_4"));
        EXPECT_EQ("PS-0001", fru(all, "/SYS/PSU1/PS", "serial"));
        EXPECT_EQ("750 W", fru(all, "/SYS/PSU1/PS", "alias"));
        EXPECT_NE(nullptr, named(all, "/SYS/PSU2"));
        EXPECT_EQ(nullptr, named(all, "/SYS/PSU2/PS"));
    }
}

TEST(smbios, the_bytes_say_what_dmidecode_says_that_they_say)
{
    for (const int version : {21, 24, 27, 28, 30, 33}) {
        const smbios_builder made = rack_server(version);
        expect_like_dmidecode(made.table, made.dump(version / 10, version % 10),
                              "version " + std::to_string(version) + ": ");
    }
    // Sizes that are counted in another unit, not known, and beyond the old field.
    smbios_builder made;
    for (const uint64_t size :
         {0x0001ULL, 0x7ffeULL, 0x7fffULL, 0x8400ULL, 0xffffULL, 0x0ULL, 0x9000ULL}) {
        smbios_made::memory(made, 26, "D" + std::to_string(size), "", size, "S");
    }
    for (const uint64_t size : {0x8000ULL, 0x100000ULL, 0x7fffffffULL - 1023}) {
        smbios_made::memory(made, 28, "E" + std::to_string(size), "", size, "S");
    }
    made.end();
    expect_like_dmidecode(made.table, made.dump(2, 8), "sizes: ");
}

TEST(smbios, fields_that_hold_anything_are_read_as_dmidecode_reads_them)
{
    std::mt19937 random(20); // the same tables at each run
    for (int round = 0; round < 25; round++) {
        smbios_builder made = rack_server(33);
        // Any field of any structure but its head, and any letter of its texts.
        const smbios::table before = smbios::read_table(made.table);
        for (int change = 0; change < 12; change++) {
            const auto &it = before.structures[random() % before.structures.size()];
            const size_t begin = static_cast<size_t>(it.fields.data() - made.table.data());
            if (random() % 2 == 0 && !it.strings.empty()) {
                const auto text = it.strings[random() % it.strings.size()];
                made.table[static_cast<size_t>(text.data() - made.table.data()) +
                           random() % text.size()] = static_cast<char>(random() % 255 + 1);
            } else if (it.type != 2) {
                made.table[begin + 4 + random() % (it.fields.size() - 4)] =
                    static_cast<char>(random());
            }
        }
        expect_like_dmidecode(made.table, made.dump(3, 3), "round " + std::to_string(round) + ": ");
    }
}

TEST(smbios, what_makers_leave_in_fields_is_no_identity)
{
    for (const char *text :
         {"To Be Filled By O.E.M.", "to be filled by o.e.m.", "Not Specified", "   ", "0x00",
          "NO DIMM", "01234567", "00000000", "Default string", "System Serial Number", "(Unknown)",
          "FFFFFFFF", "SerNum3", "Manufacturer00", "N/A", "----", "0x0000000000000000", "None",
          "Array1_PartNumber0"}) {
        EXPECT_EQ("", identity_text(text)) << text;
    }
    for (const char *text :
         {"S4EVNF0M123456", "0", "1", "A", "PowerBox 0x", "01234568", "XF", "00-10"}) {
        EXPECT_EQ(std::string(text) == "0" ? "" : text, identity_text(text)) << text;
    }
    EXPECT_EQ("a b", identity_text("  a \t\n b\x01 "));
    EXPECT_EQ("caf\xc3\xa9", identity_text("caf\xc3\xa9"));
    EXPECT_EQ("caf?", identity_text("caf\xe9"));
    EXPECT_EQ("x??", identity_text("x\xed\xa0")); // half of a pair
    EXPECT_EQ("", identity_text("\xff\xff"));
}

TEST(smbios, texts_that_are_no_identity_or_no_text_make_a_good_description)
{
    const machine_files files;
    smbios_builder made;
    smbios_made::system(made, 27, "To Be Filled By O.E.M.",
                        "Mach\xff"
                        "ine",
                        "Default string");
    smbios_made::memory(made, 27, "DIMM 0", "P0 CHANNEL A", 4096, "00000000");
    smbios_made::memory(made, 27, "DIMM 0", "P0 CHANNEL B", 4096, "1A2B");
    smbios_made::memory(made, 27, "", "", 4096, std::string(300, 'x') + "y");
    smbios_made::memory(made, 27, "Not Specified", "Not Specified", 4096, "");
    made.end();
    files.put(made, 2, 7);
    const json all = files.described();
    EXPECT_EQ("Mach?ine", all["product"]["model"]);
    EXPECT_FALSE(all["product"].contains("serial"));
    EXPECT_EQ("", fru(all, "/SYS/MB/P0_CHANNEL_A_DIMM_0/DIMM", "serial"));
    EXPECT_EQ("1A2B", fru(all, "/SYS/MB/P0_CHANNEL_B_DIMM_0/DIMM", "serial"));
    EXPECT_EQ(std::string(79, 'x'), fru(all, "/SYS/MB/DIMM/DIMM", "serial"));
    EXPECT_NE(nullptr, named(all, "/SYS/MB/DIMM_H0014"));
}

TEST(smbios, boards_lie_in_each_other_as_they_say)
{
    const machine_files files;
    smbios_builder made;
    smbios_made::system(made, 30, "Maker", "Node", "N-1");
    // Handles from 0x10 on: the system, then these.
    smbios_made::board(made, "Riser", "R-1", 0x08, "Riser A", {0x0015});       // 0x11
    smbios_made::board(made, "Main", "B-1", 0x0a, "", {0x0011, 0x0013});       // 0x12
    smbios_made::board(made, "IO", "I-1", 0x07, "IO Board", {0x0014, 0x0012}); // 0x13, and a circle
    smbios_made::board(made, "Daughter", "D-1", 0x07, "Daughter");             // 0x14
    smbios_made::memory(made, 30, "A1", "", 1024, "M-1");                      // 0x15
    smbios_made::board(made, "Main", "B-2", 0x0a, "Node 2");                   // 0x16
    made.end();
    files.put(made, 3, 0);
    const json all = files.described();
    EXPECT_EQ("B-1", fru(all, "/SYS/MB", "serial"));
    EXPECT_EQ("R-1", fru(all, "/SYS/MB/RISER_A", "serial"));
    EXPECT_EQ("M-1", fru(all, "/SYS/MB/RISER_A/A1/DIMM", "serial"));
    EXPECT_EQ("I-1", fru(all, "/SYS/MB/IO_BOARD", "serial"));
    EXPECT_EQ("D-1", fru(all, "/SYS/MB/IO_BOARD/DAUGHTER", "serial"));
    EXPECT_EQ("B-2", fru(all, "/SYS/NODE_2", "serial"));
}

TEST(smbios, devices_of_one_designation_are_told_apart_by_the_number_that_the_board_gives_them)
{
    constexpr uint8_t video = 3, ethernet = 5, sata = 9, flash = 0x0e, nvme = 0x0f;
    for (const bool first_is_on : {true, false}) {
        for (const uint8_t bus :
             {uint8_t{0x3b}, uint8_t{0x3c}}) { // another one when a card is added
            const machine_files files;
            smbios_builder made;
            smbios_made::onboard(made, "Onboard LAN", ethernet, 1, bus, 0, first_is_on);
            smbios_made::onboard(made, "Onboard LAN", ethernet, 2, bus, 1);
            smbios_made::onboard(made, "SATA", sata, 1, 0, 0xb8);
            smbios_made::onboard(made, "SATA", sata, 1, 0, 0xb9);
            smbios_made::onboard(made, "Video", video, 1, 0, 0x10);
            smbios_made::onboard(made, "NVMe", nvme, 1, 0xff, 0xff);
            smbios_made::onboard(made, "Flash", flash, 1, 0xff, 0xff);
            smbios_made::onboard(made, "Sound", 7, 0, 0xff, 0xff);
            smbios_made::onboard(made, "Sound", 7, 0, 0xff, 0xff);
            made.end();
            files.put(made, 3, 2);
            const json all = files.described();
            EXPECT_EQ(first_is_on, named(all, "/SYS/MB/ONBOARD_LAN_1") != nullptr);
            EXPECT_EQ("network-adapter", type_of(all, "/SYS/MB/ONBOARD_LAN_2"));
            EXPECT_EQ("storage-controller", type_of(all, "/SYS/MB/SATA_0"));
            EXPECT_EQ("storage-controller", type_of(all, "/SYS/MB/SATA_1"));
            EXPECT_EQ("accelerator", type_of(all, "/SYS/MB/VIDEO"));
            EXPECT_EQ("storage-controller", type_of(all, "/SYS/MB/NVME"));
            EXPECT_EQ("storage-controller", type_of(all, "/SYS/MB/FLASH"));
            EXPECT_NE(nullptr, named(all, "/SYS/MB/SOUND"));
            EXPECT_NE(nullptr, named(all, "/SYS/MB/SOUND_H0018"));
        }
    }
}

TEST(smbios, slots_are_what_fits_into_them)
{
    const std::pair<uint8_t, const char *> kinds[] = {
        {0x1f, "drive-bay"}, {0x20, "drive-bay"},           {0x24, "drive-bay"},
        {0x25, "drive-bay"}, {0xc5, "drive-bay"},           {0xc6, "drive-bay"},
        {0x16, "m2-slot"},   {0x21, "mezzanine-slot"},      {0x23, "mezzanine-slot"},
        {0xa5, "pcie-slot"}, {0x26, "network-module-slot"}, {0x28, "network-module-slot"},
        {0xc4, "pcie-slot"}};
    const machine_files files;
    smbios_builder made;
    for (const auto &[kind, unused] : kinds) {
        smbios_made::slot(made, 26, "S" + std::to_string(kind), 0xff, 0xff, kind);
    }
    made.end();
    files.put(made, 3, 5);
    const json all = files.described();
    for (const auto &[kind, type] : kinds) {
        EXPECT_EQ(type, type_of(all, "/SYS/MB/S" + std::to_string(kind)));
    }
}

TEST(smbios, a_broken_table_costs_what_stands_behind_the_break_and_a_line)
{
    const smbios_builder whole = rack_server(30);
    struct {
        const char *what;
        std::string table;
        const char *said;
    } cases[] = {
        {"missing end", whole.table.substr(0, whole.table.size() - 6),
         "the end of the table is missing"},
        {"cut in texts", whole.table.substr(0, whole.table.size() - 30), "no end"},
        {"no length",
         whole.table.substr(0, whole.table.size() - 6) + std::string("\x11\x03\x01\x00\x00\x00", 6),
         "has no length"},
        {"too long",
         whole.table.substr(0, whole.table.size() - 6) + std::string("\x11\xff\x01\x00\x00\x00", 6),
         "longer than the table"},
        {"half a head", whole.table.substr(0, whole.table.size() - 6) + std::string("\x11\x04", 2),
         "cut off"},
    };
    for (const auto &each : cases) {
        const machine_files files;
        files.put("/sys/firmware/dmi/tables/DMI", each.table);
        std::vector<std::string> complaints;
        const json all = files.described(&complaints);
        ASSERT_EQ(1U, complaints.size()) << each.what;
        EXPECT_NE(std::string::npos, complaints[0].find(each.said)) << complaints[0];
        EXPECT_NE(std::string::npos, complaints[0].find("/sys/firmware/dmi/tables/DMI"))
            << complaints[0];
        EXPECT_EQ("PS-0001", fru(all, "/SYS/PSU1/PS", "serial")) << each.what;
    }
    const machine_files files;
    files.put(whole, 3, 0);
    files.put("/sys/firmware/dmi/tables/smbios_entry_point", "_SM3_ and no more");
    std::vector<std::string> complaints;
    EXPECT_EQ("SW-2240", files.described(&complaints)["product"]["model"]);
    ASSERT_EQ(1U, complaints.size());
    EXPECT_NE(std::string::npos, complaints[0].find("the entry point is none")) << complaints[0];
}

TEST(smbios, entry_points_of_all_kinds_tell_their_version)
{
    const smbios_builder made = rack_server(30);
    for (const auto &[major, minor] : {std::pair(2, 1), {2, 8}, {3, 0}, {3, 6}}) {
        std::string bytes = made.entry_point(major, minor);
        const smbios::entry_point good = smbios::read_entry_point(bytes);
        EXPECT_EQ(major, good.major);
        EXPECT_EQ(minor, good.minor);
        EXPECT_EQ("", good.fault);
        bytes[9] = static_cast<char>(bytes[9] + 1);
        EXPECT_NE("", smbios::read_entry_point(bytes).fault);
    }
    const std::string old = made.entry_point(2, 4).substr(0x10);
    EXPECT_EQ(4, smbios::read_entry_point(old).minor);
    EXPECT_EQ("", smbios::read_entry_point(old).fault);
}

TEST(smbios, a_table_of_any_bytes_makes_a_good_description_and_soon)
{
    std::mt19937 random(7);
    const std::string whole = rack_server(33).table;
    const machine_files files;
    const auto begin = std::chrono::steady_clock::now();
    for (int round = 0; round < 150; round++) {
        std::string table = whole;
        for (auto change = random() % 40; change > 0; change--) {
            switch (random() % 3) {
            case 0:
                table[random() % table.size()] = static_cast<char>(random());
                break;
            case 1:
                table.resize(1 + random() % table.size());
                break;
            default:
                table += table.substr(random() % table.size(), random() % 200);
                break;
            }
        }
        files.put("/sys/firmware/dmi/tables/DMI", table);
        const json all = files.described();
        std::set<std::string> names;
        for (const json &each : all["components"]) {
            EXPECT_TRUE(names.insert(each["name"].get<std::string>()).second) << each["name"];
        }
        EXPECT_TRUE(names.contains("/SYS/MB"));
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30));
}

TEST(smbios, without_the_table_the_class_of_the_kernel_says_what_it_knows)
{
    const machine_files files;
    for (const auto &[name, text] : {std::pair("sys_vendor", "Maker"),
                                     {"product_name", "Box"},
                                     {"product_version", "Not Specified"},
                                     {"product_serial", "X-1"},
                                     {"board_name", "Board"},
                                     {"bios_version", "1.0"}}) {
        files.put(std::string("/sys/class/dmi/id/") + name, std::string(text) + "\n");
    }
    const json all = files.described();
    EXPECT_EQ("Box", all["product"]["model"]);
    EXPECT_EQ("Maker Box", all["product"]["description"]);
    EXPECT_EQ("X-1", fru(all, "/SYS", "serial"));
    EXPECT_EQ("Board", fru(all, "/SYS/MB", "model"));
    EXPECT_EQ("1.0", fru(all, "/SYS/MB", "software_revision"));
}

TEST(smbios, a_board_with_a_device_tree_says_its_model)
{
    const machine_files files;
    files.put("/sys/firmware/devicetree/base/model", std::string("Berry 4 Model B\0", 16));
    files.put("/sys/firmware/devicetree/base/serial-number", std::string("10000000abcd\0", 13));
    const json all = files.described();
    EXPECT_EQ("Berry 4 Model B", all["product"]["model"]);
    EXPECT_EQ("10000000abcd", fru(all, "/SYS", "serial"));
}

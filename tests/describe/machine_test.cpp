// Names that stay, the text that is written, what is laid over it; and files that are hostile.
#include "tools/kavplat/describe/describe.h"
#include "tools/kavplat/describe/machine.h"
#include "tools/kavplat/describe/output.h"
#include "tools/kavplat/describe/writer.h"

#include "harness/files.h"
#include "harness/process.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fcntl.h>
#include <fstream>
#include <random>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace kavplat_describe;

namespace
{

std::vector<std::string> names_of(const json &description)
{
    std::vector<std::string> all;
    for (const json &each : description["components"]) {
        all.push_back(each["name"]);
    }
    return all;
}

struct thing {
    const char *label;
    const char *where;
    const char *serial;
};

json made_of(const std::vector<thing> &things)
{
    machine made;
    for (const thing &each : things) {
        made.add(made.board(), each.label, "io-module", each.where).fru.serial = each.serial;
    }
    return to_json(made);
}

void put(const fs::path &file, const std::string &text)
{
    fs::create_directories(file.parent_path());
    write_file(file, text);
}

/* For as long as it lives root is somebody else, whom files' modes bind. */
class ordinary_user
{
  public:
    explicit ordinary_user(const fs::path &to_read) : before_(::geteuid())
    {
        fs::permissions(to_read, fs::perms(0755));
        become(nobody);
    }
    ~ordinary_user() { become(before_); }
    ordinary_user(const ordinary_user &) = delete;
    ordinary_user &operator=(const ordinary_user &) = delete;

    template <class F>
    void run_as_before(F what) const
    {
        become(before_);
        what();
        become(nobody);
    }

  private:
    static constexpr uid_t nobody = 65534;
    void become(uid_t who) const { EXPECT_EQ(0, before_ == 0 ? ::seteuid(who) : 0); }
    const uid_t before_;
};

} // namespace

TEST(machine, names_and_order_follow_from_places_and_not_from_the_order_of_finding)
{
    std::vector<thing> things = {{"D10", "", "a"},
                                 {"D2", "", "b"},
                                 {"NET0", "0000:3b:00.1", "c"},
                                 {"D2", "H0042", "d"},
                                 {"NET0", "0000:3b:00.0", "e"},
                                 {"D2", "H0042", "f"},
                                 {"D2_H0042", "", "g"}};
    const json first = made_of(things);
    EXPECT_EQ((std::vector<std::string>{"/SYS", "/SYS/MB", "/SYS/MB/D2", "/SYS/MB/D2_H0042",
                                        "/SYS/MB/D2_H0042_2", "/SYS/MB/D2_H0042_3", "/SYS/MB/D10",
                                        "/SYS/MB/NET0", "/SYS/MB/NET0_0000_3B_00.1"}),
              names_of(first));
    std::mt19937 random(1);
    for (int round = 0; round < 50; round++) {
        std::ranges::shuffle(things, random);
        EXPECT_EQ(to_text(first), to_text(made_of(things)));
    }
}

TEST(machine, one_component_less_leaves_all_others_their_names)
{
    const std::vector<thing> things = {{"D0", "", "a"},
                                       {"D1", "", "b"},
                                       {"NET0", "1", "c"},
                                       {"NET0", "2", "d"},
                                       {"NET0", "3", "e"}};
    const std::vector<std::string> all = names_of(made_of(things));
    for (size_t gone = 0; gone < things.size(); gone++) {
        if (gone == 2) {
            continue; // the first of those of one label: the next one takes the label over
        }
        std::vector<thing> rest = things;
        rest.erase(rest.begin() + static_cast<ptrdiff_t>(gone));
        std::vector<std::string> expected = all;
        expected.erase(expected.begin() + 2 + static_cast<ptrdiff_t>(gone));
        EXPECT_EQ(expected, names_of(made_of(rest))) << gone;
    }
}

TEST(machine, of_one_label_the_end_of_the_path_tells_which_it_is_and_never_a_count)
{
    const json one = made_of(
        {{"T", "/sys/devices/pci0000:00/0000:00:1a.3/hwmon/hwmon2", "a"},
         {"T", "/sys/devices/pci0000:00/0000:00:18.3/hwmon/hwmon3", "b"},
         {"T", "/sys/devices/pci0000:00/0000:00:1c.4/0000:3b:00.0/i2c-1/1-001a/hwmon/hwmon4", "c"},
         {"T", "/sys/devices/pci0000:00/0000:00:1c.4/0000:3b:00.0/i2c-1/1-0018/hwmon/hwmon5", "d"},
         {"U", "/sys/devices/platform/nct6775.2592/hwmon/hwmon7", "e"},
         {"U", "/sys/devices/platform/nct6775.656/hwmon/hwmon6", "g"}});
    const json other = made_of(
        {{"T", "/sys/devices/pci0000:00/0000:00:1a.3/hwmon/hwmon12", "a"},
         {"T", "/sys/devices/pci0000:00/0000:00:18.3/hwmon/hwmon10", "b"},
         {"T", "/sys/devices/pci0000:00/0000:00:1c.4/0000:3c:00.0/i2c-3/3-001a/hwmon/hwmon2", "c"},
         {"T", "/sys/devices/pci0000:00/0000:00:1c.4/0000:3c:00.0/i2c-3/3-0018/hwmon/hwmon9", "d"},
         {"U", "/sys/devices/platform/nct6775.2592/hwmon/hwmon4", "e"},
         {"U", "/sys/devices/platform/nct6775.656/hwmon/hwmon5", "g"}});
    EXPECT_EQ(to_text(one), to_text(other));
    std::map<std::string, std::string> serials;
    for (const json &each : one["components"]) {
        serials[each["name"]] = each.value("fru", json::object()).value("serial", "");
    }
    EXPECT_EQ((std::map<std::string, std::string>{{"/SYS", ""},
                                                  {"/SYS/MB", ""},
                                                  {"/SYS/MB/T", "b"},
                                                  {"/SYS/MB/T_1A.3", "a"},
                                                  {"/SYS/MB/T_1C.4-0_001A", "c"},
                                                  {"/SYS/MB/T_1C.4-0_0018", "d"},
                                                  {"/SYS/MB/U", "g"},
                                                  {"/SYS/MB/U_NCT6775.2592", "e"}}),
              serials);
}

TEST(machine, labels_are_parts_of_names)
{
    EXPECT_EQ("PROC_1_DIMM_3", label_of("Proc 1 DIMM 3 "));
    EXPECT_EQ("X", label_of("..//  \x01"));
    EXPECT_EQ("FAN", label_of("\xc3\xa4", "FAN"));
    EXPECT_EQ("12V", label_of("+12V"));
    EXPECT_EQ("-12V", label_of("-12V"));
    EXPECT_EQ(32U, label_of(std::string(400, 'a')).size());
    EXPECT_TRUE(comes_before("HDD2", "HDD10"));
    EXPECT_FALSE(comes_before("HDD10", "HDD2"));
    EXPECT_TRUE(comes_before("HDD", "HDD0"));
    EXPECT_FALSE(comes_before("A1", "A1"));
    EXPECT_NE(comes_before("A01", "A1"), comes_before("A1", "A01"));
}

TEST(machine, what_is_laid_over_changes_adds_and_takes_out)
{
    json base = made_of({{"D0", "", "a"}, {"D1", "", "b"}});
    std::string why;
    ASSERT_TRUE(merge(base, json::parse(R"({
        "product": {"model": "Mine"},
        "components": [
            {"name": "/SYS/MB/D0", "fru": {"serial": null, "alias": "left one"}},
            {"name": "/SYS/MB/D1", "type": null},
            {"name": "/SYS/MB/D10", "type": "io-module"},
            {"name": "/SYS/MB/D9", "type": "io-module", "power": null}]})"),
                      why))
        << why;
    EXPECT_EQ(
        (std::vector<std::string>{"/SYS", "/SYS/MB", "/SYS/MB/D0", "/SYS/MB/D9", "/SYS/MB/D10"}),
        names_of(base));
    EXPECT_EQ("Mine", base["product"]["model"]);
    EXPECT_EQ(R"({"alias":"left one"})", base["components"][2]["fru"].dump());
    EXPECT_FALSE(base["components"][3].contains("power"));

    for (const char *bad : {"[]", R"({"componets": []})", R"({"components": {}})",
                            R"({"components": [{"type": "led"}]})"}) {
        EXPECT_FALSE(merge(base, json::parse(bad), why)) << bad;
        EXPECT_NE("", why);
    }
}

TEST(machine, without_serials_nothing_tells_it_from_another)
{
    json base = made_of({{"D0", "", "secret-1"}});
    base["product"] = {{"model", "M"}, {"serial", "secret-2"}};
    leave_out_serials(base);
    EXPECT_EQ(std::string::npos, to_text(base).find("secret")) << to_text(base);
    EXPECT_EQ("M", base["product"]["model"]);
}

TEST(describe, a_bad_file_to_lay_over_is_told_with_its_place_and_nothing_is_written)
{
    const temporary_directory here;
    fs::create_directories(here / "root");
    put(here / "extra.json", R"({"components": [{"name": "/SYS/MB/X", "type": "no-such-type"}]})");
    options asked;
    asked.root = here / "root";
    asked.merge = here / "extra.json";
    const kavplat_describe::described result = describe(asked);
    EXPECT_EQ("", result.text);
    ASSERT_FALSE(result.complaints.empty());
    EXPECT_NE(std::string::npos, result.complaints.back().find("/SYS/MB/X"))
        << result.complaints.back();
    asked.merge = here / "absent.json";
    EXPECT_NE(std::string::npos, describe(asked).complaints.back().find("absent.json"));
    asked.root = here / "nowhere";
    EXPECT_EQ("", describe(asked).text);
}

TEST(output, a_file_is_replaced_at_once_and_only_when_it_differs)
{
    const temporary_directory here;
    const fs::path file = here / "server.json";
    std::string why;
    ASSERT_TRUE(replace_file(file, "one", why)) << why;
    struct stat before = {};
    struct stat after = {};
    ASSERT_EQ(0, ::stat(file.c_str(), &before));
    EXPECT_EQ(0644U, before.st_mode & 07777U);
    ASSERT_TRUE(replace_file(file, "one", why));
    ASSERT_EQ(0, ::stat(file.c_str(), &after));
    EXPECT_EQ(before.st_ino, after.st_ino);
    ASSERT_TRUE(replace_file(file, "two", why));
    ASSERT_EQ(0, ::stat(file.c_str(), &after));
    EXPECT_NE(before.st_ino, after.st_ino);
    EXPECT_EQ("two", read_file(file));
    EXPECT_FALSE(replace_file(here / "none" / "server.json", "x", why));
    EXPECT_EQ("No such file or directory", why);
    fs::create_directories(here / "taken");
    EXPECT_FALSE(replace_file(here / "taken", "x", why));
    // Nothing half is left behind.
    EXPECT_EQ(2, std::distance(fs::directory_iterator(here.path()), fs::directory_iterator()));
}

TEST(tree, links_lead_where_they_would_on_the_machine)
{
    const temporary_directory here;
    const fs::path root = here / "root";
    put(root / "sys/devices/pci0/hwmon/hwmon3/temp1_input", "42000\n");
    put(here / "outside", "outside\n");
    fs::create_directories(root / "sys/class/hwmon");
    fs::create_symlink("../../devices/pci0/hwmon/hwmon3", root / "sys/class/hwmon/hwmon3");
    fs::create_symlink("/sys/devices/pci0", root / "absolute");
    fs::create_symlink("../../../../../../../../outside", root / "escape");
    fs::create_symlink((here / "outside").string(), root / "escape_too");
    fs::create_symlink("loop", root / "loop");
    fs::create_symlink("maze/maze/maze", root / "maze");
    const tree files(root.string() + "//");
    EXPECT_EQ(42000, files.number("/sys/class/hwmon/hwmon3/temp1_input"));
    EXPECT_EQ("/sys/devices/pci0/hwmon/hwmon3", files.real("/sys/class/hwmon/hwmon3"));
    EXPECT_EQ(42000, files.number("/absolute/hwmon/hwmon3/temp1_input"));
    EXPECT_EQ(root.string() + "/sys/devices/pci0/hwmon/hwmon*/temp1_input",
              files.bound("/sys/class/hwmon/hwmon3/temp1_input"));
    for (const char *path : {"/escape", "/escape_too", "/loop", "/maze/x", "/../../outside"}) {
        EXPECT_EQ("", files.text(path)) << path;
        EXPECT_NE(0, files.read(path).error) << path;
    }
    put(root / "sys/devices/pci0/hwmon/hwmon4/temp1_input", "1\n");
    EXPECT_EQ(root.string() + "/sys/devices/pci0/hwmon/hwmon3/temp1_input",
              files.bound("/sys/class/hwmon/hwmon3/temp1_input"));
}

TEST(tree, what_is_no_file_or_has_no_end_is_not_read)
{
    const temporary_directory here;
    ASSERT_EQ(0, ::mkfifo((here / "fifo").c_str(), 0600));
    fs::create_symlink("/dev/zero", here / "zero");
    put(here / "large", std::string(longest_text + 1, '7'));
    put(here / "empty", "");
    put(here / "text", " \n1 2\n");
    put(here / "name\nwith control", "");
    const tree files(here.path());
    EXPECT_EQ(ENOTSUP, files.read("/fifo").error);
    EXPECT_NE(0, files.read("/zero").error);
    EXPECT_EQ(EFBIG, files.read("/large").error);
    EXPECT_EQ(EISDIR, files.read("/").error);
    EXPECT_EQ(ENOTDIR, files.read("/text/x").error);
    EXPECT_EQ("1 2", files.text("/text"));
    EXPECT_FALSE(files.number("/text"));
    EXPECT_FALSE(files.number("/empty"));
    EXPECT_EQ((std::vector<std::string>{"empty", "fifo", "large", "text", "zero"}),
              files.names("/"));
    const tree all("/");
    EXPECT_EQ(ENOTSUP, all.read("/dev/zero").error);
}

TEST(tree, what_may_not_be_read_is_remembered)
{
    const temporary_directory here;
    put(here / "serial", "S\n");
    ASSERT_EQ(0, ::chmod((here / "serial").c_str(), 0));
    const ordinary_user nobody(here.path());
    const tree files(here.path());
    EXPECT_EQ("", files.text("/serial"));
    EXPECT_EQ(std::set<std::string>{"/serial"}, files.denied());
}

TEST(describe, an_ordinary_user_is_told_what_root_would_add)
{
    const temporary_directory here;
    const auto put_away = [&here](const std::string &path) {
        put(here.path().string() + path, "X\n");
        ASSERT_EQ(0, ::chmod((here.path().string() + path).c_str(), 0));
    };
    const ordinary_user nobody(here.path());
    options asked;
    asked.root = here.path();
    using lines = std::vector<std::string>;
    EXPECT_EQ(lines(), describe(asked).complaints);
    asked.bmc_is_for_root = true;
    EXPECT_EQ(lines{"this user may not read all: run it as root for what the service processor "
                    "knows"},
              describe(asked).complaints);
    nobody.run_as_before([&] {
        put_away("/sys/firmware/dmi/tables/DMI");
        put_away("/sys/class/dmi/id/board_serial");
    });
    EXPECT_EQ(lines{"this user may not read all: run it as root for memory modules, processor "
                    "sockets, slots, serial numbers and what the service processor knows"},
              describe(asked).complaints);
    asked.bmc_is_for_root = false;
    nobody.run_as_before([&] { put_away("/sys/class/hwmon/hwmon0/name"); });
    EXPECT_EQ(lines{"this user may not read all: run it as root for memory modules, processor "
                    "sockets, slots, serial numbers and what is in 1 file such as "
                    "/sys/class/hwmon/hwmon0/name"},
              describe(asked).complaints);
}

TEST(describe, a_service_processor_that_this_user_may_not_ask_is_what_root_would_add)
{
    if (!has_bmc_client()) {
        GTEST_SKIP() << "built without the library that asks service processors";
    }
    const temporary_directory here;
    // A machine with such a device; and a root whom its mode binds like anybody else.
    const std::string command = std::string("unshare ") +
                                (::geteuid() == 0 ? "" : "--user --map-root-user ") +
                                "--mount sh -c 'mount -t tmpfs none /dev && : >/dev/ipmi0 && "
                                "chmod \"$1\" /dev/ipmi0 && exec setpriv "
                                "--bounding-set=-dac_override,-dac_read_search " KAVPLAT_COMMAND
                                " describe --values \"$2\" 2>&1' sh ";
    const command_result denied = run_command(command + "0 " + quoted(here / "values"));
    EXPECT_EQ(0, denied.status);
    EXPECT_NE(std::string::npos, denied.output.find("what the service processor knows"))
        << denied.output;
    EXPECT_EQ(std::string::npos, denied.output.find("service processor: ")) << denied.output;
    const command_result allowed = run_command(command + "0600 " + quoted(here / "values"));
    EXPECT_EQ(std::string::npos, allowed.output.find("what the service processor knows"))
        << allowed.output;
    EXPECT_NE(std::string::npos, allowed.output.find("service processor: ")) << allowed.output;
}

TEST(describe, this_machine_whatever_it_is_has_a_good_description_and_always_the_same)
{
    const temporary_directory here;
    const std::string describe = std::string(KAVPLAT_COMMAND) + " describe --output ";
    EXPECT_EQ(0, run_command(describe + quoted(here / "one.json")).status);
    EXPECT_EQ(0, run_command(describe + quoted(here / "two.json")).status);
    EXPECT_EQ(read_file(here / "one.json"), read_file(here / "two.json"));
    const command_result result = run_command(std::string(KAVPLAT_COMMAND) + " check --user '' " +
                                              quoted(here / "one.json") + " 2>&1");
    EXPECT_EQ(0, result.status);
    EXPECT_EQ(std::string::npos, result.output.find("warning")) << result.output;
    EXPECT_NE(std::string::npos, result.output.find("good: root /SYS")) << result.output;
}

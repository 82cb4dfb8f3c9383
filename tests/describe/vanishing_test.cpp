// What goes away before a look, or in the middle of one: the rest is described.
#include "described/format/loader.h"
#include "tools/kavplat/describe/describe.h"

#include "harness/files.h"
#include "made_machines/made_machine.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace fs = std::filesystem;
using kavplat_describe_test::made_machine;

namespace
{

void build(made_machine &all)
{
    all.processors(1, 2, "Xeon 6");
    all.nvme(all.pci("0000:00", "01.0", "010802"), {.type = "nvme-disk", .serial = "N"});
    all.sata(all.pci("0000:00", "1f.2", "010601"), 2, {.type = "disk", .serial = "S"});
    const std::string host = all.pci("0000:00", "03.0", "010700") + "/host9";
    all.bay(all.shelf(host, 8, "500605b0000272bf"), 3,
            all.scsi(host, "port-9:0/end_device-9:0", 2, {.type = "disk", .serial = "A"}), 0, 1);
    const std::string card = all.pci("0000:00", "19.0", "020000");
    all.port(card, 0, "02:5e:10:aa:bb:cc");
    all.slot("4", card, true);
    all.hwmon("/sys/devices/platform/coretemp.0", "coretemp",
              {{"temp1_input", "45000"}, {"temp1_label", "Package id 0"}});
    all.supply("BAT0", {{"type", "Battery"}, {"present", "1"}, {"status", "Full"}});
}

std::string good_description_of(const made_machine &machine)
{
    kavplat_describe::options asked;
    asked.root = machine.root();
    const kavplat_describe::described result = describe(asked);
    EXPECT_NE(nullptr, described_platform::load_text(result.text, "/").loaded) << result.text;
    return result.text;
}

std::vector<fs::path> paths_below(const fs::path &root)
{
    std::vector<fs::path> all;
    for (const auto &each : fs::recursive_directory_iterator(root)) {
        all.push_back(each.path());
    }
    return all;
}

} // namespace

TEST(describe, whatever_vanishes_the_rest_is_described_and_what_comes_back_is_the_same)
{
    made_machine machine;
    build(machine);
    const temporary_directory here;
    const std::string all = good_description_of(machine);
    size_t missed = 0;
    const std::vector<fs::path> paths = paths_below(machine.root());
    for (const fs::path &each : paths) {
        fs::rename(each, here / "away");
        const std::string rest = good_description_of(machine);
        missed += rest != all ? 1U : 0U;
        fs::rename(here / "away", each);
    }
    EXPECT_GT(missed, paths.size() / 3);
    EXPECT_EQ(all, good_description_of(machine));
}

TEST(describe, of_a_machine_that_changes_meanwhile_is_good)
{
    made_machine machine;
    build(machine);
    const temporary_directory here;
    const std::string all = good_description_of(machine);
    std::atomic<bool> ends = false;
    std::atomic<int> rounds = 0;
    std::thread changing([&] {
        const std::vector<fs::path> paths = paths_below(machine.root() / "sys");
        while (!ends) {
            for (const fs::path &each : paths) {
                fs::rename(each, here / "away");
                fs::rename(here / "away", each);
            }
            ++rounds;
        }
    });
    constexpr int looks = 40;
    int differ = 0;
    for (int i = 0; i < looks || rounds < 2; ++i) {
        differ += good_description_of(machine) != all ? 1 : 0;
    }
    ends = true;
    changing.join();
    RecordProperty("differ", differ);
    EXPECT_EQ(all, good_description_of(machine));
}

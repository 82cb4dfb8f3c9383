// What modules in the cages of network ports say of themselves, and how the kernel is asked.
#include "tools/kavplat/describe/module_memory.h"
#include "tools/kavplat/describe/recording.h"

#include "made_machines/modules.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <linux/ethtool.h>

using namespace kavplat_describe;
using namespace kavplat_describe_test;

namespace
{

const struct {
    const char *part;
    std::string memory;
    size_t of_part; /* a byte that only the first sum is over */
    size_t of_serial;
    bool is_one; /* one sum is over all */
} kinds[] = {{"SFP-10G-SR", small_module("SN0001"), 40, 68, false},
             {"QSFP28-100G-LR4", four_lane_module("SN0001"), 168, 196, false},
             {"QDD-400G-DR4", common_module("SN0001"), 148, 166, true}};

/* What a driver answers to. */
struct pretended_driver {
    int about_error = 0; /* of the question what module there is */
    int read_error = 0;
    unsigned socket = PORT_FIBRE;
    std::string memory;

    int operator()(void *command) const
    {
        uint32_t which = 0;
        std::memcpy(&which, command, sizeof which);
        if (which == ETHTOOL_GMODULEINFO) {
            static_cast<ethtool_modinfo *>(command)->eeprom_len =
                static_cast<uint32_t>(memory.size());
            return about_error;
        }
        if (which == ETHTOOL_GMODULEEEPROM) {
            auto *const asked = static_cast<ethtool_eeprom *>(command);
            if (asked->offset + asked->len > memory.size()) {
                return EINVAL;
            }
            std::memcpy(static_cast<char *>(command) + sizeof *asked, memory.data() + asked->offset,
                        asked->len);
            return read_error;
        }
        static_cast<ethtool_cmd *>(command)->port = static_cast<uint8_t>(socket);
        return which == ETHTOOL_GSET ? 0 : EOPNOTSUPP;
    }
};

} // namespace

TEST(modules, say_who_made_them_which_part_they_are_and_which_one)
{
    for (const auto &each : kinds) {
        SCOPED_TRACE(each.part);
        const identity found = identity_of_module(each.memory);
        EXPECT_EQ("OPTICS INC", identity_text(found.manufacturer));
        EXPECT_EQ(each.part, identity_text(found.model));
        EXPECT_EQ("SN0001", identity_text(found.serial));
    }
}

TEST(modules, are_believed_as_far_as_their_sums_are_good)
{
    for (const auto &each : kinds) {
        SCOPED_TRACE(each.part);
        std::string memory = each.memory;
        memory[each.of_serial] = '?';
        EXPECT_EQ("", identity_of_module(memory).serial);
        EXPECT_EQ(each.is_one, identity_of_module(memory).model.empty());
        memory = each.memory;
        memory[each.of_part] = '?';
        EXPECT_EQ("", identity_of_module(memory).model);
        EXPECT_EQ("", identity_of_module(memory).serial);
        // However short it is cut, nothing is read behind its end.
        for (size_t bytes = 0; bytes < each.memory.size(); ++bytes) {
            const std::string cut = each.memory.substr(0, bytes);
            const identity found = identity_of_module(cut);
            EXPECT_TRUE(found.serial.empty() || bytes > each.of_serial + 16) << bytes;
            std::string covered = cut;
            cover_module_serial(covered);
            EXPECT_EQ(std::string::npos, covered.find("SN0001")) << bytes;
        }
    }
    EXPECT_EQ("", identity_of_module(std::string(224, '\xff')).model);
}

TEST(modules, are_the_same_but_for_the_serial_number_that_was_covered)
{
    for (const auto &each : kinds) {
        SCOPED_TRACE(each.part);
        std::string memory = each.memory;
        EXPECT_EQ("SN0001", identity_text(cover_module_serial(memory)));
        EXPECT_EQ(std::string::npos, memory.find("SN0001"));
        EXPECT_EQ(each.memory.size(), memory.size());
        EXPECT_EQ(each.part, identity_text(identity_of_module(memory).model));
        EXPECT_EQ("", identity_text(identity_of_module(memory).serial));
    }
}

TEST(cages, are_there_when_a_module_answers_or_the_kernel_knows_a_socket_for_one)
{
    const auto memory = [](const pretended_driver &driver) -> std::optional<std::string> {
        const cage_word told = ask_cage(driver);
        return told.is_there ? std::optional(told.memory) : std::nullopt;
    };
    const std::string module = small_module("SN0001");
    EXPECT_EQ(module, memory({.memory = module + std::string(288, 'x')}));
    EXPECT_EQ(module.substr(0, 128), memory({.memory = module.substr(0, 128)}));
    EXPECT_EQ("", memory({.read_error = EIO, .memory = module}));
    for (const int error : {EIO, ENODEV, ENXIO, EINVAL, ETIMEDOUT}) {
        EXPECT_EQ("", memory({.about_error = error, .memory = {}}));
        EXPECT_EQ("", memory({.about_error = error, .socket = PORT_NONE, .memory = {}}));
        EXPECT_EQ(std::nullopt, memory({.about_error = error, .socket = PORT_TP, .memory = {}}));
        EXPECT_EQ(std::nullopt, memory({.about_error = error, .socket = PORT_OTHER, .memory = {}}));
    }
    EXPECT_EQ(std::nullopt, memory({.about_error = EOPNOTSUPP, .memory = {}}));
    // Whoever may not ask is not told that there is none.
    EXPECT_EQ(std::nullopt, memory({.about_error = EPERM, .memory = {}}));
    EXPECT_TRUE(ask_cage(pretended_driver{.about_error = EPERM, .memory = {}}).is_forbidden);
    EXPECT_FALSE(ask_cage(pretended_driver{.about_error = EPERM, .socket = PORT_TP, .memory = {}})
                     .is_forbidden);
    // The kernel itself; what has no socket at all has no cage.
    EXPECT_FALSE(ask_cage("lo").is_there);
    EXPECT_FALSE(ask_cage("no-such-interface-at-all").is_there);
}

TEST(tree, what_the_kernel_tells_by_a_call_is_asked_here_and_recorded_as_a_file)
{
    tree here;
    recording kept;
    here.record(kept);
    EXPECT_EQ("bytes", here.told("/run/kavplat/modules/eth0", [] { return "bytes"; }));
    EXPECT_EQ(std::nullopt, here.told("/run/kavplat/modules/lo", [] { return std::nullopt; }));
    EXPECT_EQ("bytes", kept.entries.at("/run/kavplat/modules/eth0").bytes);
    EXPECT_EQ(recorded::kind::directory, kept.entries.at("/run/kavplat/modules").is);
    EXPECT_FALSE(kept.entries.contains("/run/kavplat/modules/lo"));
}

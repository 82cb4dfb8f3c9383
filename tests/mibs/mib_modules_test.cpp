// KAV-PLATFORM-MIB and the extracts beside it, read by net-snmp's own parser:
// what the commands of a stock machine make of them.
#include "mib_modules.h"

#include <gtest/gtest.h>

#include <array>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>

namespace
{

using mib_modules::below;
using mib_modules::is_object;
using mib_modules::oid_text;

using enumeration = std::map<int, std::string>;

enumeration labels_of(const tree *node)
{
    enumeration labels;
    for (const enum_list *entry = node->enums; entry != nullptr; entry = entry->next) {
        labels[entry->value] = entry->label;
    }
    return labels;
}

// The enumerations as the file has them, by the name of the object. Those that
// come from a textual convention are not among them.
std::map<std::string, enumeration> enumerations_written_in(const std::filesystem::path &file)
{
    std::ifstream in(file);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    text = std::regex_replace(text, std::regex("\"[^\"]*\""), "");
    text = std::regex_replace(text, std::regex("--[^\n]*"), "");

    std::map<std::string, enumeration> found;
    const std::regex object(R"((\w+)\s+OBJECT-TYPE\s+SYNTAX\s+(?:INTEGER|BITS)\s*\{([^}]*)\})");
    const std::regex label(R"(([\w-]+)\s*\(\s*(-?\d+)\s*\))");
    for (std::sregex_iterator it(text.begin(), text.end(), object), end; it != end; ++it) {
        const std::string name = (*it)[1];
        const std::string body = (*it)[2];
        for (std::sregex_iterator l(body.begin(), body.end(), label); l != end; ++l) {
            found[name][std::stoi((*l)[2])] = (*l)[1];
        }
    }
    return found;
}

std::string shown(const std::string &name, u_char type, const std::string &value)
{
    mib_modules::load();
    std::array<oid, MAX_OID_LEN> object{};
    std::size_t length = object.size();
    if (read_objid(name.c_str(), object.data(), &length) == 0) {
        return "no such name";
    }
    netsnmp_variable_list *variable = nullptr;
    snmp_varlist_add_variable(&variable, object.data(), length, type, value.data(), value.size());
    std::array<char, 512> buffer{};
    snprint_variable(buffer.data(), buffer.size(), object.data(), length, variable);
    snmp_free_varbind(variable);
    return buffer.data();
}

std::string shown(const std::string &name, long value)
{
    return shown(name, ASN_INTEGER,
                 std::string(reinterpret_cast<const char *>(&value), sizeof value));
}

TEST(MibModules, AreParsedWithoutAWarning)
{
    EXPECT_EQ(mib_modules::load(), "");
    for (const char *module :
         {"SNMPv2-SMI", "SNMPv2-TC", "SNMPv2-CONF", "SNMPv2-MIB", "SNMP-FRAMEWORK-MIB",
          "ENTITY-MIB", "ENTITY-SENSOR-MIB", "ENTITY-STATE-TC-MIB", "ENTITY-STATE-MIB",
          "KAV-PLATFORM-MIB", "KAV-PLATFORM-NOTIFICATIONS-MIB"}) {
        EXPECT_NE(which_module(module), -1) << module;
    }
}

TEST(MibModules, NameEveryArc)
{
    for (const char *root : mib_modules::roots) {
        const std::vector<tree *> nodes = below(root);
        ASSERT_FALSE(nodes.empty()) << root;
        for (const tree *node : nodes) {
            EXPECT_NE(std::string(node->label).substr(0, ANON_LEN), ANON) << oid_text(node);
        }
    }
}

// The parser skips a label that is one of its keywords without a word.
TEST(MibModules, LoseNoLabelInTheParser)
{
    std::map<std::string, enumeration> written;
    for (const char *file : {"KAV-PLATFORM-MIB.txt", "KAV-PLATFORM-NOTIFICATIONS-MIB.txt"}) {
        written.merge(enumerations_written_in(mib_modules::source_dir() / "mibs" / file));
    }
    std::size_t compared = 0;
    for (const tree *node : below(mib_modules::platform_root)) {
        if (node->enums == nullptr || node->tc_index >= 0) {
            continue;
        }
        const auto found = written.find(node->label);
        ASSERT_NE(found, written.end()) << node->label;
        EXPECT_EQ(labels_of(node), found->second) << node->label;
        ++compared;
    }
    EXPECT_EQ(compared, written.size());
    EXPECT_GT(compared, 0U);
}

TEST(MibModules, DescribeEveryObjectOfThePlatform)
{
    std::size_t objects = 0;
    for (const tree *node : below(mib_modules::platform_root)) {
        if (is_object(node)) {
            ++objects;
            EXPECT_TRUE(node->description != nullptr && node->description[0] != '\0')
                << node->label;
        }
    }
    EXPECT_GT(objects, 0U);
}

TEST(MibModules, LetNothingOfThePlatformBeSet)
{
    for (const tree *node : below(mib_modules::platform_root)) {
        if (is_object(node)) {
            const bool is_index = std::string(node->label) == "kavPlatDiscreteStateNumber";
            EXPECT_EQ(node->access, is_index ? MIB_ACCESS_NOACCESS : MIB_ACCESS_READONLY)
                << node->label;
        }
    }
}

TEST(MibModules, ShowValuesByTheirNames)
{
    EXPECT_EQ(shown("KAV-PLATFORM-MIB::kavPlatEquipmentSeverity.7", 1),
              "KAV-PLATFORM-MIB::kavPlatEquipmentSeverity.7 = INTEGER: critical(1)");
    EXPECT_EQ(shown("KAV-PLATFORM-MIB::kavPlatEquipmentStateUnknown.7", 2),
              "KAV-PLATFORM-MIB::kavPlatEquipmentStateUnknown.7 = INTEGER: false(2)");
    EXPECT_EQ(shown("KAV-PLATFORM-MIB::kavPlatSensorType.7", 5),
              "KAV-PLATFORM-MIB::kavPlatSensorType.7 = INTEGER: electricCurrent(5)");
    EXPECT_EQ(shown("KAV-PLATFORM-MIB::kavPlatNumericSensorReading.7", -12500),
              "KAV-PLATFORM-MIB::kavPlatNumericSensorReading.7 = INTEGER: -12500 scaled units");
    EXPECT_EQ(shown("KAV-PLATFORM-MIB::kavPlatNumericSensorThresholds.7", ASN_OCTET_STR, "\x24"),
              "KAV-PLATFORM-MIB::kavPlatNumericSensorThresholds.7 = BITS: 24 lowerCritical(2) "
              "upperFatal(5) ");
    EXPECT_EQ(shown("KAV-PLATFORM-MIB::kavPlatBinarySensorTextTrue.7", ASN_OCTET_STR, "Present"),
              "KAV-PLATFORM-MIB::kavPlatBinarySensorTextTrue.7 = STRING: Present");
    EXPECT_EQ(shown("KAV-PLATFORM-MIB::kavPlatStartTime.0", ASN_OCTET_STR,
                    std::string("\x07\xea\x0b\x15\x00\x33\x27\x00", 8)),
              "KAV-PLATFORM-MIB::kavPlatStartTime.0 = STRING: 2026-11-21,0:51:39.0");
    EXPECT_EQ(shown("ENTITY-MIB::entPhysicalClass.7", 8),
              "ENTITY-MIB::entPhysicalClass.7 = INTEGER: sensor(8)");
    EXPECT_EQ(shown("ENTITY-MIB::entPhysicalName.7", ASN_OCTET_STR, "/SYS/MB"),
              "ENTITY-MIB::entPhysicalName.7 = STRING: /SYS/MB");
}

} // namespace

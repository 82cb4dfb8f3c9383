#include "described/format/component_types.h"
#include "written_files.h"

#include <gtest/gtest.h>
#include <map>
#include <sstream>
#include <vector>

using described_platform::component_kind;
using described_platform::component_type;

namespace
{

struct row {
    std::string number;
    std::string kind;
    std::string physical_class;
    std::string text;
};

std::string trimmed(const std::string &cell)
{
    const size_t begin = cell.find_first_not_of(' ');
    const size_t end = cell.find_last_not_of(' ');
    return begin == std::string::npos ? "" : cell.substr(begin, end - begin + 1);
}

/* The rows of the table below the catalogue's heading, by name. */
std::map<std::string, row> documented_types()
{
    std::map<std::string, row> result;
    std::istringstream lines(written::reference());
    bool inside = false;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("## ")) {
            inside = line == "## The catalogue of component types";
        }
        if (!inside || !line.starts_with("| `")) {
            continue;
        }
        std::vector<std::string> cells;
        std::istringstream rest(line.substr(1));
        for (std::string cell; std::getline(rest, cell, '|');) {
            cells.push_back(trimmed(cell));
        }
        if (cells.size() != 5 || cells[0].size() < 3) {
            ADD_FAILURE() << "a row of five cells was expected: " << line;
            continue;
        }
        const std::string name = cells[0].substr(1, cells[0].size() - 2);
        EXPECT_TRUE(result.emplace(name, row{cells[1], cells[2], cells[3], cells[4]}).second)
            << name << " has two rows";
    }
    return result;
}

const char *kind_name(component_kind kind)
{
    switch (kind) {
    case component_kind::sensor:
        return "sensor";
    case component_kind::indicator:
        return "indicator";
    case component_kind::plain:
        break;
    }
    return "plain";
}

const char *class_name(physical_class of)
{
    static constexpr const char *names[] = {"",          "other",     "unknown",     "chassis",
                                            "backplane", "container", "powerSupply", "fan",
                                            "sensor",    "module"};
    return names[of];
}

} // namespace

TEST(CatalogueDoc, EveryTypeHasItsRow)
{
    const auto documented = documented_types();
    for (const component_type &type : described_platform::component_types()) {
        const auto found = documented.find(type.name);
        ASSERT_NE(found, documented.end()) << type.name << " is not in docs/description.md";
        EXPECT_EQ(found->second.number, std::to_string(type.number)) << type.name;
        EXPECT_EQ(found->second.kind, kind_name(type.kind)) << type.name;
        EXPECT_EQ(found->second.text, type.text) << type.name;
    }
}

TEST(CatalogueDoc, EveryRowIsAType)
{
    const auto documented = documented_types();
    EXPECT_GE(documented.size(), 50U);
    for (const auto &[name, unused] : documented) {
        EXPECT_NE(described_platform::find_component_type(name), nullptr) << name;
    }
}

TEST(CatalogueDoc, SaysWhatIsSaidOfUnlistedNumbers)
{
    const std::string quoted =
        '"' + std::string(described_platform::unlisted_component_text()) + '"';
    EXPECT_NE(written::reference().find(quoted), std::string::npos) << quoted;
}

TEST(CatalogueDoc, GivesTheClassOfEachType)
{
    const auto documented = documented_types();
    for (const auto &[name, row] : documented) {
        const component_type *type = described_platform::find_component_type(name);
        ASSERT_NE(type, nullptr) << name;
        EXPECT_EQ(row.physical_class, class_name(class_of(*type))) << name;
    }
}

TEST(CatalogueDoc, NamesTheNumbersOfAClassThatNoNameHas)
{
    std::map<std::string, std::string> unnamed; // by class: "1, 2 and 3"
    for (uint32_t number = 0; number < 100000; number++) {
        const physical_class of = physical_class_of_type(number);
        if (of != PHYSICAL_CLASS_OTHER &&
            described_platform::find_component_type(number) == nullptr) {
            std::string &list = unnamed[class_name(of)];
            list += (list.empty() ? "" : ", ") + std::to_string(number);
        }
    }
    EXPECT_FALSE(unnamed.empty());
    for (auto &[of, list] : unnamed) {
        if (const size_t last = list.rfind(", "); last != std::string::npos) {
            list.replace(last, 2, " and ");
        }
        const std::string quoted = list + " are of class " + of;
        EXPECT_NE(written::reference().find(quoted), std::string::npos) << quoted;
    }
}

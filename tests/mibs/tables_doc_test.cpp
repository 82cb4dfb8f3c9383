// docs/tables.md against the MIB modules, in both directions: a manager's
// programmer reads the one and programs the other.
#include "mib_modules.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <optional>
#include <regex>
#include <set>
#include <sstream>

namespace
{

using mib_modules::below;
using mib_modules::is_object;
using mib_modules::oid_text;

struct described_object {
    std::string name;
    std::string oid;
    std::string syntax;
    std::string access;

    auto operator<=>(const described_object &) const = default;
};

void PrintTo(const described_object &object, std::ostream *out)
{
    *out << object.name << " " << object.oid << " [" << object.syntax << "] " << object.access;
}

struct described_table {
    std::string oid;
    std::string indexes;

    auto operator<=>(const described_table &) const = default;
};

void PrintTo(const described_table &table, std::ostream *out)
{
    *out << table.oid << " indexed by " << table.indexes;
}

// What both sides are brought to: by the names of tables and of objects.
struct description {
    std::map<std::string, described_table> tables;
    std::map<std::string, described_object> objects;
};

// ---- The modules' side

std::string type_name(const tree *node)
{
    if (node->tc_index >= 0) {
        return get_tc_descriptor(node->tc_index);
    }
    switch (node->type) {
    case TYPE_OBJID:
        return "OBJECT IDENTIFIER";
    case TYPE_OCTETSTR:
        return "OCTET STRING";
    case TYPE_INTEGER:
        return "INTEGER";
    case TYPE_INTEGER32:
        return "Integer32";
    case TYPE_GAUGE:
        return "Gauge32";
    case TYPE_UNSIGNED32:
        return "Unsigned32";
    case TYPE_TIMETICKS:
        return "TimeTicks";
    case TYPE_BITSTRING:
        return "BITS";
    default:
        return "type " + std::to_string(node->type);
    }
}

std::string syntax_of(const tree *node)
{
    std::string text = type_name(node);
    if (node->ranges != nullptr) {
        std::string ranges;
        for (const range_list *range = node->ranges; range != nullptr; range = range->next) {
            ranges += ranges.empty() ? "" : " or ";
            ranges += std::to_string(range->low);
            if (range->high != range->low) {
                ranges += ".." + std::to_string(range->high);
            }
        }
        text += " (" + ranges + ")";
    }
    if (node->enums != nullptr && node->tc_index < 0) {
        std::map<int, std::string> labels;
        for (const enum_list *entry = node->enums; entry != nullptr; entry = entry->next) {
            labels[entry->value] = entry->label;
        }
        std::string list;
        for (const auto &[value, label] : labels) {
            list += (list.empty() ? ": " : ", ") + label + "(" + std::to_string(value) + ")";
        }
        text += list;
    }
    return text;
}

std::string access_of(const tree *node)
{
    switch (node->access) {
    case MIB_ACCESS_READONLY:
        return "read-only";
    case MIB_ACCESS_READWRITE:
        return "read-write";
    case MIB_ACCESS_NOACCESS:
        return "not-accessible";
    default:
        return "access " + std::to_string(node->access);
    }
}

description of_the_modules()
{
    description result;
    for (const char *root : mib_modules::roots) {
        for (const tree *node : below(root)) {
            if (is_object(node)) {
                result.objects[node->label] = {node->label, oid_text(node), syntax_of(node),
                                               access_of(node)};
                const bool is_column = node->parent != nullptr && node->parent->indexes != nullptr;
                if (!is_column) {
                    result.tables[node->label] = {oid_text(node), "a scalar"};
                }
            } else if (node->indexes != nullptr) {
                std::string indexes;
                for (const index_list *i = node->indexes; i != nullptr; i = i->next) {
                    indexes += (indexes.empty() ? "" : ", ") + std::string(i->ilabel);
                }
                result.tables[node->parent->label] = {oid_text(node->parent), indexes};
            }
        }
    }
    return result;
}

// ---- The page's side

std::string without_backquotes(std::string text)
{
    std::erase(text, '`');
    return text;
}

std::vector<std::string> cells_of(const std::string &line)
{
    std::vector<std::string> cells;
    std::istringstream in(line);
    std::string cell;
    std::getline(in, cell, '|');
    while (std::getline(in, cell, '|')) {
        const std::size_t first = cell.find_first_not_of(' ');
        const std::size_t last = cell.find_last_not_of(' ');
        cells.push_back(first == std::string::npos ? "" : cell.substr(first, last - first + 1));
    }
    return cells;
}

// Reads the page; whatever in it does not have the form that the test can
// compare is reported as a failure of the test.
description of_the_page()
{
    const std::filesystem::path file = mib_modules::source_dir() / "docs" / "tables.md";
    std::ifstream in(file);
    EXPECT_TRUE(in) << file;

    const std::regex heading(R"(## .*`(\w+)`)");
    const std::regex place(R"(OID `([0-9.]+)`, (?:index ([^.]*)|(a scalar))\.)");
    description result;
    std::string table;
    std::string line;
    std::smatch match;
    for (int number = 1; std::getline(in, line); ++number) {
        const std::string where = "docs/tables.md:" + std::to_string(number);
        if (std::regex_match(line, match, heading)) {
            table = match[1];
            EXPECT_FALSE(result.tables.contains(table)) << where << ": a second " << table;
            result.tables[table] = {};
        } else if (line.starts_with("OID ")) {
            if (!std::regex_match(line, match, place) || !result.tables.contains(table)) {
                ADD_FAILURE() << where << ": not of the form OID `...`, index `...`.";
                continue;
            }
            result.tables[table] = {match[1],
                                    without_backquotes(match[2].matched ? match[2] : match[3])};
        } else if (line.starts_with("|") && !line.starts_with("| # ") &&
                   !line.starts_with("|---")) {
            const std::vector<std::string> cells = cells_of(line);
            if (cells.size() != 7) {
                ADD_FAILURE() << where << ": " << cells.size() << " cells instead of 7";
                continue;
            }
            for (const std::string &cell : cells) {
                EXPECT_FALSE(cell.empty()) << where << ": an empty cell";
            }
            const std::string name = without_backquotes(cells[1]);
            const bool is_scalar = result.tables[table].indexes == "a scalar";
            EXPECT_EQ(cells[0] == "0", is_scalar) << where;
            EXPECT_FALSE(result.objects.contains(name)) << where << ": a second " << name;
            const std::string &oid = result.tables[table].oid;
            result.objects[name] = {name, is_scalar ? oid : oid + ".1." + cells[0], cells[2],
                                    cells[3]};
        }
    }
    return result;
}

template <typename T>
void expect_all_of_in(const std::map<std::string, T> &some, const std::map<std::string, T> &others,
                      const char *lacking)
{
    EXPECT_FALSE(some.empty());
    for (const auto &[name, one] : some) {
        const auto other = others.find(name);
        if (other == others.end()) {
            ADD_FAILURE() << name << " is not in " << lacking;
            continue;
        }
        EXPECT_EQ(one, other->second) << name;
    }
}

TEST(TablesDoc, HasEveryTableOfTheModulesWithItsOidAndIndexes)
{
    expect_all_of_in(of_the_modules().tables, of_the_page().tables, "docs/tables.md");
}

TEST(TablesDoc, HasEveryObjectOfTheModulesWithItsOidSyntaxAndAccess)
{
    expect_all_of_in(of_the_modules().objects, of_the_page().objects, "docs/tables.md");
}

TEST(TablesDoc, HasNoTableThatTheModulesLack)
{
    expect_all_of_in(of_the_page().tables, of_the_modules().tables, "the modules");
}

TEST(TablesDoc, HasNoObjectThatTheModulesLack)
{
    expect_all_of_in(of_the_page().objects, of_the_modules().objects, "the modules");
}

// A name in the running text that no module has misleads a reader as much.
TEST(TablesDoc, NamesOnlyObjectsThatExist)
{
    const description modules = of_the_modules();
    std::ifstream in(mib_modules::source_dir() / "docs" / "tables.md");
    const std::regex name("`((?:kavPlat|ent[A-Z])\\w*)`");
    std::size_t names = 0;
    for (std::string line; std::getline(in, line);) {
        for (std::sregex_iterator it(line.begin(), line.end(), name), end; it != end; ++it) {
            ++names;
            EXPECT_TRUE(modules.objects.contains((*it)[1]) || modules.tables.contains((*it)[1]))
                << (*it)[1];
        }
    }
    EXPECT_GT(names, 0U);
}

} // namespace

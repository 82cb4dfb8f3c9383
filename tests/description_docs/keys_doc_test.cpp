#include "described/format/codes.h"
#include "described/format/loader.h"
#include "written_files.h"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <set>
#include <sstream>
#include <unistd.h>
#include <vector>

using namespace described_platform;
using nlohmann::json;

namespace
{

/* The names under every "properties" of the schema. */
void collect_keys(const json &node, std::set<std::string> &keys)
{
    if (node.is_object()) {
        for (const auto &[name, below] : node.items()) {
            /* The keyword, not a key of that name: its members are schemas. */
            if (name == "properties") {
                for (const auto &[key, unused] : below.items()) {
                    keys.insert(key);
                }
            }
            collect_keys(below, keys);
        }
    }
}

std::vector<std::string> json_examples()
{
    std::vector<std::string> result;
    std::istringstream lines(written::reference());
    bool inside = false;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("```")) {
            inside = line == "```json";
            if (inside) {
                result.emplace_back();
            }
        } else if (inside) {
            result.back() += line + '\n';
        }
    }
    return result;
}

struct temporary_directory {
    std::string path = (std::filesystem::temp_directory_path() / "kavplat-doc-XXXXXX").string();
    temporary_directory()
    {
        if (::mkdtemp(path.data()) == nullptr) {
            throw std::runtime_error("no temporary directory");
        }
    }
    temporary_directory(const temporary_directory &) = delete;
    temporary_directory &operator=(const temporary_directory &) = delete;
    ~temporary_directory() { std::filesystem::remove_all(path); }
};

testing::AssertionResult is_documented(const std::string &name)
{
    static const std::string text = written::reference();
    if (text.find('`' + name + '`') != std::string::npos) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << '`' << name << "` is not in docs/description.md";
}

testing::AssertionResult are_documented(code_table names)
{
    for (const named_code &each : names) {
        if (auto found = is_documented(std::string(each.name)); !found) {
            return found;
        }
    }
    return testing::AssertionSuccess();
}

} // namespace

TEST(KeysDoc, EveryKeyOfTheSchemaIsExplained)
{
    std::set<std::string> keys;
    collect_keys(written::schema(), keys);
    EXPECT_GE(keys.size(), 35U);
    for (const std::string &key : keys) {
        EXPECT_TRUE(is_documented(key));
    }
}

TEST(KeysDoc, EveryNameOfACodeIsExplained)
{
    EXPECT_TRUE(are_documented(power_codes));
    EXPECT_TRUE(are_documented(ready_codes));
    EXPECT_TRUE(are_documented(enable_codes));
    EXPECT_TRUE(are_documented(indicator_codes));
    EXPECT_TRUE(are_documented(meaning_codes));
    EXPECT_TRUE(are_documented(sensor_class_codes));
    EXPECT_TRUE(are_documented(sensor_type_codes));
    EXPECT_TRUE(are_documented(sensor_units_codes));
    EXPECT_TRUE(are_documented(discrete_codes));
    EXPECT_TRUE(are_documented(state_codes));
    EXPECT_TRUE(are_documented(truth_codes));
}

TEST(KeysDoc, EveryCapabilityHasItsByteAndMask)
{
    const std::string text = written::reference();
    for (const named_capability &each : capability_names) {
        std::ostringstream row;
        row << "| `" << each.name << "` | " << unsigned{each.byte} << ", 0x0" << std::hex
            << unsigned{each.mask} << " |";
        EXPECT_NE(text.find(row.str()), std::string::npos) << row.str();
    }
}

TEST(KeysDoc, ExamplesAreGood)
{
    const temporary_directory directory;
    size_t whole = 0;
    for (const std::string &example : json_examples()) {
        const json document = json::parse(example, nullptr, false);
        ASSERT_FALSE(document.is_discarded()) << example;
        if (!document.contains("components")) {
            continue; /* a part of a description */
        }
        ++whole;
        const std::string path = directory.path + "/server.json";
        std::ofstream(path) << example;
        const load_result result = load_description(path);
        for (const load_error &error : result.errors) {
            ADD_FAILURE() << to_text("example", error);
        }
        ASSERT_NE(result.loaded, nullptr);
    }
    EXPECT_GE(whole, 1U);
}

/*
 * The loader judges descriptions; the schema helps to write them. So whatever
 * the schema refuses the loader must refuse, or an editor marks what is good.
 * Held over the fuzzer's corpus, and over documents with one thing changed.
 */
#include "described/format/loader.h"
#include "schema_check.h"
#include "written_files.h"

#include <filesystem>
#include <functional>
#include <gtest/gtest.h>

using namespace described_platform;
using nlohmann::json;

namespace
{

struct verdicts {
    size_t both_good = 0;
    size_t both_bad = 0;
    size_t loader_alone_bad = 0;
};

void judge(const json &document, const std::string &which, verdicts &count)
{
    const auto by_schema = check_schema(document);
    const load_result by_loader = load_text(document.dump(), "/");
    if (by_schema.empty()) {
        ++(by_loader.loaded != nullptr ? count.both_good : count.loader_alone_bad);
        return;
    }
    ++count.both_bad;
    EXPECT_EQ(by_loader.loaded, nullptr)
        << which << ": " << by_schema.front().pointer << ": " << by_schema.front().message;
}

/* Values that are wrong in most places, and at the edge of right in some. */
const std::vector<json> &replacements()
{
    static const std::vector<json> all = [] {
        std::vector<json> result = {nullptr,
                                    true,
                                    false,
                                    -1,
                                    0,
                                    1,
                                    2,
                                    1.5,
                                    255,
                                    256,
                                    2147483647,
                                    2147483648,
                                    -2147483648,
                                    -2147483649,
                                    4294967295,
                                    4294967296,
                                    -1e300,
                                    "",
                                    "x",
                                    "/",
                                    "//",
                                    "/A//B",
                                    "/A/",
                                    "true",
                                    "false",
                                    "1",
                                    "on",
                                    "ok",
                                    "absent",
                                    "threshold",
                                    json::array(),
                                    json::object(),
                                    json::array({1}),
                                    "/A\tB",
                                    "\x7f"};
        for (const size_t length : {50U, 51U, 63U, 64U, 79U, 80U, 255U, 256U, 4095U, 4096U}) {
            result.emplace_back("/" + std::string(length - 1, 'x'));
        }
        result.push_back({{"file", "f"}});
        result.push_back({{"file", "f"}, {"scale", "2"}});
        result.push_back({{"file", "f"}, {"factor", 2}});
        result.push_back({{"scale", 2}});
        result.push_back({"holder", "holder"});
        result.push_back({"holder", "edible"});
        return result;
    }();
    return all;
}

/* Each place of the document: without it, with something else in it, twice. */
void mutate(const json &document, const json::json_pointer &here,
            const std::function<void(const json &, const std::string &)> &visit)
{
    const json &value = document.at(here);
    const auto changed = [&](const char *how, const std::function<void(json &)> &change) {
        json copy = document;
        change(copy.at(here));
        visit(copy, here.to_string() + " " + how);
    };
    for (const json &other : replacements()) {
        changed(other.dump().c_str(), [&](json &place) { place = other; });
    }
    if (value.is_object()) {
        changed("with a key more", [](json &place) { place["colour"] = 1; });
        for (const auto &[key, below] : value.items()) {
            changed(("without " + key).c_str(), [&name = key](json &place) { place.erase(name); });
            mutate(document, here / key, visit);
        }
    } else if (value.is_array()) {
        for (size_t i = 0; i < value.size(); ++i) {
            changed("with one more", [&](json &place) { place.push_back(json(value[i])); });
            changed("with one less", [&](json &place) { place.erase(i); });
            mutate(document, here / i, visit);
        }
    }
}

/* One component of each kind, and every key. */
const char *const whole = R"({
  "$schema": "server.schema.json",
  "product": {"model": "M", "serial": "S", "description": "D", "vantor_id": "V"},
  "chassis": {"model": "M", "serial": "S", "description": "D", "manufacturer": "F",
              "vantor_id": "V"},
  "components": [
    {"name": "/SYS", "type": 3, "capabilities": ["holder", "fru-info"],
     "capability_bytes": [1, 0, 0, 0, 0, 0, 0, 0, 0, 255],
     "fru": {"model": "M", "manufacturer": "F", "serial": "S", "alias": "A",
             "software_revision": "R"},
     "interface": "eth0", "power": "on", "ready_to_remove": true, "enable": 2},
    {"name": "/SYS/T", "type": "temperature-sensor", "sensor": {
      "class": "threshold", "type": "temperature", "units": "degrees-c", "current": "direct",
      "reading": {"file": "t", "scale": 0.001, "offset": -1}, "raw_reading": 255,
      "valid": false, "state": "ok", "ok_semantics": true, "record_name": "T",
      "thresholds": {"upper_fatal": 1, "upper_critical": 2, "upper_non_critical": 3,
                     "lower_fatal": 4, "lower_critical": 5, "lower_non_critical": 6}}},
    {"name": "/SYS/P", "type": 22, "sensor": {"class": 2, "type": 7, "reading": "present"}},
    {"name": "/SYS/L", "type": "led", "indicator": {"state": "slow-blink", "means": "service"}}]})";

} // namespace

TEST(OneJudge, RefusesOfTheCorpusWhatTheSchemaRefuses)
{
    verdicts count;
    for (const char *const folder : {"tests/fuzz/corpus/description", "servers"}) {
        for (const auto &each : std::filesystem::directory_iterator(written::path_of(folder))) {
            std::istringstream texts(
                written::text_of(folder + ("/" + each.path().filename().string())));
            for (std::string text; std::getline(texts, text, '\0');) {
                const json document = json::parse(text, nullptr, false);
                if (!document.is_discarded()) {
                    judge(document, each.path().filename(), count);
                }
            }
        }
    }
    EXPECT_GE(count.both_good, 10U);
    EXPECT_GE(count.both_bad, 50U);
}

TEST(OneJudge, RefusesOfMutantsWhatTheSchemaRefuses)
{
    verdicts count;
    mutate(json::parse(whole), json::json_pointer(),
           [&](const json &mutant, const std::string &how) { judge(mutant, how, count); });
    /* The schema is of use: it sees most of what is wrong. */
    EXPECT_GE(count.both_good, 300U);
    EXPECT_GE(count.both_bad, 2000U);
    EXPECT_LE(count.loader_alone_bad, count.both_bad / 4);
    RecordProperty("mutants",
                   static_cast<int>(count.both_good + count.both_bad + count.loader_alone_bad));
}

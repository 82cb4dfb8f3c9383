#include "described/watch/differ.h"

#include "described/format/loader.h"
#include "described/support.h"
#include "platform/event_mgr.h"

using namespace described_platform;
using namespace described_platform_test;

namespace
{

class differ : public platform_test
{
  protected:
    std::unique_ptr<const description> parse(const std::string &text)
    {
        write_file(path, text);
        load_result result = load_description(path);
        EXPECT_NE(nullptr, result.loaded) << to_text("", result.errors.at(0));
        return std::move(result.loaded);
    }

    std::vector<delivered> between(const std::string &before, const std::string &after)
    {
        const auto old = parse(before);
        const auto now = parse(after);
        std::vector<delivered> result;
        for (const auto &each : differences(old.get(), *now)) {
            result.push_back({each.event_class, each.event, each.payload});
        }
        return result;
    }

    static delivered removed(const std::string &name) { return {105, 3, name}; }
    static delivered inserted(const std::string &name) { return {105, 2, name}; }
    static delivered refreshed(const std::string &name) { return {118, 3, name}; }
    static delivered updated(const std::string &name) { return {105, 10, name}; }
};

using events = std::vector<delivered>;

std::string plain(const std::string &name, const std::string &more = "")
{
    return R"({"name": ")" + name + R"(", "type": 9)" + more + "}";
}

std::string sensor_at(const std::string &name, const std::string &more = "",
                      const std::string &reading = "1")
{
    return R"({"name": ")" + name + R"(", "type": 16, "sensor": {"class": 1, "type": 1,
        "reading": )" +
           reading + more + "}}";
}

const std::string board = plain("/SYS/MB") + "," + plain("/SYS/MB/A") + "," + plain("/SYS/MB/A/X");

TEST_F(differ, the_same_is_no_event)
{
    EXPECT_EQ(events{}, between(described(board), described(board)));
}

TEST_F(differ, another_order_of_siblings_is_no_event)
{
    EXPECT_EQ(events{}, between(described(plain("/SYS/A") + "," + plain("/SYS/B")),
                                described(plain("/SYS/B") + "," + plain("/SYS/A"))));
}

TEST_F(differ, only_the_top_of_a_subtree_comes_and_goes)
{
    EXPECT_EQ(events{inserted("/SYS/MB")}, between(described(""), described(board)));
    EXPECT_EQ(events{removed("/SYS/MB")}, between(described(board), described("")));
    EXPECT_EQ(events{removed("/SYS/MB/A")}, between(described(board), described(plain("/SYS/MB"))));
    EXPECT_EQ(events{inserted("/SYS/MB/A")},
              between(described(plain("/SYS/MB")), described(board)));
}

TEST_F(differ, a_name_that_only_begins_alike_is_another_component)
{
    EXPECT_EQ(events{removed("/SYS/MB")},
              between(described(plain("/SYS/MB") + "," + plain("/SYS/MB2")),
                      described(plain("/SYS/MB2"))));
}

TEST_F(differ, changed_identity_goes_and_comes_with_all_below)
{
    const std::string rest = "," + plain("/SYS/MB/A") + "," + sensor_at("/SYS/MB/T");
    const std::string before = described(plain("/SYS/MB") + rest);
    const events expected{removed("/SYS/MB"), inserted("/SYS/MB")};
    for (const char *change :
         {R"(, "fru": {"serial": "1"})", R"(, "capabilities": ["holder"])",
          R"(, "interface": "eth0")", R"(, "capability_bytes": [0,0,0,0,0,0,0,0,1,0])"}) {
        EXPECT_EQ(expected, between(before, described(plain("/SYS/MB", change) + rest))) << change;
        EXPECT_EQ(expected, between(described(plain("/SYS/MB", change) + rest), before)) << change;
    }
    EXPECT_EQ(expected, between(before, described(R"({"name": "/SYS/MB", "type": 10})" + rest)));
    EXPECT_EQ(expected, between(described(plain("/SYS/MB", R"(, "fru": {"serial": "1"})")),
                                described(plain("/SYS/MB", R"(, "fru": {"serial": "2"})"))));
}

TEST_F(differ, another_meaning_of_an_indicator_is_another_identity)
{
    const auto led = [](const char *means) {
        return described(R"({"name": "/SYS/L", "type": "led", "indicator": {"state": 1)" +
                         std::string(means) + "}}");
    };
    const std::string service = led(R"(, "means": "service")");
    const events expected{removed("/SYS/L"), inserted("/SYS/L")};
    EXPECT_EQ(expected, between(led(""), service));
    EXPECT_EQ(expected, between(led(R"(, "means": "fault")"), service));
    EXPECT_EQ(expected, between(service, led("")));
}

TEST_F(differ, what_changes_below_a_component_that_comes_anew_is_not_told_apart)
{
    EXPECT_EQ(
        (events{removed("/SYS/MB"), inserted("/SYS/MB")}),
        between(
            described(plain("/SYS/MB") + "," + plain("/SYS/MB/A") + "," + sensor_at("/SYS/MB/T")),
            described(plain("/SYS/MB", R"(, "fru": {})") + "," + plain("/SYS/MB/B") + "," +
                      sensor_at("/SYS/MB/T", R"(, "thresholds": {"lower_fatal": 1})"))));
}

TEST_F(differ, changed_thresholds_refresh_the_sensor)
{
    const std::string none = described(sensor_at("/SYS/T"));
    const std::string zero =
        described(sensor_at("/SYS/T", R"(, "thresholds": {"lower_fatal": 0})"));
    const std::string one = described(sensor_at("/SYS/T", R"(, "thresholds": {"lower_fatal": 1})"));
    EXPECT_EQ(events{refreshed("/SYS/T")}, between(none, zero)) << "given, though the value is 0";
    EXPECT_EQ(events{refreshed("/SYS/T")}, between(zero, one));
    EXPECT_EQ(events{refreshed("/SYS/T")}, between(one, none));
    EXPECT_EQ(events{}, between(one, one));
}

TEST_F(differ, another_root_goes_and_comes)
{
    const std::string other = R"({"components": [{"name": "/CH", "type": "system"}]})";
    const std::string typed = R"({"components": [{"name": "/SYS", "type": "chassis"}]})";
    EXPECT_EQ((events{removed("/SYS"), inserted("/CH")}), between(described(board), other));
    EXPECT_EQ((events{removed("/SYS"), inserted("/SYS")}), between(described(""), typed));
}

TEST_F(differ, removals_come_first_then_insertions_then_refreshes_then_the_update)
{
    EXPECT_EQ((events{removed("/SYS/GONE"), removed("/SYS/SWAP"), inserted("/SYS/SWAP"),
                      inserted("/SYS/NEW"), refreshed("/SYS/T"), updated("/SYS")}),
              between(described(sensor_at("/SYS/T") + "," + plain("/SYS/GONE") + "," +
                                plain("/SYS/SWAP")),
                      described(sensor_at("/SYS/T", R"(, "thresholds": {"lower_fatal": 1})") + "," +
                                    plain("/SYS/SWAP", R"(, "fru": {})") + "," + plain("/SYS/NEW"),
                                R"(, "chassis": {})")));
}

TEST_F(differ, from_nothing_the_root_comes)
{
    const auto now = parse(described(board));
    const auto all = differences(nullptr, *now);
    ASSERT_EQ(1U, all.size());
    EXPECT_EQ((event{EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_HOT_INSERT, "/SYS"}), all[0]);
}

} // namespace

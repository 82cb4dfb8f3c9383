#include "described/format/component_types.h"

#include "platform/capi.h"

#include <gtest/gtest.h>
#include <map>
#include <set>
#include <string>

using namespace described_platform;

namespace
{

enum entity_class {
    other = 1,
    unknown = 2,
    chassis = 3,
    backplane = 4,
    container = 5,
    power_supply = 6,
    fan = 7,
    sensor_class = 8,
    module = 9
};

/* Which class libPlatformMIB gives to a component type that is neither sensor
 * nor indicator; all other numbers are class other. */
const std::map<entity_class, std::set<uint32_t>> class_table = {
    {container, {6,   7,   8,   14,  33,  34,  35,  41,  55,  56,  82,  104, 105,
                 138, 139, 152, 153, 154, 155, 156, 157, 159, 160, 163, 176}},
    {chassis, {2, 3}},
    {backplane, {48, 158, 164}},
    {module,
     {9, 10, 15, 29, 40, 47, 52, 83, 88, 89, 90, 95, 98, 103, 115, 149, 161, 162, 165, 173, 174}},
    {power_supply, {4, 44, 45, 94}},
    {fan, {12, 13, 42, 43, 106, 107, 108}},
    {unknown, {0, 92, 99}},
};

entity_class class_of(const component_type &type)
{
    if (type.kind == component_kind::sensor) {
        return sensor_class;
    }
    if (type.kind == component_kind::plain) {
        for (const auto &[which, numbers] : class_table) {
            if (numbers.contains(type.number)) {
                return which;
            }
        }
    }
    return other;
}

/* What each name promises to whoever writes a description. */
const std::map<std::string, entity_class> promised = {
    {"chassis", chassis},
    {"system", chassis},
    {"rack-slot", container},
    {"board-slot", container},
    {"cpu-socket", container},
    {"drive-bay", container},
    {"dimm-slot", container},
    {"pcie-slot", container},
    {"psu-bay", container},
    {"fan-bay", container},
    {"blade-slot", container},
    {"drive-cage", container},
    {"riser-slot", container},
    {"mezzanine-slot", container},
    {"m2-slot", container},
    {"network-module-slot", container},
    {"battery-holder", container},
    {"enclosure", container},
    {"sd-card-slot", container},
    {"transceiver-cage", container},
    {"backplane", backplane},
    {"drive-backplane", backplane},
    {"power-backplane", backplane},
    {"midplane", other},
    {"system-board", module},
    {"cpu-board", module},
    {"memory-module", module},
    {"io-module", module},
    {"processor", module},
    {"riser-card", module},
    {"pcie-card", module},
    {"network-adapter", module},
    {"storage-controller", module},
    {"service-processor", module},
    {"memory-riser", module},
    {"power-distribution-board", module},
    {"fan-board", module},
    {"blade", module},
    {"front-panel", module},
    {"accelerator", module},
    {"trusted-module", module},
    {"transceiver", module},
    {"switch-module", module},
    {"disk-controller-cache", module},
    {"management-module", module},
    {"power-supply", power_supply},
    {"ac-power-supply", power_supply},
    {"dc-power-supply", power_supply},
    {"battery", power_supply},
    {"fan", fan},
    {"fan-module", fan},
    {"blower", fan},
    {"fan-tray", fan},
    {"pump", fan},
    {"unknown", unknown},
    {"unidentified-device", unknown},
    {"unidentified-module", unknown},
    {"network-port", other},
    {"disk", other},
    {"solid-state-disk", other},
    {"nvme-disk", other},
    {"optical-drive", other},
    {"usb-port", other},
    {"serial-port", other},
    {"video-port", other},
    {"cable", other},
    {"processor-core", other},
    {"power-domain", other},
    {"cooling-domain", other},
    {"temperature-sensor", sensor_class},
    {"voltage-sensor", sensor_class},
    {"fault-sensor", sensor_class},
    {"predictive-sensor", sensor_class},
    {"current-sensor", sensor_class},
    {"tachometer", sensor_class},
    {"presence-sensor", sensor_class},
    {"state-sensor", sensor_class},
    {"power-sensor", sensor_class},
    {"humidity-sensor", sensor_class},
    {"slot-identity", sensor_class},
    {"usage-sensor", sensor_class},
    {"frequency-sensor", sensor_class},
    {"led", other},
    {"locate-led", other},
    {"fault-led", other},
    {"ready-to-remove-led", other},
    {"power-led", other},
};

TEST(component_types, every_name_has_the_class_that_it_promises)
{
    EXPECT_GE(component_types().size(), 50U);
    for (const component_type &type : component_types()) {
        const auto found = promised.find(type.name);
        ASSERT_NE(promised.end(), found) << type.name;
        EXPECT_EQ(found->second, class_of(type)) << type.name;
    }
    EXPECT_EQ(promised.size(), component_types().size());
}

TEST(component_types, names_and_numbers_find_their_own_line_and_no_other)
{
    std::set<std::string> names;
    std::set<uint32_t> numbers;
    for (const component_type &type : component_types()) {
        EXPECT_TRUE(names.insert(type.name).second) << type.name;
        EXPECT_TRUE(numbers.insert(type.number).second) << type.number;
        EXPECT_EQ(&type, find_component_type(std::string_view(type.name)));
        EXPECT_EQ(&type, find_component_type(type.number));
        EXPECT_NE('\0', type.text[0]) << type.name;
        EXPECT_EQ(type.kind, component_kind_of(type.number));
    }
    EXPECT_EQ(nullptr, find_component_type("no-such-type"));
    EXPECT_EQ(nullptr, find_component_type(4294967295U));
}

TEST(component_types, the_types_that_the_library_treats_apart_have_their_names)
{
    EXPECT_EQ(CAPI_TYPE_CHASSIS, find_component_type("chassis")->number);
    EXPECT_EQ(CAPI_TYPE_SYSTEM, find_component_type("system")->number);
    EXPECT_EQ(CAPI_TYPE_DRIVE_BAY, find_component_type("drive-bay")->number);
    EXPECT_EQ(CAPI_TYPE_FAULT_SENSOR, find_component_type("fault-sensor")->number);
    EXPECT_EQ(CAPI_TYPE_PREDICTIVE_SENSOR, find_component_type("predictive-sensor")->number);
    EXPECT_EQ(CAPI_TYPE_SLOT_IDENTITY, find_component_type("slot-identity")->number);
    EXPECT_EQ(CAPI_TYPE_MIDPLANE, find_component_type("midplane")->number);
}

TEST(component_types, kinds_reach_the_component_api_and_unlisted_numbers_are_plain)
{
    int32_t sensor = -1;
    int32_t indicator = -1;
    for (const component_type &type : component_types()) {
        ASSERT_EQ(0, capi_is_sensor_type(type.number, &sensor));
        ASSERT_EQ(0, capi_is_indicator_type(type.number, &indicator));
        EXPECT_EQ(type.kind == component_kind::sensor ? 1 : 0, sensor) << type.name;
        EXPECT_EQ(type.kind == component_kind::indicator ? 1 : 0, indicator) << type.name;
        const char *text = nullptr;
        ASSERT_EQ(0, capi_get_component_desc_str(type.number, &text));
        EXPECT_STREQ(type.text, text);
    }
    const char *text = nullptr;
    ASSERT_EQ(0, capi_get_component_desc_str(100000, &text));
    EXPECT_STREQ("Unspecified component", text);
    ASSERT_EQ(0, capi_is_sensor_type(100000, &sensor));
    ASSERT_EQ(0, capi_is_indicator_type(100000, &indicator));
    EXPECT_EQ(0, sensor);
    EXPECT_EQ(0, indicator);
}

} // namespace

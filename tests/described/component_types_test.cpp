#include "described/format/component_types.h"

#include "platform/capi.h"

#include <gtest/gtest.h>
#include <map>
#include <set>
#include <string>

using namespace described_platform;

namespace
{

/* What each name promises to whoever writes a description. */
const std::map<std::string, physical_class> promised = {
    {"chassis", PHYSICAL_CLASS_CHASSIS},
    {"system", PHYSICAL_CLASS_CHASSIS},
    {"rack-slot", PHYSICAL_CLASS_CONTAINER},
    {"board-slot", PHYSICAL_CLASS_CONTAINER},
    {"cpu-socket", PHYSICAL_CLASS_CONTAINER},
    {"drive-bay", PHYSICAL_CLASS_CONTAINER},
    {"dimm-slot", PHYSICAL_CLASS_CONTAINER},
    {"pcie-slot", PHYSICAL_CLASS_CONTAINER},
    {"psu-bay", PHYSICAL_CLASS_CONTAINER},
    {"fan-bay", PHYSICAL_CLASS_CONTAINER},
    {"blade-slot", PHYSICAL_CLASS_CONTAINER},
    {"drive-cage", PHYSICAL_CLASS_CONTAINER},
    {"riser-slot", PHYSICAL_CLASS_CONTAINER},
    {"mezzanine-slot", PHYSICAL_CLASS_CONTAINER},
    {"m2-slot", PHYSICAL_CLASS_CONTAINER},
    {"network-module-slot", PHYSICAL_CLASS_CONTAINER},
    {"battery-holder", PHYSICAL_CLASS_CONTAINER},
    {"enclosure", PHYSICAL_CLASS_CONTAINER},
    {"sd-card-slot", PHYSICAL_CLASS_CONTAINER},
    {"transceiver-cage", PHYSICAL_CLASS_CONTAINER},
    {"backplane", PHYSICAL_CLASS_BACKPLANE},
    {"drive-backplane", PHYSICAL_CLASS_BACKPLANE},
    {"power-backplane", PHYSICAL_CLASS_BACKPLANE},
    {"midplane", PHYSICAL_CLASS_OTHER},
    {"system-board", PHYSICAL_CLASS_MODULE},
    {"cpu-board", PHYSICAL_CLASS_MODULE},
    {"memory-module", PHYSICAL_CLASS_MODULE},
    {"io-module", PHYSICAL_CLASS_MODULE},
    {"processor", PHYSICAL_CLASS_MODULE},
    {"riser-card", PHYSICAL_CLASS_MODULE},
    {"pcie-card", PHYSICAL_CLASS_MODULE},
    {"network-adapter", PHYSICAL_CLASS_MODULE},
    {"storage-controller", PHYSICAL_CLASS_MODULE},
    {"service-processor", PHYSICAL_CLASS_MODULE},
    {"memory-riser", PHYSICAL_CLASS_MODULE},
    {"power-distribution-board", PHYSICAL_CLASS_MODULE},
    {"fan-board", PHYSICAL_CLASS_MODULE},
    {"blade", PHYSICAL_CLASS_MODULE},
    {"front-panel", PHYSICAL_CLASS_MODULE},
    {"accelerator", PHYSICAL_CLASS_MODULE},
    {"trusted-module", PHYSICAL_CLASS_MODULE},
    {"transceiver", PHYSICAL_CLASS_MODULE},
    {"switch-module", PHYSICAL_CLASS_MODULE},
    {"disk-controller-cache", PHYSICAL_CLASS_MODULE},
    {"management-module", PHYSICAL_CLASS_MODULE},
    {"power-supply", PHYSICAL_CLASS_POWER_SUPPLY},
    {"ac-power-supply", PHYSICAL_CLASS_POWER_SUPPLY},
    {"dc-power-supply", PHYSICAL_CLASS_POWER_SUPPLY},
    {"battery", PHYSICAL_CLASS_POWER_SUPPLY},
    {"fan", PHYSICAL_CLASS_FAN},
    {"fan-module", PHYSICAL_CLASS_FAN},
    {"blower", PHYSICAL_CLASS_FAN},
    {"fan-tray", PHYSICAL_CLASS_FAN},
    {"pump", PHYSICAL_CLASS_FAN},
    {"unknown", PHYSICAL_CLASS_UNKNOWN},
    {"unidentified-device", PHYSICAL_CLASS_UNKNOWN},
    {"unidentified-module", PHYSICAL_CLASS_UNKNOWN},
    {"network-port", PHYSICAL_CLASS_OTHER},
    {"disk", PHYSICAL_CLASS_OTHER},
    {"solid-state-disk", PHYSICAL_CLASS_OTHER},
    {"nvme-disk", PHYSICAL_CLASS_OTHER},
    {"optical-drive", PHYSICAL_CLASS_OTHER},
    {"usb-port", PHYSICAL_CLASS_OTHER},
    {"serial-port", PHYSICAL_CLASS_OTHER},
    {"video-port", PHYSICAL_CLASS_OTHER},
    {"cable", PHYSICAL_CLASS_OTHER},
    {"processor-core", PHYSICAL_CLASS_OTHER},
    {"power-domain", PHYSICAL_CLASS_OTHER},
    {"cooling-domain", PHYSICAL_CLASS_OTHER},
    {"temperature-sensor", PHYSICAL_CLASS_SENSOR},
    {"voltage-sensor", PHYSICAL_CLASS_SENSOR},
    {"fault-sensor", PHYSICAL_CLASS_SENSOR},
    {"predictive-sensor", PHYSICAL_CLASS_SENSOR},
    {"current-sensor", PHYSICAL_CLASS_SENSOR},
    {"tachometer", PHYSICAL_CLASS_SENSOR},
    {"presence-sensor", PHYSICAL_CLASS_SENSOR},
    {"state-sensor", PHYSICAL_CLASS_SENSOR},
    {"power-sensor", PHYSICAL_CLASS_SENSOR},
    {"humidity-sensor", PHYSICAL_CLASS_SENSOR},
    {"slot-identity", PHYSICAL_CLASS_SENSOR},
    {"usage-sensor", PHYSICAL_CLASS_SENSOR},
    {"frequency-sensor", PHYSICAL_CLASS_SENSOR},
    {"led", PHYSICAL_CLASS_OTHER},
    {"locate-led", PHYSICAL_CLASS_OTHER},
    {"fault-led", PHYSICAL_CLASS_OTHER},
    {"ready-to-remove-led", PHYSICAL_CLASS_OTHER},
    {"power-led", PHYSICAL_CLASS_OTHER},
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

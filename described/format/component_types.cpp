#include "described/format/component_types.h"

#include <algorithm>

namespace described_platform
{
namespace
{

using enum component_kind;

/*
 * One line a type. The number decides the entPhysicalClass of a component
 * (platform/component_class.h), so a new type takes a number of the class that it is
 * listed under.
 */
// clang-format off
constexpr component_type catalogue[] = {
    /* class chassis */
    {"chassis", 2, "Chassis", plain},
    {"system", 3, "System", plain},
    /* class container */
    {"rack-slot", 6, "Rack slot", plain},
    {"board-slot", 7, "Board slot", plain},
    {"cpu-socket", 8, "CPU socket", plain},
    {"drive-bay", 14, "Drive bay", plain},
    {"dimm-slot", 33, "DIMM slot", plain},
    {"pcie-slot", 34, "PCIe slot", plain},
    {"psu-bay", 35, "Power supply bay", plain},
    {"fan-bay", 41, "Fan bay", plain},
    {"blade-slot", 55, "Blade slot", plain},
    {"drive-cage", 56, "Drive cage", plain},
    {"riser-slot", 82, "Riser slot", plain},
    {"mezzanine-slot", 104, "Mezzanine slot", plain},
    {"m2-slot", 105, "M.2 slot", plain},
    {"network-module-slot", 138, "Network module slot", plain},
    {"battery-holder", 139, "Battery holder", plain},
    {"enclosure", 152, "Enclosure", plain},
    {"sd-card-slot", 153, "SD card slot", plain},
    {"transceiver-cage", 154, "Transceiver cage", plain},
    /* class backplane */
    {"backplane", 48, "Backplane", plain},
    {"drive-backplane", 158, "Drive backplane", plain},
    {"power-backplane", 164, "Power backplane", plain},
    /* class other, with the texts of the chassis */
    {"midplane", 59, "Midplane", plain},
    /* class module */
    {"system-board", 9, "System board", plain},
    {"cpu-board", 10, "CPU board", plain},
    {"memory-module", 15, "Memory module", plain},
    {"io-module", 29, "I/O module", plain},
    {"processor", 40, "Processor", plain},
    {"riser-card", 47, "Riser card", plain},
    {"pcie-card", 52, "PCIe card", plain},
    {"network-adapter", 83, "Network adapter", plain},
    {"storage-controller", 88, "Storage controller", plain},
    {"service-processor", 89, "Service processor", plain},
    {"memory-riser", 90, "Memory riser", plain},
    {"power-distribution-board", 95, "Power distribution board", plain},
    {"fan-board", 98, "Fan board", plain},
    {"blade", 103, "Blade", plain},
    {"front-panel", 115, "Front panel", plain},
    {"accelerator", 149, "Accelerator", plain},
    {"trusted-module", 161, "Trusted platform module", plain},
    {"transceiver", 162, "Transceiver", plain},
    {"switch-module", 165, "Switch module", plain},
    {"disk-controller-cache", 173, "Disk controller cache module", plain},
    {"management-module", 174, "Management module", plain},
    /* class power supply */
    {"power-supply", 4, "Power supply", plain},
    {"ac-power-supply", 44, "AC power supply", plain},
    {"dc-power-supply", 45, "DC power supply", plain},
    {"battery", 94, "Battery", plain},
    /* class fan */
    {"fan", 12, "Fan", plain},
    {"fan-module", 13, "Fan module", plain},
    {"blower", 42, "Blower", plain},
    {"fan-tray", 43, "Fan tray", plain},
    {"pump", 106, "Coolant pump", plain},
    /* class unknown */
    {"unknown", 0, "Unknown component", plain},
    {"unidentified-device", 92, "Unidentified device", plain},
    {"unidentified-module", 99, "Unidentified module", plain},
    /* class other */
    {"network-port", 11, "Network port", plain},
    {"disk", 60, "Disk", plain},
    {"solid-state-disk", 61, "Solid state disk", plain},
    {"nvme-disk", 62, "NVMe disk", plain},
    {"optical-drive", 63, "Optical drive", plain},
    {"usb-port", 64, "USB port", plain},
    {"serial-port", 65, "Serial port", plain},
    {"video-port", 66, "Video port", plain},
    {"cable", 67, "Cable", plain},
    {"processor-core", 68, "Processor core", plain},
    {"power-domain", 69, "Power domain", plain},
    {"cooling-domain", 70, "Cooling domain", plain},
    /* class sensor */
    {"temperature-sensor", 16, "Temperature sensor", sensor},
    {"voltage-sensor", 17, "Voltage sensor", sensor},
    {"fault-sensor", 18, "Fault sensor", sensor},
    {"predictive-sensor", 19, "Predictive failure sensor", sensor},
    {"current-sensor", 20, "Current sensor", sensor},
    {"tachometer", 21, "Tachometer", sensor},
    {"presence-sensor", 22, "Presence sensor", sensor},
    {"state-sensor", 23, "State sensor", sensor},
    {"power-sensor", 24, "Power sensor", sensor},
    {"humidity-sensor", 25, "Humidity sensor", sensor},
    {"slot-identity", 26, "Slot identity", sensor},
    {"usage-sensor", 27, "Usage sensor", sensor},
    {"frequency-sensor", 28, "Frequency sensor", sensor},
    /* class other, rows of the alarm table */
    {"led", 30, "LED", indicator},
    {"locate-led", 31, "Locate LED", indicator},
    {"fault-led", 32, "Fault LED", indicator},
    {"ready-to-remove-led", 36, "Ready to remove LED", indicator},
    {"power-led", 37, "Power LED", indicator},
};
// clang-format on

} // namespace

std::span<const component_type> component_types()
{
    return catalogue;
}

const component_type *find_component_type(std::string_view name)
{
    const auto *found = std::ranges::find(catalogue, name, &component_type::name);
    return found == std::end(catalogue) ? nullptr : found;
}

const component_type *find_component_type(uint32_t number)
{
    const auto *found = std::ranges::find(catalogue, number, &component_type::number);
    return found == std::end(catalogue) ? nullptr : found;
}

const char *unlisted_component_text()
{
    return "Unspecified component";
}

component_kind component_kind_of(uint32_t number)
{
    const component_type *type = find_component_type(number);
    return type == nullptr ? plain : type->kind;
}

physical_class class_of(const component_type &type)
{
    switch (type.kind) {
    case sensor:
        return PHYSICAL_CLASS_SENSOR;
    case indicator:
        return PHYSICAL_CLASS_OTHER;
    case plain:
        break;
    }
    return physical_class_of_type(type.number);
}

} // namespace described_platform

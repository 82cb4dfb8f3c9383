#include "tools/kavplat/describe/locations.h"
#include "tools/kavplat/describe/module_memory.h"
#include "tools/kavplat/describe/parts.h"
#include "tools/kavplat/describe/sources.h"

#include <algorithm>

namespace kavplat_describe
{
namespace
{

constexpr int64_t ethernet = 1; /* as the kernel numbers kinds of links */
constexpr int64_t infiniband = 32;
constexpr int64_t permanent = 0; /* how an address came about */

std::string permanent_address(const tree &files, const std::string &port)
{
    if (files.number(port + "/addr_assign_type").value_or(permanent) == permanent) {
        return files.text(port + "/address");
    }
    return files.text(port + "/bonding_slave/perm_hwaddr");
}

/* The way to a device of USB from the computer's own sockets: "2.1" of ".../1-2.1/..." */
std::string usb_place(std::string_view path)
{
    const size_t begin = path.find("/usb");
    if (begin == path.npos) {
        return "";
    }
    const size_t interface = path.find(':', begin);
    const size_t dash = path.rfind('-', interface);
    return interface == path.npos || dash == path.npos || dash < begin
               ? ""
               : std::string(path.substr(dash + 1, interface - dash - 1));
}

std::string label_of_port(const tree &files, const std::string &port, const std::string &device,
                          bool on_adapter)
{
    if (const std::string usb = usb_place(device); !usb.empty()) {
        return "NET_USB" + label_of(usb);
    }
    const std::string number = std::to_string(files.number(port + "/dev_port").value_or(0));
    return on_adapter ? "PORT" + number : "NET_" + label_of(last_part(device)) + '_' + number;
}

/* By its number in the device tree, where a port there names one. */
std::string cage_in_device_tree(const tree &files, const std::string &port,
                                const std::string &device)
{
    for (const std::string &above : {port, device}) {
        const std::string number = files.read(above + "/of_node/sfp").bytes;
        const std::string cages = "/sys/bus/platform/drivers/sfp";
        for (const std::string &name :
             number.empty() ? std::vector<std::string>() : files.names(cages)) {
            const std::string cage = files.real(cages + '/' + name);
            if (files.read(cage + "/of_node/phandle").bytes == number) {
                return cage;
            }
        }
    }
    return "";
}

/* Nothing where the kernel knows of none, as of a port with a plain socket. */
void add_cage(const tree &files, machine &into, component &port, const std::string &name,
              const std::string &node)
{
    const std::optional<std::string> memory =
        files.told("/run/kavplat/modules/" + name, [&]() -> std::optional<std::string> {
            cage_word word = ask_cage(name);
            if (word.is_forbidden) {
                files.deny("the module of " + name);
            }
            return word.is_there ? std::optional(std::move(word.memory)) : std::nullopt;
        });
    if (!memory && node.empty()) {
        return;
    }
    component &cage = into.add(port, "CAGE", "transceiver-cage");
    cage.capabilities = {"holder"};
    const bool is_plugged = memory && !memory->empty();
    add_presence(into, cage, is_plugged);
    component *measured = &cage;
    if (is_plugged) {
        measured = &into.add(cage, "XCVR", "transceiver");
        measured->fru = identity_of_module(*memory);
    }
    if (!node.empty()) {
        into.is_device(*measured, node);
    }
}

} // namespace

void find_network_ports(const tree &files, machine &into)
{
    const std::string directory = "/sys/class/net";
    for (const std::string &name : files.names(directory)) {
        const std::string port = files.real(directory + '/' + name);
        const std::string device = files.real(port + "/device");
        const int64_t kind = files.number(port + "/type").value_or(ethernet);
        const std::string switch_name = files.text(port + "/phys_port_name");
        if (device.empty() || files.is_directory(device + "/physfn") ||
            (kind != ethernet && kind != infiniband) ||
            switch_name.find("vf") != switch_name.npos) {
            continue; /* made by software, or for a guest */
        }
        component *adapter = into.at_device(device);
        const bool on_adapter = adapter != nullptr && adapter->type == "network-adapter";
        component &made = into.add(on_adapter ? *adapter : into.board(),
                                   label_of_port(files, port, device, on_adapter), "network-port",
                                   switch_name.empty() ? device : device + '/' + switch_name);
        made.keys["interface"] = name;
        made.fru.serial = permanent_address(files, port);
        into.is_device(made, port);
        add_cage(files, into, made, name, cage_in_device_tree(files, port, device));
    }
}

} // namespace kavplat_describe

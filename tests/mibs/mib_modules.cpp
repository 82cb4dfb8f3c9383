#include "mib_modules.h"

#include <algorithm>
#include <cstdlib>

namespace mib_modules
{

namespace
{

std::string messages;

int keep_message(int, int, void *server_arg, void *)
{
    messages += static_cast<const snmp_log_message *>(server_arg)->msg;
    return 0;
}

void collect(tree *node, std::vector<tree *> &nodes)
{
    nodes.push_back(node);
    std::vector<tree *> children;
    for (tree *child = node->child_list; child != nullptr; child = child->next_peer) {
        children.push_back(child);
    }
    std::ranges::sort(children, {}, &tree::subid);
    for (tree *child : children) {
        collect(child, nodes);
    }
}

} // namespace

std::filesystem::path source_dir()
{
    return KAVPLAT_SOURCE_DIR;
}

const std::string &load()
{
    static const bool loaded = [] {
        const std::filesystem::path mibs = source_dir() / "mibs";
        setenv("MIBDIRS", (mibs.string() + ":" + (mibs / "compact").string()).c_str(), 1);
        setenv("MIBS", "ALL", 1);
        unsetenv("MIBFILES");
        // The parser keeps an index of directories there when it can.
        setenv("SNMP_PERSISTENT_DIR", KAVPLAT_BINARY_DIR "/persistent", 1);

        snmp_disable_log();
        snmp_enable_calllog();
        snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, keep_message, nullptr);
        // Level 2 complains of the row type of every table of every module there is.
        netsnmp_ds_set_int(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_MIB_WARNINGS, 1);
        netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_MIB_ERRORS, 1);
        netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_SAVE_MIB_DESCRS, 1);
        netsnmp_init_mib();
        return true;
    }();
    static_cast<void>(loaded);
    return messages;
}

std::vector<tree *> below(const std::string &oid)
{
    load();
    std::vector<tree *> nodes;
    tree *node = get_tree_head();
    std::size_t start = 0;
    while (node != nullptr) {
        const std::size_t dot = std::min(oid.find('.', start), oid.size());
        const u_long subid = std::stoul(oid.substr(start, dot - start));
        while (node != nullptr && node->subid != subid) {
            node = node->next_peer;
        }
        if (node == nullptr || dot == oid.size()) {
            break;
        }
        node = node->child_list;
        start = dot + 1;
    }
    if (node != nullptr) {
        collect(node, nodes);
    }
    return nodes;
}

bool is_object(const tree *node)
{
    return node->type > TYPE_OTHER && node->type <= TYPE_SIMPLE_LAST &&
           node->access != MIB_ACCESS_NOTIFY;
}

std::string oid_text(const tree *node)
{
    const std::string subid = std::to_string(node->subid);
    return node->parent == nullptr ? subid : oid_text(node->parent) + "." + subid;
}

} // namespace mib_modules

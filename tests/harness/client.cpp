#include "harness/client.h"

#include <mutex>
#include <stdexcept>

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

namespace
{

void init_library()
{
    static std::once_flag once;
    std::call_once(once, [] {
        netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
        netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
        setenv("MIBS", "", 1);
        init_snmp("kavplat-tests");
    });
}

snmp_value value_of(const netsnmp_variable_list &var)
{
    snmp_value value;
    value.type = var.type;
    switch (var.type) {
    case ASN_INTEGER:
        value.number = *var.val.integer;
        break;
    case ASN_GAUGE:
    case ASN_TIMETICKS:
    case ASN_COUNTER:
        value.number = static_cast<int64_t>(static_cast<u_long>(*var.val.integer) & 0xFFFFFFFF);
        break;
    case ASN_OCTET_STR:
        value.text.assign(reinterpret_cast<const char *>(var.val.string), var.val_len);
        break;
    case ASN_OBJECT_ID:
        value.object.assign(var.val.objid, var.val.objid + var.val_len / sizeof(oid));
        break;
    default:
        break;
    }
    return value;
}

netsnmp_pdu *new_pdu(int command, const std::vector<object_name> &names)
{
    netsnmp_pdu *pdu = snmp_pdu_create(command);
    for (const object_name &name : names) {
        snmp_add_null_var(pdu, name.data(), name.size());
    }
    return pdu;
}

[[noreturn]] void not_walked(const object_name &at, const std::string &why)
{
    throw std::runtime_error("the walk ends at " + to_text(at) + ": " + why);
}

// Adds what belongs to the walk; false at its end.
bool take(std::vector<varbind> &found, const snmp_answer &answer, const object_name &root,
          object_name &at)
{
    if (answer.error != 0) {
        not_walked(at, "error " + std::to_string(answer.error));
    }
    if (answer.varbinds.empty()) {
        not_walked(at, "an empty answer");
    }
    for (const varbind &v : answer.varbinds) {
        if (v.value.type == snmp_end_of_view || !is_below(v.name, root)) {
            return false;
        }
        if (v.name <= at) {
            not_walked(at, "behind it comes " + to_text(v.name));
        }
        at = v.name;
        found.push_back(v);
    }
    return true;
}

} // namespace

std::string to_text(const object_name &name)
{
    std::string text;
    for (const unsigned long arc : name) {
        text += "." + std::to_string(arc);
    }
    return text;
}

bool is_below(const object_name &name, const object_name &root)
{
    return name.size() > root.size() && std::equal(root.begin(), root.end(), name.begin());
}

snmp_value integer_value(int64_t number)
{
    return {snmp_integer, number, {}, {}};
}

snmp_value text_value(std::string text)
{
    return {snmp_octets, 0, std::move(text), {}};
}

snmp_value object_value(object_name object)
{
    return {snmp_object_id, 0, {}, std::move(object)};
}

snmp_value no_instance()
{
    return {snmp_no_such_instance, 0, {}, {}};
}

void PrintTo(const snmp_value &value, std::ostream *out)
{
    switch (value.type) {
    case snmp_octets:
        *out << '"' << value.text << '"';
        break;
    case snmp_object_id:
        *out << to_text(value.object);
        break;
    case snmp_no_such_object:
        *out << "noSuchObject";
        break;
    case snmp_no_such_instance:
        *out << "noSuchInstance";
        break;
    case snmp_end_of_view:
        *out << "endOfMibView";
        break;
    default:
        *out << "(type " << value.type << ") " << value.number;
        break;
    }
}

void PrintTo(const varbind &v, std::ostream *out)
{
    *out << to_text(v.name) << " = ";
    PrintTo(v.value, out);
}

snmp_client::snmp_client(uint16_t port, const std::string &community)
{
    init_library();
    std::string peer = "udp:127.0.0.1:" + std::to_string(port);
    std::string name = community;
    netsnmp_session session;
    snmp_sess_init(&session);
    session.version = SNMP_VERSION_2c;
    session.peername = peer.data();
    session.community = reinterpret_cast<u_char *>(name.data());
    session.community_len = name.size();
    session.retries = 0;
    session_ = snmp_sess_open(&session);
    if (session_ == nullptr) {
        throw std::runtime_error("no session to " + peer);
    }
    set_timeout(std::chrono::seconds(10));
}

snmp_client::~snmp_client()
{
    snmp_sess_close(session_);
}

void snmp_client::set_timeout(std::chrono::milliseconds timeout)
{
    snmp_sess_session(session_)->timeout =
        std::chrono::duration_cast<std::chrono::microseconds>(timeout).count();
}

snmp_answer snmp_client::send(void *pdu)
{
    netsnmp_pdu *response = nullptr;
    const int status =
        snmp_sess_synch_response(session_, static_cast<netsnmp_pdu *>(pdu), &response);
    snmp_answer answer;
    if (status != STAT_SUCCESS || response == nullptr) {
        answer.error = -1;
    } else {
        answer.error = response->errstat;
        answer.error_index = response->errindex;
        for (const netsnmp_variable_list *var = response->variables; var != nullptr;
             var = var->next_variable) {
            answer.varbinds.push_back(
                {object_name(var->name, var->name + var->name_length), value_of(*var)});
        }
    }
    if (response != nullptr) {
        snmp_free_pdu(response);
    }
    return answer;
}

snmp_answer snmp_client::get(const std::vector<object_name> &names)
{
    return send(new_pdu(SNMP_MSG_GET, names));
}

snmp_answer snmp_client::get_next(const std::vector<object_name> &names)
{
    return send(new_pdu(SNMP_MSG_GETNEXT, names));
}

snmp_answer snmp_client::get_bulk(const std::vector<object_name> &names, long non_repeaters,
                                  long repetitions)
{
    netsnmp_pdu *pdu = new_pdu(SNMP_MSG_GETBULK, names);
    pdu->non_repeaters = non_repeaters;
    pdu->max_repetitions = repetitions;
    return send(pdu);
}

snmp_answer snmp_client::set(const std::vector<varbind> &values)
{
    netsnmp_pdu *pdu = snmp_pdu_create(SNMP_MSG_SET);
    for (const varbind &v : values) {
        const long number = static_cast<long>(v.value.number);
        if (v.value.type == snmp_octets) {
            snmp_pdu_add_variable(pdu, v.name.data(), v.name.size(), ASN_OCTET_STR,
                                  v.value.text.data(), v.value.text.size());
        } else if (v.value.type == snmp_object_id) {
            snmp_pdu_add_variable(pdu, v.name.data(), v.name.size(), ASN_OBJECT_ID,
                                  v.value.object.data(), v.value.object.size() * sizeof(oid));
        } else {
            snmp_pdu_add_variable(pdu, v.name.data(), v.name.size(),
                                  static_cast<u_char>(v.value.type), &number, sizeof number);
        }
    }
    return send(pdu);
}

std::vector<varbind> snmp_client::walk(const object_name &root)
{
    std::vector<varbind> found;
    object_name at = root;
    while (take(found, get_next({at}), root, at)) {
    }
    return found;
}

std::vector<varbind> snmp_client::bulk_walk(const object_name &root, long repetitions)
{
    std::vector<varbind> found;
    object_name at = root;
    while (take(found, get_bulk({at}, 0, repetitions), root, at)) {
    }
    return found;
}

bool snmp_client::is_answered()
{
    return get({{1, 3, 6, 1, 2, 1, 1, 3, 0}}).error == 0;
}

bool snmp_client::answers_getnext(const object_name &root)
{
    const snmp_answer answer = get_next({root});
    return answer.error == 0 && !answer.varbinds.empty() &&
           is_below(answer.varbinds.front().name, root);
}

#include "session.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <list>
#include <unistd.h>

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

namespace kavplat_agent
{
namespace
{

value value_of(const netsnmp_variable_list &var)
{
    value result;
    result.name.assign(var.name, var.name + var.name_length);
    switch (var.type) {
    case SNMP_NOSUCHOBJECT:
    case SNMP_NOSUCHINSTANCE:
    case SNMP_ENDOFMIBVIEW:
    case ASN_NULL:
        break;
    case ASN_INTEGER:
        result.is = value::kind::number;
        result.number = *var.val.integer;
        break;
    case ASN_GAUGE:
    case ASN_TIMETICKS:
    case ASN_COUNTER:
        result.is = value::kind::number;
        result.number = static_cast<int64_t>(static_cast<u_long>(*var.val.integer) & 0xFFFFFFFFU);
        break;
    case ASN_OCTET_STR:
        result.is = value::kind::text;
        result.text.assign(reinterpret_cast<const char *>(var.val.string),
                           std::min(var.val_len, longest_text));
        break;
    default:
        result.is = value::kind::other;
        break;
    }
    return result;
}

const char *version_name(long version)
{
    switch (version) {
    case SNMP_VERSION_1:
        return "SNMPv1";
    case SNMP_VERSION_2c:
        return "SNMPv2c";
    default:
        return "SNMPv3";
    }
}

/* What the library's parser of options allocates for a session it has no call to free:
 * it lasts as long as the process. */
netsnmp_session &lasting_session()
{
    static auto *const all = new std::list<netsnmp_session>;
    return all->emplace_back();
}

std::string seconds(long microseconds)
{
    std::string text = std::to_string(static_cast<double>(microseconds) / 1e6);
    text.erase(text.find_last_not_of('0') + 1);
    if (text.ends_with('.')) {
        text.pop_back();
    }
    return text + " s";
}

} // namespace

std::string to_text(const object_name &name)
{
    std::string text;
    for (const unsigned long arc : name) {
        text += (text.empty() ? "" : ".") + std::to_string(arc);
    }
    return text;
}

bool is_below(const object_name &name, const object_name &root)
{
    return name.size() > root.size() && std::equal(root.begin(), root.end(), name.begin());
}

std::string error_name(long status)
{
    return snmp_errstring(static_cast<int>(status));
}

session::~session()
{
    if (handle_ != nullptr) {
        snmp_sess_close(handle_);
    }
}

std::string session::open(const address &whom)
{
    agent_ = whom.agent;
    longest_ = whom.longest;
    start_time();
    /* No object is asked for by its name here, and reading the MIB modules would take
     * longer than all the rest; -m has them read. */
    setenv("MIBS", "", 0);

    std::vector<std::string> words = {"kavplat"};
    words.insert(words.end(), whom.options.begin(), whom.options.end());
    words.push_back(whom.agent);
    std::vector<char *> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string &each : words) {
        arguments.push_back(each.data());
    }
    arguments.push_back(nullptr);
    netsnmp_session &wanted = lasting_session();
    optind = 1;
    const int parsed = netsnmp_parse_args(static_cast<int>(words.size()), arguments.data(), &wanted,
                                          "", nullptr, NETSNMP_PARSE_ARGS_NOZERO);
    /* Nothing is worth keeping for the next time. Said before, it would have no snmp.conf
     * read, either. */
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
    is_misused_ = parsed < 0;
    if (is_misused_) {
        return "the options for " + agent_ +
               " are not understood, see above; they are those of net-snmp's tools: man snmpcmd";
    }
    handle_ = snmp_sess_open(&wanted);
    if (handle_ == nullptr) {
        return explain(wanted.s_snmp_errno != 0 ? wanted.s_snmp_errno : snmp_errno);
    }
    const netsnmp_session *opened = snmp_sess_session(handle_);
    timeout_ = opened->timeout;
    retries_ = opened->retries;
    return "";
}

void session::start_time()
{
    end_ = std::chrono::steady_clock::now() + longest_;
}

bool session::has_bulk() const
{
    return snmp_sess_session(handle_)->version != SNMP_VERSION_1;
}

std::string session::version() const
{
    return handle_ == nullptr ? "SNMP" : version_name(snmp_sess_session(handle_)->version);
}

reply session::get(std::span<const object_name> names)
{
    return ask(SNMP_MSG_GET, names, 0, 0);
}

reply session::get_next(std::span<const object_name> names)
{
    return ask(SNMP_MSG_GETNEXT, names, 0, 0);
}

reply session::get_bulk(std::span<const object_name> names, long non_repeaters, long repetitions)
{
    return ask(SNMP_MSG_GETBULK, names, non_repeaters, repetitions);
}

reply session::ask(int command, std::span<const object_name> names, long non_repeaters,
                   long repetitions)
{
    reply result;
    netsnmp_session *opened = snmp_sess_session(handle_);
    opened->timeout = timeout_;
    opened->retries = retries_;
    if (longest_.count() > 0) {
        const auto left = std::chrono::duration_cast<std::chrono::microseconds>(
            end_ - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            result.timed_out = true;
            result.failure = overdue();
            return result;
        }
        /* As many tries as there is time for. */
        const long most = static_cast<long>(left.count());
        opened->timeout = std::min(timeout_, most);
        opened->retries = static_cast<int>(std::min<long>(retries_, most / opened->timeout - 1));
    }
    netsnmp_pdu *pdu = snmp_pdu_create(command);
    for (const object_name &name : names) {
        snmp_add_null_var(pdu, name.data(), name.size());
    }
    if (command == SNMP_MSG_GETBULK) {
        pdu->non_repeaters = non_repeaters;
        pdu->max_repetitions = repetitions;
    }
    requests_++;
    netsnmp_pdu *answer = nullptr;
    const int status = snmp_sess_synch_response(handle_, pdu, &answer);
    if (status != STAT_SUCCESS || answer == nullptr) {
        result.timed_out = status == STAT_TIMEOUT;
        const bool is_over = longest_.count() > 0 && std::chrono::steady_clock::now() >= end_;
        result.failure = result.timed_out && is_over ? overdue()
                         : result.timed_out          ? explain(SNMPERR_TIMEOUT)
                                                     : explain(opened->s_snmp_errno);
    } else if (answer->command == SNMP_MSG_REPORT) {
        result.failure = explain(snmpv3_get_report_type(answer));
    } else {
        result.error = answer->errstat;
        result.error_index = answer->errindex;
        for (const netsnmp_variable_list *var = answer->variables; var != nullptr;
             var = var->next_variable) {
            result.values.push_back(value_of(*var));
        }
    }
    if (answer != nullptr) {
        snmp_free_pdu(answer);
    }
    return result;
}

std::string session::overdue() const
{
    return agent_ + ": " +
           (requests_ > 0 ? "it was not read by " + version() : std::string("it was not reached")) +
           " within " + seconds(static_cast<long>(longest_.count()) * 1000) +
           ": is the agent up, and does it know the community or user? If it is slow, give it more "
           "time (--timeout)";
}

/* What was asked of whom, what came, and what to try. */
std::string session::explain(int error) const
{
    const std::string asked = agent_ + ": ";
    const netsnmp_session *opened = handle_ == nullptr ? nullptr : snmp_sess_session(handle_);
    const bool is_v3 = opened != nullptr && opened->version == SNMP_VERSION_3;
    switch (error) {
    case SNMPERR_TIMEOUT:
        return asked + "no answer to a request by " + version() + " within " +
               seconds(timeout_ * (retries_ + 1)) + " (" + std::to_string(retries_ + 1) +
               (retries_ == 0 ? " try" : " tries") +
               "): is the agent up, and does it listen there (address, port, firewall)?" +
               (!is_v3 ? " An agent does not answer a community that it does not know, or not from"
                         " here: see -c, and rocommunity in its snmpd.conf"
                : opened->securityLevel == SNMP_SEC_LEVEL_AUTHPRIV
                    ? " An agent does not answer what it cannot decrypt: see the passphrase (-X)"
                      " and its protocol (-x)"
                    : "");
    case SNMPERR_BAD_SEC_NAME:
        return asked + "it is not said who asks: a community by -v2c -c COMMUNITY, or a user of"
                       " SNMPv3 by -u USER; snmp.conf may have either (defVersion and"
                       " defCommunity, or defSecurityName)";
    case SNMPERR_BAD_ADDRESS:
    case SNMPERR_NO_SOCKET:
    case SNMPERR_BAD_LOCPORT:
        if (agent_.starts_with("tcp")) {
            return asked + "there is no connection to that address: is the name right, and does the"
                           " agent listen there by TCP (agentAddress in its snmpd.conf)?";
        }
        return asked + "there is no way to that address: is the name right, as in udp:host:161? (" +
               snmp_api_errstring(error) + ")";
    case SNMPERR_UNKNOWN_USER_NAME:
        return asked + "the agent knows no such user: see -u, and createUser and rouser in its"
                       " snmpd.conf";
    case SNMPERR_AUTHENTICATION_FAILURE:
        return asked + "the agent does not believe that it is that user: see the passphrase (-A)"
                       " and its protocol (-a)";
    case SNMPERR_DECRYPTION_ERR:
        return asked + "the agent cannot decrypt the request: see the passphrase (-X) and its"
                       " protocol (-x)";
    case SNMPERR_UNSUPPORTED_SEC_LEVEL:
        return asked + "the agent does not let that user in at this level of security: see -l, -a,"
                       " -x";
    case SNMPERR_NOT_IN_TIME_WINDOW:
        return asked + "the agent's clock of SNMPv3 is not the one that was learned: try again";
    default:
        return asked + "a request by " + version() + " failed: " + snmp_api_errstring(error);
    }
}

} // namespace kavplat_agent

/*
 * An agent inside the test's own process, without a socket: real registrations,
 * net-snmp's real table helpers, PDUs over its in-process transport. The callbacks
 * run on the thread that asks.
 *
 *     local_agent &agent = local_agent::get();
 *     init_kavPlatMIB();
 *     const pdu_answer answer = agent.ask(SNMP_MSG_GETNEXT, {"1.3.6.1.4.1.58213"});
 *
 * What a test registers stays registered until local_registrations ends.
 */
#ifndef KAVPLAT_TESTS_ROOMS_LOCAL_AGENT_H
#define KAVPLAT_TESTS_ROOMS_LOCAL_AGENT_H

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <net-snmp/library/snmpCallbackDomain.h>

#include <sstream>
#include <stdexcept>
#include <utility>

#include "fakes/fake_system.h"
#include "kavdata/cache.h"
#include "rooms/requests.h"

/*
 * Sees what is registered while it lives, passes it on to the agent, and takes it
 * out of the agent again at its end. Needs the agent to be there.
 */
class local_registrations
{
  public:
    struct table {
        netsnmp_handler_registration *registration;
        netsnmp_iterator_info *iterator;
        int result;
    };

    local_registrations()
    {
        kavplat::loaded = {};
        fake_system::on_netsnmp_register_table_iterator.set(
            [this](netsnmp_handler_registration *registration, netsnmp_iterator_info *iterator) {
                const int result = netsnmp_register_table_iterator(registration, iterator);
                tables_.push_back({registration, iterator, result});
                return result;
            });
        fake_system::on_netsnmp_register_scalar.set(
            [this](netsnmp_handler_registration *registration) {
                const int result = netsnmp_register_scalar(registration);
                scalars_.push_back(result == MIB_REGISTERED_OK ? registration : nullptr);
                return result;
            });
    }
    ~local_registrations()
    {
        fake_system::on_netsnmp_register_table_iterator.clear();
        fake_system::on_netsnmp_register_scalar.clear();
        for (const table &t : tables_) {
            if (t.result == MIB_REGISTERED_OK) {
                netsnmp_unregister_handler(t.registration);
            }
        }
        for (netsnmp_handler_registration *scalar : scalars_) {
            if (scalar) {
                netsnmp_unregister_handler(scalar);
            }
        }
    }
    local_registrations(const local_registrations &) = delete;
    local_registrations &operator=(const local_registrations &) = delete;

    const std::vector<table> &tables() const { return tables_; }
    const std::vector<netsnmp_handler_registration *> &scalars() const { return scalars_; }

  private:
    std::vector<table> tables_;
    std::vector<netsnmp_handler_registration *> scalars_;
};

struct answered_varbind {
    std::string name; /* dotted */
    snmp_value value;

    bool operator==(const answered_varbind &) const = default;
};

inline void PrintTo(const answered_varbind &varbind, std::ostream *out)
{
    *out << varbind.name << " = ";
    PrintTo(varbind.value, out);
}

struct pdu_answer {
    long error = 0;
    long error_index = 0; /* from 1; 0: none */
    std::vector<answered_varbind> varbinds;
};

class local_agent
{
  public:
    static local_agent &get()
    {
        static local_agent agent;
        return agent;
    }
    local_agent(const local_agent &) = delete;
    local_agent &operator=(const local_agent &) = delete;

    /* A SET sets the INTEGER 1. */
    pdu_answer ask(int command, const std::vector<std::string> &names, long repetitions = 0)
    {
        netsnmp_pdu *pdu = snmp_pdu_create(command);
        pdu->version = SNMP_VERSION_2c;
        pdu->community = reinterpret_cast<u_char *>(fake_system::heap_text("in-process"));
        pdu->community_len = strlen("in-process");
        pdu->flags |= UCD_MSG_FLAG_ALWAYS_IN_VIEW;
        if (command == SNMP_MSG_GETBULK) {
            pdu->non_repeaters = 0;
            pdu->max_repetitions = repetitions;
        }
        const long one = 1;
        for (const std::string &text : names) {
            const std::vector<oid> name = parsed(text);
            if (command == SNMP_MSG_SET) {
                snmp_pdu_add_variable(pdu, name.data(), name.size(), ASN_INTEGER, &one, sizeof one);
            } else {
                snmp_add_null_var(pdu, name.data(), name.size());
            }
        }
        netsnmp_pdu *response = nullptr;
        if (snmp_synch_response(client_, pdu, &response) != STAT_SUCCESS || !response) {
            throw std::runtime_error("the agent in this process gave no answer");
        }
        pdu_answer answer{response->errstat, response->errindex, {}};
        for (const netsnmp_variable_list *var = response->variables; var;
             var = var->next_variable) {
            answer.varbinds.push_back({dotted(var->name, var->name_length), value_of(*var)});
        }
        snmp_free_pdu(response);
        return answer;
    }

    /* All that GETNEXT gives below a place, one varbind at a time. */
    std::vector<answered_varbind> walk(const std::string &root)
    {
        std::vector<answered_varbind> found;
        std::string name = root;
        for (;;) {
            pdu_answer answer = ask(SNMP_MSG_GETNEXT, {name});
            if (answer.error != SNMP_ERR_NOERROR || answer.varbinds.size() != 1) {
                throw std::runtime_error("GETNEXT of " + name + " failed");
            }
            answered_varbind &varbind = answer.varbinds.front();
            if (varbind.value.type == SNMP_ENDOFMIBVIEW || !varbind.name.starts_with(root + ".")) {
                return found;
            }
            // Not by <=: gcc 12's library orders vectors of numbers of several bytes
            // wrongly on big-endian machines.
            const std::vector<oid> here = parsed(varbind.name);
            const std::vector<oid> before = parsed(name);
            if (snmp_oid_compare(here.data(), here.size(), before.data(), before.size()) <= 0) {
                throw std::runtime_error("OID not increasing: " + varbind.name + " after " + name);
            }
            name = varbind.name;
            found.push_back(std::move(varbind));
        }
    }

    static std::vector<oid> parsed(const std::string &text)
    {
        std::vector<oid> name;
        std::istringstream in(text);
        for (std::string arc; std::getline(in, arc, '.');) {
            name.push_back(std::stoul(arc));
        }
        return name;
    }

  private:
    local_agent()
    {
        // Nothing of the machine's own configuration, no MIB, no port.
        netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
        netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
        netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE,
                               0); // a master, not a subagent
        init_agent("kavplat_test");
        // Nobody runs alarms here, so nothing may be put off, however slow it is.
        netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_ALARM_DONT_USE_SIG, 0);
        netsnmp_session *server = netsnmp_callback_open(0, handle_snmp_packet, nullptr, nullptr);
        client_ =
            server ? netsnmp_callback_open(server->local_port, nullptr, nullptr, nullptr) : nullptr;
        if (!client_) {
            throw std::runtime_error("net-snmp opens no session inside the process");
        }
    }

    netsnmp_session *client_ = nullptr;
};

#endif

#include "kavplat_agent/fake_agent.h"

#include <csignal>
#include <new>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include "harness/agent.h"
#include "harness/names.h"

namespace
{

struct state {
    const objects *served;
    misdeed how;
    std::atomic<int> &requests;
};

void add(netsnmp_pdu *to, const object_name &name, const snmp_value &value)
{
    const long number = static_cast<long>(value.number);
    switch (value.type) {
    case snmp_octets:
        snmp_pdu_add_variable(to, name.data(), name.size(), ASN_OCTET_STR, value.text.data(),
                              value.text.size());
        break;
    case snmp_integer:
    case snmp_timeticks:
        snmp_pdu_add_variable(to, name.data(), name.size(), static_cast<u_char>(value.type),
                              &number, sizeof number);
        break;
    default:
        snmp_pdu_add_variable(to, name.data(), name.size(), static_cast<u_char>(value.type),
                              nullptr, 0);
    }
}

/* False at the end of all. */
bool next_of(const state &of, const object_name &at, object_name &name, snmp_value &value)
{
    const object_name column(at.begin(), at.end() - 1);
    const auto found = of.served->upper_bound(at);
    const bool leaves =
        found == of.served->end() || (of.served->contains(at) && !is_below(found->first, column));
    if (leaves && of.served->contains(at) && of.how == misdeed::goes_back) {
        const auto first = of.served->upper_bound(column);
        name = first->first;
        value = first->second;
        return true;
    }
    if (of.how == misdeed::endless && leaves && at.size() == ent_cell(2, 1).size()) {
        name = at;
        name.back()++;
        value = integer_value(1);
        return true;
    }
    if (found == of.served->end()) {
        return false;
    }
    name = found->first;
    value = found->second;
    return true;
}

void answer(const state &of, const netsnmp_pdu &asked, netsnmp_pdu *to)
{
    const bool is_v1 = asked.version == SNMP_VERSION_1;
    const bool is_bulk = asked.command == SNMP_MSG_GETBULK;
    std::vector<object_name> at;
    for (const netsnmp_variable_list *v = asked.variables; v != nullptr; v = v->next_variable) {
        at.emplace_back(v->name, v->name + v->name_length);
    }
    const size_t rounds = is_bulk ? static_cast<size_t>(asked.max_repetitions) : 1;
    size_t values = rounds * at.size();
    if (of.how == misdeed::small_answers && values > 3) {
        to->errstat = SNMP_ERR_TOOBIG;
        return;
    }
    if (of.how == misdeed::empty_answers) {
        return;
    }
    values -= of.how == misdeed::cut_answers && is_bulk && values > 1 ? 1U : 0U;
    for (size_t i = 0; i < values; i++) {
        object_name &here = at[i % at.size()];
        if (of.how == misdeed::error_in_column && is_below(here, ent_column(11))) {
            to->errstat = SNMP_ERR_GENERR;
            to->errindex = static_cast<long>(i % at.size()) + 1;
            snmp_free_varbind(to->variables);
            to->variables = snmp_clone_varbind(asked.variables);
            return;
        }
        object_name name = here;
        snmp_value value;
        bool is_there = true;
        if (asked.command == SNMP_MSG_GET) {
            const auto found = of.served->find(here);
            is_there = found != of.served->end();
            value = is_there ? found->second : snmp_value{snmp_no_such_object, 0, {}, {}};
        } else if (!next_of(of, here, name, value)) {
            is_there = false;
            value = {snmp_end_of_view, 0, {}, {}};
        }
        if (!is_there && is_v1) {
            to->errstat = SNMP_ERR_NOSUCHNAME;
            to->errindex = static_cast<long>(i % at.size()) + 1;
            snmp_free_varbind(to->variables);
            to->variables = snmp_clone_varbind(asked.variables);
            return;
        }
        add(to, name, value);
        here = name;
    }
}

int on_request(int operation, netsnmp_session *session, int, netsnmp_pdu *asked, void *magic)
{
    auto &of = *static_cast<state *>(magic);
    if (operation != NETSNMP_CALLBACK_OP_RECEIVED_MESSAGE) {
        return 1;
    }
    of.requests++;
    if ((of.how == misdeed::dies && of.requests > 3) ||
        (of.how == misdeed::no_bulk && asked->command == SNMP_MSG_GETBULK &&
         asked->max_repetitions * static_cast<long>(count_varbinds(asked->variables)) > 20)) {
        return 1;
    }
    netsnmp_pdu *reply = snmp_clone_pdu(asked);
    snmp_free_varbind(reply->variables);
    reply->variables = nullptr;
    reply->command = SNMP_MSG_RESPONSE;
    reply->errstat = 0;
    reply->errindex = 0;
    answer(of, *asked, reply);
    if (snmp_send(session, reply) == 0) {
        snmp_free_pdu(reply);
    }
    return 1;
}

} // namespace

fake_agent::fake_agent(const objects &served, misdeed how)
{
    port_ = free_port();
    void *shared =
        mmap(nullptr, sizeof *requests_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) {
        throw std::runtime_error("no memory that the fake agent shares");
    }
    requests_ = new (shared) std::atomic<int>(0);
    snmp_client{port_}; // has the library begin, without any file
    int ready[2];
    if (pipe(ready) != 0 || (pid_ = fork()) < 0) {
        throw std::runtime_error("no fake agent");
    }
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        state of{&served, how, *requests_};
        netsnmp_session session;
        snmp_sess_init(&session);
        session.version = SNMP_DEFAULT_VERSION;
        session.callback = on_request;
        session.callback_magic = &of;
        netsnmp_transport *transport = netsnmp_tdomain_transport(address().c_str(), 1, "udp");
        const bool listens =
            transport != nullptr && snmp_add(&session, transport, nullptr, nullptr);
        [[maybe_unused]] const ssize_t told = write(ready[1], listens ? "y" : "n", 1);
        while (listens) {
            fd_set descriptors;
            FD_ZERO(&descriptors);
            int count = 0;
            int block = 1;
            timeval timeout = {};
            snmp_select_info(&count, &descriptors, &timeout, &block);
            if (select(count, &descriptors, nullptr, nullptr, nullptr) > 0) {
                snmp_read(&descriptors);
            }
        }
        _exit(1);
    }
    char told = 'n';
    const bool listens = read(ready[0], &told, 1) == 1 && told == 'y';
    close(ready[0]);
    close(ready[1]);
    if (!listens) {
        throw std::runtime_error("the fake agent does not listen");
    }
}

fake_agent::~fake_agent()
{
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    munmap(requests_, sizeof *requests_);
}

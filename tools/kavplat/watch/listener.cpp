#include "listener.h"

#include <cerrno>
#include <cstring>
#include <sys/select.h>

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

namespace kavplat_watch
{
namespace
{

bool notified = false;

int on_message(int operation, netsnmp_session *from, int, netsnmp_pdu *pdu, void *)
{
    if (operation != NETSNMP_CALLBACK_OP_RECEIVED_MESSAGE) {
        return 1;
    }
    notified = notified || pdu->command == SNMP_MSG_TRAP || pdu->command == SNMP_MSG_TRAP2 ||
               pdu->command == SNMP_MSG_INFORM;
    if (pdu->command == SNMP_MSG_INFORM) {
        netsnmp_pdu *reply = snmp_clone_pdu(pdu);
        if (reply != nullptr) {
            reply->command = SNMP_MSG_RESPONSE;
            reply->errstat = 0;
            reply->errindex = 0;
            if (snmp_send(from, reply) == 0) {
                snmp_free_pdu(reply);
            }
        }
    }
    return 1;
}

} // namespace

std::string listen_at(const std::string &address)
{
    netsnmp_session session;
    snmp_sess_init(&session);
    session.version = SNMP_DEFAULT_VERSION;
    session.callback = on_message;
    session.authenticator = nullptr;
    session.isAuthoritative = SNMP_SESS_UNKNOWNAUTH;
    netsnmp_transport *transport = netsnmp_transport_open_server("snmptrap", address.c_str());
    if (transport == nullptr || snmp_add(&session, transport, nullptr, nullptr) == nullptr) {
        return "nothing can be received at " + address +
               ": is it an address of this machine, is it free, and does it take root's rights?";
    }
    return "";
}

bool wait_for_notification(std::chrono::milliseconds longest)
{
    const auto end = std::chrono::steady_clock::now() + longest;
    notified = false;
    while (!notified) {
        const auto left = std::chrono::duration_cast<std::chrono::microseconds>(
            end - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return false;
        }
        fd_set descriptors;
        FD_ZERO(&descriptors);
        int count = 0;
        int block = 1;
        timeval timeout = {};
        snmp_select_info(&count, &descriptors, &timeout, &block);
        timeout.tv_sec = static_cast<time_t>(left.count() / 1000000);
        timeout.tv_usec = static_cast<suseconds_t>(left.count() % 1000000);
        const int ready = select(count, &descriptors, nullptr, nullptr, &timeout);
        if (ready < 0) {
            return false;
        }
        if (ready > 0) {
            snmp_read(&descriptors);
        }
    }
    return true;
}

} // namespace kavplat_watch

// kavplatd: serves the modules' tables to a master agent over AgentX, for those who
// will not load a library into their agent.
//
// The modules' own end is that of every snmpd of the host, so none of them is ever told
// to end here: the process closes its session and exits.
#include "modules.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace
{

constexpr char name[] = "kavplatd";
// How often the master is looked for once it is lost, and asked whether it is there.
constexpr int ping_seconds = 1;

constexpr char usage[] =
    "usage: kavplatd [OPTION]...\n"
    "Serves this machine's components to a master agent, by AgentX, until SIGTERM or SIGINT.\n"
    "Stays in the foreground. Ends no snmpd. A master that goes away is looked for every second.\n"
    "\n"
    "  -x ADDRESS  the master's AgentX address (default: " NETSNMP_AGENTX_SOCKET ")\n"
    "  -d FILE     the server's description, as KAVPLAT_DESCRIPTION would name it\n"
    "  -L WHERE    where to log: as snmpd's -L; -Le, the default, is standard error\n"
    "  -D TOKENS   debug, as snmpd's -D\n"
    "  -h, --help, -V, --version\n"
    "\n"
    "Ends with 0 when told to, 1 when it cannot start, 2 when it was misused.\n"
    "\n"
    "Example: kavplatd -x /var/agentx/master -d /usr/share/kavplat/servers/minimal.json\n";

volatile std::sig_atomic_t told_to_end = 0;

extern "C" void end_soon(int)
{
    told_to_end = 1;
}

// To the service manager, where there is one (sd_notify's protocol): a datagram to the
// socket that NOTIFY_SOCKET names.
void tell_manager(const char *state)
{
    const char *const path = getenv("NOTIFY_SOCKET");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (!path || (path[0] != '/' && path[0] != '@') || strlen(path) >= sizeof address.sun_path) {
        return;
    }
    strcpy(address.sun_path, path);
    if (path[0] == '@') {
        address.sun_path[0] = '\0'; // an abstract name
    }
    const int s = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (s < 0) {
        return;
    }
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(path));
    if (sendto(s, state, strlen(state), MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&address),
               length) < 0) {
        snmp_log(LOG_WARNING, "kavplatd: the service manager was not told %s: %s\n", state,
                 strerror(errno));
    }
    close(s);
}

void feed_watchdog(unsigned, void *)
{
    tell_manager("WATCHDOG=1");
}

// Half of what the manager allows between two signs of life.
void keep_watchdog_fed()
{
    const char *const limit = getenv("WATCHDOG_USEC");
    const uint64_t microseconds = limit ? strtoull(limit, nullptr, 10) : 0;
    if (microseconds > 0) {
        const timeval period{.tv_sec = static_cast<time_t>(microseconds / 2 / 1000000),
                             .tv_usec = static_cast<suseconds_t>(microseconds / 2 % 1000000)};
        snmp_alarm_register_hr(period, SA_REPEAT, feed_watchdog, nullptr);
    }
}

// What the library's own loop does, but for a signal that comes between the look at
// the flag and the wait: it is let through by the wait alone.
void serve_until_told(const sigset_t &while_waiting)
{
    while (!told_to_end) {
        fd_set readable;
        FD_ZERO(&readable);
        int count = 0;
        int forever = 1;
        timeval longest{};
        snmp_select_info(&count, &readable, &longest, &forever);
        const timespec timeout{.tv_sec = longest.tv_sec, .tv_nsec = longest.tv_usec * 1000};
        const int ready = pselect(count, &readable, nullptr, nullptr, forever ? nullptr : &timeout,
                                  &while_waiting);
        if (ready > 0) {
            snmp_read(&readable);
        } else if (ready == 0) {
            snmp_timeout();
        }
        run_alarms();
        netsnmp_check_outstanding_agent_requests();
    }
}

int misused(const char *what)
{
    fprintf(stderr, "kavplatd: %s\n%s", what, usage);
    return 2;
}

} // namespace

int main(int count, char **arguments)
{
    if (count > 1 && strcmp(arguments[1], "--help") == 0) {
        fputs(usage, stdout);
        return 0;
    }
    if (count > 1 && strcmp(arguments[1], "--version") == 0) {
        puts("kavplatd " KAVPLAT_VERSION);
        return 0;
    }
    bool logs_somewhere = false;
    for (int option; (option = getopt(count, arguments, "x:d:L:D:hV")) != -1;) {
        switch (option) {
        case 'x':
            netsnmp_ds_set_string(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_X_SOCKET, optarg);
            break;
        case 'd':
            setenv("KAVPLAT_DESCRIPTION", optarg, 1);
            break;
        case 'L':
            if (snmp_log_options(optarg, count, arguments) < 0) {
                return misused("there is no such place to log to");
            }
            logs_somewhere = true;
            break;
        case 'D':
            debug_register_tokens(optarg);
            snmp_set_do_debugging(1);
            break;
        case 'h':
            fputs(usage, stdout);
            return 0;
        case 'V':
            puts("kavplatd " KAVPLAT_VERSION);
            return 0;
        default:
            return misused("that is no option of it");
        }
    }
    if (optind < count) {
        return misused("it takes options only");
    }
    if (!logs_somewhere) {
        snmp_enable_stderrlog();
    }

    setenv("MIBS", "", 0); // it looks up no names
    netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);

    sigset_t ends;
    sigset_t while_waiting;
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    sigprocmask(SIG_BLOCK, &ends, &while_waiting); // threads that begin below inherit it
    struct sigaction ending = {};
    ending.sa_handler = end_soon;
    sigaction(SIGTERM, &ending, nullptr);
    sigaction(SIGINT, &ending, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    if (init_agent(name) != 0) {
        snmp_log(LOG_ERR, "kavplatd: net-snmp's agent library did not start\n");
        return 1;
    }
    // Between init_agent, which sets an interval of its own, and the configuration, which
    // may say another one.
    netsnmp_ds_set_int(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_AGENTX_PING_INTERVAL,
                       ping_seconds);
    init_modules();
    init_snmp(name);
    keep_watchdog_fed();
    snmp_log(LOG_INFO, "kavplatd " KAVPLAT_VERSION " serves by AgentX\n");
    tell_manager("READY=1");

    serve_until_told(while_waiting);

    tell_manager("STOPPING=1");
    snmp_log(LOG_INFO, "kavplatd: told to end\n");
    snmp_shutdown(name);
    return 0;
}

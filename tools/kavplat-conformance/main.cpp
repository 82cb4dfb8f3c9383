/*
 * kavplat-conformance LIBRARY: holds an implementation of the platform contract
 * to what libPlatformMIB relies on. The library is loaded as the agent loads it,
 * its calls are made, and each promise is reported as kept or broken.
 */
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <getopt.h>
#include <thread>
#include <unistd.h>

#include "checks.h"

namespace
{

enum { all_kept = 0, some_broken = 1, misused = 2 };

// In the order in which they are run.
std::vector<const check *> all_checks()
{
    std::vector<const check *> all;
    for (const auto part :
         {inventory_checks, reading_checks, thread_checks, event_checks, last_checks}) {
        for (const check &each : part()) {
            all.push_back(&each);
        }
    }
    return all;
}

constexpr char usage_text[] =
    "usage: kavplat-conformance [OPTIONS] LIBRARY\n"
    "Loads an implementation of the platform contract and says which promises it\n"
    "keeps and which it breaks.\n"
    "\n"
    "  --list             print the checks and what each one checks\n"
    "  --only NAME        run this check alone; may be given again\n"
    "  --seconds N        how long four threads read at once (default 2)\n"
    "  --provoke COMMAND  a shell command that makes a component come or go, so that\n"
    "                     events can be checked\n"
    "  --wait N           seconds for an event to come and for a call to return\n"
    "                     (default 5)\n"
    "  --help             print this\n"
    "\n"
    "Exits with 0 when no promise is broken, 1 when one is, 2 when the library\n"
    "cannot be loaded or an option is wrong.\n";

std::atomic<const check *> running = nullptr;

void put(const char *text)
{
    [[maybe_unused]] const ssize_t unused = write(STDOUT_FILENO, text, strlen(text));
}

// Nothing here but what a signal handler may do.
void on_crash(int signal)
{
    const check *c = running;
    const char *call = call_under_way();
    put("BROKEN ");
    put(c != nullptr ? c->name : "symbols");
    put(": ");
    put(c != nullptr ? c->promise : "the library can be loaded");
    put(": crashed in ");
    if (call != nullptr) {
        put(call);
        put("(");
        put(argument_under_way());
        put(")");
    } else {
        put("no call: a thread of the library, or memory that it gave");
    }
    put(signal == SIGSEGV  ? " by SIGSEGV\n"
        : signal == SIGBUS ? " by SIGBUS\n"
        : signal == SIGFPE ? " by SIGFPE\n"
        : signal == SIGILL ? " by SIGILL\n"
                           : " by SIGABRT\n");
    _exit(some_broken);
}

void catch_crashes()
{
    // A stack of its own, for when the library has used up the other.
    static char stack[64 * 1024];
    stack_t alternative = {};
    alternative.ss_sp = stack;
    alternative.ss_size = sizeof stack;
    sigaltstack(&alternative, nullptr);
    struct sigaction action = {};
    action.sa_handler = on_crash;
    action.sa_flags = SA_ONSTACK;
    for (const int signal : {SIGSEGV, SIGBUS, SIGABRT, SIGFPE, SIGILL}) {
        sigaction(signal, &action, nullptr);
    }
}

// A call that does not return at all ends the run: nothing can be asked any more.
void watch_for_hangs(std::chrono::milliseconds wait)
{
    std::thread([wait] {
        constexpr int patience = 3; // so many times what a slow call may take
        for (;;) {
            note_heartbeat();
            std::this_thread::sleep_for(heartbeat);
            call_time stuck;
            if (longest_under_way(wait * patience, stuck)) {
                const check *c = running;
                printf("BROKEN call_duration: a call returns in time: %s has not returned after "
                       "%lld ms (during %s)\n",
                       stuck.what.c_str(), static_cast<long long>(stuck.took.count()),
                       c != nullptr ? c->name : "the start");
                fflush(stdout);
                _exit(some_broken);
            }
        }
    }).detach();
}

findings run_one(session &s, const check &c)
{
    findings f;
    running = &c;
    try {
        c.run(s, f);
    } catch (const missing_call &missing) {
        f.skipped = std::string(missing.name) + " is not exported";
    } catch (const not_possible &reason) {
        f.skipped = reason.why;
    }
    return f;
}

void print(const check &c, const findings &f)
{
    constexpr size_t most = 5;
    for (size_t i = 0; i < f.broken.size() && i < most; i++) {
        printf("BROKEN %s: %s: %s\n", c.name, c.promise, f.broken[i].c_str());
    }
    if (f.broken.size() > most) {
        printf("BROKEN %s: %s: and %zu more\n", c.name, c.promise, f.broken.size() - most);
    }
    if (f.broken.empty() && f.skipped.empty()) {
        printf("ok %s: %s\n", c.name, c.promise);
    } else if (f.broken.empty()) {
        printf("skipped %s: %s: %s\n", c.name, c.promise, f.skipped.c_str());
    }
    for (const std::string &warning : f.warnings) {
        printf("warning %s: %s\n", c.name, warning.c_str());
    }
    for (const std::string &note : f.notes) {
        printf("note %s: %s\n", c.name, note.c_str());
    }
    fflush(stdout);
}

int run(session &s, const std::vector<const check *> &wanted)
{
    size_t kept = 0;
    size_t broken = 0;
    size_t skipped = 0;
    for (const check *c : wanted) {
        const findings f = run_one(s, *c);
        print(*c, f);
        (!f.broken.empty() ? broken : f.skipped.empty() ? kept : skipped)++;
    }
    printf("%zu kept, %zu broken, %zu skipped\n", kept, broken, skipped);
    fflush(stdout);
    return broken != 0 ? some_broken : all_kept;
}

bool read_seconds(const char *text, std::chrono::milliseconds &value)
{
    constexpr double most = 86400;
    char *end = nullptr;
    const double seconds = strtod(text, &end);
    if (end == text || *end != '\0' || !(seconds > 0) || seconds > most) {
        return false;
    }
    value = std::chrono::milliseconds(static_cast<long long>(seconds * 1000));
    return true;
}

int misuse(const char *what, const char *value)
{
    fprintf(stderr, "kavplat-conformance: %s%s\n%s", what, value, usage_text);
    return misused;
}

} // namespace

int main(int count, char **arguments)
{
    enum { list = 'l', only = 'o', seconds = 's', provoke = 'p', wait = 'w', help = 'h' };
    static const option known[] = {
        {"list", no_argument, nullptr, list},
        {"only", required_argument, nullptr, only},
        {"seconds", required_argument, nullptr, seconds},
        {"provoke", required_argument, nullptr, provoke},
        {"wait", required_argument, nullptr, wait},
        {"help", no_argument, nullptr, help},
        {nullptr, 0, nullptr, 0},
    };
    // Never destroyed: events may come until the process ends.
    static auto &s = *new session;
    const std::vector<const check *> all = all_checks();
    std::vector<const check *> wanted;
    int given = 0;
    while ((given = getopt_long(count, arguments, "h", known, nullptr)) != -1) {
        switch (given) {
        case list:
            for (const check *c : all) {
                printf("%-21s %s\n", c->name, c->promise);
            }
            return all_kept;
        case only: {
            const auto found = std::ranges::find_if(
                all, [](const check *c) { return strcmp(c->name, optarg) == 0; });
            if (found == all.end()) {
                return misuse("there is no check ", optarg);
            }
            wanted.push_back(*found);
            break;
        }
        case seconds:
            if (!read_seconds(optarg, s.options.concurrent_for)) {
                return misuse("--seconds takes a number above 0, not ", optarg);
            }
            break;
        case wait:
            if (!read_seconds(optarg, s.options.wait)) {
                return misuse("--wait takes a number above 0, not ", optarg);
            }
            break;
        case provoke:
            s.options.provoke = optarg;
            break;
        case help:
            fputs(usage_text, stdout);
            return all_kept;
        default:
            fputs(usage_text, stderr);
            return misused;
        }
    }
    if (optind + 1 != count) {
        return misuse("one library is to be named", "");
    }
    if (wanted.empty()) {
        wanted = all;
    }
    catch_crashes();
    std::string why;
    if (load_platform(arguments[optind], s.calls, s.missing, why) != 0) {
        fprintf(stderr, "kavplat-conformance: cannot load %s: %s\n", arguments[optind],
                why.c_str());
        return misused;
    }
    watch_for_hangs(s.options.wait);
    int result = run(s, wanted);
    if (!s.provoke_fault.empty()) {
        fprintf(stderr, "kavplat-conformance: --provoke: %s\n", s.provoke_fault.c_str());
        result = misused;
    }
    // The library's threads may be running: none of its destructors, then.
    _exit(result);
}

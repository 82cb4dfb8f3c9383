/*
 * kavplat conformance LIBRARY: holds an implementation of the platform contract
 * to what libPlatformMIB relies on. The library is loaded as the agent loads it,
 * its calls are made, and each promise is reported as kept or broken.
 */
#include "checks.h"
#include "tools/kavplat/subcommand.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <unistd.h>

namespace
{

using kavplat::misused;
enum { all_kept = 0, some_broken = 1 };

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

struct request {
    run_options options;
    std::string library;
    std::vector<std::string> only;
    bool list = false;
};

const check *named(const std::string &name)
{
    const std::vector<const check *> all = all_checks();
    const auto found =
        std::ranges::find_if(all, [&name](const check *c) { return name == c->name; });
    return found == all.end() ? nullptr : *found;
}

int hold_to_the_contract(const request &asked)
{
    // Never destroyed: events may come until the process ends.
    static auto &s = *new session;
    s.options = asked.options;
    if (asked.list) {
        for (const check *c : all_checks()) {
            printf("%-21s %s\n", c->name, c->promise);
        }
        return all_kept;
    }
    std::vector<const check *> wanted;
    for (const std::string &name : asked.only) {
        wanted.push_back(named(name));
    }
    if (wanted.empty()) {
        wanted = all_checks();
    }
    catch_crashes();
    std::string why;
    if (load_platform(asked.library.c_str(), s.calls, s.missing, why) != 0) {
        fprintf(stderr, "kavplat conformance: cannot load %s: %s\n", asked.library.c_str(),
                why.c_str());
        return misused;
    }
    watch_for_hangs(s.options.wait);
    int result = run(s, wanted);
    if (!s.provoke_fault.empty()) {
        fprintf(stderr, "kavplat conformance: --provoke: %s\n", s.provoke_fault.c_str());
        result = misused;
    }
    // The library's threads may be running: none of its destructors, then.
    _exit(result);
}

void add_seconds(CLI::App &command, const char *name, const char *purpose,
                 std::chrono::milliseconds &into)
{
    command
        .add_option_function<std::string>(
            name,
            [&into, name](const std::string &text) {
                if (!read_seconds(text.c_str(), into)) {
                    throw CLI::ValidationError(name, "takes a number above 0, not " + text);
                }
            },
            purpose)
        ->type_name("N")
        ->default_str(std::to_string(into.count() / 1000));
}

std::function<int()> add_to(CLI::App &command)
{
    const auto asked = std::make_shared<request>();
    CLI::Option *list = command.add_flag("--list", asked->list,
                                         "Print the checks and what each one checks, no more");
    const CLI::Option *library =
        command.add_option("LIBRARY", asked->library, "What implements the platform contract")
            ->type_name("");
    command.add_option("--only", asked->only, "Run this check alone; may be given again")
        ->type_name("NAME")
        ->allow_extra_args(false)
        ->check([](const std::string &name) {
            return named(name) != nullptr ? std::string() : "there is no check " + name;
        });
    add_seconds(command, "--seconds", "How long four threads read at once",
                asked->options.concurrent_for);
    command
        .add_option("--provoke", asked->options.provoke,
                    "A shell command that makes a component come or go, so that events can be "
                    "checked")
        ->type_name("COMMAND");
    add_seconds(command, "--wait", "Seconds for an event to come and for a call to return",
                asked->options.wait);
    command.callback([list, library] {
        if (library->empty() && list->empty()) {
            throw CLI::RequiredError("LIBRARY or --list");
        }
    });
    command.footer(
        "Example:\n"
        "  kavplat conformance ./libminimal.so\n"
        "Exits with 0 when no promise is broken, with 1 when one is, with 2 when the library\n"
        "cannot be loaded, an option is wrong or the command failed.");
    return [asked] { return hold_to_the_contract(*asked); };
}

} // namespace

const kavplat::subcommand kavplat::conformance = {
    "conformance", "Says which promises of the platform contract a library keeps and breaks",
    add_to};

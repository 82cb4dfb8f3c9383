#include "tools/kavplat/subcommand.h"
#include "command.h"
#include "tools/kavplat/agent/options.h"

#include <CLI/CLI.hpp>
#include <iostream>

const kavplat::subcommand kavplat::watch = {
    "watch", "Tells what changes in a box: what is plugged and pulled, states, readings",
    [](CLI::App &command) -> std::function<int()> {
        const auto asked = std::make_shared<kavplat_watch::options>();
        command
            .add_option("AGENT", asked->whom.agent, "Where the agent is: [TRANSPORT:]HOST[:PORT]")
            ->type_name("")
            ->capture_default_str();
        command
            .add_option("--interval", asked->interval,
                        "How often is asked, by one request, whether anything was plugged")
            ->type_name("SECONDS")
            ->check(CLI::Range(0.05, 86400.0))
            ->capture_default_str();
        command
            .add_option("--readings", asked->readings,
                        "How often states and readings are read; 0: never")
            ->type_name("SECONDS")
            ->check(CLI::Range(0.0, 86400.0))
            ->capture_default_str();
        command.add_option("--count", asked->count, "End after asking so often; 0: never")
            ->type_name("NUMBER")
            ->check(CLI::Range(0L, 1000000000L))
            ->capture_default_str();
        command
            .add_option("--listen", asked->listen,
                        "Read at once when a notification arrives there, as udp:162")
            ->type_name("ADDRESS");
        command.add_flag("--only-states", asked->only_states,
                         "Without readings that change and mean no other state");
        command.add_flag("--json", asked->json, "An object of JSON in each line");
        kavplat_agent::add_to(command, asked->whom);
        command.footer("Example:\n"
                       "  kavplat watch -v2c -c public rack7.example.net --only-states\n"
                       "A line begins with + for what came, - for what went, ! for another state\n"
                       "and ~ for another reading.\n"
                       "Exits with 0 when it is ended by a signal or by --count, with 1 when the\n"
                       "agent cannot be read at the begin, and with 2 when it was called in\n"
                       "another way than this. An agent that falls silent later is told, and\n"
                       "asked again.");
        return
            [asked] { return static_cast<int>(kavplat_watch::run(*asked, std::cout, std::cerr)); };
    }};

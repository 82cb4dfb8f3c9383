#include "tools/kavplat/subcommand.h"
#include "command.h"
#include "tools/kavplat/agent/options.h"

#include <CLI/CLI.hpp>
#include <iostream>

const kavplat::subcommand kavplat::health = {
    "health", "Says whether a box is well, as a plugin of Nagios or Icinga",
    [](CLI::App &command) -> std::function<int()> {
        const auto asked = std::make_shared<kavplat_health::options>();
        command
            .add_option("AGENT,-H,--hostname", asked->whom.agent,
                        "Where the agent is: [TRANSPORT:]HOST[:PORT]")
            ->type_name("")
            ->capture_default_str();
        command
            .add_option(
                "--include", asked->include,
                "Judge only what has such a name, as /SYS/PS*, with all that is in it; may be "
                "repeated")
            ->type_name("PATTERN")
            ->expected(1)
            ->take_all();
        command.add_option("--exclude", asked->exclude, "Leave out what has such a name; likewise")
            ->type_name("PATTERN")
            ->expected(1)
            ->take_all();
        command
            .add_option("--require", asked->require,
                        "Critical, unless something has such a name; likewise")
            ->type_name("PATTERN")
            ->expected(1)
            ->take_all();
        command
            .add_option("--missing", asked->missing,
                        "What a component counts as that its presence sensor does not find")
            ->check(CLI::IsMember({"ok", "warning", "critical"}))
            ->capture_default_str();
        command.add_option("--timeout", asked->timeout, "Unknown, unless all is read in that time")
            ->type_name("SECONDS")
            ->check(CLI::Range(0.01, 86400.0))
            ->capture_default_str();
        command.add_flag("--no-perfdata", asked->no_data, "Without performance data");
        kavplat_agent::add_to(command, asked->whom);
        command.footer("Example:\n"
                       "  kavplat health -v2c -c public rack7.example.net --exclude '*/NET*' \\\n"
                       "      --require /SYS/PS0 --require /SYS/PS1\n"
                       "The first line tells the gravest; the next ones all, one each.\n"
                       "Exits with 0 when all is well, with 1 for a warning, with 2 for something\n"
                       "critical, with 3 when something, or the agent, cannot be read. Called in\n"
                       "another way than this it exits with 3, too.");
        return [asked] { return static_cast<int>(kavplat_health::run(*asked, std::cout)); };
    },
    kavplat_health::unknown};

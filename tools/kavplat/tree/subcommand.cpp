#include "tools/kavplat/subcommand.h"
#include "command.h"
#include "tools/kavplat/agent/options.h"

#include <CLI/CLI.hpp>
#include <iostream>

const kavplat::subcommand kavplat::tree = {
    "tree", "Shows what a box is built of and how it is, as its agent tells",
    [](CLI::App &command) -> std::function<int()> {
        const auto asked = std::make_shared<kavplat_tree::options>();
        command
            .add_option("AGENT", asked->whom.agent,
                        "Where the agent is: [TRANSPORT:]HOST[:PORT]. What begins with a slash is "
                        "taken for NAME")
            ->type_name("")
            ->capture_default_str();
        command
            .add_option("NAME", asked->name,
                        "Show that entity with all that is in it: its name, or the end of it")
            ->type_name("");
        command.add_option("--only", asked->only, "Only these, as a list with their whole names")
            ->check(CLI::IsMember({"alarms", "sensors", "frus"}));
        auto *json = command.add_flag("--json", asked->json, "As JSON");
        command.add_option("--html", asked->page, "As a page into this file; - is the output")
            ->type_name("FILE")
            ->excludes(json);
        command
            .add_option("--color", asked->colour,
                        "Colours: auto is on a terminal, unless NO_COLOR is set")
            ->check(CLI::IsMember({"auto", "always", "never"}))
            ->capture_default_str();
        command
            .add_option("--timeout", asked->timeout,
                        "How long all of it may take; 0: as long as the agent answers")
            ->type_name("SECONDS")
            ->check(CLI::Range(0.0, 86400.0));
        kavplat_agent::add_to(command, asked->whom);
        command.footer("Example:\n"
                       "  kavplat tree -v2c -c public rack7.example.net --only alarms\n"
                       "Exits with 0 when all was read, with 1 when the agent or what was named\n"
                       "cannot be had, with 2 when it was called in another way than this, with 3\n"
                       "when a part could not be read, which is told.");
        return [asked] {
            if (asked->name.empty() && asked->whom.agent.starts_with('/')) {
                asked->name = asked->whom.agent;
                asked->whom.agent = "localhost";
            }
            return kavplat_tree::run(*asked, std::cout, std::cerr);
        };
    }};

#include "tools/kavplat/subcommand.h"

#include "tools/kavplat/describe/describe.h"
#include "tools/kavplat/describe/output.h"
#include "tools/kavplat/describe/watch.h"

#include <CLI/CLI.hpp>
#include <filesystem>
#include <iostream>

namespace
{

using namespace kavplat_describe;

int run(const options &asked)
{
    const described result = describe(asked, asked.bmc.wanted ? ask_bmc(asked.bmc) : bmc_word());
    for (const std::string &each : result.complaints) {
        std::cerr << "kavplat describe: " << each << '\n';
    }
    if (result.text.empty()) {
        return 1;
    }
    if (asked.output.empty()) {
        std::cout << result.text << std::flush;
        return std::cout ? 0 : 1;
    }
    std::string why;
    if (!replace_file(asked.output, result.text, why)) {
        std::cerr << "kavplat describe: " << asked.output << ": " << why << '\n';
        return 1;
    }
    return 0;
}

struct bmc_options {
    bool wanted = false;
    bool unwanted = false;
    std::string directory = "/run/kavplat/values";
};

/* A service processor is this machine's own, or that of the host that was named. */
void settle(options &asked, const bmc_options &given)
{
    const bool of_this_machine = !given.wanted && !given.unwanted && asked.bmc.host.empty() &&
                                 asked.root == "/" && has_bmc_client() && has_bmc();
    asked.bmc_is_for_root = of_this_machine && !may_ask_bmc();
    asked.bmc.wanted = given.wanted || (of_this_machine && !asked.bmc_is_for_root) ||
                       (!given.unwanted && !asked.bmc.host.empty());
    asked.bmc.directory = std::filesystem::absolute(given.directory).lexically_normal();
}

void add_bmc_options(CLI::App &command, options &into, bmc_options &given)
{
    CLI::Option *wanted =
        command.add_flag("--ipmi", given.wanted,
                         "Ask the service processor too, as is done anyway where /dev/ipmi0 is");
    command.add_flag("--no-ipmi", given.unwanted, "Leave the service processor alone")
        ->excludes(wanted);
    CLI::Option *host =
        command
            .add_option("--ipmi-host", into.bmc.host,
                        "Ask this service processor over the network instead of this machine's "
                        "own")
            ->type_name("HOST[:PORT]");
    command.add_option("--ipmi-user", into.bmc.user, "The user's name there")
        ->type_name("NAME")
        ->needs(host);
    command
        .add_option("--ipmi-password-file", into.bmc.password_file,
                    "Whose first line is the user's password there")
        ->type_name("FILE")
        ->needs(host);
    command
        .add_option("--values", given.directory,
                    "Where values are written that the kernel has no file for, such as those of "
                    "the service processor")
        ->type_name("DIR")
        ->capture_default_str();
}

} // namespace

const kavplat::subcommand kavplat::describe = {
    "describe", "Describes this machine: what it is built of and where its sensors are read",
    [](CLI::App &command) -> std::function<int()> {
        const auto asked = std::make_shared<options>();
        command
            .add_option("--root", asked->root,
                        "Look at another machine, whose /sys, /proc and /run stand below DIR")
            ->type_name("DIR")
            ->capture_default_str();
        CLI::Option *output =
            command
                .add_option(
                    "--output", asked->output,
                    "Write here, at once and never half, and only what differs; without it to "
                    "standard output")
                ->type_name("FILE");
        command.add_flag_callback(
            "--no-serials", [asked] { asked->serials = false; },
            "Leave out what tells this machine from another of the same make");
        command
            .add_option("--merge", asked->merge,
                        "A description whose components and keys are laid over what was found")
            ->type_name("FILE");
        const auto given = std::make_shared<bmc_options>();
        add_bmc_options(command, *asked, *given);
        const auto is_watch = std::make_shared<bool>(false);
        command
            .add_flag("--watch", *is_watch,
                      "Go on until SIGTERM and write the file anew when the machine changes")
            ->needs(output);
        command.footer(
            "Example:\n"
            "  kavplat describe --output /etc/kavplat/server.json\n"
            "Exits with 0 when there is a description, whatever could not be read, with 1\n"
            "when there is none, and with 2 when it was called in another way than this.");
        return [asked, given, is_watch] {
            if (std::string why; !make_directory_of(asked->output, why)) {
                std::cerr << "kavplat describe: " << asked->output << ": " << why << '\n';
                return 1;
            }
            settle(*asked, *given);
            return *is_watch ? kavplat_describe::watch(*asked) : run(*asked);
        };
    }};

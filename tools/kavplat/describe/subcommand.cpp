#include "tools/kavplat/subcommand.h"

#include "tools/kavplat/describe/describe.h"
#include "tools/kavplat/describe/output.h"
#include "tools/kavplat/describe/watch.h"

#include <CLI/CLI.hpp>
#include <iostream>

namespace
{

using namespace kavplat_describe;

int run(const options &asked)
{
    const described result = describe(asked);
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
        return
            [asked, is_watch] { return *is_watch ? kavplat_describe::watch(*asked) : run(*asked); };
    }};

#include "tools/kavplat/subcommand.h"

#include <CLI/CLI.hpp>
#include <iostream>

namespace
{

const CLI::App *find_subcommand(const CLI::App &of, const std::string &name)
{
    const auto found =
        of.get_subcommands([&](const CLI::App *each) { return each->get_name() == name; });
    return found.empty() ? nullptr : found.front();
}

} // namespace

const kavplat::subcommand kavplat::help = {
    "help", "Tells what a subcommand takes, with an example, as its --help does",
    [](CLI::App &command) -> std::function<int()> {
        const CLI::App *all = command.get_parent();
        const auto wanted = std::make_shared<std::string>();
        command.add_option("SUBCOMMAND", *wanted, "Which one; without it they are listed")
            ->type_name("")
            ->check([all](const std::string &name) -> std::string {
                return find_subcommand(*all, name) != nullptr
                           ? ""
                           : "there is no subcommand " + name + "; kavplat help lists them";
            });
        command.footer(
            "Example:\n"
            "  kavplat help tree\n"
            "Exits with 0 when it is told, with 1 when it cannot be written, and with 2\n"
            "when it was called in another way than this.");
        return [all, wanted] {
            const std::string name = all->get_name();
            std::cout << (wanted->empty() ? all->get_formatter()->make_help(
                                                all, name, CLI::AppFormatMode::Normal)
                                          : find_subcommand(*all, *wanted)->help(name))
                      << std::flush;
            return std::cout ? 0 : 1;
        };
    }};

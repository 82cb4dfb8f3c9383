/* kavplat SUBCOMMAND: what is done about servers, descriptions and platforms from a shell. */
#include "subcommand.h"

#include <CLI/CLI.hpp>
#include <iostream>
#include <map>

namespace
{

const kavplat::subcommand *const subcommands[] = {
    &kavplat::describe, &kavplat::capture, &kavplat::check, &kavplat::conformance,
    &kavplat::tree,     &kavplat::health,  &kavplat::watch, &kavplat::plug,
    &kavplat::unplug,   &kavplat::set,     &kavplat::help,
};

int run(int count, char **arguments)
{
    CLI::App app(
        "Describes servers, and looks at descriptions and at the platforms that serve them.",
        "kavplat");
    const std::string version = "kavplat " KAVPLAT_VERSION;
    app.set_version_flag("--version", version);
    app.require_subcommand(0, 1);
    app.footer("kavplat help SUBCOMMAND tells more.");
    std::map<const CLI::App *, std::function<int()>> actions;
    for (const kavplat::subcommand *each : subcommands) {
        CLI::App *command = app.add_subcommand(each->name, each->purpose);
        command->set_version_flag("--version", version);
        actions[command] = each->add(*command);
    }
    try {
        app.parse(count, arguments);
        if (app.get_subcommands().empty()) {
            // Not by require_subcommand, which would say so of a name that is unknown too.
            throw CLI::RequiredError::Subcommand(1);
        }
    } catch (const CLI::ParseError &error) {
        if (app.get_subcommands().empty() && count > 1 && arguments[1][0] != '-') {
            std::cerr << "There is no subcommand " << arguments[1] << "; there are";
            for (const kavplat::subcommand *each : subcommands) {
                std::cerr << ' ' << each->name;
            }
            std::cerr << "\nRun with --help for more information.\n";
            return kavplat::misused;
        }
        if (app.exit(error) == 0) {
            return 0;
        }
        for (const kavplat::subcommand *each : subcommands) {
            if (app.got_subcommand(each->name)) {
                return each->when_misused;
            }
        }
        return kavplat::misused;
    }
    return actions.at(app.get_subcommands().front())();
}

} // namespace

int main(int count, char **arguments)
{
    try {
        return run(count, arguments);
    } catch (const std::exception &error) {
        std::cerr << "kavplat: " << error.what() << '\n';
        return 1;
    }
}

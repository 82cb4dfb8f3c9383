/*
 * kavplat-check: says whether the described platform would take descriptions,
 * with every error that it would log, before an agent sees them.
 */
#include "command.h"

#include <CLI/CLI.hpp>
#include <iostream>

int main(int count, char **arguments)
{
    try {
        CLI::App app("Says what is wrong with descriptions of servers, or what they describe.",
                     "kavplat-check");
        app.set_version_flag("--version", "kavplat-check " KAVPLAT_VERSION);
        kavplat_check::options asked;
        kavplat_check::add_to(app, asked);
        try {
            app.parse(count, arguments);
        } catch (const CLI::ParseError &error) {
            return app.exit(error) == 0 ? kavplat_check::good : kavplat_check::misused;
        }
        return kavplat_check::run(asked, std::cout, std::cerr);
    } catch (const std::exception &error) {
        std::cerr << "kavplat-check: " << error.what() << '\n';
        return kavplat_check::bad;
    }
}

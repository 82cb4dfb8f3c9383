#include "command.h"

#include <CLI/CLI.hpp>

namespace kavplat_check
{

void add_to(CLI::App &command, options &into)
{
    into.user = usual_user();
    auto *files = command
                      .add_option("FILE", into.files,
                                  "Descriptions; - is the standard input, whose relative files "
                                  "are looked up from here")
                      ->type_name("");
    command.add_flag("--read", into.read,
                     "Read each value that is bound to a file once, and print it or the reason");
    auto *types = command.add_flag("--types", into.types, "Print the catalogue of component types");
    command
        .add_option("--user", into.user,
                    "User that the agent runs as: warn of files that are not for him to read")
        ->type_name("NAME")
        ->capture_default_str();
    command.callback([files, types] {
        if (files->empty() && types->empty()) {
            throw CLI::RequiredError("FILE or --types");
        }
    });
    command.footer("Example:\n"
                   "  kavplat check /etc/kavplat/server.json\n"
                   "Exits with 0 when all are good, with warnings or without, with 1 when one is\n"
                   "bad, and with 2 when it was called in another way than this.");
}

} // namespace kavplat_check

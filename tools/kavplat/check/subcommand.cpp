#include "tools/kavplat/subcommand.h"
#include "command.h"

#include <CLI/CLI.hpp>
#include <iostream>

const kavplat::subcommand kavplat::check = {
    "check", "Says what is wrong with descriptions of servers, or what they describe",
    [](CLI::App &command) -> std::function<int()> {
        const auto asked = std::make_shared<kavplat_check::options>();
        kavplat_check::add_to(command, *asked);
        return [asked] { return kavplat_check::run(*asked, std::cout, std::cerr); };
    }};

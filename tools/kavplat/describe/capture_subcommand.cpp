#include "tools/kavplat/subcommand.h"

#include "tools/kavplat/describe/capture.h"

#include <CLI/CLI.hpp>
#include <iostream>

const kavplat::subcommand kavplat::capture = {
    "capture", "Packs what describe reads of this machine, for a report of what it got wrong",
    [](CLI::App &command) -> std::function<int()> {
        const auto asked = std::make_shared<kavplat_describe::capture_options>();
        command
            .add_option("FILE", asked->file,
                        "The archive to write, for tar and zstd; only its owner may read it")
            ->type_name("")
            ->required();
        command.add_flag("--anonymous", asked->anonymous,
                         "Blank serial numbers, asset tags, UUIDs and addresses of ports");
        command
            .add_option("--root", asked->root,
                        "Take another machine, whose /sys, /proc and /run stand below DIR")
            ->type_name("DIR")
            ->capture_default_str();
        command.footer(
            "Example:\n"
            "  kavplat capture --anonymous machine.tar.zst\n"
            "  mkdir machine && tar -xf machine.tar.zst -C machine\n"
            "  kavplat describe --root machine\n\n"
            "Exits with 0 when the archive was written, whatever could not be read, with 1\n"
            "when there is none, and with 2 when it was called in another way than this.");
        return [asked] {
            std::vector<std::string> complaints;
            const int status = kavplat_describe::capture(*asked, KAVPLAT_VERSION, complaints);
            for (const std::string &each : complaints) {
                std::cerr << "kavplat capture: " << each << '\n';
            }
            return status;
        };
    }};

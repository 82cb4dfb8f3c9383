#include "command.h"
#include "tools/kavplat/subcommand.h"

#include <CLI/CLI.hpp>
#include <iostream>

namespace
{

using kavplat_edit::target;

void add_target(CLI::App &command, target &into)
{
    command.add_option("FILE", into.file, "The description")->type_name("")->required();
    command
        .add_option("--output", into.output,
                    "Leave the file as it is and write there; - is the standard output")
        ->type_name("FILE");
}

constexpr const char *statuses =
    "The order and the formatting of all else stay. What the platform would not take is not\n"
    "written; an agent sees the old file or the new one, whole.\n"
    "Exits with 0 when it is done, with 1 when it is refused, which is told, and with 2 when\n"
    "it was called in another way than this.";

} // namespace

const kavplat::subcommand kavplat::unplug = {
    "unplug", "Takes components out of a description, with all below them",
    [](CLI::App &command) -> std::function<int()> {
        struct options {
            target where;
            std::vector<std::string> names;
        };
        const auto asked = std::make_shared<options>();
        add_target(command, asked->where);
        command.add_option("NAME", asked->names, "What is to go")->type_name("")->required();
        command.footer(std::string("Example:\n  kavplat unplug server.json /SYS/FM0/FAN1\n") +
                       statuses);
        return [asked] {
            const auto edit = [&](kavplat_edit::sheet &in, std::string &told) {
                return kavplat_edit::unplug(in, asked->names, told);
            };
            return static_cast<int>(kavplat_edit::run(asked->where, edit, std::cout, std::cerr));
        };
    }};

const kavplat::subcommand kavplat::plug = {
    "plug", "Puts a component into a description, with all below it",
    [](CLI::App &command) -> std::function<int()> {
        struct options {
            target where;
            kavplat_edit::plugged what;
            std::string from;
        };
        const auto asked = std::make_shared<options>();
        add_target(command, asked->where);
        command.add_option("NAME", asked->what.name, "What is to come")->type_name("")->required();
        auto *from = command.add_option("--from", asked->from, "Take it from that description")
                         ->type_name("FILE");
        auto *like = command
                         .add_option("--like", asked->what.source,
                                     "As a copy of that component, with all below it")
                         ->type_name("NAME");
        command
            .add_option("--serial", asked->what.serial,
                        "Its serial number, where one component has one")
            ->type_name("TEXT");
        command.callback([from, like] {
            if (from->empty() && like->empty()) {
                throw CLI::RequiredError("--from or --like");
            }
        });
        command.footer(
            std::string("Example:\n"
                        "  kavplat plug server.json /SYS/HDD3 --from rack-2u.json\n"
                        "  kavplat plug server.json /SYS/HDD4 --like /SYS/HDD3 --serial D-0005\n") +
            statuses);
        return [asked] {
            if (asked->what.source.empty()) {
                asked->what.source = asked->what.name;
            }
            std::unique_ptr<kavplat_edit::sheet> other;
            if (!asked->from.empty()) {
                other = kavplat_edit::read_sheet(asked->from, std::cerr);
                if (other == nullptr) {
                    return static_cast<int>(kavplat_edit::refused);
                }
            }
            const auto edit = [&](kavplat_edit::sheet &in, std::string &told) {
                std::string failure =
                    kavplat_edit::plug(in, other == nullptr ? in : *other, asked->what, told);
                if (other != nullptr && other->family(asked->what.source).empty()) {
                    failure = asked->from + ": " + failure; // it is what lacks something
                }
                return failure;
            };
            return static_cast<int>(kavplat_edit::run(asked->where, edit, std::cout, std::cerr));
        };
    }};

const kavplat::subcommand kavplat::set = {
    "set", "Changes values of a component in a description: a reading, a state, a light",
    [](CLI::App &command) -> std::function<int()> {
        struct options {
            target where;
            std::string name;
            std::vector<std::string> values;
            bool unbind = false;
        };
        const auto asked = std::make_shared<options>();
        add_target(command, asked->where);
        command.add_option("NAME", asked->name, "A component; product and chassis are the others")
            ->type_name("")
            ->required();
        command
            .add_option("ASSIGNMENT", asked->values,
                        "KEY=VALUE, with a key as in the description: sensor.reading, or shorter "
                        "reading; state or led; "
                        "power; enable; ready_to_remove; valid; upper_critical; fru.serial")
            ->type_name("")
            ->required()
            ->check([](const std::string &each) {
                const size_t at = each.find('=');
                return at == 0 || at == std::string::npos ? "expected KEY=VALUE, found " + each
                                                          : "";
            });
        command.add_flag("--unbind", asked->unbind,
                         "Put the value in the place of one that is bound to a file");
        command.footer(std::string("Example:\n"
                                   "  kavplat set server.json /SYS/T_AMB reading=47\n"
                                   "  kavplat set server.json /SYS/LOCATE led=fast-blink\n") +
                       statuses);
        return [asked] {
            std::vector<kavplat_edit::assignment> values;
            for (const std::string &each : asked->values) {
                const size_t at = each.find('=');
                values.push_back({each.substr(0, at), each.substr(at + 1)});
            }
            const auto edit = [&](kavplat_edit::sheet &in, std::string &told) {
                return kavplat_edit::set(in, asked->name, values, asked->unbind, told);
            };
            return static_cast<int>(kavplat_edit::run(asked->where, edit, std::cout, std::cerr));
        };
    }};

/*
 * What a subcommand of kavplat is. Each has a directory of its own, declares itself
 * there by a `const subcommand`, and is one line of the list in main.cpp.
 */
#ifndef KAVPLAT_SUBCOMMAND_H
#define KAVPLAT_SUBCOMMAND_H

#include <functional>

namespace CLI
{
class App;
}

namespace kavplat
{

/* The status for a command line that is not understood. */
constexpr int misused = 2;

struct subcommand {
    const char *name;
    const char *purpose; /* one line of kavplat --help */

    /* Adds options to the command line. What is returned is called when the subcommand
     * was named and its command line is good, and returns the exit status; it owns
     * what the options are read into. An exception from it is told on standard error
     * and ends the command with the status 1. */
    std::function<int()> (*add)(CLI::App &command);

    /* The status for a command line of its own that is not understood, where others
     * than people read it. */
    int when_misused = misused;
};

extern const subcommand capture;
extern const subcommand check;
extern const subcommand conformance;
extern const subcommand describe;
extern const subcommand health;
extern const subcommand help;
extern const subcommand plug;
extern const subcommand set;
extern const subcommand tree;
extern const subcommand unplug;
extern const subcommand watch;

} // namespace kavplat

#endif

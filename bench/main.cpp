// Measures how quick the module is against other ways of serving the same rows,
// and prints ratios as a Markdown document.
//
// usage: kavplat-bench [--rounds N] [--only walks|traces|watcher|process|latency] [--unpinned]
//
// Clients and agents share one processor, unless --unpinned leaves them to the
// scheduler.
//
// Everything that is compared is measured in turn, round after round, so that
// whatever else the machine does befalls all of it; a ratio is taken within a
// round, and what is told is the median over the rounds with the quartiles.
#include "generated_server.h"
#include "harness/files.h"
#include "subjects.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/version.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sched.h>
#include <string>
#include <sys/utsname.h>
#include <unistd.h>

namespace
{

std::string processor_model()
{
    std::ifstream in("/proc/cpuinfo");
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with("model name")) {
            return line.substr(line.find(':') + 2);
        }
    }
    return "unknown processor";
}

std::string load()
{
    double loads[3] = {};
    char text[32];
    snprintf(text, sizeof text, "%.2f", getloadavg(loads, 3) > 0 ? loads[0] : -1.0);
    return text;
}

void print_machine()
{
    utsname system = {};
    uname(&system);
    printf(
        "# Performance\n\n%s, %ld processors, %s %s, net-snmp %s, gcc %s; load at the start %s\n\n",
        processor_model().c_str(), sysconf(_SC_NPROCESSORS_ONLN), system.sysname, system.release,
        netsnmp_get_version(), __VERSION__, load().c_str());
}

// Client and agent take turns, so one processor serves both, and nothing is
// measured that a processor takes to wake up. Children inherit this.
void keep_to_one_processor()
{
    cpu_set_t allowed;
    if (sched_getaffinity(0, sizeof allowed, &allowed) != 0) {
        return;
    }
    for (size_t i = CPU_SETSIZE; i-- > 0;) {
        if (CPU_ISSET(i, &allowed)) {
            CPU_ZERO(&allowed);
            CPU_SET(i, &allowed);
            sched_setaffinity(0, sizeof allowed, &allowed);
            return;
        }
    }
}

int usage()
{
    fprintf(stderr,
            "usage: kavplat-bench [--rounds N] [--only walks|traces|watcher|process|latency] "
            "[--unpinned]\n");
    return 2;
}

} // namespace

int main(int argc, char **argv)
{
    size_t rounds = 7;
    std::string only;
    bool is_pinned = true;
    for (int i = 1; i < argc; i++) {
        const std::string word = argv[i];
        if (word == "--rounds" && i + 1 < argc) {
            rounds = strtoul(argv[++i], nullptr, 10);
        } else if (word == "--only" && i + 1 < argc) {
            only = argv[++i];
        } else if (word == "--unpinned") {
            is_pinned = false;
        } else {
            return usage();
        }
    }
    if (rounds == 0) {
        return usage();
    }
    try {
        const temporary_directory directory;
        print_machine();
        if (only.empty() || only == "process") {
            process_figures();
        }
        if (only.empty() || only == "latency") {
            latency();
        }
        if (is_pinned) {
            keep_to_one_processor();
        }
        if (only.empty() || only == "walks") {
            walks(directory.path() / "walks", rounds);
        }
        if (only.empty() || only == "traces") {
            traces(directory.path() / "traces", rounds);
        }
        if (only.empty() || only == "watcher") {
            watcher(directory.path() / "watcher");
        }
        printf("Load at the end: %s\n", load().c_str());
    } catch (const std::exception &e) {
        fflush(stdout);
        fprintf(stderr, "kavplat-bench: %s\n", e.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}

#include "described/platform.h"

#include "described/live/forks.h"
#include "described/live/log.h"
#include "described/live/threads.h"

#include <climits>
#include <cstdlib>
#include <pthread.h>
#include <unistd.h>

#ifndef KAVPLAT_DEFAULT_DESCRIPTION
#error "KAVPLAT_DEFAULT_DESCRIPTION: where the description is when the environment names none"
#endif

namespace described_platform
{
namespace
{

/* Nothing here has a destructor: threads may run until the process is gone. */
machine *process_machine GUARDED_BY(pointers_mutex) = nullptr;
/* What a child left behind, still reachable so that no leak is reported. */
struct abandoned {
    machine *left;
    abandoned *next;
};
abandoned *graveyard GUARDED_BY(pointers_mutex) = nullptr;
/* A relative path means the directory that the process was loaded in; a daemon
 * goes to "/" before it asks for anything. Empty: not needed or not known. */
char start_directory[PATH_MAX];

void before_fork() ACQUIRE(log_mutex, pointers_mutex)
{
    stop_work_before_fork();
    hold_for_fork();
}

void after_fork_in_parent() RELEASE(log_mutex, pointers_mutex)
{
    release_after_fork();
    resume_work_in_parent();
}

void after_fork_in_child() RELEASE(log_mutex, pointers_mutex)
{
    forget_work_in_child();
    if (process_machine != nullptr) {
        process_machine->events.close_descriptors_in_child();
        auto *grave = new (std::nothrow) abandoned{process_machine, graveyard};
        graveyard = grave != nullptr ? grave : graveyard;
        process_machine = nullptr;
    }
    release_after_fork();
}

__attribute__((constructor)) void prepare_process()
{
    const char *given = std::getenv("KAVPLAT_DESCRIPTION");
    if (given != nullptr && given[0] != '/' &&
        ::getcwd(start_directory, sizeof start_directory) == nullptr) {
        start_directory[0] = '\0';
    }
    pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
}

std::string description_path()
{
    const char *given = std::getenv("KAVPLAT_DESCRIPTION");
    if (given == nullptr || given[0] == '\0') {
        return KAVPLAT_DEFAULT_DESCRIPTION;
    }
    if (given[0] == '/') {
        return given;
    }
    std::string directory = start_directory;
    if (char here[PATH_MAX]; directory.empty() && ::getcwd(here, sizeof here) != nullptr) {
        directory = here;
    }
    return directory + "/" + given;
}

std::chrono::milliseconds read_bound()
{
    constexpr long longest = 60000;
    const char *given = std::getenv("KAVPLAT_READ_TIMEOUT_MS");
    if (given == nullptr) {
        return default_read_bound;
    }
    char *end = nullptr;
    const long number = std::strtol(given, &end, 10);
    if (end == given || *end != '\0' || number < 1 || number > longest) {
        log_error("KAVPLAT_READ_TIMEOUT_MS: expected milliseconds 1 to " + std::to_string(longest) +
                  ", found \"" + given + "\"; " + std::to_string(default_read_bound.count()) +
                  " it is");
        return default_read_bound;
    }
    return std::chrono::milliseconds(number);
}

} // namespace

machine::machine(std::string description_path)
    : values(read_bound()), file(std::move(description_path), values, health), events(file)
{
}

machine &the_machine()
{
    {
        const scoped_lock lock(pointers_mutex);
        if (process_machine != nullptr) {
            return *process_machine;
        }
    }
    auto made = std::make_unique<machine>(description_path());
    machine &kept = *made;
    {
        const scoped_lock lock(pointers_mutex);
        if (process_machine != nullptr) {
            return *process_machine;
        }
        process_machine = made.release();
    }
    /* By the child of a fork. */
    if (const description_pointer inherited = current_description(); inherited != nullptr) {
        kept.values.set_files(inherited->bound_files);
    }
    return kept;
}

} // namespace described_platform

void described_platform_stop()
{
    using namespace described_platform;
    machine *stopped = nullptr;
    {
        const scoped_lock lock(pointers_mutex);
        std::swap(stopped, process_machine);
    }
    delete stopped;
    put_in_force(nullptr);
}

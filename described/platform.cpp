#include "described/platform.h"

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

/*
 * The only lock that a fork takes. It guards three pointers and is held for no
 * longer than it takes to copy one, so that a fork never waits and the child
 * never finds it locked. Nothing here has a destructor: threads may run until
 * the process is gone.
 */
pthread_mutex_t shared_mutex = PTHREAD_MUTEX_INITIALIZER;
machine *process_machine = nullptr;
std::shared_ptr<const description> *in_force = nullptr;
/* What a child left behind, still reachable so that no leak is reported. */
struct abandoned {
    machine *left;
    abandoned *next;
};
abandoned *graveyard = nullptr;
/* A relative path means the directory that the process was loaded in; a daemon
 * goes to "/" before it asks for anything. Empty: not needed or not known. */
char start_directory[PATH_MAX];

struct shared_lock {
    shared_lock() { pthread_mutex_lock(&shared_mutex); }
    ~shared_lock() { pthread_mutex_unlock(&shared_mutex); }
    shared_lock(const shared_lock &) = delete;
    shared_lock &operator=(const shared_lock &) = delete;
};

void before_fork()
{
    stop_work_before_fork();
    pthread_mutex_lock(&shared_mutex);
}

void after_fork_in_parent()
{
    pthread_mutex_unlock(&shared_mutex);
    resume_work_in_parent();
}

void after_fork_in_child()
{
    forget_work_in_child();
    if (process_machine != nullptr) {
        process_machine->events.close_descriptors_in_child();
        auto *grave = new (std::nothrow) abandoned{process_machine, graveyard};
        graveyard = grave != nullptr ? grave : graveyard;
        process_machine = nullptr;
    }
    pthread_mutex_unlock(&shared_mutex);
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

void put_in_force(std::shared_ptr<const description> next)
{
    const shared_lock lock;
    if (in_force == nullptr) {
        in_force = new std::shared_ptr<const description>;
    }
    in_force->swap(next); /* the old one goes when the lock is released */
}

} // namespace

machine::machine(std::string description_path)
    : path(std::move(description_path)), values(read_bound()), events(*this)
{
}

machine &the_machine()
{
    {
        const shared_lock lock;
        if (process_machine != nullptr) {
            return *process_machine;
        }
    }
    auto made = std::make_unique<machine>(description_path());
    const std::shared_ptr<const description> inherited = current_description();
    machine *kept = nullptr;
    {
        const shared_lock lock;
        if (process_machine == nullptr) {
            process_machine = made.release();
            kept = process_machine;
        } else {
            return *process_machine;
        }
    }
    if (inherited != nullptr) { /* by the child of a fork */
        kept->values.set_files(inherited->bound_files);
    }
    return *kept;
}

std::shared_ptr<const description> current_description()
{
    const shared_lock lock;
    return in_force == nullptr ? nullptr : *in_force;
}

bool load(machine &owner, load_when when, complaints when_to_complain)
{
    const std::lock_guard loading(owner.load_mutex);
    if (when == load_when::changed) {
        const std::shared_ptr<const description> current = current_description();
        const file_signature now = current_signature(owner.path);
        if ((current != nullptr && current->signature == now) ||
            (owner.ever_tried && owner.seen == now)) {
            return true;
        }
    }
    load_result result = load_description(owner.path);
    if (result.loaded == nullptr) {
        if (when_to_complain == complaints::later) {
            return false; /* not noted as seen: it is read again */
        }
        owner.ever_tried = true;
        owner.seen = result.signature;
        std::string complaint;
        for (const load_error &each : result.errors) {
            complaint += to_text(owner.path, each) + '\n';
        }
        if (complaint != owner.last_complaint) {
            for (const load_error &each : result.errors) {
                log_error(to_text(owner.path, each));
            }
            log_error(owner.path + (current_description() != nullptr
                                        ? ": refused; the last good description stays in force"
                                        : ": refused; there is no inventory until it is good"));
            owner.last_complaint = std::move(complaint);
        }
        return false;
    }
    owner.ever_tried = true;
    owner.seen = result.signature;
    owner.last_complaint.clear();
    owner.values.set_files(result.loaded->bound_files);
    put_in_force(std::move(result.loaded));
    return true;
}

} // namespace described_platform

void described_platform_stop()
{
    using namespace described_platform;
    machine *stopped = nullptr;
    std::shared_ptr<const description> *dropped = nullptr;
    {
        const shared_lock lock;
        std::swap(stopped, process_machine);
        std::swap(dropped, in_force);
    }
    delete stopped;
    delete dropped;
}

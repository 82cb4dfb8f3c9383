/* Programs that a test runs, and waiting for what they do. */
#ifndef KAVPLAT_TESTS_HARNESS_PROCESS_H
#define KAVPLAT_TESTS_HARNESS_PROCESS_H

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

/* Waits until condition() holds; false when it does not within the time. */
bool eventually(const std::function<bool()> &condition,
                std::chrono::milliseconds longest = std::chrono::seconds(30));

/* A child of the test that does not outlive it. */
class child_process
{
  public:
    child_process() = default;
    ~child_process() { stop(); }
    child_process(const child_process &) = delete;
    child_process &operator=(const child_process &) = delete;

    /* Output goes to a file. Call on a thread that lives as long as the child
     * shall. Throws when there is no such program. */
    void start(const std::vector<std::string> &command, const std::filesystem::path &output);
    /* Ends it by force; nothing when it is not running. */
    void stop();
    pid_t id() const { return pid_; }
    bool is_running() { return pid_ > 0 && !wait(std::chrono::milliseconds(0)); }
    /* Its exit status once it ended (128 + signal when that ended it). */
    std::optional<int> wait(std::chrono::milliseconds longest);

  private:
    pid_t pid_ = -1;
    std::optional<int> status_;
};

/* How a command of the shell ended, as the shell tells it, and what it said on
 * both channels. */
struct command_result {
    std::string output = {};
    int status = -1;
};
command_result run_command(const std::string &command);
/* As one word of such a command. */
std::string quoted(const std::string &word);

/* What a command is begun with, so that it has a pid namespace of its own: the
 * module's end is that of every snmpd that it can see. */
std::vector<std::string> in_pid_namespace();

/* A process and those below it, each after its parent. */
std::vector<pid_t> family_of(pid_t top);
std::string name_of(pid_t process);
/* Resident, in KiB; 0 when there is no such process. */
long memory_of(pid_t process);

#endif

#include "harness/process.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <map>
#include <sstream>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <fcntl.h>

#include "harness/files.h"

namespace fs = std::filesystem;

namespace
{

using namespace std::chrono_literals;

int exit_status(int status)
{
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// The parent of a process that runs; -1 when there is none.
pid_t parent_of(const fs::path &process)
{
    const std::string stat = read_file(process / "stat");
    const size_t close = stat.rfind(')'); // behind the name, which may hold anything
    if (close == std::string::npos) {
        return -1; // it has just ended
    }
    std::istringstream rest(stat.substr(close + 1));
    char state = 0;
    pid_t parent = -1;
    rest >> state >> parent;
    return state == 'Z' ? -1 : parent;
}

std::multimap<pid_t, pid_t> children_of_all()
{
    std::multimap<pid_t, pid_t> children;
    for (const fs::directory_entry &entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        pid_t id = 0;
        if (std::from_chars(name.data(), name.data() + name.size(), id).ec == std::errc()) {
            children.emplace(parent_of(entry.path()), id);
        }
    }
    return children;
}

} // namespace

bool eventually(const std::function<bool()> &condition, std::chrono::milliseconds longest)
{
    const auto end = std::chrono::steady_clock::now() + longest;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

void child_process::start(const std::vector<std::string> &command, const fs::path &output)
{
    stop();
    status_.reset();
    const int out = open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    int ready[2];
    if (out < 0 || pipe2(ready, O_CLOEXEC) != 0) {
        throw std::runtime_error("cannot start " + command.front() + ": " + strerror(errno));
    }
    std::vector<char *> arguments;
    for (const std::string &word : command) {
        arguments.push_back(const_cast<char *>(word.c_str()));
    }
    arguments.push_back(nullptr);
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == 0) {
        // Dies with the thread of the test that started it.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) {
            _exit(127);
        }
        dup2(out, STDOUT_FILENO);
        dup2(out, STDERR_FILENO);
        execvp(arguments[0], arguments.data());
        const int error = errno;
        [[maybe_unused]] const ssize_t told = write(ready[1], &error, sizeof error);
        _exit(127);
    }
    close(out);
    close(ready[1]);
    int error = pid_ < 0 ? errno : 0;
    const bool failed = pid_ < 0 || read(ready[0], &error, sizeof error) > 0;
    close(ready[0]);
    if (failed) {
        stop();
        throw std::runtime_error("cannot start " + command.front() + ": " + strerror(error));
    }
}

void child_process::stop()
{
    if (pid_ > 0 && !status_) {
        kill(pid_, SIGKILL);
        wait(10s);
    }
    pid_ = -1;
}

std::optional<int> child_process::wait(std::chrono::milliseconds longest)
{
    if (pid_ <= 0) {
        return status_;
    }
    eventually(
        [&] {
            int status = 0;
            if (!status_ && waitpid(pid_, &status, WNOHANG) == pid_) {
                status_ = exit_status(status);
            }
            return status_.has_value();
        },
        longest);
    return status_;
}

command_result run_command(const std::string &command)
{
    fflush(nullptr); // what was said before comes before
    FILE *pipe = popen(("{ " + command + "\n} 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        throw std::runtime_error("cannot run " + command);
    }
    command_result result;
    std::array<char, 4096> buffer;
    while (const size_t length = fread(buffer.data(), 1, buffer.size(), pipe)) {
        result.output.append(buffer.data(), length);
    }
    result.status = exit_status(pclose(pipe));
    return result;
}

std::string quoted(const std::string &word)
{
    std::string text = "'";
    for (const char c : word) {
        text += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return text + "'";
}

std::vector<std::string> in_pid_namespace()
{
    std::vector<std::string> words = {"unshare", "--pid", "--fork", "--kill-child", "--mount-proc"};
    if (geteuid() != 0) {
        words.insert(words.end(), {"--user", "--map-root-user"});
    }
    words.emplace_back("--");
    return words;
}

std::vector<pid_t> family_of(pid_t top)
{
    const std::multimap<pid_t, pid_t> children = children_of_all();
    std::vector<pid_t> family = {top};
    for (size_t i = 0; i < family.size(); i++) {
        const auto [first, last] = children.equal_range(family[i]);
        for (auto child = first; child != last; ++child) {
            family.push_back(child->second);
        }
    }
    return family;
}

std::string name_of(pid_t process)
{
    const std::string name = read_file("/proc/" + std::to_string(process) + "/comm");
    return name.substr(0, name.find('\n'));
}

long memory_of(pid_t process)
{
    std::istringstream status(read_file("/proc/" + std::to_string(process) + "/status"));
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("VmRSS:")) {
            return std::stol(line.substr(6));
        }
    }
    return 0;
}

#include "measured_agent.h"

#include <fstream>
#include <stdexcept>

#include "harness/client.h"

namespace fs = std::filesystem;

namespace
{

std::vector<std::string> in_namespace(const fs::path &state, const fs::path &description)
{
    std::vector<std::string> words = in_pid_namespace();
    words.insert(words.end(),
                 {"env", "MIBS=", "SNMP_PERSISTENT_DIR=" + state.string(),
                  "SNMPCONFPATH=" + state.string(), "KAVPLAT_DESCRIPTION=" + description.string()});
    return words;
}

} // namespace

measured_agent::measured_agent(const fs::path &directory, const std::string &configuration,
                               const fs::path &description)
    : directory_(directory), port_(free_port())
{
    fs::create_directories(directory_ / "state");
    const fs::path file = directory_ / "snmpd.conf";
    write_file(file,
               "rocommunity public 127.0.0.1\ndontLogTCPWrappersConnects yes\n" + configuration);
    std::vector<std::string> command = in_namespace(directory_ / "state", description);
    command.insert(command.end(),
                   {KAVPLAT_SNMPD, "-f", "-C", "-c", file, "-Lf", directory_ / "log", "-p",
                    directory_ / "pid", "-I", "-smux", "udp:127.0.0.1:" + std::to_string(port_)});
    agent_.start(command, directory_ / "output");
    snmp_client client(port_);
    client.set_timeout(std::chrono::milliseconds(200));
    if (!eventually([&] { return client.is_answered() || !agent_.is_running(); }) ||
        !agent_.is_running()) {
        fail("an agent does not start");
    }
    client_ = std::make_unique<light_client>(port_);
    find_processes();
}

void measured_agent::start_beside(const std::vector<std::string> &command,
                                  const fs::path &description)
{
    std::vector<std::string> words = in_namespace(directory_ / "state", description);
    words.insert(words.end(), command.begin(), command.end());
    beside_.push_back(std::make_unique<child_process>());
    beside_.back()->start(words, directory_ / "output");
}

bool measured_agent::log_has(const std::string &text) const
{
    return read_file(directory_ / "log").find(text) != std::string::npos ||
           read_file(directory_ / "output").find(text) != std::string::npos;
}

void measured_agent::fail(const std::string &what) const
{
    throw std::runtime_error(what + "\n" + read_file(directory_ / "output") +
                             read_file(directory_ / "log"));
}

void measured_agent::find_processes()
{
    processes_ = family_of(agent_.id());
    for (const std::unique_ptr<child_process> &process : beside_) {
        const std::vector<pid_t> more = family_of(process->id());
        processes_.insert(processes_.end(), more.begin(), more.end());
    }
}

uint64_t measured_agent::processor_time() const
{
    uint64_t sum = 0;
    for (const pid_t process : processes_) {
        const fs::path tasks = "/proc/" + std::to_string(process) + "/task";
        for (const fs::directory_entry &task : fs::directory_iterator(tasks)) {
            std::ifstream in(task.path() / "schedstat");
            uint64_t ran = 0;
            in >> ran;
            sum += ran;
        }
    }
    return sum;
}

/*
 * An agent on the loopback that is measured: a configuration, its processes in a
 * pid namespace of their own (the module's end is that of every snmpd that it can
 * see), and what processor time they take.
 */
#ifndef KAVPLAT_BENCH_MEASURED_AGENT_H
#define KAVPLAT_BENCH_MEASURED_AGENT_H

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "harness/agent.h"
#include "light_client.h"

class measured_agent
{
  public:
    /* Starts snmpd with these lines in its configuration. Whatever it writes is in
     * the directory, which must be there. */
    measured_agent(const std::filesystem::path &directory, const std::string &configuration,
                   const std::filesystem::path &description = {});

    /* Starts a program beside it, whose processor time counts with the agent's. */
    void start_beside(const std::vector<std::string> &command,
                      const std::filesystem::path &description);

    uint16_t port() const { return port_; }
    light_client &client() { return *client_; }
    bool log_has(const std::string &text) const;
    /* With the agent's log in the message. */
    [[noreturn]] void fail(const std::string &what) const;

    /* Nanoseconds of all threads of all its processes so far. Call when it waits
     * for a request. */
    uint64_t processor_time() const;
    /* Looks again which processes those are. */
    void find_processes();

  private:
    std::filesystem::path directory_;
    uint16_t port_ = 0;
    child_process agent_;
    std::vector<std::unique_ptr<child_process>> beside_;
    std::vector<pid_t> processes_;
    std::unique_ptr<light_client> client_;
};

#endif

/*
 * A real snmpd with the module, on a free UDP port of the loopback.
 *
 *     agent a({.description = "servers/minimal.json"});
 *     a.start();                            // answers, and its cache is built
 *     snmp_client client(a.port());
 *     write_file(a.description(), "...");   // in place
 *     EXPECT_TRUE(a.log_has("local cache ready"));
 *
 * Stopping or unloading the module ends every process named snmpd that it can
 * see. So each agent lives in a pid namespace of its own, under a small init, and
 * all of it dies with the test, however that ends. Where no namespace can be made
 * start() throws and says so.
 *
 * Everything of an agent is in a temporary directory: a copy of the description,
 * configuration, persistent state, log.
 */
#ifndef KAVPLAT_TESTS_HARNESS_AGENT_H
#define KAVPLAT_TESTS_HARNESS_AGENT_H

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

#include "harness/files.h"
#include "harness/process.h"

struct agent_options {
    std::string description = "servers/minimal.json"; /* below the sources */
    /* The agent leaves the foreground by itself. */
    bool daemon = false;
    /* Of its pid namespace, where it cannot be killed from inside. */
    bool is_first_process = false;
    /* It logs to the system's log; log() is empty then. */
    bool logs_to_system = false;
    /* snmpd -D: tokens with commas. */
    std::string debug_tokens = {};
    /* Preloaded before everything else but a sanitizer. */
    std::string preload = {};
    std::vector<std::pair<std::string, std::string>> environment = {};
    /* What the module opens or looks at under one path it gets under another. */
    std::vector<std::pair<std::string, std::string>> redirected_paths = {};
    /* First line of the version file, with its line end. */
    std::string version_line = "@(#)5.0.1\n";
    /* Lines of snmpd.conf beside those that load the module and let everybody on
     * the loopback in. */
    std::string configuration = {};
    /* When not empty this is the whole of snmpd.conf, read from where snmpd looks for
     * it, with "udp:127.0.0.1:161" in it replaced by the agent's own address; the
     * command line names no address then. */
    std::string whole_configuration = {};
    /* Arguments of snmpd behind all others; an address is one more to listen to. */
    std::vector<std::string> arguments = {};
    /* What snmpd finds in the file of its persistent state. */
    std::string persistent_state = {};
    /* The user that the agent becomes once it has its port; empty: stays. */
    std::string user = {};
    /* start() returns when the agent answers, whatever the cache holds. */
    bool wait_for_cache = true;
};

class agent
{
  public:
    explicit agent(agent_options options = {});
    /* Fails the running test when a sanitizer reported anything. */
    ~agent();
    agent(const agent &) = delete;
    agent &operator=(const agent &) = delete;

    /* Throws, with the log, when there is no agent within a minute. */
    void start();
    /* The same without waiting for anything. */
    void launch();
    /* Ends it by force. */
    void stop() { process_.stop(); }

    uint16_t port() const { return port_; }
    /* The copy of the description that the agent reads. */
    const std::filesystem::path &description() const { return description_; }
    const std::filesystem::path &directory() const { return directory_.path(); }

    std::string log() const;
    bool log_has(const std::string &text) const { return log().find(text) != std::string::npos; }
    size_t log_count(const std::string &text) const;

    /* The process id of snmpd as the test sees it; -1 while there is none. */
    pid_t id() const;
    bool is_running() { return process_.is_running(); }
    /* How the agent's init ended: that of snmpd; 137 when it was killed. */
    std::optional<int> wait(std::chrono::milliseconds longest = std::chrono::seconds(30))
    {
        return process_.wait(longest);
    }
    /* Resident memory of snmpd in KiB. */
    long memory() const { return memory_of(id()); }
    /* What sanitizers reported in the agent so far. */
    std::string sanitizer_reports() const;

  private:
    std::string address() const;
    std::vector<std::string> command() const;
    std::string preloads() const;

    agent_options options_;
    temporary_directory directory_;
    std::filesystem::path description_;
    child_process process_;
    uint16_t port_ = 0;
};

/* A port of the loopback that nobody has at this moment. */
uint16_t free_port();

/* Whether a sanitizer reported anything in this output of a program. */
bool tells_of_a_sanitizer(const std::string &output);

#endif

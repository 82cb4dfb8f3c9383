/*
 * Requests to one agent through net-snmp's library, with the options and the
 * configuration (snmp.conf) that its own tools have. For one thread.
 */
#ifndef KAVPLAT_AGENT_SESSION_H
#define KAVPLAT_AGENT_SESSION_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kavplat_agent
{

using object_name = std::vector<unsigned long>;

struct address {
    std::vector<std::string> options; /* as net-snmp's tools take them: "-v", "2c", ... */
    std::string agent = "localhost";  /* [transport:]host[:port] */
    /* For all requests together, from open() on or from the last start_time(); 0: none. */
    std::chrono::milliseconds longest{0};
};

struct value {
    enum class kind { none, number, text, other };
    object_name name;
    kind is = kind::none; /* none: there is no such object, or nothing behind it */
    int64_t number = 0;
    std::string text = {}; /* octets as they came, at most longest_text of them */
};

/* What an agent serves may be as long as it likes; no column that is read here
 * may be longer. */
inline constexpr size_t longest_text = 255;

struct reply {
    /* Empty: there is one. Else what was asked, of whom, what came, what to try. */
    std::string failure;
    bool timed_out = false;
    long error = 0;       /* error status of the protocol, 0: none */
    long error_index = 0; /* from 1 */
    std::vector<value> values = {};
};

class session
{
  public:
    session() = default;
    ~session();
    session(const session &) = delete;
    session &operator=(const session &) = delete;

    /* Empty when it is open; else what is wrong. Nothing is sent but what SNMPv3
     * needs to find the agent's engine. */
    std::string open(const address &whom);
    /* It is not open since its options are none. */
    bool is_misused() const { return is_misused_; }

    reply get(std::span<const object_name> names);
    reply get_next(std::span<const object_name> names);
    /* Only where has_bulk(): version 1 has none. */
    reply get_bulk(std::span<const object_name> names, long non_repeaters, long repetitions);
    bool has_bulk() const;

    /* address::longest begins anew. */
    void start_time();

    const std::string &agent() const { return agent_; }
    size_t requests() const { return requests_; }
    /* "SNMPv2c": what a message says of how it was asked. */
    std::string version() const;

  private:
    reply ask(int command, std::span<const object_name> names, long non_repeaters,
              long repetitions);
    std::string explain(int error) const;
    std::string overdue() const;

    void *handle_ = nullptr;
    bool is_misused_ = false;
    std::string agent_;
    std::chrono::milliseconds longest_{0};
    std::chrono::steady_clock::time_point end_;
    long timeout_ = 0; /* microseconds, of each try */
    int retries_ = 0;
    size_t requests_ = 0;
};

/* Words for the error status of an answer. */
std::string error_name(long status);

bool is_below(const object_name &name, const object_name &root);
std::string to_text(const object_name &name);

} // namespace kavplat_agent

#endif

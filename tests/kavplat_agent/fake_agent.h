/*
 * An agent of a test's own: answers with the objects that it is given, and badly on
 * demand. A process, so that it shares nothing with the one that asks.
 */
#ifndef KAVPLAT_TESTS_FAKE_AGENT_H
#define KAVPLAT_TESTS_FAKE_AGENT_H

#include <atomic>
#include <map>

#include "harness/client.h"

using objects = std::map<object_name, snmp_value>;

enum class misdeed {
    none,
    endless,         /* behind the last row of a column comes another one, always */
    goes_back,       /* behind the last row of a column comes its first */
    small_answers,   /* tooBig for more than 3 values */
    no_bulk,         /* silence to GETBULK for more than 20 values */
    error_in_column, /* genErr for entPhysicalSerialNum */
    cut_answers,     /* a GETBULK is answered by one value less than asked for */
    empty_answers,
    dies, /* silence from its 4th request on */
};

class fake_agent
{
  public:
    explicit fake_agent(const objects &served, misdeed how = misdeed::none);
    ~fake_agent();
    fake_agent(const fake_agent &) = delete;
    fake_agent &operator=(const fake_agent &) = delete;

    /* That it received so far. */
    int requests() const { return *requests_; }

    std::string address() const { return "udp:127.0.0.1:" + std::to_string(port_); }

  private:
    pid_t pid_ = -1;
    uint16_t port_ = 0;
    std::atomic<int> *requests_ = nullptr; /* shared with the process */
};

#endif

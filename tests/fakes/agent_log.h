/*
 * The agent's log, caught in the process instead of being written.
 *
 *     agent_log log({"IDX", "trace"});
 *     get_index(nullptr);
 *     EXPECT_TRUE(log.has(LOG_ERR, "build_phys_entry:FAILED:entry NULL\n"));
 *     EXPECT_TRUE(log.has_debug("IDX", "Table is empty\n"));
 *     EXPECT_TRUE(log.traced("IDX", "Table is empty\n", "get_index", "kavdata"));
 *
 * One object at a time; it catches what every thread logs while it lives. Make
 * it before the threads that log and end it after them: net-snmp's list of debug
 * tokens is not for changing under a reader.
 *
 * net-snmp hands a debug line over in pieces ("IDX: ", then the text); they are
 * put together thread by thread, up to the line end of the last piece.
 */
#ifndef KAVPLAT_TESTS_FAKES_AGENT_LOG_H
#define KAVPLAT_TESTS_FAKES_AGENT_LOG_H

#include <chrono>
#include <cstddef>
#include <initializer_list>
#include <string>
#include <syslog.h>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

struct log_record {
    int priority = 0;  /* LOG_ERR, LOG_INFO, ..., LOG_DEBUG */
    std::string token; /* of a debug message, else empty */
    std::string text;  /* as logged, line end included */
    std::thread::id thread;
};

class agent_log
{
  public:
    /* Debugging is switched on for these tokens and those that they begin; with
     * none it is off. Put "trace" among them to see the trace lines. */
    explicit agent_log(std::initializer_list<const char *> debug_tokens = {});
    ~agent_log();
    agent_log(const agent_log &) = delete;
    agent_log &operator=(const agent_log &) = delete;

    /* Whether exactly this text was logged; a failure prints what was. */
    testing::AssertionResult has(int priority, const std::string &text) const;
    testing::AssertionResult has_debug(const std::string &token, const std::string &text) const;
    size_t count(int priority, const std::string &text) const;
    size_t count_debug(const std::string &token, const std::string &text) const;

    /* Waits until it is logged, 20 seconds at most. */
    testing::AssertionResult wait_for(int priority, const std::string &text) const;
    testing::AssertionResult wait_for_debug(const std::string &token,
                                            const std::string &text) const;

    /* Each time this debug message was logged (once at least), the same thread
     * had logged "function(): source, N:\n" under "trace" right before it. */
    testing::AssertionResult traced(const std::string &token, const std::string &text,
                                    const std::string &function, const std::string &source) const;
    /* The same for every message of the tokens that begin so, whatever the
     * function; at least one is there. */
    testing::AssertionResult all_traced(const std::string &token_prefix,
                                        const std::string &source) const;

    /* What was logged, in order; a copy. */
    std::vector<log_record> records() const;
    /* The texts of one priority that are not debug messages, in order. */
    std::vector<std::string> texts(int priority) const;
    /* The texts of one debug token, in order. */
    std::vector<std::string> debug_texts(const std::string &token) const;

    void clear();
};

/* printf into a string, to spell an expected message. */
[[gnu::format(printf, 1, 2)]] std::string text_of(const char *format, ...);

#endif

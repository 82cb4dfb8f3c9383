/*
 * Who asks the service processor: a process of its own, so that one that answers slowly,
 * wrongly or not at all costs nobody else any time, and can be ended at any moment.
 */
#ifndef KAVPLAT_DESCRIBE_BMC_READER_H
#define KAVPLAT_DESCRIBE_BMC_READER_H

#include "tools/kavplat/describe/bmc_client.h"

#include <chrono>
#include <optional>
#include <sys/types.h>

namespace kavplat_describe
{

/* What is known of the service processor. */
struct bmc_word {
    std::optional<bmc_inventory> inventory; /* what it said last; none: nothing yet */
    std::string complaint;                  /* empty: it answers */
};

class bmc_reader
{
  public:
    /* So long a first word is waited for. */
    static constexpr std::chrono::seconds longest_wait{60};
    static constexpr std::chrono::seconds between_looks{10};

    explicit bmc_reader(bmc_target target) : target_(std::move(target)) {}
    ~bmc_reader() { stop(); }
    bmc_reader(const bmc_reader &) = delete;
    bmc_reader &operator=(const bmc_reader &) = delete;

    /* Begins to read, once or each ten seconds; call where there is one thread only. */
    void start(bool once);
    bool is_running() const { return child_ > 0; }
    int descriptor() const { return from_; } /* readable: there is something to take */
    /* True: the word is another one now. */
    bool take(bmc_word &into);
    void stop();

  private:
    bmc_target target_;
    pid_t child_ = -1;
    int from_ = -1;
    std::string received_; /* the beginning of a line */
};

/* Reads once, and waits for it within the bound. */
bmc_word ask_bmc(const bmc_target &target);

} // namespace kavplat_describe

#endif

/*
 * Values that are bound to files, read within a bound.
 *
 * A file may hang its reader for ever (a fifo, a dead file system), so files
 * are read by a few worker threads and the caller waits with a deadline. A file
 * that made a caller wait in vain is slow from then on: it is read in the
 * background, and callers get its newest value, or the failure, at once. It
 * stops being slow with the first read that ends within the bound.
 *
 * Waiting in vain is rationed too, so that a hundred files that begin to hang
 * together do not stall the agent a hundred times.
 */
#ifndef KAVPLAT_DESCRIBED_LIVE_VALUES_H
#define KAVPLAT_DESCRIBED_LIVE_VALUES_H

#include "described/format/description.h"
#include "described/live/mutex.h"
#include "described/live/pattern.h"

#include <chrono>
#include <deque>
#include <span>
#include <thread>

namespace described_platform
{

inline constexpr std::chrono::milliseconds default_read_bound{200};

/* For how long the newest value of a slow file is served. */
inline constexpr std::chrono::seconds slow_value_life{10};

enum class fault_kind {
    none,
    not_read_yet, /* nobody could afford to wait for it */
    no_answer,    /* within the bound */
    unreadable,
    no_match, /* of the pattern in the path */
    two_matches,
    no_word,
    long_word,
    no_value,
    out_of_range,
};

/* Why a value could not be had. */
struct live_fault {
    fault_kind kind = fault_kind::none;
    int error = 0;      /* errno, of what is unreadable */
    std::string word{}; /* that stands for no value; the two paths that fit */
};

struct live_reading {
    const live_value *value = nullptr;
    std::optional<double> result{}; /* empty: the value could not be had */
    live_fault fault{};
};

/* What is wrong with a pattern that did not lead to one file. */
live_fault fault_of(const pattern_match &match);

/* Gives a reading the value that a file's first word stands for, or the fault. */
void word_to_value(std::string_view word, live_reading &reading);

class live_values
{
  public:
    explicit live_values(std::chrono::milliseconds bound);
    /* Waits for the workers, so for as long as a file system hangs. */
    ~live_values();
    live_values(const live_values &) = delete;
    live_values &operator=(const live_values &) = delete;

    /* Reads all within one bound. Any thread. */
    void read(std::span<live_reading> readings);

    /* These are the files that can be asked for from now on: forgets the rest
     * and looks at the new ones in the background, so that a file which hangs
     * is known before it is asked for. A fifo is not touched: what is read from
     * it is gone. */
    void set_files(const std::vector<std::string> &files);

    /* For tests. */
    size_t remembered_files();
    size_t worker_count();

  private:
    using clock = std::chrono::steady_clock;

    struct file_state {
        std::string path;
        std::string match;    /* file that the pattern in the path led to; empty: look for it */
        uint64_t wanted = 0;  /* number of the newest read that somebody asked for */
        uint64_t started = 0; /* number of the newest read that a worker began */
        uint64_t done = 0;
        bool queued = false;
        bool running = false;
        bool background = false; /* the queued read has nobody waiting */
        bool peek = false;       /* the queued read must not touch a fifo */
        bool slow = false;
        bool ever_read = false;
        std::optional<std::string> word; /* of the newest read that ended */
        live_fault fault;                /* ... or what was wrong with it */
        clock::time_point word_time;
        bool unseen = false; /* nobody was given the word yet */
    };
    using file_pointer = std::shared_ptr<file_state>;

    file_pointer state_of(const std::string &path) REQUIRES(mutex_);
    static void serve(file_state &file, live_reading &reading, clock::time_point now);
    static void forget_seen_word(file_state &file);
    void enqueue(const file_pointer &file, bool background) REQUIRES(mutex_);
    void add_worker() REQUIRES(mutex_);
    void work();
    file_pointer next_file() REQUIRES(mutex_);
    clock::duration affordable_wait(clock::time_point now) REQUIRES(mutex_);

    const std::chrono::milliseconds bound_;
    mutex mutex_; /* guards every file_state too */
    condition work_there_;
    condition read_done_;
    std::unordered_map<std::string, file_pointer> files_ GUARDED_BY(mutex_);
    std::deque<file_pointer> foreground_ GUARDED_BY(mutex_);
    std::deque<file_pointer> background_ GUARDED_BY(mutex_);
    std::vector<std::thread> workers_ GUARDED_BY(mutex_);
    size_t idle_ GUARDED_BY(mutex_) = 0;
    size_t in_background_ GUARDED_BY(mutex_) = 0;
    clock::duration credit_ GUARDED_BY(mutex_); /* how long callers may still wait in vain */
    clock::time_point credit_time_ GUARDED_BY(mutex_);
    bool stop_ GUARDED_BY(mutex_) = false;
};

} // namespace described_platform

#endif

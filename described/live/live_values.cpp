#include "described/live/live_values.h"

#include "described/live/threads.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace described_platform
{
namespace
{

using namespace std::chrono_literals;

constexpr size_t most_workers = 16;
/* The other half stays free for reads that somebody waits for. */
constexpr size_t most_background = most_workers / 2;
constexpr size_t longest_file_text = 4096;
constexpr size_t longest_word = 64;
/* Callers may wait in vain for this many bounds at once, then for a tenth of
 * the time that passes. */
constexpr int waits_in_store = 5;
constexpr int refill_divisor = 10;
/* Without credit a file that was good before still gets this long. */
constexpr auto shortest_wait = 20ms;

bool is_blank(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

/* The first word, and whether a blank shows that it is complete. */
std::string_view first_word(std::string_view text, bool &complete)
{
    const auto begin = std::ranges::find_if_not(text, is_blank);
    const auto end = std::find_if(begin, text.end(), is_blank);
    complete = begin != text.end() && end != text.end();
    return {begin, end};
}

live_fault unreadable()
{
    return {fault_kind::unreadable, errno};
}

live_fault read_word(const std::string &path, std::chrono::milliseconds bound, bool peek,
                     std::string &word)
{
    struct stat status {
    };
    if (peek && (::stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode))) {
        return {fault_kind::not_read_yet};
    }
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        return unreadable();
    }
    struct closer {
        int fd;
        ~closer() { ::close(fd); }
    } const close_at_end{fd};
    if (::fstat(fd, &status) != 0) {
        return unreadable();
    }
    const bool regular = S_ISREG(status.st_mode);
    const auto deadline = std::chrono::steady_clock::now() + bound;
    std::string text;
    for (;;) {
        if (!regular) {
            /* A fifo without a writer reads as empty at once; waiting gives a
             * writer that is held in its own open() the time to answer. */
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            pollfd waiting{fd, POLLIN, 0};
            const int ready =
                left.count() <= 0 ? 0 : ::poll(&waiting, 1, static_cast<int>(left.count()));
            if (ready < 0 && errno == EINTR) {
                continue;
            }
            if (ready <= 0) {
                return {fault_kind::no_answer};
            }
        }
        char buffer[longest_file_text];
        const ssize_t got = ::read(fd, buffer, sizeof buffer - text.size());
        if (got < 0 && (errno == EINTR || (errno == EAGAIN && !regular))) {
            continue;
        }
        if (got < 0) {
            return unreadable();
        }
        text.append(buffer, static_cast<size_t>(got));
        bool complete = false;
        const std::string_view found = first_word(text, complete);
        if (complete || got == 0 || text.size() >= longest_file_text) {
            if (found.empty() || found.size() > longest_word) {
                return {found.empty() ? fault_kind::no_word : fault_kind::long_word};
            }
            word = found;
            return {};
        }
    }
}

/* Leads to the file that a pattern led to before, as long as that can be read. */
live_fault read_match(const std::string &pattern, std::string &match,
                      std::chrono::milliseconds bound, bool peek, std::string &word)
{
    if (!match.empty()) {
        live_fault fault = read_word(match, bound, peek, word);
        if (fault.kind != fault_kind::unreadable && !(peek && fault.kind != fault_kind::none)) {
            return fault;
        }
    }
    pattern_match found = find_match(pattern, std::chrono::steady_clock::now() + bound);
    if (live_fault fault = fault_of(found); fault.kind != fault_kind::none) {
        match.clear();
        return fault;
    }
    match = std::move(found.path);
    return read_word(match, bound, peek, word);
}

} // namespace

live_fault fault_of(const pattern_match &match)
{
    switch (match.outcome) {
    case match_outcome::one:
        break;
    case match_outcome::none:
        return {fault_kind::no_match};
    case match_outcome::several:
        return {fault_kind::two_matches, 0, match.path + " and " + match.second};
    case match_outcome::failed:
        return {fault_kind::unreadable, match.error};
    case match_outcome::no_time:
        return {fault_kind::no_answer};
    }
    return {};
}

void word_to_value(std::string_view word, live_reading &reading)
{
    const live_value &value = *reading.value;
    double result = 0;
    const auto name = std::ranges::find(value.names, word, &named_code::name);
    if (name != value.names.end()) {
        result = name->value;
    } else {
        std::string_view digits = word;
        if (digits.size() > 1 && digits.front() == '+' && digits[1] != '-') {
            digits.remove_prefix(1); /* which from_chars does not take */
        }
        const auto [end, error] =
            std::from_chars(digits.data(), digits.data() + digits.size(), result);
        if (error == std::errc::invalid_argument || end != digits.data() + digits.size()) {
            reading.fault = {fault_kind::no_value, 0, std::string(word)};
            return;
        }
        result = error == std::errc() ? result * value.scale + value.offset : NAN;
        if (value.whole) {
            result = std::nearbyint(result);
        }
    }
    /* Not a number compares false with everything. */
    if (!(result >= value.low && result <= value.high)) {
        reading.fault = {fault_kind::out_of_range, 0, std::string(word)};
        return;
    }
    reading.result = result;
}

live_values::live_values(std::chrono::milliseconds bound)
    : bound_(bound), credit_(bound * waits_in_store), credit_time_(clock::now())
{
}

live_values::~live_values()
{
    std::vector<std::thread> workers;
    {
        const scoped_lock lock(mutex_);
        stop_ = true;
        workers.swap(workers_);
    }
    work_there_.notify_all();
    for (std::thread &each : workers) {
        each.join();
    }
}

live_values::file_pointer live_values::state_of(const std::string &path)
{
    file_pointer &slot = files_[path];
    if (slot == nullptr) {
        slot = std::make_shared<file_state>();
        slot->path = path;
    }
    return slot;
}

void live_values::serve(file_state &file, live_reading &reading, clock::time_point now)
{
    if (file.word && now - file.word_time <= slow_value_life) {
        word_to_value(*file.word, reading);
        file.unseen = false;
    } else if (file.fault.kind == fault_kind::none) {
        reading.fault = {file.word ? fault_kind::no_answer : fault_kind::not_read_yet};
    } else {
        reading.fault = file.fault;
    }
}

/* A file that stops giving values has none; but what it gave to a read that
 * nobody waited for (and a fifo gives it but once) is still good for the next
 * who asks. */
void live_values::forget_seen_word(file_state &file)
{
    if (!file.unseen) {
        file.word.reset();
    }
}

void live_values::add_worker()
{
    if (stop_ || workers_.size() >= most_workers) {
        return;
    }
    try {
        workers_.push_back(start_thread("kavplat-read", [this] { work(); }));
    } catch (const std::system_error &) {
        /* Those that there are do what they can; a caller waits for its bound. */
    }
}

void live_values::enqueue(const file_pointer &file, bool background)
{
    if (file->queued && (background || !file->background)) {
        return;
    }
    if (!background) {
        file->peek = false;
    }
    file->queued = true;
    file->background = background;
    (background ? background_ : foreground_).push_back(file);
    if (idle_ < foreground_.size() + std::min(background_.size(), most_background)) {
        add_worker();
    }
    work_there_.notify_one();
}

/* Null: nothing to do. What was moved to the front is in both queues and
 * counts once. */
live_values::file_pointer live_values::next_file()
{
    const auto take = [](std::deque<file_pointer> &queue, bool background) -> file_pointer {
        while (!queue.empty()) {
            file_pointer file = std::move(queue.front());
            queue.pop_front();
            if (file->queued && !file->running && file->background == background) {
                return file;
            }
        }
        return nullptr;
    };
    if (file_pointer file = take(foreground_, false); file != nullptr) {
        return file;
    }
    return in_background_ < most_background ? take(background_, true) : nullptr;
}

void live_values::work()
{
    scoped_lock lock(mutex_);
    while (!stop_) {
        const file_pointer file = next_file();
        if (file == nullptr) {
            ++idle_;
            {
                const at_rest rest;
                work_there_.wait(mutex_);
                lock.unlock();
            }
            lock.lock();
            --idle_;
            continue;
        }
        const bool background = file->background;
        const bool peek = file->peek;
        file->queued = false;
        file->peek = false;
        file->running = true;
        file->started = file->wanted;
        in_background_ += background ? 1 : 0;
        const std::string path = file->path;
        std::string match = file->match;
        lock.unlock();

        const auto begin = clock::now();
        std::string word;
        live_fault fault = [&] {
            const at_rest rest; /* a dead file system may hold it for ever */
            return is_pattern(path) ? read_match(path, match, bound_, peek, word)
                                    : read_word(path, bound_, peek, word);
        }();
        const auto now = clock::now();

        lock.lock();
        in_background_ -= background ? 1 : 0;
        file->running = false;
        file->done = file->started;
        file->match = std::move(match);
        const bool timed_out = fault.kind == fault_kind::no_answer;
        if (!peek || timed_out || fault.kind == fault_kind::none) {
            file->slow = timed_out || now - begin >= bound_;
        }
        if (fault.kind == fault_kind::none) {
            file->word = std::move(word);
            file->word_time = now;
            file->unseen = true;
            file->ever_read = true;
        } else if (timed_out) {
            forget_seen_word(*file);
        } else {
            file->word.reset();
        }
        file->fault = std::move(fault);
        if (file->wanted > file->done) {
            file->queued = false;
            enqueue(file, file->slow);
        }
        if (background && !background_.empty()) {
            work_there_.notify_one(); /* a worker may have waited for this one's place */
        }
        read_done_.notify_all();
    }
}

live_values::clock::duration live_values::affordable_wait(clock::time_point now)
{
    credit_ = std::min<clock::duration>(bound_ * waits_in_store,
                                        credit_ + (now - credit_time_) / refill_divisor);
    credit_time_ = now;
    return std::clamp<clock::duration>(credit_, 0ms, bound_);
}

void live_values::read(std::span<live_reading> readings)
{
    struct waiting {
        live_reading *reading;
        file_pointer file;
        uint64_t number;
    };
    std::vector<waiting> pending;
    const auto is_bound = [](const live_reading &each) {
        return each.value != nullptr && !each.value->file.empty();
    };
    for (live_reading &each : readings) {
        each.fault = {};
        each.result.reset();
        if (each.value != nullptr && each.value->file.empty()) {
            each.result = each.value->constant;
        }
    }
    if (std::ranges::none_of(readings, is_bound)) {
        return;
    }
    const scoped_lock lock(mutex_);
    const clock::time_point begin = clock::now();
    const clock::duration wait = affordable_wait(begin);
    for (live_reading &each : readings) {
        if (!is_bound(each)) {
            continue;
        }
        const file_pointer file = state_of(each.value->file);
        /* A file that was never read well and that nobody can afford to wait
         * for is left to the background. */
        if (!file->slow && !file->ever_read && wait < bound_) {
            file->slow = true;
        }
        if (file->slow) {
            if (!file->queued && !file->running) {
                ++file->wanted;
                enqueue(file, true);
            }
            serve(*file, each, begin);
            continue;
        }
        /* A read that is under way may have seen the file as it was before. */
        const uint64_t number = ++file->wanted;
        if (!file->running) {
            enqueue(file, false);
        }
        pending.push_back({&each, file, number});
    }
    if (pending.empty()) {
        return;
    }
    const auto deadline = begin + std::max<clock::duration>(wait, shortest_wait);
    const auto is_read = [](const waiting &w) { return w.file->done >= w.number; };
    while (!std::ranges::all_of(pending, is_read) && read_done_.wait_until(mutex_, deadline)) {
    }
    bool in_vain = false;
    for (const waiting &each : pending) {
        if (!is_read(each)) {
            each.file->slow = true;
            forget_seen_word(*each.file);
            if (wait == bound_) {
                each.file->fault = {fault_kind::no_answer};
            }
        }
        in_vain = in_vain || each.file->slow;
        serve(*each.file, *each.reading, begin);
    }
    if (in_vain) {
        credit_ -= std::min(credit_, clock::now() - begin);
    }
}

void live_values::set_files(const std::vector<std::string> &files)
{
    const scoped_lock lock(mutex_);
    std::unordered_map<std::string, file_pointer> kept;
    for (const std::string &path : files) {
        const auto known = files_.find(path);
        if (known != files_.end()) {
            kept.emplace(path, known->second);
        }
    }
    files_.swap(kept);
    for (const std::string &path : files) {
        if (const file_pointer file = state_of(path); file->wanted == 0) {
            file->wanted = 1;
            file->peek = true;
            enqueue(file, true);
        }
    }
}

size_t live_values::remembered_files()
{
    const scoped_lock lock(mutex_);
    return files_.size();
}

size_t live_values::worker_count()
{
    const scoped_lock lock(mutex_);
    return workers_.size();
}

} // namespace described_platform

#include "described/watch/event_thread.h"

#include "described/live/log.h"
#include "described/live/threads.h"
#include "described/watch/differ.h"
#include "described/watch/file_watch.h"
#include "described/watch/source.h"

#include <algorithm>
#include <climits>
#include <malloc.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>

namespace described_platform
{
namespace
{

constexpr std::chrono::seconds longest_first_look{10};

} // namespace

event_thread::event_thread(source &watched) : source_(watched) {}

event_thread::~event_thread()
{
    {
        const scoped_lock lock(mutex_);
        stop_ = true;
    }
    wake();
    if (thread_.joinable()) {
        thread_.join();
    }
    if (wake_ >= 0) {
        ::close(wake_);
    }
}

void event_thread::close_descriptors_in_child() noexcept
{
    for (std::atomic<int> *each : {&wake_, &inotify_}) {
        if (const int fd = each->exchange(-1); fd >= 0) {
            ::close(fd);
        }
    }
}

bool event_thread::start()
{
    if (thread_.joinable()) {
        return true;
    }
    if (wake_ < 0) {
        wake_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    }
    if (wake_ < 0) {
        return false;
    }
    try {
        thread_ = start_thread("kavplat-events", [this] { run(); });
        id_ = thread_.get_id();
        return true;
    } catch (const std::system_error &) {
        return false;
    }
}

void event_thread::wake() const
{
    const uint64_t one = 1;
    /* A full counter is as good as a written one. */
    [[maybe_unused]] const ssize_t unused = ::write(wake_, &one, sizeof one);
}

void event_thread::let_pass(std::chrono::seconds time)
{
    passed_ = passed_.load() + time;
    wake();
}

bool event_thread::watching()
{
    const scoped_lock lock(mutex_);
    return looked_;
}

int event_thread::get_handle(event_mgr_handle &handle, event_mgr_callback callback, void *context)
{
    const scoped_lock lock(mutex_);
    const auto until = clock::now() + longest_first_look;
    if (!start()) {
        return -1;
    }
    while (!looked_) {
        if (!first_look_.wait_until(mutex_, until) && !looked_) {
            return -1;
        }
    }
    handle = audience_.open(callback, context, std::this_thread::get_id(), current_description());
    return 0;
}

int event_thread::subscribe_class(event_mgr_handle handle, int)
{
    const scoped_lock lock(mutex_);
    return audience_.subscribe_class(handle, now()) ? 0 : -1;
}

int event_thread::subscribe(event_mgr_handle handle, int event_class, int event)
{
    {
        const scoped_lock lock(mutex_);
        if (!audience_.subscribe(handle, event_class, event, now())) {
            return -1;
        }
    }
    wake();
    return 0;
}

void event_thread::note_enumeration(const description_pointer &listed)
{
    const scoped_lock lock(mutex_);
    const auto self = std::this_thread::get_id();
    if (self != id_) { /* a callback looks at what it was told; it builds nothing anew */
        audience_.note_enumeration(self, listed);
    }
}

int event_thread::poll_timeout() const
{
    const clock::time_point next = std::min(schedule_.next(), deliver_at_);
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - now()).count();
    return static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX));
}

void event_thread::run()
{
    file_watch watch(source_.path());
    inotify_ = watch.descriptor();
    if (inotify_ < 0) {
        log_error("inotify: no watch to be had; changes of " + source_.path() +
                  " are noticed within two seconds");
    }
    for (;;) {
        /* A failed allocation costs this round, not the agent. */
        try {
            look_at_file(watch);
            bool has_told = false;
            while (deliver_next()) {
                has_told = true;
            }
            if (has_told) {
                /* The description before was freed piece by piece, into the heap. */
                ::malloc_trim(0);
            }
        } catch (const std::exception &error) {
            log_error(std::string("described platform: ") + error.what());
        }
        pollfd waiting[] = {{wake_, POLLIN, 0}, {watch.descriptor(), POLLIN, 0}};
        {
            const at_rest rest;
            ::poll(waiting, std::size(waiting), poll_timeout());
        }
        uint64_t count = 0;
        [[maybe_unused]] const ssize_t unused = ::read(wake_, &count, sizeof count);
        const scoped_lock lock(mutex_);
        if (stop_) {
            inotify_ = -1;
            return;
        }
    }
}

void event_thread::look_at_file(file_watch &watch)
{
    const clock::time_point begin = now();
    const bool changed = watch.take_news();
    if (changed) {
        schedule_.changed(begin);
    }
    const bool check = schedule_.take_check(begin);
    if (check || changed) {
        note_directory(watch.still_in_place() || watch.establish());
    }
    if (!*directory_is_there_) {
        schedule_.nothing_there();
    } else if (const auto order = schedule_.take_order(check, begin)) {
        schedule_.was_read(*order, source_.read(*order), begin);
    }
    {
        const scoped_lock lock(mutex_);
        looked_ = true;
    }
    first_look_.notify_all();
}

void event_thread::note_directory(bool is_there)
{
    const std::string directory = std::string(parent_name(source_.path())) + "/: ";
    const bool was_there = directory_is_there_.value_or(true);
    if (!is_there && was_there) {
        log_error(directory + "the directory of the description is " +
                  (current_description() != nullptr ? "gone; its last content stays in force"
                                                    : "not there; there is no inventory") +
                  " until it is back");
    } else if (is_there && !was_there) {
        log_info(directory + "the directory of the description is back");
        schedule_.changed(now());
    }
    directory_is_there_ = is_there;
}

bool event_thread::may_tell(event_mgr_handle handle, int event_class, int event)
{
    const scoped_lock lock(mutex_);
    return !stop_ && audience_.is_subscribed(handle, event_class, event);
}

/* To one holder; false when there is nothing to tell now. Callbacks run without the
 * lock, for they may ask for handles; and at rest, for they may wait for a fork to be
 * over. */
bool event_thread::deliver_next()
{
    const description_pointer in_force = current_description();
    std::optional<audience::message> message;
    {
        const scoped_lock lock(mutex_);
        const clock::time_point moment = now();
        if (!stop_) {
            message = audience_.take_message(in_force, moment);
        }
        deliver_at_ = audience_.next(moment);
    }
    if (!message) {
        return false;
    }
    for (const event &each : differences(message->before.get(), *in_force)) {
        if (may_tell(message->handle, each.event_class, each.event)) {
            const at_rest rest;
            message->callback(message->context, each.event_class, each.event, each.payload.c_str());
        }
    }
    return true;
}

} // namespace described_platform

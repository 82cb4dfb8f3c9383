#include "described/watch/event_thread.h"

#include "described/live/log.h"
#include "described/live/threads.h"
#include "described/platform.h"
#include "described/watch/differ.h"
#include "described/watch/file_watch.h"

#include <algorithm>
#include <climits>
#include <poll.h>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>

namespace described_platform
{
namespace
{

using namespace std::chrono_literals;

/* A change comes as several pieces of news; this long without another one, or
 * this long in all, and the file is read. */
constexpr auto quiet_time = 5ms;
constexpr auto longest_settling = 20ms;
/* A half-written file is bad for a moment. */
constexpr auto patience_with_writer = 300ms;
/* For what the system does not tell: remote file systems, renames far above. */
constexpr auto check_period = 2s;
/* After a subscription that others may follow. */
constexpr auto subscription_pause = 200ms;
constexpr auto longest_answer = 10s;
constexpr size_t most_partings = 64;

constexpr std::pair<int, int> disconnect{EVENT_MGR_CLASS_CONNECTION, EVENT_MGR_DISCONNECT};

} // namespace

event_thread::event_thread(machine &owner) : owner_(owner) {}

event_thread::~event_thread()
{
    {
        const std::lock_guard lock(mutex_);
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

/* With the lock held. */
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

bool event_thread::watching()
{
    const std::lock_guard lock(mutex_);
    return thread_.joinable() && !away_;
}

int event_thread::get_handle(event_mgr_handle &handle, event_mgr_callback callback, void *context)
{
    std::unique_lock lock(mutex_);
    if (!start()) {
        return -1;
    }
    /* From a callback there is nobody else to ask. */
    if (std::this_thread::get_id() != id_) {
        const uint64_t number = ++asked_;
        wake();
        answered_.wait_for(lock, longest_answer, [&] { return answer_ >= number; });
        if (answer_ < number) {
            return -1;
        }
    }
    if (away_) {
        return -1;
    }
    auto made = std::make_shared<connection>();
    do {
        made->handle = ++last_handle_;
    } while (made->handle == 0 || find(made->handle) != nullptr);
    made->callback = callback;
    made->context = context;
    made->holder = std::this_thread::get_id();
    made->baseline = current_description();
    const auto known = std::ranges::find_if(partings_, [&](const parting &each) {
        return each.callback == callback && each.context == context;
    });
    if (known != partings_.end()) {
        made->baseline = known->baseline;
        partings_.erase(known);
    }
    handle = made->handle;
    connections_.push_back(std::move(made));
    return 0;
}

/* With the lock held. */
std::shared_ptr<event_thread::connection> event_thread::find(event_mgr_handle handle)
{
    const auto found = std::ranges::find_if(
        connections_, [&](const auto &each) { return each->handle == handle; });
    return found == connections_.end() ? nullptr : *found;
}

int event_thread::subscribe_class(event_mgr_handle handle, int)
{
    const std::lock_guard lock(mutex_);
    const auto to = find(handle);
    if (to == nullptr) {
        return -1;
    }
    /* Delivers nothing by itself, but subscriptions are sure to follow. */
    to->deliver_after = clock::now() + subscription_pause;
    return 0;
}

int event_thread::subscribe(event_mgr_handle handle, int event_class, int event)
{
    {
        const std::lock_guard lock(mutex_);
        const auto to = find(handle);
        if (to == nullptr) {
            return -1;
        }
        const std::pair what{event_class, event};
        to->subscribed.insert(what);
        to->deliver_after = clock::now() + (what == disconnect ? 0ms : subscription_pause);
    }
    wake();
    return 0;
}

void event_thread::note_enumeration(const std::shared_ptr<const description> &listed)
{
    const std::lock_guard lock(mutex_);
    const auto self = std::this_thread::get_id();
    if (self == id_) {
        return; /* a callback looks at what it was told; it builds nothing anew */
    }
    const bool holds_one = std::ranges::any_of(
        connections_, [&](const auto &each) { return !each->delivered && each->holder == self; });
    for (const auto &each : connections_) {
        if (!each->delivered && (!holds_one || each->holder == self)) {
            each->baseline = listed;
        }
    }
}

int event_thread::poll_timeout(clock::time_point now) const
{
    clock::time_point next = std::min({check_at_, complain_at_, deliver_at_});
    if (dirty_) {
        next = std::min({next, quiet_at_, dirty_since_ + longest_settling});
    }
    if (next == clock::time_point::max()) {
        return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - now).count();
    return static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX));
}

void event_thread::run()
{
    file_watch watch(owner_.path);
    inotify_ = watch.descriptor();
    if (inotify_ < 0) {
        log_error("inotify: no watch to be had; changes of " + owner_.path +
                  " are noticed within two seconds");
    }
    for (;;) {
        pollfd waiting[] = {{wake_, POLLIN, 0}, {watch.descriptor(), POLLIN, 0}};
        {
            const at_rest rest;
            ::poll(waiting, std::size(waiting), poll_timeout(clock::now()));
        }
        uint64_t count = 0;
        [[maybe_unused]] const ssize_t unused = ::read(wake_, &count, sizeof count);
        {
            const std::lock_guard lock(mutex_);
            if (stop_) {
                inotify_ = -1;
                return;
            }
        }
        /* A failed allocation costs this round, not the agent. */
        try {
            look_at_file(watch);
            answer_requests(watch);
            deliver();
        } catch (const std::exception &error) {
            log_error(std::string("described platform: ") + error.what());
        }
    }
}

void event_thread::look_at_file(file_watch &watch)
{
    const file_news news = watch.take_news();
    {
        const std::lock_guard lock(mutex_);
        if (away_) {
            return;
        }
    }
    const auto now = clock::now();
    if (news.directory_gone) {
        lose_all();
        return;
    }
    if (news.changed) {
        dirty_since_ = dirty_ ? dirty_since_ : now;
        dirty_ = true;
        finished_ = finished_ || news.finished;
        quiet_at_ = now + quiet_time;
    }
    const bool check = now >= check_at_;
    if ((check || news.changed) && !watch.still_in_place() && !watch.establish()) {
        lose_all();
        return;
    }
    if (check) {
        check_at_ = now + check_period;
        if (!dirty_) {
            load(owner_, load_when::changed, complaints::now);
        }
    }
    if (dirty_ && (now >= quiet_at_ || now >= dirty_since_ + longest_settling)) {
        const bool good =
            load(owner_, load_when::always, finished_ ? complaints::now : complaints::later);
        complain_at_ = good || finished_ ? clock::time_point::max() : now + patience_with_writer;
        dirty_ = finished_ = false;
    }
    if (now >= complain_at_) {
        complain_at_ = clock::time_point::max();
        load(owner_, load_when::always, complaints::now);
    }
}

void event_thread::lose_all()
{
    log_error(std::string(parent_name(owner_.path)) +
              "/: the directory of the description is gone; its last content stays in force");
    dirty_ = finished_ = false;
    check_at_ = complain_at_ = clock::time_point::max();
    const std::lock_guard lock(mutex_);
    away_ = true;
    last_complaint_.clear();
    for (const auto &each : connections_) {
        each->lost = true;
    }
}

void event_thread::answer_requests(file_watch &watch)
{
    uint64_t number = 0;
    bool away = false;
    {
        const std::lock_guard lock(mutex_);
        if (asked_ == answer_) {
            return;
        }
        number = asked_;
        away = away_;
    }
    if (away) {
        away = !watch.establish();
        if (!away) {
            load(owner_, load_when::changed, complaints::now);
            check_at_ = clock::now() + check_period;
        }
    }
    std::string complaint;
    {
        const std::lock_guard lock(mutex_);
        if (away && last_complaint_.empty()) {
            last_complaint_ = complaint =
                std::string(parent_name(owner_.path)) +
                "/: expected a directory that holds the description; no events until it is there";
        } else if (!away) {
            last_complaint_.clear();
        }
        away_ = away;
        answer_ = number;
    }
    answered_.notify_all();
    if (!complaint.empty()) {
        log_error(complaint);
    }
}

bool event_thread::is_subscribed(const connection &to, int event_class, int event)
{
    const std::lock_guard lock(mutex_);
    return !stop_ && to.subscribed.contains({event_class, event});
}

void event_thread::deliver()
{
    do {
        deliver_at_ = clock::time_point::max();
    } while (deliver_next());
}

/* To one connection; false when none has anything to get now. Callbacks run
 * without the lock, for they may ask for handles; and at rest, for they may wait
 * for a fork to be over. */
bool event_thread::deliver_next()
{
    std::shared_ptr<connection> to;
    std::shared_ptr<const description> before;
    std::shared_ptr<const description> after;
    {
        const std::lock_guard lock(mutex_);
        if (stop_) {
            return false;
        }
        const auto now = clock::now();
        after = current_description();
        for (const auto &each : connections_) {
            const bool wants_disconnect = each->subscribed.contains(disconnect);
            if (each->lost) {
                if (wants_disconnect) {
                    to = each;
                    break;
                }
                continue;
            }
            if (each->subscribed.size() == (wants_disconnect ? 1U : 0U)) {
                continue; /* no change is subscribed yet */
            }
            if (now < each->deliver_after) {
                deliver_at_ = std::min(deliver_at_, each->deliver_after);
                continue;
            }
            each->delivered = true;
            if (after != nullptr && each->baseline != after) {
                before = std::exchange(each->baseline, after);
                to = each;
                break;
            }
        }
        if (to == nullptr) {
            return false;
        }
        if (to->lost) {
            std::erase(connections_, to);
            std::erase_if(partings_, [&](const parting &each) {
                return each.callback == to->callback && each.context == to->context;
            });
            if (partings_.size() >= most_partings) {
                partings_.erase(partings_.begin());
            }
            partings_.push_back({to->callback, to->context, to->baseline});
        }
    }
    if (to->lost) {
        const at_rest rest;
        to->callback(to->context, EVENT_MGR_CLASS_CONNECTION, EVENT_MGR_DISCONNECT, nullptr);
        return true;
    }
    for (const event &each : differences(before.get(), *after)) {
        if (is_subscribed(*to, each.event_class, each.event)) {
            const at_rest rest;
            to->callback(to->context, each.event_class, each.event, each.payload.c_str());
        }
    }
    return true;
}

} // namespace described_platform

/*
 * The thread that watches the description and delivers events.
 *
 * One thread does both, so that the inventory never changes between the events
 * of one change and what a callback reads of it: a component that an event
 * names is found as the event says, and none is announced twice.
 *
 * A handle's baseline is the description that its holder knows. Events are the
 * differences between the baseline and the description in force, delivered once
 * the holder has subscribed; then that becomes the baseline. So nothing is lost
 * that happens while a holder enumerates and before it has subscribed:
 *  - at first the baseline is what is in force when the handle is given;
 *  - a full enumeration replaces it while nothing has been delivered yet. It
 *    counts for the handles of the thread that enumerates or, when that thread
 *    was given none, for all;
 *  - subscriptions arrive one by one. Delivery begins when DISCONNECT is
 *    subscribed, or a moment after the last of another kind, so that no event
 *    is dropped because its own subscription was still under way;
 *  - who was told DISCONNECT and asks again with the same callback and context
 *    goes on with the baseline of the lost handle, so that it learns what
 *    changed in between.
 */
#ifndef KAVPLAT_DESCRIBED_EVENT_THREAD_H
#define KAVPLAT_DESCRIBED_EVENT_THREAD_H

#include "described/format/description.h"
#include "platform/event_mgr.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <utility>
#include <vector>

namespace described_platform
{

struct machine;
class file_watch;

class event_thread
{
  public:
    explicit event_thread(machine &owner);
    ~event_thread(); /* joins */
    event_thread(const event_thread &) = delete;
    event_thread &operator=(const event_thread &) = delete;

    /* 0, or -1: no directory to watch, or no thread to be had. */
    int get_handle(event_mgr_handle &handle, event_mgr_callback callback, void *context);
    int subscribe_class(event_mgr_handle handle, int event_class);
    int subscribe(event_mgr_handle handle, int event_class, int event);

    /* Whether changes of the file are noticed without anybody asking. */
    bool watching();

    /* The calling thread was given all that this description lists. */
    void note_enumeration(const std::shared_ptr<const description> &listed);

    /* After a fork: nothing of this object is used again, but its descriptors
     * are shared with the parent. */
    void close_descriptors_in_child() noexcept;

  private:
    using clock = std::chrono::steady_clock;

    struct connection {
        event_mgr_handle handle = 0;
        event_mgr_callback callback = nullptr;
        void *context = nullptr;
        std::thread::id holder;
        std::set<std::pair<int, int>> subscribed;
        std::shared_ptr<const description> baseline;
        clock::time_point deliver_after;
        bool delivered = false; /* the baseline follows the events from now on */
        bool lost = false;      /* only DISCONNECT is left to deliver */
    };
    struct parting {
        event_mgr_callback callback;
        void *context;
        std::shared_ptr<const description> baseline;
    };

    bool start();
    void wake() const;
    void run();
    int poll_timeout(clock::time_point now) const;
    void look_at_file(file_watch &watch);
    void lose_all();
    void answer_requests(file_watch &watch);
    void deliver();
    bool deliver_next();
    std::shared_ptr<connection> find(event_mgr_handle handle);
    bool is_subscribed(const connection &to, int event_class, int event);

    machine &owner_;
    std::mutex mutex_;
    std::condition_variable answered_;
    std::thread thread_;
    std::thread::id id_;
    std::atomic<int> wake_ = -1;    /* both atomic for close_descriptors_in_child, */
    std::atomic<int> inotify_ = -1; /* which takes no lock */
    bool stop_ = false;
    bool away_ = true;   /* there is no directory to watch */
    uint64_t asked_ = 0; /* requests to look whether the directory is there */
    uint64_t answer_ = 0;
    event_mgr_handle last_handle_ = 0;
    std::vector<std::shared_ptr<connection>> connections_;
    std::vector<parting> partings_;
    std::string last_complaint_;

    /* Of the thread alone. */
    bool dirty_ = false;
    bool finished_ = false;
    clock::time_point dirty_since_;
    clock::time_point quiet_at_;
    clock::time_point complain_at_ = clock::time_point::max();
    clock::time_point check_at_ = clock::time_point::max();
    clock::time_point deliver_at_ = clock::time_point::max();
};

} // namespace described_platform

#endif

/*
 * The thread that watches the description and delivers events.
 *
 * One thread does both, so that the inventory never changes between the events
 * of one change and what a callback reads of it: a component that an event
 * names is found as the event says, and none is announced twice.
 *
 * A directory that is not there is like a file that is not there: handles are
 * given and stay good, and what comes later is noticed, however late.
 */
#ifndef KAVPLAT_DESCRIBED_EVENT_THREAD_H
#define KAVPLAT_DESCRIBED_EVENT_THREAD_H

#include "described/live/mutex.h"
#include "described/watch/audience.h"
#include "described/watch/read_schedule.h"

#include <atomic>

namespace described_platform
{

class file_watch;
class source;

class event_thread
{
  public:
    explicit event_thread(source &watched);
    ~event_thread(); /* joins */
    event_thread(const event_thread &) = delete;
    event_thread &operator=(const event_thread &) = delete;

    /* 0, or -1: no thread to be had, or the file takes too long to read. */
    int get_handle(event_mgr_handle &handle, event_mgr_callback callback, void *context);
    int subscribe_class(event_mgr_handle handle, int event_class);
    int subscribe(event_mgr_handle handle, int event_class, int event);

    /* Whether changes of the file are noticed without anybody asking. */
    bool watching();

    /* The calling thread was given all that this description lists. */
    void note_enumeration(const description_pointer &listed);

    /* After a fork: nothing of this object is used again, but its descriptors
     * are shared with the parent. */
    void close_descriptors_in_child() noexcept;

    /* For tests: so much time passes at once. */
    void let_pass(std::chrono::seconds time);

  private:
    using clock = std::chrono::steady_clock;

    bool start() REQUIRES(mutex_);
    void wake() const;
    clock::time_point now() const { return clock::now() + passed_.load(); }
    int poll_timeout() const;
    void run();
    void look_at_file(file_watch &watch);
    void note_directory(bool is_there);
    bool deliver_next();
    bool may_tell(event_mgr_handle handle, int event_class, int event);

    source &source_;
    mutex mutex_;
    condition first_look_;
    std::thread thread_; /* begun with the lock held, and joined without */
    std::thread::id id_ GUARDED_BY(mutex_);
    std::atomic<int> wake_ = -1;    /* both atomic for close_descriptors_in_child, */
    std::atomic<int> inotify_ = -1; /* which takes no lock */
    /* 32 bits: of more, some processors have no atomic. */
    std::atomic<std::chrono::duration<int32_t>> passed_{};
    bool stop_ GUARDED_BY(mutex_) = false;
    bool looked_ GUARDED_BY(mutex_) = false; /* at the file, for the first time */
    audience audience_ GUARDED_BY(mutex_);

    /* Of the thread alone. */
    read_schedule schedule_;
    std::optional<bool> directory_is_there_;
    clock::time_point deliver_at_ = clock::time_point::max();
};

} // namespace described_platform

#endif

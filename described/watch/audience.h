/*
 * Who holds a handle, what each of them knows, and what is to be told to whom.
 * Pure: no lock, no thread, and whoever asks says what time it is.
 *
 * A handle's baseline is the description that its holder knows. What is told are
 * the differences between the baseline and the description in force, once the
 * holder has subscribed; then that becomes the baseline. So nothing is lost that
 * happens while a holder enumerates and before it has subscribed:
 *  - at first the baseline is what is in force when the handle is given;
 *  - a full enumeration replaces it while nothing has been told yet. It counts for
 *    the handles of the thread that enumerates or, when that thread was given none,
 *    for all;
 *  - subscriptions arrive one by one. Telling begins when DISCONNECT is subscribed,
 *    or a moment after the last of another kind, so that no event is dropped
 *    because its own subscription was still under way.
 */
#ifndef KAVPLAT_DESCRIBED_AUDIENCE_H
#define KAVPLAT_DESCRIBED_AUDIENCE_H

#include "described/watch/in_force.h"
#include "platform/event_mgr.h"

#include <chrono>
#include <map>
#include <optional>
#include <set>
#include <thread>
#include <utility>

namespace described_platform
{

class audience
{
  public:
    using time_point = std::chrono::steady_clock::time_point;

    /* After a subscription that others may follow. */
    static constexpr std::chrono::milliseconds subscription_pause{200};

    event_mgr_handle open(event_mgr_callback callback, void *context, std::thread::id holder,
                          description_pointer known);

    /* False: there is no such handle. */
    bool subscribe_class(event_mgr_handle handle, time_point now);
    bool subscribe(event_mgr_handle handle, int event_class, int event, time_point now);
    bool is_subscribed(event_mgr_handle handle, int event_class, int event) const;

    /* This thread was given all that this description lists. */
    void note_enumeration(std::thread::id by, const description_pointer &listed);

    struct message {
        event_mgr_handle handle;
        event_mgr_callback callback;
        void *context;
        description_pointer before;
    };
    /* One that does not know what is in force and may be told now; it counts as told. */
    std::optional<message> take_message(const description_pointer &in_force, time_point now);

    /* When somebody who waits for the end of its subscriptions may be told; max: nobody
     * waits. */
    time_point next(time_point now) const;

  private:
    struct connection {
        event_mgr_callback callback = nullptr;
        void *context = nullptr;
        std::thread::id holder;
        std::set<std::pair<int, int>> subscribed;
        description_pointer baseline;
        time_point tell_after;
        bool told = false; /* the baseline follows what is told from now on */

        bool wants_changes() const;
    };

    event_mgr_handle last_handle_ = 0;
    std::map<event_mgr_handle, connection> connections_;
};

} // namespace described_platform

#endif

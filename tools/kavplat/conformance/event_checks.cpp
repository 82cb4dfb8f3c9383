#include "checks.h"

#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <mutex>
#include <set>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

/*
 * One session serves all checks of events: it takes a handle, lists the
 * inventory and subscribes, in the order in which the library does, has the
 * command make the platform change, and writes down what is delivered. The checks
 * then look at what was written down.
 */

namespace
{

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

struct seen_event {
    int event_class = 0;
    int event = 0;
    std::optional<std::string> payload;
    void *context = nullptr;
    bool inside_call = false;
    std::string inside_of; // that call
    bool on_callers_thread = false;
    bool overlapped = false;
    bool subscribed = false;
    // Of a component: what the callback was told of it.
    std::optional<int> status;
    std::set<std::string> listed;

    bool is(int wanted_class, int wanted) const
    {
        return event_class == wanted_class && event == wanted;
    }
    bool is_insert() const { return is(EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_HOT_INSERT); }
    bool is_remove() const { return is(EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_HOT_REMOVE); }
    bool is_update() const { return is(EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_UPDATE_INVENTORY); }
    bool is_refresh() const { return is(EVENT_MGR_CLASS_INTERNAL, EVENT_MGR_REFRESH_SENSOR); }
    bool is_disconnect() const { return is(EVENT_MGR_CLASS_CONNECTION, EVENT_MGR_DISCONNECT); }
    bool is_known() const
    {
        return is_insert() || is_remove() || is_update() || is_refresh() || is_disconnect();
    }
};

enum class probe { none, wanted, done, missed };

thread_local bool is_ours = false; // a thread of this program

} // namespace

struct event_session {
    session *owner = nullptr;
    int handle_status = -1;
    event_mgr_handle handle = 0;
    std::vector<std::string> bad_handles_taken;
    std::vector<std::string> refused_subscriptions;
    std::string replay_fault;
    bool settled = false; // the replay of the events gives the inventory
    std::vector<std::string> first_inventory;

    std::mutex mutex;
    std::condition_variable changed;
    std::set<std::pair<int, int>> subscribed;
    std::vector<seen_event> events;
    std::atomic<int> in_progress = 0;
    probe calls_during_event = probe::none;
    std::string stuck_call;
};

namespace
{

constexpr int context_mark = 0;
void *const given_context = const_cast<int *>(&context_mark);

// The callback's context is under test itself, so it does not lead here.
std::atomic<event_session *> current = nullptr;

std::string described(const seen_event &e)
{
    return text_of("event (%d, %d) of %s", e.event_class, e.event,
                   e.payload ? e.payload->c_str() : "a null payload");
}

void ask_about_payload(const session &s, seen_event &e)
{
    if (!e.payload || e.inside_call || e.on_callers_thread) {
        return;
    }
    if (e.is_refresh()) {
        e.status = sensor_info_of(s, *e.payload).status;
    } else if (e.is_insert() || e.is_remove() || e.is_update()) {
        const listing list = list_components(s, *e.payload, CAPI_INVENTORY_SUBTREE);
        e.status = list.status;
        for (const listed_component &c : list.components) {
            e.listed.insert(c.name);
        }
    }
}

// Holds the first event for as long as the main thread takes to make its calls.
// The library does the same: its callback waits for a lock that is held around
// calls.
void wait_for_calls(event_session &es)
{
    std::unique_lock lock(es.mutex);
    if (es.calls_during_event != probe::none) {
        return;
    }
    es.calls_during_event = probe::wanted;
    es.changed.notify_all();
    if (!es.changed.wait_for(lock, es.owner->options.wait / 2,
                             [&] { return es.calls_during_event == probe::done; })) {
        es.calls_during_event = probe::missed;
        call_time stuck;
        if (longest_under_way(0ms, stuck)) {
            es.stuck_call = stuck.what;
        }
    }
}

void on_event(void *context, int event_class, int event, const char *payload)
{
    constexpr size_t longest_payload = 4096;
    event_session *es = current;
    if (es == nullptr) {
        return;
    }
    seen_event e;
    e.event_class = event_class;
    e.event = event;
    e.context = context;
    e.inside_call = inside_a_call();
    e.inside_of = e.inside_call ? call_under_way() : "";
    e.on_callers_thread = is_ours;
    e.overlapped = es->in_progress++ != 0;
    if (payload != nullptr) {
        e.payload = std::string(payload, strnlen(payload, longest_payload));
    }
    {
        const std::lock_guard lock(es->mutex);
        e.subscribed = es->subscribed.contains({event_class, event});
    }
    try {
        ask_about_payload(*es->owner, e);
    } catch (const missing_call &) {
        // The promise to export it is broken, and that is reported.
    }
    const bool can_wait = !e.inside_call && !e.on_callers_thread && e.subscribed;
    {
        const std::lock_guard lock(es->mutex);
        es->events.push_back(std::move(e));
        es->changed.notify_all();
    }
    if (can_wait) {
        wait_for_calls(*es);
    }
    es->in_progress--;
}

// ---- Replay: what somebody knows who has only the first inventory and the events

struct replay {
    enum class origin { first_list, event, list_of_event };
    std::map<std::string, origin> there;
    std::set<std::string> gone_with_another;
    bool lost = false; // disconnected: nothing more can be known
    std::string fault;

    void remove_below(const std::string &top)
    {
        for (auto at = there.begin(); at != there.end();) {
            if (is_at_or_below(at->first, top)) {
                gone_with_another.insert(at->first);
                at = there.erase(at);
            } else {
                ++at;
            }
        }
        gone_with_another.erase(top);
    }

    void add_listed(const std::set<std::string> &names)
    {
        for (const std::string &name : names) {
            if (!name.empty()) {
                there.try_emplace(name, origin::list_of_event);
                gone_with_another.erase(name);
            }
        }
    }

    void apply(const seen_event &e)
    {
        if (e.is_disconnect()) {
            lost = true;
        }
        if (lost || !e.payload) {
            return;
        }
        const std::string &name = *e.payload;
        const auto found = there.find(name);
        if (e.is_insert()) {
            if (found != there.end() && found->second != origin::list_of_event) {
                fault = text_of("hot insert of %s, which was there already", name.c_str());
            }
            there[name] = origin::event;
            gone_with_another.erase(name);
            add_listed(e.listed);
        } else if (e.is_remove()) {
            if (found == there.end() && !gone_with_another.contains(name)) {
                fault = text_of("hot remove of %s, which was not there", name.c_str());
            }
            remove_below(name);
        } else if (e.is_update() && e.status == 0) {
            remove_below(name);
            gone_with_another.clear();
            add_listed(e.listed);
        }
    }
};

replay replay_events(event_session &es)
{
    replay r;
    for (const std::string &name : es.first_inventory) {
        r.there[name] = replay::origin::first_list;
    }
    const std::lock_guard lock(es.mutex);
    for (const seen_event &e : es.events) {
        r.apply(e);
        if (!r.fault.empty()) {
            break;
        }
    }
    return r;
}

// Empty when who follows the events knows what is there now.
std::string difference_from_now(event_session &es, const replay &r)
{
    const session &s = *es.owner;
    const listing now = list_components(s, s.root, CAPI_INVENTORY_SUBTREE);
    if (now.status != 0) {
        return text_of("capi_get_inventory(%s) gives %d", s.root.c_str(), now.status);
    }
    std::set<std::string> names;
    for (const listed_component &c : now.components) {
        if (!c.name.empty()) {
            names.insert(c.name);
        }
    }
    for (const std::string &name : names) {
        if (!r.there.contains(name)) {
            return text_of("%s is listed now, and no event told of it", name.c_str());
        }
    }
    for (const auto &[name, how] : r.there) {
        if (!names.contains(name)) {
            return text_of("%s is not listed any more, and no event told of it", name.c_str());
        }
    }
    return "";
}

// ---- The command

struct command {
    pid_t id = -1;
    bool ended = true;
    int status = 0;

    void start(const std::string &text)
    {
        const char *arguments[] = {"sh", "-c", text.c_str(), nullptr};
        ended = posix_spawn(&id, "/bin/sh", nullptr, nullptr, const_cast<char **>(arguments),
                            environ) != 0;
        status = ended ? -1 : 0;
    }
    bool has_ended()
    {
        if (!ended && waitpid(id, &status, WNOHANG) == id) {
            ended = true;
        }
        return ended;
    }
    // What is wrong with it, if anything.
    std::string finish()
    {
        if (!has_ended()) {
            kill(id, SIGKILL);
            waitpid(id, &status, 0);
            return "the command did not end, and nothing was delivered any more";
        }
        return status == 0         ? ""
               : WIFEXITED(status) ? text_of("the command ended with %d", WEXITSTATUS(status))
                                   : std::string("the command could not be run to its end");
    }
};

// ---- The session

constexpr std::pair<int, int> subscriptions[] = {
    {EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_HOT_INSERT},
    {EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_HOT_REMOVE},
    {EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_UPDATE_INVENTORY},
    {EVENT_MGR_CLASS_INTERNAL, EVENT_MGR_REFRESH_SENSOR},
    {EVENT_MGR_CLASS_CONNECTION, EVENT_MGR_DISCONNECT},
};

void take_handle(event_session &es)
{
    const session &s = *es.owner;
    const auto end = clock_type::now() + s.options.wait;
    for (;;) {
        fenced<event_mgr_handle> handle;
        es.handle_status = s.calls.event_mgr_get_handle(&handle.value, &on_event, given_context);
        es.handle = handle.value;
        if (es.handle_status == 0 || clock_type::now() > end) {
            return;
        }
        std::this_thread::sleep_for(50ms); // not now, try later
    }
}

void try_bad_handles(event_session &es)
{
    const platform_calls &c = es.owner->calls;
    for (const event_mgr_handle bad : {event_mgr_handle{0}, es.handle ^ 0x5A000000U}) {
        if (bad == es.handle) {
            continue; // a handle of 0 is another check's
        }
        if (c.event_mgr_subscribe_event_class(bad, EVENT_MGR_CLASS_HARDWARE) == 0) {
            es.bad_handles_taken.push_back(
                text_of("event_mgr_subscribe_event_class of handle %u gives 0", bad));
        }
        if (c.event_mgr_subscribe_event(bad, EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_HOT_INSERT) == 0) {
            es.bad_handles_taken.push_back(
                text_of("event_mgr_subscribe_event of handle %u gives 0", bad));
        }
    }
}

void subscribe_as_the_library_does(event_session &es)
{
    const platform_calls &c = es.owner->calls;
    const int status = c.event_mgr_subscribe_event_class(es.handle, EVENT_MGR_CLASS_HARDWARE);
    if (status != 0) {
        es.refused_subscriptions.push_back(text_of("event_mgr_subscribe_event_class(%d) gives %d",
                                                   EVENT_MGR_CLASS_HARDWARE, status));
    }
    for (const auto &[event_class, event] : subscriptions) {
        {
            const std::lock_guard lock(es.mutex);
            es.subscribed.insert({event_class, event});
        }
        const int result = c.event_mgr_subscribe_event(es.handle, event_class, event);
        if (result != 0) {
            es.refused_subscriptions.push_back(
                text_of("event_mgr_subscribe_event(%d, %d) gives %d", event_class, event, result));
        }
    }
}

// What the agent may ask while an event is on its way.
void make_calls(const session &s)
{
    list_components(s, s.root, CAPI_INVENTORY_SUBTREE);
    fenced<int32_t> code;
    s.calls.capi_get_power_state(0, s.root.c_str(), &code.value);
    s.calls.capi_get_rdy2rm_status(0, s.root.c_str(), &code.value);
    sensor_info_of(s, s.root);
    fenced<capi_fru_record> fru;
    s.calls.capi_get_fru_info(s.root.c_str(), &fru.value);
    fenced<capi_indicator_record> indicator;
    s.calls.capi_get_indicator(0, s.root.c_str(), &indicator.value);
}

void make_calls_when_wanted(event_session &es)
{
    {
        const std::lock_guard lock(es.mutex);
        if (es.calls_during_event != probe::wanted) {
            return;
        }
    }
    make_calls(*es.owner);
    const std::lock_guard lock(es.mutex);
    if (es.calls_during_event == probe::wanted) {
        es.calls_during_event = probe::done;
        es.changed.notify_all();
    }
}

size_t count_events(event_session &es)
{
    const std::lock_guard lock(es.mutex);
    return es.events.size();
}

// Until nothing more is to come: the command has ended, something was delivered,
// it explains what is there, and then nothing else comes for a while.
void watch_events(event_session &es)
{
    constexpr auto quiet = 300ms;
    const session &s = *es.owner;
    command provocation;
    if (!s.options.provoke.empty()) {
        provocation.start(s.options.provoke);
    }
    auto last_news = clock_type::now();
    size_t known = 0;
    for (;;) {
        {
            std::unique_lock lock(es.mutex);
            es.changed.wait_for(lock, 20ms, [&] {
                return es.events.size() != known || es.calls_during_event == probe::wanted;
            });
        }
        make_calls_when_wanted(es);
        const auto now = clock_type::now();
        if (const size_t count = count_events(es); count != known) {
            known = count;
            last_news = now;
            es.settled = false;
        }
        if (known != 0 && !es.settled && es.in_progress == 0) {
            const replay r = replay_events(es);
            es.replay_fault = r.fault.empty() && !r.lost ? difference_from_now(es, r) : r.fault;
            es.settled = es.replay_fault.empty();
        }
        const bool complete = s.options.provoke.empty() || (known != 0 && es.settled);
        if (provocation.has_ended() && es.in_progress == 0 && complete && now > last_news + quiet) {
            break;
        }
        if (now > last_news + s.options.wait + quiet && es.in_progress == 0) {
            break;
        }
    }
    es.owner->provoke_fault = provocation.finish();
}

event_session &events_of(session &s)
{
    if (s.events == nullptr) {
        is_ours = true;
        root_of(s);
        s.events = std::make_shared<event_session>();
        event_session &es = *s.events;
        es.owner = &s;
        current = &es;
        take_handle(es);
        if (es.handle_status == 0) {
            const listing first = list_components(s, s.root, CAPI_INVENTORY_SUBTREE);
            for (const listed_component &c : first.components) {
                if (!c.name.empty()) {
                    es.first_inventory.push_back(c.name);
                }
            }
            try_bad_handles(es);
            subscribe_as_the_library_does(es);
            watch_events(es);
        }
    }
    return *s.events;
}

// Says so when the events that a check looks at did not come. Events that are
// broken in another check's eyes are looked at all the same.
template <class Look>
void look_at_events(session &s, findings &f, Look look)
{
    event_session &es = events_of(s);
    size_t looked_at = 0;
    const std::lock_guard lock(es.mutex);
    for (const seen_event &e : es.events) {
        looked_at += look(e) ? 1U : 0U;
    }
    if (looked_at == 0 && f.broken.empty()) {
        f.skipped = s.options.provoke.empty()
                        ? "no such event came; --provoke COMMAND makes the platform change"
                        : "no such event came";
    }
}

// A later event that says why a component was or was not there.
bool is_explained_later(const std::vector<seen_event> &events, const seen_event &of)
{
    for (const seen_event *e = &of + 1; e < events.data() + events.size(); e++) {
        if (e->payload && (e->is_insert() || e->is_remove() || e->is_update()) &&
            is_at_or_below(*of.payload, *e->payload)) {
            return true;
        }
    }
    return false;
}

void check_event_handle(session &s, findings &f)
{
    const event_session &es = events_of(s);
    if (es.handle_status != 0) {
        f.broken.push_back(text_of("event_mgr_get_handle still gives %d after %lld ms",
                                   es.handle_status,
                                   static_cast<long long>(s.options.wait.count())));
    } else if (es.handle == 0) {
        f.broken.emplace_back("the handle is 0");
    }
}

void check_event_bad_handle(session &s, findings &f)
{
    const event_session &es = events_of(s);
    f.broken = es.bad_handles_taken;
    if (es.handle_status != 0) {
        f.skipped = "there is no handle";
    }
}

void check_event_subscriptions(session &s, findings &f)
{
    const event_session &es = events_of(s);
    f.broken = es.refused_subscriptions;
    if (es.handle_status != 0) {
        f.skipped = "there is no handle";
    }
}

void check_event_delivery(session &s, findings &f)
{
    event_session &es = events_of(s);
    if (s.options.provoke.empty()) {
        f.skipped = "--provoke COMMAND makes the platform change";
    } else if (es.handle_status != 0) {
        f.skipped = "there is no handle";
    } else if (!s.provoke_fault.empty()) {
        f.skipped = s.provoke_fault;
    } else if (count_events(es) == 0) {
        f.broken.push_back(text_of("nothing was delivered within %lld ms of the command",
                                   static_cast<long long>(s.options.wait.count())));
    }
}

void check_event_thread(session &s, findings &f)
{
    look_at_events(s, f, [&](const seen_event &e) {
        if (e.inside_call) {
            f.broken.push_back(described(e) + " came from inside " + e.inside_of);
        } else if (e.on_callers_thread) {
            f.broken.push_back(described(e) + " came on the thread that made the calls");
        }
        return true;
    });
}

void check_event_one_at_a_time(session &s, findings &f)
{
    look_at_events(s, f, [&](const seen_event &e) {
        if (e.overlapped && !e.inside_call) {
            f.broken.push_back(described(e) + " came before the callback had returned from "
                                              "another one");
        }
        return true;
    });
}

void check_event_known(session &s, findings &f)
{
    look_at_events(s, f, [&](const seen_event &e) {
        if (!e.is_known()) {
            f.broken.push_back(described(e) + " is none of the contract");
        }
        return true;
    });
}

void check_event_subscribed(session &s, findings &f)
{
    look_at_events(s, f, [&](const seen_event &e) {
        if (e.is_known() && !e.subscribed) {
            f.broken.push_back(described(e) + " was not subscribed yet");
        }
        return e.is_known();
    });
}

void check_event_payload(session &s, findings &f)
{
    constexpr size_t longest_name = 1024;
    look_at_events(s, f, [&](const seen_event &e) {
        if (e.is_disconnect() && e.payload) {
            f.broken.push_back(described(e) + ", where null is promised");
        } else if (e.is_known() && !e.is_disconnect() &&
                   (!e.payload || e.payload->size() < 2 || e.payload->front() != '/')) {
            f.broken.push_back(described(e) + ", which is no NAC name");
        } else if (e.payload && e.payload->size() > longest_name) {
            f.broken.push_back(text_of("event (%d, %d): a payload without a NUL in %zu bytes",
                                       e.event_class, e.event, longest_name));
        }
        return e.is_known();
    });
}

void check_event_context(session &s, findings &f)
{
    look_at_events(s, f, [&](const seen_event &e) {
        if (e.context != given_context) {
            f.broken.push_back(described(e) + text_of(" came with context %p, given was %p",
                                                      e.context, given_context));
        }
        return true;
    });
}

void check_event_state(session &s, findings &f)
{
    const event_session &es = events_of(s);
    look_at_events(s, f, [&](const seen_event &e) {
        if (!e.status) {
            return false;
        }
        const bool is_there = *e.status == 0;
        if (is_there == e.is_remove() && (e.is_refresh() || !is_explained_later(es.events, e))) {
            f.broken.push_back(described(e) +
                               text_of(": the callback asks for it and gets %d", *e.status));
        }
        return true;
    });
}

void check_event_order(session &s, findings &f)
{
    const event_session &es = events_of(s);
    if (!es.replay_fault.empty()) {
        f.broken.push_back(es.replay_fault);
    }
    look_at_events(
        s, f, [](const seen_event &e) { return e.is_insert() || e.is_remove() || e.is_update(); });
}

void check_event_calls(session &s, findings &f)
{
    const event_session &es = events_of(s);
    if (es.calls_during_event == probe::missed) {
        f.broken.push_back(text_of("%s does not answer before the callback returns",
                                   es.stuck_call.empty() ? "a call" : es.stuck_call.c_str()));
    } else if (es.calls_during_event != probe::done) {
        f.skipped = "no event was delivered as it should";
    }
}

constexpr check checks[] = {
    {"event_handle", "there is a handle, and it is not 0", check_event_handle},
    {"event_bad_handle", "subscriptions of a handle that is none are refused",
     check_event_bad_handle},
    {"event_subscriptions", "what the library subscribes can be subscribed",
     check_event_subscriptions},
    {"event_delivery", "a change is told", check_event_delivery},
    {"event_thread", "events come on a thread of the event manager, never from inside a call",
     check_event_thread},
    {"event_one_at_a_time", "events of one handle come one after the other",
     check_event_one_at_a_time},
    {"event_known", "only the contract's events come", check_event_known},
    {"event_subscribed", "only what is subscribed comes", check_event_subscribed},
    {"event_payload", "the payload is a name, or null for a disconnect", check_event_payload},
    {"event_context", "the context comes back as it was given", check_event_context},
    {"event_state", "an event is true when it is told", check_event_state},
    {"event_order", "who follows the events knows what is there", check_event_order},
    {"event_calls", "calls are answered while an event is delivered", check_event_calls},
};

} // namespace

std::span<const check> event_checks()
{
    return checks;
}

#include "command.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <ctime>
#include <nlohmann/json.hpp>
#include <ostream>

#include "changes.h"
#include "listener.h"
#include "tools/kavplat/agent/read_box.h"
#include "tools/kavplat/agent/words.h"
#include "tools/kavplat/tree/print.h"

namespace kavplat_watch
{
namespace
{

using namespace kavplat_agent;
using clock = std::chrono::steady_clock;

volatile sig_atomic_t stopped = 0;

void on_signal(int)
{
    stopped = 1;
}

std::chrono::milliseconds milliseconds(double seconds)
{
    return std::chrono::milliseconds(static_cast<long>(seconds * 1000));
}

std::string now(const char *format)
{
    const std::time_t at = std::time(nullptr);
    char text[64] = "";
    if (std::tm parts{}; localtime_r(&at, &parts) != nullptr) {
        strftime(text, sizeof text, format, &parts);
    }
    return text;
}

class teller
{
  public:
    teller(const options &asked, std::ostream &out) : asked_(asked), out_(out) {}

    /* Of the agent as a whole. */
    void tell(const std::string &what, const std::string &text)
    {
        if (asked_.json) {
            print_json(what.c_str(), "", text, level::unjudged);
        } else {
            out_ << now("%H:%M:%S") << "  " << printable(text) << std::endl;
        }
    }

    void tell(const std::vector<change> &all)
    {
        for (const change &each : all) {
            if (asked_.only_states && each.what == kind::reading) {
                continue;
            }
            if (asked_.json) {
                print_json(kind_name(each.what), each.name, each.text, each.now);
                continue;
            }
            constexpr const char *marks[] = {"-", "+", "!", "~"};
            out_ << now("%H:%M:%S") << "  " << marks[static_cast<size_t>(each.what)] << ' '
                 << printable(each.name) << "  " << each.text << '\n';
        }
        out_.flush();
    }

  private:
    void print_json(const char *what, const std::string &name, const std::string &text, level how)
    {
        nlohmann::ordered_json line;
        line["time"] = now("%Y-%m-%dT%H:%M:%S%z");
        line["change"] = what;
        if (!name.empty()) {
            line["name"] = as_utf8(name);
        }
        line["text"] = as_utf8(text);
        if (how != level::unjudged) {
            line["alarm"] = level_name(how);
        }
        out_ << line.dump() << std::endl;
    }

    const options &asked_;
    std::ostream &out_;
};

} // namespace

status run(const options &asked, std::ostream &out, std::ostream &errors)
{
    session from;
    box current;
    std::string failure = from.open(asked.whom);
    if (failure.empty()) {
        failure = read_box(from, current);
    }
    if (failure.empty() && !asked.listen.empty()) {
        failure = listen_at(asked.listen);
    }
    if (!failure.empty()) {
        errors << "kavplat watch: " << printable(failure) << '\n';
        return from.is_misused() ? misused : not_read;
    }
    struct sigaction action = {};
    action.sa_handler = on_signal; /* without SA_RESTART: it ends the waiting */
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);

    teller tell(asked, out);
    tell.tell("begin", current.agent + ": " + kavplat_tree::summary(current, current.roots));
    change_mark mark = current.mark;
    clock::time_point marked = clock::now();
    clock::time_point last_reading = marked;
    bool is_silent = false;
    run_of_agent run = run_of_agent::the_same; /* since it was told of */
    size_t newly_read = 0;                     /* entities of another run, yet to be told of */
    for (long i = 0; stopped == 0 && (asked.count == 0 || i < asked.count); ++i) {
        const bool notified = wait_for_notification(
            milliseconds(newly_read != 0 ? std::min(asked.interval, 1.0) : asked.interval));
        if (stopped != 0) {
            break;
        }
        change_mark now_it_is;
        const clock::time_point asked_at = clock::now();
        read_mark(from, now_it_is, failure);
        const clock::time_point answered = clock::now();
        box next;
        bool has_read = false;
        if (failure.empty()) {
            const auto passed = std::chrono::floor<std::chrono::milliseconds>(asked_at - marked);
            if (run_between(mark, now_it_is, passed) == run_of_agent::another) {
                run = run_of_agent::another;
            }
            const bool is_due =
                notified ||
                (asked.readings > 0 && clock::now() - last_reading >= milliseconds(asked.readings));
            const bool tells_changes = mark.last_change != 0 || now_it_is.last_change != 0;
            has_read = true;
            if (run == run_of_agent::another || now_it_is.last_change != mark.last_change ||
                (is_due && !tells_changes)) {
                failure = read_box(from, next);
            } else if (is_due) {
                next = current;
                failure = read_live(from, next);
            } else {
                has_read = false;
            }
        }
        if (!failure.empty()) {
            /* As it was before: the mark stays, so that it is read at the next turn. */
            if (!is_silent) {
                tell.tell("silent", failure);
            }
            is_silent = true;
            continue;
        }
        /* An agent that has just begun may serve but a part yet, and nothing tells of the
         * rest: it is told of when it was read twice with as much. */
        if (run == run_of_agent::another && newly_read != next.entities.size()) {
            newly_read = next.entities.size();
            continue;
        }
        newly_read = 0;
        if (is_silent) {
            tell.tell("answers", current.agent + ": answers again");
            is_silent = false;
        }
        if (run == run_of_agent::another) {
            tell.tell("restart", current.agent + ": the agent was started anew");
        }
        mark = now_it_is;
        marked = answered;
        if (!has_read) {
            continue;
        }
        tell.tell(changes_between(current, next, run));
        run = run_of_agent::the_same;
        current = std::move(next);
        last_reading = answered;
        if (!out) {
            return not_read;
        }
    }
    return ended;
}

} // namespace kavplat_watch

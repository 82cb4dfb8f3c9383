#include "command.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fnmatch.h>
#include <ostream>
#include <sys/time.h>
#include <unistd.h>

#include "tools/kavplat/agent/read_box.h"
#include "tools/kavplat/agent/words.h"

namespace kavplat_health
{
namespace
{

using namespace kavplat_agent;

constexpr const char *words[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};

/* Whichever is graver: critical, warning, unknown, ok. */
status graver(status one, status other)
{
    constexpr int weights[] = {0, 2, 3, 1};
    return weights[one] >= weights[other] ? one : other;
}

/* The first bar parts the text from the performance data, and the first end of line
 * the short text from the long one, wherever they come from. */
std::string plain(const std::string &text)
{
    std::string result = printable(text);
    std::ranges::replace(result, '|', '/');
    return result;
}

bool fits(const std::string &name, const std::vector<std::string> &patterns)
{
    return std::ranges::any_of(patterns, [&name](const std::string &each) {
        return fnmatch(each.c_str(), name.c_str(), 0) == 0;
    });
}

/* So does what is in a component that fits: who names a supply means its fan, too. */
bool is_meant(const box &all, const entity &each, const std::vector<std::string> &patterns)
{
    const entity *at = &each;
    while (!fits(shown_name(*at), patterns)) {
        if (!at->parent) {
            return false;
        }
        at = &all.entities[*at->parent];
    }
    return true;
}

struct finding {
    status counts_as;
    std::string text;
};

bool is_absent(const entity &each)
{
    return each.sensor && each.sensor->tells_presence && each.sensor->state == false &&
           each.sensor->status == sensor_status::ok;
}

/* What stands for a presence sensor is where it is. */
std::string absent_name(const box &all, const entity &each)
{
    return shown_name(each.parent ? all.entities[*each.parent] : each);
}

std::string number(double value)
{
    char text[48];
    snprintf(text, sizeof text, "%.9g", value);
    return text;
}

/* Alerts outside of it; what has no lower end is told to have none, since the
 * conventions put 0 there. */
std::string range(const std::optional<double> &lower, const std::optional<double> &upper)
{
    if (!lower && !upper) {
        return "";
    }
    return (lower ? number(*lower) : "~") + ":" + (upper ? number(*upper) : "");
}

/* 'label'=value[unit];warn;crit;; with a quote that is doubled, and no equals sign. */
std::string performance(const entity &each)
{
    const reading &sensor = *each.sensor;
    std::string label;
    for (const char c : plain(shown_name(each))) {
        label += c == '\'' ? std::string("''") : std::string(1, c == '=' ? '_' : c);
    }
    const auto &limits = sensor.limits;
    const auto grave = [&limits](limit first, limit second) {
        return limits[first] ? limits[first] : limits[second];
    };
    std::string text =
        "'" + label + "'=" + number(*sensor.number) + (sensor.unit == "%" ? "%" : "") + ";" +
        range(limits[lower_warning], limits[upper_warning]) + ";" +
        range(grave(lower_critical, lower_fatal), grave(upper_critical, upper_fatal));
    text += sensor.unit == "%" ? ";0;100" : "";
    while (text.ends_with(';')) {
        text.pop_back();
    }
    return text;
}

std::string counted(size_t count, const char *thing)
{
    return std::to_string(count) + " " + thing + (count == 1 ? "" : "s");
}

/* What SIGALRM prints: nothing may be worked out there. */
char overdue[256];

void on_alarm(int)
{
    [[maybe_unused]] const ssize_t told =
        write(STDOUT_FILENO, overdue, strnlen(overdue, sizeof overdue));
    _exit(unknown);
}

} // namespace

status report(const options &asked, const box &all, std::ostream &out)
{
    const status missing_counts_as = asked.missing == "critical"  ? critical
                                     : asked.missing == "warning" ? warning
                                                                  : ok;
    std::vector<finding> found;
    std::vector<std::string> absent;
    std::string data;
    size_t judged = 0;
    size_t sensors = 0;
    size_t entities = 0;
    for (const tree_line &line : in_order(all, all.roots)) {
        const entity &each = all.entities[line.at];
        const std::string name = shown_name(each);
        if ((!asked.include.empty() && !is_meant(all, each, asked.include)) ||
            is_meant(all, each, asked.exclude)) {
            continue;
        }
        entities++;
        judged += each.own != level::unjudged ? 1U : 0U;
        sensors += each.sensor ? 1U : 0U;
        if (is_absent(each)) {
            absent.push_back(absent_name(all, each));
            if (missing_counts_as != ok) {
                found.push_back({missing_counts_as, absent.back() + " is missing"});
            }
        }
        if (each.own >= level::unread && !each.inherited) {
            found.push_back({each.own == level::critical  ? critical
                             : each.own == level::warning ? warning
                                                          : unknown,
                             name + ": " + each.reason});
        }
        if (!asked.no_data && each.sensor && each.sensor->number && !each.sensor->two_states &&
            each.sensor->status == sensor_status::ok) {
            data += " " + performance(each);
        }
    }
    for (const std::string &pattern : asked.require) {
        const bool is_there = std::ranges::any_of(
            all.entities, [&](const entity &each) { return fits(shown_name(each), {pattern}); });
        if (!is_there) {
            found.push_back({critical, pattern + " is missing: nothing has such a name"});
        }
    }
    for (const std::string &each : all.troubles) {
        found.push_back({unknown, each});
    }
    if (entities == 0) {
        found.push_back({unknown, "nothing is left to judge by --include and --exclude"});
    } else if (judged == 0) {
        found.push_back({unknown, "the agent tells of no states and no sensors here"});
    }
    std::ranges::stable_sort(found, [](const finding &one, const finding &other) {
        return one.counts_as != other.counts_as &&
               graver(one.counts_as, other.counts_as) == one.counts_as;
    });
    status whole = ok;
    for (const finding &each : found) {
        whole = graver(whole, each.counts_as);
    }
    out << "HARDWARE " << words[whole] << " - ";
    constexpr size_t told_first = 3;
    for (size_t i = 0; i < std::min(found.size(), told_first); ++i) {
        out << (i == 0 ? "" : ", ") << plain(found[i].text);
    }
    if (found.size() > told_first) {
        out << ", and " << found.size() - told_first << " more";
    }
    if (found.empty()) {
        out << counted(entities, "component") << ", " << counted(sensors, "sensor")
            << ", nothing is wrong";
    }
    if (!absent.empty()) {
        out << " (" << absent.size() << " absent)";
    }
    if (!data.empty()) {
        out << " |" << data;
    }
    out << '\n';
    for (const finding &each : found) {
        out << words[each.counts_as] << ": " << plain(each.text) << '\n';
    }
    if (!absent.empty()) {
        out << "absent:";
        for (const std::string &each : absent) {
            out << ' ' << plain(each);
        }
        out << '\n';
    }
    return whole;
}

status run(const options &asked, std::ostream &out)
{
    address whom = asked.whom;
    whom.longest = std::chrono::milliseconds(std::max(1L, static_cast<long>(asked.timeout * 1000)));
    /* For what no deadline reaches, as the look-up of a name. */
    snprintf(overdue, sizeof overdue, "HARDWARE UNKNOWN - %.150s was not read within %g s\n",
             plain(whom.agent).c_str(), asked.timeout);
    struct sigaction action = {};
    action.sa_handler = on_alarm;
    sigaction(SIGALRM, &action, nullptr);
    const double latest = asked.timeout + 0.5;
    itimerval timer = {};
    timer.it_value.tv_sec = static_cast<time_t>(latest);
    timer.it_value.tv_usec =
        static_cast<suseconds_t>((latest - static_cast<double>(timer.it_value.tv_sec)) * 1e6);
    setitimer(ITIMER_REAL, &timer, nullptr);

    session from;
    box all;
    std::string failure;
    try {
        failure = from.open(whom);
        if (failure.empty()) {
            failure = read_box(from, all);
        }
    } catch (const std::exception &error) {
        failure = error.what();
    }
    setitimer(ITIMER_REAL, nullptr, nullptr);
    if (!failure.empty()) {
        out << "HARDWARE UNKNOWN - " << plain(failure) << '\n';
        return unknown;
    }
    return report(asked, all, out);
}

} // namespace kavplat_health

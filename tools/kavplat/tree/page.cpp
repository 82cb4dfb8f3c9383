#include "print.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <ostream>

#include "page_parts.h"
#include "tools/kavplat/agent/words.h"

namespace kavplat_tree
{
namespace
{

using namespace kavplat_agent;

/* Octets of an agent as text of the page: none of them is markup, in an attribute
 * neither. */
std::string escaped(const std::string &text)
{
    std::string result;
    for (const char c : printable(text)) {
        switch (c) {
        case '&':
            result += "&amp;";
            break;
        case '<':
            result += "&lt;";
            break;
        case '>':
            result += "&gt;";
            break;
        case '"':
            result += "&quot;";
            break;
        case '\'':
            result += "&#39;";
            break;
        default:
            result += c;
        }
    }
    return result;
}

std::string lower_case(std::string text)
{
    for (char &c : text) {
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    }
    return text;
}

std::string tenths(double number)
{
    char text[32];
    snprintf(text, sizeof text, "%.1f", number);
    return text;
}

const char *class_of(level each)
{
    constexpr const char *names[] = {"", "good", "unread", "warning", "critical"};
    return names[static_cast<size_t>(each)];
}

/* The reading between its limits: zones from the gravest lower one to the gravest
 * upper one, and a needle. */
void print_bar(std::ostream &out, const reading &each)
{
    if (each.two_states || !each.number || each.status != sensor_status::ok) {
        return;
    }
    double least = *each.number;
    double most = *each.number;
    bool has_limits = false;
    for (const auto &one : each.limits) {
        if (one) {
            has_limits = true;
            least = std::min(least, *one);
            most = std::max(most, *one);
        }
    }
    if (!has_limits || !std::isfinite(least) || !std::isfinite(most)) {
        return;
    }
    /* What has no lower limit begins at 0, as far as it goes. */
    if (!each.limits[lower_fatal] && !each.limits[lower_critical] && !each.limits[lower_warning]) {
        least = std::min(least, 0.0);
    }
    const double room = most > least ? (most - least) * 0.08 : 1;
    const double begin = least - (least == 0 ? 0 : room);
    const double end = most + room;
    const auto place = [&](double number) { return (number - begin) / (end - begin) * 100; };
    out << "<svg class=\"bar\" viewBox=\"0 0 100 12\" preserveAspectRatio=\"none\" "
           "aria-hidden=\"true\">";
    const auto zone = [&](const char *name, double from, double to) {
        if (to > from) {
            out << "<rect class=\"zone " << name << "\" x=\"" << tenths(place(from))
                << "\" y=\"3\" height=\"6\" width=\"" << tenths(place(to) - place(from)) << "\"/>";
        }
    };
    const auto &limits = each.limits;
    const double low_bad = limits[lower_critical].value_or(limits[lower_fatal].value_or(begin));
    const double low_near = std::max(low_bad, limits[lower_warning].value_or(low_bad));
    const double high_bad = limits[upper_critical].value_or(limits[upper_fatal].value_or(end));
    const double high_near = std::min(high_bad, limits[upper_warning].value_or(high_bad));
    zone("over", begin, low_bad);
    zone("near", low_bad, low_near);
    zone("well", low_near, high_near);
    zone("near", high_near, high_bad);
    zone("over", high_bad, end);
    out << "<rect class=\"needle\" x=\"" << tenths(std::clamp(place(*each.number) - 0.6, 0.0, 98.8))
        << "\" y=\"0\" width=\"1.2\" height=\"12\"/></svg>";
}

std::string words_to_search(const entity &each)
{
    std::string all;
    for (const std::string &text :
         {shown_name(each), class_name(each.class_code), each.description, each.model, each.serial,
          each.manufacturer, each.alias, state_words(each), std::string(level_name(each.own))}) {
        all += (all.empty() || text.empty() ? "" : " ") + text;
    }
    return lower_case(all);
}

void print_what_it_is(std::ostream &out, const entity &each)
{
    out << "<span class=\"name\">" << escaped(shown_name(each)) << "</span> ";
    if (each.sensor) {
        out << "<span class=\"value\">" << escaped(reading_words(*each.sensor)) << "</span> ";
    }
    const std::string states = state_words(each);
    if (each.own >= level::unread) {
        const std::string name = level_name(each.own);
        out << "<span class=\"alarm " << class_of(each.own) << "\">" << name
            << (each.reason.empty() || each.reason == name ? "" : ": " + escaped(each.reason))
            << "</span> ";
    }
    if (!states.empty() && !each.reason.ends_with(states)) {
        out << "<span class=\"alarm\">" << escaped(states) << "</span> ";
    }
    if (!each.serial.empty()) {
        out << "<button type=\"button\" class=\"serial\" title=\"Copy the serial number\">"
            << escaped(each.serial) << "</button> ";
    }
    out << "<div class=\"about\">";
    std::string about;
    // Where a line ends between two of them, the dot is still on it.
    const auto add_markup = [&about](const std::string &markup) {
        about += (about.empty() ? "" : "&nbsp;· ") + markup;
    };
    const auto add = [&add_markup](const char *what, const std::string &text) {
        if (!text.empty()) {
            add_markup(what + escaped(text));
        }
    };
    add("", each.description);
    add("", class_name(each.class_code));
    add("", each.manufacturer);
    add("model ", each.model);
    add("hardware ", each.hardware_revision);
    add("firmware ", each.firmware_revision);
    add("software ", each.software_revision);
    add("alias ", each.alias);
    add("", each.is_fru.value_or(false) ? "replaceable" : "");
    if (const std::string limits = each.sensor ? limits_words(*each.sensor) : ""; !limits.empty()) {
        add_markup("<span class=\"limits\">limits " + escaped(limits) + "</span>");
    }
    out << about << "</div>";
    if (each.sensor) {
        print_bar(out, *each.sensor);
    }
}

std::string attributes(const entity &each, const char *kind)
{
    /* Its edge has the colour of the gravest in it; an edge of what nobody judges has none. */
    return " class=\"" + std::string(kind) + class_of(each.worst) + "\" id=\"e" +
           std::to_string(each.index) + "\" data-level=\"" +
           std::to_string(static_cast<int>(each.own)) + "\" data-words=\"" +
           escaped(words_to_search(each)) + "\"";
}

/* Nested boxes, by a list instead of calls: an agent may nest as deep as it likes. What
 * lies deeper than anybody sees stands beside each other. */
void print_boxes(std::ostream &out, const box &all, const std::vector<size_t> &roots)
{
    constexpr size_t deepest = 24;
    struct step {
        enum { open_box, open_parts, part, close_parts, close_box } what;
        size_t at;
        size_t depth;
    };
    std::vector<step> waiting;
    const auto wait = [&](const std::vector<size_t> &places, size_t depth) {
        /* Last in, first out: parts that hold nothing come before boxes. */
        const auto is_box = [&](size_t at) {
            return !all.entities[at].children.empty() && depth < deepest;
        };
        for (auto at = places.rbegin(); at != places.rend(); ++at) {
            if (is_box(*at)) {
                waiting.push_back({step::open_box, *at, depth});
            }
        }
        const bool has_parts = std::ranges::any_of(places, [&](size_t at) { return !is_box(at); });
        if (!has_parts) {
            return;
        }
        waiting.push_back({step::close_parts, 0, depth});
        for (auto at = places.rbegin(); at != places.rend(); ++at) {
            if (!is_box(*at)) {
                waiting.push_back({step::part, *at, depth});
            }
        }
        waiting.push_back({step::open_parts, 0, depth});
    };
    wait(roots, 0);
    while (!waiting.empty()) {
        const step next = waiting.back();
        waiting.pop_back();
        const entity &each = all.entities[next.at];
        switch (next.what) {
        case step::open_box:
            out << "<details open" << attributes(each, "") << "><summary>";
            print_what_it_is(out, each);
            out << "</summary><div class=\"inside\">\n";
            waiting.push_back({step::close_box, next.at, next.depth});
            wait(each.children, next.depth + 1);
            break;
        case step::close_box:
            out << "</div></details>\n";
            break;
        case step::open_parts:
            out << "<div class=\"parts\">\n";
            break;
        case step::close_parts:
            out << "</div>\n";
            break;
        case step::part:
            out << "<div" << attributes(each, "part ") << ">";
            print_what_it_is(out, each);
            out << "</div>\n";
            if (!each.children.empty()) {
                for (auto at = each.children.rbegin(); at != each.children.rend(); ++at) {
                    waiting.push_back({step::part, *at, next.depth + 1});
                }
            }
            break;
        }
    }
}

} // namespace

void print_page(std::ostream &out, const box &all, const selection &what)
{
    const std::string title =
        what.from.empty() ? "nothing" : shown_name(all.entities[what.from.front()]);
    const std::time_t now = std::time(nullptr);
    char date[64] = "";
    if (std::tm parts{}; localtime_r(&now, &parts) != nullptr) {
        strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S %z", &parts);
    }
    out << "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
           "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
           "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src "
           "'unsafe-inline'; script-src 'unsafe-inline'\">\n"
           "<title>"
        << escaped(title) << " at " << escaped(all.agent) << "</title>\n<style>\n"
        << page_style << "</style>\n</head>\n<body>\n<header>\n<h1>" << escaped(title) << " at "
        << escaped(all.agent) << "</h1>\n<p>" << escaped(summary(all, what.from))
        << "</p>\n<form role=\"search\"><input type=\"search\" placeholder=\"Name, model, serial, "
           "state\" aria-label=\"Search\"> <button type=\"button\" id=\"only\" "
           "aria-pressed=\"false\">Only what is wrong</button> <span id=\"found\" "
           "aria-live=\"polite\"></span></form>\n</header>\n<main>\n";
    if (!all.troubles.empty()) {
        out << "<ul class=\"troubles\">\n";
        for (const std::string &each : all.troubles) {
            out << "<li>" << escaped(each) << "</li>\n";
        }
        out << "</ul>\n";
    }
    if (what.only == choice::all) {
        print_boxes(out, all, what.from);
    } else {
        out << "<div class=\"parts\">\n";
        for (const tree_line &place : in_order(all, what.from)) {
            const entity &each = all.entities[place.at];
            if (is_chosen(each, what.only)) {
                out << "<div" << attributes(each, "part ") << ">";
                print_what_it_is(out, each);
                out << "</div>\n";
            }
        }
        out << "</div>\n";
    }
    out << "</main>\n<footer>Read " << date << " from " << escaped(all.agent) << ": "
        << escaped(all.system) << "</footer>\n<script>\n"
        << page_script << "</script>\n</body>\n</html>\n";
}

} // namespace kavplat_tree

#include "print.h"

#include <algorithm>
#include <array>
#include <ostream>

#include "tools/kavplat/agent/words.h"

namespace kavplat_tree
{
namespace
{

using namespace kavplat_agent;

constexpr size_t column_count = 5;

struct line {
    std::array<std::string, column_count> cells; /* name, class, description, detail, state */
    level name_level = level::unjudged;
    level state_level = level::unjudged;
};

/* Characters of a text that is printable already. */
size_t width(const std::string &text)
{
    return static_cast<size_t>(
        std::ranges::count_if(text, [](char c) { return (c & 0xC0) != 0x80; }));
}

const char *colour(level each)
{
    switch (each) {
    case level::critical:
        return "\033[1;31m";
    case level::warning:
        return "\033[33m";
    case level::unread:
        return "\033[35m";
    case level::good:
        return "\033[32m";
    default:
        return "";
    }
}

std::string coloured(const std::string &text, level each, const style &how)
{
    const char *begin = how.colours ? colour(each) : "";
    return *begin == '\0' || text.empty() ? text : begin + text + "\033[0m";
}

std::string joined(std::initializer_list<std::string> words, const char *between)
{
    std::string all;
    for (const std::string &each : words) {
        if (!each.empty()) {
            all += (all.empty() ? "" : between) + each;
        }
    }
    return all;
}

std::string detail(const entity &each, const style &how)
{
    if (each.sensor) {
        return joined({reading_words(*each.sensor, how.ascii), limits_words(*each.sensor)}, "  ");
    }
    return joined({printable(each.model, how.ascii),
                   each.serial.empty() ? "" : "serial " + printable(each.serial, how.ascii),
                   each.is_fru.value_or(false) ? "FRU" : ""},
                  "  ");
}

std::string state(const entity &each, const style &how)
{
    const std::string words = state_words(each);
    if (each.own < level::unread) {
        return joined({level_name(each.own), words}, ", ");
    }
    const std::string name = level_name(each.own);
    const std::string reason = printable(each.reason, how.ascii);
    /* Nothing is said twice: "warning: disabled" tells the state as well. */
    return joined({reason.empty() || reason == name ? name : name + ": " + reason,
                   reason.ends_with(words) ? "" : words},
                  "; ");
}

/* What a name adds to that of the container, as far as they are paths. */
std::string short_name(const box &all, const entity &each)
{
    const std::string name = shown_name(each);
    if (each.parent) {
        const std::string above = shown_name(all.entities[*each.parent]) + "/";
        if (name.size() > above.size() && name.starts_with(above)) {
            return name.substr(above.size());
        }
    }
    return name;
}

/* The lines that lead from a container to what is in it. */
class branches
{
  public:
    explicit branches(const style &how) : how_(how) {}

    std::string before(size_t depth, bool is_last)
    {
        constexpr size_t deepest = 24; /* deeper ones stand below each other */
        last_.resize(depth + 1);
        last_[depth] = is_last;
        if (depth == 0) {
            return "";
        }
        std::string text;
        for (size_t i = 1; i < std::min(depth, deepest); ++i) {
            text += last_[i] ? "   " : how_.ascii ? "|  " : "│  ";
        }
        return text + (is_last ? how_.ascii ? "`- " : "└─ " : how_.ascii ? "|- " : "├─ ");
    }

  private:
    style how_;
    std::vector<bool> last_;
};

std::vector<line> lines_of(const box &all, const selection &what, const style &how)
{
    std::vector<line> lines;
    branches lead(how);
    for (const tree_line &place : in_order(all, what.from)) {
        const entity &each = all.entities[place.at];
        if (!is_chosen(each, what.only)) {
            continue;
        }
        std::string name;
        if (what.only == choice::all) {
            const bool is_last =
                place.depth > 0 && all.entities[*each.parent].children.back() == place.at;
            name =
                lead.before(place.depth, is_last) +
                printable(place.depth == 0 ? shown_name(each) : short_name(all, each), how.ascii);
        } else {
            name = printable(shown_name(each), how.ascii);
        }
        lines.push_back({{name, class_name(each.class_code), printable(each.description, how.ascii),
                          detail(each, how), state(each, how)},
                         each.worst >= level::warning ? each.worst : level::unjudged,
                         each.own});
    }
    return lines;
}

std::string counted(size_t number, const char *one, const char *many)
{
    return std::to_string(number) + " " + (number == 1 ? one : many);
}

} // namespace

bool is_chosen(const entity &each, choice only)
{
    switch (only) {
    case choice::alarms:
        return each.own >= level::unread;
    case choice::sensors:
        return each.sensor.has_value();
    case choice::frus:
        return each.is_fru.value_or(false);
    default:
        return true;
    }
}

std::string summary(const box &all, const std::vector<size_t> &from)
{
    size_t entities = 0;
    size_t sensors = 0;
    std::array<size_t, 5> levels{};
    for (const tree_line &place : in_order(all, from)) {
        const entity &each = all.entities[place.at];
        entities++;
        sensors += each.sensor ? 1U : 0U;
        levels[static_cast<size_t>(each.own)] += each.inherited ? 0U : 1U;
    }
    const auto count = [&levels](level each) { return levels[static_cast<size_t>(each)]; };
    const std::string found = joined(
        {count(level::critical) == 0 ? "" : std::to_string(count(level::critical)) + " critical",
         count(level::warning) == 0 ? "" : counted(count(level::warning), "warning", "warnings"),
         count(level::unread) == 0 ? "" : std::to_string(count(level::unread)) + " unreadable"},
        ", ");
    return counted(entities, "entity", "entities") + ", " + counted(sensors, "sensor", "sensors") +
           ": " +
           (!found.empty()                      ? found
            : all.has_sensors || all.has_states ? "nothing is wrong"
                                                : "the agent tells of no states and no sensors");
}

void print_text(std::ostream &out, const box &all, const selection &what, const style &how)
{
    const std::vector<line> lines = lines_of(all, what, how);
    std::array<size_t, column_count> widths{};
    for (const line &each : lines) {
        for (size_t i = 0; i < column_count; ++i) {
            constexpr size_t widest = 44; /* longer ones push the rest of their line only */
            widths[i] = std::max(widths[i], std::min(width(each.cells[i]), widest));
        }
    }
    for (const line &each : lines) {
        size_t end = column_count;
        while (end > 0 && each.cells[end - 1].empty()) {
            --end;
        }
        for (size_t i = 0; i < end; ++i) {
            const size_t used = width(each.cells[i]);
            out << coloured(each.cells[i],
                            i == 0                  ? each.name_level
                            : i == column_count - 1 ? each.state_level
                                                    : level::unjudged,
                            how);
            if (i + 1 < end) {
                out << std::string(std::max(widths[i], used) - used + 2, ' ');
            }
        }
        out << '\n';
    }
    if (lines.empty()) {
        out << "nothing of that kind\n";
    }
    out << '\n' << summary(all, what.from) << '\n';
}

} // namespace kavplat_tree

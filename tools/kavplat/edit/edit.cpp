#include "edit.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>

#include "described/format/codes.h"

namespace kavplat_edit
{
namespace
{

using nlohmann::json;

bool is_below(const std::string &name, const std::string &above)
{
    return name.size() > above.size() && name.starts_with(above) && name[above.size()] == '/';
}

std::string name_of(std::string_view text, const span &component)
{
    const span *name = find_member(component, "name");
    return name == nullptr ? "" : json::parse(at(text, *name)).get<std::string>();
}

std::string quoted(const std::string &text)
{
    return json(text).dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string others(size_t count)
{
    return count == 0 ? "" : " with " + std::to_string(count) + " below it";
}

/* The blanks between a line's begin and a place, when there is nothing else. */
std::string_view indentation(std::string_view text, size_t place)
{
    const std::string_view space = space_before(text, place);
    const size_t newline = space.rfind('\n');
    return newline == std::string_view::npos ? std::string_view() : space.substr(newline + 1);
}

/* A component's text where lines begin otherwise. */
std::string indented(std::string_view text, std::string_view from, std::string_view to)
{
    std::string result;
    size_t begin = 0;
    while (begin < text.size()) {
        const size_t newline = text.find('\n', begin);
        const size_t end = newline == std::string_view::npos ? text.size() : newline + 1;
        std::string_view line = text.substr(begin, end - begin);
        if (begin > 0 && line.starts_with(from)) {
            line.remove_prefix(from.size());
            result += to;
        }
        result += line;
        begin = end;
    }
    return result;
}

/* Changes of one text, put in place from its end to its begin. */
struct change {
    size_t begin;
    size_t end;
    std::string text;
};

std::string changed(std::string text, std::vector<change> changes)
{
    std::ranges::sort(changes, std::ranges::greater(), &change::begin);
    for (const change &each : changes) {
        text.replace(each.begin, each.end - each.begin, each.text);
    }
    return text;
}

/* Files that a component binds by relative paths are looked up from its description's
 * directory: in another one they are named as what they are. */
void make_absolute(std::string_view text, const span &where, const std::string &directory,
                   std::vector<change> &changes)
{
    for (const member &each : where.members) {
        if (each.key == "file") {
            const std::string path = json::parse(at(text, each.value)).get<std::string>();
            if (!path.starts_with('/')) {
                changes.push_back({each.value.begin, each.value.end, quoted(directory + path)});
            }
        } else {
            make_absolute(text, each.value, directory, changes);
        }
    }
}

/* The text of a component under another name, and perhaps with another serial number. */
std::string copy_of(const sheet &from, size_t component, const plugged &what,
                    const std::string &directory, const std::string &serial)
{
    const span &whole = from.components()[component];
    std::vector<change> changes;
    const auto rename = [&](const span *name) {
        if (name == nullptr) {
            return;
        }
        const std::string old = json::parse(at(from.text(), *name)).get<std::string>();
        if (old == what.source || is_below(old, what.source)) {
            changes.push_back(
                {name->begin, name->end, quoted(what.name + old.substr(what.source.size()))});
        }
    };
    rename(find_member(whole, "name"));
    if (const span *sensor = find_member(whole, "sensor")) {
        rename(find_member(*sensor, "record_name"));
    }
    if (directory != from.directory()) {
        make_absolute(from.text(), whole, from.directory(), changes);
    }
    if (const span *fru = find_member(whole, "fru"); fru != nullptr && !serial.empty()) {
        if (const span *old = find_member(*fru, "serial")) {
            changes.push_back({old->begin, old->end, quoted(serial)});
        }
    }
    for (change &each : changes) {
        each.begin -= whole.begin;
        each.end -= whole.begin;
    }
    return changed(std::string(at(from.text(), whole)), std::move(changes));
}

bool has_serial(const sheet &in, size_t component)
{
    const span *fru = find_member(in.components()[component], "fru");
    return fru != nullptr && find_member(*fru, "serial") != nullptr;
}

/* What stands last among its siblings in order, so that a new one comes behind it. */
size_t anchor(const sheet &in, const sheet &from, const plugged &what)
{
    const std::vector<size_t> like = in.family(what.source);
    if (!like.empty()) {
        return like.back();
    }
    /* Behind whatever it stood behind, as far as that is here. */
    const std::vector<size_t> there = from.family(what.source);
    for (size_t i = there.front(); i > 0; --i) {
        for (size_t k = 0; k < in.count(); ++k) {
            if (in.name(k) == from.name(i - 1)) {
                return k;
            }
        }
    }
    return in.count() - 1;
}

/* The path of keys that is meant by a short one. */
std::vector<std::string> path_of(const std::string &key, const span &object)
{
    struct shorthand {
        std::string_view key;
        std::string_view above;
    };
    constexpr shorthand known[] = {
        {"reading", "sensor"},     {"raw_reading", "sensor"}, {"valid", "sensor"},
        {"record_name", "sensor"}, {"units", "sensor"},       {"ok_semantics", "sensor"},
        {"thresholds", "sensor"},  {"serial", "fru"},         {"model", "fru"},
        {"manufacturer", "fru"},   {"alias", "fru"},          {"software_revision", "fru"},
    };
    std::vector<std::string> path;
    size_t begin = 0;
    for (size_t dot = key.find('.'); dot != std::string::npos; dot = key.find('.', begin)) {
        path.push_back(key.substr(begin, dot - begin));
        begin = dot + 1;
    }
    path.push_back(key.substr(begin));
    const bool is_component = find_member(object, "type") != nullptr;
    if (!is_component) {
        return path;
    }
    if (path.front() == "led") {
        return {"indicator", "state"};
    }
    if (path.front() == "state") {
        return {find_member(object, "sensor") != nullptr ? "sensor" : "indicator", "state"};
    }
    if (path.front().starts_with("upper_") || path.front().starts_with("lower_")) {
        path.insert(path.begin(), {"sensor", "thresholds"});
    }
    for (const shorthand &each : known) {
        if (path.front() == each.key) {
            path.insert(path.begin(), std::string(each.above));
            break;
        }
    }
    return path;
}

/* A value as JSON: numbers, truths and what is JSON anyway stay as they were typed, the
 * rest is a text. */
std::string json_text(const std::vector<std::string> &path, const std::string &value, bool is_text)
{
    const bool wants_text = is_text || path.front() == "fru" || path.back() == "record_name";
    return wants_text || !json::accept(value) ? quoted(value) : value;
}

/* The reading that is meant, whatever it is called. */
std::optional<double> reading_of(const std::string &text)
{
    const json value = json::parse(text, nullptr, false);
    if (value.is_number()) {
        return value.get<double>();
    }
    if (value.is_string()) {
        for (const described_platform::named_code &each : described_platform::discrete_codes) {
            if (each.name == value.get<std::string>()) {
                return each.value;
            }
        }
    }
    return {};
}

/* Puts a member behind the last one, in the manner of that. */
change added_member(std::string_view text, const span &object, const std::string &key,
                    const std::string &value)
{
    const std::string member_text = quoted(key) + ": " + value;
    if (object.members.empty()) {
        return {object.begin + 1, object.begin + 1, " " + member_text + " "};
    }
    const member &last = object.members.back();
    const std::string_view space = space_before(text, last.begin);
    const bool own_line = space.find('\n') != std::string_view::npos;
    return {last.value.end, last.value.end,
            "," + (own_line ? std::string(space) : " ") + member_text};
}

/* Puts one value in place; told says what was there. */
std::string assign(sheet &in, const span &object, const std::string &name,
                   const std::vector<std::string> &path, const std::string &value, bool unbind,
                   std::string &told)
{
    std::string shown;
    for (const std::string &each : path) {
        shown += (shown.empty() ? "" : ".") + each;
    }
    const span *here = &object;
    size_t depth = 0;
    while (depth < path.size()) {
        const span *next = here->is_object ? find_member(*here, path[depth]) : nullptr;
        if (next == nullptr) {
            break;
        }
        here = next;
        ++depth;
    }
    change one;
    if (depth == path.size()) {
        if (const span *file = find_member(*here, "file"); file != nullptr && !unbind) {
            return name + ": " + shown + " is bound to the file " +
                   std::string(at(in.text(), *file)) +
                   ": write the value there, or give --unbind to put it here in its place";
        }
        told +=
            name + ": " + shown + ": " + std::string(at(in.text(), *here)) + " -> " + value + "\n";
        one = {here->begin, here->end, value};
    } else if (!here->is_object) {
        return name + ": " + shown + ": there is nothing below a value";
    } else {
        std::string nested = value;
        for (size_t i = path.size(); i > depth + 1; --i) {
            nested = "{ " + quoted(path[i - 1]) + ": " + nested + " }";
        }
        told += name + ": " + shown + ": " + value + ", which was not given before\n";
        one = added_member(in.text(), *here, path[depth], nested);
    }
    in.assign(changed(in.text(), {one}));
    return "";
}

/* The object that a name means; null: there is none. */
const span *object_of(const sheet &in, const std::string &name)
{
    if (name == "product" || name == "chassis") {
        return find_member(in.root(), name);
    }
    for (size_t i = 0; i < in.count(); ++i) {
        if (in.name(i) == name) {
            return &in.components()[i];
        }
    }
    return nullptr;
}

std::string explain_absent(const sheet &in, const std::string &name)
{
    std::string text = "there is no component " + name;
    std::string near;
    for (size_t i = 0; i < in.count() && near.size() < 120; ++i) {
        if (in.name(i).ends_with("/" + name)) {
            near += (near.empty() ? "" : " or ") + in.name(i);
        }
    }
    return near.empty() ? text : text + "; " + near + " may be meant";
}

} // namespace

sheet::sheet(std::string text, std::string directory) : directory_(std::move(directory))
{
    assign(std::move(text));
}

void sheet::assign(std::string text)
{
    text_ = std::move(text);
    root_ = spans_of(text_);
    components_ = find_member(root_, "components");
    names_.clear();
    for (const span &each : components_->items) {
        names_.push_back(name_of(text_, each));
    }
}

std::vector<size_t> sheet::family(const std::string &name) const
{
    std::vector<size_t> result;
    for (size_t i = 0; i < names_.size(); ++i) {
        if (names_[i] == name || is_below(names_[i], name)) {
            result.push_back(i);
        }
    }
    return std::ranges::find(names_, name) == names_.end() ? std::vector<size_t>() : result;
}

std::string unplug(sheet &in, const std::vector<std::string> &names, std::string &told)
{
    std::vector<bool> goes(in.count(), false);
    for (const std::string &name : names) {
        const std::vector<size_t> family = in.family(name);
        if (family.empty()) {
            return explain_absent(in, name);
        }
        for (const size_t each : family) {
            goes[each] = true;
        }
        told += name + " is gone" + others(family.size() - 1) + "\n";
    }
    if (std::ranges::all_of(goes, [](bool each) { return each; })) {
        return names.front() + " is all that there is: a description needs a root";
    }
    const std::vector<span> &all = in.components();
    std::vector<change> changes;
    size_t last_kept = SIZE_MAX;
    for (size_t i = 0; i < all.size(); ++i) {
        if (!goes[i]) {
            last_kept = i;
            continue;
        }
        size_t end = i + 1;
        while (end < all.size() && goes[end]) {
            ++end;
        }
        /* With the comma behind it; of the last ones, with that before them. */
        if (end < all.size()) {
            changes.push_back({all[i].begin, all[end].begin, ""});
        } else {
            changes.push_back({all[last_kept].end, all[end - 1].end, ""});
        }
        i = end - 1;
    }
    in.assign(changed(in.text(), std::move(changes)));
    return "";
}

std::string plug(sheet &in, const sheet &from, const plugged &what, std::string &told)
{
    const std::vector<size_t> family = from.family(what.source);
    if (family.empty()) {
        return explain_absent(from, what.source);
    }
    if (!in.family(what.name).empty()) {
        return what.name + " is there already";
    }
    if (is_below(what.name, what.source)) {
        return what.name + " cannot be a copy of what it is to be in";
    }
    const auto with_serial = static_cast<size_t>(
        std::ranges::count_if(family, [&](size_t each) { return has_serial(from, each); }));
    if (!what.serial.empty() && with_serial != 1) {
        return std::to_string(with_serial) + " components of " + what.source +
               " have a serial number: --serial is for one; see kavplat set";
    }
    const size_t behind = anchor(in, from, what);
    const span &place = in.components()[behind];
    std::string_view space = space_before(in.text(), place.begin);
    const std::string_view to = indentation(in.text(), place.begin);
    /* A blank line before the anchor parts groups: one before the new ones will do. */
    std::string text;
    for (size_t i = 0; i < family.size(); ++i) {
        const std::string_view before = i == 0 || space.find('\n') == std::string_view::npos
                                            ? space
                                            : space.substr(space.rfind('\n'));
        const std::string_view own = indentation(from.text(), from.components()[family[i]].begin);
        text += "," + std::string(before) +
                indented(copy_of(from, family[i], what, in.directory(), what.serial), own, to);
    }
    told += what.name + " is there" + others(family.size() - 1) +
            (what.serial.empty() && with_serial > 0 && what.name != what.source
                 ? "; serial numbers are those of " + what.source
                 : "") +
            "\n";
    in.assign(changed(in.text(), {{place.end, place.end, text}}));
    return "";
}

std::string set(sheet &in, const std::string &name, const std::vector<assignment> &values,
                bool unbind, std::string &told)
{
    const std::string before = in.text();
    const auto object = [&] { return object_of(in, name); };
    if (object() == nullptr) {
        return explain_absent(in, name);
    }
    const bool is_text = name == "product" || name == "chassis";
    for (const assignment &each : values) {
        const std::vector<std::string> path = path_of(each.key, *object());
        std::string failure;
        if (path.size() == 1 && path.front() == "name") {
            failure = name + ": a name is what a component is; unplug it and plug it as another";
        }
        const std::string value = json_text(path, each.value, is_text);
        /* A device that reads whole numbers: its raw reading goes with the reading. */
        std::string raw;
        if (failure.empty() && path == std::vector<std::string>{"sensor", "reading"}) {
            const span *sensor = find_member(*object(), "sensor");
            const span *old_raw = sensor == nullptr ? nullptr : find_member(*sensor, "raw_reading");
            const span *old = sensor == nullptr ? nullptr : find_member(*sensor, "reading");
            if (old_raw != nullptr && old != nullptr) {
                const auto was = reading_of(std::string(at(in.text(), *old)));
                const auto raw_was = reading_of(std::string(at(in.text(), *old_raw)));
                const auto is = reading_of(value);
                if (was && was == raw_was && is && *is >= 0 && *is <= 255 &&
                    *is == std::floor(*is)) {
                    raw = std::to_string(static_cast<int>(*is));
                }
            }
        }
        if (failure.empty()) {
            failure = assign(in, *object(), name, path, value, unbind, told);
        }
        if (failure.empty() && !raw.empty()) {
            failure = assign(in, *object(), name, {"sensor", "raw_reading"}, raw, unbind, told);
        }
        if (!failure.empty()) {
            in.assign(before);
            told.clear();
            return failure;
        }
    }
    return "";
}

} // namespace kavplat_edit

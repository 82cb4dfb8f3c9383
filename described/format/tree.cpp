#include "described/format/tree.h"

#include <set>

namespace described_platform
{
namespace
{

/* Duplicates, components without a container, components outside the root. */
void check_tree(reading_state &state, const std::vector<component> &components, const place &where)
{
    std::unordered_map<std::string_view, size_t> by_name;
    for (size_t i = 0; i < components.size(); ++i) {
        if (components[i].name.empty()) {
            continue;
        }
        const auto [first, added] = by_name.emplace(components[i].name, i);
        if (!added) {
            const place here{&where, {}, i};
            complain(state, {&here, "name", 0},
                     "expected each name once, \"" + components[i].name + "\" is that of " +
                         to_pointer(&where) + "/" + std::to_string(first->second));
        }
    }
    for (size_t i = 0; i < components.size(); ++i) {
        const std::string &name = components[i].name;
        if (name.empty()) {
            continue;
        }
        const place here{&where, {}, i};
        const place name_place{&here, "name", 0};
        const std::string parent(parent_name(name));
        if (i == 0) {
            if (!parent.empty()) {
                complain(state, name_place,
                         "expected the root first, a name of one part, found \"" + name + "\"");
            }
        } else if (parent.empty()) {
            if (name != components[0].name) {
                complain(state, name_place,
                         "expected a component below the root \"" + components[0].name +
                             "\", found \"" + name + "\"");
            }
        } else if (!by_name.contains(parent)) {
            complain(state, name_place,
                     "expected a component \"" + parent + "\" that holds \"" + name + "\"");
        }
    }
}

/* A record's name is all that tells for which sensor ok semantics are asked. */
void check_record_names(reading_state &state, const std::vector<component> &components,
                        const place &where)
{
    std::unordered_map<std::string_view, size_t> known;
    for (size_t i = 0; i < components.size(); ++i) {
        if (!components[i].sensor) {
            continue;
        }
        const sensor &each = *components[i].sensor;
        const auto [first, added] = known.emplace(each.record_name, i);
        if (!added && components[first->second].sensor->ok_semantics != each.ok_semantics) {
            const place here{&where, {}, i};
            complain(state, {&here, "sensor", 0},
                     "expected the same ok_semantics as " + to_pointer(&where) + "/" +
                         std::to_string(first->second) + ", which has the same record name \"" +
                         each.record_name + "\"");
        }
    }
}

/* Depth-first with siblings in file order; the components form one tree. */
void put_in_order(std::vector<component> &&unordered, description &result)
{
    std::unordered_map<std::string_view, size_t> by_name;
    for (size_t i = 0; i < unordered.size(); ++i) {
        by_name.emplace(unordered[i].name, i);
    }
    constexpr size_t none = SIZE_MAX;
    std::vector<size_t> first_child(unordered.size(), none);
    std::vector<size_t> next_sibling(unordered.size(), none);
    for (size_t i = unordered.size(); i-- > 1;) { /* backwards: a child goes to the front */
        const size_t parent = by_name.at(parent_name(unordered[i].name));
        next_sibling[i] = first_child[parent];
        first_child[parent] = i;
    }
    struct level {
        size_t component; /* in the result */
        size_t next_child;
    };
    result.components.reserve(unordered.size());
    std::vector<level> open;
    const auto enter = [&](size_t index) {
        open.push_back({result.components.size(), first_child[index]});
        result.components.push_back(std::move(unordered[index]));
    };
    enter(0);
    while (!open.empty()) {
        const size_t child = open.back().next_child;
        if (child == none) {
            result.components[open.back().component].subtree_end = result.components.size();
            open.pop_back();
            continue;
        }
        open.back().next_child = next_sibling[child];
        enter(child);
    }
}

void index_components(description &result)
{
    std::set<std::string> files;
    const auto note_file = [&files](const auto &value) {
        if (value && !value->file.empty()) {
            files.insert(value->file);
        }
    };
    for (size_t i = 0; i < result.components.size(); ++i) {
        const component &each = result.components[i];
        result.by_name.emplace(each.name, i);
        note_file(each.power);
        note_file(each.ready_to_remove);
        note_file(each.enable);
        note_file(each.indicator);
        if (each.sensor) {
            result.by_record_name.emplace(each.sensor->record_name, i);
            note_file(&each.sensor->reading);
            note_file(each.sensor->raw_reading);
            note_file(each.sensor->valid);
            note_file(each.sensor->state);
        }
    }
    result.bound_files.assign(files.begin(), files.end());
}

} // namespace

bool make_tree(reading_state &state, std::vector<component> &&components, const place &where,
               description &result)
{
    check_tree(state, components, where);
    check_record_names(state, components, where);
    if (!state.errors.empty()) {
        return false;
    }
    put_in_order(std::move(components), result);
    index_components(result);
    return true;
}

} // namespace described_platform

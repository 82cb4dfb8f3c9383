#include "described/format/loader.h"

#include "described/format/components.h"
#include "described/format/json_text.h"
#include "described/format/tree.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <nlohmann/json.hpp>

namespace described_platform
{
namespace
{

using nlohmann::json;

/* The components are read while the document is parsed, so that it is never there as a
 * whole. What is wrong with them is told behind what is wrong before them. */
struct component_list {
    std::vector<component> components;
    reading_state state;
};

constexpr std::string_view list_key = "components";

void read_element(component_list &list, json &element, size_t index)
{
    if (index == 0) { /* of a list given twice the last one counts */
        list.components.clear();
        list.state.errors.clear();
    }
    const place root;
    const place here{&root, list_key, 0};
    component &read = list.components.emplace_back();
    read.position = index;
    read_component(list.state, element, {&here, {}, index}, read);
    json name;
    if (read.name.empty() && element.is_object() && element.contains("name")) {
        name = {{"name", std::move(element.at("name"))}}; /* for what is said of it */
    }
    element = std::move(name);
}

/* Null when anything is wrong. */
std::unique_ptr<description> read_description(reading_state &state, const json &document,
                                              component_list &read)
{
    constexpr const char *expected = "an array of at least one component";
    auto result = std::make_unique<description>();
    const place root;
    fields object(state, document, root);
    if (const json *schema = object.value("$schema"); schema != nullptr && !schema->is_string()) {
        complain(state, object.at("$schema"), "a text", *schema);
    }
    if (const json *product = object.value("product"); product != nullptr) {
        read_product(state, *product, object.at("product"), *result);
    }
    if (const json *chassis = object.value("chassis"); chassis != nullptr) {
        read_chassis(state, *chassis, object.at("chassis"), *result);
    }
    const json *list = object.value(list_key.data(), need::required, expected);
    object.end();
    if (list == nullptr) {
        return nullptr;
    }
    const place here = object.at(list_key.data());
    if (!list->is_array() || list->empty()) {
        complain(state, here, expected, *list);
        return nullptr;
    }
    std::ranges::move(read.state.errors, std::back_inserter(state.errors));
    return make_tree(state, std::move(read.components), here, *result) ? std::move(result)
                                                                       : nullptr;
}

/* Adds to each place in a component the name that it has there, good or bad. */
void name_components(const json &document, const std::vector<component> &components,
                     std::vector<load_error> &errors)
{
    constexpr std::string_view list = "/components/";
    constexpr size_t longest = 255;
    for (load_error &each : errors) {
        if (!each.pointer.starts_with(list)) {
            continue;
        }
        size_t index = 0;
        const char *digits = each.pointer.data() + list.size();
        const char *end = each.pointer.data() + each.pointer.size();
        if (std::from_chars(digits, end, index).ec != std::errc()) {
            continue;
        }
        const json::json_pointer place(std::string(list) + std::to_string(index) + "/name");
        if (index < components.size() && !components[index].name.empty()) {
            each.component = components[index].name;
        } else if (document.contains(place) && document.at(place).is_string()) {
            each.component = cut_text(document.at(place).get_ref<const std::string &>(), longest);
        }
    }
}

} // namespace

load_result load_description(const std::string &path)
{
    load_result result;
    std::string text;
    if (!read_document(path, text, result.signature, result.errors)) {
        return result;
    }
    return load_text(text, std::string(parent_name(path)) + '/', result.signature);
}

load_result load_text(const std::string &text, const std::string &directory,
                      const file_signature &signature)
{
    load_result result;
    result.signature = signature;
    reading_state state;
    state.directory = directory;
    component_list list{{}, state};
    json document;
    if (parse_document(text, document, state.errors, [&list](json &element, size_t index) {
            read_element(list, element, index);
        })) {
        std::unique_ptr<description> loaded = read_description(state, document, list);
        if (loaded != nullptr) {
            loaded->signature = signature;
        }
        result.loaded = std::move(loaded);
    }
    if (!state.errors.empty()) {
        find_lines(text, state.errors);
        name_components(document, list.components, state.errors);
    }
    result.errors = std::move(state.errors);
    return result;
}

} // namespace described_platform

#include "described/format/loader.h"

#include "described/format/components.h"
#include "described/format/json_text.h"
#include "described/format/tree.h"

#include <charconv>
#include <nlohmann/json.hpp>

namespace described_platform
{
namespace
{

using nlohmann::json;

/* Null when anything is wrong. */
std::unique_ptr<description> read_description(reading_state &state, const json &document)
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
    const json *list = object.value("components", need::required, expected);
    object.end();
    if (list == nullptr) {
        return nullptr;
    }
    const place here = object.at("components");
    if (!list->is_array() || list->empty()) {
        complain(state, here, expected, *list);
        return nullptr;
    }
    std::vector<component> components(list->size());
    for (size_t i = 0; i < list->size(); ++i) {
        components[i].position = i;
        read_component(state, (*list)[i], {&here, {}, i}, components[i]);
    }
    return make_tree(state, std::move(components), here, *result) ? std::move(result) : nullptr;
}

/* Adds to each place in a component the name that it has there, good or bad. */
void name_components(const json &document, std::vector<load_error> &errors)
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
        if (document.contains(place) && document.at(place).is_string()) {
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
    json document;
    if (parse_document(text, document, state.errors)) {
        std::unique_ptr<description> loaded = read_description(state, document);
        if (loaded != nullptr) {
            loaded->signature = signature;
        }
        result.loaded = std::move(loaded);
    }
    if (!state.errors.empty()) {
        find_lines(text, state.errors);
        name_components(document, state.errors);
    }
    result.errors = std::move(state.errors);
    return result;
}

} // namespace described_platform

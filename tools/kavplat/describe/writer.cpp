#include "tools/kavplat/describe/writer.h"

#include "described/format/document.h"
#include "tools/kavplat/describe/locations.h"

#include <algorithm>
#include <set>
#include <tuple>

namespace kavplat_describe
{
namespace
{

constexpr size_t longest_name = 255;
constexpr size_t longest_identity = 79;

std::string identity_of(std::string_view text)
{
    std::string clean = identity_text(text);
    return clean.size() <= longest_identity ? clean
                                            : described_platform::cut_text(clean, longest_identity);
}

void put(json &object, const char *key, std::string_view text)
{
    if (std::string clean = identity_of(text); !clean.empty()) {
        object[key] = std::move(clean);
    }
}

json to_json(const identity &it)
{
    json object = json::object();
    put(object, "model", it.model);
    put(object, "manufacturer", it.manufacturer);
    put(object, "serial", it.serial);
    put(object, "alias", it.alias);
    put(object, "software_revision", it.software_revision);
    return object;
}

json to_json(const machine::whole &it, bool has_manufacturer)
{
    json object = json::object();
    put(object, "model", it.model);
    if (has_manufacturer) {
        put(object, "manufacturer", it.manufacturer);
    }
    put(object, "serial", it.serial);
    put(object, "description", it.description);
    return object;
}

json to_json(const component &it)
{
    json object = {{"name", it.name}, {"type", it.type}};
    json fru = to_json(it.fru);
    std::vector<std::string> capabilities = it.capabilities;
    const bool is_whole = it.parent == nullptr || it.type == "midplane";
    if ((!fru.empty() || is_whole) &&
        std::ranges::find(capabilities, "fru-info") == capabilities.end()) {
        capabilities.emplace_back("fru-info");
    }
    if (!capabilities.empty()) {
        object["capabilities"] = std::move(capabilities);
    }
    if (!fru.empty() || is_whole) {
        object["fru"] = std::move(fru);
    }
    for (const auto &[key, value] : it.keys.items()) {
        object[key] = value;
    }
    return object;
}

auto rank(const component &it)
{
    return std::tie(it.fru.serial, it.fru.model, it.type);
}

bool is_below(std::string_view name, std::string_view above)
{
    return name.size() > above.size() && name.starts_with(above) && name[above.size()] == '/';
}

/* Depth first, what one component holds in the order of comes_before(). */
bool stands_before(std::string_view one, std::string_view other)
{
    const auto ends = std::ranges::mismatch(one, other);
    if (ends.in1 == one.end() || ends.in2 == other.end()) {
        if (is_below(one, other) || is_below(other, one)) {
            return one.size() < other.size();
        }
    }
    const auto begin = static_cast<size_t>(ends.in1 - one.begin());
    const size_t part = begin == 0 ? 0 : std::min(one.rfind('/', begin - 1), begin) + 1;
    const auto of = [part](std::string_view name) {
        return name.substr(std::min(part, name.size()),
                           name.find('/', part) - std::min(part, name.size()));
    };
    return comes_before(of(one), of(other));
}

bool is_gone(const component *it)
{
    while (it != nullptr && !it->gone) {
        it = it->parent;
    }
    return it != nullptr;
}

json *find_named(json &components, const json &name)
{
    for (json &each : components) {
        if (each.is_object() && each.value("name", json()) == name) {
            return &each;
        }
    }
    return nullptr;
}

void sort(json &components)
{
    auto &all = components.get_ref<json::array_t &>();
    std::ranges::stable_sort(all, [](const json &one, const json &other) {
        return stands_before(one["name"].get_ref<const std::string &>(),
                             other["name"].get_ref<const std::string &>());
    });
}

bool has_name(const json &each)
{
    return each.is_object() && each.contains("name") && each["name"].is_string();
}

} // namespace

void give_names(machine &of)
{
    std::map<const component *, std::vector<component *>> held;
    for (component &each : of.all) {
        if (each.parent != nullptr) {
            held[each.parent].push_back(&each);
        }
    }
    of.root().name = '/' + of.root().label;
    for (component &parent : of.all) { // which stand before what they hold
        const auto found = held.find(&parent);
        if (found == held.end()) {
            continue;
        }
        std::vector<component *> &all = found->second;
        std::ranges::stable_sort(all, [](const component *one, const component *other) {
            if (one->label != other->label) {
                return one->label < other->label;
            }
            if (one->where != other->where) {
                return place_before(one->where, other->where);
            }
            return rank(*one) < rank(*other);
        });
        std::set<std::string> taken;
        for (const component *each : all) {
            taken.insert(each->label);
        }
        const component *before = nullptr;
        for (component *each : all) {
            std::string label = each->label;
            if (before != nullptr && before->label == label) {
                const std::string longer =
                    label + (each->where.empty() ? "" : '_' + place_text(each->where));
                label = longer;
                for (int i = 2; !taken.insert(label).second; i++) {
                    label = longer + '_' + std::to_string(i);
                }
            }
            each->name = parent.name + '/' + label;
            before = each;
        }
    }
}

json to_json(machine &of)
{
    give_names(of);
    json result = json::object();
    if (json product = to_json(of.product, false); !product.empty()) {
        result["product"] = std::move(product);
    }
    if (json chassis = to_json(of.chassis, true); !chassis.empty()) {
        result["chassis"] = std::move(chassis);
    }
    json &components = result["components"] = json::array();
    std::set<const component *> left_out;
    for (const component &each : of.all) {
        if (is_gone(&each)) {
            continue;
        }
        if (left_out.contains(each.parent) || each.name.size() > longest_name) {
            left_out.insert(&each);
            of.complain(each.name.substr(0, longest_name) + "...: the name is too long: left out");
        } else {
            components.push_back(to_json(each));
        }
    }
    sort(components);
    return result;
}

void leave_out_serials(json &description)
{
    for (const char *part : {"product", "chassis"}) {
        if (description.contains(part)) {
            description[part].erase("serial");
        }
    }
    for (json &each : description["components"]) {
        if (each.contains("fru")) {
            each["fru"].erase("serial");
        }
    }
}

bool merge(json &description, const json &over, std::string &why)
{
    if (!over.is_object()) {
        why = "expected an object, with \"components\" as in a description";
        return false;
    }
    for (const auto &[key, value] : over.items()) {
        if (key == "product" || key == "chassis") {
            description[key].merge_patch(value);
            if (description[key].empty()) {
                description.erase(key);
            }
        } else if (key != "components" && key != "$schema") {
            why = "/" + described_platform::escaped(key) + ": a description has no such key";
            return false;
        }
    }
    if (!over.contains("components")) {
        return true;
    }
    const json &extra = over["components"];
    if (!extra.is_array() || !std::ranges::all_of(extra, has_name)) {
        why = "/components: expected an array of objects with a \"name\" each";
        return false;
    }
    json &components = description["components"];
    for (const json &each : extra) {
        json *known = find_named(components, each["name"]);
        if (each.contains("type") && each["type"].is_null()) {
            if (known == nullptr) {
                continue; // gone already, which is what was asked for
            }
            const std::string name = each["name"];
            std::erase_if(components.get_ref<json::array_t &>(), [&name](const json &one) {
                const auto &its = one["name"].get_ref<const std::string &>();
                return its == name || is_below(its, name);
            });
        } else if (known != nullptr) {
            known->merge_patch(each);
        } else {
            components.push_back(json::object());
            components.back().merge_patch(each);
        }
    }
    sort(components);
    return true;
}

std::string to_text(const json &description)
{
    return description.dump(2, ' ', false, json::error_handler_t::replace) + '\n';
}

} // namespace kavplat_describe

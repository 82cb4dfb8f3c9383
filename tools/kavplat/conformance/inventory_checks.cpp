#include "checks.h"

#include <algorithm>
#include <dlfcn.h>
#include <malloc.h>

namespace
{

// A list as it was handed out, with copies of its names.
struct kept_list {
    uint32_t count = 0;
    capi_inventory_record *items = nullptr;
    std::vector<std::string> names;
};

kept_list keep(session &s, const std::string &name)
{
    kept_list list;
    const int status =
        s.calls.capi_get_inventory(name.c_str(), CAPI_INVENTORY_SUBTREE, &list.count, &list.items);
    if (status != 0) {
        throw not_possible{text_of("capi_get_inventory(%s) gives %d", name.c_str(), status)};
    }
    for (const capi_inventory_record &record : std::span(list.items, list.count)) {
        list.names.emplace_back(record.nac_name != nullptr ? record.nac_name : "");
    }
    return list;
}

// Bytes that are allocated now, of a sanitizer's allocator when one is loaded.
size_t allocated_bytes()
{
    static const auto of_sanitizer = reinterpret_cast<size_t (*)()>(
        dlsym(RTLD_DEFAULT, "__sanitizer_get_current_allocated_bytes"));
    if (of_sanitizer != nullptr) {
        return of_sanitizer();
    }
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

void list_and_release(const session &s, const std::string &root, size_t times)
{
    for (size_t i = 0; i < times; i++) {
        uint32_t count = 0;
        capi_inventory_record *items = nullptr;
        if (s.calls.capi_get_inventory(root.c_str(), CAPI_INVENTORY_SUBTREE, &count, &items) == 0) {
            s.calls.capi_free_inventory(items, count);
        }
    }
}

// What a list says of the named components at and below one of them.
std::map<std::string, std::pair<uint32_t, std::array<uint8_t, 10>>>
facts_below(const std::vector<listed_component> &list, const std::string &top)
{
    std::map<std::string, std::pair<uint32_t, std::array<uint8_t, 10>>> facts;
    for (const listed_component &c : list) {
        if (is_at_or_below(c.name, top)) {
            facts[c.name] = {c.type, c.capabilities};
        }
    }
    return facts;
}

// Empty when the component's own list says the same as the list of all.
std::string disagreement(const session &s, const std::vector<listed_component> &whole,
                         const std::string &name)
{
    const listing own = list_components(s, name, CAPI_INVENTORY_SUBTREE);
    if (own.status != 0) {
        return text_of("capi_get_inventory(%s) gives %d, but the root's list has it", name.c_str(),
                       own.status);
    }
    if (own.components.empty() || own.components[0].name != name) {
        return text_of("the list of %s does not begin with it", name.c_str());
    }
    const auto expected = facts_below(whole, name);
    const auto seen = facts_below(own.components, name);
    for (const listed_component &c : own.components) {
        if (!c.name.empty() && !seen.contains(c.name)) {
            return text_of("the list of %s has %s, which is not below it", name.c_str(),
                           c.name.c_str());
        }
    }
    for (const auto &[below, facts] : expected) {
        const auto found = seen.find(below);
        if (found == seen.end()) {
            return text_of("the list of %s lacks %s, which the root's has", name.c_str(),
                           below.c_str());
        }
        if (found->second != facts) {
            return text_of("%s has type %u or capabilities in the list of %s that differ from "
                           "the root's list (type %u)",
                           below.c_str(), found->second.first, name.c_str(), facts.first);
        }
    }
    for (const auto &[below, facts] : seen) {
        if (!expected.contains(below)) {
            return text_of("the list of %s has %s, which the root's lacks", name.c_str(),
                           below.c_str());
        }
    }
    return "";
}

std::set<uint32_t> types_of(session &s)
{
    std::set<uint32_t> types;
    for (const listed_component &c : components_of(s)) {
        types.insert(c.type);
    }
    return types;
}

void check_symbols(session &s, findings &f)
{
    for (const std::string &name : s.missing) {
        f.broken.push_back(name + " is not exported");
    }
}

void check_root_query(session &s, findings &f)
{
    try {
        root_of(s); // waits for the first inventory
    } catch (const not_possible &) {
        // What is wrong with it is said below.
    }
    const listing roots = list_components(s, "/", CAPI_INVENTORY_ROOT);
    if (roots.status != 0) {
        f.broken.push_back(text_of("capi_get_inventory(/) gives %d", roots.status));
        return;
    }
    if (!roots.fault.empty() || roots.components.size() != 2) {
        f.broken.push_back(roots.fault.empty()
                               ? text_of("%zu records of \"/\"", roots.components.size())
                               : roots.fault);
        return;
    }
    const std::string &first = roots.components[0].name;
    const std::string &root = roots.components[1].name;
    if (first != "/") {
        f.broken.push_back(text_of("the first record is \"%s\"", first.c_str()));
    }
    if (root.size() < 2 || root[0] != '/' || root.find('/', 1) != std::string::npos) {
        f.broken.push_back(
            text_of("the second record is \"%s\", no name right below \"/\"", root.c_str()));
    }
    for (const listed_component &c : roots.components) {
        if (!c.length_agrees) {
            f.broken.push_back(
                text_of("the length of \"%s\" is given as %u", c.name.c_str(), c.told_length));
        }
    }
}

void check_inventory_names(session &s, findings &f)
{
    std::set<std::string> seen;
    for (const listed_component &c : components_of(s)) {
        if (!c.length_agrees) {
            f.broken.push_back(text_of("%s: nac_name_length is %u, but the text has %zu",
                                       c.has_pointer ? c.name.c_str() : "a null name",
                                       c.told_length, c.name.size()));
        }
        if (!c.name.empty() && !seen.insert(c.name).second) {
            f.broken.push_back(text_of("%s is listed twice", c.name.c_str()));
        }
    }
}

void check_inventory_order(session &s, findings &f)
{
    const std::vector<listed_component> &all = components_of(s);
    if (all.empty() || all[0].name != s.root) {
        f.broken.push_back(text_of("the first of the list of %s is \"%s\"", s.root.c_str(),
                                   all.empty() ? "" : all[0].name.c_str()));
    }
    std::set<std::string> names;
    for (const listed_component &c : all) {
        names.insert(c.name);
    }
    std::set<std::string> before = {s.root};
    for (const listed_component &c : all) {
        const std::string parent = parent_of(c.name);
        if (c.name != s.root && is_at_or_below(c.name, s.root) && !before.contains(parent)) {
            f.broken.push_back(text_of(names.contains(parent)
                                           ? "%s stands before %s, which holds it"
                                           : "%s is listed, but %s, which holds it, is not",
                                       c.name.c_str(), parent.c_str()));
        }
        before.insert(c.name);
    }
}

void check_inventory_below_root(session &s, findings &f)
{
    for (const listed_component &c : components_of(s)) {
        if (!c.name.empty() && !is_at_or_below(c.name, s.root)) {
            f.broken.push_back(
                text_of("%s is not below the root %s", c.name.c_str(), s.root.c_str()));
        }
    }
}

void check_inventory_subtrees(session &s, findings &f)
{
    constexpr size_t most = 200;
    components_of(s);
    std::vector<std::string> names;
    for (const listed_component &c : s.whole->components) {
        if (c.name != s.root && is_at_or_below(c.name, s.root)) {
            names.push_back(c.name);
        }
    }
    for (const std::string &name : sample(names, most)) {
        std::string seen = disagreement(s, s.whole->components, name);
        if (!seen.empty()) {
            // Unless the platform changed in between: then the list of now agrees.
            const listing now = list_components(s, s.root, CAPI_INVENTORY_SUBTREE);
            const bool is_still_there = facts_below(now.components, name).contains(name);
            seen = is_still_there ? disagreement(s, now.components, name) : "";
        }
        if (!seen.empty()) {
            f.broken.push_back(seen);
        }
    }
}

void check_list_lifetime(session &s, findings &f)
{
    const std::string &root = root_of(s);
    const kept_list held = keep(s, root);
    // Others come and go meanwhile, and one more takes the place of what they left.
    kept_list one = keep(s, root);
    kept_list two = keep(s, root);
    s.calls.capi_free_inventory(one.items, one.count);
    s.calls.capi_free_inventory(two.items, two.count);
    kept_list three = keep(s, held.names.empty() ? root : held.names.back());
    for (uint32_t i = 0; i < held.count; i++) {
        const char *name = held.items[i].nac_name;
        if (held.names[i] != (name != nullptr ? name : "")) {
            f.broken.push_back(text_of("%s reads \"%.80s\" after another list was released",
                                       held.names[i].c_str(), name != nullptr ? name : "(null)"));
        }
    }
    s.calls.capi_free_inventory(three.items, three.count);
    s.calls.capi_free_inventory(held.items, held.count);
}

void check_list_release(session &s, findings &f)
{
    constexpr size_t records_in_all = 2'000'000;
    constexpr size_t smallest_block = 16;
    const size_t count = std::max<size_t>(components_of(s).size(), 1);
    const size_t times = std::clamp<size_t>(records_in_all / count, 100, 1000);
    // Caches fill, and other threads allocate: memory that grows with every list
    // does so each time.
    size_t grown = 0;
    for (int attempt = 0; attempt < 3; attempt++) {
        list_and_release(s, s.root, 20);
        const size_t before = allocated_bytes();
        list_and_release(s, s.root, times);
        const size_t after = allocated_bytes();
        grown = after > before ? after - before : 0;
        if (grown < times * smallest_block) {
            return;
        }
    }
    f.broken.push_back(text_of("%zu lists of %s, all released, left %zu bytes (%zu a list)", times,
                               s.root.c_str(), grown, grown / times));
}

void check_empty_release(session &s, findings &)
{
    // A platform that minds it crashes, and that is reported.
    s.calls.capi_free_inventory(static_cast<capi_inventory_record *>(nullptr), 0U);
}

void check_unknown_names(session &s, findings &f)
{
    const std::vector<listed_component> &all = components_of(s);
    const platform_calls &c = s.calls;
    const std::string below = s.root + "/NO_SUCH_COMPONENT";
    for (const std::string &name :
         {below, s.root + "NO_SUCH_COMPONENT", std::string("/NO_SUCH_COMPONENT/NOR_THIS"),
          std::string("NO_SUCH_COMPONENT"), std::string()}) {
        if (std::ranges::any_of(all, [&](const auto &each) { return each.name == name; }) &&
            !name.empty()) {
            continue;
        }
        const auto expect_refusal = [&](const char *call, int status) {
            if (status == 0) {
                f.broken.push_back(text_of("%s(\"%s\") gives 0", call, name.c_str()));
            }
        };
        const char *n = name.c_str();
        fenced<capi_sensor_record> sensor;
        fenced<capi_indicator_record> indicator;
        fenced<capi_fru_record> fru;
        fenced<int32_t> code;
        char why[20];
        expect_refusal("capi_get_inventory",
                       list_components(s, name, CAPI_INVENTORY_SUBTREE).status);
        expect_refusal(c.capi_get_sensor.name, c.capi_get_sensor(0, n, &sensor.value));
        expect_refusal(c.capi_get_sensor_info.name,
                       c.capi_get_sensor_info(n, CAPI_SENSOR_INFO_ALL, &sensor.value));
        expect_refusal(c.capi_get_indicator.name, c.capi_get_indicator(0, n, &indicator.value));
        expect_refusal(c.capi_get_power_state.name, c.capi_get_power_state(0, n, &code.value));
        expect_refusal(c.capi_get_rdy2rm_status.name, c.capi_get_rdy2rm_status(0, n, &code.value));
        expect_refusal(
            c.capi_get_enable_disable_state.name,
            c.capi_get_enable_disable_state(n, &code.value, why, static_cast<int>(sizeof why)));
        expect_refusal(c.capi_get_fru_info.name, c.capi_get_fru_info(n, &fru.value));
    }
}

void check_descriptions(session &s, findings &f)
{
    constexpr size_t longest = 4096;
    for (const uint32_t type : types_of(s)) {
        const char *text = nullptr;
        const int status = s.calls.capi_get_component_desc_str(type, &text);
        if (status != 0) {
            f.warnings.push_back(
                text_of("type %u has no description (status %d): its rows have an empty one", type,
                        status));
        } else if (text == nullptr) {
            f.broken.push_back(text_of("type %u: status 0 and a null text", type));
        } else if (strnlen(text, longest) == longest) {
            f.broken.push_back(text_of("type %u: no end within %zu bytes", type, longest));
        } else {
            s.descriptions[type] = {text, text};
        }
    }
}

void check_descriptions_stay(session &s, findings &f)
{
    if (s.descriptions.empty()) {
        findings elsewhere; // what is wrong with a text itself is another check's
        check_descriptions(s, elsewhere);
    }
    if (s.descriptions.empty()) {
        f.skipped = "no component type has a description";
        return;
    }
    for (const uint32_t type : types_of(s)) {
        const char *again = nullptr;
        s.calls.capi_get_component_desc_str(type, &again);
    }
    list_and_release(s, root_of(s), 20);
    for (const auto &[type, kept] : s.descriptions) {
        if (kept.second != kept.first) {
            f.broken.push_back(text_of("type %u: the text \"%s\" has become \"%.80s\"", type,
                                       kept.second.c_str(), kept.first));
        }
    }
}

void check_type_flags(session &s, findings &f)
{
    for (const uint32_t type : types_of(s)) {
        fenced<int32_t> sensor;
        fenced<int32_t> indicator;
        const auto look = [&](const auto &call, fenced<int32_t> &flag) {
            const int status = call(type, &flag.value);
            if (status != 0) {
                f.broken.push_back(text_of("%s(%u) gives %d", call.name, type, status));
            } else if (flag.value != 0 && flag.value != 1) {
                f.broken.push_back(text_of("%s(%u): the flag is %d", call.name, type, flag.value));
            }
            if (!flag.intact()) {
                f.broken.push_back(text_of("%s(%u) writes behind the flag", call.name, type));
            }
        };
        look(s.calls.capi_is_sensor_type, sensor);
        look(s.calls.capi_is_indicator_type, indicator);
        if (sensor.value == 1 && indicator.value == 1) {
            f.broken.push_back(text_of("type %u is a sensor and an indicator", type));
        }
    }
}

constexpr check checks[] = {
    {"symbols", "every call of the contract is exported", check_symbols},
    {"root_query", "mode 5 of \"/\" gives \"/\" and the root component", check_root_query},
    {"inventory_names", "names are unique, and as long as they say", check_inventory_names},
    {"inventory_order", "a container stands before what it holds", check_inventory_order},
    {"inventory_below_root", "all components are below the root", check_inventory_below_root},
    {"inventory_subtrees", "a component's own list agrees with the root's",
     check_inventory_subtrees},
    {"list_lifetime", "a list stays as it is until it is released", check_list_lifetime},
    {"list_release", "a released list leaves no memory behind", check_list_release},
    {"empty_release", "a null list of none can be released", check_empty_release},
    {"unknown_names", "a name that is not known is refused", check_unknown_names},
    {"descriptions", "the description of a component type is a text", check_descriptions},
    {"descriptions_stay", "a description stays valid for the life of the process",
     check_descriptions_stay},
    {"type_flags", "a type is a sensor, an indicator or neither", check_type_flags},
};

} // namespace

std::span<const check> inventory_checks()
{
    return checks;
}

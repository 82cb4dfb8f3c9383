#include "checks.h"

#include <cstdarg>
#include <cstdio>
#include <thread>

namespace
{

constexpr size_t longest_name = 65535;

listed_component copy_of(const capi_inventory_record &record)
{
    listed_component copy;
    copy.has_pointer = record.nac_name != nullptr;
    copy.told_length = record.nac_name_length;
    copy.type = record.component_type;
    std::copy(std::begin(record.capabilities), std::end(record.capabilities),
              copy.capabilities.begin());
    if (record.nac_name == nullptr) {
        copy.length_agrees = record.nac_name_length == 0;
        return copy;
    }
    const size_t length = strnlen(record.nac_name, longest_name + 1);
    copy.name.assign(record.nac_name, length);
    copy.length_agrees = length == record.nac_name_length;
    return copy;
}

template <class Function>
std::vector<std::string> names_of_kind(session &s, const contract_call<Function> &is_kind)
{
    std::map<uint32_t, bool> kinds;
    std::vector<std::string> names;
    for (const listed_component &c : components_of(s)) {
        const auto [at, is_new] = kinds.try_emplace(c.type, false);
        if (is_new) {
            fenced<int32_t> flag;
            at->second = is_kind(c.type, &flag.value) == 0 && flag.value != 0;
        }
        if (at->second && !c.name.empty()) {
            names.push_back(c.name);
        }
    }
    return names;
}

} // namespace

std::string text_of(const char *format, ...)
{
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return text;
}

listing list_components(const session &s, const std::string &name, int mode)
{
    listing result;
    uint32_t count = 0;
    capi_inventory_record *items = nullptr;
    result.status = s.calls.capi_get_inventory(name.c_str(), mode, &count, &items);
    if (result.status != 0) {
        return result;
    }
    if (items == nullptr && count != 0) {
        result.fault = text_of("%s: a count of %u without records", name.c_str(), count);
        return result;
    }
    for (const capi_inventory_record &record : std::span(items, count)) {
        result.components.push_back(copy_of(record));
    }
    s.calls.capi_free_inventory(items, count);
    return result;
}

bool is_at_or_below(const std::string &name, const std::string &top)
{
    return name == top || name.starts_with(top + "/");
}

std::string parent_of(const std::string &name)
{
    return name.substr(0, name.rfind('/'));
}

const std::string &root_of(session &s)
{
    if (!s.root.empty()) {
        return s.root;
    }
    const auto end = std::chrono::steady_clock::now() + s.options.wait;
    for (;;) {
        const listing roots = list_components(s, "/", CAPI_INVENTORY_ROOT);
        if (roots.status == 0) {
            if (roots.components.size() < 2 || roots.components[1].name.empty()) {
                throw not_possible{"the root component is not known"};
            }
            s.root = roots.components[1].name;
            return s.root;
        }
        if (std::chrono::steady_clock::now() > end) {
            throw not_possible{
                text_of("no inventory: capi_get_inventory(/) gives %d", roots.status)};
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

const std::vector<listed_component> &components_of(session &s)
{
    if (!s.whole) {
        const std::string &root = root_of(s);
        listing whole = list_components(s, root, CAPI_INVENTORY_SUBTREE);
        if (whole.status != 0 || !whole.fault.empty()) {
            throw not_possible{whole.status == 0 ? whole.fault
                                                 : text_of("capi_get_inventory(%s) gives %d",
                                                           root.c_str(), whole.status)};
        }
        s.whole = std::move(whole);
    }
    return s.whole->components;
}

std::vector<std::string> sensors_of(session &s)
{
    return names_of_kind(s, s.calls.capi_is_sensor_type);
}

std::vector<std::string> indicators_of(session &s)
{
    return names_of_kind(s, s.calls.capi_is_indicator_type);
}

const sensor_answer &reading_of(session &s, const std::string &name)
{
    if (const auto found = s.readings.find(name); found != s.readings.end()) {
        return found->second;
    }
    fenced<capi_sensor_record> memory;
    sensor_answer answer;
    answer.status = s.calls.capi_get_sensor(0, name.c_str(), &memory.value);
    answer.record = memory.value;
    answer.fence_intact = memory.intact();
    return s.readings[name] = answer;
}

sensor_answer sensor_info_of(const session &s, const std::string &name)
{
    fenced<capi_sensor_record> memory;
    sensor_answer answer;
    answer.status = s.calls.capi_get_sensor_info(name.c_str(), CAPI_SENSOR_INFO_ALL, &memory.value);
    answer.record = memory.value;
    answer.fence_intact = memory.intact();
    return answer;
}

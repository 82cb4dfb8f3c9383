/*
 * Any bytes as a description: the loader ends, says what is wrong exactly when
 * it hands nothing out, and what it hands out keeps every promise that the rest
 * of the platform builds on.
 */
#include "described/format/loader.h"
#include "described/watch/differ.h"
#include "fuzz/must.h"
#include "platform/event_mgr.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fcntl.h>
#include <set>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace described_platform;

namespace
{

int file = -1;
std::string path;

void put(const uint8_t *data, size_t size)
{
    must(ftruncate(file, 0) == 0);
    must(pwrite(file, data, size, 0) == static_cast<ssize_t>(size));
}

void check_live(const live_value &value, const description &all)
{
    must(std::isfinite(value.scale) && std::isfinite(value.offset));
    must(value.low <= value.high);
    if (value.file.empty()) {
        must(value.constant >= value.low && value.constant <= value.high);
        must(!value.whole || value.constant == std::floor(value.constant));
    } else {
        must(value.file.front() == '/');
        must(std::ranges::count(all.bound_files, value.file) == 1);
    }
}

void check_live(const rare<live_value> &value, const description &all)
{
    if (value) {
        check_live(*value, all);
    }
}

void check_sensor(const sensor &s, const description &all)
{
    must(!s.record_name.empty() || all.by_record_name.contains(""));
    must(s.record_name.size() < sizeof(capi_sensor_record::name));
    check_live(s.reading, all);
    check_live(s.raw_reading, all);
    check_live(s.valid, all);
    check_live(s.state, all);
    must(((s.flags & CAPI_STATE_SEMANTICS) != 0) == s.state.has_value());
    for (const float limit : s.thresholds) {
        must(std::isfinite(limit));
    }
    const sensor *found = find_sensor(all, s.record_name);
    must(found && found->ok_semantics == s.ok_semantics);
}

void check_identity(const std::string &text)
{
    must(text.size() < 80 && text.find('\0') == std::string::npos);
}

void check_description(const description &all)
{
    must(!all.components.empty());
    const component &root = all.components.front();
    must(parent_name(root.name).empty());
    must(root.subtree_end == all.components.size());
    std::set<std::string_view> before;
    for (size_t i = 0; i < all.components.size(); i++) {
        const component &c = all.components[i];
        must(c.name.size() >= 2 && c.name.size() <= 255);
        must(c.name.front() == '/' && c.name.back() != '/');
        must(c.name.find("//") == std::string::npos && c.name.find('\0') == std::string::npos);
        must(i == 0 || before.contains(parent_name(c.name)));
        must(before.insert(c.name).second);
        must(find_component(all, c.name) == &c);
        must(c.subtree_end > i && c.subtree_end <= all.components.size());
        const std::string inside = c.name + "/";
        for (size_t j = i + 1; j < all.components.size(); j++) {
            must(all.components[j].name.starts_with(inside) == (j < c.subtree_end));
        }
        check_live(c.power, all);
        check_live(c.ready_to_remove, all);
        check_live(c.enable, all);
        check_live(c.indicator, all);
        if (c.fru) {
            for (const std::string *text : {&c.fru->model, &c.fru->manufacturer, &c.fru->serial,
                                            &c.fru->alias, &c.fru->software_revision}) {
                check_identity(*text);
            }
        }
        if (c.sensor) {
            check_sensor(*c.sensor, all);
        }
    }
    must(all.by_name.size() == all.components.size());
    if (all.product) {
        check_identity(all.product->model);
        check_identity(all.product->serial);
        check_identity(all.product->description);
        must(!all.product->vantor_id || all.product->vantor_id->size() < 51);
    }
    if (all.chassis) {
        check_identity(all.chassis->model);
        check_identity(all.chassis->serial);
        check_identity(all.chassis->description);
        check_identity(all.chassis->manufacturer);
        must(!all.chassis->vantor_id || all.chassis->vantor_id->size() < 51);
    }
    must(all.signature.size >= 0);
}

void check_errors(const std::vector<load_error> &errors)
{
    for (const load_error &each : errors) {
        must(!each.message.empty());
        const std::string text = to_text(path, each);
        must(text.starts_with(path + ":"));
        must(each.line != 0 && text.find('\n') == std::string::npos);
        must(each.pointer.empty() || each.column == 0);
        must(each.pointer.empty() || each.pointer.front() == '/');
    }
}

std::set<std::string> names_of(const description &all)
{
    std::set<std::string> names;
    for (const component &each : all.components) {
        names.insert(each.name);
    }
    return names;
}

// Who applies the events knows the components of the second description.
void check_differences(const description &before, const description &after)
{
    must(differences(&before, before).empty());
    std::set<std::string> known = names_of(before);
    for (const event &each : differences(&before, after)) {
        const std::string inside = each.payload + "/";
        switch (each.event_class == EVENT_MGR_CLASS_HARDWARE ? each.event : 0) {
        case EVENT_MGR_HOT_REMOVE:
            must(known.erase(each.payload) == 1);
            std::erase_if(known, [&](const std::string &name) { return name.starts_with(inside); });
            break;
        case EVENT_MGR_HOT_INSERT: {
            const component *top = find_component(after, each.payload);
            must(top != nullptr);
            for (size_t i = static_cast<size_t>(top - after.components.data());
                 i < top->subtree_end; i++) {
                must(known.insert(after.components[i].name).second);
            }
            break;
        }
        default:
            must(known.contains(each.payload));
            break;
        }
    }
    must(known == names_of(after));
}

std::unique_ptr<const description> load(const uint8_t *data, size_t size)
{
    put(data, size);
    load_result result = load_description(path); // an exception ends the fuzzer
    must(result.errors.empty() == (result.loaded != nullptr));
    must(result.signature.size == static_cast<int64_t>(size));
    check_errors(result.errors);
    if (result.loaded) {
        check_description(*result.loaded);
    }
    return std::move(result.loaded);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    // A file that needs no disk and leaves nothing behind.
    file = memfd_create("description", MFD_CLOEXEC);
    must(file >= 0);
    must(fchmod(file, S_IRUSR | S_IWUSR) == 0); // root loads nothing that others may write to
    path = "/proc/self/fd/" + std::to_string(file);
    // Else nothing is loaded, whatever it is, and nothing found.
    const std::string good = R"({"components": [{"name": "/SYS", "type": "system"}]})";
    must(load(reinterpret_cast<const uint8_t *>(good.data()), good.size()) != nullptr);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // One document, or what is saved over it behind a zero byte.
    const uint8_t *end = std::find(data, data + size, uint8_t{0});
    const auto first = load(data, static_cast<size_t>(end - data));
    if (end != data + size) {
        const auto second = load(end + 1, static_cast<size_t>(data + size - end - 1));
        if (first && second) {
            check_differences(*first, *second);
        }
    }
    return 0;
}

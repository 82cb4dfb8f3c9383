#include "fakes/fake_platform.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <span>
#include <stdexcept>
#include <type_traits>

namespace
{

// A list that was handed out. The caller sees items.data() and names of its
// own, so that a sanitizer notices a use after the release.
struct handed_list {
    std::vector<capi_inventory_record> items;
    std::vector<std::unique_ptr<std::string>> names;
    uint32_t count = 0;
};

struct world {
    std::recursive_mutex mutex;
    bool in_use = false;
    fake_server server;

    std::vector<fake_call> calls;
    std::map<std::string, size_t> call_counts;
    std::map<const capi_inventory_record *, handed_list> lists;
    std::vector<handed_list> refused_lists;
    size_t lists_handed_out = 0;
    std::vector<std::string> release_errors;

    std::vector<fake_subscription> subscriptions;
    unsigned subscriptions_of_handle = 0;
    event_mgr_handle handle = 0;
    event_mgr_callback callback = nullptr;
    void *context = nullptr;

    // Texts that stay valid for the life of the process, as the contract says.
    std::set<std::string> texts;
};

// Never destroyed: a detached thread may call until the process ends.
world &the_world()
{
    static auto *w = new world;
    return *w;
}

constexpr int failed = -1;

// Records the call, lets the test look in, and holds the lock from then on.
class entered
{
  public:
    entered(const char *function, std::string name) : world_(the_world())
    {
        fake_call call{function, std::move(name), std::this_thread::get_id()};
        std::function<void(const fake_call &)> on_call;
        {
            const std::lock_guard lock(world_.mutex);
            ++world_.call_counts[call.function];
            if (world_.server.record_calls) {
                world_.calls.push_back(call);
            }
            on_call = world_.server.on_call;
        }
        if (on_call) {
            on_call(call);
        }
        lock_ = std::unique_lock(world_.mutex);
        status_ = world_.in_use ? wanted_status(call) : failed;
    }

    world *operator->() const { return &world_; }
    fake_server &server() const { return world_.server; }
    // What the test wants the call to give.
    int status() const { return status_; }

    template <class Output>
    requires std::is_trivially_copyable_v<Output>
    int fail(int status, Output *output) const
    {
        if (world_.server.spoil_on_failure && output != nullptr) {
            std::ranges::fill(std::as_writable_bytes(std::span(output, 1)), std::byte{0xA5});
        }
        return status;
    }

    // Whether the call ends here, with its status, and has spoiled its output.
    template <class Output>
    bool fails(Output *output) const
    {
        if (status_ == 0 || world_.server.answer_on_failure) {
            return false;
        }
        fail(status_, output);
        return true;
    }

    template <class Value>
    int answer(const std::map<std::string, Value> &from, const char *name, Value *output) const
    {
        if (fails(output)) {
            return status_;
        }
        const auto found = name != nullptr ? from.find(name) : from.end();
        if (found == from.end()) {
            return fail(failed, output);
        }
        *output = found->second;
        return status_;
    }

  private:
    int wanted_status(const fake_call &call) const
    {
        const fake_server &s = world_.server;
        if (const auto by_name = s.fail_for.find(call.function); by_name != s.fail_for.end()) {
            const auto found = by_name->second.find(call.name);
            if (found != by_name->second.end()) {
                return found->second;
            }
        }
        const auto found = s.fail.find(call.function);
        return found != s.fail.end() ? found->second : 0;
    }

    world &world_;
    std::unique_lock<std::recursive_mutex> lock_;
    int status_ = 0;
};

std::string text_or_empty(const char *text)
{
    return text != nullptr ? text : "";
}

bool is_at_or_below(const std::string &name, const std::string &top)
{
    return name == top || name.starts_with(top + "/");
}

// The components of a subtree; nothing for a name that is not known.
std::optional<std::vector<fake_component>> subtree(const fake_server &s, const std::string &top)
{
    if (const auto found = s.lists.find(top); found != s.lists.end()) {
        return found->second;
    }
    if (top == "/") {
        return s.components;
    }
    const bool whole = !s.components.empty() && s.components.front().name == top;
    std::vector<fake_component> out;
    bool known = false;
    for (const fake_component &c : s.components) {
        if (c.name ? is_at_or_below(*c.name, top) : whole) {
            known = known || c.name == top;
            out.push_back(c);
        }
    }
    if (!known) {
        return std::nullopt;
    }
    return out;
}

std::vector<fake_component> root_list(const fake_server &s)
{
    if (s.root_list) {
        return *s.root_list;
    }
    std::vector<fake_component> out = {component("/", 0)};
    if (!s.components.empty()) {
        out.push_back(s.components.front());
    }
    return out;
}

handed_list list_of(const std::vector<fake_component> &components)
{
    handed_list list;
    // One record more than is told, so that an empty list has an address.
    list.items.reserve(components.size() + 1);
    for (const fake_component &c : components) {
        capi_inventory_record record = {};
        if (c.name) {
            list.names.push_back(std::make_unique<std::string>(*c.name));
            record.nac_name = list.names.back()->c_str();
            record.nac_name_length = c.told_length.value_or(static_cast<uint32_t>(c.name->size()));
        }
        std::ranges::copy(c.capabilities, record.capabilities);
        record.component_type = c.type;
        list.items.push_back(record);
    }
    return list;
}

void hand_out(world &w, const std::vector<fake_component> &components,
              std::optional<uint32_t> told_count, uint32_t *count, capi_inventory_record **items)
{
    *count = told_count.value_or(static_cast<uint32_t>(components.size()));
    if (components.empty() && w.server.null_list_when_empty) {
        *items = nullptr;
        return;
    }
    ++w.lists_handed_out;
    handed_list list = list_of(components);
    list.count = *count;
    *items = list.items.data();
    w.lists.emplace(*items, std::move(list));
}

int vantor_id(const char *function, std::string fake_server::*id, char *buffer, int length)
{
    const entered call(function, std::to_string(length));
    if (call.fails(buffer)) {
        return call.status();
    }
    if (length > 0) {
        const std::string &text = call.server().*id;
        buffer[text.copy(buffer, static_cast<size_t>(length) - 1)] = '\0';
    }
    return call.status();
}

int subscribe(const char *function, event_mgr_handle handle, int event_class,
              std::optional<int> event)
{
    std::string name = std::to_string(event_class);
    if (event) {
        name += "," + std::to_string(*event);
    }
    const entered call(function, std::move(name));
    int rc = call.status();
    ++call->subscriptions_of_handle;
    const auto planned = call.server().subscription_failures.find(call->subscriptions_of_handle);
    if (planned != call.server().subscription_failures.end()) {
        rc = planned->second;
    } else if (rc == 0 && (handle == 0 || handle != call->handle)) {
        rc = failed;
    }
    call->subscriptions.push_back({handle, event_class, event, rc});
    return rc;
}

void start_over(world &w, bool in_use)
{
    w.in_use = in_use;
    w.server = fake_server();
    w.calls.clear();
    w.call_counts.clear();
    w.lists.clear();
    w.refused_lists.clear();
    w.lists_handed_out = 0;
    w.release_errors.clear();
    w.subscriptions.clear();
    w.subscriptions_of_handle = 0;
    w.handle = 0;
    w.callback = nullptr;
    w.context = nullptr;
}

} // namespace

// ---- The contract -----------------------------------------------------------

extern "C" {

int capi_get_inventory(const char *nac_name, int mode, uint32_t *count,
                       capi_inventory_record **items)
{
    const entered call("capi_get_inventory", text_or_empty(nac_name));
    fake_server &s = call.server();
    const std::string name = text_or_empty(nac_name);
    auto refuse = [&](int status) {
        if (s.answer_on_failure) {
            const auto listed = mode == CAPI_INVENTORY_ROOT ? root_list(s) : subtree(s, name);
            call->refused_lists.push_back(list_of(listed.value_or(s.components)));
            *items = call->refused_lists.back().items.data();
            *count = static_cast<uint32_t>(call->refused_lists.back().items.size());
            return status;
        }
        call.fail(status, count);
        return call.fail(status, items);
    };
    if (call.status() != 0) {
        return refuse(call.status());
    }
    if (s.inventory_after != 0) {
        --s.inventory_after;
        return refuse(failed);
    }
    if (mode == CAPI_INVENTORY_ROOT && name == "/") {
        hand_out(*call.operator->(), root_list(s), s.root_count_override, count, items);
        return 0;
    }
    if (mode != CAPI_INVENTORY_SUBTREE) {
        return refuse(failed);
    }
    const auto listed = subtree(s, name);
    if (!listed) {
        return refuse(failed);
    }
    hand_out(*call.operator->(), *listed, s.count_override, count, items);
    return 0;
}

void capi_free_inventory(capi_inventory_record *items, uint32_t count)
{
    const entered call("capi_free_inventory", "");
    if (items == nullptr && count == 0) {
        return;
    }
    const auto found = call->lists.find(items);
    if (found == call->lists.end()) {
        call->release_errors.emplace_back("a list that is not out was released");
        return;
    }
    if (found->second.count != count) {
        call->release_errors.push_back("a list of " + std::to_string(found->second.count) +
                                       " was released as one of " + std::to_string(count));
    }
    call->lists.erase(found);
}

int capi_get_component_desc_str(uint32_t component_type, const char **text)
{
    const entered call("capi_get_component_desc_str", std::to_string(component_type));
    if (call.fails(text)) {
        return call.status();
    }
    const auto &all = call.server().descriptions;
    const auto found = all.find(component_type);
    const std::optional<std::string> description =
        found != all.end() ? found->second : call.server().default_description;
    *text = description ? call->texts.insert(*description).first->c_str() : nullptr;
    return call.status();
}

int capi_is_sensor_type(uint32_t component_type, int32_t *flag)
{
    const entered call("capi_is_sensor_type", std::to_string(component_type));
    if (call.fails(flag)) {
        return call.status();
    }
    *flag = call.server().sensor_types.contains(component_type) ? 1 : 0;
    return call.status();
}

int capi_is_indicator_type(uint32_t component_type, int32_t *flag)
{
    const entered call("capi_is_indicator_type", std::to_string(component_type));
    if (call.fails(flag)) {
        return call.status();
    }
    *flag = call.server().indicator_types.contains(component_type) ? 1 : 0;
    return call.status();
}

int capi_get_sensor(int reserved, const char *nac_name, capi_sensor_record *record)
{
    const entered call("capi_get_sensor", text_or_empty(nac_name));
    if (reserved != 0) {
        return call.fail(failed, record);
    }
    return call.answer(call.server().sensors, nac_name, record);
}

int capi_get_sensor_info(const char *nac_name, int selector, capi_sensor_record *record)
{
    const entered call("capi_get_sensor_info", text_or_empty(nac_name));
    if (selector != CAPI_SENSOR_INFO_ALL) {
        return call.fail(failed, record);
    }
    const fake_server &s = call.server();
    const bool own = nac_name != nullptr && s.sensor_infos.contains(nac_name);
    return call.answer(own ? s.sensor_infos : s.sensors, nac_name, record);
}

int capi_is_sensor_with_OK_semantics(const void *sensor)
{
    const std::string name = text_or_empty(static_cast<const char *>(sensor));
    const entered call("capi_is_sensor_with_OK_semantics", name);
    if (call.status() != 0) {
        return call.status();
    }
    return call.server().ok_semantics.contains(name) ? 1 : 0;
}

int capi_get_indicator(int reserved, const char *nac_name, capi_indicator_record *record)
{
    const entered call("capi_get_indicator", text_or_empty(nac_name));
    if (reserved != 0) {
        return call.fail(failed, record);
    }
    return call.answer(call.server().indicators, nac_name, record);
}

int capi_get_power_state(int reserved, const char *nac_name, int32_t *state)
{
    const entered call("capi_get_power_state", text_or_empty(nac_name));
    if (reserved != 0) {
        return call.fail(failed, state);
    }
    return call.answer(call.server().power_states, nac_name, state);
}

int capi_get_rdy2rm_status(int reserved, const char *nac_name, int32_t *status)
{
    const entered call("capi_get_rdy2rm_status", text_or_empty(nac_name));
    if (reserved != 0) {
        return call.fail(failed, status);
    }
    return call.answer(call.server().ready_to_remove, nac_name, status);
}

int capi_get_enable_disable_state(const char *nac_name, int32_t *state, char *buffer, int length)
{
    const entered call("capi_get_enable_disable_state", text_or_empty(nac_name));
    const auto &states = call.server().enable_states;
    const auto found = nac_name != nullptr ? states.find(nac_name) : states.end();
    if (call.fails(state)) {
        return call.status();
    }
    if (found == states.end()) {
        return call.fail(failed, state);
    }
    const fake_enable_state &answer = found->second;
    *state = answer.state;
    if (buffer != nullptr && length > 0) {
        buffer[answer.why.copy(buffer, static_cast<size_t>(length) - 1)] = '\0';
    }
    return call.status();
}

int capi_get_indicator_meaning(const char *nac_name, int32_t *meaning)
{
    const entered call("capi_get_indicator_meaning", text_or_empty(nac_name));
    return call.answer(call.server().meanings, nac_name, meaning);
}

int capi_get_interface_name(const char *nac_name, char *buffer, int length)
{
    const entered call("capi_get_interface_name", text_or_empty(nac_name));
    if (call.fails(buffer)) {
        return call.status();
    }
    const auto &all = call.server().interfaces;
    const auto found = all.find(text_or_empty(nac_name));
    if (found == all.end() || length < 1 || found->second.size() >= static_cast<size_t>(length)) {
        return failed;
    }
    buffer[found->second.copy(buffer, found->second.size())] = '\0';
    return call.status();
}

int capi_get_fru_info(const char *nac_name, capi_fru_record *record)
{
    const entered call("capi_get_fru_info", text_or_empty(nac_name));
    return call.answer(call.server().frus, nac_name, record);
}

int capi_get_product_ops_info(int reserved, capi_product_record *record)
{
    const entered call("capi_get_product_ops_info", "");
    if (reserved != 0) {
        return call.fail(failed, record);
    }
    if (call.fails(record)) {
        return call.status();
    }
    *record = call.server().product;
    return call.status();
}

int capi_get_chassis_ops_info(capi_chassis_record *record)
{
    const entered call("capi_get_chassis_ops_info", "");
    if (call.fails(record)) {
        return call.status();
    }
    *record = call.server().chassis;
    return call.status();
}

int capi_get_product_vantor_id(char *buffer, int length)
{
    return vantor_id("capi_get_product_vantor_id", &fake_server::product_vantor_id, buffer, length);
}

int capi_get_chassis_vantor_id(char *buffer, int length)
{
    return vantor_id("capi_get_chassis_vantor_id", &fake_server::chassis_vantor_id, buffer, length);
}

int event_mgr_get_handle(event_mgr_handle *handle, event_mgr_callback callback, void *context)
{
    const entered call("event_mgr_get_handle", "");
    fake_server &s = call.server();
    if (call.status() != 0) {
        return call.fail(call.status(), handle);
    }
    if (s.handle_failures != 0) {
        --s.handle_failures;
        return call.fail(s.handle_failure_rc, handle);
    }
    *handle = s.next_handle++;
    call->handle = *handle;
    call->callback = callback;
    call->context = context;
    call->subscriptions_of_handle = 0;
    return 0;
}

int event_mgr_subscribe_event_class(event_mgr_handle handle, int event_class)
{
    return subscribe("event_mgr_subscribe_event_class", handle, event_class, std::nullopt);
}

int event_mgr_subscribe_event(event_mgr_handle handle, int event_class, int event)
{
    return subscribe("event_mgr_subscribe_event", handle, event_class, event);
}

} // extern "C"

// ---- The test's side --------------------------------------------------------

fake_platform::fake_platform()
{
    world &w = the_world();
    const std::lock_guard lock(w.mutex);
    if (w.in_use) {
        throw std::logic_error("two fake_platform objects at once");
    }
    start_over(w, true);
}

fake_platform::~fake_platform()
{
    world &w = the_world();
    const std::lock_guard lock(w.mutex);
    start_over(w, false);
}

fake_platform::locked_server fake_platform::locked()
{
    world &w = the_world();
    return locked_server(w.server, w.mutex);
}

std::vector<fake_call> fake_platform::all_calls() const
{
    world &w = the_world();
    const std::lock_guard lock(w.mutex);
    return w.calls;
}

size_t fake_platform::calls(const std::string &function) const
{
    world &w = the_world();
    const std::lock_guard lock(w.mutex);
    const auto found = w.call_counts.find(function);
    return found != w.call_counts.end() ? found->second : 0;
}

size_t fake_platform::calls(const std::string &function, const std::string &name) const
{
    const std::vector<fake_call> all = all_calls();
    return static_cast<size_t>(std::ranges::count_if(
        all, [&](const fake_call &c) { return c.function == function && c.name == name; }));
}

void fake_platform::forget_calls()
{
    world &w = the_world();
    const std::lock_guard lock(w.mutex);
    w.calls.clear();
    w.call_counts.clear();
}

testing::AssertionResult fake_platform::all_lists_released() const
{
    world &w = the_world();
    const std::lock_guard lock(w.mutex);
    if (w.lists.empty() && w.release_errors.empty()) {
        return testing::AssertionSuccess() << w.lists_handed_out << " lists, all released";
    }
    testing::AssertionResult result = testing::AssertionFailure();
    result << w.lists.size() << " of " << w.lists_handed_out << " lists not released";
    for (const std::string &error : w.release_errors) {
        result << "\n" << error;
    }
    return result;
}

size_t fake_platform::lists_handed_out() const
{
    world &w = the_world();
    const std::lock_guard lock(w.mutex);
    return w.lists_handed_out;
}

std::vector<fake_subscription> fake_platform::subscriptions() const
{
    world &w = the_world();
    const std::lock_guard lock(w.mutex);
    return w.subscriptions;
}

event_mgr_handle fake_platform::handle() const
{
    world &w = the_world();
    const std::lock_guard lock(w.mutex);
    return w.handle;
}

void *fake_platform::context() const
{
    world &w = the_world();
    const std::lock_guard lock(w.mutex);
    return w.context;
}

bool fake_platform::deliver(int event_class, int event, const char *payload)
{
    event_mgr_callback callback = nullptr;
    void *context = nullptr;
    {
        world &w = the_world();
        const std::lock_guard lock(w.mutex);
        callback = w.callback;
        context = w.context;
    }
    if (callback == nullptr) {
        return false;
    }
    callback(context, event_class, event, payload);
    return true;
}

bool fake_platform::deliver_on_thread(int event_class, int event, const char *payload)
{
    bool delivered = false;
    std::thread thread([&] { delivered = deliver(event_class, event, payload); });
    thread.join();
    return delivered;
}

fake_component component(const char *name, uint32_t type,
                         std::initializer_list<fake_capability> capabilities)
{
    fake_component out;
    out.name = name;
    out.type = type;
    for (const fake_capability &c : capabilities) {
        uint8_t &byte = out.capabilities.at(static_cast<size_t>(c.byte));
        byte = static_cast<uint8_t>(byte | c.mask);
    }
    return out;
}

fake_component nameless_component(uint32_t type)
{
    fake_component out;
    out.type = type;
    return out;
}

capi_sensor_record threshold_sensor(int32_t sensor_type, float reading)
{
    capi_sensor_record record = {};
    record.sensor_class = CAPI_SENSOR_THRESHOLD;
    record.sensor_type = sensor_type;
    record.reading = reading;
    record.reading_status = CAPI_READING_VALID;
    return record;
}

capi_sensor_record discrete_sensor(int32_t sensor_type, float reading)
{
    capi_sensor_record record = threshold_sensor(sensor_type, reading);
    record.sensor_class = CAPI_SENSOR_DISCRETE;
    return record;
}

capi_indicator_record indicator(int32_t state)
{
    capi_indicator_record record = {};
    record.state = state;
    return record;
}

// A platform that breaks one promise of the contract. It is the fake platform of
// the other tests, whose calls are built under the names fake_capi_..., with a
// small server in it; KAVPLAT_BREAK names what is wrong with it. Without a defect
// it keeps every promise.
//
// A disk comes and goes with the file that KAVPLAT_DISK names.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "fakes/fake_platform.h"

extern "C" {
decltype(capi_get_inventory) fake_capi_get_inventory;
decltype(capi_free_inventory) fake_capi_free_inventory;
decltype(capi_get_component_desc_str) fake_capi_get_component_desc_str;
decltype(capi_is_sensor_type) fake_capi_is_sensor_type;
decltype(capi_is_indicator_type) fake_capi_is_indicator_type;
decltype(capi_get_sensor) fake_capi_get_sensor;
decltype(capi_get_sensor_info) fake_capi_get_sensor_info;
decltype(capi_is_sensor_with_OK_semantics) fake_capi_is_sensor_with_OK_semantics;
decltype(capi_get_indicator) fake_capi_get_indicator;
decltype(capi_get_indicator_meaning) fake_capi_get_indicator_meaning;
decltype(capi_get_power_state) fake_capi_get_power_state;
decltype(capi_get_rdy2rm_status) fake_capi_get_rdy2rm_status;
decltype(capi_get_enable_disable_state) fake_capi_get_enable_disable_state;
decltype(capi_get_fru_info) fake_capi_get_fru_info;
decltype(capi_get_interface_name) fake_capi_get_interface_name;
decltype(capi_get_product_ops_info) fake_capi_get_product_ops_info;
decltype(capi_get_chassis_ops_info) fake_capi_get_chassis_ops_info;
decltype(capi_get_product_vantor_id) fake_capi_get_product_vantor_id;
decltype(capi_get_chassis_vantor_id) fake_capi_get_chassis_vantor_id;
decltype(event_mgr_get_handle) fake_event_mgr_get_handle;
decltype(event_mgr_subscribe_event_class) fake_event_mgr_subscribe_event_class;
decltype(event_mgr_subscribe_event) fake_event_mgr_subscribe_event;
}

namespace
{

using namespace std::chrono_literals;

constexpr uint32_t type_board = 50;
constexpr uint32_t type_threshold_sensor = 30;
constexpr uint32_t type_discrete_sensor = 31;
constexpr uint32_t type_led = 32;
constexpr uint32_t type_disk = 33;

constexpr char board[] = "/SYS/MB";
constexpr char sensor_1[] = "/SYS/MB/T0";
constexpr char sensor_2[] = "/SYS/MB/T1";
constexpr char state_sensor[] = "/SYS/MB/STATE";
constexpr char led[] = "/SYS/LOCATE";
constexpr char disk[] = "/SYS/DISK";

bool breaks(const char *defect)
{
    static const std::string chosen = [] {
        const char *text = getenv("KAVPLAT_BREAK");
        return std::string(text != nullptr ? text : "");
    }();
    return chosen == defect;
}

capi_sensor_record named_sensor(const char *name, capi_sensor_record record)
{
    set_text(record.name, name);
    return record;
}

void add_disk(fake_server &s)
{
    s.components.push_back(component(disk, type_disk,
                                     {{CAPI_CAP_FRU_INFO_BYTE, CAPI_CAP_FRU_INFO},
                                      {CAPI_CAP_HOT_PLUGGABLE_BYTE, CAPI_CAP_HOT_PLUGGABLE}}));
    capi_fru_record fru = {};
    set_text(fru.serial, "DISK-1");
    s.frus[disk] = fru;
}

void remove_disk(fake_server &s)
{
    std::erase_if(s.components, [](const fake_component &c) { return c.name == disk; });
    s.frus.erase(disk);
}

bool disk_is_plugged()
{
    const char *path = getenv("KAVPLAT_DISK");
    return path != nullptr && access(path, F_OK) == 0;
}

bool disk_is_listed = false; // when the platform was made

// Never destroyed: its thread runs until the process ends.
fake_platform &platform()
{
    static fake_platform *the_one = [] {
        auto *p = new fake_platform;
        const auto server = p->locked();
        fake_server &s = *server;
        s.record_calls = false;
        s.components = {
            component("/SYS", CAPI_TYPE_SYSTEM),
            component(board, type_board,
                      {{CAPI_CAP_FRU_INFO_BYTE, CAPI_CAP_FRU_INFO},
                       {CAPI_CAP_POWER_BYTE, CAPI_CAP_POWER_READABLE},
                       {CAPI_CAP_ENABLE_STATE_BYTE, CAPI_CAP_ENABLE_STATE}}),
            component(sensor_1, type_threshold_sensor),
            component(sensor_2, type_threshold_sensor),
            component(state_sensor, type_discrete_sensor),
            component(led, type_led),
        };
        s.descriptions = {{CAPI_TYPE_SYSTEM, "server"},
                          {type_board, "system board"},
                          {type_threshold_sensor, "temperature sensor"},
                          {type_discrete_sensor, "state sensor"},
                          {type_led, "light"},
                          {type_disk, "disk"}};
        s.sensor_types = {type_threshold_sensor, type_discrete_sensor};
        s.indicator_types = {type_led};
        capi_sensor_record warm =
            named_sensor(sensor_1, threshold_sensor(CAPI_SENSOR_TEMPERATURE, 31.0F));
        warm.units = CAPI_UNITS_DEGREES_C;
        warm.upper_critical = 80.0F;
        warm.flags = CAPI_UPPER_CRITICAL_VALID;
        s.sensors[sensor_1] = warm;
        warm = named_sensor(sensor_2, warm);
        warm.upper_critical = 90.0F;
        s.sensors[sensor_2] = warm;
        s.sensors[state_sensor] =
            named_sensor(state_sensor, discrete_sensor(CAPI_SENSOR_PRESENCE, 2.0F));
        s.ok_semantics = {state_sensor};
        s.indicators[led] = indicator(CAPI_INDICATOR_ON);
        set_text(s.frus[board].serial, "MB-1");
        s.interfaces[board] = "e0";
        s.meanings[led] = CAPI_MEANS_FAULT;
        s.power_states[board] = CAPI_POWER_ON;
        s.ready_to_remove[board] = CAPI_NOT_READY_TO_REMOVE;
        s.enable_states[board] = {CAPI_ENABLED, "as the operator of the machine wishes"};
        set_text(s.product.model, "B-1");
        set_text(s.chassis.model, "C-1");
        disk_is_listed = disk_is_plugged();
        if (disk_is_listed) {
            add_disk(s);
        }
        return p;
    }();
    return *the_one;
}

// ---- Events -----------------------------------------------------------------

std::atomic<event_mgr_callback> last_callback = nullptr;
thread_local bool is_delivering = false;

void deliver(int event_class, int event, const char *payload)
{
    fake_platform &p = platform();
    if (breaks("wrong context")) {
        // By hand, as the fake always gives back what it was given.
        last_callback.load()(static_cast<void *>(&p), event_class, event, payload);
    } else if (breaks("event with lock held")) {
        const auto held = p.locked();
        p.deliver(event_class, event, payload);
    } else {
        p.deliver(event_class, event, payload);
    }
}

void tell_of_disk(bool plugged)
{
    const int event = plugged ? EVENT_MGR_HOT_INSERT : EVENT_MGR_HOT_REMOVE;
    if (breaks("events are lost")) {
        deliver(EVENT_MGR_CLASS_INTERNAL, EVENT_MGR_REFRESH_SENSOR, sensor_1);
    } else if (breaks("no events")) {
        return;
    } else if (breaks("unknown event")) {
        deliver(EVENT_MGR_CLASS_HARDWARE, 77, disk);
        deliver(EVENT_MGR_CLASS_HARDWARE, event, disk);
    } else if (breaks("null payload")) {
        deliver(EVENT_MGR_CLASS_INTERNAL, EVENT_MGR_REFRESH_SENSOR, nullptr);
        deliver(EVENT_MGR_CLASS_HARDWARE, event, disk);
    } else if (breaks("event told twice")) {
        deliver(EVENT_MGR_CLASS_HARDWARE, event, disk);
        deliver(EVENT_MGR_CLASS_HARDWARE, event, disk);
    } else {
        is_delivering = true;
        deliver(EVENT_MGR_CLASS_HARDWARE, event, disk);
        is_delivering = false;
    }
}

void watch_disk()
{
    bool known = disk_is_listed;
    for (;;) {
        std::this_thread::sleep_for(5ms);
        const bool plugged = disk_is_plugged();
        if (plugged == known) {
            continue;
        }
        known = plugged;
        if (breaks("event before the change")) {
            tell_of_disk(plugged);
        }
        {
            const auto server = platform().locked();
            plugged ? add_disk(*server) : remove_disk(*server);
        }
        if (!breaks("event before the change")) {
            tell_of_disk(plugged);
        }
    }
}

// While the callback asks for the disk, so that it is sure to have not returned.
void deliver_out_of_turn()
{
    if (!is_delivering) {
        return;
    }
    is_delivering = false;
    if (breaks("two events at once")) {
        platform().deliver_on_thread(EVENT_MGR_CLASS_INTERNAL, EVENT_MGR_REFRESH_SENSOR, sensor_1);
    } else if (breaks("event inside a callback's call")) {
        deliver(EVENT_MGR_CLASS_INTERNAL, EVENT_MGR_REFRESH_SENSOR, sensor_1);
    }
}

// ---- What the defects need ----------------------------------------------------

void slow_down(std::chrono::milliseconds time)
{
    static std::atomic<bool> done = false;
    if (!done.exchange(true)) {
        std::this_thread::sleep_for(time);
    }
}

// Names of all lists of a thread, in one place: the fault of "shared list names".
thread_local char shared_names[64][64];

// What the fake told of the lists that were made shorter afterwards.
std::mutex shortened_mutex;
std::map<const capi_inventory_record *, uint32_t> shortened;

void shorten(uint32_t *count, const capi_inventory_record *items)
{
    const std::lock_guard lock(shortened_mutex);
    shortened[items] = (*count)--;
}

uint32_t true_count(const capi_inventory_record *items, uint32_t count)
{
    const std::lock_guard lock(shortened_mutex);
    const auto found = shortened.extract(items);
    return found.empty() ? count : found.mapped();
}

void spoil_list(const char *nac_name, uint32_t *count, capi_inventory_record *items)
{
    const bool of_root = strcmp(nac_name, "/SYS") == 0;
    if (breaks("wrong name length")) {
        items[0].nac_name_length++;
    } else if (breaks("name listed twice") && of_root) {
        items[5] = items[2];
    } else if (breaks("child before its container") && of_root) {
        std::swap(items[1], items[2]);
    } else if (breaks("container left out") && of_root) {
        std::copy(items + 2, items + *count, items + 1);
        shorten(count, items);
    } else if (breaks("component outside the root") && of_root) {
        items[5].nac_name = "/ELSEWHERE";
        items[5].nac_name_length = 10;
    } else if (breaks("subtree without its last") && strcmp(nac_name, board) == 0) {
        shorten(count, items);
    } else if (breaks("shared list names")) {
        for (uint32_t i = 0; i < *count; i++) {
            snprintf(shared_names[i], sizeof shared_names[i], "%s", items[i].nac_name);
            items[i].nac_name = shared_names[i];
        }
    }
}

// Not looked after by the sanitizer, which would end the process in its own way.
__attribute__((no_sanitize("undefined"))) void look_at(const volatile capi_inventory_record *items)
{
    [[maybe_unused]] const uint32_t type = items->component_type;
}

bool takes_any(event_mgr_handle handle)
{
    return breaks("bad handle taken") || (breaks("handle of 0") && handle == 0);
}

} // namespace

// ---- The contract -------------------------------------------------------------

extern "C" {

int capi_get_inventory(const char *nac_name, int mode, uint32_t *count,
                       capi_inventory_record **items)
{
    platform();
    if (breaks("slow call")) {
        slow_down(1500ms);
    } else if (breaks("very slow call")) {
        slow_down(5s);
    } else if (breaks("call that hangs")) {
        for (;;) {
            pause();
        }
    }
    deliver_out_of_turn();
    const int status = fake_capi_get_inventory(nac_name, mode, count, items);
    if (status != 0) {
        return status;
    }
    if (mode == CAPI_INVENTORY_ROOT && breaks("root list of one")) {
        (*items)[0] = (*items)[1];
    }
    if (mode == CAPI_INVENTORY_SUBTREE) {
        spoil_list(nac_name, count, *items);
    }
    return 0;
}

void capi_free_inventory(capi_inventory_record *items, uint32_t count)
{
    if (breaks("null list minded") && count == 0) {
        look_at(items);
    }
    if (breaks("lists not released")) {
        return;
    }
    if (breaks("shared list names")) {
        memset(shared_names, 'x', sizeof shared_names);
        for (auto &name : shared_names) {
            name[sizeof name - 1] = '\0';
        }
    }
    fake_capi_free_inventory(items, true_count(items, count));
}

int capi_get_component_desc_str(uint32_t component_type, const char **text)
{
    platform();
    const int status = fake_capi_get_component_desc_str(component_type, text);
    if (breaks("null description") && component_type == type_led) {
        *text = nullptr;
    } else if (breaks("description without end") && component_type == type_led) {
        static const std::string endless(10000, 'x');
        *text = endless.c_str();
    } else if (breaks("description in a shared buffer")) {
        thread_local char buffer[64];
        snprintf(buffer, sizeof buffer, "%s", *text);
        *text = buffer;
    }
    return status;
}

int capi_is_sensor_type(uint32_t component_type, int32_t *flag)
{
    platform();
    const int status = fake_capi_is_sensor_type(component_type, flag);
    if (breaks("type flag of 2") && *flag == 1) {
        *flag = 2;
    }
    return status;
}

int capi_is_indicator_type(uint32_t component_type, int32_t *flag)
{
    platform();
    const int status = fake_capi_is_indicator_type(component_type, flag);
    if (breaks("sensor and indicator") && component_type == type_discrete_sensor) {
        *flag = 1;
    } else if (breaks("type flag of 8 bytes")) {
        const int64_t wide = *flag;
        memcpy(static_cast<void *>(flag), &wide, sizeof wide);
    }
    return status;
}

int capi_get_sensor(int reserved, const char *nac_name, capi_sensor_record *record)
{
    platform();
    if (breaks("abort in a call") && strcmp(nac_name, sensor_1) == 0) {
        abort();
    }
    if (breaks("one reading at a time")) {
        // Hardware that takes the question from one place, without a lock around it.
        static char name[64];
        snprintf(name, sizeof name, "%s", nac_name);
        std::this_thread::sleep_for(20ms);
        return fake_capi_get_sensor(reserved, name, record);
    }
    const int status = fake_capi_get_sensor(reserved, nac_name, record);
    if (status != 0) {
        return status;
    }
    if (breaks("sensor class of 3")) {
        record->sensor_class = 3;
    } else if (breaks("sensor named otherwise in its record")) {
        set_text(record->name, "a sensor");
    } else if (breaks("reading without a number")) {
        record->reading = std::numeric_limits<float>::quiet_NaN();
    } else if (breaks("reading of another class")) {
        record->sensor_class = CAPI_SENSOR_THRESHOLD + CAPI_SENSOR_DISCRETE - record->sensor_class;
    } else if (breaks("reading of 130 bytes")) {
        memset(reinterpret_cast<char *>(record) + sizeof *record, 0, 2);
    } else if (breaks("reading without a name's end")) {
        memset(record->name, 'n', sizeof record->name);
    }
    return 0;
}

int capi_get_sensor_info(const char *nac_name, int selector, capi_sensor_record *record)
{
    platform();
    if (breaks("shared sensor buffer")) {
        // Read by one thread while another writes it.
        static char name[64];
        snprintf(name, sizeof name, "%s", nac_name);
        std::this_thread::sleep_for(1ms);
        return fake_capi_get_sensor_info(name, selector, record);
    }
    const int status = fake_capi_get_sensor_info(nac_name, selector, record);
    if (status != 0) {
        return status;
    }
    if (breaks("sensor class of 3")) {
        record->sensor_class = 3;
    } else if (breaks("sensor type of 300")) {
        record->sensor_type = 300;
    } else if (breaks("units of 11")) {
        record->units = 11;
    } else if (breaks("unknown sensor flag")) {
        record->flags |= 0x100;
    } else if (breaks("threshold without a number")) {
        record->upper_critical = std::numeric_limits<float>::quiet_NaN();
    } else if (breaks("sensor info of 130 bytes")) {
        memset(reinterpret_cast<char *>(record) + sizeof *record, 0, 2);
    } else if (breaks("sensor name without end")) {
        memset(record->name, 'n', sizeof record->name);
    }
    return 0;
}

int capi_is_sensor_with_OK_semantics(const void *sensor)
{
    platform();
    if (breaks("OK semantics of the record alone")) {
        capi_sensor_record record;
        memcpy(&record, sensor, sizeof record);
        return fake_capi_is_sensor_with_OK_semantics(record.name);
    }
    const int answer = fake_capi_is_sensor_with_OK_semantics(sensor);
    return breaks("OK semantics of 2") && answer == 1 ? 2 : answer;
}

int capi_get_indicator(int reserved, const char *nac_name, capi_indicator_record *record)
{
    platform();
    const int status = fake_capi_get_indicator(reserved, nac_name, record);
    if (breaks("indicator of 257 bytes") && status == 0) {
        reinterpret_cast<char *>(record)[sizeof *record] = '\0';
    }
    return status;
}

int capi_get_indicator_meaning(const char *nac_name, int32_t *meaning)
{
    platform();
    if (breaks("one meaning at a time")) {
        static char name[64];
        snprintf(name, sizeof name, "%s", nac_name);
        std::this_thread::sleep_for(1ms);
        return fake_capi_get_indicator_meaning(name, meaning);
    }
    const int status = fake_capi_get_indicator_meaning(nac_name, meaning);
    if (breaks("every component a service indicator")) {
        *meaning = CAPI_MEANS_SERVICE;
        return 0;
    }
    if (status == 0 && breaks("meaning of 3")) {
        *meaning = CAPI_MEANS_FAULT + 1;
    } else if (status == 0 && breaks("meaning of 8 bytes")) {
        meaning[1] = 0;
    }
    return status;
}

int capi_get_power_state(int reserved, const char *nac_name, int32_t *state)
{
    platform();
    if (breaks("one power state at a time")) {
        static char name[64];
        snprintf(name, sizeof name, "%s", nac_name);
        std::this_thread::sleep_for(1ms);
        return fake_capi_get_power_state(reserved, name, state);
    }
    const int status = fake_capi_get_power_state(reserved, nac_name, state);
    if (breaks("unknown name answered") && status != 0) {
        *state = CAPI_POWER_OFF;
        return 0;
    }
    if (breaks("power state refused")) {
        return -1;
    }
    if (breaks("power state of 8 bytes") && status == 0) {
        const int64_t wide = *state;
        memcpy(static_cast<void *>(state), &wide, sizeof wide);
    }
    return status;
}

int capi_get_rdy2rm_status(int reserved, const char *nac_name, int32_t *status)
{
    platform();
    const int result = fake_capi_get_rdy2rm_status(reserved, nac_name, status);
    if (breaks("ready to remove of 2") && result == 0) {
        *status = 2;
    }
    return result;
}

int capi_get_enable_disable_state(const char *nac_name, int32_t *state, char *buffer, int length)
{
    platform();
    const int status = fake_capi_get_enable_disable_state(
        nac_name, state, buffer, breaks("reason too long") ? length + 1 : length);
    if (status != 0) {
        return status;
    }
    if (breaks("enable state refused")) {
        return -1;
    }
    if (breaks("enable state of 0")) {
        *state = 0;
    } else if (breaks("reason without end")) {
        memset(buffer, 'r', static_cast<size_t>(length));
    }
    return 0;
}

int capi_get_fru_info(const char *nac_name, capi_fru_record *record)
{
    platform();
    const int status = fake_capi_get_fru_info(nac_name, record);
    if (status != 0) {
        return status;
    }
    if (breaks("FRU refused")) {
        return -1;
    }
    if (breaks("FRU text without end")) {
        memset(record->serial, 's', sizeof record->serial);
    } else if (breaks("FRU of 1025 bytes")) {
        reinterpret_cast<char *>(record)[sizeof *record] = '\0';
    }
    return 0;
}

int capi_get_interface_name(const char *nac_name, char *buffer, int length)
{
    platform();
    const int status = fake_capi_get_interface_name(nac_name, buffer, length);
    if (breaks("every component an interface")) {
        return 0;
    }
    if (status != 0) {
        return status;
    }
    if (breaks("interface name too long")) {
        buffer[length] = '\0';
    } else if (breaks("interface name without end")) {
        memset(buffer, 'e', static_cast<size_t>(length));
    } else if (breaks("interface without a name")) {
        buffer[0] = '\0';
    }
    return 0;
}

int capi_get_product_ops_info(int reserved, capi_product_record *record)
{
    platform();
    const int status = fake_capi_get_product_ops_info(reserved, record);
    if (breaks("product text without end")) {
        memset(record->description, 'd', sizeof record->description);
    } else if (breaks("product of 1025 bytes")) {
        reinterpret_cast<char *>(record)[sizeof *record] = '\0';
    }
    return status;
}

int capi_get_chassis_ops_info(capi_chassis_record *record)
{
    platform();
    const int status = fake_capi_get_chassis_ops_info(record);
    if (breaks("chassis text without end")) {
        memset(record->manufacturer, 'm', sizeof record->manufacturer);
    } else if (breaks("chassis of 1025 bytes")) {
        reinterpret_cast<char *>(record)[sizeof *record] = '\0';
    }
    return status;
}

int capi_get_product_vantor_id(char *buffer, int length)
{
    platform();
    if (breaks("identifier too long")) {
        strcpy(buffer, "product-id");
        return 0;
    }
    return fake_capi_get_product_vantor_id(buffer, length);
}

int capi_get_chassis_vantor_id(char *buffer, int length)
{
    platform();
    const int status = fake_capi_get_chassis_vantor_id(buffer, length);
    if (breaks("identifier without end")) {
        memset(buffer, 'i', static_cast<size_t>(length));
    }
    return status;
}

int event_mgr_get_handle(event_mgr_handle *handle, event_mgr_callback callback, void *context)
{
    platform();
    if (breaks("no handle")) {
        return -1;
    }
    last_callback = callback;
    if (breaks("handle of 0")) {
        platform()->next_handle = 0;
    }
    return fake_event_mgr_get_handle(handle, callback, context);
}

int event_mgr_subscribe_event_class(event_mgr_handle handle, int event_class)
{
    platform();
    const int status = fake_event_mgr_subscribe_event_class(handle, event_class);
    if (breaks("event before its subscription") && status == 0) {
        platform().deliver_on_thread(EVENT_MGR_CLASS_INTERNAL, EVENT_MGR_REFRESH_SENSOR, sensor_1);
    }
    return takes_any(handle) ? 0 : status;
}

int event_mgr_subscribe_event(event_mgr_handle handle, int event_class, int event)
{
    platform();
    const int status = fake_event_mgr_subscribe_event(handle, event_class, event);
    if (status != 0 && !takes_any(handle)) {
        return status;
    }
    if (event_class != EVENT_MGR_CLASS_CONNECTION) {
        return 0;
    }
    if (breaks("event inside a call")) {
        platform().deliver(EVENT_MGR_CLASS_INTERNAL, EVENT_MGR_REFRESH_SENSOR, sensor_1);
    }
    static std::atomic<bool> watched = false;
    if (!watched.exchange(true)) {
        std::thread(watch_disk).detach();
    }
    return breaks("disconnect cannot be subscribed") ? -1 : 0;
}

} // extern "C"

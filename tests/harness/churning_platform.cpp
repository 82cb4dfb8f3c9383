// A platform whose units come and go all the time, to be preloaded into an agent.
//
// It is "/SYS" and beside it units named after the index that the module has to
// give them: the module numbers rows in the order in which they are listed, never
// uses an index again, and this platform alone decides what is listed and when.
// So every row says of itself where it belongs: "/SYS/U7" has index 7, position 8
// and serial number "SN7".
//
// The units 2 to KAVPLAT_CHURN_STABLE + 1 stay. Of the rest some are there at any
// time: half of the events insert one, with up to two sensors "/SYS/U7/T8",
// "/SYS/U7/T9" in it, half remove one. Every 10th event is a sensor refresh, every
// KAVPLAT_CHURN_UPDATE-th (25th) an inventory update of the root, which also brings
// a unit. The module logs a line for each index that is free at such an update, and
// there are ever more of them: a long run wants fewer updates.
//
// With KAVPLAT_CHURN_FRU_FAILS every read of FRU data fails, of which the module logs
// a line each.
//
// With KAVPLAT_CHURN_SENSORS each of the units that stay has so many sensors, of
// which a reading takes KAVPLAT_CHURN_SENSOR_MS milliseconds.
//
// Environment: KAVPLAT_CHURN_EVENTS_PER_SECOND (0: none), KAVPLAT_CHURN_STABLE,
// KAVPLAT_CHURN_COUNT (a file that is told, as a number, how many events were
// delivered), KAVPLAT_CHURN_DISCONNECT (every how many events the connection is
// lost; 0: never).
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "platform/capi.h"
#include "platform/event_mgr.h"

namespace
{

constexpr uint32_t type_system = CAPI_TYPE_SYSTEM;
constexpr uint32_t type_unit = 60;
constexpr uint32_t type_sensor = 16;
constexpr size_t most_units = 40; // that come and go

unsigned setting(const char *name, unsigned otherwise)
{
    const char *text = getenv(name);
    return text != nullptr ? static_cast<unsigned>(strtoul(text, nullptr, 10)) : otherwise;
}

struct unit {
    uint32_t index;
    uint32_t sensors;
};

struct world {
    std::mutex mutex;
    std::deque<unit> units;
    uint32_t next_index = 1;
    uint32_t stable = 0;
    event_mgr_callback callback = nullptr;
    void *context = nullptr;
    bool is_running = false;
};

// Never destroyed: the thread runs as long as the process.
world &the_world()
{
    static world *w = [] {
        auto *made = new world;
        made->stable = setting("KAVPLAT_CHURN_STABLE", 20);
        made->next_index = 2; // "/SYS" is 1
        const unsigned sensors = setting("KAVPLAT_CHURN_SENSORS", 0);
        for (uint32_t i = 0; i < made->stable; i++) {
            made->units.push_back({made->next_index, sensors});
            made->next_index += 1 + sensors;
        }
        return made;
    }();
    return *w;
}

std::string unit_name(uint32_t index)
{
    return "/SYS/U" + std::to_string(index);
}

std::string sensor_name(const unit &u, uint32_t number)
{
    return unit_name(u.index) + "/T" + std::to_string(u.index + 1 + number);
}

uint32_t number_behind(const char *name)
{
    const char *end = name + strlen(name);
    const char *digits = end;
    while (digits > name && digits[-1] >= '0' && digits[-1] <= '9') {
        digits--;
    }
    return static_cast<uint32_t>(strtoul(digits, nullptr, 10));
}

struct listed {
    std::string name;
    uint32_t type;
};

void list_unit(const unit &u, std::vector<listed> &all)
{
    all.push_back({unit_name(u.index), type_unit});
    for (uint32_t i = 0; i < u.sensors; i++) {
        all.push_back({sensor_name(u, i), type_sensor});
    }
}

std::vector<listed> list(world &w, const std::string &top)
{
    std::vector<listed> all;
    if (top == "/SYS") {
        all.push_back({"/SYS", type_system});
    }
    for (const unit &u : w.units) {
        if (top == "/SYS" || top == unit_name(u.index)) {
            list_unit(u, all);
        }
    }
    return all;
}

unit new_unit(world &w, std::mt19937 &random)
{
    unit u = {w.next_index, static_cast<uint32_t>(random() % 3)};
    w.next_index += 1 + u.sensors;
    w.units.push_back(u);
    return u;
}

struct event {
    int event_class;
    int number;
    std::string payload;
};

// What happens next, already true when it is told.
event next_event(world &w, unsigned long count, unsigned update, std::mt19937 &random)
{
    const std::lock_guard lock(w.mutex);
    const size_t there = w.units.size() - w.stable;
    if (count % update == update - 1) {
        new_unit(w, random);
        return {EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_UPDATE_INVENTORY, "/SYS"};
    }
    if (count % 10 == 9) {
        for (const unit &u : w.units) {
            if (u.sensors != 0) {
                return {EVENT_MGR_CLASS_INTERNAL, EVENT_MGR_REFRESH_SENSOR, sensor_name(u, 0)};
            }
        }
    }
    if (there < 2 || (there < most_units && random() % 2 == 0)) {
        return {EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_HOT_INSERT,
                unit_name(new_unit(w, random).index)};
    }
    const auto gone = w.units.begin() + static_cast<long>(w.stable + random() % there);
    const std::string name = unit_name(gone->index);
    w.units.erase(gone);
    return {EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_HOT_REMOVE, name};
}

void churn(unsigned events_per_second)
{
    world &w = the_world();
    std::mt19937 random(7);
    const char *told = getenv("KAVPLAT_CHURN_COUNT");
    const unsigned update = setting("KAVPLAT_CHURN_UPDATE", 25);
    const unsigned disconnect = setting("KAVPLAT_CHURN_DISCONNECT", 0);
    auto next = std::chrono::steady_clock::now();
    for (unsigned long count = 0;; count++) {
        event_mgr_callback callback = nullptr;
        void *context = nullptr;
        {
            const std::lock_guard lock(w.mutex);
            callback = w.callback;
            context = w.context;
        }
        const event e = next_event(w, count, update, random);
        callback(context, e.event_class, e.number, e.payload.c_str());
        if (disconnect != 0 && count % disconnect == disconnect - 1) {
            // Who hears it subscribes again; events go on meanwhile.
            callback(context, EVENT_MGR_CLASS_CONNECTION, EVENT_MGR_DISCONNECT, nullptr);
        }
        if (told != nullptr && count % 20 == 0) {
            if (FILE *out = fopen(told, "w")) {
                fprintf(out, "%lu\n", count);
                fclose(out);
            }
        }
        next += std::chrono::microseconds(1'000'000 / events_per_second);
        std::this_thread::sleep_until(next);
    }
}

} // namespace

extern "C" {

int capi_get_inventory(const char *nac_name, int mode, uint32_t *count,
                       capi_inventory_record **items)
{
    world &w = the_world();
    std::vector<listed> all;
    if (mode == CAPI_INVENTORY_ROOT) {
        all = {{"/", type_system}, {"/SYS", type_system}};
    } else {
        const std::lock_guard lock(w.mutex);
        all = list(w, nac_name);
    }
    if (all.empty()) {
        return -1;
    }
    // The names stand behind the records, in the same block.
    size_t size = all.size() * sizeof(capi_inventory_record);
    for (const listed &l : all) {
        size += l.name.size() + 1;
    }
    auto *records = static_cast<capi_inventory_record *>(calloc(1, size));
    auto *text = reinterpret_cast<char *>(records + all.size());
    for (size_t i = 0; i < all.size(); i++) {
        memcpy(text, all[i].name.c_str(), all[i].name.size() + 1);
        records[i].nac_name = text;
        records[i].nac_name_length = static_cast<uint32_t>(all[i].name.size());
        records[i].component_type = all[i].type;
        records[i].capabilities[CAPI_CAP_FRU_INFO_BYTE] = CAPI_CAP_FRU_INFO;
        text += all[i].name.size() + 1;
    }
    *count = static_cast<uint32_t>(all.size());
    *items = records;
    return 0;
}

void capi_free_inventory(capi_inventory_record *items, uint32_t)
{
    free(items);
}

int capi_get_component_desc_str(uint32_t, const char **text)
{
    *text = "a unit of the churning platform";
    return 0;
}

int capi_is_sensor_type(uint32_t component_type, int32_t *flag)
{
    *flag = component_type == type_sensor ? 1 : 0;
    return 0;
}

int capi_is_indicator_type(uint32_t, int32_t *flag)
{
    *flag = 0;
    return 0;
}

int capi_get_sensor(int, const char *nac_name, capi_sensor_record *record)
{
    static const unsigned slowness = setting("KAVPLAT_CHURN_SENSOR_MS", 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(slowness));
    return capi_get_sensor_info(nac_name, CAPI_SENSOR_INFO_ALL, record);
}

int capi_get_sensor_info(const char *nac_name, int, capi_sensor_record *record)
{
    *record = {};
    snprintf(record->name, sizeof record->name, "%s", nac_name);
    record->sensor_class = CAPI_SENSOR_THRESHOLD;
    record->sensor_type = CAPI_SENSOR_TEMPERATURE;
    record->units = CAPI_UNITS_DEGREES_C;
    record->reading = 21.5F;
    record->upper_critical = static_cast<float>(number_behind(nac_name) % 1000);
    record->flags = CAPI_UPPER_CRITICAL_VALID;
    return 0;
}

int capi_is_sensor_with_OK_semantics(const void *)
{
    return 0;
}

int capi_get_indicator(int, const char *, capi_indicator_record *)
{
    return -1;
}

int capi_get_power_state(int, const char *, int32_t *)
{
    return -1;
}

int capi_get_rdy2rm_status(int, const char *, int32_t *)
{
    return -1;
}

int capi_get_enable_disable_state(const char *, int32_t *, char *, int)
{
    return -1;
}

int capi_get_fru_info(const char *nac_name, capi_fru_record *record)
{
    static const bool fails = setting("KAVPLAT_CHURN_FRU_FAILS", 0) != 0;
    if (fails) {
        return -1;
    }
    *record = {};
    snprintf(record->serial, sizeof record->serial, "SN%u", number_behind(nac_name));
    snprintf(record->model, sizeof record->model, "MODEL%u", number_behind(nac_name));
    return 0;
}

int capi_get_product_ops_info(int, capi_product_record *record)
{
    *record = {};
    strcpy(record->description, "the churning server");
    return 0;
}

int capi_get_chassis_ops_info(capi_chassis_record *record)
{
    *record = {};
    return 0;
}

int capi_get_product_vantor_id(char *, int)
{
    return -1;
}

int capi_get_chassis_vantor_id(char *, int)
{
    return -1;
}

int event_mgr_get_handle(event_mgr_handle *handle, event_mgr_callback callback, void *context)
{
    world &w = the_world();
    const std::lock_guard lock(w.mutex);
    w.callback = callback;
    w.context = context;
    *handle = 1;
    return 0;
}

int event_mgr_subscribe_event_class(event_mgr_handle, int)
{
    return 0;
}

int event_mgr_subscribe_event(event_mgr_handle, int event_class, int)
{
    const unsigned rate = setting("KAVPLAT_CHURN_EVENTS_PER_SECOND", 0);
    world &w = the_world();
    const std::lock_guard lock(w.mutex);
    // The disconnect is what the module subscribes last.
    if (event_class == EVENT_MGR_CLASS_CONNECTION && rate != 0 && !w.is_running) {
        w.is_running = true;
        std::thread(churn, rate).detach();
    }
    return 0;
}

} // extern "C"

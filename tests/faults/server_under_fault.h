/*
 * One life of the cache, with a failure somewhere in it: a server of every kind of
 * component is built, changed by events and asked, over and over the same.
 */
#ifndef KAVPLAT_TESTS_FAULTS_SERVER_UNDER_FAULT_H
#define KAVPLAT_TESTS_FAULTS_SERVER_UNDER_FAULT_H

#include "entityMIB/entityMIB.h"
#include "kavPlatMIB/kavPlatMIB.h"
#include "monitor/monitor.h"
#include "rooms/cache_fixture.h"
#include "rooms/local_agent.h"

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

class server_under_fault : public cache_test
{
  protected:
    static constexpr uint32_t sensor_type = 30;
    static constexpr uint32_t indicator_type = 110;
    static constexpr const char *entity_root = "1.3.6.1.2.1.47.1.1.1";
    static constexpr const char *platform_root = "1.3.6.1.4.1.58213";
    static constexpr const char *name_column = "1.3.6.1.2.1.47.1.1.1.1.7.";

    server_under_fault()
    {
        local_agent::get();
        registrations_.emplace();
        kavplat_register_all();
        describe();
    }
    ~server_under_fault() override { registrations_.reset(); }

    // Every call of the platform is made for one of these.
    void describe()
    {
        const auto server = platform.locked();
        const fake_capability fru = {CAPI_CAP_FRU_INFO_BYTE, CAPI_CAP_FRU_INFO};
        const fake_capability replaceable = {CAPI_CAP_FIELD_REPLACEABLE_BYTE,
                                             CAPI_CAP_FIELD_REPLACEABLE};
        const fake_capability enable = {CAPI_CAP_ENABLE_STATE_BYTE, CAPI_CAP_ENABLE_STATE};
        const fake_capability holder = {CAPI_CAP_HOLDER_BYTE, CAPI_CAP_HOLDER};
        const fake_capability power = {CAPI_CAP_POWER_BYTE, CAPI_CAP_POWER_READABLE};
        constexpr uint32_t board = 9;
        constexpr uint32_t fan = 12;
        server->components = {
            component("/SYS", CAPI_TYPE_SYSTEM, {fru}),
            component("/SYS/MIDPLANE", CAPI_TYPE_MIDPLANE),
            component("/SYS/MB", board, {fru, replaceable, enable}),
            component("/SYS/MB/T0", sensor_type),
            component("/SYS/MB/PRSNT", sensor_type),
            component("/SYS/HDD0", CAPI_TYPE_DRIVE_BAY, {holder, power}),
            component("/SYS/HDD0/PRSNT", sensor_type),
            component("/SYS/FAN0", fan, {replaceable}),
            component("/SYS/OK", indicator_type),
        };
        for (const char *name : {"/SYS", "/SYS/MB", "/SYS/MB1"}) {
            set_text(server->frus[name].model, "a model");
            set_text(server->frus[name].serial, "a serial");
        }
        server->sensor_types = {sensor_type};
        server->indicator_types = {indicator_type};
        server->sensors["/SYS/MB/T0"] = threshold_sensor(CAPI_SENSOR_TEMPERATURE, 21.5F);
        server->sensors["/SYS/MB1/T0"] = threshold_sensor(CAPI_SENSOR_TEMPERATURE, 22.5F);
        server->sensors["/SYS/MB/PRSNT"] = discrete_sensor(CAPI_SENSOR_PRESENCE, 2.0F);
        server->sensors["/SYS/HDD0/PRSNT"] = discrete_sensor(CAPI_SENSOR_VOLTAGE, 2.0F);
        server->indicators["/SYS/OK"] = indicator(CAPI_INDICATOR_ON);
        for (const char *name : {"/SYS/MB", "/SYS/MB1"}) {
            server->ready_to_remove[name] = CAPI_NOT_READY_TO_REMOVE;
            server->enable_states[name] = {CAPI_DISABLED, "why"};
        }
        server->power_states["/SYS/FAN0"] = CAPI_POWER_ON;
        server->power_states["/SYS/HDD0"] = CAPI_POWER_ON;
        set_text(server->product.serial, "a product");
        set_text(server->chassis.serial, "a chassis");
        server->lists["/SYS/MB1"] = {component("/SYS/MB1", board, {fru, replaceable, enable}),
                                     component("/SYS/MB1/T0", sensor_type)};
        server->lists["/SYS/MANY"] = {component("/SYS/MANY", plain)};
        // Enough for the slots and the index by name to grow. Nobody asks for them:
        // they would be most of each walk and tell nothing more.
        for (int i = 0; i < 40; i++) {
            server->lists["/SYS/MANY"].push_back(
                component(("/SYS/MANY/C" + std::to_string(i)).c_str(), plain));
        }
    }

    // The indexes that are free after a life: those of /SYS/MANY and the first ones
    // of /SYS/MB1.
    static constexpr long holes = 41 + 2;

    // Everything that can happen to a cache, with the requests in between.
    void live()
    {
        init_local_cache();
        ask();
        plug({"/SYS/NEW"});
        event(EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_UPDATE_INVENTORY, "/SYS");
        unplug("/SYS/NEW");
        event(EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_HOT_INSERT, "/SYS/MANY");
        event(EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_HOT_REMOVE, "/SYS/MANY");
        event(EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_HOT_INSERT, "/SYS/MB1");
        ask();
        event(EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_HOT_REMOVE, "/SYS/MB1");
        event(EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_HOT_INSERT, "/SYS/MB1");
        event(EVENT_MGR_CLASS_INTERNAL, EVENT_MGR_REFRESH_SENSOR, "/SYS/MB/T0");
        ask();
    }

    static void event(int event_class, int number, const char *payload)
    {
        evtmgr_callback(nullptr, event_class, number, payload);
    }

    // A walk of both subtrees: it comes to its end in ascending order, which
    // local_agent looks at, and shows no row that never was.
    std::vector<answered_varbind> ask()
    {
        std::vector<answered_varbind> found = local_agent::get().walk(entity_root);
        for (const answered_varbind &each : found) {
            if (each.name.starts_with(name_column)) {
                EXPECT_TRUE(was_listed(each.value.octets)) << each.value.octets;
            }
        }
        const std::vector<answered_varbind> more = local_agent::get().walk(platform_root);
        found.insert(found.end(), more.begin(), more.end());
        return found;
    }

    bool was_listed(const std::string &name)
    {
        const auto server = platform.locked();
        const auto is_in = [&](const std::vector<fake_component> &list) {
            return std::ranges::any_of(list,
                                       [&](const fake_component &c) { return c.name == name; });
        };
        return is_in(server->components) || is_in(server->lists["/SYS/MB1"]) ||
               is_in(server->lists["/SYS/MANY"]) || name == "/SYS/NEW";
    }

    static size_t complaints(const agent_log &log)
    {
        return static_cast<size_t>(std::ranges::count_if(
            log.records(), [](const log_record &r) { return r.priority <= LOG_WARNING; }));
    }

    static bool log_names(const agent_log &log, const std::string &what)
    {
        return std::ranges::any_of(log.records(), [&](const log_record &r) {
            return r.priority <= LOG_WARNING && r.text.find(what) != std::string::npos;
        });
    }

  private:
    static void kavplat_register_all()
    {
        // Its monitor thread is the test itself.
        fake_system::on_pthread_create.set([](pthread_t *, const pthread_attr_t *,
                                              fake_system::thread_body, void *) { return 0; });
        init_entityMIB();
        init_kavPlatMIB();
        fake_system::on_pthread_create.clear();
    }

    std::optional<local_registrations> registrations_;
};

#endif

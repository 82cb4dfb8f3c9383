// A call of the platform that fails: whatever status it gives and whatever it leaves
// in its outputs, nothing of it is taken over.

#include <climits>

#include "kavdata/measure.h"
#include "kavdata/severity.h"
#include "rooms/platform_tables.h"

namespace
{

using strings = std::vector<std::string>;

constexpr int statuses[] = {-1, 1, 256, INT_MIN};

enum class left { nothing, garbage, an_answer };

class failing_calls : public platform_table_test
{
  protected:
    static constexpr uint32_t sensor_type = 30;
    static constexpr uint32_t indicator_type = 31;
    static constexpr fake_capability fru_info = {CAPI_CAP_FRU_INFO_BYTE, CAPI_CAP_FRU_INFO};
    static constexpr fake_capability replaceable = {CAPI_CAP_FIELD_REPLACEABLE_BYTE,
                                                    CAPI_CAP_FIELD_REPLACEABLE};

    // One of each that is asked for something. With `other` all answers differ.
    void set_server(bool other)
    {
        const auto server = platform.locked();
        server->components = {
            component("/SYS", CAPI_TYPE_SYSTEM, {fru_info}),
            component("/SYS/MID", CAPI_TYPE_MIDPLANE),
            component("/SYS/T0", sensor_type),
            component("/SYS/PRSNT", sensor_type),
            component("/SYS/LED", indicator_type),
            component("/SYS/HDD0", CAPI_TYPE_DRIVE_BAY, {{CAPI_CAP_HOLDER_BYTE, CAPI_CAP_HOLDER}}),
            component("/SYS/PS0", 4,
                      {fru_info, replaceable, {CAPI_CAP_ENABLE_STATE_BYTE, CAPI_CAP_ENABLE_STATE}}),
            component("/SYS/PS1", 4, {replaceable})};
        server->sensor_types = {sensor_type};
        server->indicator_types = {indicator_type};
        server->default_description = other ? "another" : "a component";
        capi_sensor_record numeric =
            threshold_sensor(CAPI_SENSOR_TEMPERATURE, other ? 30.5F : 20.5F);
        numeric.upper_fatal = other ? 40.0F : 60.0F;
        numeric.flags = other ? CAPI_UPPER_FATAL_VALID : CAPI_LOWER_FATAL_VALID;
        server->sensors["/SYS/T0"] = numeric;
        server->sensors["/SYS/PRSNT"] = discrete_sensor(CAPI_SENSOR_PRESENCE, other ? 1.0F : 2.0F);
        capi_sensor_record bay = discrete_sensor(CAPI_SENSOR_PRESENCE, 1.0F);
        bay.raw_reading = 1;
        server->sensors["/SYS/HDD0/PRSNT"] = bay;
        server->indicators["/SYS/LED"] = indicator(other ? CAPI_INDICATOR_ON : 77);
        server->meanings["/SYS/LED"] = CAPI_MEANS_FAULT;
        server->interfaces["/SYS/MID"] = "eth0";
        capi_fru_record fru = {};
        set_text(fru.model, "fru model");
        set_text(fru.serial, "fru serial");
        server->frus["/SYS"] = fru;
        server->frus["/SYS/PS0"] = fru;
        set_text(server->product.model, "product model");
        set_text(server->chassis.model, "chassis model");
        server->enable_states["/SYS/PS0"] = {other ? CAPI_ENABLED : CAPI_DISABLED, "why"};
        server->ready_to_remove["/SYS/PS0"] =
            other ? CAPI_NOT_READY_TO_REMOVE : CAPI_READY_TO_REMOVE;
        server->power_states["/SYS/PS1"] = other ? CAPI_POWER_SHUTTING_DOWN : CAPI_POWER_OFF;
        server->fail = {};
        server->answer_on_failure = false;
    }

    void fail(const char *call, int status, left what)
    {
        platform->fail[call] = status;
        platform->spoil_on_failure = what == left::garbage;
        platform->answer_on_failure = what == left::an_answer;
    }

    // Every column of every table, what the standard's tables have of the rows, and what
    // the rows are then.
    strings all_served()
    {
        strings all;
        for (size_t i = 0; i < registered_tables; i++) {
            const platform_table &table = platform_tables[i];
            for (const uint32_t index : indexes_of(table)) {
                for (unsigned column = table.min_column; column <= table.max_column; column++) {
                    const snmp_value value =
                        served(table.handler, column, kavplat::entry_at(index));
                    all.push_back(text_of("%s.%u.%u %lld ", table.name, column, index,
                                          static_cast<long long>(value.number)) +
                                  value.octets);
                }
            }
        }
        for (uint32_t index = 1; index <= getMaxPhysicalIndex(); index++) {
            const cache_lock_held lock;
            if (phys_entry *entry = kavplat::entry_at(index)) {
                kavplat::look_at_states(*entry);
                const entity_states states = kavplat::states_of(*entry);
                all.push_back(text_of("%u: %d %d %d %d 0x%x, %d %d %d %s", index, states.admin,
                                      states.oper, states.usage, states.standby, states.alarm,
                                      static_cast<int>(kavplat::status_of(*entry)),
                                      kavplat::value_of(*entry),
                                      kavplat::severity_at_last_look(*entry),
                                      entry->interfaceName ? entry->interfaceName : "none"));
            }
        }
        for (std::string &row : images()) {
            all.push_back(std::move(row));
        }
        return all;
    }

    // What is served where a call fails while the cache is built and from then on.
    strings when_built_and_served(const char *call = nullptr, int status = 0,
                                  left what = left::nothing)
    {
        reset();
        set_server(false);
        if (call) {
            fail(call, status, what);
        }
        const agent_log log; // keeps the messages off the terminal
        init_local_cache();
        return all_served();
    }

    // What is served where it fails from some time on, when all answers have changed.
    strings when_served_again(const char *call = nullptr, int status = 0, left what = left::nothing)
    {
        when_built_and_served();
        set_server(true);
        if (call) {
            fail(call, status, what);
        }
        fake_system::set_uptime(uptime + 1000);
        const agent_log log;
        reload_thresholds("/SYS/T0");
        strings all = all_served();
        fake_system::set_uptime(uptime);
        return all;
    }
};

TEST_F(failing_calls, give_nothing_but_their_status)
{
    struct {
        const char *call;
        bool matters_to_the_build;
        bool matters_later;
    } const cases[] = {
        {"capi_get_component_desc_str", true, false},
        {"capi_is_sensor_type", true, false},
        {"capi_is_indicator_type", true, false},
        {"capi_get_sensor_info", true, true},
        {"capi_get_sensor", true, true},
        {"capi_get_indicator", true, true},
        {"capi_get_fru_info", true, false},
        {"capi_get_product_ops_info", true, false},
        {"capi_get_chassis_ops_info", true, false},
        {"capi_get_product_vantor_id", true, false},
        {"capi_get_chassis_vantor_id", true, false},
        {"capi_get_enable_disable_state", true, true},
        {"capi_get_rdy2rm_status", true, true},
        {"capi_get_power_state", true, true},
        {"capi_get_indicator_meaning", true, false},
        {"capi_get_interface_name", true, false},
    };
    const strings built = when_built_and_served();
    const strings later = when_served_again();
    ASSERT_NE(built, later);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.call);
        const strings built_without = when_built_and_served(c.call, -1);
        const strings later_without = when_served_again(c.call, -1);
        EXPECT_EQ(built_without != built, c.matters_to_the_build);
        EXPECT_EQ(later_without != later, c.matters_later);
        for (const int status : statuses) {
            for (const left what : {left::nothing, left::garbage, left::an_answer}) {
                EXPECT_EQ(when_built_and_served(c.call, status, what), built_without)
                    << status << " " << static_cast<int>(what);
                EXPECT_EQ(when_served_again(c.call, status, what), later_without)
                    << status << " " << static_cast<int>(what);
            }
        }
    }
}

TEST_F(failing_calls, of_the_inventory_leave_the_cache_as_it_is)
{
    set_server(false);
    init_local_cache();
    const strings before = images();
    const hashtable *names = htab;
    phys_entry **slots = physicalTable;
    platform->components.push_back(component("/SYS/NEW", plain));
    for (const int status : statuses) {
        for (const left what : {left::nothing, left::garbage, left::an_answer}) {
            SCOPED_TRACE(text_of("%d %d", status, static_cast<int>(what)));
            fail("capi_get_inventory", status, what);
            platform->fail_for["capi_get_inventory"]["/"] = 0;
            const agent_log log;
            insert("/SYS/NEW");
            update("/SYS");
            init_local_cache(); // the cache that was built stays
            EXPECT_EQ(log.texts(LOG_ERR),
                      (strings{"set_fru_prsnt: can not get inventory /SYS/NEW\n",
                               "partial_reconfigure: can not get inventory /SYS\n",
                               "init_local_cache:capi_get_inventory(/SYS) failed\n"}));
            platform->fail_for["capi_get_inventory"]["/"] = status;
            EXPECT_EQ(make_root_nacname(1), 0);
        }
    }
    EXPECT_EQ(images(), before);
    EXPECT_EQ(htab, names);
    EXPECT_EQ(physicalTable, slots);
    EXPECT_EQ(cache_valid, 1);
    EXPECT_EQ(entLastChangeTime, 0U);
    EXPECT_TRUE(platform.all_lists_released());
    expect_consistent();
}

} // namespace

/*
 * The platform of a test: every call of platform/capi.h and
 * platform/event_mgr.h, answered from plain data that the test sets.
 *
 *     fake_platform platform;
 *     platform->components = {component("/SYS", CAPI_TYPE_SYSTEM), component("/SYS/T0", 30)};
 *     platform->sensor_types = {30};
 *     platform->sensors["/SYS/T0"] = threshold_sensor(CAPI_SENSOR_TEMPERATURE, 21.5F);
 *     platform->fail_for["capi_get_sensor"]["/SYS/T0"] = -7;
 *     ...
 *     platform.deliver(EVENT_MGR_CLASS_HARDWARE, EVENT_MGR_HOT_REMOVE, "/SYS/T0");
 *     EXPECT_EQ(platform.calls("capi_get_sensor", "/SYS/T0"), 1U);
 *     EXPECT_TRUE(platform.all_lists_released());
 *
 * One object at a time; without one every call fails, and so does one whose
 * reserved argument is not 0. platform-> holds the platform's lock until the end
 * of the full expression, platform.locked() for as long as its result lives; the
 * calls take the same lock, so a test may change the data while other threads
 * call.
 */
#ifndef KAVPLAT_TESTS_FAKES_FAKE_PLATFORM_H
#define KAVPLAT_TESTS_FAKES_FAKE_PLATFORM_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "platform/capi.h"
#include "platform/event_mgr.h"

struct fake_component {
    std::optional<std::string> name; /* nothing: a null name of length 0 */
    uint32_t type = 0;
    std::array<uint8_t, 10> capabilities = {};
    std::optional<uint32_t> told_length; /* of the name; nothing: its length */
};

struct fake_enable_state {
    int32_t state = CAPI_ENABLED;
    std::string why;
};

struct fake_call {
    std::string function;
    /* The NAC name; the type in decimal; the length of a vantor id's buffer; of
     * the event manager "class" or "class,event"; else empty. */
    std::string name;
    std::thread::id thread;
};

struct fake_server {
    /* ---- Inventory ---- */

    /* In the order in which they are listed. A subtree has the component of that
     * name and those below it. Nameless ones are listed with the first
     * component, with "/" and where lists says so. */
    std::vector<fake_component> components;
    /* The exact answer to mode CAPI_INVENTORY_SUBTREE of a name. */
    std::map<std::string, std::vector<fake_component>> lists;
    /* The exact answer to mode CAPI_INVENTORY_ROOT, else "/" and the first
     * component, or "/" alone when there is none. */
    std::optional<std::vector<fake_component>> root_list;
    /* The count told, whatever the list holds. */
    std::optional<uint32_t> count_override;
    std::optional<uint32_t> root_count_override;
    bool null_list_when_empty = false;
    /* So many calls of capi_get_inventory fail first. */
    unsigned inventory_after = 0;

    /* ---- Component types ---- */

    /* Nothing: a null text. A type that is not here has default_description. */
    std::map<uint32_t, std::optional<std::string>> descriptions;
    std::string default_description = "a component";
    std::set<uint32_t> sensor_types;
    std::set<uint32_t> indicator_types;

    /* ---- By NAC name; a name that is not here fails with -1 ---- */

    std::map<std::string, capi_sensor_record> sensors;
    /* Of a sensor that is not here, its record in sensors. */
    std::map<std::string, capi_sensor_record> sensor_infos;
    std::map<std::string, capi_indicator_record> indicators;
    std::map<std::string, capi_fru_record> frus;
    std::map<std::string, int32_t> power_states;
    std::map<std::string, int32_t> ready_to_remove;
    std::map<std::string, fake_enable_state> enable_states;
    std::map<std::string, std::string> interfaces;
    std::map<std::string, int32_t> meanings; /* of indicators */
    std::set<std::string> ok_semantics;      /* others answer 0 */

    /* ---- The whole ---- */

    capi_product_record product = {};
    capi_chassis_record chassis = {};
    std::string product_vantor_id = "product-id";
    std::string chassis_vantor_id = "chassis-id";

    /* ---- Failures ---- */

    /* Status of a call, whatever its arguments: fail["capi_get_sensor"] = -3. */
    std::map<std::string, int> fail;
    /* The same for one name, spelled as fake_call's; goes before fail, so that a 0
     * here excepts the name. */
    std::map<std::string, std::map<std::string, int>> fail_for;
    /* A failed call spoils its output arguments, which the contract allows, or
     * leaves in them what it would have answered. Then it hands out a list that is
     * not to be released, too. */
    bool spoil_on_failure = true;
    bool answer_on_failure = false;

    /* ---- Event manager ---- */

    unsigned handle_failures = 0; /* so many calls of event_mgr_get_handle fail first */
    int handle_failure_rc = -1;
    event_mgr_handle next_handle = 1;
    /* Subscription number k since the last handle (1 the first) gives this. */
    std::map<unsigned, int> subscription_failures;

    /* ---- Seen from here ---- */

    bool record_calls = true; /* off for long runs */
    /* Called at the start of each call, on its thread and without the lock. */
    std::function<void(const fake_call &)> on_call;
};

struct fake_subscription {
    event_mgr_handle handle = 0;
    int event_class = 0;
    std::optional<int> event; /* nothing: the class */
    int rc = 0;               /* what the call gave */

    bool operator==(const fake_subscription &) const = default;
};

class fake_platform
{
  public:
    class locked_server
    {
      public:
        explicit locked_server(fake_server &server, std::recursive_mutex &mutex)
            : lock_(mutex), server_(&server)
        {
        }
        fake_server *operator->() const { return server_; }
        fake_server &operator*() const { return *server_; }

      private:
        std::unique_lock<std::recursive_mutex> lock_;
        fake_server *server_;
    };

    fake_platform();
    ~fake_platform();
    fake_platform(const fake_platform &) = delete;
    fake_platform &operator=(const fake_platform &) = delete;

    locked_server operator->() { return locked(); }
    locked_server locked();

    /* ---- What was called ---- */

    std::vector<fake_call> all_calls() const;
    /* Counted whether calls are recorded or not. */
    size_t calls(const std::string &function) const;
    /* Needs record_calls. */
    size_t calls(const std::string &function, const std::string &name) const;
    void forget_calls();

    /* Every list handed out was released once, with the count it was told with,
     * and nothing else was released. */
    testing::AssertionResult all_lists_released() const;
    size_t lists_handed_out() const;

    /* ---- Events ---- */

    /* In order of the calls, failed ones included. */
    std::vector<fake_subscription> subscriptions() const;
    /* The handle last given, 0 when none was. */
    event_mgr_handle handle() const;
    /* What was last handed in beside the callback. */
    void *context() const;
    /* Calls the callback that was last handed in, on this thread, subscribed or
     * not; false when there is none. The payload may be null. */
    bool deliver(int event_class, int event, const char *payload);
    /* The same on a thread of its own, which has ended when this returns. */
    bool deliver_on_thread(int event_class, int event, const char *payload);
};

/* ---- Spelling the data -------------------------------------------------- */

struct fake_capability {
    int byte = 0;
    int mask = 0;
};

/* A component with capabilities such as {CAPI_CAP_HOLDER_BYTE, CAPI_CAP_HOLDER}. */
fake_component component(const char *name, uint32_t type,
                         std::initializer_list<fake_capability> capabilities = {});
fake_component nameless_component(uint32_t type);
capi_sensor_record threshold_sensor(int32_t sensor_type, float reading);
capi_sensor_record discrete_sensor(int32_t sensor_type, float reading);
capi_indicator_record indicator(int32_t state);
/* Copies a text into a field of a record, cut to fit. */
template <size_t Size>
void set_text(char (&field)[Size], const std::string &text)
{
    field[text.copy(field, Size - 1)] = '\0';
}

#endif

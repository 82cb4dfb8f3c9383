/* The entry points of the component API. Nothing throws across them. */
#include "platform/capi.h"

#include "described/format/component_types.h"
#include "described/platform.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>

using namespace described_platform;

namespace
{

constexpr int failure = -1;

template <class Body>
int guarded(Body body)
{
    try {
        return body();
    } catch (...) {
        return failure;
    }
}

/* Calls body with a component of the description in force. */
template <class Body>
int with_component(const char *nac_name, Body body)
{
    if (nac_name == nullptr) {
        return failure;
    }
    return guarded([&] {
        const std::shared_ptr<const description> all = current_description();
        const component *found = all == nullptr ? nullptr : find_component(*all, nac_name);
        return found == nullptr ? failure : body(*found);
    });
}

/* At most size bytes with the NUL. */
void put_text(char *to, size_t size, std::string_view text)
{
    const size_t length = std::min(text.size(), size - 1);
    std::memcpy(to, text.data(), length);
    to[length] = '\0';
}

int put_vantor_id(std::string_view id, char *buffer, int length)
{
    if (buffer == nullptr || length < 1) {
        return failure;
    }
    put_text(buffer, static_cast<size_t>(length), id);
    return 0;
}

/* Whether a product without a vantor id has an alias that the empty one would
 * replace. */
bool has_alias_of_product(const description &all)
{
    return std::ranges::any_of(all.components, [](const component &each) {
        return (each.type == CAPI_TYPE_CHASSIS || each.type == CAPI_TYPE_SYSTEM) && each.fru &&
               !each.fru->alias.empty();
    });
}

int read_code(const component &of, const char *key, const rare<live_value> &value, int32_t *code)
{
    if (!value || code == nullptr) {
        return failure;
    }
    live_reading reading{&*value};
    the_machine().values.read({&reading, 1});
    the_machine().health.note(of.name, key, reading);
    if (!reading.result) {
        return failure;
    }
    *code = static_cast<int32_t>(*reading.result);
    return 0;
}

capi_sensor_record record_of(const sensor &from)
{
    capi_sensor_record record{};
    put_text(record.name, sizeof record.name, from.record_name);
    record.sensor_class = from.sensor_class;
    record.sensor_type = from.sensor_type;
    record.units = from.units;
    record.upper_fatal = from.thresholds[upper_fatal];
    record.upper_critical = from.thresholds[upper_critical];
    record.upper_non_critical = from.thresholds[upper_non_critical];
    record.lower_fatal = from.thresholds[lower_fatal];
    record.lower_critical = from.thresholds[lower_critical];
    record.lower_non_critical = from.thresholds[lower_non_critical];
    record.flags = from.flags;
    return record;
}

/* A numeric reading that equals the raw one is served as a whole number, and the
 * limits are left cut to whole numbers with it. So 0.0 beside limits that are not
 * whole is to differ from it. */
uint8_t raw_reading_of_0(const sensor &from)
{
    return std::ranges::any_of(from.thresholds,
                               [](float limit) { return limit != std::trunc(limit); })
               ? 1
               : 0;
}

int read_sensor(const component &of, capi_sensor_record &record)
{
    const sensor &from = *of.sensor;
    enum { valid, reading, raw, state };
    static constexpr const char *keys[] = {"sensor.valid", "sensor.reading", "sensor.raw_reading",
                                           "sensor.state"};
    live_reading values[] = {
        {from.valid.get()}, {&from.reading}, {from.raw_reading.get()}, {from.state.get()}};
    the_machine().values.read(values);
    record = record_of(from);
    /* What an invalid sensor reads is of no account, nor whether it can be read. */
    const bool is_invalid = values[valid].result == 0.0;
    bool failed = false;
    for (size_t i = 0; i < (is_invalid ? 1U : std::size(values)); ++i) {
        if (values[i].value != nullptr) {
            the_machine().health.note(of.name, keys[i], values[i]);
            failed = failed || !values[i].result;
        }
    }
    if (failed) {
        return failure;
    }
    record.reading_status = is_invalid ? CAPI_READING_INVALID : CAPI_READING_VALID;
    record.reading = static_cast<float>(values[reading].result.value_or(0.0));
    record.state = static_cast<float>(values[state].result.value_or(0.0));
    if (from.raw_reading) {
        record.raw_reading = static_cast<uint8_t>(values[raw].result.value_or(0.0));
    } else if (from.sensor_class == CAPI_SENSOR_DISCRETE) {
        record.raw_reading = values[reading].result == reading_asserted ? 2 : 1;
    } else if (record.reading == 0.0F) {
        record.raw_reading = raw_reading_of_0(from);
    }
    return 0;
}

/* One block, names behind the records, so that a list costs one allocation. */
int make_list(std::span<const component> components, bool with_top, uint32_t *count,
              capi_inventory_record **items)
{
    static constexpr std::string_view top = "/";
    const size_t records = components.size() + (with_top ? 1 : 0);
    size_t size = records * sizeof(capi_inventory_record) + (with_top ? top.size() + 1 : 0);
    for (const component &each : components) {
        size += each.name.size() + 1;
    }
    char *block = static_cast<char *>(std::calloc(1, size));
    if (block == nullptr) {
        return failure;
    }
    char *names = block + records * sizeof(capi_inventory_record);
    auto *record = reinterpret_cast<capi_inventory_record *>(block);
    *items = record;
    *count = static_cast<uint32_t>(records);
    const auto put_name = [&](std::string_view name) {
        record->nac_name = names;
        record->nac_name_length = static_cast<uint32_t>(name.size());
        put_text(names, name.size() + 1, name);
        names += name.size() + 1;
    };
    if (with_top) {
        put_name(top);
        ++record;
    }
    for (const component &each : components) {
        put_name(each.name);
        std::ranges::copy(each.capabilities, record->capabilities);
        record->component_type = each.type;
        ++record;
    }
    return 0;
}

} // namespace

int capi_get_inventory(const char *nac_name, int mode, uint32_t *count,
                       struct capi_inventory_record **items)
{
    if (nac_name == nullptr || count == nullptr || items == nullptr) {
        return failure;
    }
    return guarded([&] {
        machine &owner = the_machine();
        if (!owner.events.watching()) {
            owner.file.read({.even_if_unchanged = false, .complain = true});
        }
        const std::shared_ptr<const description> all = current_description();
        if (all == nullptr) {
            return failure;
        }
        const std::string_view name = nac_name;
        const std::span components = all->components;
        if (mode == CAPI_INVENTORY_ROOT && name == "/") {
            return make_list(components.first(1), true, count, items);
        }
        if (mode != CAPI_INVENTORY_SUBTREE) {
            return failure;
        }
        size_t first = 0;
        if (name != "/") {
            const auto found = all->by_name.find(name);
            if (found == all->by_name.end()) {
                return failure;
            }
            first = found->second;
        }
        const size_t end = components[first].subtree_end;
        const int status = make_list(components.subspan(first, end - first), false, count, items);
        if (status == 0 && first == 0) {
            owner.events.note_enumeration(all);
        }
        return status;
    });
}

void capi_free_inventory(struct capi_inventory_record *items, uint32_t)
{
    std::free(items);
}

int capi_get_component_desc_str(uint32_t component_type, const char **text)
{
    if (text == nullptr) {
        return failure;
    }
    const struct component_type *type = find_component_type(component_type);
    *text = type == nullptr ? unlisted_component_text() : type->text;
    return 0;
}

int capi_is_sensor_type(uint32_t component_type, int32_t *flag)
{
    if (flag == nullptr) {
        return failure;
    }
    *flag = component_kind_of(component_type) == component_kind::sensor ? 1 : 0;
    return 0;
}

int capi_is_indicator_type(uint32_t component_type, int32_t *flag)
{
    if (flag == nullptr) {
        return failure;
    }
    *flag = component_kind_of(component_type) == component_kind::indicator ? 1 : 0;
    return 0;
}

int capi_get_sensor(int, const char *nac_name, struct capi_sensor_record *record)
{
    return with_component(nac_name, [&](const component &found) {
        return found.sensor == nullptr || record == nullptr ? failure : read_sensor(found, *record);
    });
}

int capi_get_sensor_info(const char *nac_name, int, struct capi_sensor_record *record)
{
    return with_component(nac_name, [&](const component &found) {
        if (found.sensor == nullptr || record == nullptr) {
            return failure;
        }
        *record = record_of(*found.sensor);
        return 0;
    });
}

int capi_is_sensor_with_OK_semantics(const void *sensor)
{
    if (sensor == nullptr) {
        return 0;
    }
    try {
        const std::shared_ptr<const description> all = current_description();
        const struct sensor *found =
            all == nullptr ? nullptr : find_sensor(*all, static_cast<const char *>(sensor));
        return found != nullptr && found->ok_semantics ? 1 : 0;
    } catch (...) {
        return 0;
    }
}

int capi_get_indicator(int, const char *nac_name, struct capi_indicator_record *record)
{
    return with_component(nac_name, [&](const component &found) {
        if (record == nullptr) {
            return failure;
        }
        capi_indicator_record result{};
        const int status = read_code(found, "indicator.state", found.indicator, &result.state);
        if (status == 0) {
            *record = result;
        }
        return status;
    });
}

int capi_get_indicator_meaning(const char *nac_name, int32_t *meaning)
{
    return with_component(nac_name, [&](const component &found) {
        if (found.indicator_meaning == 0 || meaning == nullptr) {
            return failure;
        }
        *meaning = found.indicator_meaning;
        return 0;
    });
}

int capi_get_fru_info(const char *nac_name, struct capi_fru_record *record)
{
    return with_component(nac_name, [&](const component &found) {
        if (!found.fru || record == nullptr) {
            return failure;
        }
        *record = {};
        put_text(record->model, sizeof record->model, found.fru->model);
        put_text(record->manufacturer, sizeof record->manufacturer, found.fru->manufacturer);
        put_text(record->serial, sizeof record->serial, found.fru->serial);
        put_text(record->alias, sizeof record->alias, found.fru->alias);
        put_text(record->software_revision, sizeof record->software_revision,
                 found.fru->software_revision);
        return 0;
    });
}

int capi_get_interface_name(const char *nac_name, char *buffer, int length)
{
    return with_component(nac_name, [&](const component &found) {
        if (found.interface.empty() || buffer == nullptr || length < 1 ||
            found.interface.size() >= static_cast<size_t>(length)) {
            return failure;
        }
        put_text(buffer, static_cast<size_t>(length), found.interface);
        return 0;
    });
}

int capi_get_product_ops_info(int, struct capi_product_record *record)
{
    return guarded([&] {
        const std::shared_ptr<const description> all = current_description();
        if (all == nullptr || !all->product || record == nullptr) {
            return failure;
        }
        *record = {};
        put_text(record->model, sizeof record->model, all->product->model);
        put_text(record->serial, sizeof record->serial, all->product->serial);
        put_text(record->description, sizeof record->description, all->product->description);
        return 0;
    });
}

int capi_get_chassis_ops_info(struct capi_chassis_record *record)
{
    return guarded([&] {
        const std::shared_ptr<const description> all = current_description();
        if (all == nullptr || record == nullptr) {
            return failure;
        }
        *record = {};
        if (!all->chassis) {
            /* All that a midplane without a chassis has is the text of its type. */
            put_text(record->description, sizeof record->description,
                     find_component_type(CAPI_TYPE_MIDPLANE)->text);
            return 0;
        }
        put_text(record->model, sizeof record->model, all->chassis->model);
        put_text(record->serial, sizeof record->serial, all->chassis->serial);
        put_text(record->description, sizeof record->description, all->chassis->description);
        put_text(record->manufacturer, sizeof record->manufacturer, all->chassis->manufacturer);
        return 0;
    });
}

int capi_get_product_vantor_id(char *buffer, int length)
{
    return guarded([&] {
        const std::shared_ptr<const description> all = current_description();
        if (all == nullptr) {
            return failure;
        }
        if (all->product && all->product->vantor_id) {
            return put_vantor_id(*all->product->vantor_id, buffer, length);
        }
        return has_alias_of_product(*all) ? failure : put_vantor_id("", buffer, length);
    });
}

int capi_get_chassis_vantor_id(char *buffer, int length)
{
    return guarded([&] {
        const std::shared_ptr<const description> all = current_description();
        if (all == nullptr) {
            return failure;
        }
        const bool given = all->chassis && all->chassis->vantor_id;
        return put_vantor_id(given ? *all->chassis->vantor_id : std::string(), buffer, length);
    });
}

int capi_get_power_state(int, const char *nac_name, int32_t *state)
{
    return with_component(nac_name, [&](const component &found) {
        return read_code(found, "power", found.power, state);
    });
}

int capi_get_rdy2rm_status(int, const char *nac_name, int32_t *status)
{
    return with_component(nac_name, [&](const component &found) {
        return read_code(found, "ready_to_remove", found.ready_to_remove, status);
    });
}

int capi_get_enable_disable_state(const char *nac_name, int32_t *state, char *buffer, int length)
{
    return with_component(nac_name, [&](const component &found) {
        const int status = read_code(found, "enable", found.enable, state);
        if (status == 0 && buffer != nullptr && length > 0) {
            put_text(buffer, static_cast<size_t>(length),
                     *state == CAPI_DISABLED ? "disabled" : "enabled");
        }
        return status;
    });
}

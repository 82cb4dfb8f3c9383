#include "generated_platform.h"

#include <cstring>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "generated_server.h"
#include "platform/capi.h"

namespace
{

struct generated_inventory {
    std::vector<generated_component> components;
    std::vector<capi_inventory_record> records;
    // Where the list of a component and what is below it ends; it begins with the
    // component.
    std::unordered_map<std::string_view, std::pair<size_t, size_t>> lists;
    capi_inventory_record root_list[2];
};

generated_inventory &inventory()
{
    static generated_inventory the_inventory;
    return the_inventory;
}

// Of no type that the library treats apart.
constexpr uint32_t first_type = 60000;

uint32_t type_of(part kind)
{
    return kind == part::root ? uint32_t{CAPI_TYPE_SYSTEM}
                              : first_type + static_cast<uint32_t>(kind);
}

capi_inventory_record record_of(const generated_component &component)
{
    capi_inventory_record record = {};
    record.nac_name = component.name.c_str();
    record.nac_name_length = static_cast<uint32_t>(component.name.size());
    record.component_type = type_of(component.kind);
    if (component.kind == part::board || component.kind == part::module) {
        record.capabilities[CAPI_CAP_FRU_INFO_BYTE] |= CAPI_CAP_FRU_INFO;
    } else if (component.kind == part::slot) {
        record.capabilities[CAPI_CAP_HOLDER_BYTE] |= CAPI_CAP_HOLDER;
    }
    return record;
}

capi_sensor_record reading(int32_t type)
{
    capi_sensor_record record = {};
    record.sensor_class =
        type == CAPI_SENSOR_PRESENCE ? CAPI_SENSOR_DISCRETE : CAPI_SENSOR_THRESHOLD;
    record.sensor_type = type;
    record.reading = type == CAPI_SENSOR_PRESENCE ? 2.0F : 20.5F;
    record.raw_reading = 2;
    return record;
}

int read_sensor(const char *nac_name, capi_sensor_record *record)
{
    *record = reading(strstr(nac_name, "/PRSNT") ? CAPI_SENSOR_PRESENCE : CAPI_SENSOR_TEMPERATURE);
    return 0;
}

} // namespace

void use_generated_server(size_t size)
{
    generated_inventory &all = inventory();
    all.components = generate_server(size);
    all.records.clear();
    all.lists.clear();
    for (const generated_component &component : all.components) {
        all.records.push_back(record_of(component));
    }
    for (size_t i = 0; i < all.components.size(); i++) {
        const std::string below = all.components[i].name + "/";
        size_t end = i + 1;
        while (end < all.components.size() && all.components[end].name.starts_with(below)) {
            end++;
        }
        all.lists[all.components[i].name] = {i, end};
    }
    all.root_list[0] = {};
    all.root_list[0].nac_name = "/";
    all.root_list[0].nac_name_length = 1;
    all.root_list[1] = all.records[0];
}

extern "C" {

int capi_get_inventory(const char *nac_name, int mode, uint32_t *count,
                       struct capi_inventory_record **items)
{
    generated_inventory &all = inventory();
    if (mode == CAPI_INVENTORY_ROOT) {
        *count = 2;
        *items = all.root_list;
        return 0;
    }
    const auto found = all.lists.find(nac_name);
    if (found == all.lists.end()) {
        return -1;
    }
    const auto [first, end] = found->second;
    *count = static_cast<uint32_t>(end - first);
    *items = &all.records[first];
    return 0;
}

void capi_free_inventory(struct capi_inventory_record *, uint32_t) {}

int capi_get_component_desc_str(uint32_t, const char **text)
{
    *text = "A generated component";
    return 0;
}

int capi_is_sensor_type(uint32_t component_type, int32_t *flag)
{
    *flag = component_type == type_of(part::numeric_sensor) ||
            component_type == type_of(part::binary_sensor);
    return 0;
}

int capi_is_indicator_type(uint32_t component_type, int32_t *flag)
{
    *flag = component_type == type_of(part::indicator);
    return 0;
}

int capi_get_sensor(int, const char *nac_name, struct capi_sensor_record *record)
{
    return read_sensor(nac_name, record);
}

int capi_get_sensor_info(const char *nac_name, int, struct capi_sensor_record *record)
{
    return read_sensor(nac_name, record);
}

int capi_is_sensor_with_OK_semantics(const void *)
{
    return 0;
}

int capi_get_indicator(int, const char *, struct capi_indicator_record *record)
{
    *record = {};
    record->state = CAPI_INDICATOR_OFF;
    return 0;
}

int capi_get_power_state(int, const char *, int32_t *state)
{
    *state = CAPI_POWER_ON;
    return 0;
}

int capi_get_rdy2rm_status(int, const char *, int32_t *status)
{
    *status = CAPI_NOT_READY_TO_REMOVE;
    return 0;
}

int capi_get_enable_disable_state(const char *, int32_t *state, char *, int)
{
    *state = CAPI_ENABLED;
    return 0;
}

int capi_get_fru_info(const char *, struct capi_fru_record *record)
{
    *record = {};
    strcpy(record->model, "GP-BOARD");
    strcpy(record->manufacturer, "Generated Parts");
    strcpy(record->serial, "GP-100000");
    return 0;
}

int capi_get_product_ops_info(int, struct capi_product_record *record)
{
    *record = {};
    strcpy(record->model, "GP-1");
    return 0;
}

int capi_get_chassis_ops_info(struct capi_chassis_record *record)
{
    *record = {};
    return 0;
}

int capi_get_product_vantor_id(char *buffer, int)
{
    buffer[0] = '\0';
    return 0;
}

int capi_get_chassis_vantor_id(char *buffer, int)
{
    buffer[0] = '\0';
    return 0;
}

} // extern "C"

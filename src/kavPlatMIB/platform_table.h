// What the platform tables have in common.
#ifndef KAVPLAT_KAVPLATMIB_PLATFORM_TABLE_H
#define KAVPLAT_KAVPLATMIB_PLATFORM_TABLE_H

#include "kavdata/codes.h"
#include "kavPlatMIB/kavPlatMIB.h"
#include "table/table.h"

namespace kavplat
{

// kavPlatMIBObjects.arc; an argument of a type that the library does not own would
// export it.
template <oid Arc>
[[gnu::visibility("hidden")]] inline constexpr oid platform_oid[] = {1, 3,  6,   1, 4, 1,  58213,
                                                                     2, 70, 101, 1, 1, Arc};

extern const table kavPlatEquipmentTable;
extern const table kavPlatEquipmentHolderTable;
extern const table kavPlatCircuitPackTable;
extern const table kavPlatPhysicalTable;
extern const table kavPlatSensorTable;
extern const table kavPlatBinarySensorTable;
extern const table kavPlatNumericSensorTable;
extern const table kavPlatDiscreteSensorTable;
extern const table kavPlatDiscreteSensorStatesTable;
extern const table kavPlatFanTable;
extern const table kavPlatAlarmTable;
extern const table kavPlatWatchdogTable;
extern const table kavPlatPowerSupplyTable;
extern const table kavPlatBatteryTable;

template <int32_t Kind>
bool is_sensor_of_kind(const phys_entry &entry)
{
    return entry.entPhysicalClass == PHYSICAL_CLASS_SENSOR && entry.sensorKind == Kind;
}

void trace_failed_read(const table &t, const phys_entry &entry);

// What a table takes for a failed read; they differ though a read knows no other
// failure than -1: meant.
enum class failed_read { any_but_0, minus_1 };

// Reads the sensor anew. One that can not be read is served as it was, whatever
// the message says.
template <failed_read Failed>
void read_sensor_first(const table &t, phys_entry &entry)
{
    const int status = snmp_read_sensor(&entry);
    if (Failed == failed_read::minus_1 ? status == -1 : status != 0) {
        trace_failed_read(t, entry);
    }
}

// The exported functions of a table, each a forwarder to the shared mechanism.
#define KAV_PLAT_DEFINE_TABLE(table)                                                               \
    int initialize_table_##table(void)                                                             \
    {                                                                                              \
        return kavplat::register_table(kavplat::table);                                            \
    }                                                                                              \
    void deinitialize_table_##table(void) {}                                                       \
    netsnmp_variable_list *table##_get_first_data_point(void **loop_context, void **data_context,  \
                                                        netsnmp_variable_list *put_index_data,     \
                                                        netsnmp_iterator_info *)                   \
    {                                                                                              \
        return table_get_first(kavplat::table, loop_context, data_context, put_index_data);        \
    }                                                                                              \
    netsnmp_variable_list *table##_get_next_data_point(void **loop_context, void **data_context,   \
                                                       netsnmp_variable_list *put_index_data,      \
                                                       netsnmp_iterator_info *)                    \
    {                                                                                              \
        return table_get_next(kavplat::table, loop_context, data_context, put_index_data);         \
    }                                                                                              \
    int table##_handler(netsnmp_mib_handler *, netsnmp_handler_registration *,                     \
                        netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests)       \
    {                                                                                              \
        return table_handle(kavplat::table, reqinfo, requests);                                    \
    }

} // namespace kavplat

#endif

// What the tables of sensors have in common.
#ifndef KAVPLAT_KAVPLATMIB_SENSOR_TABLE_H
#define KAVPLAT_KAVPLATMIB_SENSOR_TABLE_H

#include "kavPlatMIB/platform_table.h"

namespace kavplat
{

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
void read_sensor_first(const table &t, phys_entry &entry) KAV_REQUIRES(cache_lock)
{
    const int status = snmp_read_sensor(&entry);
    if (Failed == failed_read::minus_1 ? status == -1 : status != 0) {
        trace_failed_read(t, entry);
    }
}

} // namespace kavplat

#endif

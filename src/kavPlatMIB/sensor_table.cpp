#include "kavPlatMIB/sensor_table.h"

#include "trace/trace.h"

namespace kavplat
{

void trace_failed_read(const table &t, const phys_entry &entry)
{
    if (debugging()) {
        const function_name handler("", t, "_handler");
        KAV_TRACE_AS(handler.text, t.source, "kavdata::sensor",
                     "%s:snmp_read_sensor failed, skipping: %s\n", handler.text,
                     printable(entry.entPhysicalName));
    }
}

} // namespace kavplat

#include "entitySensorMIB/entPhySensorTable.h"

#include "kavdata/cache.h"
#include "kavdata/measure.h"

namespace kavplat
{

namespace
{

constexpr oid root[] = {1, 3, 6, 1, 2, 1, 99, 1, 1};

// A slot identity is a number on a plate, though it is read like a sensor.
bool is_row(const phys_entry &entry)
{
    return entry.entPhysicalClass == PHYSICAL_CLASS_SENSOR &&
           entry.capiComponentType != CAPI_TYPE_SLOT_IDENTITY &&
           (entry.sensorKind == SENSOR_KIND_BINARY || entry.sensorKind == SENSOR_KIND_NUMERIC);
}

int32_t type(const phys_entry &entry)
{
    return static_cast<int32_t>(measure_of(entry).type);
}

int32_t precision(const phys_entry &entry)
{
    return measure_of(entry).precision;
}

int32_t value(phys_entry &entry) KAV_REQUIRES(cache_lock)
{
    look_at_sensor(entry);
    return value_of(entry);
}

int32_t oper_status(phys_entry &entry) KAV_REQUIRES(cache_lock)
{
    look_at_sensor(entry);
    return static_cast<int32_t>(status_of(entry));
}

const char *units_display(const phys_entry &entry)
{
    return measure_of(entry).display;
}

uint32_t time_stamp(phys_entry &entry) KAV_REQUIRES(cache_lock)
{
    look_at_sensor(entry);
    return entry.look.time;
}

constexpr column columns[] = {
    integer_from<type>(1, "entPhySensorType"),
    constant<scale_units>(2, "entPhySensorScale"),
    integer_from<precision>(3, "entPhySensorPrecision"),
    integer_from<value>(4, "entPhySensorValue"),
    integer_from<oper_status>(5, "entPhySensorOperStatus"),
    text_from<units_display>(6, "entPhySensorUnitsDisplay"),
    ticks_from<time_stamp>(7, "entPhySensorValueTimeStamp"),
    constant_gauge<0>(8, "entPhySensorValueUpdateRate"), // on demand
};

} // namespace

constinit const table entPhySensorTable = {
    .name = "entPhySensorTable",
    .source = KAVPLAT_ROOM,
    .root = root,
    .columns = columns,
    .rows = rows_where<is_row>,
    .get_first = get_first_of<entPhySensorTable>,
    .get_next = get_next_of<entPhySensorTable>,
    .handler = handler_of<entPhySensorTable>,
};

} // namespace kavplat

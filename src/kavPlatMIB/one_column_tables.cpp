// The tables of one column: each is that column, of the rows that have it.
#include "kavPlatMIB/sensor_table.h"

namespace kavplat
{

namespace
{

bool is_battery(const phys_entry &entry)
{
    return entry.entPhysicalClass == PHYSICAL_CLASS_POWER_SUPPLY &&
           entry.powerSupplyValue == kavPlatPowerSupplyKind::battery;
}

constexpr column physical = integer<&phys_entry::platPhysicalClass>(1, "kavPlatPhysicalClass");
constexpr column power_supply = integer<&phys_entry::powerSupplyValue>(1, "kavPlatPowerSupplyKind");
constexpr column battery = integer<&phys_entry::powerSupplyCol2>(1, "kavPlatBatteryKind");
constexpr column fan = integer<&phys_entry::discreteSensorCol2>(1, "kavPlatFanKind");
constexpr column discrete =
    integer<&phys_entry::discreteSensorValue>(1, "kavPlatDiscreteSensorCurrent");

} // namespace

} // namespace kavplat

// Entities of class other, told apart.
KAV_PLAT_TABLE(kavPlatPhysicalTable, 5, .columns = physical,
               .rows = rows_of_class<PHYSICAL_CLASS_OTHER>,
               .unsupported_mode = "%s:unsupported mode %d\n")

// Power supplies, batteries among them.
KAV_PLAT_TABLE(kavPlatPowerSupplyTable, 14, .columns = power_supply,
               .rows = rows_of_class<PHYSICAL_CLASS_POWER_SUPPLY>)

// The power supplies that are batteries.
KAV_PLAT_TABLE(kavPlatBatteryTable, 15, .columns = battery, .rows = rows_where<is_battery>,
               .trace = walk_trace::dump_rows, .unsupported_mode = "%s:unsupported mode(%d)\n")

// Fans.
KAV_PLAT_TABLE(kavPlatFanTable, 11, .columns = fan, .rows = rows_of_class<PHYSICAL_CLASS_FAN>)

// Discrete sensors. No component is given that kind, so there are no rows: meant.
KAV_PLAT_TABLE(kavPlatDiscreteSensorTable, 9, .columns = discrete,
               .rows = rows_where<is_sensor_of_kind<SENSOR_KIND_DISCRETE>>,
               .trace = walk_trace::dump_next_row,
               .modes = mode_rule::ignore_unlocked, // SETs are not answered: meant
               .before_serving = read_sensor_first<failed_read::minus_1>)

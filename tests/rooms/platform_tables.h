/*
 * The fourteen platform tables as their tests know them: what each is called, which
 * entries are its rows, and the rules in which they differ. Written out here and not
 * taken from the tables' declarations, which are what is tested.
 */
#ifndef KAVPLAT_TESTS_ROOMS_PLATFORM_TABLES_H
#define KAVPLAT_TESTS_ROOMS_PLATFORM_TABLES_H

#include "kavPlatMIB/kavPlatMIB.h"
#include "rooms/cache_fixture.h"
#include "rooms/requests.h"

/* Which callbacks look whether the cache is empty before they do anything. */
enum class empty_check { both, next_only, none };

/* Which steps of a walk write the index dump. */
enum class dumped { nothing, steps, rows, rows_of_next };

/* What a handler does in modes other than GET. */
enum class other_modes { refused, ignored, ignored_without_lock };

struct platform_table {
    const char *name;
    unsigned arc;
    unsigned indexes;
    unsigned min_column;
    unsigned max_column;
    int (*initialize)();
    void (*deinitialize)();
    Netsnmp_First_Data_Point *first;
    Netsnmp_Next_Data_Point *next;
    Netsnmp_Node_Handler *handler;
    void (*make_row)(phys_entry &);
    empty_check empty;
    dumped dump;
    other_modes modes;
    const char *unsupported_mode;
};

inline void PrintTo(const platform_table &table, std::ostream *out)
{
    *out << table.name;
}

#define PLATFORM_TABLE_FUNCTIONS(name)                                                             \
    initialize_table_##name, deinitialize_table_##name, name##_get_first_data_point,               \
        name##_get_next_data_point, name##_handler

inline const platform_table platform_tables[] = {
    {"kavPlatEquipmentTable", 2, 1, 1, 5, PLATFORM_TABLE_FUNCTIONS(kavPlatEquipmentTable),
     [](phys_entry &e) { e.entPhysicalClass = 3; }, empty_check::both, dumped::steps,
     other_modes::refused, "%s:unsupported mode (%d)\n"},
    {"kavPlatPowerSupplyTable", 14, 1, 1, 1, PLATFORM_TABLE_FUNCTIONS(kavPlatPowerSupplyTable),
     [](phys_entry &e) { e.entPhysicalClass = 6; }, empty_check::both, dumped::nothing,
     other_modes::refused, "%s:unsupported mode (%d)\n"},
    {"kavPlatAlarmTable", 12, 1, 1, 3, PLATFORM_TABLE_FUNCTIONS(kavPlatAlarmTable),
     [](phys_entry &e) {
         e.entPhysicalClass = 1;
         e.platPhysicalClass = 2;
     },
     empty_check::both, dumped::steps, other_modes::refused, "%s:unsupported mode (%d)\n"},
    {"kavPlatPhysicalTable", 5, 1, 1, 1, PLATFORM_TABLE_FUNCTIONS(kavPlatPhysicalTable),
     [](phys_entry &e) { e.entPhysicalClass = 1; }, empty_check::both, dumped::nothing,
     other_modes::refused, "%s:unsupported mode %d\n"},
    {"kavPlatEquipmentHolderTable", 3, 1, 1, 4,
     PLATFORM_TABLE_FUNCTIONS(kavPlatEquipmentHolderTable),
     [](phys_entry &e) { e.entPhysicalClass = 5; }, empty_check::both, dumped::nothing,
     other_modes::refused, "%s:unsupported mode (%d)\n"},
    {"kavPlatCircuitPackTable", 4, 1, 1, 4, PLATFORM_TABLE_FUNCTIONS(kavPlatCircuitPackTable),
     [](phys_entry &e) { e.entPhysicalClass = 9; }, empty_check::both, dumped::nothing,
     other_modes::refused, "%s:unsupported mode (%d)\n"},
    {"kavPlatFanTable", 11, 1, 1, 1, PLATFORM_TABLE_FUNCTIONS(kavPlatFanTable),
     [](phys_entry &e) { e.entPhysicalClass = 7; }, empty_check::both, dumped::nothing,
     other_modes::refused, "%s:unsupported mode (%d)\n"},
    {"kavPlatBatteryTable", 15, 1, 1, 1, PLATFORM_TABLE_FUNCTIONS(kavPlatBatteryTable),
     [](phys_entry &e) {
         e.entPhysicalClass = 6;
         e.powerSupplyValue = 3;
     },
     empty_check::both, dumped::rows, other_modes::refused, "%s:unsupported mode(%d)\n"},
    {"kavPlatSensorTable", 6, 1, 1, 3, PLATFORM_TABLE_FUNCTIONS(kavPlatSensorTable),
     [](phys_entry &e) { e.entPhysicalClass = 8; }, empty_check::both, dumped::nothing,
     other_modes::refused, "%s:unsupported mode (%d)\n"},
    {"kavPlatBinarySensorTable", 7, 1, 1, 4, PLATFORM_TABLE_FUNCTIONS(kavPlatBinarySensorTable),
     [](phys_entry &e) {
         e.entPhysicalClass = 8;
         e.sensorKind = 1;
     },
     empty_check::both, dumped::rows_of_next, other_modes::refused, "%s:unsupported mode (%d)\n"},
    {"kavPlatNumericSensorTable", 8, 1, 1, 16, PLATFORM_TABLE_FUNCTIONS(kavPlatNumericSensorTable),
     [](phys_entry &e) {
         e.entPhysicalClass = 8;
         e.sensorKind = 2;
     },
     empty_check::next_only, dumped::rows_of_next, other_modes::refused,
     "%s:unsupported mode(%d)\n"},
    {"kavPlatDiscreteSensorTable", 9, 1, 1, 1, PLATFORM_TABLE_FUNCTIONS(kavPlatDiscreteSensorTable),
     [](phys_entry &e) {
         e.entPhysicalClass = 8;
         e.sensorKind = 3;
     },
     empty_check::both, dumped::rows_of_next, other_modes::ignored_without_lock, nullptr},
    {"kavPlatDiscreteSensorStatesTable", 10, 2, 2, 3,
     PLATFORM_TABLE_FUNCTIONS(kavPlatDiscreteSensorStatesTable),
     [](phys_entry &e) {
         e.entPhysicalClass = 8;
         e.sensorKind = 3;
         e.discreteStateCount = 1;
     },
     empty_check::both, dumped::rows_of_next, other_modes::ignored, nullptr},
    {"kavPlatWatchdogTable", 13, 1, 1, 4, PLATFORM_TABLE_FUNCTIONS(kavPlatWatchdogTable),
     [](phys_entry &e) {
         e.entPhysicalClass = 1;
         e.platPhysicalClass = 3;
     },
     empty_check::none, dumped::nothing, other_modes::refused, "%s:unsupported mode (%d)\n"},
};

#undef PLATFORM_TABLE_FUNCTIONS

/* All that init_kavPlatMIB registers, in its order; the watchdog table is the one
 * behind them. */
inline constexpr size_t registered_tables = std::size(platform_tables) - 1;
inline const platform_table &watchdog_table = platform_tables[registered_tables];

inline std::string oid_of(const platform_table &table)
{
    return "1.3.6.1.4.1.58213.2.70.101.1.1." + std::to_string(table.arc);
}

/* A cache whose entries are rows of no table until a test makes them some. */
class platform_table_test : public cache_test
{
  protected:
    static constexpr uint32_t port_class = 10;

    void build_rows(uint32_t count)
    {
        build_server(count);
        for (uint32_t i = 1; i <= count; i++) {
            phys_entry &e = *kavplat::entry_at(i);
            e.entPhysicalClass = port_class;
            platform->sensors[e.entPhysicalName] = discrete_sensor(CAPI_SENSOR_PRESENCE, 2.0F);
            platform->indicators[e.entPhysicalName] = indicator(CAPI_INDICATOR_ON);
        }
        ASSERT_EQ(maxPhysicalIndex, count);
    }

    /* The indexes of a table's rows in the order of a walk from the beginning. Of
     * several rows of one entity the index comes as often. */
    static std::vector<uint32_t> indexes_of(const platform_table &table, uint32_t start = 0)
    {
        std::vector<uint32_t> found;
        table_steps steps(table.first, table.next, table.indexes);
        steps.set_index(start);
        for (bool more = steps.first(); more && found.size() < 1000; more = steps.next()) {
            found.push_back(steps.index());
        }
        end_pass();
        return found;
    }

    /* What the handler's call behind a walk would do. */
    static void end_pass()
    {
        const cache_lock_held lock;
        kavplat::end_agent_pass();
    }

    static const platform_table &table_named(const std::string &name)
    {
        for (const platform_table &table : platform_tables) {
            if (name == table.name) {
                return table;
            }
        }
        throw std::logic_error("no table " + name);
    }
};

#endif

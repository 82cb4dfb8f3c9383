// The MIB modules against the code that serves them, in both directions. The modules
// are read by net-snmp's own parser; the code's side is the tables' declarations, its
// mapping tables, and what the columns served while a platform went through all that a
// platform can say.
#include "mib_modules.h"

#include "entityMappingMIB/mapping_tables.h"
#include "entityMIB/entityMIB.h"
#include "entityMIB/entPhysicalTable.h"
#include "entitySensorMIB/entPhySensorTable.h"
#include "entityStateMIB/entStateTable.h"
#include "kavdata/codes.h"
#include "kavdata/measure.h"
#include "kavdata/sensor_types.h"
#include "kavPlatMIB/platform_table.h"
#include "rooms/cache_fixture.h"
#include "rooms/requests.h"

#include <algorithm>
#include <map>
#include <set>

namespace
{

using mib_modules::below;
using mib_modules::is_object;
using mib_modules::oid_text;

const kavplat::table *const tables[] = {
    &kavplat::entPhysicalTable,
#define KAV_PLAT_ADDRESS(name) &kavplat::name,
    KAV_PLAT_TABLES(KAV_PLAT_ADDRESS)
#undef KAV_PLAT_ADDRESS
        & kavplat::entPhySensorTable,
    &kavplat::entStateTable,
    &kavplat::entPhysicalContainsTable,
    &kavplat::entAliasMappingTable,
};

struct scalar {
    const char *name;
    const char *oid;
    int type; // as the parser calls it
    Netsnmp_Node_Handler *handler;
    u_char served;
};

constexpr scalar scalars[] = {
    {"kavPlatStartTime", "1.3.6.1.4.1.58213.2.70.101.1.1.1", TYPE_OCTETSTR, handle_kavPlatStartTime,
     ASN_OCTET_STR},
    {"entLastChangeTime", "1.3.6.1.2.1.47.1.4.1", TYPE_TIMETICKS, handle_entLastChangeTime,
     ASN_TIMETICKS},
};

// All nodes of the modules.
std::vector<const tree *> nodes_of_the_modules()
{
    std::vector<const tree *> all;
    for (const char *root : mib_modules::roots) {
        for (const tree *node : below(root)) {
            all.push_back(node);
        }
    }
    return all;
}

const tree *node_at(const std::string &oid)
{
    const std::vector<tree *> found = below(oid);
    return found.empty() ? nullptr : found.front();
}

const tree *node_named(const std::string &name)
{
    for (const tree *node : nodes_of_the_modules()) {
        if (name == node->label) {
            return node;
        }
    }
    return nullptr;
}

std::string root_of(const kavplat::table &table)
{
    return dotted(table.root.data(), table.root.size());
}

std::string oid_of(const kavplat::table &table, const kavplat::column &column)
{
    return root_of(table) + ".1." + std::to_string(column.number);
}

bool is_readable(const tree *node)
{
    return node->access == MIB_ACCESS_READONLY || node->access == MIB_ACCESS_READWRITE ||
           node->access == MIB_ACCESS_CREATE;
}

// The types of the parser that go with what a column serves.
std::set<int> types_of(kavplat::cell_kind kind)
{
    switch (kind) {
    case kavplat::cell_kind::integer:
        return {TYPE_INTEGER, TYPE_INTEGER32};
    case kavplat::cell_kind::gauge:
        return {TYPE_GAUGE, TYPE_UNSIGNED32};
    case kavplat::cell_kind::ticks:
        return {TYPE_TIMETICKS};
    case kavplat::cell_kind::text:
    case kavplat::cell_kind::maybe_null:
        return {TYPE_OCTETSTR};
    case kavplat::cell_kind::octets:
        return {TYPE_OCTETSTR, TYPE_BITSTRING};
    case kavplat::cell_kind::object_id:
        return {TYPE_OBJID};
    }
    return {};
}

std::map<int, std::string> labels_of(const tree *node)
{
    std::map<int, std::string> labels;
    for (const enum_list *entry = node->enums; entry; entry = entry->next) {
        labels[entry->value] = entry->label;
    }
    return labels;
}

// ---- Declarations ----

TEST(Agreement, EveryTableOfTheModulesIsDeclaredAndTheOtherWayRound)
{
    std::map<std::string, std::string> declared;
    for (const kavplat::table *table : tables) {
        declared[table->name] = root_of(*table);
    }
    std::map<std::string, std::string> in_the_modules;
    for (const tree *node : nodes_of_the_modules()) {
        if (node->indexes || node->augments) {
            in_the_modules[node->parent->label] = oid_text(node->parent);
        }
    }
    EXPECT_EQ(declared, in_the_modules);
    EXPECT_EQ(declared.size(), std::size(tables)) << "a table is listed twice";
}

TEST(Agreement, EveryColumnServedIsInTheModulesAndEveryReadableColumnIsServed)
{
    for (const kavplat::table *table : tables) {
        const tree *row = node_at(root_of(*table) + ".1");
        ASSERT_NE(row, nullptr) << table->name;
        std::map<unsigned long, std::string> readable;
        for (const tree *column = row->child_list; column; column = column->next_peer) {
            if (is_readable(column)) {
                readable[column->subid] = column->label;
            }
        }
        std::map<unsigned long, std::string> served;
        for (const kavplat::column &column : table->columns) {
            served[static_cast<unsigned long>(column.number)] = column.name;
        }
        EXPECT_EQ(served, readable) << table->name;
    }
}

TEST(Agreement, TheColumnRangeOfATableIsThatOfTheModulesReadableColumns)
{
    for (const kavplat::table *table : tables) {
        const tree *row = node_at(root_of(*table) + ".1");
        ASSERT_NE(row, nullptr) << table->name;
        std::set<unsigned long> readable;
        for (const tree *column = row->child_list; column; column = column->next_peer) {
            if (is_readable(column)) {
                readable.insert(column->subid);
            }
        }
        ASSERT_FALSE(readable.empty()) << table->name;
        EXPECT_EQ(static_cast<unsigned long>(table->columns.front().number), *readable.begin());
        EXPECT_EQ(static_cast<unsigned long>(table->columns.back().number), *readable.rbegin());
        EXPECT_EQ(readable.size(), table->columns.size()) << "no gaps in " << table->name;
    }
}

// Nothing can be set. The standard's modules let a manager write four of their columns,
// and let an agent do without.
TEST(Agreement, TypeAndAccessOfEveryColumn)
{
    const std::set<std::string> writable_by_the_standard = {
        "entPhysicalSerialNum", "entPhysicalAlias", "entPhysicalAssetID", "entStateAdmin"};
    for (const kavplat::table *table : tables) {
        for (const kavplat::column &column : table->columns) {
            const tree *node = node_at(oid_of(*table, column));
            ASSERT_NE(node, nullptr) << column.name;
            EXPECT_STREQ(node->label, column.name);
            EXPECT_TRUE(types_of(column.kind).contains(node->type))
                << column.name << " has type " << node->type;
            EXPECT_EQ(node->access, writable_by_the_standard.contains(column.name)
                                        ? MIB_ACCESS_READWRITE
                                        : MIB_ACCESS_READONLY)
                << column.name;
        }
    }
}

TEST(Agreement, IndexesOfEveryTable)
{
    for (const kavplat::table *table : tables) {
        const tree *row = node_at(root_of(*table) + ".1");
        ASSERT_NE(row, nullptr) << table->name;
        std::vector<std::string> indexes;
        for (const index_list *index = row->indexes; index; index = index->next) {
            indexes.emplace_back(index->ilabel);
            EXPECT_FALSE(index->isimplied) << table->name;
            const tree *node = node_named(index->ilabel);
            ASSERT_NE(node, nullptr) << index->ilabel;
            EXPECT_TRUE(types_of(kavplat::cell_kind::integer).contains(node->type))
                << index->ilabel;
            // This one is all that its table has.
            EXPECT_EQ(node->access, node->label == std::string("entPhysicalChildIndex")
                                        ? MIB_ACCESS_READONLY
                                        : MIB_ACCESS_NOACCESS)
                << index->ilabel;
        }
        std::vector<std::string> expected = {"entPhysicalIndex"};
        if (table->states) {
            expected.emplace_back("kavPlatDiscreteStateNumber");
        } else if (table == &kavplat::entPhysicalContainsTable) {
            expected.emplace_back("entPhysicalChildIndex");
        } else if (table == &kavplat::entAliasMappingTable) {
            expected.emplace_back("entAliasLogicalIndexOrZero");
        }
        EXPECT_EQ(table->states || table->pairs ? 2U : 1U, indexes.size()) << table->name;
        EXPECT_EQ(indexes, expected) << table->name;
    }
}

TEST(Agreement, TheStateNumberHasARangeOfTheStatesOfASensor)
{
    const tree *node = node_named("kavPlatDiscreteStateNumber");
    ASSERT_NE(node, nullptr);
    ASSERT_NE(node->ranges, nullptr);
    EXPECT_EQ(node->ranges->low, 1);
    EXPECT_EQ(node->ranges->high,
              static_cast<int>(kavplat::kavPlatDiscreteSensorStatesTable.states->state_count));
    EXPECT_EQ(node->ranges->next, nullptr);
}

TEST(Agreement, TheScalars)
{
    for (const scalar &s : scalars) {
        const tree *node = node_at(s.oid);
        ASSERT_NE(node, nullptr) << s.name;
        EXPECT_STREQ(node->label, s.name);
        EXPECT_EQ(node->type, s.type) << s.name;
        EXPECT_EQ(node->access, MIB_ACCESS_READONLY) << s.name;
        handler_call call;
        call.add_without_table_info(nullptr);
        EXPECT_EQ(call.run(s.handler), SNMP_ERR_NOERROR);
        EXPECT_EQ(call.answer(0).type, s.served) << s.name;
    }
    const tree *start = node_named("kavPlatStartTime");
    ASSERT_NE(start->ranges, nullptr);
    EXPECT_EQ(start->ranges->low, static_cast<int>(GetDateAndTimeLen()));
    EXPECT_EQ(start->ranges->high, static_cast<int>(GetDateAndTimeLen()));
}

// Whatever can be read by the modules is served by somebody, and nothing else is.
TEST(Agreement, EveryReadableObjectOfTheModulesIsServed)
{
    std::set<std::string> served;
    for (const scalar &s : scalars) {
        served.insert(s.oid);
    }
    for (const kavplat::table *table : tables) {
        for (const kavplat::column &column : table->columns) {
            served.insert(oid_of(*table, column));
        }
    }
    std::set<std::string> readable;
    for (const tree *node : nodes_of_the_modules()) {
        if (is_object(node) && is_readable(node)) {
            readable.insert(oid_text(node));
        }
    }
    EXPECT_EQ(served, readable);
}

// ---- Codes ----

// The code has a word for each number of an object, and the module the same.
TEST(Agreement, TheWordsOfTheCodeAreTheLabelsOfTheModules)
{
    struct words_of_object {
        const char *object;
        const char *words; // "word = number, ..." as the code has them
    };
#define WORDS_OF(object, ...) {#object, #__VA_ARGS__},
    constexpr words_of_object all[] = {KAV_CODES(WORDS_OF)};
#undef WORDS_OF
    for (const auto &[object, words] : all) {
        const tree *node = node_named(object);
        ASSERT_NE(node, nullptr) << object;
        std::map<int, std::string> of_code;
        std::istringstream rest(words);
        for (std::string word; std::getline(rest, word, ',');) {
            std::istringstream fields(word);
            std::string name;
            std::string equals;
            int number = 0;
            ASSERT_TRUE(fields >> name >> equals >> number) << object << ": " << word;
            if (name == "switch_") {
                name = "switch"; // a word of the language, too
            }
            of_code[number] = name;
        }
        EXPECT_EQ(of_code, labels_of(node)) << object;
    }
}

// ---- Mapping tables ----

TEST(Agreement, EveryValueOfTheMappingTablesHasALabel)
{
    const auto units = labels_of(node_named("kavPlatNumericSensorBaseUnits"));
    const auto types = labels_of(node_named("kavPlatSensorType"));
    const auto classes = labels_of(node_named("entPhysicalClass"));
    ASSERT_FALSE(units.empty());
    ASSERT_FALSE(types.empty());
    ASSERT_FALSE(classes.empty());
    for (const kavplat::units_row &row : kavplat::units_rows) {
        EXPECT_TRUE(units.contains(row.base_unit)) << row.base_unit;
        EXPECT_TRUE(row.type == 0 || types.contains(row.type)) << row.type;
    }
    for (const kavplat::binary_type_row &row : kavplat::binary_type_rows) {
        EXPECT_TRUE(types.contains(row.type)) << row.type;
    }
    // The class of a type is one of these.
    for (const int physical_class :
         {PHYSICAL_CLASS_OTHER, PHYSICAL_CLASS_UNKNOWN, PHYSICAL_CLASS_CHASSIS,
          PHYSICAL_CLASS_BACKPLANE, PHYSICAL_CLASS_CONTAINER, PHYSICAL_CLASS_POWER_SUPPLY,
          PHYSICAL_CLASS_FAN, PHYSICAL_CLASS_SENSOR, PHYSICAL_CLASS_MODULE, PHYSICAL_CLASS_PORT,
          PHYSICAL_CLASS_STACK}) {
        EXPECT_TRUE(classes.contains(physical_class)) << physical_class;
    }
    const auto kinds = labels_of(node_named("kavPlatSensorClass"));
    for (const int kind :
         {SENSOR_KIND_NONE, SENSOR_KIND_BINARY, SENSOR_KIND_NUMERIC, SENSOR_KIND_DISCRETE}) {
        EXPECT_TRUE(kinds.contains(kind)) << kind;
    }
}

// A label says what the platform's code for the unit or the type says.
TEST(Agreement, TheLabelsOfUnitsMeanWhatThePlatformMeans)
{
    const auto units = labels_of(node_named("kavPlatNumericSensorBaseUnits"));
    const std::map<int, std::string> meant = {{CAPI_UNITS_DEGREES_C, "degreesC"},
                                              {CAPI_UNITS_DEGREES_F, "degreesF"},
                                              {CAPI_UNITS_KELVIN, "kelvin"},
                                              {CAPI_UNITS_VOLTS, "volts"},
                                              {CAPI_UNITS_AMPS, "amps"},
                                              {CAPI_UNITS_WATTS, "watts"},
                                              {CAPI_UNITS_RPM, "rpm"},
                                              {CAPI_UNITS_HERTZ, "hertz"},
                                              {CAPI_UNITS_PERCENT, "percent"},
                                              {CAPI_UNITS_HOURS, "hours"}};
    std::map<int, std::string> labelled;
    for (const kavplat::units_row &row : kavplat::units_rows) {
        labelled[row.units] = units.at(row.base_unit);
    }
    EXPECT_EQ(labelled, meant);
}

TEST(Agreement, TheLabelsOfTypesMeanWhatThePlatformMeans)
{
    const auto types = labels_of(node_named("kavPlatSensorType"));
    const std::map<int, std::string> meant = {{CAPI_SENSOR_PRESENCE, "presence"},
                                              {CAPI_SENSOR_VOLTAGE, "voltage"},
                                              {CAPI_SENSOR_TEMPERATURE, "temperature"},
                                              {CAPI_SENSOR_CURRENT, "electricCurrent"},
                                              {CAPI_SENSOR_TACHOMETER, "tachometer"}};
    std::map<int, std::string> labelled;
    for (const kavplat::binary_type_row &row : kavplat::binary_type_rows) {
        labelled[row.sensor_type] = types.at(row.type);
    }
    EXPECT_EQ(labelled, meant);
}

// What is served by name has the number of that name.
TEST(Agreement, TheTypesOfSensorsAreThoseOfTheStandard)
{
    using enum kavplat::sensor_data_type;
    const auto types = labels_of(node_named("entPhySensorType"));
    for (const auto &[type, label] :
         std::map<kavplat::sensor_data_type, std::string>{{other, "other"},
                                                          {voltsAC, "voltsAC"},
                                                          {voltsDC, "voltsDC"},
                                                          {amperes, "amperes"},
                                                          {watts, "watts"},
                                                          {hertz, "hertz"},
                                                          {celsius, "celsius"},
                                                          {percentRH, "percentRH"},
                                                          {rpm, "rpm"},
                                                          {truthvalue, "truthvalue"}}) {
        EXPECT_EQ(types.at(static_cast<int>(type)), label);
    }
    EXPECT_EQ(labels_of(node_named("entPhySensorScale")).at(kavplat::scale_units), "units");
    const auto statuses = labels_of(node_named("entPhySensorOperStatus"));
    EXPECT_EQ(statuses.at(static_cast<int>(kavplat::sensor_status::ok)), "ok");
    EXPECT_EQ(statuses.at(static_cast<int>(kavplat::sensor_status::unavailable)), "unavailable");
    EXPECT_EQ(statuses.at(static_cast<int>(kavplat::sensor_status::nonoperational)),
              "nonoperational");
    const tree *value = node_named("entPhySensorValue");
    ASSERT_NE(value->ranges, nullptr);
    EXPECT_EQ(value->ranges->low, -kavplat::largest_value);
    EXPECT_EQ(value->ranges->high, kavplat::largest_value);
}

// ---- What is served ----

using served_values = std::map<std::string, std::set<int64_t>>;

// Walks every table through its callbacks and looks at each cell with the eyes of
// the module; collects the numbers by column.
class served_cells : public cache_test
{
  protected:
    served_values seen;
    std::set<std::string> columns_with_rows;
    size_t cells = 0;

    static constexpr uint32_t sensor_component = 30;
    static constexpr uint32_t indicator_component = 31;

    void look_at(const kavplat::column &column, const tree *node, const snmp_value &value)
    {
        cells++;
        columns_with_rows.insert(column.name);
        const bool is_number = value.type == ASN_INTEGER || value.type == ASN_GAUGE;
        if (is_number) {
            seen[column.name].insert(value.number);
        }
        if (node->enums && is_number) {
            EXPECT_TRUE(labels_of(node).contains(static_cast<int>(value.number)))
                << column.name << " served " << value.number << " that has no label";
        }
        if (node->type == TYPE_BITSTRING) {
            look_at_bits(column, node, value.octets);
        }
        if (node->ranges) {
            const int64_t measured =
                is_number ? value.number : static_cast<int64_t>(value.octets.size());
            bool within = false;
            for (const range_list *range = node->ranges; range; range = range->next) {
                within = within || (measured >= range->low && measured <= range->high);
            }
            EXPECT_TRUE(within) << column.name << " served " << measured << " out of its range";
        }
        const bool is_text = node->type == TYPE_OCTETSTR && node->tc_index >= 0 &&
                             strcmp(get_tc_descriptor(node->tc_index), "DateAndTime") != 0;
        if (is_text) {
            EXPECT_LE(value.octets.size(), 255U) << column.name;
            EXPECT_EQ(value.octets.find('\0'), std::string::npos) << column.name;
        }
    }

    void look_at_bits(const kavplat::column &column, const tree *node, const std::string &octets)
    {
        const auto labels = labels_of(node);
        for (size_t bit = 0; bit < octets.size() * 8; bit++) {
            const auto octet = static_cast<unsigned char>(octets[bit / 8]);
            if (octet & (0x80U >> (bit % 8))) {
                seen[column.name].insert(static_cast<int64_t>(bit));
                EXPECT_TRUE(labels.contains(static_cast<int>(bit)))
                    << column.name << " served bit " << bit << " that has no label";
            }
        }
    }

    void look_at_all()
    {
        for (const kavplat::table *table : tables) {
            std::vector<const tree *> nodes;
            for (const kavplat::column &column : table->columns) {
                nodes.push_back(node_at(oid_of(*table, column)));
            }
            table_steps steps(table->get_first, table->get_next,
                              table->states || table->pairs ? 2 : 1);
            size_t rows = 0;
            for (bool more = steps.first(); more; more = steps.next()) {
                ASSERT_LT(rows++, 100000U) << table->name << " does not end";
                for (size_t i = 0; i < nodes.size(); i++) {
                    const kavplat::column &column = table->columns[i];
                    look_at(
                        column, nodes[i],
                        served(table->handler, static_cast<unsigned>(column.number), steps.row()));
                }
            }
            const cache_lock_held lock;
            kavplat::end_agent_pass();
        }
    }

    static void expire()
    {
        for (uint32_t i = 1; i <= maxPhysicalIndex; i++) {
            if (phys_entry *entry = kavplat::entry_at(i)) {
                entry->lastReadTime = 0;
                entry->look = {};
                entry->adminTime = 0;
            }
        }
    }

    // A component of each type, without a capability and with all of them; a sensor
    // of each class, type and unit; indicators. Every text is as long as it can be.
    void describe_everything()
    {
        std::vector<fake_component> components = {component("/SYS", CAPI_TYPE_SYSTEM)};
        const auto add = [&](const std::string &name, uint32_t type, uint8_t capabilities) {
            fake_component c = component(name.c_str(), type);
            c.capabilities.fill(capabilities);
            components.push_back(c);
            return name;
        };
        const auto server = platform.locked();
        server->record_calls = false;
        server->sensor_types = {CAPI_TYPE_FAULT_SENSOR, CAPI_TYPE_PREDICTIVE_SENSOR,
                                CAPI_TYPE_SLOT_IDENTITY, sensor_component};
        server->indicator_types = {indicator_component};
        server->default_description = std::string(300, 'd');
        const std::string longest(79, 'x');
        set_text(server->product.model, longest);
        set_text(server->product.serial, longest);
        set_text(server->product.description, longest);
        set_text(server->chassis.model, longest);
        set_text(server->chassis.serial, longest);
        set_text(server->chassis.description, longest);
        set_text(server->chassis.manufacturer, longest);
        server->product_vantor_id = std::string(50, 'v');
        server->chassis_vantor_id = std::string(50, 'v');
        for (uint32_t type = 0; type <= 200; type++) {
            for (const uint8_t capabilities : {uint8_t{0x00}, uint8_t{0xFF}}) {
                const std::string name =
                    add("/SYS/T" + std::to_string(type) + (capabilities ? "A" : "N"), type,
                        capabilities);
                parts_.push_back(name);
                set_text(server->frus[name].serial, longest);
                set_text(server->frus[name].alias, longest);
                set_text(server->frus[name].model, longest);
            }
        }
        const auto add_sensor = [&](uint32_t type, int32_t sensor_class, int32_t sensor_type,
                                    int32_t units) {
            const std::string name = add("/SYS/S" + std::to_string(sensors_.size()), type, 0xFF);
            sensors_.push_back(name);
            capi_sensor_record record = {};
            set_text(record.name, name);
            record.sensor_class = sensor_class;
            if (sensor_class == CAPI_SENSOR_THRESHOLD) {
                a_number_ = name;
            }
            record.sensor_type = sensor_type;
            record.units = units;
            record.lower_fatal = 10;
            record.lower_critical = 20;
            record.lower_non_critical = 30;
            record.upper_non_critical = 60;
            record.upper_critical = 70;
            record.upper_fatal = 80;
            // Some of each unit, also of volts.
            record.flags =
                static_cast<uint16_t>(0x3F | (sensor_type == units ? int{CAPI_ALTERNATING} : 0));
            server->sensors[name] = record;
        };
        // An empty bay and a filled one.
        for (const uint8_t raw : {uint8_t{1}, uint8_t{2}}) {
            const std::string bay =
                add("/SYS/HDD" + std::to_string(raw), CAPI_TYPE_DRIVE_BAY, 0xFF);
            parts_.push_back(bay);
            const std::string name = add(bay + "/PRSNT", sensor_component, 0);
            auto record = discrete_sensor(CAPI_SENSOR_PRESENCE, static_cast<float>(raw));
            record.raw_reading = raw;
            server->sensors[name] = record;
        }
        for (const uint32_t type :
             {uint32_t{CAPI_TYPE_FAULT_SENSOR}, uint32_t{CAPI_TYPE_PREDICTIVE_SENSOR},
              uint32_t{CAPI_TYPE_SLOT_IDENTITY}, sensor_component}) {
            for (int32_t sensor_class = 0; sensor_class <= 3; sensor_class++) {
                // What is served of its type does not depend on its units.
                for (int32_t sensor_type = 0; sensor_type <= 20; sensor_type++) {
                    add_sensor(type, sensor_class, sensor_type, sensor_type % 12);
                }
                for (int32_t units = 0; units <= 11; units++) {
                    add_sensor(type, sensor_class, CAPI_SENSOR_TEMPERATURE, units);
                }
                // But for this one.
                add_sensor(type, sensor_class, CAPI_SENSOR_HUMIDITY, CAPI_UNITS_PERCENT);
            }
        }
        add("/SYS/UNKNOWN_SENSOR", sensor_component, 0);
        for (int i = 0; i < 4; i++) {
            indicators_.push_back(add("/SYS/LED" + std::to_string(i), indicator_component, 0));
        }
        server->interfaces[parts_.front()] = "lo"; // which every host has
        server->components = components;
    }

    std::vector<std::string> parts_;
    std::vector<std::string> sensors_;
    std::vector<std::string> indicators_;
    std::string a_number_; // one of the sensors
};

// Each column with what it serves on any platform at all: not a value more, since that
// would have to be in the module, and not a value less, since the module says of some
// that they are not served.
TEST_F(served_cells, EveryColumnServesWhatTheModuleKnows)
{
    mib_modules::load();
    describe_everything();
    init_local_cache();
    ASSERT_GT(maxPhysicalIndex, 900U);

    const float readings[] = {5, 15, 25, 45, 65, 75, 85, 45.5F, -5.5F, 1, 2};
    const agent_log quiet;
    for (size_t round = 0; round < std::size(readings); round++) {
        {
            const auto server = platform.locked();
            const auto state = static_cast<int32_t>(round) - 1;
            for (const std::string &name : sensors_) {
                capi_sensor_record &record = server->sensors[name];
                record.reading = readings[round];
                record.raw_reading = static_cast<uint8_t>(std::abs(readings[round]));
                record.reading_status = round == 3 ? CAPI_READING_INVALID : CAPI_READING_VALID;
                // On every other round half of the thresholds are not in force.
                record.flags =
                    static_cast<uint16_t>((round % 2 == 1 ? 0x15 : 0x3F) |
                                          (record.units % 2 == 0 ? CAPI_STATE_SEMANTICS : 0));
                record.state = static_cast<float>(record.sensor_type % 3);
            }
            server->fail_for["capi_get_sensor"][a_number_] = round == 4 ? -1 : 0;
            for (const std::string &name : parts_) {
                server->power_states[name] = state;
                server->enable_states[name] = {state, "why"};
                if (round % 2 == 0) {
                    server->ready_to_remove[name] = static_cast<int32_t>(round / 2) % 3;
                } else {
                    server->ready_to_remove.erase(name);
                }
            }
            for (size_t i = 0; i < indicators_.size(); i++) {
                // One that never shows a state that is not known.
                const int32_t shown = i == 0 ? 1 + static_cast<int32_t>(round % 5) : state;
                server->indicators[indicators_[i]] = indicator(shown);
            }
        }
        for (const std::string &name : sensors_) {
            reload_thresholds(name.c_str());
        }
        expire();
        look_at_all();
    }

    const served_values expected = {
        {"entPhysicalClass", {1, 2, 3, 4, 5, 6, 7, 8, 9}},
        {"entPhysicalIsFRU", {1, 2}},
        {"kavPlatEquipmentAdminState", {1, 2, 3}},
        {"kavPlatEquipmentOperState", {1, 2}},
        {"kavPlatEquipmentSeverity", {1, 2, 4, 5, 7}},
        {"kavPlatEquipmentStateUnknown", {1, 2}},
        {"kavPlatHolderType", {4}},
        {"kavPlatHolderOccupancy", {1, 2, 4}},
        {"kavPlatHolderPowerState", {1, 2, 3, 4}},
        {"kavPlatCircuitPackReplaceable", {1, 2}},
        {"kavPlatCircuitPackControllable", {1, 2}},
        {"kavPlatPhysicalClass", {1, 2}},
        {"kavPlatSensorClass", {0, 1, 2}},
        {"kavPlatSensorType", {1, 3, 4, 5, 6, 10, 12}},
        {"kavPlatSensorUpdateInterval", {0}},
        {"kavPlatBinarySensorCurrent", {1, 2}},
        {"kavPlatBinarySensorExpected", {1, 2}},
        {"kavPlatNumericSensorBaseUnits", {1, 3, 4, 5, 6, 7, 8, 20, 21, 24, 66}},
        {"kavPlatNumericSensorExponent", {-3, 0}},
        {"kavPlatNumericSensorRateUnits", {1}},
        {"kavPlatNumericSensorNominal", {0}},
        {"kavPlatNumericSensorNormalMax", {255}},
        {"kavPlatNumericSensorNormalMin", {0}},
        {"kavPlatNumericSensorHysteresis", {0}},
        {"kavPlatNumericSensorReserved", {1}},
        {"kavPlatFanKind", {2}},
        {"kavPlatAlarmKind", {1, 3}},
        {"kavPlatAlarmState", {1, 2, 3, 4}},
        {"kavPlatAlarmUrgency", {3, 4}},
        {"kavPlatPowerSupplyKind", {2}},
        {"entPhySensorType", {1, 3, 4, 5, 6, 7, 8, 9, 10, 12}},
        {"entPhySensorScale", {kavplat::scale_units}},
        {"entPhySensorPrecision", {0, 1, 2, 3}},
        {"entPhySensorOperStatus", {1, 2, 3}},
        {"entPhySensorValueUpdateRate", {0}},
        {"entStateAdmin", {2, 3, 4}},
        {"entStateOper", {1, 2, 3}},
        {"entStateUsage", {1, 2, 4}},
        {"entStateAlarm", {0, 2, 3, 5}},
        {"entStateStandby", {1, 4}},
        {"kavPlatNumericSensorThresholds", {0, 1, 2, 3, 4, 5}},
    };
    // Indexes, positions, readings and thresholds are as many as a platform likes.
    const std::set<std::string> any_number = {"entPhysicalContainedIn",
                                              "entPhysicalParentRelPos",
                                              "entPhysicalChildIndex",
                                              "kavPlatNumericSensorReading",
                                              "kavPlatNumericSensorLowerNonCrit",
                                              "kavPlatNumericSensorUpperNonCrit",
                                              "kavPlatNumericSensorLowerCrit",
                                              "kavPlatNumericSensorUpperCrit",
                                              "kavPlatNumericSensorLowerFatal",
                                              "kavPlatNumericSensorUpperFatal",
                                              "entPhySensorValue"};
    for (const std::string &name : any_number) {
        EXPECT_GT(seen[name].size(), 1U) << name;
        seen.erase(name);
    }
    EXPECT_EQ(seen, expected);

    // Tables that no platform can fill are named in the module; all others had rows.
    const std::set<std::string> without_rows = {"kavPlatDiscreteSensorTable",
                                                "kavPlatDiscreteSensorStatesTable",
                                                "kavPlatWatchdogTable", "kavPlatBatteryTable"};
    for (const kavplat::table *table : tables) {
        for (const kavplat::column &column : table->columns) {
            EXPECT_NE(columns_with_rows.contains(column.name), without_rows.contains(table->name))
                << column.name;
        }
    }
}

// The tables that no platform can fill, with entries made into their rows.
TEST_F(served_cells, ColumnsOfTablesWithoutRowsServeWhatTheModuleKnows)
{
    mib_modules::load();
    build_server(8);
    for (uint32_t i = 2; i <= 4; i++) {
        phys_entry &e = *kavplat::entry_at(i);
        e.entPhysicalClass = PHYSICAL_CLASS_SENSOR;
        e.sensorKind = SENSOR_KIND_DISCRETE;
        e.discreteStateCount = static_cast<int32_t>(i) - 2;
        platform->sensors[e.entPhysicalName] = discrete_sensor(CAPI_SENSOR_PRESENCE, 2.0F);
    }
    kavplat::entry_at(5)->entPhysicalClass = PHYSICAL_CLASS_OTHER;
    kavplat::entry_at(5)->platPhysicalClass = 3;
    kavplat::entry_at(6)->entPhysicalClass = PHYSICAL_CLASS_POWER_SUPPLY;
    kavplat::entry_at(6)->powerSupplyValue = 3;
    look_at_all();
    for (const char *column :
         {"kavPlatDiscreteSensorCurrent", "kavPlatDiscreteStateText",
          "kavPlatDiscreteStateAcceptable", "kavPlatWatchdogTimeout", "kavPlatWatchdogAction",
          "kavPlatWatchdogText", "kavPlatWatchdogMonitored", "kavPlatBatteryKind"}) {
        EXPECT_TRUE(columns_with_rows.contains(column)) << column;
    }
    EXPECT_EQ(seen["kavPlatDiscreteStateAcceptable"], (std::set<int64_t>{1, 2}));
    EXPECT_EQ(seen["kavPlatWatchdogTimeout"], std::set<int64_t>{0});
    EXPECT_EQ(seen["kavPlatWatchdogAction"], std::set<int64_t>{1});
    EXPECT_EQ(seen["kavPlatWatchdogMonitored"], std::set<int64_t>{1});
    EXPECT_EQ(seen["kavPlatBatteryKind"], std::set<int64_t>{2});
    EXPECT_TRUE(seen["kavPlatPowerSupplyKind"].contains(3));
    EXPECT_TRUE(seen["kavPlatPhysicalClass"].contains(3));
    EXPECT_TRUE(seen["kavPlatSensorClass"].contains(3));
}

} // namespace

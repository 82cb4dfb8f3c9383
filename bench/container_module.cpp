// The peer that the tables are measured against: the rows of entPhysicalTable and
// of the numeric sensor table, served in the same agent by net-snmp's
// container_table, the fastest way that it offers for a table of this kind.
//
// Loaded behind the modules of the library (dlmod benchContainer). The rows
// are copied once, from the cache, when the agent's main loop finds it built.
//
// The rows of the standards' other tables come from a file (benchRows PATH below the
// dlmod line), as they were served, when it is there: each cell is stored as it goes
// out, so that nothing is left to be computed.
#include "kavdata/kavdata.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace
{

// 1.3.6.1.4.1.58213.99.1 has the columns of entPhysicalTable, .2 those of
// kavPlatNumericSensorTable.
constexpr oid entity_root[] = {1, 3, 6, 1, 4, 1, 58213, 99, 1};
constexpr oid numeric_root[] = {1, 3, 6, 1, 4, 1, 58213, 99, 2};

// container_table finds a row by the index at its start.
struct row {
    netsnmp_index index;
    oid number;
    phys_entry *entry;
};

void set_integer(netsnmp_variable_list *var, int32_t value)
{
    snmp_set_var_typed_value(var, ASN_INTEGER, &value, sizeof value);
}

void set_text(netsnmp_variable_list *var, const char *text)
{
    snmp_set_var_typed_value(var, ASN_OCTET_STR, text ? text : "", text ? strlen(text) : 0);
}

void set_entity_column(netsnmp_variable_list *var, unsigned column, const phys_entry &entry)
{
    switch (column) {
    case 2:
        return set_text(var, entry.entPhysicalDescr);
    case 3:
        snmp_set_var_typed_value(var, ASN_OBJECT_ID, entry.entPhysicalVendorType,
                                 sizeof entry.entPhysicalVendorType);
        return;
    case 4:
        return set_integer(var, entry.entPhysicalContainedIn);
    case 5:
        return set_integer(var, entry.entPhysicalClass);
    case 6:
        return set_integer(var, entry.entPhysicalParentRelPos);
    case 7:
        return set_text(var, entry.entPhysicalName);
    case 8:
        return set_text(var, entry.entPhysicalHardwareRev);
    case 9:
        return set_text(var, entry.entPhysicalFirmwareRev);
    case 10:
        return set_text(var, entry.entPhysicalSoftwareRev);
    case 11:
        return set_text(var, entry.entPhysicalSerialNum);
    case 12:
        return set_text(var, entry.entPhysicalMfgName);
    case 13:
        return set_text(var, entry.entPhysicalModelName);
    case 14:
        return set_text(var, entry.entPhysicalAlias);
    case 15:
        return set_text(var, entry.entPhysicalAssetID);
    case 16:
        return set_integer(var, entry.entPhysicalIsFRU);
    default:
        return;
    }
}

void set_numeric_column(netsnmp_variable_list *var, unsigned column, const phys_entry &entry)
{
    const int32_t words[] = {
        entry.numericSensorCol1,  entry.numericSensorCol2,  entry.numericSensorCol3,
        entry.numericSensorCol4,  entry.numericSensorCol5,  entry.numericSensorCol6,
        entry.numericSensorCol7,  entry.numericSensorCol8,  entry.numericSensorCol11,
        entry.numericSensorCol9,  entry.numericSensorCol12, entry.numericSensorCol10,
        entry.numericSensorCol13,
    };
    if (column >= 1 && column <= 13) {
        set_integer(var, words[column - 1]);
    } else if (column == 14) {
        snmp_set_var_typed_value(var, ASN_GAUGE, &entry.numericSensorCol14,
                                 sizeof entry.numericSensorCol14);
    } else if (column == 15) {
        snmp_set_var_typed_value(var, ASN_OCTET_STR, &entry.thresholdMask, 1);
    } else if (column == 16) {
        set_integer(var, 1);
    }
}

template <auto SetColumn>
int handle(netsnmp_mib_handler *, netsnmp_handler_registration *,
           netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests)
{
    if (reqinfo->mode != MODE_GET) {
        return SNMP_ERR_NOERROR;
    }
    for (netsnmp_request_info *r = requests; r; r = r->next) {
        if (r->processed) {
            continue;
        }
        const auto *found = static_cast<const row *>(netsnmp_container_table_row_extract(r));
        const netsnmp_table_request_info *info = netsnmp_extract_table_info(r);
        if (!found || !info) {
            netsnmp_set_request_error(reqinfo, r, SNMP_NOSUCHINSTANCE);
            continue;
        }
        SetColumn(r->requestvb, info->colnum, *found->entry);
    }
    return SNMP_ERR_NOERROR;
}

netsnmp_container *register_peer(const char *name, const oid *root, size_t length,
                                 Netsnmp_Node_Handler *handler, unsigned min_column,
                                 unsigned max_column, size_t indexes = 1)
{
    auto *info = SNMP_MALLOC_TYPEDEF(netsnmp_table_registration_info);
    for (size_t i = 0; i < indexes; i++) {
        netsnmp_table_helper_add_index(info, ASN_INTEGER);
    }
    info->min_column = min_column;
    info->max_column = max_column;
    netsnmp_container *container = netsnmp_container_find("table_container");
    netsnmp_container_table_register(
        netsnmp_create_handler_registration(name, handler, root, length, HANDLER_CAN_RONLY), info,
        container, TABLE_CONTAINER_KEY_NETSNMP_INDEX);
    return container;
}

netsnmp_container *entities;
netsnmp_container *numerics;

void copy_into(netsnmp_container *container, phys_entry *entry)
{
    auto *copy = new row{};
    copy->number = entry->entPhysicalIndex;
    copy->index = {1, &copy->number};
    copy->entry = entry;
    CONTAINER_INSERT(container, copy);
}

void copy_when_built(unsigned alarm, void *)
{
    static uint32_t last = 0;
    const uint32_t now = getMaxPhysicalIndex();
    if (now == 0 || now != last) {
        last = now;
        return;
    }
    for (uint32_t i = 1; i <= now; i++) {
        if (phys_entry *entry = get_entry(i)) {
            copy_into(entities, entry);
            if (entry->entPhysicalClass == PHYSICAL_CLASS_SENSOR &&
                entry->sensorKind == SENSOR_KIND_NUMERIC) {
                copy_into(numerics, entry);
            }
        }
    }
    snmp_log(LOG_INFO, "benchContainer: %u rows copied\n", now);
    snmp_alarm_unregister(alarm);
}

// ---- Rows from a file ----

struct stored_cell {
    u_char type;
    std::vector<u_char> value;
};

struct stored_row {
    netsnmp_index index;
    oid numbers[2];
    std::map<unsigned, stored_cell> cells;
};

struct stored_table {
    const char *name;
    oid root[9];
    unsigned first_column;
    unsigned last_column;
    size_t indexes;
    netsnmp_container *container = nullptr;
};

stored_table stored_tables[] = {
    {"benchSensors", {1, 3, 6, 1, 4, 1, 58213, 99, 4}, 1, 8, 1},
    {"benchStates", {1, 3, 6, 1, 4, 1, 58213, 99, 5}, 1, 6, 1},
    {"benchContains", {1, 3, 6, 1, 4, 1, 58213, 99, 6}, 1, 1, 2},
    {"benchAliases", {1, 3, 6, 1, 4, 1, 58213, 99, 7}, 2, 2, 2},
};

std::string rows_file;

int handle_stored(netsnmp_mib_handler *, netsnmp_handler_registration *,
                  netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests)
{
    if (reqinfo->mode != MODE_GET) {
        return SNMP_ERR_NOERROR;
    }
    for (netsnmp_request_info *r = requests; r; r = r->next) {
        if (r->processed) {
            continue;
        }
        const auto *found = static_cast<const stored_row *>(netsnmp_container_table_row_extract(r));
        const netsnmp_table_request_info *info = netsnmp_extract_table_info(r);
        if (!found || !info || !found->cells.contains(info->colnum)) {
            netsnmp_set_request_error(reqinfo, r, SNMP_NOSUCHINSTANCE);
            continue;
        }
        const stored_cell &cell = found->cells.at(info->colnum);
        snmp_set_var_typed_value(r->requestvb, cell.type,
                                 cell.value.empty() ? &cell.type : cell.value.data(),
                                 cell.value.size());
    }
    return SNMP_ERR_NOERROR;
}

template <class Value>
void append(std::vector<u_char> &to, Value value)
{
    const auto *bytes = reinterpret_cast<const u_char *>(&value);
    to.insert(to.end(), bytes, bytes + sizeof value);
}

// "TABLE COLUMN INDEX INDEX TYPE VALUE...": the second index is 0 where there is none,
// the value an integer, or the number and each of the octets or sub-identifiers.
void store(std::istringstream &line, std::map<std::pair<oid, oid>, stored_row *> *rows)
{
    size_t table = 0;
    unsigned column = 0;
    oid first = 0;
    oid second = 0;
    unsigned type = 0;
    line >> table >> column >> first >> second >> type;
    stored_row *&row = rows[table][{first, second}];
    if (!row) {
        row = new stored_row{};
        row->numbers[0] = first;
        row->numbers[1] = second;
        row->index = {stored_tables[table].indexes, row->numbers};
    }
    stored_cell &cell = row->cells[column];
    cell.type = static_cast<u_char>(type);
    if (type != ASN_OCTET_STR && type != ASN_OBJECT_ID) {
        long number = 0;
        line >> number;
        append(cell.value, number);
        return;
    }
    size_t count = 0;
    line >> count;
    for (oid each = 0; count-- > 0 && line >> each;) {
        type == ASN_OBJECT_ID ? append(cell.value, each)
                              : append(cell.value, static_cast<u_char>(each));
    }
}

void store_when_there(unsigned alarm, void *)
{
    std::ifstream in(rows_file);
    if (!in) {
        return;
    }
    std::map<std::pair<oid, oid>, stored_row *> rows[std::size(stored_tables)];
    for (std::string text; std::getline(in, text);) {
        std::istringstream line(text);
        store(line, rows);
    }
    for (size_t t = 0; t < std::size(stored_tables); t++) {
        for (const auto &[index, row] : rows[t]) {
            CONTAINER_INSERT(stored_tables[t].container, row);
        }
    }
    snmp_log(LOG_INFO, "benchContainer: rows stored\n");
    snmp_alarm_unregister(alarm);
}

void set_rows_file(const char *, char *path)
{
    rows_file = path;
    for (stored_table &each : stored_tables) {
        each.container = register_peer(each.name, each.root, OID_LENGTH(each.root), handle_stored,
                                       each.first_column, each.last_column, each.indexes);
    }
    snmp_alarm_register(1, SA_REPEAT, store_when_there, nullptr);
}

} // namespace

extern "C" __attribute__((visibility("default"))) void init_benchContainer(void)
{
    snmpd_register_config_handler("benchRows", set_rows_file, nullptr, "PATH");
    entities = register_peer("benchEntities", entity_root, OID_LENGTH(entity_root),
                             handle<set_entity_column>, 2, 16);
    numerics = register_peer("benchNumerics", numeric_root, OID_LENGTH(numeric_root),
                             handle<set_numeric_column>, 1, 16);
    snmp_alarm_register(1, SA_REPEAT, copy_when_built, nullptr);
}

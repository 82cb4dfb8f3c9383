// What does not change while a component stays in place.
#include "kavdata/build_info.h"
#include "kavdata/cache_internal.h"
#include "kavdata/sensor_types.h"
#include "kavdata/strlcpy.h"
#include "trace/trace.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sys/stat.h>

// Null where the platform does without them, which is all that this adds to the header.
// NOLINTBEGIN(readability-redundant-declaration)
extern "C" {
int capi_get_interface_name(const char *nac_name, char *buffer, int length) __attribute__((weak));
int capi_get_indicator_meaning(const char *nac_name, int32_t *meaning) __attribute__((weak));
}
// NOLINTEND(readability-redundant-declaration)

namespace kavplat
{

namespace
{

constexpr char version_file[] = "/etc/static_conf/version.dat";
constexpr char manufacturer[] = "Telvane Corporation";
constexpr int vantor_id_size = 51;

// Longest text of an identity field; replaceString keeps one character less.
constexpr uint32_t long_text = 255;
constexpr uint32_t short_text = 32;

enum class vantor_id { product = 1, chassis = 2 };

bool has(const phys_entry &entry, unsigned byte, unsigned mask)
{
    return (entry.capiCaps[byte] & mask) != 0;
}

void read_vantor_id(phys_entry *entry, vantor_id selector)
{
    char buffer[vantor_id_size] = "";
    const int status = selector == vantor_id::product
                           ? capi_get_product_vantor_id(buffer, vantor_id_size)
                           : capi_get_chassis_vantor_id(buffer, vantor_id_size);
    if (status != 0) {
        warn_failed_call("read_static_data",
                         selector == vantor_id::product ? "capi_get_product_vantor_id"
                                                        : "capi_get_chassis_vantor_id",
                         printable(entry->entPhysicalName), status);
        return;
    }
    terminate(buffer);
    replaceString(&entry->entPhysicalAlias, buffer, short_text);
}

// Anything but a regular file could keep the build waiting for a writer.
bool may_block(const char *path)
{
    struct stat status;
    if (stat(path, &status) != 0 || S_ISREG(status.st_mode)) {
        return false;
    }
    snmp_log(LOG_WARNING, "%s:%s is no regular file and is not read\n", "snmp_read_product_info",
             path);
    return true;
}

// The first line of the version file replaces the default text if it begins with
// the "@(#)" of a what string, of which only the '@' is looked at.
void read_firmware_revision(char **field)
{
    constexpr size_t field_size = 255;
    char *revision = static_cast<char *>(calloc(1, field_size));
    free(*field);
    *field = revision;
    if (!revision) {
        log_failure("snmp_read_product_info", "no memory for the firmware revision");
        return;
    }
    char text[256];
    snprintf(text, sizeof text, "System Firmware : dev build %s (r%s) %s", build_user, build_number,
             build_date);
    if (!may_block(version_file)) {
        const std::unique_ptr<FILE, int (*)(FILE *)> file{fopen(version_file, "r"), fclose};
        char line[128] = "";
        if (!file) {
            if (errno != ENOENT) { // most hosts have none
                snmp_log(LOG_WARNING, "%s:%s can not be opened: %s\n", "snmp_read_product_info",
                         version_file, strerror(errno));
            }
        } else if (fgets(line, sizeof line, file.get()) && line[0] == '@') {
            const size_t skipped = std::min<size_t>(strlen(line), 4);
            strlcpy(text, line + skipped, sizeof text);
        }
    }
    strlcpy(revision, text, field_size);
}

void read_binary_sensor(phys_entry *entry, const capi_sensor_record &info)
{
    entry->sensorKind = SENSOR_KIND_BINARY;
    const auto *row =
        std::find_if(std::begin(binary_type_rows), std::end(binary_type_rows),
                     [&](const binary_type_row &r) { return r.sensor_type == info.sensor_type; });
    const bool known = row != std::end(binary_type_rows);
    KAV_TRACE_AS("read_static_data", KAVPLAT_ROOM, "kavdata::sensor",
                 known ? row->trace : "%s:OTHER\n", "read_static_data");
    entry->sensorCol2 = known ? row->type : kavPlatSensorType::other;
}

void read_numeric_sensor(phys_entry *entry, const capi_sensor_record &info)
{
    KAV_TRACE_AS("read_static_data", KAVPLAT_ROOM, "kavdata::sensor", "%s:NUMERIC\n",
                 "read_static_data");
    entry->sensorKind = SENSOR_KIND_NUMERIC;
    entry->numericSensorCol1 = kavPlatNumericSensorBaseUnits::other;
    entry->isAlternating = (info.flags & CAPI_ALTERNATING) != 0;
    for (const units_row &row : units_rows) {
        if (row.units == info.units) {
            entry->numericSensorCol1 = row.base_unit;
            entry->sensorCol2 = row.type != 0 ? row.type : entry->sensorCol2;
        }
    }
    if (info.sensor_type == CAPI_SENSOR_HUMIDITY) {
        entry->sensorCol2 = kavPlatSensorType::humidity;
    }
    set_sensor_thresholds(entry, &info);
}

void read_sensor_nature(phys_entry *entry, uint32_t component_type)
{
    entry->sensorCol2 = kavPlatSensorType::other;
    entry->entPhysicalClass = PHYSICAL_CLASS_SENSOR;
    if (!entry->entPhysicalName) {
        return;
    }
    capi_sensor_record info = {};
    const int status = capi_get_sensor_info(entry->entPhysicalName, CAPI_SENSOR_INFO_ALL, &info);
    if (has_failed("read_static_data", polled_call::sensor_info, *entry, status)) {
        return;
    }
    // No sensor is ever given the discrete kind, so the discrete tables have no
    // rows: meant.
    if (component_type == CAPI_TYPE_SLOT_IDENTITY) {
        KAV_TRACE_AS("read_static_data", KAVPLAT_ROOM, "kavdata::sensor", "%s:SLOTID\n",
                     "read_static_data");
        entry->sensorKind = SENSOR_KIND_NUMERIC;
    } else if (info.sensor_class == CAPI_SENSOR_DISCRETE) {
        read_binary_sensor(entry, info);
    } else if (info.sensor_class == CAPI_SENSOR_THRESHOLD) {
        read_numeric_sensor(entry, info);
    }
}

void read_class(phys_entry *entry, uint32_t type)
{
    entry->entPhysicalClass = physical_class_of_type(type);
    switch (entry->entPhysicalClass) {
    case PHYSICAL_CLASS_CONTAINER:
        if (entry->holderCol2) {
            strlcpy(entry->holderCol2, "component", HOLDER_TEXT_SIZE);
        }
        break;
    case PHYSICAL_CLASS_CHASSIS:
        if (type == CAPI_TYPE_CHASSIS) {
            KAV_TRACE_AS("read_static_data", KAVPLAT_ROOM, "kavdata::cache", "CHASSIS_TYPE\n");
        }
        KAV_TRACE_AS("read_static_data", KAVPLAT_ROOM, "kavdata::cache",
                     "SYS_TYPE (unless prev line said CHASSIS)\n");
        snmp_read_product_info(entry);
        read_vantor_id(entry, vantor_id::product);
        break;
    case PHYSICAL_CLASS_UNKNOWN:
        entry->equipmentCol4 = TRUTH_TRUE;
        break;
    default:
        if (type == CAPI_TYPE_MIDPLANE) {
            KAV_TRACE_AS("read_static_data", KAVPLAT_ROOM, "kavdata::cache", "MIDPLANE_TYPE\n");
            add_chassis_info(entry);
            read_vantor_id(entry, vantor_id::chassis);
        }
        break;
    }
}

// A port that is an interface of the host. The call is one that a platform may do
// without, and most components refuse it: neither is a failure.
void read_interface_name(phys_entry *entry)
{
    if (!capi_get_interface_name || !entry->entPhysicalName) {
        return;
    }
    char name[CAPI_INTERFACE_NAME_SIZE] = "";
    if (capi_get_interface_name(entry->entPhysicalName, name, sizeof name) == 0) {
        terminate(name);
        entry->interfaceName = name[0] ? strdup(name) : nullptr;
        if (name[0] && !entry->interfaceName) {
            log_failure("read_static_data", "no memory for the name of an interface");
        }
    }
}

// As above: one that the platform may do without, and most indicators mean nothing of that.
void read_indicator_meaning(phys_entry *entry)
{
    if (!capi_get_indicator_meaning || !entry->entPhysicalName) {
        return;
    }
    int32_t meaning = 0;
    if (capi_get_indicator_meaning(entry->entPhysicalName, &meaning) == 0) {
        entry->indicatorMeaning = meaning;
    }
}

bool is_type(int (*ask)(uint32_t, int32_t *), const char *call, const phys_entry &entry,
             uint32_t type)
{
    int32_t flag = 0;
    if (const int status = ask(type, &flag); status != 0) {
        warn_failed_call("read_static_data", call, printable(entry.entPhysicalName), status);
        return false;
    }
    return flag == 1;
}

// A drive bay knows from its presence sensor, in its deasserted state, that it is
// empty.
bool is_empty_drive_bay(const phys_entry &entry)
{
    constexpr char bay_prefix[] = "/SYS/HDD";
    const char *name = entry.entPhysicalName;
    if (entry.capiComponentType != CAPI_TYPE_DRIVE_BAY || !name ||
        strncmp(name, bay_prefix, sizeof bay_prefix - 1) != 0 || strlen(name) >= 11) {
        return false;
    }
    char sensor[32];
    snprintf(sensor, sizeof sensor, "%s/PRSNT", name);
    capi_sensor_record record = {};
    if (const int status = capi_get_sensor(0, sensor, &record); status != 0) {
        warn_failed_call("get_static_fields", "capi_get_sensor", sensor, status);
        return false;
    }
    return record.raw_reading == 1 && record.reading_status == 0;
}

bool is_chassis_or_midplane(uint32_t type)
{
    return type == CAPI_TYPE_MIDPLANE || type == CAPI_TYPE_CHASSIS || type == CAPI_TYPE_SYSTEM;
}

} // namespace

} // namespace kavplat

void read_static_data(phys_entry *entry, uint32_t component_type)
{
    using namespace kavplat;

    if (!entry) {
        log_failure("read_static_data", "entry NULL");
        return;
    }
    const char *text = nullptr;
    if (const int status = capi_get_component_desc_str(component_type, &text); status != 0) {
        warn_failed_call("read_static_data", "capi_get_component_desc_str",
                         printable(entry->entPhysicalName), status);
        text = nullptr;
    }
    if (!text) {
        text = "";
    }
    copy_text(entry->entPhysicalDescr, text, sizeof entry->entPhysicalDescr);
    KAV_TRACE("kavdata::cache", "%s:init entPhysicalDescr:[%s]\n", "read_static_data",
              entry->entPhysicalDescr);
    if (is_type(capi_is_sensor_type, "capi_is_sensor_type", *entry, component_type)) {
        read_sensor_nature(entry, component_type);
    } else if (is_type(capi_is_indicator_type, "capi_is_indicator_type", *entry, component_type)) {
        entry->entPhysicalClass = PHYSICAL_CLASS_OTHER;
        entry->platPhysicalClass = kavPlatPhysicalClass::alarm;
        read_indicator_meaning(entry);
    } else {
        read_class(entry, component_type);
        read_interface_name(entry);
    }
    KAV_TRACE("kavdata::cache", "capi type %4d -> entPhysClass %d: %s\n",
              static_cast<int>(component_type), entry->entPhysicalClass, entry->entPhysicalDescr);
}

void get_static_fields(phys_entry *entry)
{
    using namespace kavplat;

    if (!entry) {
        log_failure("get_static_fields", "entry NULL");
        return;
    }
    const uint32_t type = entry->capiComponentType;
    const bool has_fru_info = has(*entry, CAPI_CAP_FRU_INFO_BYTE, CAPI_CAP_FRU_INFO);
    if (has_fru_info || has(*entry, CAPI_CAP_HOT_PLUGGABLE_BYTE, CAPI_CAP_HOT_PLUGGABLE)) {
        entry->entPhysicalIsFRU = TRUTH_TRUE;
        if (has_fru_info && !is_chassis_or_midplane(type)) {
            snmp_read_fru(entry);
        }
        entry->circuitPackValue1 = TRUTH_TRUE;
    }
    if (has(*entry, CAPI_CAP_STATEFUL_BYTE, CAPI_CAP_STATEFUL) ||
        has(*entry, CAPI_CAP_POWER_BYTE,
            CAPI_CAP_POWER_READABLE | CAPI_CAP_POWER_CONTROLLABLE | CAPI_CAP_POWER_STANDBY)) {
        entry->equipmentCol2 = kavPlatEquipmentOperState::enabled;
    }
    if (has(*entry, CAPI_CAP_HOLDER_BYTE, CAPI_CAP_HOLDER)) {
        const bool is_rack = type == CAPI_TYPE_CHASSIS || type == CAPI_TYPE_SYSTEM;
        entry->holderCol1 = is_rack ? kavPlatHolderType::rack : kavPlatHolderType::slot;
        entry->holderCol3 = is_empty_drive_bay(*entry)
                                ? kavPlatHolderOccupancy::holderEmpty
                                : kavPlatHolderOccupancy::inTheAcceptableList;
    }
    if (has(*entry, CAPI_CAP_FIELD_REPLACEABLE_BYTE, CAPI_CAP_FIELD_REPLACEABLE)) {
        entry->circuitPackValue1 = TRUTH_TRUE;
    }
    if (has(*entry, CAPI_CAP_POWER_BYTE, CAPI_CAP_POWER_READABLE | CAPI_CAP_POWER_CONTROLLABLE) ||
        has(*entry, CAPI_CAP_RESETTABLE_BYTE, CAPI_CAP_RESETTABLE)) {
        entry->circuitPackValue2 = TRUTH_TRUE;
        entry->circuitPackValue1 = TRUTH_TRUE;
    }
}

int snmp_read_product_info(phys_entry *entry)
{
    using namespace kavplat;

    if (!entry) {
        log_failure("snmp_read_product_info", "entry NULL");
        return -1;
    }
    if (!entry->entPhysicalName) {
        log_failure("snmp_read_product_info", "entPhysicalName NULL");
        return -1;
    }
    capi_product_record record = {};
    if (capi_get_product_ops_info(0, &record) != 0) {
        log_failure("snmp_read_product_info", "capi_get_product_ops_info");
        return -1;
    }
    terminate(record.serial);
    terminate(record.model);
    terminate(record.description);
    replaceString(&entry->entPhysicalSerialNum, record.serial, short_text);
    replaceString(&entry->entPhysicalModelName, record.model, long_text);
    replaceString(&entry->entPhysicalMfgName, manufacturer, long_text);
    copy_text(entry->entPhysicalDescr, record.description, sizeof entry->entPhysicalDescr);
    read_firmware_revision(&entry->entPhysicalFirmwareRev);
    if (has(*entry, CAPI_CAP_FRU_INFO_BYTE, CAPI_CAP_FRU_INFO)) {
        capi_fru_record fru = {};
        const int status = capi_get_fru_info(entry->entPhysicalName, &fru);
        if (status == 0) {
            terminate(fru.alias);
            replaceString(&entry->entPhysicalAlias, fru.alias, short_text);
        } else {
            warn_failed_call("snmp_read_product_info", "capi_get_fru_info", entry->entPhysicalName,
                             status);
        }
    }
    return 0;
}

int snmp_read_fru(phys_entry *entry)
{
    using namespace kavplat;

    if (!entry) {
        log_failure("snmp_read_fru", "entry NULL");
        return -1;
    }
    if (!entry->entPhysicalName) {
        log_failure("snmp_read_fru", "entry->entPhysicalName NULL");
        return -1;
    }
    KAV_TRACE("kavdata::fruid", "%s:entPhysicalName:[%s]\n", "snmp_read_fru",
              entry->entPhysicalName);
    capi_fru_record fru = {};
    if (capi_get_fru_info(entry->entPhysicalName, &fru) != 0) {
        snmp_log(LOG_ERR, "%s:FAILED:%s %s\n", "snmp_read_fru",
                 "capi_get_fru_info for entPhysicalName", entry->entPhysicalName);
        return -1;
    }
    terminate(fru.model);
    terminate(fru.manufacturer);
    terminate(fru.serial);
    terminate(fru.alias);
    terminate(fru.software_revision);
    replaceString(&entry->entPhysicalModelName, fru.model, long_text);
    replaceString(&entry->entPhysicalMfgName, fru.manufacturer, long_text);
    replaceString(&entry->entPhysicalSerialNum, fru.serial, short_text);
    replaceString(&entry->entPhysicalAlias, fru.alias, short_text);
    replaceString(&entry->entPhysicalSoftwareRev, fru.software_revision, long_text);
    return 0;
}

void add_chassis_info(phys_entry *entry)
{
    using namespace kavplat;

    if (!entry) {
        log_failure("add_chassis_info", "entry NULL");
        return;
    }
    capi_chassis_record record = {};
    if (capi_get_chassis_ops_info(&record) != 0) {
        log_failure("add_chassis_info", "capi_get_chassis_ops_info");
        return;
    }
    terminate(record.description);
    terminate(record.model);
    terminate(record.serial);
    terminate(record.manufacturer);
    copy_text(entry->entPhysicalDescr, record.description, sizeof entry->entPhysicalDescr);
    replaceString(&entry->entPhysicalModelName, record.model, long_text);
    replaceString(&entry->entPhysicalSerialNum, record.serial, short_text);
    replaceString(&entry->entPhysicalMfgName, record.manufacturer, long_text);
}

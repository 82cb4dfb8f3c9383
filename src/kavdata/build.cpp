// Construction of the cache from the inventory, and containment.
#include "kavdata/cache_internal.h"
#include "kavdata/strlcpy.h"
#include "kavdata/thresholds.h"
#include "trace/trace.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <unistd.h>

char root_nac[256];

namespace kavplat
{

namespace
{

constexpr int inventory_poll_seconds = 3;
constexpr size_t name_buffer_size = 256;

// Nobody may wait for the cache lock as long as a platform takes to come up.
void wait_for_inventory() KAV_NOT_ANALYSED
{
    const bool held = this_thread_holds_cache_lock();
    if (held) {
        monitor_fru_unlock();
    }
    {
        const at_rest rest;
        sleep(inventory_poll_seconds);
    }
    if (held) {
        monitor_fru_lock();
    }
}

char *allocate_text(size_t size)
{
    auto *text = static_cast<char *>(calloc(1, size));
    if (!text) {
        log_failure("build_phys_entry", "no memory for a text");
    }
    return text;
}

void set_entity_defaults(phys_entry *entry, const capi_inventory_record &record)
{
    entry->entPhysicalVendorType[0] = 0;
    entry->entPhysicalVendorType[1] = 0;
    entry->entPhysicalContainedIn = 0;
    entry->entPhysicalClass = PHYSICAL_CLASS_UNKNOWN;
    entry->entPhysicalParentRelPos = -1;
    entry->entPhysicalHardwareRev = nullptr;
    entry->entPhysicalFirmwareRev = nullptr;
    entry->entPhysicalSoftwareRev = nullptr;
    entry->entPhysicalSerialNum = nullptr;
    entry->entPhysicalMfgName = nullptr;
    entry->entPhysicalModelName = nullptr;
    entry->entPhysicalAlias = nullptr;
    entry->entPhysicalAssetID = nullptr;
    entry->entPhysicalIsFRU =
        record.capabilities[CAPI_CAP_FIELD_REPLACEABLE_BYTE] & CAPI_CAP_FIELD_REPLACEABLE
            ? TRUTH_TRUE
            : TRUTH_FALSE;
}

void set_platform_defaults(phys_entry *entry)
{
    entry->equipmentCol1 = kavPlatEquipmentAdminState::unlocked;
    entry->equipmentCol2 = kavPlatEquipmentOperState::enabled;
    entry->equipmentCol3 = kavPlatEquipmentSeverity::cleared;
    entry->equipmentCol4 = TRUTH_FALSE;
    entry->holderCol1 = kavPlatHolderType::slot;
    entry->holderCol2 = allocate_text(HOLDER_TEXT_SIZE);
    entry->holderCol3 = kavPlatHolderOccupancy::unknownType;
    entry->holderCol4 = kavPlatHolderPowerState::unknown;
    entry->circuitPackDescr = entry->entPhysicalDescr;
    entry->circuitPackFlag = 0;
    entry->circuitPackValue1 = TRUTH_FALSE;
    entry->circuitPackValue2 = TRUTH_FALSE;
    entry->platPhysicalClass = kavPlatPhysicalClass::other;
    entry->sensorKind = SENSOR_KIND_NONE;
    entry->sensorCol2 = kavPlatSensorType::unknown;
    entry->sensorCol3 = 0;
    entry->binarySensorValue1 = TRUTH_FALSE;
    entry->binarySensorValue2 = TRUTH_TRUE;
    entry->binarySensorText1 = allocate_text(SENSOR_TEXT_SIZE);
    entry->binarySensorText2 = allocate_text(SENSOR_TEXT_SIZE);
    entry->numericSensorCol1 = kavPlatNumericSensorBaseUnits::other;
    entry->numericSensorCol2 = 0;
    entry->numericSensorCol3 = kavPlatNumericSensorRateUnits::none;
    entry->numericSensorCol4 = 0;
    entry->numericSensorCol5 = 0;
    entry->numericSensorCol6 = 255;
    entry->numericSensorCol7 = 0;
    entry->numericSensorCol8 = 0;
    entry->numericSensorCol9 = 0;
    entry->numericSensorCol10 = 0;
    entry->numericSensorCol11 = 0;
    entry->numericSensorCol12 = 0;
    entry->numericSensorCol13 = 0;
    entry->numericSensorCol14 = 0;
    entry->thresholdMask = all_thresholds;
    entry->discreteStateCount = -1;
    entry->discreteSensorValue = 0;
    entry->discreteSensorCol2 = 2;
    entry->powerSupplyValue = kavPlatPowerSupplyKind::notBattery;
    entry->powerSupplyCol2 = kavPlatBatteryKind::unknown;
    entry->alarmCol1 = kavPlatAlarmKind::visible;
    entry->alarmCol2 = kavPlatAlarmState::off;
    entry->alarmCol3 = kavPlatAlarmUrgency::usual;
    entry->watchdogCol1 = 0;
    entry->watchdogCol2 = 1;
    entry->watchdogCol3 = 1;
    entry->lastReadTime = 0;
}

void free_unserved(phys_entry *entry)
{
    if (entry) {
        free(entry->entPhysicalName);
        free(entry);
    }
}

} // namespace

bool inventory::fetch(const char *nac, int mode)
{
    // entPhysicalIndex ends at 2147483647.
    constexpr size_t most =
        std::min<size_t>(INT32_MAX, PTRDIFF_MAX / sizeof(capi_inventory_record));
    if (capi_get_inventory(nac, mode, &count_, &items_) == 0 && count_ <= most &&
        (items_ || count_ == 0)) {
        owned_ = true;
        return true;
    }
    // Whatever a failure left there; there is nothing to give back.
    count_ = 0;
    items_ = nullptr;
    return false;
}

void inventory::release()
{
    if (owned_) {
        capi_free_inventory(items_, count_);
        owned_ = false;
    }
}

bool append_row(const char *caller, uint32_t index, const capi_inventory_record &record,
                row_origin origin)
{
    auto *entry = static_cast<phys_entry *>(calloc(1, sizeof(phys_entry)));
    char *name = strdup(record_name(record));
    if (!entry || !name) {
        log_failure(caller, "no memory for a cache entry");
        free(name);
        free_unserved(entry);
        return false;
    }
    static std::atomic<uint32_t> rows_made{0};
    entry->incarnation = ++rows_made;
    entry->entPhysicalIndex = index;
    if (origin == row_origin::first_build) {
        trace_index(index, entry, caller);
    } else if (record.nac_name_length > 256) {
        // Tested against 256 but reported as 255, and kept whole: meant.
        snmp_log(LOG_ERR, "%s:capi component name length (%u) has exceeded mib defined max (%u)\n",
                 caller, record.nac_name_length, 255U);
    }
    entry->entPhysicalName = name;
    if (origin == row_origin::first_build) {
        KAV_TRACE_AS(caller, KAVPLAT_ROOM, "kavdata::cache", "%s:entPhysicalName:[%s]\n", caller,
                     name);
    }
    KAV_TRACE_AS(caller, KAVPLAT_ROOM, "kavdata::cache", "%s:hashtable_insert %s at %u\n", caller,
                 name, index);
    if (!insert_name(entry)) {
        log_failure(caller, "no memory for a name, it can not be found");
    }
    build_phys_entry(entry, &record);
    get_static_fields(entry);
    entry->noted.since = time(nullptr);
    note_name_parts(*entry);
    store_slot(index, entry);
    link_into_container(entry);
    return true;
}

} // namespace kavplat

int make_root_nacname(int timeout_seconds)
{
    bool told = false;
    while (timeout_seconds > 0) {
        {
            kavplat::inventory list;
            // The first record is "/" itself, the second the root component.
            if (list.fetch("/", CAPI_INVENTORY_ROOT) && list.records().size() > 1) {
                const capi_inventory_record &root = list.records()[1];
                if (root.nac_name && root.nac_name_length != 0) {
                    strlcpy(root_nac, root.nac_name, 255);
                    return 1;
                }
            }
        }
        if (!told) {
            // Said once, for it may well take minutes after the host was started.
            snmp_log(LOG_WARNING, "%s:no inventory from the platform yet, waiting for it\n",
                     "make_root_nacname");
            told = true;
        }
        kavplat::wait_for_inventory();
        timeout_seconds -= kavplat::inventory_poll_seconds;
    }
    kavplat::log_failure("make_root_nacname", "Timed out waiting for capi_get_inventory");
    return 0;
}

void init_local_cache(void)
{
    using namespace kavplat;

    assume_cache_lock();
    snmp_log(LOG_INFO, "%s:local cache initializing\n", "init_local_cache");
    const bool was_built = cache_is_built();
    while (!make_root_nacname(INT_MAX)) {
    }
    if (!was_built && cache_is_built()) {
        // Another event built it while this one waited without the lock.
        return;
    }
    inventory list;
    if (!list.fetch(root_nac, CAPI_INVENTORY_SUBTREE)) {
        snmp_log(LOG_ERR, "%s:capi_get_inventory(%s) failed\n", "init_local_cache", root_nac);
        return;
    }
    const auto count = static_cast<uint32_t>(list.records().size());
    snmp_log(LOG_INFO, "%s:local cache processing %d inventory entries\n", "init_local_cache",
             static_cast<int>(count));
    drop_cache();
    forget_name_parts();
    prepare_indexes();
    // A fifth more than there is, for hot insertions.
    localCacheSize = highest_remembered() + static_cast<uint32_t>(count + count * 0.2);
    const bool allocated = replace_slots(localCacheSize);
    KAV_TRACE("kavdata::cache", "%s:physicalTable=0x%08x, localCacheSize=%u\n", "init_local_cache",
              printable(physicalTable), localCacheSize);
    if (!allocated) {
        // Nothing is attempted again, whatever the message says: meant.
        snmp_log(LOG_ERR, "%s:alloc failure, attempting (%u) entries\n", "init_local_cache",
                 localCacheSize);
        cache_valid = 0;
        localCacheSize = 0;
        return;
    }
    cache_valid = 1;
    if (!create_name_index()) {
        log_failure("init_local_cache", "no memory for the index by name");
    }
    begin_name_parts();
    for (const capi_inventory_record &record : list.records()) {
        const uint32_t index = give_index(record);
        append_row("init_local_cache", index, record, row_origin::first_build);
        publish_index(index);
        let_fork_by();
    }
    list.release();
    snmp_log(LOG_INFO, "%s:local cache ready\n", "init_local_cache");
}

void build_phys_entry(phys_entry *entry, const capi_inventory_record *record)
{
    using namespace kavplat;

    KAV_TRACE("kavdata::cache", "%s:entry=0x%08x\n", "build_phys_entry", printable(entry));
    if (!entry) {
        log_failure("build_phys_entry", "entry NULL");
        return;
    }
    if (!record) {
        log_failure("build_phys_entry", "record NULL");
        return;
    }
    set_entity_defaults(entry, *record);
    set_platform_defaults(entry);
    std::copy(std::begin(record->capabilities), std::end(record->capabilities), entry->capiCaps);
    entry->capiComponentType = record->component_type;
    read_static_data(entry, record->component_type);
    get_containedIn(entry, &entry->entPhysicalContainedIn);
    KAV_TRACE("kavdata::contained", "%s:get_containedIn done, ci=%u\n", "build_phys_entry",
              static_cast<unsigned>(entry->entPhysicalContainedIn));
    get_parentRelPos(entry, &entry->entPhysicalParentRelPos);
    KAV_TRACE("kavdata::relpos", "%s:get_parentRelPos done, rp=%d\n", "build_phys_entry",
              entry->entPhysicalParentRelPos);
    // Whatever the static data said of these is overridden: meant.
    entry->circuitPackDescr = entry->entPhysicalDescr;
    entry->circuitPackValue2 = TRUTH_FALSE;
    entry->circuitPackFlag = 0;
    entry->circuitPackValue1 = TRUTH_FALSE;
}

void get_containedIn(const phys_entry *entry, int32_t *result)
{
    using namespace kavplat;

    *result = 0;
    if (!entry) {
        log_failure("get_containedIn", "entry NULL");
        return;
    }
    if (!entry->entPhysicalName) {
        log_failure("get_containedIn", "entPhysicalName NULL");
        return;
    }
    KAV_TRACE("kavdata::contained", "%s:entry=0x%08x, nac=%s\n", "get_containedIn",
              printable(entry), entry->entPhysicalName);
    char parent[name_buffer_size];
    strlcpy(parent, entry->entPhysicalName, sizeof parent);
    char *separator = strrchr(parent, '/');
    if (!separator) {
        snmp_log(LOG_ERR, "%s:nac separator not found for %s\n", "get_containedIn",
                 entry->entPhysicalName);
        return;
    }
    *separator = '\0';
    const uint32_t pos = hash_nac(parent);
    *result = static_cast<int32_t>(pos);
    KAV_TRACE("kavdata::contained", "%s:pos=%u\n", "get_containedIn", pos);
}

void get_parentRelPos(const phys_entry *entry, int32_t *result)
{
    using namespace kavplat;

    KAV_TRACE("kavdata::relpos", "%s:entry=0x%08x, %s\n", "get_parentRelPos", printable(entry),
              printable(entry ? entry->entPhysicalName : nullptr));
    if (!entry || !entry->entPhysicalName || entry->entPhysicalContainedIn == 0) {
        *result = -1;
        return;
    }
    char name[name_buffer_size];
    strlcpy(name, entry->entPhysicalName, sizeof name);
    // The first character is never looked at: it is the '/' of every proper name.
    const char *suffix = name + strlen(name);
    while (suffix > name + 1 && suffix[-1] >= '0' && suffix[-1] <= '9') {
        suffix--;
    }
    KAV_TRACE("kavdata::relpos", "%s:numeric suffix=%s\n", "get_parentRelPos", suffix);
    // As sscanf counts: an empty text has come to its end.
    const int matched = *suffix ? 1 : EOF;
    // A suffix that does not fit stops at the last number that does.
    const int number =
        matched == 1
            ? static_cast<int>(std::min<unsigned long long>(strtoull(suffix, nullptr, 10), INT_MAX))
            : -1;
    KAV_TRACE("kavdata::relpos", "%s:matched=%d,num=%d\n", "get_parentRelPos", matched, number);
    if (matched == 1) {
        // P0 is the first. What comes behind the last number that fits does not fit.
        *result = number < INT_MAX ? number + 1 : number;
    }
}

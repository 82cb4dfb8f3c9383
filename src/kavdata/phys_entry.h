/*
 * One cached physical entity: a row of ENTITY-MIB and of the platform tables.
 *
 * Integers are 32 bits wide in host order, so that a table can hand a field to
 * the agent as it stands. Texts marked "owned" are heap blocks that the entry
 * frees; null where a text may be absent. Where a value has codes, they are
 * those of the MIB object that serves it.
 *
 * Fields change only under the cache lock (kavdata/cache_lock.h), but for the
 * thresholds, limits, thresholdMask and numericSensorCol2, which a sensor refresh
 * writes without it, and first_held and next_held, which the first build does; those
 * are accessed atomically.
 */
#ifndef KAVPLAT_KAVDATA_PHYS_ENTRY_H
#define KAVPLAT_KAVDATA_PHYS_ENTRY_H

#include <net-snmp/net-snmp-config.h>

#include "platform/component_class.h"

#include <net-snmp/types.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* phys_entry.sensorKind */
enum sensor_kind {
    SENSOR_KIND_NONE = 0,
    SENSOR_KIND_BINARY = 1,
    SENSOR_KIND_NUMERIC = 2,
    SENSOR_KIND_DISCRETE = 3
};

/* SNMPv2-TC TruthValue (RFC 2579). */
enum truth_value { TRUTH_TRUE = 1, TRUTH_FALSE = 2 };

enum {
    ENT_PHYSICAL_DESCR_SIZE = 256, /* SnmpAdminString: 255 octets and the NUL */
    HOLDER_TEXT_SIZE = 32,
    SENSOR_TEXT_SIZE = 256
};

/* sensor_look.outcome */
enum look_outcome {
    LOOK_NONE = 0,    /* nobody has asked yet */
    LOOK_READ = 1,    /* a valid reading */
    LOOK_INVALID = 2, /* the platform answered, and marked the reading invalid */
    LOOK_FAILED = 3   /* the platform gave no answer */
};

/* What the platform last said of a sensor or an indicator, whatever came of it: for
 * tables that tell a reading from the want of one. The live fields of the entry keep what a
 * failed read left in them. */
typedef struct sensor_look {
    uint32_t time;       /* agent up-time, in hundredths of a second; 0: never */
    int32_t outcome;     /* enum look_outcome */
    float reading;       /* of the last valid one, in the platform's units */
    uint32_t state_time; /* agent up-time of the last enable state; 0: never */
    int32_t disabled;    /* what that was: 1 disabled, 0 enabled or not known */
} sensor_look;

/* What ENTITY-STATE-MIB says of an entity, in that module's codes. */
typedef struct entity_states {
    int32_t admin;   /* EntityAdminState */
    int32_t oper;    /* EntityOperState */
    int32_t usage;   /* EntityUsageState */
    int32_t standby; /* EntityStandbyStatus */
    uint32_t alarm;  /* EntityAlarmStatus: the octet of the BITS, bit 0 is 0x80 */
#ifdef __cplusplus
    bool operator==(const entity_states &) const = default;
#endif
} entity_states;

/* The states as they were noted last, for who has to know of a change. */
typedef struct noted_states {
    entity_states states; /* of no meaning while they were never noted */
    int32_t are_known;    /* 1 once they were noted */
    int32_t told_oper;    /* the last known states.oper that was taken; 0: none */
    int64_t since;        /* seconds since 1970: the last change, at first the making of
                             the row */
} noted_states;

/* What was told to managers of a sensor's severity, and what the last look but for
 * indeterminate ones saw; 0: nothing yet. */
typedef struct severity_memory {
    int32_t told;
    int32_t seen;
    int32_t limit; /* 1 + the place in kavdata/thresholds.h of what was reached; 0: none */
} severity_memory;

typedef struct phys_entry {
    /* ENTITY-MIB entPhysicalTable */
    uint32_t entPhysicalIndex; /* this entry's slot in physicalTable, from 1 */
    uint32_t incarnation;      /* no two rows that were ever made have the same */
    char entPhysicalDescr[ENT_PHYSICAL_DESCR_SIZE];
    oid entPhysicalVendorType[2];    /* always zeroDotZero */
    int32_t entPhysicalContainedIn;  /* index of the container, 0: none */
    int32_t entPhysicalClass;        /* enum physical_class */
    int32_t entPhysicalParentRelPos; /* position among siblings, -1: unknown */
    char *entPhysicalName;           /* owned; the NAC name, also the key of htab */
    char *entPhysicalHardwareRev;    /* owned, may be null, as the seven below */
    char *entPhysicalFirmwareRev;
    char *entPhysicalSoftwareRev;
    char *entPhysicalSerialNum;
    char *entPhysicalMfgName;
    char *entPhysicalModelName;
    char *entPhysicalAlias;
    char *entPhysicalAssetID;
    int32_t entPhysicalIsFRU; /* enum truth_value */

    /* kavPlatEquipmentTable */
    int32_t equipmentCol1;
    int32_t equipmentCol2;
    int32_t equipmentCol3;
    int32_t equipmentCol4;

    /* kavPlatEquipmentHolderTable */
    int32_t holderCol1;
    char *holderCol2; /* owned, HOLDER_TEXT_SIZE bytes */
    int32_t holderCol3;
    int32_t holderCol4;

    /* kavPlatCircuitPackTable. circuitPackDescr points into this very entry, so
     * it is valid exactly as long as the entry; that is meant. */
    char *circuitPackDescr;
    uint8_t circuitPackFlag;
    int32_t circuitPackValue1;
    int32_t circuitPackValue2;

    /* kavPlatPhysicalTable; 2 marks an indicator, 3 a watchdog */
    int32_t platPhysicalClass;

    /* kavPlatSensorTable */
    int32_t sensorKind; /* enum sensor_kind */
    int32_t sensorCol2; /* sensor type */
    uint32_t sensorCol3;

    /* kavPlatBinarySensorTable */
    int32_t binarySensorValue1; /* current, enum truth_value */
    int32_t binarySensorValue2; /* expected, enum truth_value */
    char *binarySensorText1;    /* owned, SENSOR_TEXT_SIZE bytes: what true means */
    char *binarySensorText2;    /* owned, SENSOR_TEXT_SIZE bytes: what false means */

    /* kavPlatNumericSensorTable, named by storage position: each word serves the
     * column of its number, but for words 9, 10, 11 and 12, which serve columns
     * 10, 12, 9 and 11. */
    int32_t numericSensorCol1; /* base units */
    int32_t numericSensorCol2; /* exponent: 0 or -3 */
    int32_t numericSensorCol3;
    int32_t numericSensorCol4; /* current reading */
    int32_t numericSensorCol5;
    int32_t numericSensorCol6;
    int32_t numericSensorCol7;
    int32_t numericSensorCol8;  /* column 8: lower non-critical threshold */
    int32_t numericSensorCol9;  /* column 10: lower critical threshold */
    int32_t numericSensorCol10; /* column 12: lower fatal threshold */
    int32_t numericSensorCol11; /* column 9: upper non-critical threshold */
    int32_t numericSensorCol12; /* column 11: upper critical threshold */
    int32_t numericSensorCol13; /* column 13: upper fatal threshold */
    uint32_t numericSensorCol14;
    uint8_t thresholdMask; /* kavPlatNumericSensorThresholds: bit 0 is 0x80 */
    uint8_t isAlternating; /* its volts are those of an alternating voltage */
    float limits[6];       /* the thresholds as the platform told them, in its units, in
                              the order of kavdata/thresholds.h */

    /* kavPlatDiscreteSensorTable and kavPlatDiscreteSensorStatesTable */
    int32_t discreteStateCount; /* number of the state set, -1: none */
    int32_t discreteSensorValue;
    int32_t discreteSensorCol2;

    /* kavPlatPowerSupplyTable and kavPlatBatteryTable */
    int32_t powerSupplyValue; /* 3 marks a battery */
    int32_t powerSupplyCol2;

    /* kavPlatAlarmTable */
    int32_t alarmCol1;
    int32_t alarmCol2;
    int32_t alarmCol3;

    /* kavPlatWatchdogTable. The third word is served both as a text and as an
     * integer; that is meant. */
    int32_t watchdogCol1;
    int32_t watchdogCol2;
    int32_t watchdogCol3;

    /* From the inventory record (platform/capi.h). */
    uint8_t capiCaps[10];
    uint32_t capiComponentType;

    /* What it means that this indicator is on, enum capi_indicator_meaning; 0: nothing
     * that is known. */
    int32_t indicatorMeaning;

    /* The host's name of the network interface that a port is; owned, null: none. */
    char *interfaceName;

    /* Agent up-time, in hundredths of a second, of the last live read; 0: never. */
    uint32_t lastReadTime;

    /* What the platform's calls that are made again and again gave last
     * (kavdata/cache.h); accessed atomically. */
    int32_t polledStatus[3];

    /* The last look at a sensor or an indicator, a good one or not; the enable state in
     * it is that of any entity. */
    sensor_look look;

    /* Agent up-time of the last question for the administrative state, and for the
     * power of a holder; 0: never. */
    uint32_t adminTime;
    uint32_t powerTime;

    noted_states noted;

    /* The components that this one holds (kavdata/cache.h), each linked to the next,
     * in the order in which they came. */
    struct phys_entry *first_held;
    struct phys_entry *last_held;
    struct phys_entry *next_held;
    struct phys_entry *previous_held;

    /* Of who watches (watch/judge.h). */
    severity_memory severity;

    /* Links the rows that are unlinked and wait to be freed. */
    struct phys_entry *next_retired;
} phys_entry;

#ifdef __cplusplus
}
#endif

#endif

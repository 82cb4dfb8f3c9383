/*
 * Which ENTITY-MIB class the row of a component gets: for firmware teams that choose
 * component types, and for libPlatformMIB, which reads it here. Like the numbers in
 * capi.h this is part of the contract; no number ever changes its class.
 */
#ifndef KAVPLAT_PLATFORM_COMPONENT_CLASS_H
#define KAVPLAT_PLATFORM_COMPONENT_CLASS_H

#include <stdint.h>

/* PhysicalClass (RFC 2737). */
enum physical_class {
    PHYSICAL_CLASS_OTHER = 1,
    PHYSICAL_CLASS_UNKNOWN = 2,
    PHYSICAL_CLASS_CHASSIS = 3,
    PHYSICAL_CLASS_BACKPLANE = 4,
    PHYSICAL_CLASS_CONTAINER = 5,
    PHYSICAL_CLASS_POWER_SUPPLY = 6,
    PHYSICAL_CLASS_FAN = 7,
    PHYSICAL_CLASS_SENSOR = 8,
    PHYSICAL_CLASS_MODULE = 9,
    PHYSICAL_CLASS_PORT = 10,
    PHYSICAL_CLASS_STACK = 11
};

/*
 * The class of a component type (struct capi_inventory_record) that is neither a
 * sensor's nor an indicator's. Where capi_is_sensor_type says so the class is
 * sensor(8), and where capi_is_indicator_type does, other(1), whatever stands here.
 * No type is a port or a stack.
 */
static inline enum physical_class physical_class_of_type(uint32_t component_type)
{
    /* clang-format off */
    switch (component_type) {
    case 0: case 92: case 99:
        return PHYSICAL_CLASS_UNKNOWN;
    case 2: case 3:
        return PHYSICAL_CLASS_CHASSIS;
    case 48: case 158: case 164:
        return PHYSICAL_CLASS_BACKPLANE;
    case 6: case 7: case 8: case 14: case 33: case 34: case 35: case 41: case 55: case 56:
    case 82: case 104: case 105: case 138: case 139: case 152: case 153: case 154: case 155:
    case 156: case 157: case 159: case 160: case 163: case 176:
        return PHYSICAL_CLASS_CONTAINER;
    case 4: case 44: case 45: case 94:
        return PHYSICAL_CLASS_POWER_SUPPLY;
    case 12: case 13: case 42: case 43: case 106: case 107: case 108:
        return PHYSICAL_CLASS_FAN;
    case 9: case 10: case 15: case 29: case 40: case 47: case 52: case 83: case 88: case 89:
    case 90: case 95: case 98: case 103: case 115: case 149: case 161: case 162: case 165:
    case 173: case 174:
        return PHYSICAL_CLASS_MODULE;
    default:
        /* The midplane (59) too, though it takes the chassis texts: meant. */
        return PHYSICAL_CLASS_OTHER;
    }
    /* clang-format on */
}

#endif

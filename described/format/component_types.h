/*
 * The catalogue of component types: which names a description may use, the
 * number that the component API carries for each, and the text that describes
 * the type. A description may also give a bare number that is not listed here.
 */
#ifndef KAVPLAT_DESCRIBED_COMPONENT_TYPES_H
#define KAVPLAT_DESCRIBED_COMPONENT_TYPES_H

#include "platform/component_class.h"

#include <cstdint>
#include <span>
#include <string_view>

namespace described_platform
{

enum class component_kind { plain, sensor, indicator };

struct component_type {
    const char *name;
    uint32_t number;
    const char *text; /* lives as long as the process */
    component_kind kind;
};

/* All types, in no order that matters. */
std::span<const component_type> component_types();

/* Null when the catalogue has no such name or number. */
const component_type *find_component_type(std::string_view name);
const component_type *find_component_type(uint32_t number);

/* What is said of a number that the catalogue does not list. */
const char *unlisted_component_text();

/* A number that the catalogue does not list is a plain component. */
component_kind component_kind_of(uint32_t number);

/* What entPhysicalClass a component of the type is served with. */
physical_class class_of(const component_type &type);

} // namespace described_platform

#endif

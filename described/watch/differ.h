/* What changed between two descriptions, as events of the event manager. */
#ifndef KAVPLAT_DESCRIBED_DIFFER_H
#define KAVPLAT_DESCRIBED_DIFFER_H

#include "described/format/description.h"

namespace described_platform
{

struct event {
    int event_class;
    int event;
    std::string payload;
    bool operator==(const struct event &) const = default;
};

/* What a change of a component asks for, the gravest last. */
enum class difference {
    none,
    live,     /* nothing: it is read anew at each call */
    refresh,  /* the sensor's thresholds are loaded anew */
    identity, /* the component goes and comes again: it is read only when it comes */
};
difference compare(const component &before, const component &after);

struct change_count {
    size_t came = 0;
    size_t went = 0;
    size_t changed = 0;    /* in anything at all */
    bool identity = false; /* of product or chassis */
    bool operator==(const change_count &) const = default;
};
/* Before null: everything came. */
change_count count_changes(const description *before, const description &after);

/*
 * First the removed components, then the inserted, then the sensors to refresh,
 * then the update of the server's identity; each in the order of the inventory.
 * Of a subtree that comes or goes only its top is named, and a component that
 * goes and comes again takes along all below it.
 * Before null: everything is new.
 */
std::vector<event> differences(const description *before, const description &after);

} // namespace described_platform

#endif

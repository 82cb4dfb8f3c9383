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

/*
 * First the removed components, then the inserted, then the sensors with other
 * thresholds, then the update of the identity; each in the order of the
 * inventory. Of a subtree that comes or goes only its top is named. A component
 * whose identity, type or capabilities changed goes and comes again, all below
 * it included: whoever keeps rows of it reads it only when it comes.
 * Before null: everything is new.
 */
std::vector<event> differences(const description *before, const description &after);

} // namespace described_platform

#endif

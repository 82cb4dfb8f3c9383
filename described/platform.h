/*
 * What the entry points of the component API and of the event manager share:
 * the description in force, and all that belongs to this process alone.
 *
 * The description in force outlives a fork; the machine (threads, handles,
 * locks that another thread may have held) does not: the child leaves the
 * parent's where it is, touches nothing of it, and builds its own when it is
 * next asked for anything.
 */
#ifndef KAVPLAT_DESCRIBED_PLATFORM_H
#define KAVPLAT_DESCRIBED_PLATFORM_H

#include "described/live/health.h"
#include "described/live/live_values.h"
#include "described/watch/event_thread.h"
#include "described/watch/in_force.h"
#include "described/watch/source.h"

namespace described_platform
{

struct machine {
    explicit machine(std::string description_path);

    live_values values;
    value_health health;
    source file;
    event_thread events; /* last: its thread uses the others */
};

/* Made at the first use in a process, and kept until the process ends. */
machine &the_machine();

} // namespace described_platform

/*
 * Not exported: joins all threads and forgets everything, so that a test starts
 * from nothing and a leak checker finds nothing. No call of the platform may be
 * under way.
 */
void described_platform_stop();

#endif

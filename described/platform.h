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

#include "described/format/loader.h"
#include "described/live/live_values.h"
#include "described/watch/event_thread.h"

namespace described_platform
{

struct machine {
    explicit machine(std::string description_path);

    const std::string path;
    live_values values;

    std::mutex load_mutex; /* guards the three below; held while a file is read */
    file_signature seen;
    bool ever_tried = false;
    std::string last_complaint;

    event_thread events; /* last: its thread uses the others */
};

/* Made at the first use in a process, and kept until the process ends. */
machine &the_machine();

/* Null until a good file was read. */
std::shared_ptr<const description> current_description();

enum class load_when { changed, always };
/* What is wrong with a file is logged once, and only when its writer is done. */
enum class complaints { now, later };

/* Reads the file, and puts what it says in force if it is good. False when the
 * file was read and is bad. */
bool load(machine &owner, load_when when, complaints when_to_complain);

} // namespace described_platform

/*
 * Not exported: joins all threads and forgets everything, so that a test starts
 * from nothing and a leak checker finds nothing. No call of the platform may be
 * under way.
 */
void described_platform_stop();

#endif

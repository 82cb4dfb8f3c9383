// What each component holds. Rows are put in and taken out under the lock, but for the
// first build, which only puts in, behind all that is there; so who walks a list holds
// the lock and loads its links atomically.
#include "kavdata/cache_internal.h"

namespace kavplat
{

namespace
{

using link = phys_entry *;

link follow(const link &l)
{
    return std::atomic_ref(const_cast<link &>(l)).load(std::memory_order_acquire);
}

void publish(link &l, phys_entry *entry)
{
    std::atomic_ref(l).store(entry, std::memory_order_release);
}

phys_entry *container_of(const phys_entry &entry)
{
    const auto index = static_cast<uint32_t>(entry.entPhysicalContainedIn);
    return index != 0 ? entry_at(index) : nullptr;
}

} // namespace

phys_entry *first_held(const phys_entry &container)
{
    return follow(container.first_held);
}

phys_entry *next_held(const phys_entry &held)
{
    return follow(held.next_held);
}

void link_into_container(phys_entry *entry)
{
    phys_entry *container = container_of(*entry);
    if (!container) {
        return;
    }
    phys_entry *last = container->last_held;
    entry->previous_held = last;
    container->last_held = entry;
    publish(last ? last->next_held : container->first_held, entry);
}

// Its container may have gone before it; then its neighbours go on without.
void unlink_from_container(phys_entry *entry)
{
    phys_entry *container = container_of(*entry);
    phys_entry *before = entry->previous_held;
    phys_entry *behind = entry->next_held;
    if (before) {
        publish(before->next_held, behind);
    } else if (container && container->first_held == entry) {
        publish(container->first_held, behind);
    }
    if (behind) {
        behind->previous_held = before;
    } else if (container && container->last_held == entry) {
        container->last_held = before;
    }
    entry->previous_held = nullptr;
    publish(entry->next_held, nullptr);
}

} // namespace kavplat

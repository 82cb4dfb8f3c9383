// How grave it is what a sensor told at the last look. Lock held.
#ifndef KAVPLAT_KAVDATA_SEVERITY_H
#define KAVPLAT_KAVDATA_SEVERITY_H

#include "kavdata/phys_entry.h"

#include <cstdint>

namespace kavplat
{

// cleared, warning, major or critical; indeterminate where there is no valid reading.
// cleared for whatever is no sensor, and for a slot identity. A reading is compared with
// the limits as the platform gave both: kavPlatEquipmentSeverity compares what its table
// serves, where they may be cut differently.
int32_t severity_at_last_look(const phys_entry &entry);

// The place in `thresholds` (kavdata/thresholds.h) of a limit in force that the last
// reading reached and that is worth this severity, or -1.
int reached_limit(const phys_entry &sensor, int32_t severity);

} // namespace kavplat

#endif

// The common step of a walk without net-snmp's table iterator.
//
// From a row to the next one in the same column is what nearly every GETNEXT and
// GETBULK asks for, and the cache knows the answer. The iterator finds it by the
// callbacks as well, but allocates a good part of a kilobyte on the way; that took
// longer than all of ours. Everything else goes through the iterator as ever: GET,
// the start of a walk and the end of a column, names that are no row's, tables with
// a second index, and every walk whose steps are traced.
#ifndef KAVPLAT_TABLE_NEXT_ROW_H
#define KAVPLAT_TABLE_NEXT_ROW_H

#include "table/table.h"

namespace kavplat
{

// For a registration that was successful; t must outlive it. Without memory the
// table does without.
void step_to_next_row(netsnmp_handler_registration *registration, const table &t);

} // namespace kavplat

#endif

// The common step of a walk without net-snmp's table helper and table iterator.
//
// From a row to the next one in the same column is what nearly every GETNEXT and
// GETBULK asks for, and the cache knows the answer. The helpers find it by the
// callbacks as well, but allocate some kilobytes on the way; that took ten times as
// long as all of ours. So where a GETNEXT's name is a row's the next row is found,
// its index written into the name and its cell served. Everything else goes through the
// helpers as ever: GET, the start of a walk and the end of a column, names that are no
// row's, tables of states, every walk whose steps are traced, and a table
// between whose helpers somebody has put a handler.
#ifndef KAVPLAT_TABLE_NEXT_ROW_H
#define KAVPLAT_TABLE_NEXT_ROW_H

#include "table/table.h"

namespace kavplat
{

// For a registration that was successful and has the serialize helper before the
// others; t must outlive it. Without memory the table does without.
void step_to_next_row(netsnmp_handler_registration *registration, const table &t);

} // namespace kavplat

#endif

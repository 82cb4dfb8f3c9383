// Inside the room: serving a cell of a row that was found.
#ifndef KAVPLAT_TABLE_SERVE_H
#define KAVPLAT_TABLE_SERVE_H

#include "table/table.h"

namespace kavplat
{

// The cache lock for a handler's call. At its end no row is outstanding.
class KAV_SCOPED_CAPABILITY request_lock
{
  public:
    request_lock() KAV_ACQUIRE(cache_lock);
    ~request_lock() KAV_RELEASE();
    request_lock(const request_lock &) = delete;
    request_lock &operator=(const request_lock &) = delete;
};

// Sets var to what the row has in a column; an unknown one is logged. Under the lock.
void serve(const table &t, netsnmp_variable_list *var, unsigned number, void *row)
    KAV_REQUIRES(cache_lock);

} // namespace kavplat

#endif

// Who renews live values besides requests.
#include "kavdata/live.h"

namespace kavplat
{

namespace
{

// Guarded by the cache lock.
struct {
    bool is_given;
    uint32_t since;
    uint32_t until;
} promise;

} // namespace

void promise_renewal(uint32_t since, uint32_t until)
{
    promise = {true, since, until};
}

void renew_no_more()
{
    promise = {};
}

// By signed differences, which hold across the wrap of the up-time.
bool is_renewed(uint32_t stamp, uint32_t now)
{
    return promise.is_given && stamp != 0 && static_cast<int32_t>(stamp - promise.since) >= 0 &&
           static_cast<int32_t>(promise.until - now) >= 0;
}

bool is_current(uint32_t stamp, uint32_t now)
{
    return is_fresh(stamp, now) || is_renewed(stamp, now);
}

} // namespace kavplat

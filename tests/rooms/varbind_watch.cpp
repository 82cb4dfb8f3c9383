#include "rooms/varbind_watch.h"

#include "kavdata/cache_lock.h"

#include <cerrno>

namespace
{

bool watching = false;

std::vector<varbind_watch::value> &seen_values()
{
    static std::vector<varbind_watch::value> all;
    return all;
}

std::vector<varbind_watch::injection> &seen_injections()
{
    static std::vector<varbind_watch::injection> all;
    return all;
}

bool cache_is_locked()
{
    const int result = pthread_mutex_trylock(&fru_mutex);
    if (result == 0) {
        pthread_mutex_unlock(&fru_mutex);
    }
    return result == EBUSY;
}

} // namespace

namespace varbind_watch
{

void start()
{
    seen_values().clear();
    seen_injections().clear();
    watching = true;
}

void stop()
{
    watching = false;
}

const std::vector<value> &values()
{
    return seen_values();
}

const std::vector<injection> &injections()
{
    return seen_injections();
}

} // namespace varbind_watch

#pragma GCC visibility push(default)

extern "C" {

int __real_snmp_set_var_typed_value(netsnmp_variable_list *, u_char, const void *, size_t);
int __real_netsnmp_inject_handler_before(netsnmp_handler_registration *, netsnmp_mib_handler *,
                                         const char *);

int __wrap_snmp_set_var_typed_value(netsnmp_variable_list *var, u_char type, const void *data,
                                    size_t length)
{
    if (watching) {
        seen_values().push_back({type, length, cache_is_locked()});
    }
    return __real_snmp_set_var_typed_value(var, type, data, length);
}

int __wrap_netsnmp_inject_handler_before(netsnmp_handler_registration *registration,
                                         netsnmp_mib_handler *handler, const char *before)
{
    if (!watching) {
        return __real_netsnmp_inject_handler_before(registration, handler, before);
    }
    seen_injections().push_back({registration, handler->handler_name, before});
    netsnmp_handler_free(handler);
    return SNMPERR_SUCCESS;
}

} // extern "C"

#pragma GCC visibility pop

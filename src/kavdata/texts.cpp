#include "kavdata/cache_internal.h"
#include "kavdata/strlcpy.h"
#include "trace/trace.h"

#include <cstdlib>

void replaceString(char **field, const char *source, uint32_t maximum)
{
    using namespace kavplat;

    KAV_TRACE("kavdata::fruid", "%s:old value:[%s]\n", "replaceString", printable(*field));
    free(*field);
    *field = static_cast<char *>(calloc(1, size_t{maximum} + 1));
    if (!*field) {
        log_failure("replaceString", "calloc");
        return;
    }
    if (source) {
        const size_t length = strlen(source);
        if (length > maximum) {
            snmp_log(LOG_ERR,
                     "%s:source string length (%u)exceeds maximum (%u) and will be truncated\n",
                     "replaceString", static_cast<unsigned>(length), maximum);
        }
        // One character less than the maximum survives: meant.
        strlcpy(*field, source, maximum);
    } else {
        KAV_TRACE("kavdata::fruid", "src string NULL");
    }
    KAV_TRACE("kavdata::fruid", "%s:new value:[%s]\n", "replaceString", *field);
}

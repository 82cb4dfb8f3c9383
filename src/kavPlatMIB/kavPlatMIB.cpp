#include "kavPlatMIB/kavPlatMIB.h"

#include "kavdata/build_info.h"
#include "kavdata/cache.h"
#include "kavPlatMIB/platform_table.h"
#include "trace/trace.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/resource.h>
#include <utility>

namespace kavplat
{

namespace
{

constexpr rlim_t core_file_limit = 10485760; // 10 MiB

constexpr size_t date_and_time_size = 8;
unsigned char start_time[date_and_time_size];

// Kept for whoever looks at a core file; nothing prints them.
constexpr size_t banner_size = 100;
char *banner_number;
char *banner_date;
char *banner_user;

constexpr struct {
    int (*initialize)(void);
    void (*deinitialize)(void);
} tables[] = {
#define KAV_PLAT_FUNCTIONS(name) {initialize_table_##name, deinitialize_table_##name},
    KAV_PLAT_REGISTERED_TABLES(KAV_PLAT_FUNCTIONS)
#undef KAV_PLAT_FUNCTIONS
};

void note_start_time()
{
    const time_t now = time(nullptr);
    struct tm utc = {};
    gmtime_r(&now, &utc);
    convert_tmToDateAndTime(&utc, start_time);
}

void limit_core_files()
{
    const rlimit limit = {core_file_limit, core_file_limit};
    if (setrlimit(RLIMIT_CORE, &limit) != 0) {
        printf("setrlimit failed: error %s\n", strerror(errno));
    }
}

void make_banner(char *&banner, const char *format, const char *value)
{
    free(banner);
    banner = static_cast<char *>(malloc(banner_size));
    if (banner) {
        snprintf(banner, banner_size, format, value);
    } else {
        snmp_log(LOG_ERR, "%s:FAILED:%s\n", "init_kavPlatMIB", "no memory for the build banner");
    }
}

} // namespace

} // namespace kavplat

void init_kavPlatMIB(void)
{
    using namespace kavplat;

    if (std::exchange(loaded.kavPlatMIB, true)) {
        snmp_log(LOG_WARNING, "kavPlatMIB: loaded again, which changes nothing: the tables of the "
                              "first time go on\n");
        return;
    }
    if (!loaded.entityMIB) {
        snmp_log(LOG_WARNING, "kavPlatMIB: loaded without entityMIB, which fills its tables: they "
                              "stay empty until \"dlmod entityMIB\" is there, one line before\n");
    }
    note_start_time();
    limit_core_files();
    make_banner(banner_number, " BUILD_NUMBER is %s ", build_number);
    make_banner(banner_date, " BUILD_DATE is %s ", build_date);
    make_banner(banner_user, " BUILD_USER is %s ", build_user);
    register_scalar("kavPlatStartTime", platform_oid<1>, handle_kavPlatStartTime);
    for (const auto &table : tables) {
        table.initialize();
    }
}

void deinit_kavPlatMIB(void)
{
    for (const auto &table : kavplat::tables) {
        table.deinitialize();
    }
}

int handle_kavPlatStartTime(netsnmp_mib_handler *, netsnmp_handler_registration *,
                            netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests)
{
    if (reqinfo->mode != MODE_GET) {
        return SNMP_ERR_GENERR;
    }
    if (requests) {
        snmp_set_var_typed_value(requests->requestvb, ASN_OCTET_STR, GetDateAndTime(),
                                 GetDateAndTimeLen());
    }
    return SNMP_ERR_NOERROR;
}

unsigned char *GetDateAndTime(void)
{
    return kavplat::start_time;
}

size_t GetDateAndTimeLen(void)
{
    return sizeof kavplat::start_time;
}

void convert_tmToDateAndTime(const struct tm *tm, unsigned char *out)
{
    const int year = tm->tm_year + 1900;
    const int octets[kavplat::date_and_time_size] = {
        year >> 8, year, tm->tm_mon + 1, tm->tm_mday, tm->tm_hour, tm->tm_min, tm->tm_sec,
        0, // deci-seconds are not known
    };
    for (const int octet : octets) {
        *out++ = static_cast<unsigned char>(octet);
    }
}

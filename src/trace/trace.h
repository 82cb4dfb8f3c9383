// The agent's log and debug facility, as every room uses them.
//
// KAV_TRACE prints while agent debugging is on, and costs one test while it is
// off: first, under the token "trace", which function of which room speaks, then
// the message under its own token. The room is KAVPLAT_ROOM, which the build
// gives each room: a bare name, so that the output does not depend on where the
// sources were built.
#ifndef KAVPLAT_TRACE_TRACE_H
#define KAVPLAT_TRACE_TRACE_H

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/library/snmp_debug.h>
#include <net-snmp/library/snmp_logging.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#define KAV_TRACE(token, ...) KAV_TRACE_AS(__func__, KAVPLAT_ROOM, token, __VA_ARGS__)

// For a mechanism that speaks for another function or room.
#define KAV_TRACE_AS(function, source, token, ...)                                                 \
    do {                                                                                           \
        if (kavplat::debugging()) {                                                                \
            kavplat::trace_line(function, source, __LINE__);                                       \
            kavplat::trace(token, __VA_ARGS__);                                                    \
        }                                                                                          \
    } while (0)

// Only the line that says who speaks.
#define KAV_TRACE_LINE_AS(function, source)                                                        \
    do {                                                                                           \
        if (kavplat::debugging()) {                                                                \
            kavplat::trace_line(function, source, __LINE__);                                       \
        }                                                                                          \
    } while (0)

namespace kavplat
{

// Whether traces are printed; a build without traces knows that they are not.
#ifdef KAVPLAT_NO_TRACES
constexpr bool debugging()
{
    return false;
}
#else
inline bool debugging()
{
    return snmp_get_do_debugging() != 0;
}
#endif

// What a trace does while debugging is on, out of the way of what runs while it is off.
[[gnu::cold, gnu::noinline, gnu::format(printf, 2, 3)]] inline void trace(const char *token,
                                                                          const char *format, ...)
{
    char *text = nullptr;
    va_list arguments;
    va_start(arguments, format);
    const int length = vasprintf(&text, format, arguments);
    va_end(arguments);
    if (length >= 0) {
        debugmsgtoken(token, "%s", text);
        debugmsg(token, "%s", text);
        free(text);
    }
}

[[gnu::cold, gnu::noinline]] inline void trace_line(const char *function, const char *source,
                                                    int line)
{
    trace("trace", "%s(): %s, %d:\n", function, source, line);
}

// Texts that may be absent print as "NULL".
inline const char *printable(const char *text)
{
    return text ? text : "NULL";
}

// The trace formats print addresses as 32-bit hexadecimal numbers; on a 64-bit
// host that is the address's lower half, enough to tell two rows apart.
inline unsigned printable(const volatile void *address)
{
    return static_cast<unsigned>(reinterpret_cast<uintptr_t>(address));
}

} // namespace kavplat

#endif

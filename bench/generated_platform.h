/*
 * A platform that costs next to nothing: the calls of platform/capi.h, answered
 * from a generated server whose lists are made beforehand. No events, one thread.
 */
#ifndef KAVPLAT_BENCH_GENERATED_PLATFORM_H
#define KAVPLAT_BENCH_GENERATED_PLATFORM_H

#include <cstddef>

/* From here on the server has that many components. */
void use_generated_server(size_t size);

#endif

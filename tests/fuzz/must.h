/*
 * An assertion that holds in every build type and that a fuzzer reports: it says
 * what and where, and traps.
 */
#ifndef KAVPLAT_TESTS_FUZZ_MUST_H
#define KAVPLAT_TESTS_FUZZ_MUST_H

#include <cstdio>

#define must(condition)                                                                            \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            fprintf(stderr, "%s:%d: must hold: %s\n", __FILE__, __LINE__, #condition);             \
            __builtin_trap();                                                                      \
        }                                                                                          \
    } while (0)

#endif

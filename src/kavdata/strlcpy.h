// strlcpy, which glibc has only from 2.38 on.
#ifndef KAVPLAT_KAVDATA_STRLCPY_H
#define KAVPLAT_KAVDATA_STRLCPY_H

#include <cstring>

#ifdef KAVPLAT_STRLCPY_FROM_LIBBSD
#include <bsd/string.h>
#endif

#endif

# Big-endian, 32 bit.
set(CMAKE_SYSTEM_PROCESSOR ppc)
set(KAVPLAT_GNU_TYPE powerpc-linux-gnu)
set(KAVPLAT_MULTIARCH powerpc-linux-gnu)
set(KAVPLAT_QEMU ppc)
include("${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake")

# Little-endian, 32 bit.
set(CMAKE_SYSTEM_PROCESSOR i686)
set(KAVPLAT_GNU_TYPE i686-linux-gnu)
set(KAVPLAT_MULTIARCH i386-linux-gnu)
set(KAVPLAT_QEMU i386)
include("${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake")

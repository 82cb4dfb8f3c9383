# Big-endian, 64 bit.
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(KAVPLAT_GNU_TYPE s390x-linux-gnu)
set(KAVPLAT_MULTIARCH s390x-linux-gnu)
set(KAVPLAT_QEMU s390x)
include("${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake")

# Little-endian, 32 bit.
set(CMAKE_SYSTEM_PROCESSOR i686)
set(KAVPLAT_GNU_TYPE i686-linux-gnu)
set(KAVPLAT_MULTIARCH i386-linux-gnu)
set(KAVPLAT_QEMU i386)
include("${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake")

# Most 64-bit machines run such programs by themselves, given the loader and the
# libraries. KAVPLAT_EMULATE, to be given: whether this one does not.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KAVPLAT_EMULATE)
if(NOT KAVPLAT_EMULATE)
  unset(CMAKE_CROSSCOMPILING_EMULATOR)
  string(CONCAT libraries "-Wl,--disable-new-dtags -Wl,-rpath,"
    "${KAVPLAT_SYSROOT}/lib/${KAVPLAT_MULTIARCH}:${KAVPLAT_SYSROOT}/usr/lib/${KAVPLAT_MULTIARCH}")
  set(CMAKE_SHARED_LINKER_FLAGS_INIT "${libraries}")
  set(CMAKE_EXE_LINKER_FLAGS_INIT
    "${libraries} -Wl,--dynamic-linker=${KAVPLAT_SYSROOT}/lib/ld-linux.so.2")
endif()

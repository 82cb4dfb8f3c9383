# What the toolchain files of the foreign architectures share. One of them sets
# KAVPLAT_GNU_TYPE (the prefix of Debian's cross compiler), KAVPLAT_MULTIARCH
# (Debian's directory of the architecture's libraries) and KAVPLAT_QEMU (qemu's
# name of the processor), and includes this.
#
# KAVPLAT_SYSROOT, to be given: a directory with the architecture's packages
# unpacked, as tests/portability/sysroot makes it.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KAVPLAT_SYSROOT)
if(NOT IS_DIRECTORY "${KAVPLAT_SYSROOT}")
  message(FATAL_ERROR "KAVPLAT_SYSROOT is '${KAVPLAT_SYSROOT}', which is no directory: "
                      "tests/portability/sysroot makes one")
endif()

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${KAVPLAT_GNU_TYPE}-gcc)
set(CMAKE_CXX_COMPILER ${KAVPLAT_GNU_TYPE}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${KAVPLAT_MULTIARCH})
set(CMAKE_SYSROOT "${KAVPLAT_SYSROOT}")

# Programs are this machine's; what is compiled or linked in never is.
set(CMAKE_FIND_ROOT_PATH "${KAVPLAT_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR "qemu-${KAVPLAT_QEMU};-L;${KAVPLAT_SYSROOT}")

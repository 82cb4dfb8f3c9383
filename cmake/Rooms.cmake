# What every target of the project is compiled with.
add_library(kavplat_options INTERFACE)
target_compile_options(kavplat_options INTERFACE -Wall -Wextra -Wconversion -Wsign-conversion)
if(NOT KAVPLAT_TRACES)
  target_compile_definitions(kavplat_options INTERFACE KAVPLAT_NO_TRACES)
endif()
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  # Else a file fails with EOVERFLOW for its size or no more than its inode number.
  target_compile_definitions(kavplat_options INTERFACE _FILE_OFFSET_BITS=64)
endif()
if(KAVPLAT_WERROR)
  target_compile_options(kavplat_options INTERFACE -Werror)
endif()
if(KAVPLAT_SANITIZE)
  target_compile_options(kavplat_options INTERFACE
    -fsanitize=${KAVPLAT_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(kavplat_options INTERFACE -fsanitize=${KAVPLAT_SANITIZE})
endif()
if(KAVPLAT_COVERAGE)
  target_compile_options(kavplat_options INTERFACE --coverage -O0)
  target_link_options(kavplat_options INTERFACE --coverage)
endif()
target_include_directories(kavplat_options INTERFACE
  "${PROJECT_SOURCE_DIR}" "${PROJECT_SOURCE_DIR}/src")

# kavplat_add_room(NAME SOURCES... [LINK TARGETS...])
# One room is one object library, room_NAME, so that the shared library and the
# tests link the same objects. The room's name is what its traces print.
function(kavplat_add_room name)
  cmake_parse_arguments(ROOM "" "" "LINK" ${ARGN})
  add_library(room_${name} OBJECT ${ROOM_UNPARSED_ARGUMENTS})
  target_compile_definitions(room_${name} PRIVATE KAVPLAT_ROOM="${name}")
  target_link_libraries(room_${name} PUBLIC kavplat_options ${ROOM_LINK})
  # What a mutex of ours guards says so, and clang looks whether it is held. A test may
  # look at a room's inside as it likes.
  target_compile_options(room_${name} PRIVATE $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)
endfunction()

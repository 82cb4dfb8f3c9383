# net-snmp, libbsd and threads, found by name so that a cross compiler's
# CMAKE_FIND_ROOT_PATH leads to its own copies.
find_package(Threads REQUIRED)

function(kavplat_import_library target library header package)
  string(MAKE_C_IDENTIFIER "${library}" id)
  find_library(KAVPLAT_LIB_${id} ${library})
  find_path(KAVPLAT_INC_${id} ${header})
  if(NOT KAVPLAT_LIB_${id} OR NOT KAVPLAT_INC_${id})
    message(FATAL_ERROR "lib${library} or its header ${header} was not found: install ${package}")
  endif()
  add_library(${target} UNKNOWN IMPORTED)
  set_target_properties(${target} PROPERTIES
    IMPORTED_LOCATION "${KAVPLAT_LIB_${id}}"
    INTERFACE_INCLUDE_DIRECTORIES "${KAVPLAT_INC_${id}}")
endfunction()

kavplat_import_library(netsnmp::lib netsnmp net-snmp/net-snmp-config.h libsnmp-dev)
kavplat_import_library(netsnmp::agent netsnmpagent net-snmp/agent/net-snmp-agent-includes.h libsnmp-dev)
kavplat_import_library(netsnmp::helpers netsnmphelpers net-snmp/agent/table_iterator.h libsnmp-dev)

# strlcpy came to glibc only in 2.38.
include(CheckSymbolExists)
check_symbol_exists(strlcpy "string.h" KAVPLAT_LIBC_HAS_STRLCPY)
add_library(kavplat_strlcpy INTERFACE)
if(NOT KAVPLAT_LIBC_HAS_STRLCPY)
  kavplat_import_library(bsd::bsd bsd bsd/string.h libbsd-dev)
  target_link_libraries(kavplat_strlcpy INTERFACE bsd::bsd)
  target_compile_definitions(kavplat_strlcpy INTERFACE KAVPLAT_STRLCPY_FROM_LIBBSD)
endif()

# What is installed and where. Modes are given here, so that an installer's umask
# neither takes a file away from its readers nor gives it to other writers.
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(KAVPLAT_DATADIR "${CMAKE_INSTALL_DATADIR}/kavplat")

# Both libraries side by side; a distribution may want them where no linker looks.
set(KAVPLAT_MODULEDIR "${CMAKE_INSTALL_LIBDIR}" CACHE STRING
  "Where the module and the described platform are installed")
cmake_path(ABSOLUTE_PATH KAVPLAT_MODULEDIR BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}"
  OUTPUT_VARIABLE KAVPLAT_FULL_MODULEDIR)
install(TARGETS PlatformMIB LIBRARY DESTINATION "${KAVPLAT_MODULEDIR}")
install(TARGETS kavplat RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")
install(DIRECTORY docs/man/ DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" FILES_MATCHING PATTERN "*.1")
install(FILES tools/kavplat/completion/kavplat
  DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions")
if(NOT KAVPLAT_PLATFORM_LIBRARIES)
  install(TARGETS kavplatform LIBRARY DESTINATION "${KAVPLAT_MODULEDIR}")
  # Where the platform looks for the description, which is not ours to write.
  install(FILES servers/minimal.json DESTINATION "${CMAKE_INSTALL_FULL_SYSCONFDIR}/kavplat"
    RENAME server.json.example)
endif()

# Headers include each other as "kavdata/phys_entry.h", so include/kavplat is the
# directory that a compiler is given.
set(KAVPLAT_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}/kavplat")
install(FILES platform/capi.h platform/component_class.h platform/event_mgr.h
  DESTINATION "${KAVPLAT_INCLUDEDIR}/platform")
set(KAVPLAT_PUBLIC_HEADERS
  hashtable/hashtable.h
  kavdata/cache_lock.h
  kavdata/kavdata.h
  kavdata/phys_entry.h
  monitor/monitor.h
  entityMIB/entityMIB.h
  entityMappingMIB/entityMappingMIB.h
  entitySensorMIB/entitySensorMIB.h
  entityStateMIB/entityStateMIB.h
  kavPlatMIB/kavPlatMIB.h)
foreach(header IN LISTS KAVPLAT_PUBLIC_HEADERS)
  get_filename_component(room "${header}" DIRECTORY)
  install(FILES "src/${header}" DESTINATION "${KAVPLAT_INCLUDEDIR}/${room}")
endforeach()

# kavplat: to link with the module. kavplat-platform, and CMake's kavplat::platform: the
# headers alone, which is what a platform needs.
foreach(name kavplat kavplat-platform)
  configure_file(cmake/${name}.pc.in ${name}.pc @ONLY)
  install(FILES "${PROJECT_BINARY_DIR}/${name}.pc"
    DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
endforeach()
include(CMakePackageConfigHelpers)
add_library(kavplat_platform_headers INTERFACE)
set_target_properties(kavplat_platform_headers PROPERTIES EXPORT_NAME platform)
target_include_directories(kavplat_platform_headers INTERFACE
  "$<INSTALL_INTERFACE:${KAVPLAT_INCLUDEDIR}>")
set(KAVPLAT_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/kavplat")
install(TARGETS kavplat_platform_headers EXPORT kavplatConfig)
install(EXPORT kavplatConfig NAMESPACE kavplat:: DESTINATION "${KAVPLAT_CMAKEDIR}")
write_basic_package_version_file("${PROJECT_BINARY_DIR}/kavplatConfigVersion.cmake"
  COMPATIBILITY SameMajorVersion ARCH_INDEPENDENT)
install(FILES "${PROJECT_BINARY_DIR}/kavplatConfigVersion.cmake" DESTINATION "${KAVPLAT_CMAKEDIR}")

install(FILES schema/server.schema.json DESTINATION "${KAVPLAT_DATADIR}/schema")
install(DIRECTORY servers/ DESTINATION "${KAVPLAT_DATADIR}/servers" FILES_MATCHING PATTERN "*.json")
# Below a directory that no tool searches by itself: the extracts in compact would
# stand in for a system's complete modules.
install(DIRECTORY mibs/ DESTINATION "${KAVPLAT_DATADIR}/mibs" FILES_MATCHING PATTERN "*.txt")
install(DIRECTORY managers/ DESTINATION "${KAVPLAT_DATADIR}/managers" PATTERN README.md EXCLUDE)

# For whoever makes a service of it: the units, and a part of snmpd.conf with the
# example's lines that load the modules.
set(KAVPLAT_DLMODDIR "${KAVPLAT_FULL_MODULEDIR}" CACHE STRING
  "Where the agent's configuration says that the module is")
file(STRINGS examples/snmpd.conf.in dlmod_lines REGEX "^dlmod ")
set(KAVPLAT_DLMOD_LINES "")
foreach(line IN LISTS dlmod_lines)
  string(REPLACE "@KAVPLAT_FULL_MODULEDIR@" "${KAVPLAT_DLMODDIR}" line "${line}")
  string(APPEND KAVPLAT_DLMOD_LINES "${line}\n")
endforeach()
configure_file(services/snmpd.conf.in services/snmpd.conf @ONLY)
configure_file(services/kavplatd.service.in services/kavplatd.service @ONLY)
configure_file(services/kavplat-describe.service.in services/kavplat-describe.service @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/services/snmpd.conf"
  "${PROJECT_BINARY_DIR}/services/kavplatd.service"
  "${PROJECT_BINARY_DIR}/services/kavplat-describe.service" services/snmpd.service.d.conf
  DESTINATION "${KAVPLAT_DATADIR}/services")
install(FILES docs/man/kavplatd.8 DESTINATION "${CMAKE_INSTALL_MANDIR}/man8")

configure_file(examples/snmpd.conf.in snmpd.conf @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/snmpd.conf" DESTINATION "${KAVPLAT_DATADIR}/examples")
install(DIRECTORY examples/minimal-platform DESTINATION "${KAVPLAT_DATADIR}/examples"
  FILES_MATCHING PATTERN "*.c")

# The documents keep their places beside each other, and find what they link to by
# symbolic links.
install(FILES README.md CHANGELOG.md CONTRIBUTING.md LICENSE DESTINATION "${CMAKE_INSTALL_DOCDIR}")
install(DIRECTORY docs DESTINATION "${CMAKE_INSTALL_DOCDIR}"
  FILES_MATCHING PATTERN "*.md" PATTERN "*.png" PATTERN man EXCLUDE)
install(FILES mibs/README.md DESTINATION "${CMAKE_INSTALL_DOCDIR}/mibs")
install(FILES managers/README.md DESTINATION "${CMAKE_INSTALL_DOCDIR}/managers")
function(kavplat_document_link name target)
  cmake_path(GET name PARENT_PATH directory)
  file(RELATIVE_PATH to "${CMAKE_INSTALL_FULL_DOCDIR}/${directory}" "${target}")
  set(link "${PROJECT_BINARY_DIR}/document-links/${name}")
  cmake_path(GET link PARENT_PATH parent)
  file(MAKE_DIRECTORY "${parent}")
  file(CREATE_LINK "${to}" "${link}" SYMBOLIC)
  install(FILES "${link}" DESTINATION "${CMAKE_INSTALL_DOCDIR}/${directory}")
endfunction()
kavplat_document_link(platform "${CMAKE_INSTALL_FULL_INCLUDEDIR}/kavplat/platform")
file(GLOB managers LIST_DIRECTORIES true RELATIVE "${PROJECT_SOURCE_DIR}"
  CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/managers/*")
list(REMOVE_ITEM managers managers/README.md)
foreach(name ${managers} examples schema servers mibs/KAV-PLATFORM-MIB.txt
        mibs/KAV-PLATFORM-NOTIFICATIONS-MIB.txt mibs/compact)
  kavplat_document_link(${name} "${CMAKE_INSTALL_FULL_DATADIR}/kavplat/${name}")
endforeach()

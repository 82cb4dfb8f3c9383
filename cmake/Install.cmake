# What is installed and where. Modes are given here, so that an installer's umask
# neither takes a file away from its readers nor gives it to other writers.
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(KAVPLAT_DATADIR "${CMAKE_INSTALL_DATADIR}/kavplat")

install(TARGETS PlatformMIB LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}")
install(TARGETS kavplat-conformance RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")
if(NOT KAVPLAT_PLATFORM_LIBRARIES)
  install(TARGETS kavplatform LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}")
  install(TARGETS kavplat-check RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")
endif()

# Headers include each other as "kavdata/phys_entry.h", so include/kavplat is the
# directory that a compiler is given.
set(KAVPLAT_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}/kavplat")
install(FILES platform/capi.h platform/event_mgr.h DESTINATION "${KAVPLAT_INCLUDEDIR}/platform")
set(KAVPLAT_PUBLIC_HEADERS
  hashtable/hashtable.h
  kavdata/cache_lock.h
  kavdata/kavdata.h
  kavdata/phys_entry.h
  monitor/monitor.h
  entityMIB/entityMIB.h
  kavPlatMIB/kavPlatMIB.h)
foreach(header IN LISTS KAVPLAT_PUBLIC_HEADERS)
  get_filename_component(room "${header}" DIRECTORY)
  install(FILES "src/${header}" DESTINATION "${KAVPLAT_INCLUDEDIR}/${room}")
endforeach()

configure_file(cmake/kavplat.pc.in kavplat.pc @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/kavplat.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")

install(FILES schema/server.schema.json DESTINATION "${KAVPLAT_DATADIR}/schema")
install(DIRECTORY servers/ DESTINATION "${KAVPLAT_DATADIR}/servers" FILES_MATCHING PATTERN "*.json")
# The extracts in mibs/compact stay here: installed, they would stand in for a
# system's complete modules.
install(FILES mibs/KAV-PLATFORM-MIB.txt DESTINATION "${KAVPLAT_DATADIR}/mibs")

configure_file(examples/snmpd.conf.in snmpd.conf @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/snmpd.conf" DESTINATION "${KAVPLAT_DATADIR}/examples")

install(FILES README.md LICENSE DESTINATION "${CMAKE_INSTALL_DOCDIR}")
install(DIRECTORY docs/ DESTINATION "${CMAKE_INSTALL_DOCDIR}" FILES_MATCHING PATTERN "*.md")

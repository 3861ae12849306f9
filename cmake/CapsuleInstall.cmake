# What `cmake --install` puts where, in three components: the shared library (`runtime`), what it
# takes to build with it (`development`), and the command with its man page (`command`).
include(CMakePackageConfigHelpers)

set(CAPSULE_CONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/capsule)
set_target_properties(capsule_static PROPERTIES EXPORT_NAME static)
set_target_properties(capsule_shared PROPERTIES EXPORT_NAME shared)
install(TARGETS capsule_static capsule_shared EXPORT capsule
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
foreach(header ${CAPSULE_PUBLIC_HEADERS})
  cmake_path(GET header PARENT_PATH folder)
  install(FILES ${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${folder} COMPONENT development)
endforeach()

install(EXPORT capsule NAMESPACE capsule:: FILE capsuleTargets.cmake
  DESTINATION ${CAPSULE_CONFIG_DIR} COMPONENT development)
configure_package_config_file(cmake/capsuleConfig.cmake.in ${PROJECT_BINARY_DIR}/capsuleConfig.cmake
  INSTALL_DESTINATION ${CAPSULE_CONFIG_DIR})
# Before 1.0 a minor version may change the interface.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/capsuleConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/capsuleConfig.cmake
              ${PROJECT_BINARY_DIR}/capsuleConfigVersion.cmake
  DESTINATION ${CAPSULE_CONFIG_DIR} COMPONENT development)

# The prefix is told relative to the file, so that an installed tree can be moved.
file(RELATIVE_PATH CAPSULE_PREFIX_FROM_PC
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" CAPSULE_PREFIX_FROM_PC "${CAPSULE_PREFIX_FROM_PC}")
configure_file(cmake/capsule.pc.in ${PROJECT_BINARY_DIR}/capsule.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/capsule.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

if(CAPSULE_CLI)
  install(TARGETS capsule_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT command)
  install(FILES docs/capsule.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT command)
endif()

# `cpack` makes three Debian packages of the components of CapsuleInstall.cmake.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VENDOR "The Capsule developers")
set(CPACK_PACKAGE_CONTACT "The Capsule developers <capsule@example.org>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY ${PROJECT_DESCRIPTION})
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime development)
if(CAPSULE_CLI)
  list(APPEND CPACK_COMPONENTS_ALL command)
endif()

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libcapsule${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "The shared library that programs are linked with.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libcapsule-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
  "Headers, the static library, and what CMake and pkg-config need to find them.")

set(CPACK_DEBIAN_COMMAND_PACKAGE_NAME capsule)
set(CPACK_DEBIAN_COMMAND_PACKAGE_SECTION utils)
set(CPACK_COMPONENT_COMMAND_DESCRIPTION "The command capsule and its man page.")

foreach(part runtime development command)
  string(TOUPPER ${part} name)
  install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${name}_PACKAGE_NAME}
    RENAME copyright COMPONENT ${part})
endforeach()
include(CPack)

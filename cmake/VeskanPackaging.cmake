# Installing and packaging: the library with its soname, its headers, a CMake package
# (find_package(Veskan) gives Veskan::veskan) and veskan.pc, the tools, and Debian packages made
# by CPack (scripts/package.sh): libveskan0, libveskan-dev and veskan-tools.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(VESKAN_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/Veskan")

install(TARGETS veskan EXPORT VeskanTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY "${PROJECT_SOURCE_DIR}/include/veskan"
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(EXPORT VeskanTargets NAMESPACE Veskan:: DESTINATION ${VESKAN_CMAKE_DIR}
  COMPONENT development)

configure_package_config_file("${PROJECT_SOURCE_DIR}/cmake/VeskanPackageConfig.cmake.in"
  "${PROJECT_BINARY_DIR}/VeskanConfig.cmake" INSTALL_DESTINATION ${VESKAN_CMAKE_DIR})
write_basic_package_version_file("${PROJECT_BINARY_DIR}/VeskanConfigVersion.cmake"
  COMPATIBILITY SameMajorVersion)
install(FILES "${PROJECT_BINARY_DIR}/VeskanConfig.cmake"
  "${PROJECT_BINARY_DIR}/VeskanConfigVersion.cmake"
  DESTINATION ${VESKAN_CMAKE_DIR} COMPONENT development)

# The .pc file finds the prefix from where it lies, like the CMake package: the tree can be
# installed under any prefix (cmake --install --prefix) or unpacked anywhere.
file(RELATIVE_PATH VESKAN_PC_TO_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" VESKAN_PC_TO_PREFIX "${VESKAN_PC_TO_PREFIX}")
configure_file("${PROJECT_SOURCE_DIR}/cmake/veskan.pc.in" "${PROJECT_BINARY_DIR}/veskan.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/veskan.pc"
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

# Debian packages. dpkg-shlibdeps works out the runtime dependencies of the library and the
# tools from the libraries they link; the -dev package names the -dev packages its headers and
# its CMake package need.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME veskan)
set(CPACK_PACKAGE_VENDOR "Veskan developers")
set(CPACK_PACKAGE_CONTACT "Veskan developers <veskan-developers@example.org>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_STRIP_FILES ON)
# Each package's description below starts with its own synopsis.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development tools)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The tools link the library of their sibling package: dpkg-shlibdeps finds it in the build.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${PROJECT_BINARY_DIR}/src")
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://localhost/veskan")
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

set(VESKAN_RUNTIME_PACKAGE libveskan${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${VESKAN_RUNTIME_PACKAGE})
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "${PROJECT_DESCRIPTION}
An embedded HTTP/1.1 server with WebSocket and TLS, an HTTP client, XML
documents with XPath, RDF graphs with SPARQL, shared settings, and
single-instance and shutdown coordination between processes.")
# The library's package names the package of its soname for packages built on it, and has the
# dynamic linker's cache renewed by a trigger.
file(WRITE "${PROJECT_BINARY_DIR}/debian/shlibs"
  "libveskan ${PROJECT_VERSION_MAJOR} ${VESKAN_RUNTIME_PACKAGE} (>= ${PROJECT_VERSION})\n")
configure_file("${PROJECT_SOURCE_DIR}/cmake/debian/triggers" "${PROJECT_BINARY_DIR}/debian/triggers"
  COPYONLY)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
  "${PROJECT_BINARY_DIR}/debian/shlibs;${PROJECT_BINARY_DIR}/debian/triggers")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libveskan-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "Development files of the Veskan runtime library
The headers, the CMake package (find_package(Veskan) gives Veskan::veskan)
and veskan.pc for pkg-config.")
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "libicu-dev, libxerces-c-dev, libboost-dev, librdf0-dev, libraptor2-dev, librasqal3-dev, pkg-config")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME veskan-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "Programs of the Veskan runtime library
veskan-serve (the example HTTP server), veskan-shutdown, veskan-settings,
veskan-rdf and veskan-version.")
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)

# Each package's copyright and changelog, as Debian expects them.
# (gzip -n: no time stamp in the file, so that the same source gives the same package).
execute_process(COMMAND gzip -9 -n -c "${PROJECT_SOURCE_DIR}/cmake/debian/changelog"
  OUTPUT_FILE "${PROJECT_BINARY_DIR}/debian/changelog.gz" COMMAND_ERROR_IS_FATAL ANY)
set(VESKAN_PACKAGES ${VESKAN_RUNTIME_PACKAGE} libveskan-dev veskan-tools)
foreach(component package IN ZIP_LISTS CPACK_COMPONENTS_ALL VESKAN_PACKAGES)
  install(FILES "${PROJECT_SOURCE_DIR}/cmake/debian/copyright"
    "${PROJECT_BINARY_DIR}/debian/changelog.gz"
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${component})
endforeach()

include(CPack)

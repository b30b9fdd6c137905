# Debian packages, made by `cpack`: libvelmarin1, libvelmarin-dev and velmarin.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME velmarin)
set(CPACK_PACKAGE_CONTACT "Velmarin maintainers <maintainers@velmarin.example>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)

set(CPACK_COMPONENTS_ALL runtime development tool)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)

set(runtime_package libvelmarin${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${runtime_package})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "Library that finds identical files and
has the file system keep one copy of their data.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libvelmarin-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${runtime_package} (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "Headers, pkg-config file and CMake package
for programs that use the library.")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME velmarin)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "${runtime_package} (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_TOOL_DESCRIPTION "Command-line tool that scans directory trees
for identical files and merges their data.")

# Dependencies on the libraries of other packages are computed from the binaries. The symbols file
# gives the version that introduced each of our own symbols; a trigger updates the linker's cache.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
  ${PROJECT_SOURCE_DIR}/packaging/symbols ${PROJECT_SOURCE_DIR}/packaging/triggers)

# Every package contains the copyright file and a changelog.
configure_file(packaging/changelog.in packaging/changelog @ONLY)
velmarin_compress(${CMAKE_CURRENT_BINARY_DIR}/packaging/changelog)
foreach(component runtime development tool)
  string(TOUPPER ${component} upper)
  set(directory ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  install(FILES COPYRIGHT RENAME copyright DESTINATION ${directory}
    COMPONENT ${component} EXCLUDE_FROM_ALL)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/packaging/changelog.gz DESTINATION ${directory}
    COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

install(FILES packaging/lintian-overrides RENAME ${runtime_package}
  DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides COMPONENT runtime EXCLUDE_FROM_ALL)

include(CPack)

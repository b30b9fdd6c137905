# What `cmake --install` installs, in three components: `runtime` (the shared libraries),
# `development` (what it takes to build a host) and `tool` (the command-line host).
#
# The platform layer's <android/log.h> and <bounds_checked.h> are not installed: only the library's
# own sources need them.
include(CMakePackageConfigHelpers)

# velmarin_compress(FILE): creates FILE.gz, identical for identical content.
find_program(GZIP gzip REQUIRED)
function(velmarin_compress file)
  execute_process(COMMAND ${GZIP} -9 --no-name --force --keep ${file} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

set_target_properties(velmarin_platform PROPERTIES EXPORT_NAME platform)
install(TARGETS velmarin velmarin_platform
  EXPORT velmarin-targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development)
install(DIRECTORY include/velmarin DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  COMPONENT development FILES_MATCHING PATTERN *.h)
install(FILES platform/linux/include/velmarin_platform/log_sink.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/velmarin_platform COMPONENT development)

# find_package(velmarin): the targets velmarin::velmarin and velmarin::platform.
set(package_directory ${CMAKE_INSTALL_LIBDIR}/cmake/velmarin)
install(EXPORT velmarin-targets NAMESPACE velmarin:: DESTINATION ${package_directory}
  COMPONENT development)
write_basic_package_version_file(
  ${CMAKE_CURRENT_BINARY_DIR}/velmarin-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES cmake/velmarin-config.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/velmarin-config-version.cmake
  DESTINATION ${package_directory} COMPONENT development)

# pkg-config: paths are relative to the file, so an installation can be moved.
cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_LIBDIR BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX}
  OUTPUT_VARIABLE library_directory)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_INCLUDEDIR BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX}
  OUTPUT_VARIABLE include_directory)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX
  BASE_DIRECTORY ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig OUTPUT_VARIABLE prefix_from_pkgconfig)
configure_file(cmake/velmarin.pc.in velmarin.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/velmarin.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

# The tool finds its libraries relative to itself, under any prefix.
cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_LIBDIR BASE_DIRECTORY ${CMAKE_INSTALL_FULL_BINDIR}
  OUTPUT_VARIABLE libraries_from_tool)
set_target_properties(velmarin_tool PROPERTIES INSTALL_RPATH $ORIGIN/${libraries_from_tool})
install(TARGETS velmarin_tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)
configure_file(docs/velmarin.1 velmarin.1 COPYONLY)
velmarin_compress(${CMAKE_CURRENT_BINARY_DIR}/velmarin.1)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/velmarin.1.gz
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tool)
install(FILES tools/velmarin/completion/velmarin.bash RENAME velmarin
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tool)
# A unit may name a program without its directory; so one file works for every prefix.
install(FILES packaging/velmarin@.service packaging/velmarin@.timer
  DESTINATION lib/systemd/system COMPONENT tool)
install(FILES packaging/example.conf
  DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/velmarin/examples COMPONENT tool)
# Debian's zsh has a separate directory for completions from packages.
install(FILES tools/velmarin/completion/_velmarin
  DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions COMPONENT zsh_completion)
install(FILES tools/velmarin/completion/_velmarin
  DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions COMPONENT tool EXCLUDE_FROM_ALL)

# What `cmake --install` puts where, in three components: `runtime` (the libraries as a program needs
# them), `development` (what a host is built with) and `tool` (the command-line host).
#
# The platform layer's <android/log.h> and <bounds_checked.h> stay out: they serve the library's own
# sources, and a host needs neither.
include(CMakePackageConfigHelpers)

# velmarin_compress(FILE): FILE.gz, always the same for the same content.
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

# pkg-config: paths start at the place of the file, so that an installation can be moved.
cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_LIBDIR BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX}
  OUTPUT_VARIABLE library_directory)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_INCLUDEDIR BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX}
  OUTPUT_VARIABLE include_directory)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX
  BASE_DIRECTORY ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig OUTPUT_VARIABLE prefix_from_pkgconfig)
configure_file(cmake/velmarin.pc.in velmarin.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/velmarin.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

# The tool finds its libraries from where it lies, under whatever prefix.
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
# A unit may name a program without its directory; so one file serves every prefix.
install(FILES packaging/velmarin@.service packaging/velmarin@.timer
  DESTINATION lib/systemd/system COMPONENT tool)
install(FILES packaging/example.conf
  DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/velmarin/examples COMPONENT tool)
# Debian's zsh looks in a directory of its own for what packages bring.
install(FILES tools/velmarin/completion/_velmarin
  DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions COMPONENT zsh_completion)
install(FILES tools/velmarin/completion/_velmarin
  DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions COMPONENT tool EXCLUDE_FROM_ALL)

# Included by tests/CMakeLists.txt: the tests of what users receive, namely the library files, the
# platform build file, the installation and the packages. A cross build also runs those labelled
# any_target. They name the interpreter by its path, since CMake would run a target in a test's
# command under the emulator.

velmarin_script_test(segments ${CMAKE_CURRENT_SOURCE_DIR}/segments_test.sh
  $<TARGET_FILE:velmarin> $<TARGET_FILE:velmarin_platform>)
set_tests_properties(segments PROPERTIES LABELS any_target)

# Compares with the flags of an ordinary build.
if(NOT CMAKE_CROSSCOMPILING AND NOT VELMARIN_SANITIZE)
  velmarin_script_test(android_build Python3::Interpreter
    ${CMAKE_CURRENT_SOURCE_DIR}/android_build_test.py ${CMAKE_BINARY_DIR} ${PROJECT_SOURCE_DIR})
endif()

# The tests that a device can run need only the library of the Linux platform layer.
add_executable(device_tests device_test.cpp support/temporary_tree.cpp)
target_include_directories(device_tests PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(device_tests PRIVATE
  velmarin_platform velmarin velmarin_build_flags GTest::gtest_main)
gtest_discover_tests(device_tests
  DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT ${test_timeout} LABELS device_tests)

# The example host as built, and the installed files. The latter are not tested for a cross build,
# whose host could not run here, nor with a sanitizer, which the host would need too.
set(classes Example)
if(NOT CMAKE_CROSSCOMPILING AND NOT VELMARIN_SANITIZE)
  list(APPEND classes Installation Packages)
endif()
foreach(class ${classes})
  velmarin_script_test(install.${class} ${Python3_EXECUTABLE}
    ${CMAKE_CURRENT_SOURCE_DIR}/install_test.py ${CMAKE_BINARY_DIR} ${PROJECT_SOURCE_DIR}
    ${CMAKE_CXX_COMPILER} ${class})
endforeach()

# A part of tests/CMakeLists.txt, which includes it: the tests of what users receive, that is the
# libraries as files, the platform build file, the installation and the packages. A cross build runs
# those labelled any_target, too. They name the interpreter by its path, since CMake runs a target
# that is named in a test's command in the emulator.

velmarin_script_test(segments ${CMAKE_CURRENT_SOURCE_DIR}/segments_test.sh
  $<TARGET_FILE:velmarin> $<TARGET_FILE:velmarin_platform>)
set_tests_properties(segments PROPERTIES LABELS any_target)

# Reads the flags of an ordinary build.
if(NOT CMAKE_CROSSCOMPILING AND NOT VELMARIN_SANITIZE)
  velmarin_script_test(android_build Python3::Interpreter
    ${CMAKE_CURRENT_SOURCE_DIR}/android_build_test.py ${CMAKE_BINARY_DIR} ${PROJECT_SOURCE_DIR})
endif()

# The tests that a device can run need nothing of the Linux platform layer but its library.
add_executable(device_tests device_test.cpp support/temporary_tree.cpp)
target_include_directories(device_tests PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(device_tests PRIVATE
  velmarin_platform velmarin velmarin_build_flags GTest::gtest_main)
gtest_discover_tests(device_tests
  DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT ${test_timeout} LABELS device_tests)

# The example host as it was built, and what is installed: the latter not for a cross build, whose
# host could not run here, and not with a sanitizer, which the host would need, too.
set(classes Example)
if(NOT CMAKE_CROSSCOMPILING AND NOT VELMARIN_SANITIZE)
  list(APPEND classes Installation Packages)
endif()
foreach(class ${classes})
  velmarin_script_test(install.${class} ${Python3_EXECUTABLE}
    ${CMAKE_CURRENT_SOURCE_DIR}/install_test.py ${CMAKE_BINARY_DIR} ${PROJECT_SOURCE_DIR}
    ${CMAKE_CXX_COMPILER} ${class})
endforeach()

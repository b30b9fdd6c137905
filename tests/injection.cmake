# Tests that make the library's calls fail, or shorten its waits, through wrappers in the test
# executable. VELMARIN_FAILURE_STRIDE is for builds in which failing every single call takes too
# long.
function(velmarin_injection_test name)
  add_executable(${name} ${ARGN}
    support/captured_log.cpp
    support/failure_injector.cpp
    support/temporary_tree.cpp)
  target_include_directories(${name} PRIVATE
    ${CMAKE_CURRENT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(${name} PRIVATE
    velmarin_build_flags velmarin_platform velmarin GTest::gtest GTest::gtest_main
    ${CMAKE_DL_LIBS})
  set(environment)
  if(VELMARIN_SANITIZE)
    set(environment ENVIRONMENT VELMARIN_FAILURE_STRIDE=23)
  endif()
  gtest_discover_tests(${name}
    DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 600 LABELS ${name} ${environment})
endfunction()

velmarin_injection_test(failure_tests failure_test.cpp)
velmarin_injection_test(thread_tests thread_test.cpp)

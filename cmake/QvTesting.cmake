include(GoogleTest)

# qv_add_gtest(<name> SOURCES ... LIBS ... [LABELS ...])
# One GoogleTest binary; every TEST becomes its own CTest entry, discovered when
# ctest runs so that sanitizer builds do not execute tests at build time.
function(qv_add_gtest name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gtest GTest::gmock GTest::gtest_main qv_warnings)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
                       PROPERTIES LABELS "${ARG_LABELS}" TIMEOUT 300)
endfunction()

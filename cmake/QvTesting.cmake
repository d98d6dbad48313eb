include(GoogleTest)

# qv_add_gtest(<name> SOURCES ... LIBS ... [LABELS ...])
# One GoogleTest binary; every TEST becomes its own CTest entry, discovered when
# ctest runs so that sanitizer builds do not execute tests at build time.
function(qv_add_gtest name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gtest GTest::gmock GTest::gtest_main qv_warnings)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
  # Discovered tests get their properties as a flat list, which cannot carry a
  # list of labels; they are set once discovery has listed the tests.
  set(labels_file ${CMAKE_CURRENT_BINARY_DIR}/${name}_labels.cmake)
  file(WRITE ${labels_file}
       "if(DEFINED ${name}_TESTS)\n"
       "  set_tests_properties(\${${name}_TESTS} PROPERTIES LABELS \"${ARG_LABELS}\")\n"
       "endif()\n")
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${labels_file})
endfunction()

include(GoogleTest)

# qv_add_gtest(<name> SOURCES ... LIBS ... [LABELS ...])
# One GoogleTest binary; every TEST becomes its own CTest entry, discovered when
# ctest runs so that sanitizer builds do not execute tests at build time.
function(qv_add_gtest name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gtest GTest::gmock GTest::gtest_main qv_warnings)
  set(env)
  if(QV_SANITIZE STREQUAL "address")
    set(env ENVIRONMENT "LSAN_OPTIONS=suppressions=${PROJECT_SOURCE_DIR}/cmake/lsan-suppressions.txt:print_suppressions=0")
  endif()
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300 ${env})
  # Discovered tests get their properties as a flat list, which cannot carry a
  # list of labels; they are set once discovery has listed the tests.
  set(labels_file ${CMAKE_CURRENT_BINARY_DIR}/${name}_labels.cmake)
  file(WRITE ${labels_file}
       "if(DEFINED ${name}_TESTS)\n"
       "  set_tests_properties(\${${name}_TESTS} PROPERTIES LABELS \"${ARG_LABELS}\")\n"
       "endif()\n")
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${labels_file})
endfunction()

# qv_gst_plugin_dir(<var> <name> PLUGINS <plug-in>...)
# Sets <var> to a directory of links to just the named system plug-ins
# (coreelements, app, videotestsrc, mpegtsdemux, libav, ...). A test that starts
# GStreamer in a child process (gst-launch-1.0, python3) points
# GST_PLUGIN_SYSTEM_PATH_1_0 there and GST_REGISTRY at a file of its own, so
# what else the machine has installed is never loaded. A plug-in that is not
# installed is left out; the test that needs it skips.
function(qv_gst_plugin_dir var name)
  cmake_parse_arguments(ARG "" "" "PLUGINS" ${ARGN})
  set(dir ${CMAKE_CURRENT_BINARY_DIR}/${name}.gst-plugins)
  file(REMOVE_RECURSE ${dir})
  file(MAKE_DIRECTORY ${dir})
  foreach(plugin ${ARG_PLUGINS})
    set(lib ${GST_PLUGINS_DIR}/libgst${plugin}${CMAKE_SHARED_LIBRARY_SUFFIX})
    if(EXISTS ${lib})
      file(CREATE_LINK ${lib} ${dir}/libgst${plugin}${CMAKE_SHARED_LIBRARY_SUFFIX} SYMBOLIC)
    else()
      message(STATUS "${name}: GStreamer plug-in '${plugin}' is not installed; the tests that need it skip")
    endif()
  endforeach()
  set(${var} ${dir} PARENT_SCOPE)
endfunction()

# qv_gst_test_env(<target> [PLUGINS <plug-in>...])
# The same for a test binary that initialises GStreamer itself: it gets
# tests/common/gst_test_env.cpp, which points the process at its plug-in
# directory and at a private registry before gst_init (tests that need an
# optional plug-in check qv_test_gst_has_plugin() and skip).
function(qv_gst_test_env target)
  cmake_parse_arguments(ARG "" "" "PLUGINS" ${ARGN})
  qv_gst_plugin_dir(dir ${target} PLUGINS ${ARG_PLUGINS})
  target_sources(${target} PRIVATE ${PROJECT_SOURCE_DIR}/tests/common/gst_test_env.cpp)
  target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR}/tests/common)
  target_compile_definitions(${target} PRIVATE QV_TEST_GST_PLUGIN_DIR="${dir}")
  target_link_libraries(${target} PRIVATE PkgConfig::GST)
endfunction()

// One GStreamer set-up for every test process: a private registry file and a
// plug-in path that holds only the plug-ins the test target asked for (see
// qv_gst_test_env() in cmake/QvTesting.cmake). What else the machine has
// installed then neither changes a result nor shows up in a leak report.
#pragma once

// Points GST_REGISTRY and the plug-in path at this process's own files. Plain
// environment only, so it also serves tests that start gst-launch-1.0 (a child
// inherits it) without linking GStreamer. Safe to call more than once.
void qv_test_gst_environment();

// qv_test_gst_environment() followed by gst_init(); safe to call more than once.
void qv_test_gst_init();

// True when the named plug-in was found in the private path (tests that need an
// optional plug-in skip without it).
bool qv_test_gst_has_plugin(const char* name);

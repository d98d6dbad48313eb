// The test programme: colour bars and a tone on every audio line, from live
// sources, for the set-up check users run after installing.
#pragma once

#include "playout_options.h"

#include <string>

// The sources and their links into the element "out", as gst_parse_launch text.
std::string test_programme_text(const playout_options& o);

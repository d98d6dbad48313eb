// What qvjt-playout prints: the element's alarms, the pipeline's warnings and
// errors as they come, and the statistics record at the end.
#pragma once

#include <gst/gst.h>

void print_message(GstMessage* msg);
void print_statistics(GstElement* out);

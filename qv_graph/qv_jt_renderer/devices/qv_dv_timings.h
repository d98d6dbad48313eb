// Which of the DV timings a board offers carries an SDI mode, and their names
// for the operator. A board states its 1/1.001 rates through the pixel clock
// and the reduced-rate flag, so a computed 59.94006 must still find the mode
// whose table rate is 59.94.
#pragma once

#include "qv_v4l2_common.h"

#include <linux/videodev2.h>

#include <string>
#include <vector>

// Frame rate of a timing, in single precision like the mode table's rates, so
// that an exact match compares equal every time.
float qv_timing_fps(const v4l2_bt_timings& bt);

// Same raster and scan as the mode, at exactly its table rate.
bool qv_timing_is_exact(const v4l2_bt_timings& bt, const qv_v4l2_video_format& row);

// Same raster and scan as the mode, at its rate within 0.1 %.
bool qv_timing_fits(const v4l2_bt_timings& bt, const qv_v4l2_video_format& row);

// Index in `offered` of the timing that fits the mode with the rate nearest
// its own; -1 when none fits.
int qv_nearest_timing(const std::vector<v4l2_dv_timings>& offered, const qv_v4l2_video_format& row);

// "1280x720p59.94", "1920x1080i25".
std::string qv_timing_name(const v4l2_bt_timings& bt);
std::string qv_mode_name(const qv_v4l2_video_format& row);

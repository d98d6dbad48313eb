#include "qv_dv_timings.h"

#include <cmath>
#include <cstdio>

namespace {

constexpr double k_rate_tolerance = 0.001;

std::string name_of(uint32_t width, uint32_t height, bool bProgressive, double fps)
{
    char text[64];
    std::snprintf(text, sizeof text, "%ux%u%c%.2f", width, height, bProgressive ? 'p' : 'i', fps);
    std::string s = text;
    // 25.00 reads as 25, 59.94 stays.
    if (s.size() > 3 && s.compare(s.size() - 3, 3, ".00") == 0)
        s.resize(s.size() - 3);
    return s;
}

bool same_raster(const v4l2_bt_timings& bt, const qv_v4l2_video_format& row)
{
    // The scan counts as much as the size: 1080p25 and 1080i25 share both
    // size and frame rate.
    return static_cast<int32_t>(bt.width) == row.width && static_cast<int32_t>(bt.height) == row.height &&
           (bt.interlaced == 0) == row.isProgressive;
}

double rate_error(const v4l2_bt_timings& bt, const qv_v4l2_video_format& row)
{
    return std::fabs(static_cast<double>(qv_timing_fps(bt)) / static_cast<double>(row.fps) - 1.0);
}

} // namespace

float qv_timing_fps(const v4l2_bt_timings& bt)
{
    const uint32_t total_width = bt.width + bt.hfrontporch + bt.hsync + bt.hbackporch;
    uint32_t total_height = bt.height + bt.vfrontporch + bt.vsync + bt.vbackporch;
    if (bt.interlaced)
        total_height += bt.il_vfrontporch + bt.il_vsync + bt.il_vbackporch;
    if (total_width == 0 || total_height == 0)
        return 0.0f;
    float fps = static_cast<float>(bt.pixelclock) / static_cast<float>(total_width * total_height);
    if (bt.flags & V4L2_DV_FL_REDUCED_FPS)
        fps = static_cast<float>(static_cast<double>(fps) / 1.001);
    return fps;
}

bool qv_timing_is_exact(const v4l2_bt_timings& bt, const qv_v4l2_video_format& row)
{
    return same_raster(bt, row) && qv_timing_fps(bt) == row.fps;
}

bool qv_timing_fits(const v4l2_bt_timings& bt, const qv_v4l2_video_format& row)
{
    return same_raster(bt, row) && rate_error(bt, row) <= k_rate_tolerance;
}

int qv_nearest_timing(const std::vector<v4l2_dv_timings>& offered, const qv_v4l2_video_format& row)
{
    int best = -1;
    for (size_t i = 0; i < offered.size(); ++i) {
        const v4l2_bt_timings& bt = offered[i].bt;
        if (qv_timing_fits(bt, row) && (best < 0 || rate_error(bt, row) < rate_error(offered[best].bt, row)))
            best = static_cast<int>(i);
    }
    return best;
}

std::string qv_timing_name(const v4l2_bt_timings& bt)
{
    return name_of(bt.width, bt.height, bt.interlaced == 0, qv_timing_fps(bt));
}

std::string qv_mode_name(const qv_v4l2_video_format& row)
{
    return name_of(static_cast<uint32_t>(row.width), static_cast<uint32_t>(row.height), row.isProgressive, row.fps);
}

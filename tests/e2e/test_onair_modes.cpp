// Every SDI mode on both board kinds: the timing the board runs afterwards
// (raster, scan, rate) is the mode's own, and frames go out without a gap.
#include "onair_driver.h"

namespace {

using qvboardsim::CapturedFrame;
using qvboardsim::NodeKind;

struct mode_case {
    NodeKind kind;
    int mode;
};

class OnAirModes : public OnAirTest, public ::testing::WithParamInterface<mode_case> {};

TEST_P(OnAirModes, OpensTheModesOwnTimingAndPlaysWithoutGaps)
{
    const mode_case& c = GetParam();
    make_onair(c.kind, c.mode, 4, true);
    // Big rasters: a short FIFO and latency keep the run small.
    m_nLatencyMs = 100;
    g_object_set(m_pElement, "buffer_capacity", gulong(600), "latency", gulong(m_nLatencyMs), nullptr);
    GstHarness* video = harness("sink_video", video_caps().c_str());
    play();

    std::vector<CapturedFrame> out;
    run(
        24, [&](int i) { ASSERT_EQ(gst_harness_push(video, tagged_frame(i)), GST_FLOW_OK); },
        [&](const CapturedFrame& f) { out.push_back(f); });
    ASSERT_GE(out.size(), 8u);

    const bool fields = out[0].field == V4L2_FIELD_TOP || out[0].field == V4L2_FIELD_BOTTOM;
    const bool interlaced = fields || out[0].field == V4L2_FIELD_INTERLACED;
    const uint32_t lines = out[0].pic_lines * (fields ? 2 : 1);
    // Slot to slot is a frame, or a field when fields go out one by one.
    const double rate = 1e9 * (out.size() - 1) / double(out.back().sys_ns - out.front().sys_ns) / (fields ? 2 : 1);
    // 576 lines at 30 frames has no timing of its own: the board keeps 576i25.
    const double want = c.mode == qv_720x576_30i ? 25.0 : m_row.fps;
    EXPECT_EQ(out[0].pic_width, static_cast<uint32_t>(m_row.width));
    EXPECT_EQ(lines, static_cast<uint32_t>(m_row.height));
    EXPECT_EQ(interlaced, !m_row.isProgressive);
    EXPECT_NEAR(rate, want, 0.01);

    uint32_t gaps = 0;
    for (size_t i = 1; i < out.size(); ++i)
        gaps += out[i].index != out[i - 1].index + 1;
    EXPECT_EQ(gaps, 0u) << "slots that went by empty";
    EXPECT_EQ(stat("Device dropped frame"), "0");
}

std::vector<mode_case> all_modes()
{
    std::vector<mode_case> v;
    for (NodeKind k : {NodeKind::single_plane, NodeKind::multi_plane})
        for (int m = 0; m < 20; ++m)
            v.push_back({k, m});
    return v;
}

INSTANTIATE_TEST_SUITE_P(All, OnAirModes, ::testing::ValuesIn(all_modes()),
                         [](const ::testing::TestParamInfo<mode_case>& i) {
                             return std::string(i.param.kind == NodeKind::single_plane ? "SinglePlane" : "MultiPlane") +
                                    "Mode" + std::to_string(i.param.mode);
                         });

} // namespace

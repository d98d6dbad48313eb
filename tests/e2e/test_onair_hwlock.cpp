// Output locked to the input's hardware time, judged from what the board sent:
// the test plays the capture side of the same board, stamping each input frame
// with the board's hardware time of its arrival (as read from the board's
// input time stamp, the DTS carrying it and buffer flag bit 21). Once locked,
// every picture goes out the latency after its input frame arrived, within a
// frame; when the capture path later hands frames over three frames later,
// the lock finds the latency again. The lock looks just over once a second of
// the board's time, which the test steps.
#include "onair_driver.h"
#include "qv_pads.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <map>

namespace {

using qvboardsim::NodeKind;

constexpr uint32_t k_ticks_per_ms = 148500;

// The board's hardware time of the newest input frame.
uint32_t input_stamp(const std::string& path)
{
    const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    EXPECT_NE(fd, -1);
    v4l2_jutvane_analog_rx_timestamp payload{};
    v4l2_ext_control ctrl{};
    ctrl.id = V4L2_CID_JUTVANE_ANALOG_RX_TIMESTAMP;
    ctrl.size = sizeof(payload);
    ctrl.ptr = &payload;
    v4l2_ext_controls ctrls{};
    ctrls.ctrl_class = V4L2_CTRL_CLASS_USER;
    ctrls.count = 1;
    ctrls.controls = &ctrl;
    EXPECT_EQ(::ioctl(fd, VIDIOC_G_EXT_CTRLS, &ctrls), 0);
    ::close(fd);
    EXPECT_EQ(payload.valid, 1u);
    return payload.timestamp;
}

} // namespace

TEST_F(OnAirTest, OutputKeepsTheLatencyAfterItsInputAndRelocksWhenTheInputPathChanges)
{
    make_onair(NodeKind::multi_plane, 6); // 720p50: 20 ms a frame
    // Only the lock moves the output: the clock loop would steer the stamps as well.
    g_object_set(m_pElement, "use_hwtime", TRUE, "use_pll", FALSE, nullptr);
    // An input whose frames start 7 ms after the output's: no frame edge of
    // one falls on the other's.
    qvboardsim::Simulator::instance().set_input(m_strPath, true, 0.0, 7.0);
    m_video = harness("sink_video", video_caps().c_str());
    play();
    const uint32_t frameTicks = 20 * k_ticks_per_ms;
    constexpr int k_late = 3;      // frames the capture path falls behind at the change
    constexpr int k_change = 100;  // input frame from which it does
    constexpr int k_frames = 196;  // tags stay unique (200)
    std::map<int, uint32_t> arrival; // input frame -> hardware time it arrived

    for (int i = 0; i < k_frames; ++i) {
        // The frame that just arrived, stamped with its arrival; from k_change
        // on, the capture hands over the frame that arrived k_late frames ago.
        const uint32_t stamp = input_stamp(m_strPath) - (i >= k_change ? k_late * frameTicks : 0);
        arrival[i] = stamp;
        GstBuffer* b = tagged_frame(i);
        GST_BUFFER_DTS(b) = stamp;
        GST_BUFFER_FLAG_SET(b, QV_BUFFER_FLAG_HWTIME);
        ASSERT_EQ(gst_harness_push(m_video, b), GST_FLOW_OK);
        // The board's clock runs on through the pre-roll too.
        if (!pump())
            step(m_nSlots);
    }

    // How long after its arrival each picture went out, in frames, by the
    // input frame it showed.
    std::map<int, double> delay;
    for (const auto& f : captured()) {
        const int i = frame_of(f);
        if (i >= 0 && arrival.count(i) != 0)
            delay[i] = static_cast<int32_t>(f.hw_time - arrival[i]) / static_cast<double>(frameTicks);
    }
    const double latency = m_nLatencyMs / 20.0;
    const auto expect_locked = [&](int from, int to) {
        int n = 0;
        for (auto it = delay.lower_bound(from); it != delay.end() && it->first < to; ++it, ++n)
            EXPECT_NEAR(it->second, latency, 1.0) << "input frame " << it->first;
        EXPECT_GT(n, (to - from) / 2) << "too few of frames " << from << " to " << to << " went out";
    };
    // Locked within about a second of play-out, and again within about a
    // second after the capture path changed.
    expect_locked(70, k_change);
    expect_locked(k_change + 70, k_frames - 8);
    // The relock skipped about the pictures the capture path fell behind by.
    int nSkipped = 0;
    for (int i = k_change; i < k_frames - 8; ++i)
        nSkipped += delay.count(i) == 0 ? 1 : 0;
    EXPECT_NEAR(nSkipped, k_late, 1);
}

// A flushing seek while on air, judged from what the stepped board sent: the
// board keeps running on the picture last shown (no black, no gap, no device
// restart) until the new position has pre-rolled, which then plays in order.
#include "onair_driver.h"

namespace {

using qvboardsim::NodeKind;
using qvboardsim::Simulator;

constexpr int k_latency_frames = 5; // 200 ms at 25 frames/s
constexpr int k_new = 100;          // tags of the pictures after the seek

class SeekTest : public OnAirTest, public ::testing::WithParamInterface<NodeKind> {
protected:
    void push_new(int i)
    {
        const GstClockTime t = frame_ns();
        ASSERT_EQ(gst_harness_push(m_video, flat_uyvy(m_row.width, m_row.height, tag_of(k_new + i), 6 * GST_SECOND + i * t, t)),
                  GST_FLOW_OK);
    }
};

TEST_P(SeekTest, FlushHoldsThePictureOnAirThenPlaysTheNewPosition)
{
    make_sd(GetParam());
    play();
    ASSERT_LT(play_until_sent(20), 80);
    auto& sim = Simulator::instance();
    const uint64_t nUnderruns = sim.underruns(m_strPath);
    const std::string strRestarts = stat("Number of fifo restarts");

    // What a seek sends down a pad: the queued pictures go, running time starts again.
    ASSERT_TRUE(gst_harness_push_event(m_video, gst_event_new_flush_start()));
    ASSERT_TRUE(gst_harness_push_event(m_video, gst_event_new_flush_stop(TRUE)));
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    segment.start = segment.time = 6 * GST_SECOND;
    ASSERT_TRUE(gst_harness_push_event(m_video, gst_event_new_segment(&segment)));
    const int nOldShown = shown().back();

    // Nothing comes for a while: the board goes on with the same picture.
    for (int i = 0; i < 15; ++i)
        ASSERT_TRUE(pump()) << "the board stopped being fed while the seek was under way";

    // The new position comes in a burst, as a decoder delivers it after a
    // seek, then at the board's pace.
    const int nBurst = k_latency_frames + 3;
    for (int i = 0; i < nBurst; ++i)
        push_new(i);
    int nToAir = 0;
    int next = nBurst;
    while (nToAir == 0 && next < nBurst + 40) {
        ASSERT_TRUE(pump());
        push_new(next++);
        const auto v = shown();
        if (std::find_if(v.begin(), v.end(), [](int f) { return f >= k_new; }) != v.end())
            nToAir = next - nBurst;
    }
    ASSERT_GT(nToAir, 0) << "the new position never went out";
    EXPECT_LE(nToAir, k_latency_frames + 2) << "frames from the new position's arrival to air";
    for (int i = 0; i < 20; ++i) {
        push_new(next++);
        ASSERT_TRUE(pump());
    }

    // Old pictures in order up to the one on air at the seek, held, then the
    // new position from its first picture in order; no black in between.
    const auto v = shown();
    ASSERT_EQ(captured().size() / m_nSlots, v.size()) << "a frame without a picture went out";
    const auto first_new = std::find_if(v.begin(), v.end(), [](int f) { return f >= k_new; });
    ASSERT_NE(first_new, v.end());
    const std::vector<int> old(v.begin(), first_new), fresh(first_new, v.end());
    for (size_t i = 1; i < old.size(); ++i)
        ASSERT_TRUE(old[i] == old[i - 1] + 1 || old[i] == old[i - 1]) << "old pictures out of order at " << i;
    EXPECT_GE(old.back(), nOldShown) << "the picture on air changed to an older one";
    EXPECT_GE(std::count(old.begin(), old.end(), old.back()), 15) << "the last picture was not held";
    for (size_t i = 0; i < fresh.size(); ++i)
        ASSERT_EQ(fresh[i], k_new + static_cast<int>(i)) << "new position out of order, repeated or skipped";

    EXPECT_EQ(sim.underruns(m_strPath), nUnderruns) << "a slot went out without a buffer";
    EXPECT_EQ(stat("Number of fifo restarts"), strRestarts) << "the seek restarted the play-out";
}

INSTANTIATE_TEST_SUITE_P(BothBoards, SeekTest, ::testing::Values(NodeKind::single_plane, NodeKind::multi_plane),
                         [](const ::testing::TestParamInfo<NodeKind>& p) {
                             return p.param == NodeKind::multi_plane ? "MultiPlane" : "SinglePlane";
                         });

} // namespace

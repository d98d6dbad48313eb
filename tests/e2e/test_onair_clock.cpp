// The element offers the board's frame clock: stepped frames move it by their
// period whatever the wall clock does, a board at a standstill holds it, and
// a pipeline without another clock provider runs on it.
#include "onair_driver.h"

namespace {

using qvboardsim::NodeKind;

TEST_F(OnAirTest, OffersTheBoardsFrameClock)
{
    make_sd(NodeKind::multi_plane);
    GstClock* clock = gst_element_provide_clock(m_pElement);
    ASSERT_NE(clock, nullptr);
    play();
    ASSERT_LT(play_until_sent(10), 60);

    const GstClockTime t0 = gst_clock_get_time(clock);
    const uint64_t n0 = sent();
    ASSERT_LT(play_until_sent(50), 120);
    const GstClockTime t1 = gst_clock_get_time(clock);
    const double fFrames = static_cast<double>(t1 - t0) / static_cast<double>(frame_ns());
    // The count the clock reads lags the board's by up to a frame, and the
    // time into the current frame adds up to one more.
    EXPECT_NEAR(fFrames, static_cast<double>(sent() - n0), 2.0) << "the clock did not follow the board's frames";

    // Nothing stepped: the clock stops within a frame of the last one.
    g_usleep(300000);
    EXPECT_LE(gst_clock_get_time(clock) - t1, frame_ns()) << "the clock ran on without the board";
    gst_object_unref(clock);
}

TEST(BoardClockInAPipeline, IsThePipelinesClockWhenNothingElseOffersOne)
{
    configure_board("/dev/qvsim-e2e-clock-video", NodeKind::single_plane, 0, qvboardsim::Pacing::realtime, true);
    GstElement* pipeline = gst_parse_launch(
        "videotestsrc is-live=true ! video/x-raw,format=UYVY,width=720,height=576,framerate=25/1,"
        "pixel-aspect-ratio=1/1,interlace-mode=interleaved ! qvjtrenderer name=out number_of_audio_lines=0 "
        "latency=200 v4l2=/dev/qvsim-e2e-clock-video",
        nullptr);
    ASSERT_NE(pipeline, nullptr);
    ASSERT_NE(gst_element_set_state(pipeline, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    ASSERT_EQ(gst_element_get_state(pipeline, nullptr, nullptr, 10 * GST_SECOND), GST_STATE_CHANGE_SUCCESS);
    GstClock* used = gst_pipeline_get_clock(GST_PIPELINE(pipeline));
    GstElement* out = gst_bin_get_by_name(GST_BIN(pipeline), "out");
    GstClock* offered = gst_element_provide_clock(out);
    EXPECT_EQ(used, offered);
    gst_object_unref(offered);
    gst_object_unref(used);
    gst_object_unref(out);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(pipeline);
}

} // namespace

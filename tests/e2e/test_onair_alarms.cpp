// Input-loss alarms as the application sees them: raised within the
// configured number of frames after an input stops, whether the play-out
// still has frames to send (long latency) or has run dry and sits in pre-roll
// (short latency), and cleared as soon as the input returns.
#include "onair_driver.h"

namespace {

using qvboardsim::NodeKind;

constexpr uint32_t k_silence = 10; // frames an input may stay silent

struct AlarmCase {
    uint32_t latency_ms;
    NodeKind kind;
};

class InputAlarms : public OnAirTest, public ::testing::WithParamInterface<AlarmCase> {
protected:
    void push_audio(GstHarness* h)
    {
        // One frame of stereo S16 silence, stamped like the picture before it.
        const GstClockTime t = GST_SECOND / 25;
        GstBuffer* b = gst_buffer_new_allocate(nullptr, 1920 * 4, nullptr);
        gst_buffer_memset(b, 0, 0, 1920 * 4);
        GST_BUFFER_PTS(b) = static_cast<GstClockTime>(m_nNext - 1) * t;
        GST_BUFFER_DURATION(b) = t;
        EXPECT_EQ(gst_harness_push(h, b), GST_FLOW_OK);
    }
};

TEST_P(InputAlarms, NoVideoAndNoAudioRaisedWithinTheirFramesAndClearedOnReturn)
{
    const AlarmCase& c = GetParam();
    make_sd(c.kind, 1, [&] { g_object_set(m_pElement, "latency", gulong(c.latency_ms), nullptr); });
    GstHarness* audio = harness("src_audio0", "audio/x-raw,format=S16LE,rate=48000,channels=2,layout=interleaved");
    AlarmRecorder& alarms = install_alarms(k_silence);
    play();

    const int nLatency = static_cast<int>(c.latency_ms / 40);
    // Pre-roll, then 20 frames on air.
    for (int i = 0; i < nLatency + 2; ++i) {
        push_frame();
        push_audio(audio);
    }
    for (int i = 0; i < 20; ++i) {
        push_frame();
        push_audio(audio);
        ASSERT_TRUE(pump(2000)) << "play-out did not start";
    }
    EXPECT_FALSE(alarms.raised(QV_ALARM_NO_VIDEO));
    EXPECT_FALSE(alarms.raised(QV_ALARM_NO_AUDIO));

    // Both inputs stop. The board keeps its pace: frame slots go by whether
    // or not the loop has anything left to send.
    const auto t0 = std::chrono::steady_clock::now();
    int nSlots = 0;
    while (!alarms.raised(QV_ALARM_NO_VIDEO) && nSlots < 100) {
        if (!pump(40))
            g_usleep(0); // pre-roll: only wall time passes, 40 ms a slot
        ++nSlots;
    }
    const auto ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_TRUE(alarms.raised(QV_ALARM_NO_VIDEO));
    EXPECT_TRUE(alarms.raised(QV_ALARM_NO_AUDIO));
    // Not long before its frames (slots are counted by frames handed to the
    // board, which runs a few frames behind, or by frame periods).
    EXPECT_GE(std::max<long long>(nSlots, ms / 40), static_cast<long long>(k_silence) - 4);
    EXPECT_LE(nSlots, static_cast<int>(k_silence) + 3);

    // Input back: cleared at once, each by its own stream.
    push_frame();
    EXPECT_FALSE(alarms.raised(QV_ALARM_NO_VIDEO));
    EXPECT_TRUE(alarms.raised(QV_ALARM_NO_AUDIO));
    push_audio(audio);
    EXPECT_FALSE(alarms.raised(QV_ALARM_NO_AUDIO));
    EXPECT_EQ(alarms.raises(QV_ALARM_NO_VIDEO), 1);
}

INSTANTIATE_TEST_SUITE_P(OnAir, InputAlarms,
                         ::testing::Values(AlarmCase{200, NodeKind::single_plane}, AlarmCase{2000, NodeKind::single_plane},
                                           AlarmCase{200, NodeKind::multi_plane}, AlarmCase{2000, NodeKind::multi_plane}),
                         [](const ::testing::TestParamInfo<AlarmCase>& p) {
                             return std::string(p.param.kind == NodeKind::multi_plane ? "MultiPlane" : "SinglePlane") +
                                    "Latency" + std::to_string(p.param.latency_ms);
                         });

} // namespace

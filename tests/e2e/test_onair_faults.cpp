// Board faults while on air, judged from what the simulated board sent: the
// play-out continues or comes back within the latency plus two frames, the
// order of pictures is kept, the console stays quiet while the device is away,
// and the application can always stop the element within a second.
#include "onair_driver.h"
#include "qv_renderer.h"

namespace {

using qvboardsim::CallFault;
using qvboardsim::NodeKind;
using qvboardsim::Simulator;

// 200 ms of latency at 25 frames/s.
constexpr int k_latency_frames = 5;

enum class Fault { errored_buffers, failing_qbuf, failing_dqbuf, dropped_frames, stall, gone_500ms, gone_2s, watchdog };

struct FaultCase {
    const char* name;
    Fault fault;
    NodeKind kind;
};

std::string case_name(const ::testing::TestParamInfo<FaultCase>& info)
{
    return std::string(info.param.name) +
           (info.param.kind == NodeKind::multi_plane ? "_MultiPlane" : "_SinglePlane");
}

class FaultMatrix : public OnAirTest, public ::testing::WithParamInterface<FaultCase> {};

TEST_P(FaultMatrix, PlayOutContinuesOrComesBackAndTheElementStops)
{
    const FaultCase& c = GetParam();
    make_sd(c.kind, 0, [&] { g_object_set(m_pElement, "watchdog", TRUE, nullptr); });
    AlarmRecorder& alarms = install_alarms(1000);
    play();
    auto& sim = Simulator::instance();

    ASSERT_LT(play_until_sent(20), 60) << "play-out never started";
    const int nBeforeFault = m_nNext;
    int nQuietLines = -1; // console lines while the device stayed away

    switch (c.fault) {
    case Fault::errored_buffers:
        sim.error_buffers(m_strPath, 1, 3);
        break;
    case Fault::failing_qbuf:
        sim.fail_qbuf(m_strPath, CallFault{5, 6, 0});
        break;
    case Fault::failing_dqbuf:
        sim.fail_dqbuf(m_strPath, CallFault{5, 6, 0});
        break;
    case Fault::dropped_frames:
        sim.drop_frames(m_strPath, 1, 3);
        break;
    case Fault::stall:
        // Longer than the devices' bounded waits: the loop must neither hang nor restart.
        sim.stall_clock(m_strPath, true);
        g_usleep(300000);
        sim.stall_clock(m_strPath, false);
        break;
    case Fault::gone_500ms:
    case Fault::gone_2s: {
        sim.disconnect(m_strPath);
        // The loss is seen at the loop's next touch of the node.
        for (int i = 0; i < 200 && !renderer()->output_down(); ++i) {
            push_frame();
            step(m_nSlots);
            g_usleep(5000);
        }
        ASSERT_TRUE(renderer()->output_down()) << "the loss was not noticed";
        EXPECT_TRUE(alarms.raised(QV_ALARM_RESTART));
        // The input stays live while the node is away, across the element's
        // own wall-clock retries: after the loss was reported the console stays quiet.
        const int ms = c.fault == Fault::gone_2s ? 2000 : 500;
        print_capture lines;
        for (int i = 0; i < ms / 40; ++i) {
            push_frame();
            step(m_nSlots);
            g_usleep(40000);
        }
        EXPECT_TRUE(renderer()->output_down());
        nQuietLines = static_cast<int>(lines.newlines());
        sim.reconnect(m_strPath);
        // The loop watches the node every few milliseconds; give it a bounded moment.
        for (int i = 0; i < 200 && renderer()->output_down(); ++i)
            g_usleep(5000);
        EXPECT_FALSE(renderer()->output_down()) << "the device was not reopened after the node came back";
        break;
    }
    case Fault::watchdog:
        sim.expire_watchdog(m_strPath);
        // The expiry is noticed in the board's time: while the board is held,
        // however long, nothing looks at it; then within about half a second
        // of frames (13 at 25 frames/s) it is re-armed, and only once.
        g_usleep(700000);
        EXPECT_FALSE(sim.watchdog(m_strPath).armed) << "re-armed while no frame went out";
        for (int i = 0; i < 14 && !sim.watchdog(m_strPath).armed; ++i)
            play_until_sent(1, 2);
        EXPECT_TRUE(sim.watchdog(m_strPath).armed) << "expired watchdog not re-armed within 14 frames";
        break;
    }

    // From the end of the fault: how many input frames until a frame goes out again.
    const int nFaultEnd = m_nNext;
    const int nRecovery = play_until_sent(1, 40);
    // The rest of the play-out must flow one frame per input frame.
    const int nAfter = play_until_sent(30, 60);
    EXPECT_LE(nRecovery, k_latency_frames + 2);
    EXPECT_LE(nAfter, 30 + k_latency_frames + 2);

    if (c.fault == Fault::watchdog) {
        EXPECT_TRUE(sim.watchdog(m_strPath).armed);
        EXPECT_EQ(sim.watchdog(m_strPath).expiries, 1u);
    }
    if (c.fault == Fault::gone_500ms || c.fault == Fault::gone_2s) {
        EXPECT_LE(nQuietLines, 2) << "the console floods while the device is away";
        // The restart alarm clears once play-out has run a while.
        play_until_sent(30, 60);
        EXPECT_FALSE(alarms.raised(QV_ALARM_RESTART));
    }

    // The board now stalls for good: stopping must still be prompt.
    const int nLastOut = m_nNext - 1;
    sim.stall_clock(m_strPath, true);
    for (int i = 0; i < 3; ++i)
        push_frame();
    g_usleep(300000);
    EXPECT_LT(time_to_stop().count(), 1000);

    const std::vector<int> v = shown();
    ASSERT_FALSE(v.empty());
    // Pictures keep their order (a repeat is allowed, going back is not), and
    // the newest input got out.
    int nDescents = 0;
    for (size_t i = 1; i < v.size(); ++i)
        nDescents += v[i] < v[i - 1] ? 1 : 0;
    EXPECT_EQ(nDescents, 0);
    EXPECT_GE(v.back(), nLastOut - k_latency_frames - 3);
    // Frames from before the fault went out and the last of them is not far before it.
    EXPECT_GE(*std::max_element(v.begin(), v.end()), nFaultEnd);
    EXPECT_TRUE(std::any_of(v.begin(), v.end(), [&](int n) { return n < nBeforeFault; }));
    // Before the fault: from the first input picture on, every picture once,
    // none skipped at the start.
    EXPECT_EQ(v.front(), 0);
    for (size_t i = 1; i < v.size() && v[i] < nBeforeFault - 8; ++i)
        EXPECT_EQ(v[i], v[i - 1] + 1) << "at output frame " << i;
}

std::vector<FaultCase> fault_cases()
{
    const std::pair<const char*, Fault> faults[] = {
        {"ErroredBuffers", Fault::errored_buffers}, {"FailingQbuf", Fault::failing_qbuf},
        {"FailingDqbuf", Fault::failing_dqbuf},     {"DroppedFrames", Fault::dropped_frames},
        {"Stall", Fault::stall},                     {"Gone500ms", Fault::gone_500ms},
        {"Gone2s", Fault::gone_2s},                  {"Watchdog", Fault::watchdog}};
    std::vector<FaultCase> v;
    for (const auto& [name, fault] : faults)
        for (NodeKind kind : {NodeKind::single_plane, NodeKind::multi_plane})
            v.push_back({name, fault, kind});
    return v;
}

INSTANTIATE_TEST_SUITE_P(OnAirFaults, FaultMatrix, ::testing::ValuesIn(fault_cases()), case_name);

// A device that keeps failing is restarted about once a second, not at the
// frame rate, and the restart alarm stays up meanwhile.
TEST_F(OnAirTest, DeviceThatKeepsFailingBacksOffInsteadOfResettingEveryFrame)
{
    make_sd(NodeKind::single_plane);
    AlarmRecorder& alarms = install_alarms(1000);
    play();
    ASSERT_LT(play_until_sent(10), 60);
    Simulator::instance().fail_qbuf(m_strPath, CallFault{5, 1000000, 0});
    const auto t0 = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - t0 < std::chrono::seconds(3)) {
        push_frame();
        pump(40);
    }
    const int nRestarts = std::stoi(stat("Number of fifo restarts"));
    EXPECT_GE(nRestarts, 1);
    EXPECT_LE(nRestarts, 5) << "resets at the frame rate";
    EXPECT_TRUE(alarms.raised(QV_ALARM_RESTART));
    EXPECT_LT(time_to_stop().count(), 1000);
}

// Board values written while on air wait for the next NULL -> READY: an
// internal reset reopens the board as it went on air, and the pads stay.
TEST_F(OnAirTest, BoardValuesWrittenWhilePlayingWaitForTheNextOpen)
{
    make_sd(NodeKind::single_plane);
    play();
    ASSERT_LT(play_until_sent(10), 60);
    g_object_set(m_pElement, "mode", gulong(6), "number_of_audio_lines", gulong(3), nullptr);
    EXPECT_EQ(gst_element_get_static_pad(m_pElement, "src_audio1"), nullptr);
    // Input stops: the FIFO runs dry and the play-out resets.
    for (int i = 0; i < 200 && stat("Number of fifo restarts") == "0"; ++i)
        if (!pump(5))
            g_usleep(5000);
    ASSERT_NE(stat("Number of fifo restarts"), "0");
    ASSERT_LT(play_until_sent(10), 60) << "no play-out after the reset";
    for (const auto& f : captured())
        EXPECT_EQ(f.pic_width, 720u) << "the reset reopened the board in the new mode";
    gulong nLines = 0;
    g_object_get(m_pElement, "number_of_audio_lines", &nLines, nullptr);
    EXPECT_EQ(nLines, 3u);

    gst_element_set_state(m_pElement, GST_STATE_NULL);
    ASSERT_NE(gst_element_set_state(m_pElement, GST_STATE_READY), GST_STATE_CHANGE_FAILURE);
    GstPad* pad = gst_element_get_static_pad(m_pElement, "src_audio2");
    EXPECT_NE(pad, nullptr) << "the new number of audio lines did not apply at the next open";
    if (pad)
        gst_object_unref(pad);
}

// After the end of a stream, a flush and a new stream play again from their
// own time base; the end is posted once per stream.
TEST_F(OnAirTest, FlushAfterEndOfStreamPlaysTheNextStream)
{
    make_sd(NodeKind::single_plane, 0, [&] { g_object_set(m_pElement, "number_of_audio_lines", gulong(0), nullptr); });
    GstBus* bus = gst_bus_new();
    gst_element_set_bus(m_pElement, bus);
    play();
    ASSERT_LT(play_until_sent(10), 60);
    ASSERT_TRUE(gst_harness_push_event(m_video, gst_event_new_eos()));
    GstMessage* eos = nullptr;
    for (int i = 0; i < 400 && !eos; ++i) {
        pump(5);
        eos = gst_bus_pop_filtered(bus, GST_MESSAGE_EOS);
    }
    ASSERT_NE(eos, nullptr) << "no end of stream after the queued frames";
    gst_message_unref(eos);

    ASSERT_TRUE(gst_harness_push_event(m_video, gst_event_new_flush_start()));
    ASSERT_TRUE(gst_harness_push_event(m_video, gst_event_new_flush_stop(TRUE)));
    ASSERT_TRUE(gst_harness_push_event(m_video, gst_event_new_stream_start("second")));
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    ASSERT_TRUE(gst_harness_push_event(m_video, gst_event_new_segment(&segment)));
    m_nNext = 100; // the second stream starts at its own time 0 with other pictures
    const uint64_t nBefore = sent();
    std::vector<int> second;
    for (int i = 0; i < 40 && sent() < nBefore + 10; ++i) {
        const GstClockTime t = GST_SECOND / 25;
        ASSERT_EQ(gst_harness_push(m_video, flat_uyvy(720, 576, static_cast<uint8_t>(16 + 100 + i), i * t, t)),
                  GST_FLOW_OK);
        pump();
    }
    EXPECT_GE(sent(), nBefore + 10) << "the second stream did not play";
    const std::vector<int> v = shown();
    EXPECT_EQ(v.back() >= 100, true) << "the second stream's pictures did not go out";
    EXPECT_EQ(gst_bus_pop_filtered(bus, GST_MESSAGE_EOS), nullptr) << "a second EOS without a second end";
    // The device restarted its count at the end and at the flush; nothing was dropped.
    EXPECT_EQ(stat("Device dropped frame"), "0");
    gst_element_set_state(m_pElement, GST_STATE_NULL);
    gst_element_set_bus(m_pElement, nullptr);
    gst_object_unref(bus);
}

// End of stream: everything queued goes out, then the pipeline ends.
class EosTest : public ::testing::TestWithParam<NodeKind> {};

TEST_P(EosTest, PipelineEndsAfterTheLastQueuedFrameWentOut)
{
    const NodeKind kind = GetParam();
    const std::string path = std::string("/dev/qvsim-e2e-video-eos") + (kind == NodeKind::multi_plane ? "mp" : "sp");
    configure_board(path, kind, 0, qvboardsim::Pacing::stepped, true);
    const unsigned nSlots = kind == NodeKind::multi_plane ? 2 : 1;

    const std::string launch = "videotestsrc num-buffers=50 ! video/x-raw,format=UYVY,width=720,height=576,"
                               "framerate=25/1,pixel-aspect-ratio=1/1,interlace-mode=interleaved ! "
                               "qvjtrenderer number_of_audio_lines=0 latency=200 use_hwtime=false v4l2=" +
                               path;
    GError* err = nullptr;
    GstElement* pipeline = gst_parse_launch(launch.c_str(), &err);
    ASSERT_NE(pipeline, nullptr) << (err ? err->message : "");
    ASSERT_NE(gst_element_set_state(pipeline, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);

    // The board's clock: a slot whenever a whole frame is queued.
    std::atomic<bool> bStop{false};
    std::thread clock([&] {
        while (!bStop) {
            if (Simulator::instance().queued(path) >= nSlots)
                Simulator::instance().step(path, nSlots);
            g_usleep(2000);
        }
    });
    GstBus* bus = gst_element_get_bus(pipeline);
    GstMessage* msg = gst_bus_timed_pop_filtered(bus, 20 * GST_SECOND,
                                                 static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    const uint64_t nSentAtEos = Simulator::instance().frames_sent(path) / nSlots;
    bStop = true;
    clock.join();
    ASSERT_NE(msg, nullptr) << "no end of stream";
    EXPECT_EQ(GST_MESSAGE_TYPE(msg), GST_MESSAGE_EOS);
    gst_message_unref(msg);
    gst_object_unref(bus);
    EXPECT_GE(nSentAtEos, 50u) << "EOS before the last frame went out";
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(pipeline);
}

INSTANTIATE_TEST_SUITE_P(OnAir, EosTest, ::testing::Values(NodeKind::single_plane, NodeKind::multi_plane),
                         [](const ::testing::TestParamInfo<NodeKind>& p) {
                             return p.param == NodeKind::multi_plane ? "MultiPlane" : "SinglePlane";
                         });

} // namespace

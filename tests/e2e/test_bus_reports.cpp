// What goes wrong on the way out reaches the application's bus as warnings,
// beside the periodic statistics messages, for an application that watches
// only its bus (gst-launch-1.0 -m, bindings).
#include "onair_driver.h"
#include "qv_renderer.h"

#include <chrono>
#include <string>
#include <vector>

namespace {

using qvboardsim::NodeKind;
using qvboardsim::Simulator;

enum class Trouble { dropped_frames, starved_input, device_gone };

struct Case {
    const char* name;
    Trouble trouble;
    std::vector<std::string> texts; // every one must appear in some warning
};

class BusReports : public OnAirTest, public ::testing::WithParamInterface<Case> {
protected:
    void SetUp() override { m_pBus = gst_bus_new(); }
    void TearDown() override
    {
        OnAirTest::TearDown();
        gst_object_unref(m_pBus);
    }

    // Takes what the bus holds; the reporter compares its counters once a
    // second, so the wait is bounded by a few of its periods.
    void drain(int wait_ms)
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(wait_ms);
        while (std::chrono::steady_clock::now() < end) {
            GstMessage* msg = gst_bus_timed_pop(m_pBus, 50 * GST_MSECOND);
            if (!msg)
                continue;
            if (GST_MESSAGE_TYPE(msg) == GST_MESSAGE_WARNING) {
                GError* err = nullptr;
                gst_message_parse_warning(msg, &err, nullptr);
                m_warnings.push_back(err->message);
                g_error_free(err);
            } else if (GST_MESSAGE_TYPE(msg) == GST_MESSAGE_ELEMENT &&
                       gst_structure_has_name(gst_message_get_structure(msg), "qvjtrenderer-stats")) {
                ++m_nStats;
            }
            gst_message_unref(msg);
        }
    }

    bool warned(const std::string& text) const
    {
        for (const auto& w : m_warnings)
            if (w.find(text) != std::string::npos)
                return true;
        return false;
    }

    GstBus* m_pBus = nullptr;
    std::vector<std::string> m_warnings;
    int m_nStats = 0;
};

TEST_P(BusReports, TroubleOnTheWayOutBecomesAWarning)
{
    const Case& c = GetParam();
    make_sd(NodeKind::single_plane, 0, [&] {
        gst_element_set_bus(m_pElement, m_pBus);
        g_object_set(m_pElement, "stats-interval", 100u, nullptr);
    });
    play();
    ASSERT_LT(play_until_sent(20), 60) << "play-out never started";
    drain(1500);
    EXPECT_GT(m_nStats, 3);
    EXPECT_TRUE(m_warnings.empty()) << m_warnings.front();

    auto& sim = Simulator::instance();
    switch (c.trouble) {
    case Trouble::dropped_frames:
        sim.drop_frames(m_strPath, 1, 3);
        play_until_sent(10, 40);
        break;
    case Trouble::starved_input:
        // No input while the board goes on: the FIFO runs dry.
        for (int i = 0; i < 40; ++i) {
            step(m_nSlots);
            g_usleep(5000);
        }
        play_until_sent(10, 80);
        break;
    case Trouble::device_gone:
        sim.disconnect(m_strPath);
        for (int i = 0; i < 100 && !renderer()->output_down(); ++i) {
            push_frame();
            step(m_nSlots);
            g_usleep(20000);
        }
        ASSERT_TRUE(renderer()->output_down());
        drain(1500); // longer than the reporter's period: the loss is seen
        sim.reconnect(m_strPath);
        for (int i = 0; i < 200 && renderer()->output_down(); ++i)
            g_usleep(5000);
        play_until_sent(10, 60);
        break;
    }
    drain(2500);
    for (const auto& text : c.texts)
        EXPECT_TRUE(warned(text)) << "no warning with \"" << text << "\"";
}

// A mode the board has no timing for still plays, in the board's own timing;
// the operator hears of it at READY, on the bus, and in the statistics.
TEST_F(OnAirTest, ModeWithoutATimingIsReportedAtReadyAndInTheStatistics)
{
    make(NodeKind::multi_plane, 1, 0, qvboardsim::Pacing::stepped);
    GstBus* bus = gst_bus_new();
    gst_element_set_bus(m_pElement, bus);
    ASSERT_NE(gst_element_set_state(m_pElement, GST_STATE_READY), GST_STATE_CHANGE_FAILURE);
    const std::vector<std::string> warnings = pop_warnings(bus);
    ASSERT_EQ(warnings.size(), 1u) << "one warning at READY";
    EXPECT_NE(warnings[0].find("mode 1 (720x576i30) has no timing on " + m_strPath), std::string::npos) << warnings[0];
    ASSERT_NE(gst_element_set_state(m_pElement, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    EXPECT_NE(stat("Video last error").find("has no timing"), std::string::npos) << stat("Video last error");
    gst_element_set_state(m_pElement, GST_STATE_NULL);
    gst_element_set_bus(m_pElement, nullptr);
    gst_object_unref(bus);
}

// Set-ups that cannot work as given are made safe when the board opens, and
// said then: a FIFO shorter than the pre-roll is deepened (it would otherwise
// overflow before play-out starts and reset for ever), lines beyond the VANC
// area are named before the first packet for them.
class ImpossibleSetUp : public OnAirTest, public ::testing::WithParamInterface<NodeKind> {};

TEST_P(ImpossibleSetUp, IsMadeSafeAndSaidAtReady)
{
    make_onair(GetParam(), 6);
    guint8 lines[64] = {};
    lines[39] = 2; // SCTE-104 on line 40: the board has 25 VBI/VANC lines at 720p
    g_object_set(m_pElement, "buffer_capacity", gulong(100), "latency", gulong(500), "vbi_lines", lines, nullptr);
    GstBus* bus = gst_bus_new();
    gst_element_set_bus(m_pElement, bus);
    ASSERT_NE(gst_element_set_state(m_pElement, GST_STATE_READY), GST_STATE_CHANGE_FAILURE);
    const std::vector<std::string> warnings = pop_warnings(bus);
    ASSERT_EQ(warnings.size(), 2u);
    EXPECT_EQ(warnings[0], "buffer_capacity 100 ms cannot hold the latency of 500 ms and 4 frames more: "
                           "the FIFOs hold 580 ms");
    EXPECT_EQ(warnings[1], "SCTE-104 line(s) 40 outside the 25 VBI/VANC lines of mode 6: nothing is written there");

    m_video = harness("sink_video", video_caps().c_str());
    play();
    m_nLatencyMs = 500;
    // 500 ms of pre-roll is 25 frames at 50 frames/s; then every input frame goes out.
    EXPECT_LE(play_until_sent(30, 120), 30 + 25 + 2);
    EXPECT_EQ(stat("Number of fifo restarts"), "0");
    gst_element_set_state(m_pElement, GST_STATE_NULL);
    gst_element_set_bus(m_pElement, nullptr);
    gst_object_unref(bus);
}

INSTANTIATE_TEST_SUITE_P(Kinds, ImpossibleSetUp, ::testing::Values(NodeKind::single_plane, NodeKind::multi_plane),
                         [](const ::testing::TestParamInfo<NodeKind>& i) {
                             return i.param == NodeKind::multi_plane ? "MultiPlane" : "SinglePlane";
                         });

INSTANTIATE_TEST_SUITE_P(
    Faults, BusReports,
    ::testing::Values(Case{"dropped_frames", Trouble::dropped_frames, {"Output device dropped"}},
                      Case{"starved_input", Trouble::starved_input, {"Play-out restarted after"}},
                      Case{"device_gone", Trouble::device_gone, {"Output device lost", "Output device back"}}),
    [](const ::testing::TestParamInfo<Case>& param) { return std::string(param.param.name); });

} // namespace

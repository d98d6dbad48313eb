#include "e2e_fixture.h"

#include <algorithm>

#include "qv_base_statistics.h"

std::vector<std::string> pop_warnings(GstBus* bus)
{
    std::vector<std::string> texts;
    while (GstMessage* msg = gst_bus_pop_filtered(bus, GST_MESSAGE_WARNING)) {
        GError* err = nullptr;
        gst_message_parse_warning(msg, &err, nullptr);
        texts.emplace_back(err->message);
        g_error_free(err);
        gst_message_unref(msg);
    }
    return texts;
}

GstBuffer* flat_uyvy(int width, int height, uint8_t luma, GstClockTime pts, GstClockTime duration)
{
    GstBuffer* b = gst_buffer_new_allocate(nullptr, static_cast<gsize>(width) * height * 2, nullptr);
    paint_flat_uyvy(b, luma);
    GST_BUFFER_PTS(b) = pts;
    GST_BUFFER_DURATION(b) = duration;
    return b;
}

void paint_flat_uyvy(GstBuffer* b, uint8_t luma)
{
    GstMapInfo map;
    gst_buffer_map(b, &map, GST_MAP_WRITE);
    for (gsize i = 0; i + 1 < map.size; i += 2) {
        map.data[i] = 0x80;
        map.data[i + 1] = luma;
    }
    gst_buffer_unmap(b, &map);
}

void configure_board(const std::string& path, qvboardsim::NodeKind kind, int mode, qvboardsim::Pacing pacing,
                     bool summary)
{
    qvboardsim::BoardConfig board;
    board.kind = kind;
    board.video_path = path;
    board.mode = mode;
    board.pacing = pacing;
    board.capture.memory = true;
    board.capture.memory_limit = 4096;
    board.capture.summary = summary;
    qvboardsim::Simulator::instance().configure({board});
}

void PlayoutTest::make(qvboardsim::NodeKind kind, int mode, unsigned audioLines, qvboardsim::Pacing pacing)
{
    const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
    m_strPath = std::string("/dev/qvsim-e2e-video-") + info->name();
    configure_board(m_strPath, kind, mode, pacing);

    m_pElement = gst_element_factory_make("qvjtrenderer", nullptr);
    ASSERT_NE(m_pElement, nullptr);
    gst_object_ref_sink(m_pElement);
    g_object_set(m_pElement, "v4l2", m_strPath.c_str(), "mode", gulong(mode), "latency", gulong(200),
                 "buffer_capacity", gulong(4000), "number_of_audio_lines", gulong(audioLines), "use_hwtime", FALSE,
                 nullptr);
}

void PlayoutTest::step(unsigned slots)
{
    qvboardsim::Simulator::instance().step(m_strPath, slots);
}

bool PlayoutTest::pump(unsigned slots, int wait_ms)
{
    // Before play-out starts nothing is queued until enough input came, so
    // the wait is short and the caller feeds more. Once the board streams,
    // the loop refills the ring after every slot, or stops streaming when it
    // restarts: the wait ends on either, and its long bound only stops a test
    // whose element hangs. A slow machine thus never makes a caller feed
    // frames the board did not ask for.
    constexpr int k_streaming_wait_ms = 10000;
    auto& sim = qvboardsim::Simulator::instance();
    for (int i = 0; sim.queued(m_strPath) < slots; ++i) {
        if (i >= (sim.streaming(m_strPath) ? std::max(wait_ms, k_streaming_wait_ms) : wait_ms))
            return false;
        g_usleep(1000);
    }
    step(slots);
    return true;
}

GstHarness* PlayoutTest::harness(const char* pad, const char* caps)
{
    GstHarness* h = gst_harness_new_with_element(m_pElement, pad, nullptr);
    gst_harness_set_src_caps_str(h, caps);
    m_harnesses.push_back(h);
    return h;
}

void PlayoutTest::play()
{
    // READY opens the board; the harnesses then take the element to PLAYING.
    ASSERT_NE(gst_element_set_state(m_pElement, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
}

void PlayoutTest::stop()
{
    if (m_pElement)
        gst_element_set_state(m_pElement, GST_STATE_NULL);
}

std::vector<qvboardsim::CapturedFrame> PlayoutTest::captured()
{
    return qvboardsim::Simulator::instance().captured(m_strPath);
}

std::string PlayoutTest::stat(const std::string& name)
{
    gpointer p = nullptr;
    g_object_get(m_pElement, "statistics", &p, nullptr);
    for (const auto& [n, v] : static_cast<qv_base_statistics*>(p)->get_items())
        if (n == name)
            return v;
    return "<missing " + name + ">";
}

void PlayoutTest::TearDown()
{
    stop();
    for (GstHarness* h : m_harnesses)
        gst_harness_teardown(h);
    m_harnesses.clear();
    if (m_pElement)
        gst_object_unref(m_pElement);
    m_pElement = nullptr;
}

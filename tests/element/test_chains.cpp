#include "element_fixture.h"

#include <gst/check/gstharness.h>

namespace {

class Chains : public ElementTest {
protected:
    GstFlowReturn push_to(const char* pad, const char* caps, gsize size)
    {
        GstHarness* h = gst_harness_new_with_element(m_pElement, pad, nullptr);
        gst_harness_set_src_caps_str(h, caps);
        gst_harness_play(h);
        GstBuffer* b = gst_buffer_new_allocate(nullptr, size, nullptr);
        gst_buffer_memset(b, 0, 0x10, size);
        GST_BUFFER_PTS(b) = 0;
        const GstFlowReturn ret = gst_harness_push(h, b);
        gst_harness_teardown(h);
        return ret;
    }
};

constexpr const char* k_video_caps = "video/x-raw,format=UYVY,width=16,height=8,framerate=25/1,"
                                     "pixel-aspect-ratio=1/1,interlace-mode=progressive";

TEST_F(Chains, EveryInputIsAcceptedAndDroppedBeforeADeviceIsOpen)
{
    EXPECT_EQ(push_to("sink_video", k_video_caps, 16 * 8 * 2), GST_FLOW_OK);
    EXPECT_EQ(push_to("src_audio0", "audio/x-raw,format=S16LE,rate=48000,channels=2,layout=interleaved", 7680),
              GST_FLOW_OK);
    EXPECT_EQ(push_to("sink_teletext", "application/x-teletext", 46), GST_FLOW_OK);
    EXPECT_EQ(push_to("sink_scte104", "application/x-scte104", 20), GST_FLOW_OK);
    EXPECT_EQ(push_to("sink_scte35", "application/x-scte35", 20), GST_FLOW_OK);
    // The harness plays the element, so the render thread starts and stops; nothing else speaks.
    for (const std::string& line : m_console.lines())
        EXPECT_EQ(line, "qv_jt_renderer: stop renderer thread\n");

    const uint8_t bytes[4] = {};
    EXPECT_EQ(renderer().add_scte35_frame(bytes, sizeof bytes), 1);
    EXPECT_EQ(renderer().add_scte104_frame(bytes, sizeof bytes), 1);
    EXPECT_EQ(renderer().add_teletext_frame(0, 0, bytes, sizeof bytes), 1);
    EXPECT_EQ(renderer().add_vbi_frame(0, 0, bytes, sizeof bytes, nullptr), 1);
    EXPECT_EQ(renderer().add_subtitle_frame(0, bytes, sizeof bytes), 1);
}

// A caps item missing prints the line that has always named it, and the
// stream goes on: the picture is taken with square pixels in the output's scan.
TEST_F(Chains, VideoCapsWithoutAnItemPrintItsMessageAndTheStreamGoesOn)
{
    struct row {
        const char* caps;
        const char* message;
    };
    const row rows[] = {
        {"video/x-raw,format=UYVY,width=16,height=8,framerate=25/1,interlace-mode=progressive",
         "qv_jt_renderer: if (FALSE == gst_structure_get_fraction(pStruct, 'pixel-aspect-ratio', &aspect_ratio_n, "
         "&aspect_ratio_d))\n"},
        {"video/x-raw,format=UYVY,width=16,height=8,framerate=25/1,pixel-aspect-ratio=1/1",
         "qv_jt_renderer: const gchar *pStrInterlace = gst_structure_get_string(pStruct, 'interlace-mode');\n"},
    };
    for (const row& r : rows) {
        m_console.clear();
        EXPECT_EQ(push_to("sink_video", r.caps, 256), GST_FLOW_OK) << r.caps;
        EXPECT_TRUE(m_console.contains(r.message)) << r.caps;
    }
}

TEST_F(Chains, AudioPadRemovedWhileStreamingDropsItsBuffers)
{
    GstPad* pad = gst_element_get_static_pad(m_pElement, "src_audio0");
    g_object_set(m_pElement, "number_of_audio_lines", gulong(0), nullptr);
    QVSDK::QVSound sound;
    EXPECT_EQ(renderer().add_audio_frame(pad, 0, 0, 0, sound), 1);
    gst_object_unref(pad);
}

} // namespace

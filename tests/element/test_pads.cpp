#include "element_fixture.h"

namespace {

using Pads = ElementTest;
using names = std::vector<std::string>;

TEST_F(Pads, NewElementShowsItsPads)
{
    EXPECT_EQ(pad_names(), (names{"sink_video", "sink_teletext", "sink_scte104", "sink_scte35", "src_audio0"}));
}

TEST_F(Pads, AudioPadsFollowTheLineCountBothWays)
{
    const gulong steps[] = {3, 8, 2, 0, 1};
    for (gulong n : steps) {
        g_object_set(m_pElement, "number_of_audio_lines", n, nullptr);
        gulong back = 99;
        g_object_get(m_pElement, "number_of_audio_lines", &back, nullptr);
        EXPECT_EQ(back, n);
        for (gulong i = 0; i < 9; ++i)
            EXPECT_EQ(has_pad(("src_audio" + std::to_string(i)).c_str()), i < n) << "lines " << n << " pad " << i;
    }
    // Pads keep being appended after the existing ones, numbered by position.
    g_object_set(m_pElement, "number_of_audio_lines", gulong(2), nullptr);
    EXPECT_EQ(pad_names().back(), "src_audio1");
}

TEST_F(Pads, VbiPadReplacesTheDataPadsAndBack)
{
    g_object_set(m_pElement, "use_vbi", TRUE, nullptr);
    EXPECT_EQ(pad_names(), (names{"sink_video", "src_audio0", "sink_vbi"}));
    g_object_set(m_pElement, "use_vbi", TRUE, nullptr);
    EXPECT_EQ(pad_names(), (names{"sink_video", "src_audio0", "sink_vbi"}));
    g_object_set(m_pElement, "use_vbi", FALSE, nullptr);
    EXPECT_EQ(pad_names(), (names{"sink_video", "src_audio0", "sink_scte35", "sink_scte104", "sink_teletext"}));
    g_object_set(m_pElement, "use_vbi", FALSE, nullptr);
    EXPECT_EQ(pad_names().size(), 5u);
}

TEST_F(Pads, PadsCarryProxyCapsAndTheirTemplates)
{
    for (const char* n : {"sink_video", "sink_scte104", "src_audio0"}) {
        GstPad* p = gst_element_get_static_pad(m_pElement, n);
        ASSERT_NE(p, nullptr) << n;
        EXPECT_TRUE(GST_PAD_IS_PROXY_CAPS(p)) << n;
        EXPECT_EQ(GST_PAD_DIRECTION(p), GST_PAD_SINK);
        gst_object_unref(p);
    }
    GstPad* p = gst_element_get_static_pad(m_pElement, "sink_scte104");
    GstPadTemplate* t = gst_pad_get_pad_template(p);
    EXPECT_STREQ(GST_PAD_TEMPLATE_NAME_TEMPLATE(t), "sink_scte_104");
    gst_object_unref(t);
    gst_object_unref(p);
}

TEST_F(Pads, ConnectionIsSeenThroughThePeer)
{
    GstPad* sink = gst_element_get_static_pad(m_pElement, "src_audio0");
    EXPECT_FALSE(renderer().isAudioConnect());
    GstPad* src = gst_pad_new("src", GST_PAD_SRC);
    ASSERT_EQ(gst_pad_link(src, sink), GST_PAD_LINK_OK);
    EXPECT_TRUE(renderer().isAudioConnect());
    EXPECT_TRUE(qv_renderer::isConnect(sink));
    EXPECT_FALSE(qv_renderer::isConnect(nullptr));
    gst_pad_unlink(src, sink);
    EXPECT_FALSE(renderer().isAudioConnect());
    gst_object_unref(src);
    gst_object_unref(sink);
}

} // namespace

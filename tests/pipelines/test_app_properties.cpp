// The properties that bindings and gst-launch use instead of C pointers: the
// line map reaches the encoders' line sets at open, for the mode then in
// force, and "stats" carries the whole statistics record.
#include "gstqvjtrenderer.h"
#include "qv_renderer.h"

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <string>

namespace {

class AppProperties : public ::testing::Test {
protected:
    void SetUp() override { m_pElement = gst_element_factory_make("qvjtrenderer", nullptr); }
    void TearDown() override
    {
        gst_element_set_state(m_pElement, GST_STATE_NULL);
        gst_object_unref(m_pElement);
    }
    qv_renderer& renderer() const { return *reinterpret_cast<Gstqvjtrenderer*>(m_pElement)->pRenderer; }
    std::string line_map() const
    {
        gchar* p = nullptr;
        g_object_get(m_pElement, "line-map", &p, nullptr);
        std::string s = p ? p : "";
        g_free(p);
        return s;
    }

    GstElement* m_pElement = nullptr;
};

TEST_F(AppProperties, LineMapFillsTheEncodersLineSetsAtOpen)
{
    g_object_set(m_pElement, "line-map", "teletext=7,320;scte104=22", nullptr);
    g_object_set(m_pElement, "line-map", "teletext=7-x", nullptr); // refused, the map stays
    EXPECT_EQ(line_map(), "teletext=7,320;scte104=22");
    ASSERT_EQ(gst_element_set_state(m_pElement, GST_STATE_READY), GST_STATE_CHANGE_SUCCESS);
    EXPECT_EQ(renderer().teletext_line_mask(), 1u << 6);
    // The SCTE-104 writer puts list entry N on row N, that is line N + 1.
    ASSERT_EQ(renderer().scte104_lines().size(), 1u);
    EXPECT_EQ(renderer().scte104_lines()[0], 21u);
}

TEST_F(AppProperties, SecondFieldLinesFollowAModeSetAfterTheMap)
{
    g_object_set(m_pElement, "line-map", "scte104=3", nullptr);
    // Set on 576i, where 567 is no line: refused.
    g_object_set(m_pElement, "line-map", "teletext=567", nullptr);
    EXPECT_EQ(line_map(), "scte104=3");
    g_object_set(m_pElement, "mode", 2ul, "line-map", "teletext=1", nullptr);
    g_object_set(m_pElement, "mode", 0ul, nullptr);
    ASSERT_EQ(gst_element_set_state(m_pElement, GST_STATE_READY), GST_STATE_CHANGE_SUCCESS);
    EXPECT_EQ(renderer().teletext_line_mask(), 1u);
    EXPECT_EQ(line_map(), "teletext=1,314");

    // A pointer table replaces the map's text: the next open keeps the table.
    gst_element_set_state(m_pElement, GST_STATE_NULL);
    guint8 lines[64] = {};
    lines[9] = 2;
    g_object_set(m_pElement, "vbi_lines", lines, nullptr);
    EXPECT_EQ(line_map(), "scte104=11");
    ASSERT_EQ(gst_element_set_state(m_pElement, GST_STATE_READY), GST_STATE_CHANGE_SUCCESS);
    EXPECT_EQ(renderer().teletext_line_mask(), 0u);
}

TEST_F(AppProperties, StatsCarryEveryFigureOfTheRecord)
{
    g_object_set(m_pElement, "number_of_audio_lines", 2ul, "stats-interval", 250u, nullptr);
    guint nInterval = 0;
    g_object_get(m_pElement, "stats-interval", &nInterval, nullptr);
    EXPECT_EQ(nInterval, 250u);
    ASSERT_EQ(gst_element_set_state(m_pElement, GST_STATE_READY), GST_STATE_CHANGE_SUCCESS);
    {
        std::lock_guard<std::mutex> lock(renderer().statistics().m_cs);
        renderer().statistics().m_nFifoResetCount = 3;
        renderer().statistics().m_nGenlockState = 3;
        renderer().statistics().m_teletext.strLastError = "No place in gst fifo.";
    }
    GstStructure* s = nullptr;
    g_object_get(m_pElement, "stats", &s, nullptr);
    ASSERT_NE(s, nullptr);
    EXPECT_STREQ(gst_structure_get_name(s), "qvjtrenderer-stats");
    guint64 n = 0;
    EXPECT_TRUE(gst_structure_get_uint64(s, "fifo-restarts", &n));
    EXPECT_EQ(n, 3u);
    EXPECT_STREQ(gst_structure_get_string(s, "genlock-state-text"), "Locked");
    EXPECT_STREQ(gst_structure_get_string(s, "teletext-last-error"), "No place in gst fifo.");
    guint nAudio = 0;
    EXPECT_TRUE(gst_structure_get_uint(s, "audio-lines", &nAudio));
    EXPECT_EQ(nAudio, 2u);
    EXPECT_TRUE(gst_structure_has_field(s, "audio1-dropped-samples"));
    EXPECT_FALSE(gst_structure_has_field(s, "audio2-dropped-samples"));
    EXPECT_TRUE(gst_structure_has_field(s, "caption-triplets-queued"));
    // Device and genlock figures, 7 video, audio-lines, 7 per audio line, 6 for each data stream, 6 for
    // captions and AFD.
    EXPECT_EQ(gst_structure_n_fields(s), 9 + 7 + 1 + 2 * 7 + 3 * 6 + 6);
    gst_structure_free(s);
}

} // namespace

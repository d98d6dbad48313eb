#include "element_fixture.h"

#include <gst/check/gstharness.h>

namespace {

using Lifecycle = ElementTest;

GstStateChangeReturn set_and_wait(GstElement* e, GstState s)
{
    gst_element_set_state(e, s);
    return gst_element_get_state(e, nullptr, nullptr, 5 * GST_SECOND);
}

TEST_F(Lifecycle, FullStateCycleWithoutDeviceOpensNothing)
{
    for (int round = 0; round < 2; ++round) {
        for (GstState s : {GST_STATE_READY, GST_STATE_PAUSED, GST_STATE_PLAYING, GST_STATE_PAUSED, GST_STATE_READY,
                           GST_STATE_NULL})
            EXPECT_NE(set_and_wait(m_pElement, s), GST_STATE_CHANGE_FAILURE) << gst_element_state_get_name(s);
        EXPECT_EQ(renderer().hw_frame_step(), 5940000);
        EXPECT_EQ(renderer().state(), qv_stop_state);
    }
    EXPECT_TRUE(printed("qv_jt_renderer: stop renderer thread\n")) << "the render thread ran and ended";
}

TEST_F(Lifecycle, OpenOfAMissingDeviceStillReachesReady)
{
    g_object_set(m_pElement, "v4l2", "/nonexistent/video9", "alsa", "", nullptr);
    EXPECT_EQ(set_and_wait(m_pElement, GST_STATE_READY), GST_STATE_CHANGE_SUCCESS);
    EXPECT_EQ(renderer().hw_frame_step(), 5940000);
}

TEST_F(Lifecycle, VbiLineTableAccumulatesScte104LinesAndFoldsTeletext)
{
    guint8 lines[64] = {};
    lines[9] = 2;  // SCTE-104 on line 10
    lines[33] = 1; // teletext entry 33 folds onto mask bit 1
    lines[6] = 1;
    lines[12] = 7; // any other value marks nothing
    g_object_set(m_pElement, "vbi_lines", lines, nullptr);
    for (int i = 0; i < 2; ++i) {
        set_and_wait(m_pElement, GST_STATE_READY);
        set_and_wait(m_pElement, GST_STATE_NULL);
    }
    EXPECT_EQ(renderer().scte104_lines(), (std::vector<uint32_t>{10, 10}));
    EXPECT_EQ(renderer().teletext_line_mask(), (1u << 1) | (1u << 6));
}

TEST(LifecycleFinalize, ElementNeverSetToReadyFinalizesCleanly)
{
    GstElement* e = gst_element_factory_make("qvjtrenderer", nullptr);
    ASSERT_NE(e, nullptr);
    g_object_set(e, "number_of_audio_lines", gulong(4), "use_vbi", TRUE, nullptr);
    gst_object_unref(gst_object_ref_sink(e));
}

TEST_F(Lifecycle, PlayingToPausedWithoutThreadOnlyResetsTimeAndAlarms)
{
    std::vector<qv_alarm_event> seen;
    renderer().alarms().set_fallback_sink([&](const qv_alarm_event& ev) { seen.push_back(ev); });
    renderer().alarms().restart_event();
    ASSERT_EQ(seen.size(), 1u);
    renderer().stop();
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_FALSE(seen[1].bRaise);
}

TEST_F(Lifecycle, AlarmsReachTheBusWhenNoManagerIsSet)
{
    g_object_set(m_pElement, "alarm-source-name", "playout-1", nullptr);
    GstBus* bus = gst_bus_new();
    gst_element_set_bus(m_pElement, bus);
    renderer().alarms().restart_event();
    GstMessage* msg = gst_bus_pop_filtered(bus, GST_MESSAGE_ELEMENT);
    ASSERT_NE(msg, nullptr);
    const GstStructure* s = gst_message_get_structure(msg);
    EXPECT_TRUE(gst_structure_has_name(s, "qvjtrenderer-alarm"));
    EXPECT_STREQ(gst_structure_get_string(s, "action"), "raise");
    EXPECT_STREQ(gst_structure_get_string(s, "alarm"), "playout-restart");
    EXPECT_STREQ(gst_structure_get_string(s, "source"), "playout-1");
    guint64 t = 0;
    EXPECT_TRUE(gst_structure_get_uint64(s, "time", &t));
    EXPECT_GT(t, 0u);
    EXPECT_EQ(GST_MESSAGE_SRC(msg), GST_OBJECT(m_pElement));
    gst_message_unref(msg);

    // With a manager set, the bus stays quiet.
    struct null_manager : qv_alarm_manager {
        int n = 0;
        void raise_alarm(const qv_alarm_event&) override { ++n; }
        void clear_alarm(const qv_alarm_event&) override { ++n; }
    } manager;
    g_object_set(m_pElement, "alarm-manager", static_cast<qv_alarm_manager*>(&manager), nullptr);
    renderer().alarms().stop();
    EXPECT_EQ(manager.n, 1);
    EXPECT_EQ(gst_bus_pop_filtered(bus, GST_MESSAGE_ELEMENT), nullptr);
    g_object_set(m_pElement, "alarm-manager", nullptr, nullptr);
    gst_element_set_bus(m_pElement, nullptr);
    gst_object_unref(bus);
}

} // namespace

#include "element_fixture.h"

namespace {

using Lifecycle = ElementTest;

TEST(LifecycleFinalize, ElementNeverSetToReadyFinalizesCleanly)
{
    GstElement* e = gst_element_factory_make("qvjtrenderer", nullptr);
    ASSERT_NE(e, nullptr);
    g_object_set(e, "number_of_audio_lines", gulong(4), "use_vbi", TRUE, nullptr);
    gst_object_unref(gst_object_ref_sink(e));
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

#include "element_fixture.h"
#include "qv_pad_templates.h"

#include <cstring>

namespace {

TEST(Registration, PluginAndFactory)
{
    const GstPluginDesc* d = gst_plugin_qvjtrenderer_get_desc();
    EXPECT_STREQ(d->name, "qvjtrenderer");
    EXPECT_STREQ(d->version, "1.24.2");
    EXPECT_EQ(d->major_version, GST_VERSION_MAJOR);
    EXPECT_EQ(d->minor_version, GST_VERSION_MINOR) << "a newer minor than the core's is refused at load";

    GstElementFactory* f = gst_element_factory_find("qvjtrenderer");
    ASSERT_NE(f, nullptr);
    EXPECT_STREQ(gst_element_factory_get_metadata(f, GST_ELEMENT_METADATA_LONGNAME), "Velmora JTXXX Renerer");
    EXPECT_STREQ(gst_element_factory_get_metadata(f, GST_ELEMENT_METADATA_KLASS), "Velmora Jutvane");
    EXPECT_EQ(g_type_from_name("GstQVJTRendererType"), gst_qvjtrenderer_get_type());
    EXPECT_EQ(gst_plugin_feature_get_rank(GST_PLUGIN_FEATURE(f)), static_cast<guint>(GST_RANK_NONE));

    // The element's templates, in order, equal the renderer's set, which keeps
    // the caps strings exactly as written.
    const char* names[] = {"sink_video", "sink_audio", "sink_teletext", "sink_scte_35", "sink_scte_104", "sink_vbi"};
    const char* caps[] = {QV_CAPS_VIDEO, QV_CAPS_AUDIO, QV_CAPS_TELETEXT, QV_CAPS_SCTE35, QV_CAPS_SCTE104, QV_CAPS_VBI};
    gpointer klass = g_type_class_ref(gst_qvjtrenderer_get_type());
    GList* l = gst_element_class_get_pad_template_list(GST_ELEMENT_CLASS(klass));
    for (int i = 0; i < 6; ++i, l = l->next) {
        ASSERT_NE(l, nullptr);
        auto* t = static_cast<GstPadTemplate*>(l->data);
        EXPECT_STREQ(GST_PAD_TEMPLATE_NAME_TEMPLATE(t), names[i]);
        EXPECT_EQ(GST_PAD_TEMPLATE_DIRECTION(t), GST_PAD_SINK);
        EXPECT_EQ(GST_PAD_TEMPLATE_PRESENCE(t), GST_PAD_ALWAYS);
        const GstStaticPadTemplate* r = qv_renderer::pad_template(i);
        EXPECT_STREQ(r->name_template, names[i]);
        EXPECT_STREQ(r->static_caps.string, caps[i]);
        GstCaps* parsed = gst_caps_from_string(caps[i]);
        ASSERT_NE(parsed, nullptr) << caps[i];
        EXPECT_TRUE(gst_caps_is_equal(parsed, GST_PAD_TEMPLATE_CAPS(t))) << caps[i];
        gst_caps_unref(parsed);
    }
    EXPECT_EQ(l, nullptr);
    g_type_class_unref(klass);
    EXPECT_NE(std::strstr(QV_CAPS_VBI, "Y10  }"), nullptr);
    gst_object_unref(f);
}

using Properties = ElementTest;

TEST_F(Properties, ConstructorValuesDifferFromDeclaredDefaultsOnPurpose)
{
    gboolean hwtime = FALSE, watchdog = TRUE, pll = FALSE, range = FALSE, vbi = TRUE;
    gulong capacity = 0, latency = 0, buffers = 0, lines = 99;
    g_object_get(m_pElement, "use_hwtime", &hwtime, "watchdog", &watchdog, "use_pll", &pll, "color_range", &range,
                 "use_vbi", &vbi, "buffer_capacity", &capacity, "latency", &latency, "hw-buffers", &buffers,
                 "number_of_audio_lines", &lines, nullptr);
    EXPECT_TRUE(hwtime);
    EXPECT_FALSE(watchdog);
    EXPECT_TRUE(pll);
    EXPECT_TRUE(range);
    EXPECT_FALSE(vbi);
    EXPECT_EQ(capacity, 5000u);
    EXPECT_EQ(latency, 2000u);
    EXPECT_EQ(buffers, 3u);
    EXPECT_EQ(lines, 1u) << "a new element has one audio pad, whatever the declared default";
}

TEST_F(Properties, NullDeviceNameIsRejectedWithoutCrashing)
{
    g_object_set(m_pElement, "v4l2", "/dev/video7", nullptr);
    static int warnings = 0;
    warnings = 0;
    const guint handler = g_log_set_handler(
        nullptr, static_cast<GLogLevelFlags>(G_LOG_LEVEL_WARNING | G_LOG_FLAG_FATAL),
        [](const gchar*, GLogLevelFlags, const gchar*, gpointer) { ++warnings; }, nullptr);
    const GLogLevelFlags old = g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK));
    g_object_set(m_pElement, "v4l2", nullptr, nullptr);
    g_log_set_always_fatal(old);
    g_log_remove_handler(nullptr, handler);
    EXPECT_EQ(warnings, 1);
    gchar* name = nullptr;
    g_object_get(m_pElement, "v4l2", &name, nullptr);
    EXPECT_STREQ(name, "/dev/video7");
    g_free(name);
}

} // namespace

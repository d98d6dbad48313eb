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

struct prop_row {
    guint id;
    const char* name;
    GType type;
    GParamFlags flags;
};

TEST(Registration, PropertiesInstalledWithTheirIdsTypesAndFlags)
{
    const auto rw = static_cast<GParamFlags>(G_PARAM_READWRITE);
    const prop_row rows[] = {
        {1, "v4l2", G_TYPE_PARAM_STRING, rw},
        {2, "mode", G_TYPE_PARAM_ULONG, rw},
        {3, "alsa", G_TYPE_PARAM_STRING, rw},
        {4, "buffer_capacity", G_TYPE_PARAM_ULONG, rw},
        {5, "latency", G_TYPE_PARAM_ULONG, rw},
        {15, "hw-buffers", G_TYPE_PARAM_ULONG, rw},
        {6, "vbi_lines", G_TYPE_PARAM_POINTER, G_PARAM_WRITABLE},
        {7, "number_of_audio_lines", G_TYPE_PARAM_ULONG, rw},
        {8, "statistics", G_TYPE_PARAM_POINTER, G_PARAM_READABLE},
        {9, "use_vbi", G_TYPE_PARAM_BOOLEAN, rw},
        {10, "timecode_type", G_TYPE_PARAM_UINT, rw},
        {11, "use_pll", G_TYPE_PARAM_BOOLEAN, rw},
        {16, "use_hwtime", G_TYPE_PARAM_BOOLEAN, rw},
        {12, "alarm-source-name", G_TYPE_PARAM_STRING, static_cast<GParamFlags>(rw | G_PARAM_STATIC_STRINGS)},
        {13, "alarm-manager", G_TYPE_PARAM_POINTER, G_PARAM_WRITABLE},
        {14, "watchdog", G_TYPE_PARAM_BOOLEAN, rw},
        {17, "color_range", G_TYPE_PARAM_BOOLEAN, rw},
    };
    gpointer klass = g_type_class_ref(gst_qvjtrenderer_get_type());
    guint n = 0;
    g_free(g_object_class_list_properties(G_OBJECT_CLASS(klass), &n));
    EXPECT_EQ(n, 2u + G_N_ELEMENTS(rows)) << "GstObject's name and parent, and ours";
    for (const prop_row& row : rows) {
        // GObject reports names with dashes; the underscored names still work for set and get.
        GParamSpec* p = g_object_class_find_property(G_OBJECT_CLASS(klass), row.name);
        ASSERT_NE(p, nullptr) << row.name;
        SCOPED_TRACE(row.name);
        EXPECT_EQ(p->param_id, row.id);
        EXPECT_EQ(G_PARAM_SPEC_TYPE(p), row.type);
        const auto mask = G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | G_PARAM_CONSTRUCT;
        EXPECT_EQ(p->flags & mask, static_cast<guint>(row.flags) & mask);
    }
    GParamSpecULong* mode = G_PARAM_SPEC_ULONG(g_object_class_find_property(G_OBJECT_CLASS(klass), "mode"));
    EXPECT_EQ(mode->maximum, 19u);
    GParamSpecULong* hw = G_PARAM_SPEC_ULONG(g_object_class_find_property(G_OBJECT_CLASS(klass), "hw-buffers"));
    EXPECT_EQ(hw->minimum, 3u);
    EXPECT_EQ(hw->maximum, 25u);
    g_type_class_unref(klass);
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

TEST_F(Properties, StatisticsPointerIsStableAndReadable)
{
    gpointer a = nullptr, b = nullptr;
    g_object_get(m_pElement, "statistics", &a, nullptr);
    gst_element_set_state(m_pElement, GST_STATE_READY);
    gst_element_set_state(m_pElement, GST_STATE_NULL);
    g_object_get(m_pElement, "statistics", &b, nullptr);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a, b);
    auto* stats = static_cast<qv_base_statistics*>(a);
    const auto items = stats->get_items();
    ASSERT_FALSE(items.empty());
    EXPECT_EQ(items.front().first, "System time");
}

TEST_F(Properties, AlarmSourceNameReadsBackACopy)
{
    g_object_set(m_pElement, "alarm-source-name", "Channel 4", nullptr);
    gchar* name = nullptr;
    g_object_get(m_pElement, "alarm-source-name", &name, nullptr);
    EXPECT_STREQ(name, "Channel 4");
    g_free(name);
}

TEST_F(Properties, UnknownIdIsWarnedAndChangesNothing)
{
    static std::string warning;
    warning.clear();
    const guint handler = g_log_set_handler(
        nullptr, static_cast<GLogLevelFlags>(G_LOG_LEVEL_WARNING | G_LOG_FLAG_FATAL),
        [](const gchar*, GLogLevelFlags, const gchar* message, gpointer) { warning = message; }, nullptr);
    const GLogLevelFlags old = g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK));

    GParamSpec* pspec = g_param_spec_ulong("bogus", "bogus", "bogus", 0, 10, 0, G_PARAM_READWRITE);
    GValue v = G_VALUE_INIT;
    g_value_init(&v, G_TYPE_ULONG);
    g_value_set_ulong(&v, 7);
    renderer().set_property(42, &v, pspec);
    EXPECT_NE(warning.find("invalid property id 42 for \"bogus\" of type 'GParamULong' in 'GstQVJTRendererType'"),
              std::string::npos)
        << warning;
    warning.clear();
    renderer().get_property(43, &v, pspec);
    EXPECT_NE(warning.find("invalid property id 43"), std::string::npos) << warning;
    EXPECT_EQ(g_value_get_ulong(&v), 7u);

    g_value_unset(&v);
    g_param_spec_unref(g_param_spec_ref_sink(pspec));
    g_log_set_always_fatal(old);
    g_log_remove_handler(nullptr, handler);
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

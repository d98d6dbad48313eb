// Plug-in entry points and the element class. No logic lives here: every
// virtual method goes straight to the instance's qv_renderer.
#include "gstqvjtrenderer.h"

#include <gmodule.h>

#include "qv_pad_templates.h"
#include "qv_renderer.h"

#include <exception>
#include <new>

GST_DEBUG_CATEGORY(gst_qvjtrenderer_debug);
#define GST_CAT_DEFAULT gst_qvjtrenderer_debug

namespace {

GstElementClass* parent_class = nullptr;

QV_DEFINE_PAD_TEMPLATES(element_template);

constexpr const char* k_mode_blurb =
    "SDI output mode, 0 - 720x576 50i (16:9), 1 - 720x576 60i (16:9), 2 - 1920x1080 50i, 3 - 1920x1080 60i, "
    "4 - 1920x1080 50p, 5 - 1920x1080 60p, 6 - 1280x720 50p, 7 - 1280x720 59.94p, 8 - 1280x720 60p, 9 - "
    "1920x1080 23.98p, 10 - 1920x1080 24p, 11 - 1920x1080 25p, 12 - 1920x1080 29.97p, 13 - 1920x1080 59.94p, "
    "14 - 3840x2160 25p, 15 - 3840x2160 29.97p, 16 - 3840x2160 30p, 17 - 3840x2160 50p, 18 - 3840x2160 "
    "59.94p, 19 - 3840x2160 60p";

void gst_qvjtrenderer_base_init(gpointer klass)
{
    GstElementClass* element_class = GST_ELEMENT_CLASS(klass);
    gst_element_class_add_static_pad_template(element_class, &element_template_video);
    gst_element_class_add_static_pad_template(element_class, &element_template_audio);
    gst_element_class_add_static_pad_template(element_class, &element_template_teletext);
    gst_element_class_add_static_pad_template(element_class, &element_template_scte35);
    gst_element_class_add_static_pad_template(element_class, &element_template_scte104);
    gst_element_class_add_static_pad_template(element_class, &element_template_vbi);
    gst_element_class_set_static_metadata(element_class, "Velmora JTXXX Renerer", "Velmora Jutvane",
                                          "Renderer for velmora board",
                                          "qvjtrenderer developers");
}

void gst_qvjtrenderer_finalize(GObject* object)
{
    Gstqvjtrenderer* self = reinterpret_cast<Gstqvjtrenderer*>(object);
    if (qv_renderer* pRenderer = self->pRenderer) {
        self->pRenderer = nullptr;
        pRenderer->close();
        delete pRenderer;
    }
    G_OBJECT_CLASS(parent_class)->finalize(object);
}

void gst_qvjtrenderer_set_property(GObject* object, guint prop_id, const GValue* value, GParamSpec* pspec)
{
    Gstqvjtrenderer* self = reinterpret_cast<Gstqvjtrenderer*>(object);
    if (!self->pRenderer)
        return;
    // An exception must not unwind through GObject's C frames.
    try {
        self->pRenderer->set_property(prop_id, value, pspec);
    } catch (const std::exception& e) {
        g_warning("qvjtrenderer: property \"%s\" not set: %s", pspec->name, e.what());
    }
}

void gst_qvjtrenderer_get_property(GObject* object, guint prop_id, GValue* value, GParamSpec* pspec)
{
    Gstqvjtrenderer* self = reinterpret_cast<Gstqvjtrenderer*>(object);
    if (self->pRenderer)
        self->pRenderer->get_property(prop_id, value, pspec);
}

GstStateChangeReturn gst_qvjtrenderer_change_state(GstElement* element, GstStateChange transition)
{
    Gstqvjtrenderer* self = reinterpret_cast<Gstqvjtrenderer*>(element);
    if (!self->pRenderer)
        return GST_STATE_CHANGE_FAILURE;
    return self->pRenderer->change_state(transition);
}

void install_properties(GObjectClass* gobject_class)
{
    const auto rw = static_cast<GParamFlags>(G_PARAM_READWRITE);
    g_object_class_install_property(
        gobject_class, PROP_V4L2,
        g_param_spec_string("v4l2", "v4l2", "Video for linux 2 asi device, example v4l2=/dev/video0", "", rw));
    g_object_class_install_property(gobject_class, PROP_MODE,
                                    g_param_spec_ulong("mode", "mode", k_mode_blurb, 0, 19, 0, rw));
    g_object_class_install_property(
        gobject_class, PROP_ALSA,
        g_param_spec_string("alsa", "alsa", "ALSA audio device, example alsa=plughw:1,0", "", rw));
    g_object_class_install_property(
        gobject_class, PROP_BUFFER_CAPACITY,
        g_param_spec_ulong("buffer_capacity", "buffer_capacity", "[ms] Buffer capacity", 0, 60000, 5000, rw));
    g_object_class_install_property(gobject_class, PROP_LATENCY,
                                    g_param_spec_ulong("latency", "latency", "[ms] Latency", 0, 60000, 2000, rw));
    g_object_class_install_property(
        gobject_class, PROP_HW_BUFFERS,
        g_param_spec_ulong("hw-buffers", "Number of hw buffers", "Number of hw buffers", 3, 25, 3, rw));
    g_object_class_install_property(gobject_class, PROP_VBI_LINES,
                                    g_param_spec_pointer("vbi_lines", "vbi_lines", "VBI lines", G_PARAM_WRITABLE));
    g_object_class_install_property(gobject_class, PROP_NUMBER_OF_AUDIO_LINES,
                                    g_param_spec_ulong("number_of_audio_lines", "number_of_audio_lines",
                                                       "Number of audio lines", 0, 8, 0, rw));
    g_object_class_install_property(
        gobject_class, PROP_STATISTICS,
        g_param_spec_pointer("statistics", "statistics", "Video, audio, teletext, SCTE-35 renderer statistics",
                             G_PARAM_READABLE));
    g_object_class_install_property(gobject_class, PROP_USE_VBI,
                                    g_param_spec_boolean("use_vbi", "use_vbi", "Using vbi pad", FALSE, rw));
    g_object_class_install_property(
        gobject_class, PROP_TIMECODE_TYPE,
        g_param_spec_uint("timecode_type", "timecode_type", "Type of timecode, 0 - None, 1 - LTC, 2 - VITC, 3 - ANY",
                          0, 3, 0, rw));
    g_object_class_install_property(gobject_class, PROP_USE_PLL,
                                    g_param_spec_boolean("use_pll", "use_pll", "Use PLL", TRUE, rw));
    g_object_class_install_property(
        gobject_class, PROP_USE_HWTIME,
        g_param_spec_boolean("use_hwtime", "Sink to input", "Sync by input hardware time", FALSE, rw));
    g_object_class_install_property(
        gobject_class, PROP_ALARM_SOURCE_NAME,
        g_param_spec_string("alarm-source-name", "Alarm source name", "Name of source alarm for alarm manager", "",
                            static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS)));
    g_object_class_install_property(
        gobject_class, PROP_ALARM_MANAGER,
        g_param_spec_pointer("alarm-manager", "Manager of alarms", "Manager of alarms", G_PARAM_WRITABLE));
    g_object_class_install_property(
        gobject_class, PROP_WATCHDOG,
        g_param_spec_boolean("watchdog", "Using the watchdog", "Using the watchdog", TRUE, rw));
    g_object_class_install_property(gobject_class, PROP_COLOR_RANGE,
                                    g_param_spec_boolean("color_range", "color range", "Color range", TRUE, rw));
    g_object_class_install_property(
        gobject_class, PROP_LINE_MAP,
        g_param_spec_string("line-map", "Ancillary line map",
                            "VBI/VANC lines of teletext and SCTE-104 (the same table as vbi_lines) and the one "
                            "line of captions and of AFD, e.g. \"teletext=7-20,320-333;scte104=22;cc=5;afd=4\"; "
                            "captions and AFD default to lines 9 and 11 (HD), 5 and 4 (SD)",
                            "", static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS)));
    g_object_class_install_property(
        gobject_class, PROP_STATS,
        g_param_spec_boxed("stats", "Statistics", "Snapshot of the play-out statistics", GST_TYPE_STRUCTURE,
                           static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS)));
    g_object_class_install_property(
        gobject_class, PROP_STATS_INTERVAL,
        g_param_spec_uint("stats-interval", "Statistics interval",
                          "[ms] Period of the qvjtrenderer-stats element message while playing; 0: none", 0,
                          3600000, 0, static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS)));
}

gboolean gst_qvjtrenderer_send_event(GstElement* element, GstEvent* event)
{
    qv_renderer* pRenderer = reinterpret_cast<Gstqvjtrenderer*>(element)->pRenderer;
    if (pRenderer && GST_EVENT_IS_UPSTREAM(event) && !GST_EVENT_IS_DOWNSTREAM(event))
        return pRenderer->send_upstream(event);
    return parent_class->send_event(element, event);
}

GstClock* gst_qvjtrenderer_provide_clock(GstElement* element)
{
    qv_renderer* pRenderer = reinterpret_cast<Gstqvjtrenderer*>(element)->pRenderer;
    return pRenderer ? pRenderer->board_clock() : nullptr;
}

void gst_qvjtrenderer_class_init(gpointer klass, gpointer)
{
    parent_class = GST_ELEMENT_CLASS(g_type_class_peek_parent(klass));
    GObjectClass* gobject_class = G_OBJECT_CLASS(klass);
    gobject_class->finalize = gst_qvjtrenderer_finalize;
    gobject_class->set_property = gst_qvjtrenderer_set_property;
    gobject_class->get_property = gst_qvjtrenderer_get_property;
    GST_ELEMENT_CLASS(klass)->change_state = gst_qvjtrenderer_change_state;
    GST_ELEMENT_CLASS(klass)->send_event = gst_qvjtrenderer_send_event;
    GST_ELEMENT_CLASS(klass)->provide_clock = gst_qvjtrenderer_provide_clock;
    install_properties(gobject_class);
}

void gst_qvjtrenderer_init(GTypeInstance* instance, gpointer)
{
    Gstqvjtrenderer* self = reinterpret_cast<Gstqvjtrenderer*>(instance);
    self->pRenderer = nullptr;
    // A sink: bins wait for its end-of-stream before they post their own.
    GST_OBJECT_FLAG_SET(self, GST_ELEMENT_FLAG_SINK);
    // Like an audio sink, it offers its device's clock: the board's frames.
    GST_OBJECT_FLAG_SET(self, GST_ELEMENT_FLAG_PROVIDE_CLOCK);
    // If construction throws, operator new frees the memory and the exception propagates.
    self->pRenderer = new qv_renderer(self, parent_class);
}

gboolean plugin_init(GstPlugin* plugin)
{
    return gst_element_register(plugin, "qvjtrenderer", GST_RANK_NONE, gst_qvjtrenderer_get_type());
}

} // namespace

GType gst_qvjtrenderer_get_type(void)
{
    static gsize type_id = 0;
    if (g_once_init_enter(&type_id)) {
        static const GTypeInfo info = {
            sizeof(GstqvjtrendererClass),
            gst_qvjtrenderer_base_init,
            nullptr,
            gst_qvjtrenderer_class_init,
            nullptr,
            nullptr,
            sizeof(Gstqvjtrenderer),
            0,
            gst_qvjtrenderer_init,
            nullptr,
        };
        GType t = g_type_register_static(GST_TYPE_ELEMENT, "GstQVJTRendererType", &info, GTypeFlags(0));
        if (!gst_qvjtrenderer_debug)
            GST_DEBUG_CATEGORY_INIT(gst_qvjtrenderer_debug, "qvjtrenderer", 0, "Velmora JTXXX Renderer Element");
        g_once_init_leave(&type_id, t);
    }
    return static_cast<GType>(type_id);
}

#define QV_PLUGIN_NAME "qvjtrenderer"
#define QV_PLUGIN_DESCRIPTION "Velmora JTXXX Renerer"
#define QV_PLUGIN_VERSION "1.24.2"
#define QV_PLUGIN_LICENSE "LGPL"
#define QV_PLUGIN_SOURCE "qv_jt_renderer"
#define QV_PLUGIN_PACKAGE "JT100/JT200/JT300.. Gst renderer"
#define QV_PLUGIN_ORIGIN "Velmora"

extern "C" {

// The core refuses a plug-in that declares a newer minor version than its own,
// so the descriptor carries the version we were built against.
G_MODULE_EXPORT GstPluginDesc gst_plugin_desc = {
    GST_VERSION_MAJOR, GST_VERSION_MINOR, QV_PLUGIN_NAME, QV_PLUGIN_DESCRIPTION, plugin_init,
    QV_PLUGIN_VERSION, QV_PLUGIN_LICENSE,  QV_PLUGIN_SOURCE, QV_PLUGIN_PACKAGE, QV_PLUGIN_ORIGIN,
    nullptr,           {nullptr},
};

G_MODULE_EXPORT const GstPluginDesc* gst_plugin_qvjtrenderer_get_desc(void)
{
    return &gst_plugin_desc;
}

G_MODULE_EXPORT void gst_plugin_qvjtrenderer_register(void)
{
    gst_plugin_register_static(GST_VERSION_MAJOR, GST_VERSION_MINOR, QV_PLUGIN_NAME, QV_PLUGIN_DESCRIPTION,
                               plugin_init, QV_PLUGIN_VERSION, QV_PLUGIN_LICENSE, QV_PLUGIN_SOURCE,
                               QV_PLUGIN_PACKAGE, QV_PLUGIN_ORIGIN);
}

} // extern "C"

// The "qvjtrenderer" element: a thin GObject shell whose every call goes to
// the qv_renderer that each instance owns.
#pragma once

#include <gst/gst.h>

class qv_renderer;

G_BEGIN_DECLS

GST_DEBUG_CATEGORY_EXTERN(gst_qvjtrenderer_debug);

typedef struct _Gstqvjtrenderer {
    GstElement element;
    qv_renderer* pRenderer; // owned; null after finalize
} Gstqvjtrenderer;

typedef struct _GstqvjtrendererClass {
    GstElementClass parent_class;
} GstqvjtrendererClass;

GType gst_qvjtrenderer_get_type(void);

// Static registration (applications linking the element in) and the descriptor.
void gst_plugin_qvjtrenderer_register(void);
const GstPluginDesc* gst_plugin_qvjtrenderer_get_desc(void);

G_END_DECLS

// Property ids; the installation order differs from the numbering.
enum {
    PROP_0,
    PROP_V4L2 = 1,
    PROP_MODE = 2,
    PROP_ALSA = 3,
    PROP_BUFFER_CAPACITY = 4,
    PROP_LATENCY = 5,
    PROP_VBI_LINES = 6,
    PROP_NUMBER_OF_AUDIO_LINES = 7,
    PROP_STATISTICS = 8,
    PROP_USE_VBI = 9,
    PROP_TIMECODE_TYPE = 10,
    PROP_USE_PLL = 11,
    PROP_ALARM_SOURCE_NAME = 12,
    PROP_ALARM_MANAGER = 13,
    PROP_WATCHDOG = 14,
    PROP_HW_BUFFERS = 15,
    PROP_USE_HWTIME = 16,
    PROP_COLOR_RANGE = 17,
    // For applications and gst-launch: the line map as text, the statistics
    // as a structure and their period on the bus.
    PROP_LINE_MAP = 18,
    PROP_STATS = 19,
    PROP_STATS_INTERVAL = 20,
};

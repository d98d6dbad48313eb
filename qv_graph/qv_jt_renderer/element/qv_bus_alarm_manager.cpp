// Without an application alarm manager, alarms become element messages on the
// bus ("qvjtrenderer-alarm"), so that `gst-launch-1.0 -m` and bus watches see them.
#include "qv_alarms_dispatcher.h"

#include <gst/gst.h>

#include <chrono>

void qv_bus_alarm_install(qv_alarms_dispatcher& dispatcher, GstElement* pElement)
{
    dispatcher.set_fallback_sink([pElement](const qv_alarm_event& ev) {
        const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(ev.time.time_since_epoch()).count();
        GstStructure* s = gst_structure_new("qvjtrenderer-alarm", "action", G_TYPE_STRING,
                                            ev.bRaise ? "raise" : "clear", "alarm", G_TYPE_STRING,
                                            ev.strAlarm.c_str(), "source", G_TYPE_STRING, ev.strSource.c_str(),
                                            "text", G_TYPE_STRING, ev.strText.c_str(), "time", G_TYPE_UINT64,
                                            static_cast<guint64>(ns), nullptr);
        gst_element_post_message(pElement, gst_message_new_element(GST_OBJECT(pElement), s));
    });
}

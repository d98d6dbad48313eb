#include "qv_pad_guard.h"

namespace {

GQuark guard_quark()
{
    static const GQuark q = g_quark_from_static_string("qvjtrenderer-pad-guard");
    return q;
}

} // namespace

qv_pad_guard& qv_pad_guard::of(GstPad* pad)
{
    auto* p = static_cast<qv_pad_guard*>(g_object_get_qdata(G_OBJECT(pad), guard_quark()));
    if (!p) {
        p = new qv_pad_guard;
        g_object_set_qdata_full(G_OBJECT(pad), guard_quark(), p,
                                [](gpointer data) { delete static_cast<qv_pad_guard*>(data); });
    }
    return *p;
}

void qv_pad_guard::on_event(GstEvent* event)
{
    switch (GST_EVENT_TYPE(event)) {
    case GST_EVENT_STREAM_START:
    case GST_EVENT_SEGMENT:
    case GST_EVENT_FLUSH_STOP:
        m_nNextPts = GST_CLOCK_TIME_NONE;
        m_bRestampReported = false;
        break;
    case GST_EVENT_CAPS:
        m_bCapsReported = false;
        break;
    default:
        break;
    }
}

void qv_pad_guard::warn(GstPad* pad, GstObject* parent, const std::string& text)
{
    gchar* pName = gst_pad_get_name(pad);
    GST_ELEMENT_WARNING(parent, STREAM, FORMAT, ("%s: %s", pName, text.c_str()), (nullptr));
    g_free(pName);
}

GstFlowReturn qv_pad_guard::drop(GstPad* pad, GstObject* parent, const std::string& why)
{
    if (!m_bBadRun)
        warn(pad, parent, "buffer dropped, " + why + "; play-out goes on");
    m_bBadRun = true;
    return GST_FLOW_OK;
}

bool qv_pad_guard::stamp(GstPad* pad, GstObject* parent, GstClockTime& pts, GstClockTime& duration,
                         GstClockTime period)
{
    if (duration == GST_CLOCK_TIME_NONE)
        duration = period;
    if (pts == GST_CLOCK_TIME_NONE) {
        if (m_nNextPts == GST_CLOCK_TIME_NONE)
            return false;
        pts = m_nNextPts;
        if (!m_bRestampReported)
            warn(pad, parent, "buffers without a time stamp: each stamped where the one before it ended");
        m_bRestampReported = true;
    }
    m_nNextPts = duration == GST_CLOCK_TIME_NONE ? GST_CLOCK_TIME_NONE : pts + duration;
    return true;
}

bool qv_pad_guard::first_for_caps()
{
    const bool bFirst = !m_bCapsReported;
    m_bCapsReported = true;
    return bFirst;
}

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
        m_nLive = -1;
        m_bHadData = false;
        m_nNextPts = GST_CLOCK_TIME_NONE;
        m_bRestampReported = false;
        break;
    case GST_EVENT_SEGMENT:
        gst_event_copy_segment(event, &m_segment);
        m_bTimeSegment = m_segment.format == GST_FORMAT_TIME;
        m_nNextPts = GST_CLOCK_TIME_NONE;
        m_bRestampReported = false;
        break;
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

bool qv_pad_guard::to_running_time(GstClockTime& pts, GstClockTime& end) const
{
    if (!m_bTimeSegment || pts == GST_CLOCK_TIME_NONE)
        return true;
    const GstClockTime rt = gst_segment_to_running_time(&m_segment, GST_FORMAT_TIME, pts);
    if (rt == GST_CLOCK_TIME_NONE)
        return false;
    if (end != GST_CLOCK_TIME_NONE) {
        // An end past the segment's stop keeps the buffer's own length.
        const GstClockTime rtEnd = gst_segment_to_running_time(&m_segment, GST_FORMAT_TIME, end);
        end = rtEnd != GST_CLOCK_TIME_NONE && rtEnd >= rt ? rtEnd : rt + (end > pts ? end - pts : 0);
    }
    pts = rt;
    return true;
}

bool qv_pad_guard::upstream_live(GstPad* pad)
{
    if (m_nLive < 0) {
        GstQuery* q = gst_query_new_latency();
        gboolean bLive = TRUE;
        if (gst_pad_peer_query(pad, q))
            gst_query_parse_latency(q, &bLive, nullptr, nullptr);
        gst_query_unref(q);
        m_nLive = bLive ? 1 : 0;
    }
    return m_nLive == 1;
}

// Teletext, SCTE-104, SCTE-35 and raw VBI pads: map the buffer and hand its
// bytes to the renderer.
#include "qv_pad_common.h"
#include "qv_pads.h"
#include "qv_renderer.h"

// The section types are stable in practice; the library still flags its API.
#define GST_USE_UNSTABLE_API
#include <gst/mpegts/mpegts.h>
#include <gst/video/video.h>

namespace {

// Running time of the splice a tsdemux-style section event announces, from
// the event's "running-time-map": per splice event for a splice_insert,
// the section's splice time for a time_signal. None when the event does not
// say (the section's own PTS then counts).
uint64_t splice_running_time(const GstStructure* s, GstMpegtsSection* pSection)
{
    const GstStructure* pMap = nullptr;
    if (const GValue* v = gst_structure_get_value(s, "running-time-map"); v && GST_VALUE_HOLDS_STRUCTURE(v))
        pMap = gst_value_get_structure(v);
    if (!pMap)
        return GST_CLOCK_TIME_NONE;
    guint64 t = GST_CLOCK_TIME_NONE;
    const GstMpegtsSCTESIT* pSit = gst_mpegts_section_get_scte_sit(pSection);
    if (pSit && pSit->splice_command_type == GST_MTS_SCTE_SPLICE_COMMAND_INSERT && pSit->splices &&
        pSit->splices->len > 0) {
        const auto* pEvent = static_cast<const GstMpegtsSCTESpliceEvent*>(g_ptr_array_index(pSit->splices, 0));
        gchar* pName = g_strdup_printf("event-%u-splice-time", pEvent->splice_event_id);
        if (!gst_structure_get_uint64(pMap, pName, &t))
            t = GST_CLOCK_TIME_NONE;
        g_free(pName);
        return t;
    }
    if (!gst_structure_get_uint64(pMap, "splice-time", &t))
        return GST_CLOCK_TIME_NONE;
    return t;
}

} // namespace

bool qv_take_scte35_event(qv_renderer* pRenderer, GstEvent* event)
{
    if (GST_EVENT_TYPE(event) != GST_EVENT_CUSTOM_DOWNSTREAM)
        return false;
    static const bool bMpegtsReady = [] {
        gst_mpegts_initialize();
        return true;
    }();
    (void)bMpegtsReady;
    GstMpegtsSection* pSection = gst_event_parse_mpegts_section(event);
    if (!pSection)
        return false;
    if (GST_MPEGTS_SECTION_TYPE(pSection) != GST_MPEGTS_SECTION_SCTE_SIT) {
        gst_mpegts_section_unref(pSection);
        return false;
    }
    gsize nSize = 0;
    GBytes* pBytes = gst_mpegts_section_get_data(pSection);
    const auto* pData = pBytes ? static_cast<const uint8_t*>(g_bytes_get_data(pBytes, &nSize)) : nullptr;
    const uint64_t nSplice = splice_running_time(gst_event_get_structure(event), pSection);
    if (pRenderer && pData)
        pRenderer->add_scte35_section(pData, nSize, nSplice, gst_event_get_seqnum(event));
    if (pBytes)
        g_bytes_unref(pBytes);
    gst_mpegts_section_unref(pSection);
    gst_event_unref(event);
    return true;
}

gboolean gst_pad_data_sink_event(GstPad* pad, GstObject* parent, GstEvent* event)
{
    if (!parent) {
        gst_event_unref(event);
        return FALSE;
    }
    if (qv_take_scte35_event(qv_renderer_of(parent), event))
        return TRUE;
    // Only under the stream lock, as the chain: a flush start comes from
    // another thread and must not race the pad's first buffer for its guard.
    if (GST_EVENT_IS_SERIALIZED(event))
        qv_pad_guard::of(pad).on_event(event);
    if (qv_renderer* pRenderer = qv_renderer_of(parent))
        pRenderer->pad_event(pad, event);
    return gst_pad_event_default(pad, parent, event);
}

GstPadLinkReturn gst_pad_accept_link(GstPad*, GstObject*, GstPad*)
{
    return GST_PAD_LINK_OK;
}

void gst_pad_ignore_unlink(GstPad*, GstObject*) {}

GstFlowReturn gst_pad_teletext_chain(GstPad* pad, GstObject* parent, GstBuffer* buffer)
{
    return qv_chain(pad, parent, buffer, nullptr, qv_no_check, [pad, buffer](qv_renderer& r, const qv_buffer_map& m) {
        GstClockTime pts = GST_BUFFER_PTS(buffer);
        GstClockTime end = qv_buffer_end(buffer);
        if (qv_place(pad, r, pts, end))
            r.add_teletext_frame(pts, end, m.data(), m.size());
        return qv_verdict::ok();
    });
}

GstFlowReturn gst_pad_scte104_chain(GstPad* pad, GstObject* parent, GstBuffer* buffer)
{
    return qv_chain(pad, parent, buffer, nullptr, qv_no_check, [](qv_renderer& r, const qv_buffer_map& m) {
        r.add_scte104_frame(m.data(), m.size());
        return qv_verdict::ok();
    });
}

GstFlowReturn gst_pad_scte35_chain(GstPad* pad, GstObject* parent, GstBuffer* buffer)
{
    return qv_chain(pad, parent, buffer, nullptr, qv_no_check, [](qv_renderer& r, const qv_buffer_map& m) {
        r.add_scte35_frame(m.data(), m.size());
        return qv_verdict::ok();
    });
}

GstFlowReturn gst_pad_vbi_chain(GstPad* pad, GstObject* parent, GstBuffer* buffer)
{
    return qv_chain(pad, parent, buffer, "qv_jt_renderer: if (FALSE == gst_buffer_map(pBuf.get(), &map_mam, "
                                    "GST_MAP_READ))\n",
                    qv_no_check, [pad, buffer](qv_renderer& r, const qv_buffer_map& m) {
                        GstVideoTimeCodeMeta* pMeta = gst_buffer_get_video_time_code_meta(buffer);
                        GstClockTime pts = GST_BUFFER_PTS(buffer);
                        GstClockTime end = qv_buffer_end(buffer);
                        if (qv_place(pad, r, pts, end))
                            r.add_vbi_frame(pts, end, m.data(), m.size(), pMeta ? &pMeta->tc : nullptr);
                        return qv_verdict::ok();
                    });
}

// Teletext, SCTE-104, SCTE-35 and raw VBI pads: map the buffer and hand its
// bytes to the renderer.
#include "qv_pad_common.h"
#include "qv_pads.h"
#include "qv_renderer.h"

#include <gst/video/video.h>

namespace {

template <typename Fn>
GstFlowReturn data_chain(GstObject* parent, GstBuffer* buffer, const char* pMapMessage, Fn&& call)
{
    if (!buffer)
        return GST_FLOW_ERROR;
    qv_buffer_ptr pBuf = qv_take_buffer(buffer);
    qv_renderer* pRenderer = qv_renderer_of(parent);
    if (!pRenderer)
        return GST_FLOW_ERROR;
    qv_buffer_map map(pBuf.get());
    if (!map.ok()) {
        if (pMapMessage)
            g_print("%s", pMapMessage);
        return GST_FLOW_ERROR;
    }
    call(*pRenderer, map);
    return GST_FLOW_OK;
}

} // namespace

gboolean gst_pad_data_sink_event(GstPad* pad, GstObject* parent, GstEvent* event)
{
    if (!parent) {
        gst_event_unref(event);
        return FALSE;
    }
    return gst_pad_event_default(pad, parent, event);
}

GstPadLinkReturn gst_pad_accept_link(GstPad*, GstObject*, GstPad*)
{
    return GST_PAD_LINK_OK;
}

void gst_pad_ignore_unlink(GstPad*, GstObject*) {}

GstFlowReturn gst_pad_teletext_chain(GstPad*, GstObject* parent, GstBuffer* buffer)
{
    return data_chain(parent, buffer, nullptr, [buffer](qv_renderer& r, const qv_buffer_map& m) {
        r.add_teletext_frame(GST_BUFFER_PTS(buffer), qv_buffer_end(buffer), m.data(), m.size());
    });
}

GstFlowReturn gst_pad_scte104_chain(GstPad*, GstObject* parent, GstBuffer* buffer)
{
    return data_chain(parent, buffer, nullptr,
                      [](qv_renderer& r, const qv_buffer_map& m) { r.add_scte104_frame(m.data(), m.size()); });
}

GstFlowReturn gst_pad_scte35_chain(GstPad*, GstObject* parent, GstBuffer* buffer)
{
    return data_chain(parent, buffer, nullptr,
                      [](qv_renderer& r, const qv_buffer_map& m) { r.add_scte35_frame(m.data(), m.size()); });
}

GstFlowReturn gst_pad_vbi_chain(GstPad*, GstObject* parent, GstBuffer* buffer)
{
    return data_chain(parent, buffer, "qv_jt_renderer: if (FALSE == gst_buffer_map(pBuf.get(), &map_mam, "
                                      "GST_MAP_READ))\n",
                      [buffer](qv_renderer& r, const qv_buffer_map& m) {
                          GstVideoTimeCodeMeta* pMeta = gst_buffer_get_video_time_code_meta(buffer);
                          r.add_vbi_frame(GST_BUFFER_PTS(buffer), qv_buffer_end(buffer), m.data(), m.size(),
                                          pMeta ? &pMeta->tc : nullptr);
                      });
}

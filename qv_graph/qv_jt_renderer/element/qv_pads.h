// Sink pads of the element: holders that keep a reference to each pad, and
// the pad functions (event, chain, link, unlink) installed on them.
#pragma once

#include <gst/gst.h>

#include <memory>

// Owns one reference to a pad, whether or not the element holds it right now,
// so that pads removed from the element (VBI swap) can be added back later.
class qv_pad_holder {
public:
    qv_pad_holder() = default;
    explicit qv_pad_holder(GstPad* pPad);
    ~qv_pad_holder();
    qv_pad_holder(const qv_pad_holder&) = delete;
    qv_pad_holder& operator=(const qv_pad_holder&) = delete;

    void reset(GstPad* pPad = nullptr);
    GstPad* get() const { return m_pPad; }

private:
    GstPad* m_pPad = nullptr;
};

using qv_video_pad = qv_pad_holder;
using qv_teletext_pad = qv_pad_holder;
using qv_scte104_pad = qv_pad_holder;
using qv_scte35_pad = qv_pad_holder;
using qv_vbi_pad = qv_pad_holder;

struct _qv_audio_pad {
    qv_pad_holder pad;
    unsigned long nIndex = 0; // audio line
};

// Pad functions, per pad kind.
gboolean gst_pad_video_sink_event(GstPad* pad, GstObject* parent, GstEvent* event);
GstFlowReturn gst_pad_video_chain(GstPad* pad, GstObject* parent, GstBuffer* buffer);
GstPadLinkReturn gst_pad_video_link(GstPad* pad, GstObject* parent, GstPad* peer);
void gst_pad_video_unlink(GstPad* pad, GstObject* parent);

gboolean gst_pad_audio_sink_event(GstPad* pad, GstObject* parent, GstEvent* event);
GstFlowReturn gst_pad_audio_chain(GstPad* pad, GstObject* parent, GstBuffer* buffer);
gboolean gst_pad_audio_query(GstPad* pad, GstObject* parent, GstQuery* query);

// Event, link and unlink of the data pads (and the audio pads) behave alike.
gboolean gst_pad_data_sink_event(GstPad* pad, GstObject* parent, GstEvent* event);
GstPadLinkReturn gst_pad_accept_link(GstPad* pad, GstObject* parent, GstPad* peer);
void gst_pad_ignore_unlink(GstPad* pad, GstObject* parent);

GstFlowReturn gst_pad_teletext_chain(GstPad* pad, GstObject* parent, GstBuffer* buffer);
GstFlowReturn gst_pad_scte104_chain(GstPad* pad, GstObject* parent, GstBuffer* buffer);
GstFlowReturn gst_pad_scte35_chain(GstPad* pad, GstObject* parent, GstBuffer* buffer);
GstFlowReturn gst_pad_vbi_chain(GstPad* pad, GstObject* parent, GstBuffer* buffer);

// Buffer flag that marks a DTS holding the input hardware time.
constexpr guint QV_BUFFER_FLAG_HWTIME = GST_BUFFER_FLAG_LAST << 1;
static_assert(QV_BUFFER_FLAG_HWTIME == 0x200000, "hardware-time flag is bit 21");

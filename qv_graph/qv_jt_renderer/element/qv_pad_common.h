// Helpers shared by the pad chain functions.
#pragma once

#include "gstqvjtrenderer.h"
#include "qv_pad_guard.h"

#include <gst/gst.h>

#include <memory>
#include <string>
#include <utility>

class qv_renderer;

inline qv_renderer* qv_renderer_of(GstObject* parent)
{
    return parent ? reinterpret_cast<Gstqvjtrenderer*>(parent)->pRenderer : nullptr;
}

// Releases the buffer on every path out of a chain function.
using qv_buffer_ptr = std::unique_ptr<GstBuffer, void (*)(GstBuffer*)>;
inline qv_buffer_ptr qv_take_buffer(GstBuffer* buffer)
{
    return qv_buffer_ptr(buffer, [](GstBuffer* b) { gst_buffer_unref(b); });
}

// Maps a buffer for reading for the lifetime of the object.
class qv_buffer_map {
public:
    explicit qv_buffer_map(GstBuffer* buffer) : m_pBuffer(buffer)
    {
        m_bMapped = gst_buffer_map(buffer, &m_info, GST_MAP_READ) != FALSE;
    }
    ~qv_buffer_map()
    {
        if (m_bMapped)
            gst_buffer_unmap(m_pBuffer, &m_info);
    }
    qv_buffer_map(const qv_buffer_map&) = delete;
    qv_buffer_map& operator=(const qv_buffer_map&) = delete;

    bool ok() const { return m_bMapped; }
    guint8* data() const { return m_info.data; }
    gsize size() const { return m_info.size; }

private:
    GstBuffer* m_pBuffer;
    GstMapInfo m_info{};
    bool m_bMapped = false;
};

// What a chain's check or body makes of one buffer: used (or ended with a
// flow value of its own), or unusable for a reason.
struct qv_verdict {
    GstFlowReturn ret = GST_FLOW_OK;
    std::string why; // not empty: the buffer cannot be used, for this reason

    static qv_verdict ok() { return {}; }
    static qv_verdict flow(GstFlowReturn r) { return {r, {}}; }
    static qv_verdict unusable(std::string reason) { return {GST_FLOW_OK, std::move(reason)}; }
};

// The prologue every chain function shares. A null buffer is an error; the
// buffer is released on every path; without a renderer (no parent) it is an
// error. `check` may end the chain before the buffer is mapped (reading caps).
// The buffer is then mapped for reading (failure: pMapMessage when given) and
// handed to `body`. An unusable buffer, whether the check, the mapping or the
// body finds it so, is dropped with one bus warning per run of them and the
// stream goes on (GST_FLOW_OK): one bad buffer must not end the programme.
template <typename Check, typename Body>
GstFlowReturn qv_chain(GstPad* pad, GstObject* parent, GstBuffer* buffer, const char* pMapMessage, Check&& check,
                       Body&& body)
{
    if (!buffer)
        return GST_FLOW_ERROR;
    const qv_buffer_ptr pBuf = qv_take_buffer(buffer);
    qv_renderer* pRenderer = qv_renderer_of(parent);
    if (!pRenderer)
        return GST_FLOW_ERROR;
    qv_pad_guard& guard = qv_pad_guard::of(pad);
    const qv_verdict checked = check();
    if (!checked.why.empty())
        return guard.drop(pad, parent, checked.why);
    if (checked.ret != GST_FLOW_OK)
        return checked.ret;
    const qv_buffer_map map(buffer);
    if (!map.ok()) {
        if (pMapMessage)
            g_print("%s", pMapMessage);
        return guard.drop(pad, parent, "it cannot be mapped for reading");
    }
    const qv_verdict done = body(*pRenderer, map);
    if (!done.why.empty())
        return guard.drop(pad, parent, done.why);
    guard.used();
    return done.ret;
}

inline qv_verdict qv_no_check()
{
    return qv_verdict::ok();
}

// Consumes a splice section event that a demuxer sends down every pad it
// feeds (its GstMpegtsSection carries the section); true when `event` was one
// and has been taken. The element queues each such event once.
bool qv_take_scte35_event(qv_renderer* pRenderer, GstEvent* event);

// Puts [pts, end) on the programme's time line (the pad's running time) and,
// when upstream is not live, waits until play-out needs it, so that a file is
// read at the board's pace. False when the buffer lies outside its segment
// (clipped away: it is dropped without a word, as every sink drops those).
bool qv_place(GstPad* pad, qv_renderer& renderer, GstClockTime& pts, GstClockTime& end);

// PTS + duration, the duration of a buffer without one counting as 0.
inline GstClockTime qv_buffer_end(GstBuffer* buffer)
{
    const GstClockTime d = GST_BUFFER_DURATION(buffer);
    return GST_BUFFER_PTS(buffer) + (d == GST_CLOCK_TIME_NONE ? 0 : d);
}

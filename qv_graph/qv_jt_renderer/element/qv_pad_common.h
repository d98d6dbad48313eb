// Helpers shared by the pad chain functions.
#pragma once

#include "gstqvjtrenderer.h"

#include <gst/gst.h>

#include <memory>

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

// PTS + duration, the duration of a buffer without one counting as 0.
inline GstClockTime qv_buffer_end(GstBuffer* buffer)
{
    const GstClockTime d = GST_BUFFER_DURATION(buffer);
    return GST_BUFFER_PTS(buffer) + (d == GST_CLOCK_TIME_NONE ? 0 : d);
}

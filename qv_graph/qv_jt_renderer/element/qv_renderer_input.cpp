// Renderer entry points for the pads' streaming threads: stamp the input with
// the time starter and queue it in the FIFO engine.
#include "qv_renderer.h"

#include "qv_v4l2_common.h"
#include "qv_vbi_convert.h"

#include <algorithm>

namespace {

// The time starter works in signed 64-bit; stream time beyond that is not a stamp.
bool stamp(qv_time_starter& starter, uint64_t ptsStart, uint64_t ptsEnd, uint64_t& start, uint64_t& stop)
{
    if (ptsStart == QV_TIME_NONE) {
        // Not a stamp: it must not become the starter's origin. The FIFO
        // engine reports and drops it.
        start = stop = QV_TIME_NONE;
        return true;
    }
    // The starter answers (relative stop, relative start, accepted): stop first.
    const auto [e, s, bValid] = starter.set_time_stamp(static_cast<long>(ptsStart), static_cast<long>(ptsEnd));
    if (!bValid)
        return false;
    start = static_cast<uint64_t>(s);
    stop = static_cast<uint64_t>(e);
    return true;
}

} // namespace

uint64_t qv_renderer::device_time_locked() const
{
    // Output frame counter in 100 ns units, computed in single precision.
    const qv_v4l2_base_output_device& dev =
        m_mpln_device.is_open() ? static_cast<const qv_v4l2_base_output_device&>(m_mpln_device) : m_video_device;
    const float fTime = static_cast<float>(dev.get_seq_frame()) * 10000000.0f / dev.get_board_format().fps;
    return static_cast<uint64_t>(fTime);
}

bool qv_renderer::board_open_locked(bool bAudio) const
{
    return m_mpln_device.is_open() || (bAudio ? m_audio_device.is_open() : m_video_device.is_open());
}

bool qv_renderer::admit_locked(bool bAudio, uint64_t ptsStart, uint64_t ptsEnd, uint64_t& start, uint64_t& stop)
{
    return board_open_locked(bAudio) && stamp(m_time_starter, ptsStart, ptsEnd, start, stop);
}

bool qv_renderer::set_video_cap(GstCaps* pCaps)
{
    const GstStructure* s = pCaps ? gst_caps_get_structure(pCaps, 0) : nullptr;
    if (!s)
        return false;
    return gst_structure_has_field(s, "format") && gst_structure_has_field(s, "pixel-aspect-ratio") &&
           gst_structure_has_field(s, "framerate") && gst_structure_has_field(s, "interlace-mode");
}

int qv_renderer::add_video_frame(uint64_t ptsStart, uint64_t ptsEnd, uint64_t dts, const QVSDK::QVImage& image,
                                 uint64_t hwTime, uint64_t runningTime, qv_frame_ancillary* pAncillary)
{
    uint64_t start = 0, stop = 0, deviceTime = 0;
    {
        std::lock_guard<std::recursive_mutex> lock(m_cs);
        // Input is input even while the output device is being reopened.
        m_alarmDispatcher.video_event();
        if (!admit_locked(false, ptsStart, ptsEnd, start, stop))
            return 1;
        // Input paced by the board arrives at the board's rate by
        // construction, and in bursts after a seek: there is no stream clock
        // to smooth, and smoothing the bursts would move the pictures.
        deviceTime = m_bPacedInput ? 0 : device_time_locked();
    }
    // The FIFO locks for itself; the picture's copy must not hold up the
    // audio pads waiting for this lock.
    const int ret = m_fifo.add_video_frame(start, stop, dts, deviceTime, image, static_cast<unsigned long>(hwTime),
                                           runningTime);
    if (pAncillary) {
        // Only this thread numbers pictures: the FIFO's last number is this
        // picture's (or, for one it dropped, its predecessor's, whose record
        // then carries the captions on all the same).
        m_ancillary.push(m_fifo.last_frame_number(), std::move(*pAncillary));
    }
    // Play-out will begin at the first picture, wherever the other streams began.
    const int64_t nFirst = m_fifo.first_queued_frame();
    if (nFirst >= 0)
        m_pacer.anchor(nFirst);
    return ret;
}

int qv_renderer::add_audio_frame(GstPad* pPad, uint64_t ptsStart, uint64_t ptsEnd, uint64_t,
                                 const QVSDK::QVSound& sound)
{
    std::lock_guard<std::recursive_mutex> lock(m_cs);
    const auto it = std::find_if(m_list_audio_pad.begin(), m_list_audio_pad.end(),
                                 [pPad](const auto& p) { return p->pad.get() == pPad; });
    if (it == m_list_audio_pad.end())
        return 1; // the pad was removed while its stream still flowed
    m_alarmDispatcher.audio_event();
    uint64_t start = 0, stop = 0;
    if (!admit_locked(true, ptsStart, ptsEnd, start, stop))
        return 1;
    return m_fifo.add_audio_frame(static_cast<unsigned>((*it)->nIndex), start, stop, device_time_locked(), sound)
               ? 0
               : -1;
}

int qv_renderer::add_teletext_frame(uint64_t ptsStart, uint64_t ptsEnd, const uint8_t* pData, size_t nSize)
{
    std::lock_guard<std::recursive_mutex> lock(m_cs);
    m_alarmDispatcher.teletext_event();
    uint64_t start = 0, stop = 0;
    if (!admit_locked(false, ptsStart, ptsEnd, start, stop))
        return 1;
    return m_fifo.add_teletext_frame(start, stop, pData, nSize);
}

int qv_renderer::add_vbi_frame(uint64_t ptsStart, uint64_t ptsEnd, const uint8_t* pData, size_t nSize,
                               const GstVideoTimeCode* pTimecode)
{
    std::lock_guard<std::recursive_mutex> lock(m_cs);
    m_alarmDispatcher.vbi_event();
    uint64_t start = 0, stop = 0;
    if (!admit_locked(false, ptsStart, ptsEnd, start, stop))
        return 1;
    if (!pTimecode)
        return m_fifo.add_vbi_frame(start, stop, pData, nSize, nullptr);

    // The FIFO library knows no GStreamer: hand it the V4L2 form and the text.
    qv_input_timecode tc;
    tc.timecode = convert_gst_timecode_to_v4l2_timecode(*pTimecode);
    gchar* pText = gst_video_time_code_to_string(pTimecode);
    tc.pText = pText;
    const int ret = m_fifo.add_vbi_frame(start, stop, pData, nSize, &tc);
    g_free(pText);
    return ret;
}

int qv_renderer::add_scte104_frame(const uint8_t* pData, size_t nSize)
{
    std::lock_guard<std::recursive_mutex> lock(m_cs);
    if (!board_open_locked(false))
        return 1;
    return m_fifo.add_scte104_frame(pData, nSize);
}

int qv_renderer::add_scte35_frame(const uint8_t* pData, size_t nSize)
{
    std::lock_guard<std::recursive_mutex> lock(m_cs);
    if (!board_open_locked(false))
        return 1;
    return m_fifo.add_scte35_frame(pData, nSize);
}

int qv_renderer::add_scte35_section(const uint8_t* pSection, size_t nSize, uint64_t nSpliceRunningTime,
                                    uint32_t nEventId)
{
    std::lock_guard<std::recursive_mutex> lock(m_cs);
    if (!board_open_locked(false))
        return 1;
    return m_fifo.add_scte35_section(pSection, nSize, nSpliceRunningTime, nEventId);
}

int qv_renderer::add_subtitle_frame(uint64_t, const uint8_t*, size_t)
{
    return 1;
}

void qv_renderer::pace_input(GstPad* pPad, uint64_t ptsStart)
{
    m_bPacedInput = true;
    if (ptsStart == QV_TIME_NONE)
        return;
    uint64_t rel = 0;
    {
        std::lock_guard<std::recursive_mutex> lock(m_cs);
        // The first stamp of a stream is its origin: it is always wanted.
        if (m_time_starter.m_bFirst || static_cast<long>(ptsStart) < m_time_starter.m_time_start)
            return;
        rel = ptsStart - static_cast<uint64_t>(m_time_starter.m_time_start);
    }
    // A board that takes nothing for this long is stuck: the data then goes
    // in, and the FIFO's overflow rules take over.
    const auto bound = std::chrono::milliseconds(m_nLatency + 10000);
    m_pacer.wait(rel, [pPad] { return GST_PAD_IS_FLUSHING(pPad); }, bound);
}


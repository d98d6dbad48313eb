#include "qv_audio_fifo.h"

#include <glib.h>

#include <cmath>

namespace {

using u128 = unsigned __int128;

} // namespace

int qv_audio_fifo::init(float fps, const QVSDK::QVSoundFormat& format)
{
    m_fps = fps;
    m_sound_format = format;
    m_sound_fifo.clear();
    m_arrival_pos = m_render_pos = m_ptsStart = 0;
    return 1;
}

void qv_audio_fifo::set_statistics(std::shared_ptr<qv_audio_statistics> statistics)
{
    m_statistics = std::move(statistics);
}

bool qv_audio_fifo::alloc(size_t frames)
{
    const uint32_t A = m_sound_format.m_avr_byte_per_sec;
    const size_t B = m_sound_format.m_block_align;
    if (B == 0 || !m_sound_format.isValid())
        return false;
    // Single precision on purpose, like the frame rate it divides by: the ring
    // and jitter sizes must come out the same byte count on every build.
    const auto bytes = static_cast<size_t>(static_cast<float>(frames * A) / m_fps);
    const size_t capacity = B * (bytes / B + 1); // one spare block
    const auto jitter = static_cast<unsigned>(static_cast<size_t>(static_cast<float>(A) / m_fps) / 2);
    return m_sound_fifo.init(capacity, m_sound_format, jitter);
}

void qv_audio_fifo::clear()
{
    m_sound_fifo.clear();
    m_arrival_pos = m_render_pos = m_ptsStart = 0;
}

uint64_t qv_audio_fifo::pts_to_pos(uint64_t pts) const
{
    const u128 A = m_sound_format.m_avr_byte_per_sec;
    const u128 B = m_sound_format.m_block_align;
    if (B == 0)
        return 0;
    return static_cast<uint64_t>(B * ((A * pts / 1000000000u + B / 2) / B));
}

uint64_t qv_audio_fifo::pos_to_pts(uint64_t pos) const
{
    const u128 A = m_sound_format.m_avr_byte_per_sec;
    if (A == 0)
        return 0;
    return static_cast<uint64_t>(u128(1000000000u) * pos / A);
}

uint64_t qv_audio_fifo::frame_to_pos(uint64_t nFrame) const
{
    const uint64_t A = m_sound_format.m_avr_byte_per_sec;
    const uint64_t B = m_sound_format.m_block_align;
    if (B == 0)
        return 0;
    // Exact product first, then nearest byte, then down to a whole block: the
    // frame grid decides where each frame ends, so the lengths sum exactly.
    const auto product = static_cast<double>(static_cast<u128>(nFrame) * A);
    const auto bytes = static_cast<uint64_t>(std::trunc(product / static_cast<double>(m_fps) + 0.5));
    return B * (bytes / B);
}

bool qv_audio_fifo::add_audio_frame(uint64_t ptsStart, uint64_t /*ptsStop*/, const QVSDK::QVSound& frame)
{
    const uint64_t pos = pts_to_pos(ptsStart);
    if (pos < m_arrival_pos || ptsStart < m_ptsStart) {
        // Time went backwards: reported, and the frame is still taken.
        g_print("qvjtrenderer: audio: pos = %lu, m_arrival_pos = %lu, ptsStart = %s, ptsOldStart = %s\n",
                static_cast<unsigned long>(pos), static_cast<unsigned long>(m_arrival_pos),
                qv_renderer_statistics::format_time(ptsStart).c_str(),
                qv_renderer_statistics::format_time(m_ptsStart).c_str());
    }
    m_arrival_pos = pos;
    m_ptsStart = ptsStart;
    if (m_statistics)
        m_statistics->nSampleArrivalTime = ptsStart;
    return m_sound_fifo.put(static_cast<int64_t>(m_arrival_pos), frame);
}

bool qv_audio_fifo::map_sound_frame(uint64_t nFrameNumber, QVSDK::QVSound& frame)
{
    const uint64_t B = m_sound_format.m_block_align;
    const uint64_t endPos = frame_to_pos(nFrameNumber + 1);
    const uint64_t startPos = frame_to_pos(nFrameNumber);

    uint64_t r = m_render_pos;
    if (r + B < startPos) {
        // More than a block behind the frame grid: skip ahead instead of drifting.
        g_print("qvjtrenderer: map_sound_frame() - skip %ld bytes : %ld -> %ld, frame=%ld, fifo_pos=%ld\n",
                static_cast<long>(startPos - r), static_cast<long>(r), static_cast<long>(startPos),
                static_cast<long>(nFrameNumber), static_cast<long>(m_sound_fifo.m_nReadPos));
        m_sound_fifo.skipToPos(static_cast<int64_t>(startPos));
        m_render_pos = r = startPos;
    } else if (startPos < r) {
        // Time jumped back: play silence and let the frame grid catch up.
        g_print("qvjtrenderer: map_sound_frame() - fill silent because of position jump back\n");
        if (!frame.init(static_cast<size_t>(endPos - startPos), m_sound_format))
            return false;
        frame.silense(frame.capacity());
        return true;
    }

    const uint64_t length = endPos - r;
    if (length < B) {
        g_print("qvjtrenderer: m_sound_format.block_align() > length\n");
        return false;
    }
    m_render_pos = endPos;
    if (m_statistics) {
        m_statistics->nSampleRenderTime = pos_to_pts(endPos);
        m_statistics->nFifoFullness = m_arrival_pos >= endPos
                                          ? static_cast<int64_t>(pos_to_pts(m_arrival_pos - endPos))
                                          : -static_cast<int64_t>(pos_to_pts(endPos - m_arrival_pos));
    }
    if (!frame.init(static_cast<size_t>(length), m_sound_format))
        return false;
    frame.silense(frame.capacity());
    return m_sound_fifo.get(static_cast<int64_t>(r), frame);
}

void qv_audio_fifo::check_fifo_fullness(int latencyMs)
{
    const uint64_t A = m_sound_format.m_avr_byte_per_sec;
    const int64_t B = m_sound_format.m_block_align;
    if (B == 0)
        return;
    const uint64_t L = static_cast<uint64_t>(static_cast<int64_t>(latencyMs)) * A / 1000;
    if (m_render_pos + L < m_arrival_pos) {
        // Audio that arrived well before play-out would pile up: keep about L bytes.
        const auto excess = static_cast<int64_t>(m_arrival_pos - m_render_pos - L);
        m_render_pos += static_cast<uint64_t>(B * (excess / B));
        m_sound_fifo.skipToPos(static_cast<int64_t>(m_render_pos));
    }
}

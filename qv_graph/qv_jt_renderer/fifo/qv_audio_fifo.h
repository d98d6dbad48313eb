// One audio line's buffer: stream time mapped to byte positions on the line's
// own sample clock. Used under the FIFO engine's lock; it has none of its own.
#pragma once

#include "qv_renderer_statistics.h"

#include "qv_sound.h"
#include "qv_sound_fifo.h"

#include <cstdint>
#include <memory>

class qv_audio_fifo {
public:
    qv_audio_fifo() = default;

    int init(float fps, const QVSDK::QVSoundFormat& format);
    void set_statistics(std::shared_ptr<qv_audio_statistics> statistics);
    bool alloc(size_t frames);
    void clear();

    uint64_t pts_to_pos(uint64_t pts) const;
    uint64_t pos_to_pts(uint64_t pos) const;
    // Byte position where output frame nFrame begins (whole blocks).
    uint64_t frame_to_pos(uint64_t nFrame) const;

    bool add_audio_frame(uint64_t ptsStart, uint64_t ptsStop, const QVSDK::QVSound& frame);
    bool map_sound_frame(uint64_t nFrameNumber, QVSDK::QVSound& frame);
    void check_fifo_fullness(int latencyMs);

    QVSDK::QVSoundFormat m_sound_format;
    QVSDK::QVSoundFifo m_sound_fifo;
    float m_fps = 25.0f;
    uint64_t m_arrival_pos = 0;
    uint64_t m_render_pos = 0;
    uint64_t m_ptsStart = 0;
    std::shared_ptr<qv_audio_statistics> m_statistics;
};

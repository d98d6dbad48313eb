// What the render loop needs of the FIFO engine, and all it may use: the
// frame for an output index, the engine's state and its depths. Every call
// takes the engine's lock for itself, so the loop never holds it.
#pragma once

#include "qv_types.h"

#include "qv_sound.h"
#include "qvimage.h"

#include <cstdint>
#include <vector>

class qv_fifo_source {
public:
    virtual ~qv_fifo_source() = default;

    // The picture, sound and data of output frame `frame`; the result is a qv_fifo_state.
    virtual int map_next_data(unsigned frame, QVSDK::QVImage& image, QVSDK::QVSound& sound,
                              std::vector<uint8_t>& teletext, std::vector<uint8_t>& scte104) = 0;
    virtual int map_next_data_vbi(unsigned frame, QVSDK::QVImage& image, QVSDK::QVSound& sound,
                                  std::vector<uint8_t>& vbi, qv_timecode* tc) = 0;
    // fifo_ok, or why play-out must restart.
    virtual qv_fifo_state state() const = 0;
    // Back to fifo_ok: the queues ran dry for a reason the loop knows (a flush, the end).
    virtual void clear_state() = 0;
    // Silence for every audio line, one frame long: the nHeld-th frame while a
    // picture is held (lengths follow the frame grid, as for queued sound).
    virtual void map_silence(uint64_t nHeld, QVSDK::QVSound& sound) = 0;
    virtual void reset() = 0;
    // First output frame number (clamped at 0), or -1 when no picture is queued.
    virtual int64_t start() = 0;
    // The frame number of the oldest queued picture; -1 when none is queued.
    virtual int64_t first_queued_frame() = 0;
    // The number of the picture the last map handed out; false when none has been.
    virtual bool shown_frame(int64_t& nFrame) = 0;
    // Pictures queued, in ms of output.
    virtual uint32_t buffered_ms() const = 0;
    // The audio line has received its sound up to the start of output frame n.
    virtual bool audio_line_covers(unsigned nLine, uint64_t nFrame) = 0;
    // During pre-roll: each audio line checks its fullness against the latency.
    virtual void check_audio_fifo_fullness(unsigned latencyMs) = 0;
    // Hardware-time rows of the queued pictures, for the hardware lock.
    virtual std::vector<qv_fifo_item_stat> getHWstat() = 0;
};

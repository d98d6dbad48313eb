// Types shared by the FIFOs, the devices, the encoders and the render loop.
#pragma once

#include <linux/videodev2.h>

#include <chrono>
#include <cstddef>
#include <cstdint>

// The VBI/VANC area of one output frame. Lines hold 16-bit samples, two per
// pixel; field 2's lines follow field 1's.
struct qv_vbi_data {
    bool m_bValid = false;        // mapped and may be written
    uint16_t* m_pData = nullptr;  // first sample of the first VBI line
    size_t m_nSize = 0;           // bytes of the whole area
    size_t m_nStride = 0;         // bytes from one line to the next
    size_t m_nLines[2] = {0, 0};  // VBI lines of field 1 and field 2 (0 when progressive)
    bool m_bUsed[2][1024] = {};   // lines written this frame, blanked again before the next
};

struct qv_timecode {
    bool bValid = false;
    v4l2_timecode timecode{};
};

enum qv_fifo_state {
    fifo_ok = 0,
    fifo_underflow = 1,
    fifo_overflow = 2,
};

enum qv_renderer_state {
    qv_run_state = 0,  // device running
    qv_stop_state = 1, // device to be started on the next frame
};

// One queued video frame as the hardware lock sees it.
struct qv_fifo_item_stat {
    int64_t index = 0;   // output frame index
    uint32_t hw_time = 0; // input hardware time, 148.5 MHz ticks
    std::chrono::steady_clock::time_point tp{};
};

// Stream time stamps are nanoseconds of running time; all ones means none.
constexpr uint64_t QV_TIME_NONE = ~uint64_t(0);

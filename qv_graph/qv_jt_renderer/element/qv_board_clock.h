// The board's frame clock offered to the pipeline, as an audio sink offers
// its card's: while the board streams, time moves by one frame period for
// each frame the board sends (interpolated within the frame, never beyond
// it), so a pipeline on this clock runs at exactly the board's rate; while it
// does not stream, the clock runs on the system's monotonic time. It never
// goes backwards, whatever the board does (restarts, stalls, closing).
#pragma once

#include <gst/gst.h>

#include <cstdint>
#include <functional>
#include <mutex>

class qv_board_clock {
public:
    // The board's frame count and rate; false while it is not streaming.
    using frames_fn = std::function<bool(uint32_t& nFrames, double& fFps)>;

    explicit qv_board_clock(frames_fn frames);
    ~qv_board_clock();
    qv_board_clock(const qv_board_clock&) = delete;
    qv_board_clock& operator=(const qv_board_clock&) = delete;

    // A new reference to the clock.
    GstClock* clock() const;

    // The clock's time from the frame count and the monotonic time (ns),
    // exposed so that the arithmetic can be checked without a board.
    struct state {
        bool bLocked = false;       // following the board's frames
        uint32_t nFrameBase = 0;    // frame count at which it started following
        uint64_t nTimeBase = 0;     // clock time then
        uint32_t nFrame = 0;        // last frame count seen
        uint64_t nFrameSeenAt = 0;  // monotonic time it was first seen
        uint64_t nTime = 0;         // last time returned
        uint64_t nLastCall = 0;     // monotonic time of the last call
        bool bStarted = false;
    };
    static uint64_t advance(state& s, uint64_t nMonotonic, bool bStreaming, uint32_t nFrames, double fFps);

    struct shared; // lives as long as the clock object: a pipeline may keep it longer than the element

private:
    shared* m_pShared;
    GstClock* m_pClock;
};

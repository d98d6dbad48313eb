// Holds a producer that is not live back until play-out needs its data, so
// that a file is read at the board's pace instead of overflowing the FIFOs:
// a stamp may run at most `ahead` frames ahead of the frame going out. Live
// producers are never held (their overflow is a fault to report, not to hide).
// The render thread reports each frame it takes; a flush, a state change or a
// stop releases every waiter at once.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>

class qv_input_pacer {
public:
    // How far ahead of the output a producer may run, in frames, at `fps`.
    void configure(int64_t nAheadFrames, float fps);
    // Render thread: frame n (numbered as the FIFOs number them) goes out now.
    void output_at(int64_t nFrame);
    // Before play-out starts: the stream's first picture is frame n, which is
    // where the output will begin (other streams may start earlier or later).
    void anchor(int64_t nFrame);
    // Play-out starts again from frame 0 (a reset renumbers the streams).
    void restart();
    // Lets every waiter through now; later waits hold again.
    void release_all();

    // Waits while the relative stamp `pts` (ns) is too far ahead. Returns at
    // once when `abandon` says so (checked at least every 50 ms), after a
    // release, or when no frame has gone out for `bound` (the output is stuck:
    // the data then goes in and the FIFO's own overflow rules apply). Returns
    // true when it waited at all.
    bool wait(uint64_t pts, const std::function<bool()>& abandon, std::chrono::milliseconds bound);

    int64_t ahead() const { return m_nAhead; }

private:
    std::mutex m_cs;
    std::condition_variable m_cv;
    int64_t m_nAhead = 52;
    float m_fps = 25.0f;
    int64_t m_nOutput = 0;   // frame going out, or the first picture's before play-out starts
    bool m_bRunning = false; // frames are going out
    bool m_bAnchored = false; // the first picture's frame is known
    uint64_t m_nEpoch = 0;   // bumped by release_all
    int m_nWaiters = 0;
    std::chrono::steady_clock::time_point m_tProgress = std::chrono::steady_clock::now();
};

#include "qv_board_clock.h"

#include <gst/audio/gstaudioclock.h>

#include <algorithm>

struct qv_board_clock::shared {
    std::mutex cs;
    frames_fn frames; // emptied when the element goes; the clock then runs on monotonic time
    state s;
};

namespace {

GstClockTime board_time(GstClock*, gpointer user_data)
{
    auto* p = static_cast<qv_board_clock::shared*>(user_data);
    std::lock_guard<std::mutex> lock(p->cs);
    uint32_t nFrames = 0;
    double fFps = 0.0;
    const bool bStreaming = p->frames && p->frames(nFrames, fFps) && fFps > 0.0;
    const auto nNow = static_cast<uint64_t>(g_get_monotonic_time()) * 1000u;
    return qv_board_clock::advance(p->s, nNow, bStreaming, nFrames, fFps);
}

} // namespace

qv_board_clock::qv_board_clock(frames_fn frames) : m_pShared(new shared)
{
    m_pShared->frames = std::move(frames);
    m_pClock = gst_audio_clock_new("qvjtrenderer-board-clock", board_time, m_pShared,
                                   [](gpointer p) { delete static_cast<shared*>(p); });
}

qv_board_clock::~qv_board_clock()
{
    {
        std::lock_guard<std::mutex> lock(m_pShared->cs);
        m_pShared->frames = nullptr;
    }
    gst_object_unref(m_pClock);
}

GstClock* qv_board_clock::clock() const
{
    return GST_CLOCK(gst_object_ref(m_pClock));
}

uint64_t qv_board_clock::advance(state& s, uint64_t nMonotonic, bool bStreaming, uint32_t nFrames, double fFps)
{
    if (!s.bStarted) {
        s.bStarted = true;
        s.nLastCall = nMonotonic;
    }
    // Off the board, the clock goes on at the monotonic rate from where it is.
    const uint64_t nFree = s.nTime + (nMonotonic - s.nLastCall);
    s.nLastCall = nMonotonic;
    if (!bStreaming) {
        s.bLocked = false;
        s.nTime = nFree;
        return s.nTime;
    }
    if (!s.bLocked || nFrames < s.nFrame) {
        // The board started, or restarted its count: follow it from now on.
        s.bLocked = true;
        s.nFrameBase = nFrames;
        s.nTimeBase = nFree;
        s.nFrame = nFrames;
        s.nFrameSeenAt = nMonotonic;
    } else if (nFrames != s.nFrame) {
        s.nFrame = nFrames;
        s.nFrameSeenAt = nMonotonic;
    }
    const double fPeriod = 1e9 / fFps;
    // Whole frames in the exact product, then the time into the current
    // frame, which stops at the frame's end if the board does not go on.
    const auto nFramesTime = static_cast<uint64_t>(static_cast<double>(nFrames - s.nFrameBase) * fPeriod + 0.5);
    const auto nInto = std::min<uint64_t>(nMonotonic - s.nFrameSeenAt, static_cast<uint64_t>(fPeriod));
    s.nTime = std::max(s.nTime, s.nTimeBase + nFramesTime + nInto);
    return s.nTime;
}

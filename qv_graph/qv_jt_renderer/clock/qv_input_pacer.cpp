#include "qv_input_pacer.h"

void qv_input_pacer::configure(int64_t nAheadFrames, float fps)
{
    std::lock_guard<std::mutex> lock(m_cs);
    m_nAhead = nAheadFrames;
    m_fps = fps > 0.0f ? fps : 25.0f;
}

void qv_input_pacer::output_at(int64_t nFrame)
{
    std::lock_guard<std::mutex> lock(m_cs);
    m_bRunning = true;
    if (nFrame == m_nOutput)
        return;
    m_nOutput = nFrame;
    m_tProgress = std::chrono::steady_clock::now();
    // No waiter, no wake-up: a live channel pays nothing here.
    if (m_nWaiters > 0)
        m_cv.notify_all();
}

void qv_input_pacer::anchor(int64_t nFrame)
{
    std::lock_guard<std::mutex> lock(m_cs);
    if (m_bRunning || m_bAnchored)
        return;
    m_bAnchored = true;
    m_nOutput = nFrame;
    m_cv.notify_all();
}

void qv_input_pacer::restart()
{
    std::lock_guard<std::mutex> lock(m_cs);
    m_bRunning = false;
    m_bAnchored = false;
    m_nOutput = 0;
    m_tProgress = std::chrono::steady_clock::now();
    m_cv.notify_all();
}

void qv_input_pacer::release_all()
{
    std::lock_guard<std::mutex> lock(m_cs);
    ++m_nEpoch;
    m_cv.notify_all();
}

bool qv_input_pacer::wait(uint64_t pts, const std::function<bool()>& abandon, std::chrono::milliseconds bound)
{
    using clock = std::chrono::steady_clock;
    std::unique_lock<std::mutex> lock(m_cs);
    const auto frame = static_cast<int64_t>(static_cast<long double>(pts) * m_fps / 1e9L);
    const uint64_t epoch = m_nEpoch;
    bool bWaited = false;
    ++m_nWaiters;
    // Waiting starts a stuck-output clock of its own: time spent before
    // anybody waited says nothing about the output.
    clock::time_point tSince = std::max(m_tProgress, clock::now());
    while (frame > m_nOutput + m_nAhead && epoch == m_nEpoch) {
        if (abandon && abandon())
            break;
        tSince = std::max(tSince, m_tProgress);
        if (clock::now() - tSince >= bound)
            break;
        bWaited = true;
        m_cv.wait_for(lock, std::chrono::milliseconds(50));
    }
    --m_nWaiters;
    return bWaited;
}

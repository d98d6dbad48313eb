// Lock of the output frame index to the input hardware time (multi-plane boards).
// Every message goes through g_print, like the rest of the play-out's console.
#include "qv_playout_core.h"

#include <glib.h>

#include <chrono>
#include <cmath>

namespace {
using steady = std::chrono::steady_clock;
}

bool qv_playout_core::tryHWLock(uint32_t index, int32_t& correction)
{
    const uint32_t lastFrameHW = m_mpln_device.get_last_frame_hw();
    if (lastFrameHW == 0)
        return false;
    uint32_t hw = 0;
    steady::time_point tp;
    if (!m_mpln_device.getHWtime(hw, tp))
        return false;
    const std::vector<qv_fifo_item_stat> stat = m_fifo.getHWstat();
    if (stat.empty())
        return false;

    const auto newestGap = static_cast<int32_t>(hw - stat.back().hw_time);
    if (newestGap < 0) {
        g_print("qv_jt_renderer: can't lock to input - input time > output time (diff=%d < 0) !!!\n",
                newestGap / 148500);
        return false;
    }
    const uint32_t span = hw - stat.front().hw_time;
    const uint32_t capacity = m_nBufferCapacity * 148500u; // 32-bit: wraps above 28922 ms, which then lets a long span pass; kept so the lock decision does not move
    if (capacity < span) {
        g_print("qv_jt_renderer: can't lock to input - time_diff=%d > %d=capacity !!!\n",
                static_cast<int32_t>(span) / 148500, m_nBufferCapacity);
        return false;
    }

    const int32_t step = m_nHWFrameStep;
    const qv_fifo_item_stat& oldest = stat.front();
    const uint32_t lastFrameNumber = static_cast<uint32_t>(m_mpln_device.get_last_frame_number());
    const uint32_t outTime = lastFrameHW + (index - lastFrameNumber) * static_cast<uint32_t>(step);
    const uint32_t inTime = oldest.hw_time + (index + static_cast<uint32_t>(correction) -
                                              static_cast<uint32_t>(oldest.index)) *
                                                 static_cast<uint32_t>(step);
    const auto diff = static_cast<int32_t>(outTime - inTime - m_nLatency * 148500u);
    const double diffMs = diff / 148500.0;
    const double diffFrames = static_cast<double>(diff) / step;
    const int32_t threshold = (2 * step) / 3;

    if (diff > threshold || diff < -threshold) {
        // Positive: the output runs late against the input and skips ahead.
        const char* pWay = diff > 0 ? "backward" : "forward";
        if (std::fabs(diffFrames) > 10.0) {
            g_print("!!!!!!! tryHWLock[%d+%d] : diff=%.1f ms => correct to %.1f frames %s !!!!!!!\n",
                    static_cast<int>(index), correction, diffMs, diffFrames, pWay);
            PrintStat(index, correction, hw, lastFrameHW, stat);
            return false;
        }
        g_print("+++++++ tryHWLock[%d+%d] : diff=%.1f ms  => correct to %.1f frames %s +++++++\n",
                static_cast<int>(index), correction, diffMs, diffFrames, pWay);
        if (diff > 0)
            correction += static_cast<int32_t>(diffFrames + 0.499);
        else
            correction -= static_cast<int32_t>(0.499 - diffFrames);
        return true;
    }
    const auto ms = static_cast<int32_t>(0.499 + diffMs);
    if (ms >= m_nDebugDiffHW - 1 && ms <= m_nDebugDiffHW + 1)
        return true;
    g_print("+++++++ tryHWLock[%d+%d] : diff=%.1f ms == %.1f frames +++++++\n", static_cast<int>(index), correction,
            diffMs, diffFrames);
    m_nDebugDiffHW = ms;
    return true;
}

void qv_playout_core::PrintStat(uint32_t index, int32_t correction, uint32_t hw, uint32_t lastFrameHW,
                            const std::vector<qv_fifo_item_stat>& stat)
{
    for (const auto& item : stat)
        g_print(" [%ld]%.1f", static_cast<long>(item.index), static_cast<int32_t>(hw - item.hw_time) / 148500.0);
    g_print("  cur-last=%.1f  index=%d+%d -------\n", static_cast<int32_t>(hw - lastFrameHW) / 148500.0,
            static_cast<int>(index), correction);
}

// The render thread: one pass per output frame, paced by the device's buffer
// queue. Maps the frame's picture, sound and data from the FIFOs, writes the
// ancillary lines and hands everything to the device.
#include "qv_renderer.h"

#include <chrono>
#include <cstdio>
#include <cstring>

namespace {

using steady = std::chrono::steady_clock;

// Just over a second between two hardware lock attempts.
constexpr auto k_hwlock_interval = std::chrono::nanoseconds(1000999999);

bool exit_requested(std::future<void>& exit)
{
    return exit.wait_for(std::chrono::milliseconds(1)) == std::future_status::ready;
}

void clear_vbi_area(qv_vbi_data& vbi)
{
    vbi = qv_vbi_data{};
}

} // namespace

void qv_renderer::reset_sequence(bool& bStarted)
{
    m_alarmDispatcher.restart_event();
    {
        std::lock_guard<std::mutex> lock(m_statistics.m_cs);
        ++m_statistics.m_nFifoResetCount;
        m_statistics.nSeqFromDevice = 0;
    }
    m_state = qv_stop_state;
    reset();
    bStarted = false;
}

bool qv_renderer::pass_head(std::chrono::steady_clock::time_point tStart, bool& bStarted, uint32_t& nStartIndex)
{
    {
        std::lock_guard<std::mutex> lock(m_statistics.m_cs);
        m_statistics.m_nSystemTime = static_cast<uint64_t>(
            std::chrono::duration_cast<std::chrono::nanoseconds>(steady::now() - tStart).count());
    }
    if (m_fifo.m_state != fifo_ok) {
        reset_sequence(bStarted);
        return false;
    }
    if (!bStarted) {
        // Pre-roll until the video FIFO spans the latency.
        const qv_video_fifo& vf = m_fifo.m_video_fifo;
        const auto nBuffered = static_cast<uint32_t>((vf.m_nStopIndex - vf.m_nStartIndex) * 1000 / vf.m_fps);
        if (nBuffered < m_nLatency) {
            m_fifo.check_audio_fifo_fullness(m_nLatency);
            return false;
        }
        const int64_t s = m_fifo.start();
        nStartIndex = s < 0 ? 0 : static_cast<uint32_t>(s);
    }
    return true;
}

void qv_renderer::work_thread_separate(std::future<void>&& exit)
{
    const steady::time_point tStart = steady::now();
    QVSDK::QVImage image;
    QVSDK::QVImage deviceImage;
    QVSDK::QVSound sound;
    std::vector<uint8_t> teletext, scte104, vbiBytes;
    qv_timecode timecode;
    qv_vbi_data vbi;
    bool bStarted = false;
    uint32_t nStartIndex = 0;
    uint32_t nSeq = 0;

    for (;;) {
        if (exit_requested(exit))
            break;
        if (!pass_head(tStart, bStarted, nStartIndex))
            continue;
        if (!m_video_device.map_image(nSeq, deviceImage)) {
            g_print("qv_jt_renderer: can't map buffer from device\n");
            bStarted = true;
            continue;
        }
        bStarted = true;
        const uint32_t nIndex = nStartIndex + nSeq;

        if (m_bUseVBI) {
            vbiBytes.clear();
            timecode = qv_timecode{};
            if (m_fifo.map_next_data_vbi(nIndex, image, sound, vbiBytes, &timecode) != 0) {
                reset_sequence(bStarted);
                continue;
            }
            image.copyTo(deviceImage);
            if (m_video_device.is_vbi_open()) {
                clear_vbi_area(vbi);
                if (m_video_device.map_vbi(vbi))
                    write_vbi_to_vbi(vbiBytes, vbi);
                m_video_device.unmap_vbi();
            }
            if (timecode.bValid)
                m_video_device.set_timecode(timecode);
        } else {
            teletext.clear();
            scte104.clear();
            if (m_fifo.map_next_data(nIndex, image, sound, teletext, scte104) != 0) {
                reset_sequence(bStarted);
                continue;
            }
            image.copyTo(deviceImage);
            if (m_video_device.is_vbi_open()) {
                clear_vbi_area(vbi);
                if (!m_video_device.map_vbi(vbi))
                    g_print("qv_jt_renderer: can't map vbi buffer from device\n");
                if (!teletext.empty() && vbi.m_bValid)
                    write_teletext_to_vbi(teletext, vbi);
                if (!scte104.empty() && vbi.m_bValid && !m_linesSCTE104.empty())
                    write_scte104_to_vbi(scte104, vbi);
                m_video_device.unmap_vbi();
            }
        }
        m_video_device.unmap_image();
        m_alarmDispatcher.frame_event();

        if (m_audio_device.is_open() && !m_audio_device.write(sound)) {
            reset_sequence(bStarted);
            continue;
        }
        if (m_state == qv_stop_state) {
            g_print("qvjtrenderer: start device\n");
            if (m_audio_device.is_open())
                m_audio_device.start_device();
            if (m_video_device.is_open())
                m_video_device.start_device();
            m_state = qv_run_state;
        }
    }

    std::lock_guard<std::recursive_mutex> lock(m_cs);
    if (m_video_device.is_open())
        m_video_device.stop_device();
    if (m_audio_device.is_open())
        m_audio_device.stop_device();
    g_print("qv_jt_renderer: stop renderer thread\n");
    m_state = qv_stop_state;
}

void qv_renderer::work_thread_complex(std::future<void>&& exit)
{
    const steady::time_point tStart = steady::now();
    QVSDK::QVImage image;
    QVSDK::QVSound sound;
    std::vector<uint8_t> teletext, scte104, vbiBytes;
    qv_timecode timecode;
    qv_vbi_data vbi;
    bool bStarted = false;
    uint32_t nStartIndex = 0;
    uint32_t nSeq = 0;
    int32_t nHWCorrection = 0;
    bool bLocked = false;
    steady::time_point tLastLock = tStart;

    for (;;) {
        if (exit_requested(exit))
            break;
        if (!pass_head(tStart, bStarted, nStartIndex))
            continue;
        if (!m_mpln_device.can_render(nSeq)) {
            g_print("qv_jt_renderer: device is not ready for next frame\n");
            bStarted = true;
            continue;
        }
        bStarted = true;
        uint32_t nIndex = nStartIndex + nSeq;

        if (m_bUseHWLock && steady::now() - tLastLock > k_hwlock_interval) {
            tLastLock = steady::now();
            bLocked = tryHWLock(nIndex, nHWCorrection);
        }
        if (bLocked && nHWCorrection != 0) {
            if (nHWCorrection < 0 && static_cast<uint32_t>(-static_cast<int64_t>(nHWCorrection)) >= nIndex)
                nIndex = 0;
            else
                nIndex = static_cast<uint32_t>(static_cast<int64_t>(nIndex) + nHWCorrection);
        }

        if (m_bUseVBI) {
            vbiBytes.clear();
            timecode = qv_timecode{};
            if (m_fifo.map_next_data_vbi(nIndex, image, sound, vbiBytes, &timecode) != 0) {
                reset_sequence(bStarted);
                continue;
            }
            m_mpln_device.push_vbi(vbiBytes.data(), vbiBytes.size());
            if (timecode.bValid)
                m_mpln_device.set_timecode(timecode);
        } else {
            teletext.clear();
            scte104.clear();
            if (m_fifo.map_next_data(nIndex, image, sound, teletext, scte104) != 0) {
                reset_sequence(bStarted);
                continue;
            }
            clear_vbi_area(vbi);
            m_mpln_device.init_vbi(vbi);
            if (!teletext.empty() && vbi.m_bValid)
                write_teletext_to_vbi(teletext, vbi);
            if (!scte104.empty() && vbi.m_bValid && !m_linesSCTE104.empty())
                write_scte104_to_vbi(scte104, vbi);
            m_mpln_device.finish_vbi(vbi);
        }
        m_mpln_device.push_audio(sound);
        m_mpln_device.push_image(image);
        m_mpln_device.send_data();
        m_alarmDispatcher.frame_event();

        if (m_state == qv_stop_state) {
            g_print("qvjtrenderer: start device\n");
            // A failed start is not retried: the next reset restarts the device.
            if (m_mpln_device.is_open() && !m_mpln_device.start_device())
                g_print("qv_jt_renderer: can't start video device\n");
            m_state = qv_run_state;
        }
    }

    std::lock_guard<std::recursive_mutex> lock(m_cs);
    if (m_mpln_device.is_open())
        m_mpln_device.stop_device();
    g_print("qv_jt_renderer: stop renderer thread\n");
    m_state = qv_stop_state;
}

void qv_renderer::write_teletext_to_vbi(const std::vector<uint8_t>& data, qv_vbi_data& vbi)
{
    const int nLines = m_teletext_encoder.next_data(data.data(), data.size());
    for (int i = 0; i < nLines; ++i) {
        bool bFirstField = true;
        int nLine = 0;
        if (!m_teletext_encoder.get_line_info(i, bFirstField, nLine) || nLine <= 0)
            continue;
        uint16_t* pTarget = nullptr;
        if (vbi.m_bValid) {
            const size_t row = bFirstField ? static_cast<size_t>(nLine - 1)
                                           : static_cast<size_t>(nLine - 1) + vbi.m_nLines[0];
            vbi.m_bUsed[bFirstField ? 0 : 1][nLine - 1] = true;
            pTarget = reinterpret_cast<uint16_t*>(reinterpret_cast<uint8_t*>(vbi.m_pData) + row * vbi.m_nStride);
        }
        m_teletext_encoder.encode_line(i, pTarget);
    }
}

void qv_renderer::write_scte104_to_vbi(const std::vector<uint8_t>& data, qv_vbi_data& vbi)
{
    const size_t nRow = vbi.m_nStride / 2;
    const auto packets = m_scte104_encoder.encoder(data.data(), data.size(), nRow);
    // Rows are addressed by the stored line number itself (one below teletext's).
    for (size_t k = 0; k < packets.size() && k < m_linesSCTE104.size(); ++k) {
        const uint32_t n = m_linesSCTE104[k];
        uint16_t* pTarget = nullptr;
        if (vbi.m_bValid && n < 1024) {
            vbi.m_bUsed[0][n] = true;
            pTarget = reinterpret_cast<uint16_t*>(reinterpret_cast<uint8_t*>(vbi.m_pData) + n * vbi.m_nStride);
        }
        m_scte104_encoder.convert(packets[k], pTarget, nRow);
    }
}

void qv_renderer::write_vbi_to_vbi(const std::vector<uint8_t>& data, qv_vbi_data& vbi)
{
    if (!vbi.m_pData)
        return;
    std::memcpy(vbi.m_pData, data.data(), std::min(data.size(), vbi.m_nSize));
}

bool qv_renderer::tryHWLock(uint32_t index, int32_t& correction)
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
    const uint32_t capacity = m_nBufferCapacity * 148500u; // wraps above 28922 ms, as it always has
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

    if (diff > threshold) {
        if (diffFrames > 10.0) {
            std::printf("!!!!!!! tryHWLock[%d+%d] : diff=%.1f ms => correct to %.1f frames backward !!!!!!!\n",
                        static_cast<int>(index), correction, diffMs, diffFrames);
            PrintStat(index, correction, hw, lastFrameHW, stat);
            return false;
        }
        std::printf("+++++++ tryHWLock[%d+%d] : diff=%.1f ms  => correct to %.1f frames backward +++++++\n",
                    static_cast<int>(index), correction, diffMs, diffFrames);
        correction += static_cast<int32_t>(diffFrames + 0.499);
        return true;
    }
    if (diff < -threshold) {
        if (diffFrames < -10.0) {
            std::printf("!!!!!!! tryHWLock[%d+%d] : diff=%.1f ms => correct to %.1f frames forward !!!!!!!\n",
                        static_cast<int>(index), correction, diffMs, diffFrames);
            PrintStat(index, correction, hw, lastFrameHW, stat);
            return false;
        }
        std::printf("+++++++ tryHWLock[%d+%d] : diff=%.1f ms  => correct to %.1f frames forward +++++++\n",
                    static_cast<int>(index), correction, diffMs, diffFrames);
        correction -= static_cast<int32_t>(0.499 - diffFrames);
        return true;
    }
    const auto ms = static_cast<int32_t>(0.499 + diffMs);
    if (ms >= m_nDebugDiffHW - 1 && ms <= m_nDebugDiffHW + 1)
        return true;
    std::printf("+++++++ tryHWLock[%d+%d] : diff=%.1f ms == %.1f frames +++++++\n", static_cast<int>(index),
                correction, diffMs, diffFrames);
    m_nDebugDiffHW = ms;
    return true;
}

void qv_renderer::PrintStat(uint32_t index, int32_t correction, uint32_t hw, uint32_t lastFrameHW,
                            const std::vector<qv_fifo_item_stat>& stat)
{
    for (const auto& item : stat)
        std::printf(" [%ld]%.1f", static_cast<long>(item.index), static_cast<int32_t>(hw - item.hw_time) / 148500.0);
    std::printf("  cur-last=%.1f  index=%d+%d -------\n", static_cast<int32_t>(hw - lastFrameHW) / 148500.0,
                static_cast<int>(index), correction);
}

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

// The render thread: one pass per output frame, paced by the device's buffer
// queue. Maps the frame's picture, sound and data from the FIFOs, writes the
// ancillary lines and hands everything to the device. Both variants (single
// plane with ALSA beside it, multi-plane) run the same loop; only taking a
// buffer, filling it and starting or stopping the device differ.
//
// The loop also keeps the play-out alive: a device that cannot go on is closed
// and reopened, a device that cannot be reopened is retried (at once when its
// node comes back, about once a second while the node is there but refuses),
// and the inputs' silence is counted in output frame slots even while nothing
// goes out.
#include "qv_playout_core.h"

#include <glib.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>

namespace {

using steady = std::chrono::steady_clock;

// Just over a second between two hardware lock attempts, of the board's own
// time: both times the lock compares are the board's, so its frame count is
// the clock to measure the interval with (on air the same as wall time).
constexpr double k_hwlock_interval_ns = 1000999999.0;

// A device that fails again this soon after it was reopened, or whose node is
// there but cannot be opened, is retried no more often than this.
constexpr auto k_reopen_interval = std::chrono::seconds(1);

// While there is nothing to send (pre-roll, device lost, end of stream) a
// pass waits this long for the exit signal instead of spinning.
constexpr auto k_idle_wait = std::chrono::milliseconds(5);

// The board watchdog is looked at about every half second of output. It is
// counted in frames handed to the board, because the watchdog itself runs on
// the board's time: a board whose clock stands still cannot have expired, and
// one ioctl per frame would double the render path's system calls.
uint32_t watchdog_period_frames(double fFps)
{
    return std::max<uint32_t>(1, static_cast<uint32_t>(fFps / 2 + 0.5));
}

void clear_vbi_area(qv_vbi_data& vbi)
{
    vbi = qv_vbi_data{};
}

// True when the node can be opened at all: cheap and silent, so that a lost
// device can be watched every pass without flooding the console.
bool node_present(const std::string& strName)
{
    if (strName.empty())
        return true;
    const int h = ::open(strName.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK);
    if (h == -1)
        return false;
    ::close(h);
    return true;
}

} // namespace

struct qv_playout_core::loop_state {
    explicit loop_state(bool complex) : bComplex(complex) {}

    const bool bComplex;
    const steady::time_point tStart = steady::now();
    QVSDK::QVImage image;
    QVSDK::QVImage deviceImage;
    QVSDK::QVSound sound;
    std::vector<uint8_t> teletext, scte104, vbiBytes;
    qv_timecode timecode;
    qv_vbi_data vbi;
    qv_frame_ancillary metadata; // of the picture shown, kept while it repeats
    bool bBadCaptions = false;   // in a run of malformed caption metadata (reported once)

    bool bStarted = false;    // pre-roll over, start index known
    uint32_t nStartIndex = 0; // output frame index of the first frame after pre-roll
    bool bSeqBase = false;    // the first device sequence after the pre-roll is known
    uint32_t nSeqBase = 0;    // that sequence: output index = start index + (sequence - base)
    uint32_t nQueued = 0;     // frames handed to the device since it was opened
    bool bFailing = false;    // the last buffer request failed (print a failure once per run)
    bool bPaced = false;      // the last pass was given a buffer: the device's wait paces the loop

    // Hardware time lock (multi-plane only).
    int32_t nHWCorrection = 0;
    bool bLocked = false;
    bool bLockSeq = false;  // nLockSeq is known
    uint32_t nLockSeq = 0;  // device sequence of the last attempt (or of the first frame)

    // Device lost and retried.
    bool bDown = false;
    bool bNodeMissing = false;
    steady::time_point tLastOpen = tStart - k_reopen_interval;
    std::string strLastError;

    // Output slots already counted for the alarms.
    steady::time_point tSlotsCounted = tStart;
    // Frames handed to the board since the watchdog was last looked at.
    uint32_t nSinceWatchdog = 0;

    // After a flush of the pictures: the picture on air is held, with
    // silence, until the new position has pre-rolled.
    bool bHolding = false;
    uint64_t nHeld = 0; // frames held so far (the sound's lengths follow the frame grid)

    // End of stream: the frames already queued go out before EOS is posted;
    // the board is fed the last picture meanwhile, and each buffer it gives
    // back is one more frame out.
    bool bDraining = false;
    uint32_t nDrainLeft = 0; // buffers still to come back before the last frame is out
    // When the pictures of input that is not live had pre-rolled and its sound not yet.
    steady::time_point tSoundWait{};
};

qv_playout_core::qv_playout_core(const qv_playout_parts& parts, qv_playout_callbacks callbacks)
    : qv_playout_parts(parts), m_callbacks(std::move(callbacks))
{
}

uint32_t qv_playout_core::ring_frames(bool bComplex) const
{
    if (!bComplex)
        return m_video_device.get_buffer_count();
    const uint32_t n = m_mpln_device.get_buffer_count();
    return m_mpln_device.get_field_order() == QVSDK::FieldOrder_Progressive ? n : n / 2;
}

void qv_playout_core::account_idle_slots(loop_state& loop)
{
    const auto period = std::chrono::nanoseconds(static_cast<int64_t>(1e9 / m_fFps));
    const auto now = steady::now();
    const auto n = (now - loop.tSlotsCounted) / period;
    if (n <= 0)
        return;
    m_alarmDispatcher.slots_elapsed(static_cast<uint32_t>(n));
    loop.tSlotsCounted += n * period;
}

void qv_playout_core::enter_down(loop_state& loop, const std::string& strWhy)
{
    if (!loop.bDown)
        g_print("qvjtrenderer: output device lost (%s); retrying until it is back\n", strWhy.c_str());
    loop.bDown = true;
    loop.bNodeMissing = false;
    loop.strLastError = strWhy;
    m_bOutputDown = true;
    m_alarmDispatcher.set_output_down(true);
}

void qv_playout_core::restart_playout(loop_state& loop, const char* pReason, bool bDeviceFault)
{
    if (m_callbacks.restarted)
        m_callbacks.restarted(pReason);
    m_alarmDispatcher.restart_event();
    {
        std::lock_guard<std::mutex> lock(m_statistics.m_cs);
        ++m_statistics.m_nFifoResetCount;
        m_statistics.nSeqFromDevice = 0;
    }
    m_state = qv_stop_state;
    loop.bStarted = false;
    loop.bSeqBase = false;
    loop.nQueued = 0;
    loop.bFailing = false;
    loop.bDraining = false;
    loop.bHolding = false;
    loop.metadata = qv_frame_ancillary{};

    const auto now = steady::now();
    if (bDeviceFault && now - loop.tLastOpen < k_reopen_interval) {
        // It failed again right after being reopened: reopening at once would
        // only repeat that many times a second.
        close_devices();
        enter_down(loop, pReason);
        return;
    }
    loop.tLastOpen = now;
    if (!reset())
        enter_down(loop, "it could not be reopened");
}

void qv_playout_core::try_recover(loop_state& loop)
{
    if (!node_present(m_cfg.strV4l2Name)) {
        loop.bNodeMissing = true;
        return;
    }
    // A node that just came back is opened at once; one that is there but
    // refused is retried after the back-off.
    const auto now = steady::now();
    if (!loop.bNodeMissing && now - loop.tLastOpen < k_reopen_interval)
        return;
    loop.bNodeMissing = false;
    loop.tLastOpen = now;

    std::string strError;
    {
        std::lock_guard<std::recursive_mutex> lock(m_cs);
        close_devices();
        // What came in while there was no device would only delay the return.
        m_fifo.reset();
        m_ancillary.clear();
        m_time_starter.reset();
        m_pacer.restart();
        if (!open_devices(strError)) {
            if (strError != loop.strLastError)
                g_print("qvjtrenderer: output device still unavailable: %s\n", strError.c_str());
            loop.strLastError = strError;
            return;
        }
    }
    g_print("qvjtrenderer: output device back\n");
    loop.bDown = false;
    loop.strLastError.clear();
    m_bOutputDown = false;
    m_alarmDispatcher.set_output_down(false);
}

bool qv_playout_core::hwlock_due(loop_state& loop, uint32_t nSeq) const
{
    // A device restarted numbers its frames afresh: count from there.
    if (!loop.bLockSeq || nSeq < loop.nLockSeq) {
        loop.bLockSeq = true;
        loop.nLockSeq = nSeq;
        return false;
    }
    if (static_cast<double>(nSeq - loop.nLockSeq) * 1e9 / m_fFps <= k_hwlock_interval_ns)
        return false;
    loop.nLockSeq = nSeq;
    return true;
}

bool qv_playout_core::sound_prerolled(loop_state& loop)
{
    // Input that is not live pre-rolls its sound as well as its pictures: a
    // file's first samples must not come after their frame went out. A
    // linked line that brings nothing for two seconds more does not keep the
    // pictures off air.
    const auto now = steady::now();
    if (loop.tSoundWait == steady::time_point{})
        loop.tSoundWait = now;
    if (now - loop.tSoundWait > std::chrono::seconds(2))
        return true;
    const int64_t nFirst = m_fifo.first_queued_frame();
    if (nFirst < 0)
        return true;
    if (!m_callbacks.awaited_audio_lines)
        return true;
    for (const unsigned nLine : m_callbacks.awaited_audio_lines())
        if (!m_fifo.audio_line_covers(nLine, static_cast<uint64_t>(nFirst) + 2))
            return false;
    return true;
}

bool qv_playout_core::preroll_done(loop_state& loop)
{
    // Half-flushed queues hold old and new positions side by side.
    if (m_bFlushing)
        return false;
    const bool bEmpty = m_fifo.first_queued_frame() < 0;
    if (m_bEos && !m_bEosPosted && bEmpty) {
        // The stream ended with nothing (more) to play.
        finish_eos(loop);
        return false;
    }
    const uint32_t nBuffered = m_fifo.buffered_ms();
    // At the end of a stream there is no more to wait for: play what is there.
    if (nBuffered < m_nLatency && !(m_bEos && !m_bEosPosted)) {
        // A live source's sound that runs ahead of its pictures is trimmed to
        // the latency. Paced input is bounded by the pacer instead, and
        // trimming it would move the read position past the first frame's
        // samples, which then go out as silence.
        if (!m_bPacedInput)
            m_fifo.check_audio_fifo_fullness(m_nLatency);
        return false;
    }
    if (m_bPacedInput && !sound_prerolled(loop))
        return false;
    loop.tSoundWait = {};
    const int64_t s = m_fifo.start();
    loop.nStartIndex = s < 0 ? 0 : static_cast<uint32_t>(s);
    loop.bSeqBase = false;
    return true;
}

bool qv_playout_core::acquire_buffer(loop_state& loop, uint32_t& nSeq)
{
    qv_v4l2_base_output_device& dev = loop.bComplex ? static_cast<qv_v4l2_base_output_device&>(m_mpln_device)
                                                 : static_cast<qv_v4l2_base_output_device&>(m_video_device);
    const bool bOk = loop.bComplex ? m_mpln_device.can_render(nSeq) : m_video_device.map_image(nSeq, loop.deviceImage);
    if (bOk) {
        loop.bFailing = false;
        return true;
    }
    // A bounded wait that ran out is no fault: the board simply has not sent
    // a frame yet (a stalled clock, or a test that steps it).
    if (dev.timed_out())
        return false;
    if (!loop.bFailing)
        g_print(loop.bComplex ? "qv_jt_renderer: device is not ready for next frame\n"
                           : "qv_jt_renderer: can't map buffer from device\n");
    loop.bFailing = true;
    return false;
}

int qv_playout_core::fetch_frame(loop_state& loop, uint32_t nIndex)
{
    if (m_cfg.bUseVBI) {
        loop.vbiBytes.clear();
        loop.timecode = qv_timecode{};
        return m_fifo.map_next_data_vbi(nIndex, loop.image, loop.sound, loop.vbiBytes, &loop.timecode);
    }
    loop.teletext.clear();
    loop.scte104.clear();
    return m_fifo.map_next_data(nIndex, loop.image, loop.sound, loop.teletext, loop.scte104);
}

void qv_playout_core::take_metadata(loop_state& loop)
{
    int64_t nShown = 0;
    if (!m_fifo.shown_frame(nShown))
        return;
    std::string strWhy;
    const auto taken = m_ancillary.take(nShown, m_cc_queue, loop.metadata, strWhy);
    if (taken.nBad > 0 && !loop.bBadCaptions) {
        g_print("qv_jt_renderer: caption metadata dropped (%s); the pictures go on, further malformed captions "
                "are dropped silently until good ones come\n",
                strWhy.c_str());
        if (m_callbacks.caption_warning)
            m_callbacks.caption_warning(strWhy);
    }
    if (taken.nBad > 0)
        loop.bBadCaptions = true;
    else if (taken.nBlocks > 0)
        loop.bBadCaptions = false;
}

// The time code of the frame: the VBI pad's, else the picture's own.
const qv_timecode* qv_playout_core::frame_timecode(loop_state& loop)
{
    if (m_cfg.bUseVBI && loop.timecode.bValid)
        return &loop.timecode;
    if (!loop.metadata.timecode.bValid)
        return nullptr;
    std::lock_guard<std::mutex> lock(m_statistics.m_cs);
    m_statistics.m_vbi.strTimecode = loop.metadata.strTimecode;
    return &loop.metadata.timecode;
}

void qv_playout_core::write_data_lines(loop_state& loop)
{
    if (!loop.vbi.m_bValid)
        return;
    if (!loop.teletext.empty())
        write_teletext_to_vbi(loop.teletext, loop.vbi);
    if (!loop.scte104.empty() && !m_linesSCTE104.empty())
        write_scte104_to_vbi(loop.scte104, loop.vbi);
    write_metadata_to_vbi(loop.metadata, loop.vbi);
}

bool qv_playout_core::output_frame(loop_state& loop)
{
    const qv_timecode* pTimecode = frame_timecode(loop);
    if (loop.bComplex) {
        if (m_cfg.bUseVBI) {
            m_mpln_device.push_vbi(loop.vbiBytes.data(), loop.vbiBytes.size());
        } else {
            clear_vbi_area(loop.vbi);
            m_mpln_device.init_vbi(loop.vbi);
            write_data_lines(loop);
            m_mpln_device.finish_vbi(loop.vbi);
        }
        if (pTimecode)
            m_mpln_device.set_timecode(*pTimecode);
        m_mpln_device.push_audio(loop.sound);
        m_mpln_device.push_image(loop.image);
        return m_mpln_device.send_data();
    }

    loop.image.copyTo(loop.deviceImage);
    if (m_video_device.is_vbi_open()) {
        clear_vbi_area(loop.vbi);
        if (m_cfg.bUseVBI) {
            if (m_video_device.map_vbi(loop.vbi))
                write_vbi_to_vbi(loop.vbiBytes, loop.vbi);
        } else {
            if (!m_video_device.map_vbi(loop.vbi))
                g_print("qv_jt_renderer: can't map vbi buffer from device\n");
            write_data_lines(loop);
        }
        m_video_device.unmap_vbi();
    }
    if (pTimecode)
        m_video_device.set_timecode(*pTimecode);
    return m_video_device.unmap_image();
}

void qv_playout_core::start_device_when_primed(loop_state& loop)
{
    if (m_state != qv_stop_state)
        return;
    // Streaming starts with the first frame queued; the rest of the ring is
    // lent buffers that the next passes fill at once, long before the board's
    // second slot.
    if (loop.nQueued == 0)
        return;
    g_print("qvjtrenderer: start device\n");
    if (loop.bComplex) {
        // A failed start shows in the next buffer requests, which restart the device.
        if (m_mpln_device.is_open() && !m_mpln_device.start_device())
            g_print("qv_jt_renderer: can't start video device\n");
    } else {
        if (m_audio_device.is_open())
            m_audio_device.start_device();
        if (m_video_device.is_open())
            m_video_device.start_device();
    }
    m_state = qv_run_state;
}

void qv_playout_core::finish_eos(loop_state& loop)
{
    loop.bDraining = false;
    loop.bHolding = false;
    m_bEosPosted = true;
    g_print("qvjtrenderer: end of stream\n");
    if (m_callbacks.end_of_stream)
        m_callbacks.end_of_stream();
    // Back to waiting for input, with the device stopped rather than underrunning.
    m_state = qv_stop_state;
    loop.bStarted = false;
    loop.bSeqBase = false;
    loop.nQueued = 0;
    loop.metadata = qv_frame_ancillary{};
    loop.tLastOpen = steady::now();
    if (!reset())
        enter_down(loop, "it could not be reopened");
}

void qv_playout_core::hold_frame(loop_state& loop)
{
    // loop.image is still the picture that went out last.
    m_fifo.map_silence(loop.nHeld++, loop.sound);
    loop.teletext.clear();
    loop.scte104.clear();
    loop.vbiBytes.clear();
    loop.timecode = qv_timecode{};
    loop.metadata = qv_frame_ancillary{};
}

bool qv_playout_core::next_frame(loop_state& loop, uint32_t nSeq)
{
    // The device numbers its frames its own way (from 0 or from 1, lent
    // buffers included): only the distance from the first one counts.
    if (!loop.bSeqBase) {
        loop.bSeqBase = true;
        loop.nSeqBase = nSeq;
    }
    uint32_t nIndex = loop.nStartIndex + (nSeq - loop.nSeqBase);

    if (loop.bComplex && m_bUseHWLock && hwlock_due(loop, nSeq)) {
        loop.bLocked = tryHWLock(nIndex, loop.nHWCorrection);
    }
    if (loop.bComplex && loop.bLocked && loop.nHWCorrection != 0) {
        if (loop.nHWCorrection < 0 && static_cast<uint32_t>(-static_cast<int64_t>(loop.nHWCorrection)) >= nIndex)
            nIndex = 0;
        else
            nIndex = static_cast<uint32_t>(static_cast<int64_t>(nIndex) + loop.nHWCorrection);
    }

    // A flush of the pictures came while this pass waited for its buffer.
    if (m_bRebase || fetch_frame(loop, nIndex) != 0) {
        const bool bFlushed = m_bRebase || m_bFlushing;
        // The queue ran dry because of the flush or the end, not for want of input.
        if (bFlushed || (m_bEos && !m_bEosPosted))
            m_fifo.clear_state();
        if (bFlushed) {
            // The pictures were flushed under this pass: hold what is on air.
            loop.bHolding = true;
            loop.bStarted = false;
            hold_frame(loop);
            return true;
        }
        if (m_bEos && !m_bEosPosted) {
            // Everything queued has been handed over. The buffer just taken
            // came back from the board; the rest of the ring still carries
            // frames, the last of them the stream's last.
            loop.bDraining = true;
            loop.nDrainLeft = std::max(ring_frames(loop.bComplex), 1u) - 1;
            hold_frame(loop);
            return true;
        }
        restart_playout(loop, "a FIFO underflow", false);
        return false;
    }
    m_pacer.output_at(nIndex);
    take_metadata(loop);
    return true;
}

void qv_playout_core::render_loop(std::future<void>& exit, bool bComplex)
{
    loop_state loop(bComplex);
    const bool bNoBoard = m_cfg.strV4l2Name.empty();
    qv_v4l2_base_output_device& dev = bComplex ? static_cast<qv_v4l2_base_output_device&>(m_mpln_device)
                                               : static_cast<qv_v4l2_base_output_device&>(m_video_device);

    for (;;) {
        // While frames flow, the wait for a device buffer paces the loop and a
        // pause here would cost a wake-up and a millisecond of margin a frame;
        // passes that did not reach the device (pre-roll, a refused buffer)
        // pause, so that they do not spin.
        const bool bIdle = loop.bDown || bNoBoard;
        const auto pause = bIdle ? std::chrono::milliseconds(k_idle_wait)
                                 : std::chrono::milliseconds(loop.bPaced ? 0 : 1);
        loop.bPaced = false;
        if (exit.wait_for(pause) == std::future_status::ready)
            break;
        const auto now = steady::now();
        {
            std::lock_guard<std::mutex> lock(m_statistics.m_cs);
            m_statistics.m_nSystemTime =
                static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(now - loop.tStart).count());
        }
        if (bNoBoard) {
            // Nothing to play to: the inputs are still watched.
            account_idle_slots(loop);
            continue;
        }
        if (loop.bDown) {
            account_idle_slots(loop);
            try_recover(loop);
            continue;
        }
        if (loop.bDraining && loop.nDrainLeft == 0) {
            finish_eos(loop);
            continue;
        }
        if (m_bRebase.exchange(false)) {
            // A flush: once the board runs, it goes on with the picture on
            // air; before that there is nothing to hold.
            if (!loop.bHolding)
                g_print("qvjtrenderer: flush: %s until the new position has pre-rolled\n",
                        m_state == qv_run_state ? "holding the picture on air" : "waiting");
            loop.bHolding = m_state == qv_run_state;
            loop.nHeld = 0;
            loop.bStarted = false;
            loop.bSeqBase = false;
            loop.bDraining = false;
        }
        if (m_bFlush.exchange(false)) {
            loop.bHolding = false;
            loop.tLastOpen = now;
            m_state = qv_stop_state;
            loop.bStarted = false;
            loop.nQueued = 0;
            loop.metadata = qv_frame_ancillary{};
            if (!reset())
                enter_down(loop, "it could not be reopened");
            continue;
        }
        if (const qv_fifo_state eState = m_fifo.state(); eState != fifo_ok) {
            restart_playout(loop, eState == fifo_underflow ? "a FIFO underflow" : "a FIFO overflow", false);
            continue;
        }
        if (!loop.bStarted) {
            account_idle_slots(loop);
            if (preroll_done(loop))
                loop.bHolding = false;
            else if (!loop.bHolding)
                continue;
        }
        uint32_t nSeq = 0;
        if (!acquire_buffer(loop, nSeq)) {
            loop.bStarted = !loop.bHolding;
            account_idle_slots(loop);
            if (dev.needs_restart() || !dev.is_open())
                restart_playout(loop, "an output device failure", true);
            continue;
        }
        loop.bStarted = !loop.bHolding;
        loop.bPaced = true;
        if (loop.bDraining) {
            --loop.nDrainLeft;
            hold_frame(loop);
        } else if (loop.bHolding) {
            hold_frame(loop);
        } else if (!next_frame(loop, nSeq)) {
            continue;
        }
        if (!output_frame(loop)) {
            if (dev.needs_restart())
                restart_playout(loop, "an output device failure", true);
            continue;
        }
        m_alarmDispatcher.frame_event();
        loop.tSlotsCounted = steady::now();
        ++loop.nQueued;

        if (!bComplex && m_audio_device.is_open() && !m_audio_device.write(loop.sound)) {
            restart_playout(loop, "an ALSA write failure", true);
            continue;
        }
        start_device_when_primed(loop);
        if (m_state == qv_run_state && ++loop.nSinceWatchdog >= watchdog_period_frames(m_fFps)) {
            loop.nSinceWatchdog = 0;
            dev.check_watchdog();
        }
    }

    std::lock_guard<std::recursive_mutex> lock(m_cs);
    if (bComplex) {
        if (m_mpln_device.is_open())
            m_mpln_device.stop_device();
    } else {
        if (m_video_device.is_open())
            m_video_device.stop_device();
        if (m_audio_device.is_open())
            m_audio_device.stop_device();
    }
    g_print("qv_jt_renderer: stop renderer thread\n");
    m_state = qv_stop_state;
}

// The parts the renderer lends the play-out core, owned here instead, with
// the core's loop on a thread of its own and a stepped simulated board under
// it. The test adds input straight to the FIFO engine (stamps already
// relative, as the time starter would make them) and steps the board.
#pragma once

#include "device_harness.h"
#include "qv_fifo_engine.h"
#include "qv_playout_core.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <future>
#include <thread>

namespace playout_test {

class rig {
public:
    // nMode: row of the board table; alsa: ALSA device beside a single-plane board.
    rig(qvboardsim::NodeKind kind, uint32_t nMode, const std::string& alsa = {})
        : board(kind, static_cast<int>(nMode), false),
          core(parts(), callbacks())
    {
        cfg.strV4l2Name = board.path;
        cfg.strAlsaName = alsa;
        cfg.nMode = nMode;
        cfg.nAudioLines = 1;
        cfg.bMultiPlane = kind == qvboardsim::NodeKind::multi_plane;
        row = qv_board_format(static_cast<qv_v4l2_enum_sdi_mode>(nMode));
        fps = row.fps;
        nHWFrameStep = static_cast<int32_t>(148500000.0 / fps + 0.499);
        m_ancLine.assign(static_cast<size_t>(row.width) * 2, 0);
        bAncSD = !row.isHD;
        fifo.m_bUsePLL = false;
    }
    ~rig() { stop(); }

    // Sets the FIFOs up as the renderer does at open; the devices are opened
    // too unless the test wants the loop to find them closed.
    void open(bool bDevices = true)
    {
        std::string strError;
        if (bDevices) {
            ASSERT_TRUE(core.open_devices(strError)) << strError;
        }
        if (mpln_device.is_open())
            sound_format = mpln_device.get_sound_format();
        else if (audio_device.is_open())
            sound_format = audio_device.get_format();
        const QVSDK::QVSize size(row.width, row.height);
        ASSERT_TRUE(fifo.create_video_stream(fps, QVSDK::FORMAT_UYVY, size, QVSDK::QVFieldOrder(0)));
        ASSERT_TRUE(fifo.create_sound_stream(1, sound_format));
        ASSERT_TRUE(fifo.create_teletext_stream(fps) && fifo.create_scte104_stream(fps) &&
                    fifo.create_vbi_stream(fps));
        ASSERT_TRUE(fifo.alloc_fifo(static_cast<size_t>(std::ceil(fps * 4))));
        cc_queue.init(fps);
    }
    void start(bool bComplex)
    {
        m_exit = std::promise<void>();
        m_thread = std::thread([this, bComplex, f = m_exit.get_future()]() mutable { core.render_loop(f, bComplex); });
    }
    void stop()
    {
        if (!m_thread.joinable())
            return;
        m_exit.set_value();
        m_thread.join();
    }

    // Input frame n (picture and sound), stamped n frames from the origin.
    void add_frame(uint64_t n)
    {
        const uint64_t hwTime = input_hw ? input_hw(n) : 0;
        const auto period = static_cast<uint64_t>(1e9 / fps);
        if (!m_image.data(0) || m_image.width() != row.width) {
            m_image = QVSDK::QVImage(row.width, row.height, QVSDK::FieldOrder_Upper_First, QVSDK::FORMAT_UYVY);
            const size_t nSamples = static_cast<size_t>(std::lround(48000 / fps));
            m_sound.init(nSamples * sound_format.m_block_align, sound_format);
        }
        std::memset(m_image.data(0), static_cast<int>(n & 0xFF), static_cast<size_t>(m_image.stride(0)) * row.height);
        // Stamped as the renderer stamps: relative to the first since the last
        // reset, which must not come between the stamp and the add.
        std::lock_guard<std::recursive_mutex> lock(cs);
        const auto [e, st, bValid] =
            time_starter.set_time_stamp(static_cast<long>(n * period), static_cast<long>((n + 1) * period));
        if (!bValid)
            return;
        const auto start = static_cast<uint64_t>(st), stop = static_cast<uint64_t>(e);
        fifo.add_video_frame(start, stop, start, 0, m_image, static_cast<unsigned long>(hwTime));
        fifo.add_audio_frame(0, start, stop, 0, m_sound);
    }

    // Lets the board's slots go by, one at a time, until pred holds or n
    // slots have passed, each slot once the loop has had the chance to fill
    // it. When feed is set, the FIFO is kept `ahead` frames beyond the
    // latency. Returns pred().
    bool step_until(const std::function<bool()>& pred, unsigned n, bool feed = true, unsigned ahead = 4)
    {
        for (unsigned i = 0; i < n && !pred(); ++i) {
            if (feed)
                while (fifo.buffered_ms() < (ahead + latency_frames()) * 1000 / fps)
                    add_frame(m_nNextInput++);
            settle();
            board.sim().step(board.path, slots_per_frame());
        }
        settle();
        return pred();
    }
    // Waits (bounded by passes, not by time) until the loop has queued what it
    // can for the next slot. A board that does not stream yet takes no slot,
    // however much is queued (a multi-plane board starts once the loop has
    // primed all its buffers): the wait then lasts until it streams, so that
    // a slow loop never sees its slots pass by unused.
    void settle() const
    {
        for (int i = 0; i < 200; ++i) {
            if (board.sim().streaming(board.path) && board.sim().queued(board.path) >= 2)
                return;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    uint64_t sent() const { return board.sim().frames_sent(board.path); }
    uint64_t inputs() const { return m_nNextInput; } // input frames added so far
    uint64_t restarts()
    {
        std::lock_guard<std::mutex> lock(statistics.m_cs);
        return statistics.m_nFifoResetCount;
    }
    unsigned slots_per_frame() const { return cfg.bMultiPlane && !row.isProgressive ? 2 : 1; }
    uint64_t latency_frames() const { return static_cast<uint64_t>(std::ceil(nLatency * fps / 1000.0)); }

    devtest::sim_board board;
    qv_v4l2_video_format row{};
    QVSDK::QVSoundFormat sound_format{0, 48000, 16, 2};

    std::recursive_mutex cs;
    qv_renderer_statistics statistics;
    qv_alarms_dispatcher alarms;
    qv_v4l2_output_device video_device{statistics};
    qv_alsa_output_device audio_device;
    qv_mpln_output_device mpln_device{statistics};
    qv_fifo_engine fifo{statistics, alarms};
    std::atomic<qv_renderer_state> state{qv_stop_state};
    qv_board_config cfg;
    uint32_t nLatency = 80;
    uint32_t nBufferCapacity = 5000;
    bool bUseHWLock = false;
    int32_t nHWFrameStep = 0;
    float fps = 25.0f;
    int32_t nDebugDiffHW = 0;
    std::vector<uint32_t> linesSCTE104;
    qv_vanc_scte104_encoder scte104_encoder;
    qv_vanc_teletext_encoder teletext_encoder;
    qv_time_starter time_starter;
    qv_input_pacer pacer;
    qv_frame_ancillary_queue ancillary;
    qv_cc_queue cc_queue;
    qv_cc_counters ccReported;
    uint32_t nCaptionRow = qv_playout_core::k_no_row;
    uint32_t nAfdRow = qv_playout_core::k_no_row;
    bool bAncSD = true;
    std::vector<uint8_t> m_ancLine;
    std::atomic<bool> bOutputDown{false}, bEos{false}, bEosPosted{false}, bFlush{false}, bFlushing{false},
        bRebase{false}, bPacedInput{false};

    // The board's hardware time at which input frame n arrived; none when empty.
    std::function<uint32_t(uint64_t n)> input_hw;

    // What the core reported.
    std::atomic<int> nEosPosted{0};
    std::vector<std::string> restartReasons; // render thread only until stop()

    qv_playout_core core;

private:
    qv_playout_parts parts()
    {
        return {cs,         statistics,     alarms,          video_device,    audio_device, mpln_device,
                fifo,       state,          cfg,             nLatency,        nBufferCapacity, bUseHWLock,
                nHWFrameStep, fps,          nDebugDiffHW,    linesSCTE104,    scte104_encoder, teletext_encoder,
                time_starter, pacer,        ancillary,       cc_queue,        ccReported,   nCaptionRow,
                nAfdRow,    bAncSD,         m_ancLine,       bOutputDown,     bEos,         bEosPosted,
                bFlush,     bFlushing,  bRebase,    bPacedInput};
    }
    qv_playout_callbacks callbacks()
    {
        qv_playout_callbacks c;
        c.end_of_stream = [this] { ++nEosPosted; };
        c.restarted = [this](const char* pReason) { restartReasons.emplace_back(pReason); };
        return c;
    }

    QVSDK::QVImage m_image;
    QVSDK::QVSound m_sound;
    uint64_t m_nNextInput = 0;
    std::promise<void> m_exit;
    std::thread m_thread;
};

} // namespace playout_test

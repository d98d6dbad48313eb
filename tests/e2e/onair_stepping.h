// Lock-step play-out on a stepped board: the board moves one frame only once
// the render loop has refilled its whole ring, so no slot goes by empty and
// every frame the loop prepared goes out. What went out is handed over in
// small batches, so that long runs at big rasters keep little in memory.
#pragma once

#include "e2e_fixture.h"

#include "qv_v4l2_common.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <functional>
#include <string>
#include <thread>

class OnAirTest : public PlayoutTest {
public:
    static int frame_of(const qvboardsim::CapturedFrame& f) { return f.picture.size() > 1 ? f.picture[1] - 16 : -1; }

protected:
    // summary: the board keeps only headers and checksums of what went out.
    void make_onair(qvboardsim::NodeKind kind, int mode, unsigned hwBuffers = 4, bool summary = false)
    {
        make(kind, mode, 0, qvboardsim::Pacing::stepped);
        if (summary) {
            qvboardsim::BoardConfig board;
            board.kind = kind;
            board.video_path = m_strPath;
            board.mode = mode;
            board.pacing = qvboardsim::Pacing::stepped;
            board.capture.memory = true;
            board.capture.memory_limit = 4096;
            board.capture.summary = true;
            qvboardsim::Simulator::instance().configure({board});
        }
        g_object_set(m_pElement, "hw-buffers", gulong(hwBuffers), nullptr);
        m_row = qv_board_format(static_cast<qv_v4l2_enum_sdi_mode>(mode));
        const bool bFields = kind == qvboardsim::NodeKind::multi_plane && !m_row.isProgressive;
        const unsigned nFrames = kind == qvboardsim::NodeKind::multi_plane ? std::max(hwBuffers, 3u) : hwBuffers;
        m_nRing = bFields ? 2 * nFrames : nFrames;
        m_nSlots = bFields ? 2 : 1;
    }

    std::string video_caps() const
    {
        const double fps = m_row.fps;
        const long whole = std::lround(fps);
        const std::string rate = std::fabs(fps - whole) > 0.01 ? std::to_string(whole * 1000) + "/1001"
                                                                : std::to_string(whole) + "/1";
        return "video/x-raw,format=UYVY,width=" + std::to_string(m_row.width) +
               ",height=" + std::to_string(m_row.height) + ",framerate=" + rate +
               ",pixel-aspect-ratio=1/1,interlace-mode=" + (m_row.isProgressive ? "progressive" : "interleaved");
    }

    GstClockTime frame_ns() const { return static_cast<GstClockTime>(std::llround(1e9 / m_row.fps)); }

    // Video frame i: flat picture whose luma tags it, DTS = PTS as capture sources set it.
    GstBuffer* tagged_frame(int i) const
    {
        GstBuffer* b = flat_uyvy(m_row.width, m_row.height, tag_of(i), i * frame_ns(), frame_ns());
        GST_BUFFER_DTS(b) = GST_BUFFER_PTS(b);
        return b;
    }
    static uint8_t tag_of(int i) { return static_cast<uint8_t>(16 + i % 200); }

    // One frame on: waits (bounded) until the loop has queued its whole ring.
    bool step_frame(int timeout_ms = 5000)
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        while (qvboardsim::Simulator::instance().queued(m_strPath) < m_nRing) {
            if (std::chrono::steady_clock::now() > end)
                return false;
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        step(m_nSlots);
        return true;
    }

    // Plays frames 0..n-1: push(i) feeds frame i's buffers `lead` frames before
    // the board steps for it; each batch of what went out goes to seen(). Ends
    // when the loop has sent everything it had.
    void run(int n, const std::function<void(int)>& push,
             const std::function<void(const qvboardsim::CapturedFrame&)>& seen)
    {
        const int lead = static_cast<int>(std::ceil(m_nLatencyMs / 1000.0 * m_row.fps)) + 6; // latency plus margin
        for (int i = 0; i < std::min(lead, n); ++i)
            push(i);
        for (int i = lead; i < n + lead; ++i) {
            if (i < n)
                push(i);
            if (!step_frame(i < n ? 5000 : 500))
                break;
            if (i % 8 == 0)
                drain(seen);
        }
        stop();
        drain(seen);
    }

    void drain(const std::function<void(const qvboardsim::CapturedFrame&)>& seen)
    {
        auto& sim = qvboardsim::Simulator::instance();
        for (const auto& f : sim.captured(m_strPath))
            seen(f);
        sim.clear_captured(m_strPath);
    }

    qv_v4l2_video_format m_row{};
    unsigned m_nLatencyMs = 200; // as the fixture sets it
    unsigned m_nRing = 0;
    unsigned m_nSlots = 1;
};

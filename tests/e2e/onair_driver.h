// Drives one element through a stepped simulated board, so that what went out
// does not depend on the machine's speed: either one input frame then one
// output frame (push_frame/pump), or lock-step with a lead of input frames
// (run), handing what went out over in small batches.
#pragma once

#include "e2e_fixture.h"
#include "qv_alarm_manager.h"
#include "qv_v4l2_common.h"
#include "../common/print_capture.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// Records every raise and clear, and lets a short silence raise the "no ..." alarms.
class AlarmRecorder : public qv_alarm_manager {
public:
    explicit AlarmRecorder(uint32_t nSilence) : m_nSilence(nSilence) {}
    void raise_alarm(const qv_alarm_event& ev) override { note(ev); }
    void clear_alarm(const qv_alarm_event& ev) override { note(ev); }
    uint32_t silence_frames() const override { return m_nSilence; }

    bool raised(const std::string& name) const
    {
        std::lock_guard<std::mutex> lock(m_cs);
        const auto it = m_state.find(name);
        return it != m_state.end() && it->second;
    }
    int raises(const std::string& name) const
    {
        std::lock_guard<std::mutex> lock(m_cs);
        const auto it = m_raises.find(name);
        return it == m_raises.end() ? 0 : it->second;
    }

private:
    void note(const qv_alarm_event& ev)
    {
        std::lock_guard<std::mutex> lock(m_cs);
        m_state[ev.strAlarm] = ev.bRaise;
        if (ev.bRaise)
            ++m_raises[ev.strAlarm];
    }
    const uint32_t m_nSilence;
    mutable std::mutex m_cs;
    std::map<std::string, bool> m_state;
    std::map<std::string, int> m_raises;
};

class OnAirTest : public PlayoutTest {
public:
    static int frame_of(const qvboardsim::CapturedFrame& f) { return f.picture.size() > 1 ? f.picture[1] - 16 : -1; }

protected:
    // summary: the board keeps only headers and checksums of what went out.
    void make_onair(qvboardsim::NodeKind kind, int mode, unsigned hwBuffers = 4, bool summary = false)
    {
        make(kind, mode, 0, qvboardsim::Pacing::stepped);
        if (summary)
            configure_board(m_strPath, kind, mode, qvboardsim::Pacing::stepped, true);
        g_object_set(m_pElement, "hw-buffers", gulong(hwBuffers), nullptr);
        use_row(kind, mode);
        const unsigned nFrames = kind == qvboardsim::NodeKind::multi_plane ? std::max(hwBuffers, 3u) : hwBuffers;
        m_nRing = m_nSlots * nFrames;
    }

    // 576i25 with the element's own ring, fed through m_video; configure sets
    // properties before the harness takes the element to PLAYING.
    void make_sd(qvboardsim::NodeKind kind, unsigned audioLines = 0, const std::function<void()>& configure = {})
    {
        make(kind, 0, audioLines, qvboardsim::Pacing::stepped);
        if (configure)
            configure();
        use_row(kind, 0);
        m_video = harness("sink_video", video_caps().c_str());
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
    static uint8_t tag_of(int i) { return static_cast<uint8_t>(16 + i % 200); }

    // Video frame i: flat picture whose luma tags it, DTS = PTS as capture sources set it.
    GstBuffer* tagged_frame(int i) const
    {
        GstBuffer* b = flat_uyvy(m_row.width, m_row.height, tag_of(i), i * frame_ns(), frame_ns());
        GST_BUFFER_DTS(b) = GST_BUFFER_PTS(b);
        return b;
    }

    // The next input frame on m_video, without a DTS as decoders send it.
    void push_frame()
    {
        const GstClockTime t = frame_ns();
        EXPECT_EQ(gst_harness_push(m_video, flat_uyvy(m_row.width, m_row.height, tag_of(m_nNext), m_nNext * t, t)),
                  GST_FLOW_OK);
        ++m_nNext;
    }

    // One frame's slots; a short wait so that pre-roll passes in wall time.
    bool pump(int wait_ms = 100) { return PlayoutTest::pump(m_nSlots, wait_ms); }

    uint64_t sent() { return qvboardsim::Simulator::instance().frames_sent(m_strPath) / m_nSlots; }

    // Pushes and pumps until n more output frames went out (bounded); returns
    // how many input frames that took.
    int play_until_sent(uint64_t n, int max_inputs = 200)
    {
        const uint64_t target = sent() + n;
        int inputs = 0;
        for (; sent() < target && inputs < max_inputs; ++inputs) {
            push_frame();
            pump();
        }
        return inputs;
    }

    // Input frame numbers as they went out, one per output frame.
    std::vector<int> shown()
    {
        std::vector<int> v;
        const auto frames = captured();
        for (size_t i = 0; i < frames.size(); i += m_nSlots)
            if (frames[i].picture.size() > 1)
                v.push_back(frame_of(frames[i]));
        return v;
    }

    qv_renderer* renderer() { return reinterpret_cast<Gstqvjtrenderer*>(m_pElement)->pRenderer; }

    // How long the application waits for the element to stop.
    std::chrono::milliseconds time_to_stop()
    {
        const auto t0 = std::chrono::steady_clock::now();
        gst_element_set_state(m_pElement, GST_STATE_NULL);
        return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0);
    }

    // Installed on the element; lives until after TearDown has stopped it.
    AlarmRecorder& install_alarms(uint32_t nSilence)
    {
        m_alarms = std::make_unique<AlarmRecorder>(nSilence);
        g_object_set(m_pElement, "alarm-manager", static_cast<qv_alarm_manager*>(m_alarms.get()), nullptr);
        return *m_alarms;
    }

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
    std::unique_ptr<AlarmRecorder> m_alarms;
    GstHarness* m_video = nullptr;
    int m_nNext = 0;

private:
    // Interlaced frames go out on the multi-plane board as two fields, one a slot.
    void use_row(qvboardsim::NodeKind kind, int mode)
    {
        m_row = qv_board_format(static_cast<qv_v4l2_enum_sdi_mode>(mode));
        m_nSlots = kind == qvboardsim::NodeKind::multi_plane && !m_row.isProgressive ? 2 : 1;
    }
};

// Drives one element through the simulated board at a live pace that does not
// depend on the machine: one input frame in, then one output frame slot, taken
// only once the render thread has a buffer queued for it.
#pragma once

#include "e2e_fixture.h"
#include "qv_alarm_manager.h"
#include "../common/print_capture.h"

#include <algorithm>
#include <chrono>
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

class FaultDriverTest : public PlayoutTest {
protected:
    // 576i25 on either board kind; the multi-plane board takes it as two fields a frame.
    // configure sets properties before the first harness takes the element to PLAYING.
    void make_sd(qvboardsim::NodeKind kind, unsigned audioLines = 0, const std::function<void()>& configure = {})
    {
        make(kind, 0, audioLines, qvboardsim::Pacing::stepped);
        if (configure)
            configure();
        m_nSlots = kind == qvboardsim::NodeKind::multi_plane ? 2 : 1;
        m_video = harness("sink_video", "video/x-raw,format=UYVY,width=720,height=576,framerate=25/1,"
                                        "pixel-aspect-ratio=1/1,interlace-mode=interleaved");
    }

    // Input frame n carries luma 16 + n % 200 everywhere.
    void push_frame()
    {
        const GstClockTime t = GST_SECOND / 25;
        const auto n = static_cast<GstClockTime>(m_nNext);
        EXPECT_EQ(gst_harness_push(m_video, flat_uyvy(720, 576, static_cast<uint8_t>(16 + m_nNext % 200), n * t, t)),
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
        while (sent() < target && inputs < max_inputs) {
            push_frame();
            ++inputs;
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
                v.push_back(frames[i].picture[1] - 16);
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

    std::unique_ptr<AlarmRecorder> m_alarms;
    GstHarness* m_video = nullptr;
    int m_nNext = 0;
    unsigned m_nSlots = 1;
};

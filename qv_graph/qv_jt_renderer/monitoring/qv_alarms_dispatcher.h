// Turns stream conditions into alarms for the application's alarm manager.
//
// Every call is a notification that something happened now: input arrived on
// a stream, an output frame went out, a frame was repeated, the play-out was
// restarted. The dispatcher keeps, per alarm, whether it is raised, and tells
// the manager only about changes. With no manager set, changes go to the
// fallback sink (the element posts them on the GStreamer bus).
#pragma once

#include "qv_alarm_manager.h"

#include <array>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

class qv_alarms_dispatcher {
public:
    using sink_fn = std::function<void(const qv_alarm_event&)>;

    enum alarm_id { al_no_video, al_no_audio, al_no_teletext, al_no_vbi, al_restart, al_repeated, al_count };

    qv_alarms_dispatcher() = default;
    qv_alarms_dispatcher(const qv_alarms_dispatcher&) = delete;
    qv_alarms_dispatcher& operator=(const qv_alarms_dispatcher&) = delete;

    void set_source_name(const std::string& strName);
    std::string get_source_name() const;
    void set_alarm_manager(qv_alarm_manager* pManager);
    // Where changes go when no manager is set.
    void set_fallback_sink(sink_fn fn);
    // Silence threshold used when no manager is set (or for tests).
    void set_silence_frames(uint32_t nFrames);

    // Play-out starts; the flags say which inputs are linked and so watched.
    void start(bool bVideo, bool bAudio, bool bTeletext, bool bVbi);
    // Play-out stops: every raised alarm is cleared.
    void stop();

    // Input arrived on a stream.
    void video_event();
    void audio_event();
    void teletext_event();
    void vbi_event();
    // One output frame went out (render thread, once per frame).
    void frame_event();
    // Output frame slots went by with no frame sent (pre-roll, device lost):
    // inputs go silent whatever the play-out does.
    void slots_elapsed(uint32_t nSlots);
    // The output device is lost (true) or back (false); the restart alarm
    // stays raised while it is lost.
    void set_output_down(bool bDown);
    // The frame about to go out repeats the previous picture (call before its frame_event).
    void repeat_event();
    // The play-out was reset after a FIFO or device failure.
    void restart_event();

    bool is_raised(alarm_id id) const;

private:
    struct watch {
        bool bWatched = false;
        bool bRaised = false;
        uint32_t nSilentFrames = 0;
    };

    // All below guarded by m_cs. Callbacks run under it, so that raises and
    // clears reach the manager in the order the conditions happened.
    mutable std::mutex m_cs;
    std::string m_strSourceName;
    qv_alarm_manager* m_pManager = nullptr;
    sink_fn m_fallback;
    uint32_t m_nSilenceFrames = 25;
    bool m_bRunning = false;
    std::array<watch, al_count> m_watch{};
    uint32_t m_nRepeatRun = 0;      // consecutive repeated frames
    bool m_bRepeatThisFrame = false; // repeat_event seen since the last frame_event
    uint32_t m_nSinceRestart = 0;   // frames since the last restart
    bool m_bOutputDown = false;

    void count_silence_locked(uint32_t nSlots);

    void input_event_locked(alarm_id id);
    void set_locked(alarm_id id, bool bRaise);
    uint32_t silence_frames_locked() const;
};

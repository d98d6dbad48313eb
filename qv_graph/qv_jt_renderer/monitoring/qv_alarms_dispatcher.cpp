#include "qv_alarms_dispatcher.h"

namespace {

struct alarm_desc {
    const char* name;
    const char* text;
};

// Indexed by qv_alarms_dispatcher::alarm_id.
constexpr alarm_desc k_alarms[] = {
    {QV_ALARM_NO_VIDEO, "No video input"},
    {QV_ALARM_NO_AUDIO, "No audio input"},
    {QV_ALARM_NO_TELETEXT, "No teletext input"},
    {QV_ALARM_NO_VBI, "No VBI input"},
    {QV_ALARM_RESTART, "Play-out restarted"},
    {QV_ALARM_REPEATED_FRAMES, "Repeating frames"},
};
static_assert(sizeof(k_alarms) / sizeof(k_alarms[0]) == qv_alarms_dispatcher::al_count, "one text per alarm");

// A restart alarm stays up this many frames sent after the last restart, so
// that a one-off restart is visible and a restart loop stays raised.
constexpr uint32_t k_restart_hold_frames = 25;

// A single repeat is ordinary input jitter; a run of them is a frozen picture.
constexpr uint32_t k_repeat_raise_frames = 3;

} // namespace

void qv_alarms_dispatcher::set_source_name(const std::string& strName)
{
    std::lock_guard<std::mutex> lock(m_cs);
    m_strSourceName = strName;
}

std::string qv_alarms_dispatcher::get_source_name() const
{
    std::lock_guard<std::mutex> lock(m_cs);
    return m_strSourceName;
}

void qv_alarms_dispatcher::set_alarm_manager(qv_alarm_manager* pManager)
{
    std::lock_guard<std::mutex> lock(m_cs);
    m_pManager = pManager;
}

void qv_alarms_dispatcher::set_fallback_sink(sink_fn fn)
{
    std::lock_guard<std::mutex> lock(m_cs);
    m_fallback = std::move(fn);
}

void qv_alarms_dispatcher::set_silence_frames(uint32_t nFrames)
{
    std::lock_guard<std::mutex> lock(m_cs);
    m_nSilenceFrames = nFrames;
}

uint32_t qv_alarms_dispatcher::silence_frames_locked() const
{
    return m_pManager ? m_pManager->silence_frames() : m_nSilenceFrames;
}

void qv_alarms_dispatcher::start(bool bVideo, bool bAudio, bool bTeletext, bool bVbi)
{
    std::lock_guard<std::mutex> lock(m_cs);
    const bool watched[al_count] = {bVideo, bAudio, bTeletext, bVbi, false, false};
    for (int i = 0; i < al_count; ++i) {
        m_watch[i].bWatched = watched[i];
        m_watch[i].nSilentFrames = 0;
    }
    m_nRepeatRun = 0;
    m_bRepeatThisFrame = false;
    m_nSinceRestart = 0;
    m_bOutputDown = false;
    m_bRunning = true;
}

void qv_alarms_dispatcher::stop()
{
    std::lock_guard<std::mutex> lock(m_cs);
    m_bRunning = false;
    for (int i = 0; i < al_count; ++i) {
        set_locked(static_cast<alarm_id>(i), false);
        m_watch[i].bWatched = false;
        m_watch[i].nSilentFrames = 0;
    }
}

void qv_alarms_dispatcher::input_event_locked(alarm_id id)
{
    // A stream linked after play-out started is watched from its first data on.
    if (m_bRunning)
        m_watch[id].bWatched = true;
    m_watch[id].nSilentFrames = 0;
    set_locked(id, false);
}

void qv_alarms_dispatcher::video_event()
{
    std::lock_guard<std::mutex> lock(m_cs);
    input_event_locked(al_no_video);
}

void qv_alarms_dispatcher::audio_event()
{
    std::lock_guard<std::mutex> lock(m_cs);
    input_event_locked(al_no_audio);
}

void qv_alarms_dispatcher::teletext_event()
{
    std::lock_guard<std::mutex> lock(m_cs);
    input_event_locked(al_no_teletext);
}

void qv_alarms_dispatcher::vbi_event()
{
    std::lock_guard<std::mutex> lock(m_cs);
    input_event_locked(al_no_vbi);
}

void qv_alarms_dispatcher::count_silence_locked(uint32_t nSlots)
{
    const uint32_t nLimit = silence_frames_locked();
    for (int i = al_no_video; i <= al_no_vbi; ++i) {
        watch& w = m_watch[i];
        if (!w.bWatched)
            continue;
        w.nSilentFrames = nSlots > UINT32_MAX - w.nSilentFrames ? UINT32_MAX : w.nSilentFrames + nSlots;
        if (w.nSilentFrames > nLimit)
            set_locked(static_cast<alarm_id>(i), true);
    }
}

void qv_alarms_dispatcher::slots_elapsed(uint32_t nSlots)
{
    std::lock_guard<std::mutex> lock(m_cs);
    if (m_bRunning && nSlots > 0)
        count_silence_locked(nSlots);
}

void qv_alarms_dispatcher::set_output_down(bool bDown)
{
    std::lock_guard<std::mutex> lock(m_cs);
    m_bOutputDown = bDown;
    m_nSinceRestart = 0;
    if (bDown && m_bRunning)
        set_locked(al_restart, true);
}

void qv_alarms_dispatcher::frame_event()
{
    std::lock_guard<std::mutex> lock(m_cs);
    if (!m_bRunning)
        return;
    count_silence_locked(1);
    if (m_watch[al_restart].bRaised && !m_bOutputDown && ++m_nSinceRestart >= k_restart_hold_frames)
        set_locked(al_restart, false);
    // A frame with no repeat_event before its frame_event was fresh.
    if (m_bRepeatThisFrame) {
        if (++m_nRepeatRun >= k_repeat_raise_frames)
            set_locked(al_repeated, true);
    } else {
        m_nRepeatRun = 0;
        set_locked(al_repeated, false);
    }
    m_bRepeatThisFrame = false;
}

void qv_alarms_dispatcher::repeat_event()
{
    std::lock_guard<std::mutex> lock(m_cs);
    if (!m_bRunning)
        return;
    m_bRepeatThisFrame = true;
}

void qv_alarms_dispatcher::restart_event()
{
    std::lock_guard<std::mutex> lock(m_cs);
    m_nSinceRestart = 0;
    set_locked(al_restart, true);
}

bool qv_alarms_dispatcher::is_raised(alarm_id id) const
{
    std::lock_guard<std::mutex> lock(m_cs);
    return m_watch[id].bRaised;
}

void qv_alarms_dispatcher::set_locked(alarm_id id, bool bRaise)
{
    if (m_watch[id].bRaised == bRaise)
        return;
    m_watch[id].bRaised = bRaise;

    qv_alarm_event ev;
    ev.bRaise = bRaise;
    ev.strSource = m_strSourceName;
    ev.strAlarm = k_alarms[id].name;
    ev.strText = k_alarms[id].text;
    ev.time = std::chrono::system_clock::now();
    if (m_pManager) {
        if (bRaise)
            m_pManager->raise_alarm(ev);
        else
            m_pManager->clear_alarm(ev);
    } else if (m_fallback) {
        m_fallback(ev);
    }
}

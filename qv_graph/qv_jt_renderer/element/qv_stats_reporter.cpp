#include "qv_stats_reporter.h"

#include "gstqvjtrenderer.h"

#include <algorithm>
#include <chrono>

#define GST_CAT_DEFAULT gst_qvjtrenderer_debug

namespace {

using steady = std::chrono::steady_clock;

// How often the trouble counters are compared: often enough to tell the
// application within a second, rarely enough not to flood the bus while a
// condition lasts.
constexpr auto k_check_period = std::chrono::seconds(1);

void set_stream(GstStructure* s, const char* pPrefix, const qv_template_statistics& t)
{
    const std::string p(pPrefix);
    gst_structure_set(s, (p + "-arrival-time").c_str(), G_TYPE_UINT64, t.nSampleArrivalTime,
                      (p + "-render-time").c_str(), G_TYPE_UINT64, t.nSampleRenderTime,
                      (p + "-fifo-fullness").c_str(), G_TYPE_INT64, t.nFifoFullness, (p + "-skipped").c_str(),
                      G_TYPE_UINT64, t.nSkippedSample, (p + "-last-error").c_str(), G_TYPE_STRING,
                      t.strLastError.c_str(), (p + "-timecode").c_str(), G_TYPE_STRING, t.strTimecode.c_str(),
                      nullptr);
}

} // namespace

qv_stats_reporter::qv_stats_reporter(GstElement* pElement, qv_renderer_statistics& statistics)
    : m_pElement(pElement), m_statistics(statistics)
{
}

qv_stats_reporter::~qv_stats_reporter()
{
    stop();
}

void qv_stats_reporter::set_interval(uint32_t nMs)
{
    {
        std::lock_guard<std::mutex> lock(m_cs);
        m_nIntervalMs = nMs;
    }
    m_cv.notify_all();
}

uint32_t qv_stats_reporter::interval() const
{
    std::lock_guard<std::mutex> lock(m_cs);
    return m_nIntervalMs;
}

void qv_stats_reporter::watch_output_down(const std::atomic<bool>* pDown)
{
    std::lock_guard<std::mutex> lock(m_cs);
    m_pDown = pDown;
}

void qv_stats_reporter::start()
{
    stop();
    std::lock_guard<std::mutex> lock(m_cs);
    m_bRunning = true;
    m_bWasDown = false;
    m_restarts.clear();
    m_thread = std::thread([this] { run(); });
}

void qv_stats_reporter::stop()
{
    {
        std::lock_guard<std::mutex> lock(m_cs);
        m_bRunning = false;
    }
    m_cv.notify_all();
    if (m_thread.joinable())
        m_thread.join();
}

void qv_stats_reporter::note_restart(const char* pReason)
{
    std::lock_guard<std::mutex> lock(m_cs);
    if (m_restarts.size() < 16)
        m_restarts.emplace_back(pReason);
}

GstStructure* qv_stats_reporter::snapshot(qv_renderer_statistics& st)
{
    std::lock_guard<std::mutex> lock(st.m_cs);
    GstStructure* s = gst_structure_new(
        "qvjtrenderer-stats", "system-time", G_TYPE_UINT64, st.m_nSystemTime, "device-time", G_TYPE_UINT64,
        st.m_nDeviceTime, "device-dropped-frames", G_TYPE_UINT64, st.m_nDeviceDroppedFrame, "device-sequence",
        G_TYPE_UINT, st.nSeqFromDevice, "genlock-state", G_TYPE_INT, st.m_nGenlockState, "genlock-state-text",
        G_TYPE_STRING, qv_renderer_statistics::genlock_state_text(st.m_nGenlockState), "genlock-source", G_TYPE_INT,
        st.m_nGenlockSource, "genlock-source-text", G_TYPE_STRING,
        qv_renderer_statistics::genlock_source_text(st.m_nGenlockSource).c_str(), "fifo-restarts", G_TYPE_UINT64,
        st.m_nFifoResetCount, "video-arrival-time", G_TYPE_UINT64, st.m_video.nFrameArrivalTime,
        "video-render-time", G_TYPE_UINT64, st.m_video.nFrameRendererTime, "video-repeated-frames", G_TYPE_UINT64,
        st.m_video.nRepeatedFrame, "video-skipped-frames", G_TYPE_UINT64, st.m_video.nSkipFrame,
        "video-fifo-fullness", G_TYPE_UINT64, st.m_video.nFifoFullness, "video-device-sequence", G_TYPE_UINT64,
        st.m_video.nSeqFromDevice, "video-last-error", G_TYPE_STRING, st.m_video.strLastError.c_str(),
        "audio-lines", G_TYPE_UINT, static_cast<guint>(st.m_audio.size()), nullptr);
    guint n = 0;
    for (const auto& pAudio : st.m_audio) {
        const std::string p = "audio" + std::to_string(n++);
        gst_structure_set(s, (p + "-arrival-time").c_str(), G_TYPE_UINT64, pAudio->nSampleArrivalTime,
                          (p + "-render-time").c_str(), G_TYPE_UINT64, pAudio->nSampleRenderTime,
                          (p + "-fifo-fullness").c_str(), G_TYPE_INT64, pAudio->nFifoFullness,
                          (p + "-samples").c_str(), G_TYPE_UINT64, pAudio->nSamplsFromStrat,
                          (p + "-dropped-samples").c_str(), G_TYPE_UINT64, pAudio->nDroppedSampls,
                          (p + "-last-sample-time").c_str(), G_TYPE_UINT64, pAudio->nLastSampleTime,
                          (p + "-last-error").c_str(), G_TYPE_STRING, pAudio->strLastError.c_str(), nullptr);
    }
    set_stream(s, "teletext", st.m_teletext);
    set_stream(s, "scte", st.m_scte35);
    set_stream(s, "vbi", st.m_vbi);
    const qv_caption_statistics& c = st.m_captions;
    gst_structure_set(s, "caption-frames", G_TYPE_UINT64, c.nCaptionFrames, "caption-triplets-sent", G_TYPE_UINT64,
                      c.nTripletsSent, "caption-triplets-queued", G_TYPE_UINT64, c.nTripletsQueued,
                      "caption-triplets-dropped", G_TYPE_UINT64, c.nTripletsDropped, "caption-blocks-refused",
                      G_TYPE_UINT64, c.nBadBlocks, "afd-frames", G_TYPE_UINT64, c.nAfdFrames, nullptr);
    return s;
}

qv_stats_reporter::counters qv_stats_reporter::read_counters()
{
    counters c;
    std::lock_guard<std::mutex> lock(m_statistics.m_cs);
    c.nDropped = m_statistics.m_nDeviceDroppedFrame;
    c.nRepeated = m_statistics.m_video.nRepeatedFrame;
    c.nSkipped = m_statistics.m_video.nSkipFrame;
    c.errors.push_back(m_statistics.m_video.strLastError);
    for (const auto& pAudio : m_statistics.m_audio) {
        c.nSamplesDropped += pAudio->nDroppedSampls;
        c.errors.push_back(pAudio->strLastError);
    }
    c.errors.push_back(m_statistics.m_teletext.strLastError);
    c.errors.push_back(m_statistics.m_scte35.strLastError);
    c.errors.push_back(m_statistics.m_vbi.strLastError);
    return c;
}

void qv_stats_reporter::check_counters(counters& last)
{
    counters now = read_counters();
    // The record is zeroed when play-out starts; a counter that went back is a new count.
    auto moved = [](uint64_t nNow, uint64_t nLast) { return nNow > nLast ? nNow - nLast : 0; };
    if (const uint64_t n = moved(now.nDropped, last.nDropped))
        post_warning("Output device dropped " + std::to_string(n) + " frame(s), " + std::to_string(now.nDropped) +
                     " in all");
    if (const uint64_t n = moved(now.nSkipped, last.nSkipped))
        post_warning("Video arrived late: " + std::to_string(n) + " frame(s) skipped, " +
                     std::to_string(now.nSkipped) + " in all");
    if (const uint64_t n = moved(now.nRepeated, last.nRepeated))
        post_warning("Video missing: last picture repeated " + std::to_string(n) + " time(s), " +
                     std::to_string(now.nRepeated) + " in all");
    if (const uint64_t n = moved(now.nSamplesDropped, last.nSamplesDropped))
        post_warning("Audio: " + std::to_string(n) + " sample(s) dropped");
    static const char* const k_streams[] = {"video", "audio", "teletext", "SCTE", "VBI"};
    for (size_t i = 0; i < now.errors.size(); ++i) {
        const std::string& err = now.errors[i];
        const std::string prev = i < last.errors.size() ? last.errors[i] : std::string();
        if (!err.empty() && err != prev) {
            const size_t nAudio = now.errors.size() - 4;
            const char* pStream = i == 0 ? k_streams[0] : i <= nAudio ? k_streams[1] : k_streams[i - nAudio + 1];
            post_warning(std::string("FIFO error on ") + pStream + ": " + err);
        }
    }
    last = std::move(now);
}

void qv_stats_reporter::flush_notes()
{
    std::vector<std::string> restarts;
    bool bDown = false;
    {
        std::lock_guard<std::mutex> lock(m_cs);
        restarts.swap(m_restarts);
        bDown = m_pDown && m_pDown->load();
    }
    for (const std::string& r : restarts)
        post_warning("Play-out restarted after " + r);
    if (bDown != m_bWasDown) {
        m_bWasDown = bDown;
        post_warning(bDown ? "Output device lost: nothing goes out, retrying until it is back"
                           : "Output device back: play-out resumes");
    }
}

void qv_stats_reporter::post_warning(const std::string& strText)
{
    GST_ELEMENT_WARNING(m_pElement, RESOURCE, WRITE, ("%s", strText.c_str()), (nullptr));
}

void qv_stats_reporter::run()
{
    counters last = read_counters();
    auto tNextCheck = steady::now() + k_check_period;
    auto tNextStats = steady::now();
    std::unique_lock<std::mutex> lock(m_cs);
    while (m_bRunning) {
        const auto now = steady::now();
        if (m_nIntervalMs > 0 && now >= tNextStats) {
            tNextStats = now + std::chrono::milliseconds(m_nIntervalMs);
            lock.unlock();
            GstStructure* s = snapshot(m_statistics);
            gst_element_post_message(m_pElement, gst_message_new_element(GST_OBJECT(m_pElement), s));
            lock.lock();
            continue;
        }
        if (now >= tNextCheck) {
            tNextCheck = now + k_check_period;
            lock.unlock();
            flush_notes();
            check_counters(last);
            lock.lock();
            continue;
        }
        auto tWake = tNextCheck;
        if (m_nIntervalMs > 0)
            tWake = std::min(tWake, tNextStats);
        // A changed interval or stop() wakes the wait early.
        const uint32_t nInterval = m_nIntervalMs;
        m_cv.wait_until(lock, tWake, [&] { return !m_bRunning || m_nIntervalMs != nInterval; });
        if (m_nIntervalMs != nInterval)
            tNextStats = steady::now();
    }
}

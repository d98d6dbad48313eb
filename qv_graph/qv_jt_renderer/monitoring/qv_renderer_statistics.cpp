#include "qv_renderer_statistics.h"

#include <cstdio>
#include <cstdlib>

namespace {

void zero(qv_template_statistics& s)
{
    s = qv_template_statistics{};
}

} // namespace

void qv_renderer_statistics::reset()
{
    std::lock_guard<std::mutex> lock(m_cs);
    // Genlock state and source describe the board, not the play-out: they survive a restart.
    m_nSystemTime = 0;
    m_nDeviceTime = 0;
    m_nDeviceDroppedFrame = 0;
    nSeqFromDevice = 0;
    m_nFifoResetCount = 0;
    m_video = qv_video_statistics{};
    for (auto& a : m_audio)
        *a = qv_audio_statistics{};
    zero(m_teletext);
    zero(m_scte35);
    zero(m_vbi);
    m_captions = qv_caption_statistics{};
}

std::shared_ptr<qv_audio_statistics> qv_renderer_statistics::create_audio_statistics()
{
    std::lock_guard<std::mutex> lock(m_cs);
    auto p = std::make_shared<qv_audio_statistics>();
    m_audio.push_back(p);
    return p;
}

void qv_renderer_statistics::clear_audio_statistics()
{
    std::lock_guard<std::mutex> lock(m_cs);
    m_audio.clear();
}

std::string qv_renderer_statistics::format_time(uint64_t nNanoseconds)
{
    const uint64_t ms = nNanoseconds / 1000000u;
    const uint64_t h = ms / 3600000u;
    char buf[48];
    std::snprintf(buf, sizeof buf, "%02llu:%02u:%02u.%03u", static_cast<unsigned long long>(h),
                  static_cast<unsigned>(ms / 60000u % 60u), static_cast<unsigned>(ms / 1000u % 60u),
                  static_cast<unsigned>(ms % 1000u));
    return buf;
}

const char* qv_renderer_statistics::genlock_state_text(int32_t nState)
{
    switch (nState) {
    case 0: return "No genlock (master)";
    case 1: return "Genlock enabled, but no signal present";
    case 2: return "Frequency locking";
    case 3: return "Locked";
    case 4: return "Output is genlocked, but input is wrong";
    default: return "Unknown";
    }
}

std::string qv_renderer_statistics::genlock_source_text(int32_t nSource)
{
    // Inputs are shown as the board's connectors are labelled: 1 to 8.
    if (nSource == 0)
        return "Master";
    if (nSource == 1)
        return "Analog";
    if (nSource >= 2 && nSource <= 9)
        return "Input " + std::to_string(nSource - 1);
    return "Unknown";
}

qv_base_statistics::items qv_renderer_statistics::get_items()
{
    std::lock_guard<std::mutex> lock(m_cs);
    items out;
    out.reserve(32 + 4 * m_audio.size());
    auto add = [&out](std::string name, std::string value) { out.emplace_back(std::move(name), std::move(value)); };
    auto num = [](auto v) { return std::to_string(v); };

    add("System time", format_time(m_nSystemTime));
    add("Device time", format_time(m_nDeviceTime));
    add("Device dropped frame", num(m_nDeviceDroppedFrame));
    add("Genlock state", genlock_state_text(m_nGenlockState));
    add("Genlock source", genlock_source_text(m_nGenlockSource));
    add("Number of fifo restarts", num(m_nFifoResetCount));

    add("Video frame arrival time", format_time(m_video.nFrameArrivalTime));
    add("Video frame render time", format_time(m_video.nFrameRendererTime));
    add("Video repeated frames", num(m_video.nRepeatedFrame));
    add("Video skipped frame", num(m_video.nSkipFrame));
    add("Video fifo fullness", num(m_video.nFifoFullness));
    add("Video last error", m_video.strLastError);

    // Audio lines are numbered from 0, as the "src_audio" pads are.
    unsigned n = 0;
    for (const auto& a : m_audio) {
        const std::string prefix = "Audio #" + std::to_string(n++);
        add(prefix + " sample arrival time", format_time(a->nSampleArrivalTime));
        add(prefix + " sample render time", format_time(a->nSampleRenderTime));
        add(prefix + " fifo fullness", num(a->nFifoFullness));
        add(prefix + " last error", a->strLastError);
    }

    add("Teletext frame arrival time", format_time(m_teletext.nSampleArrivalTime));
    add("Teletext frame render time", format_time(m_teletext.nSampleRenderTime));
    add("Teletext fifo fullness", num(m_teletext.nFifoFullness));
    add("Teletext skipped frame", num(m_teletext.nSkippedSample));
    add("Teletext last error", m_teletext.strLastError);

    add("SCTE-35/104 sample arriavl time", format_time(m_scte35.nSampleArrivalTime));
    add("SCTE-104 sample render time", format_time(m_scte35.nSampleRenderTime));
    add("SCTE-35/104 last error", m_scte35.strLastError);
    // Time codes arrive with the VBI stream.
    add("Timecode", m_vbi.strTimecode);

    add("VBI frame arrival time", format_time(m_vbi.nSampleArrivalTime));
    add("VBI frame render time", format_time(m_vbi.nSampleRenderTime));
    add("VBI fifo fullness", num(m_vbi.nFifoFullness));
    add("VBI skipped frame", num(m_vbi.nSkippedSample));
    add("VBI last error", m_vbi.strLastError);

    add("Caption frames", num(m_captions.nCaptionFrames));
    add("Caption triplets sent", num(m_captions.nTripletsSent));
    add("Caption triplets queued", num(m_captions.nTripletsQueued));
    add("Caption triplets dropped", num(m_captions.nTripletsDropped));
    add("Caption blocks refused", num(m_captions.nBadBlocks));
    add("AFD frames", num(m_captions.nAfdFrames));
    return out;
}

void qv_renderer_statistics::frame_sent(uint32_t nSeq, uint64_t nDeviceTime, int32_t nGenlockState,
                                        int32_t nGenlockSource, bool bNewCount)
{
    std::lock_guard<std::mutex> lock(m_cs);
    m_nGenlockState = nGenlockState;
    m_nGenlockSource = nGenlockSource;
    m_nDeviceTime = nDeviceTime;
    const uint32_t nPrev = nSeqFromDevice;
    nSeqFromDevice = nSeq;
    // A step of one is normal; a gap of k counts k - 1, a step back its size.
    if (!bNewCount)
        m_nDeviceDroppedFrame +=
            static_cast<uint64_t>(std::llabs(static_cast<int64_t>(nSeq) - static_cast<int64_t>(nPrev) - 1));
}

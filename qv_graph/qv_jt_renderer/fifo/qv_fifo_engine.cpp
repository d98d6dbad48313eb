#include "qv_fifo_engine.h"

#include <glib.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <cstring>

#include "scte104.h"
#include "scte35.h"
#include "scte_convert.h"

using QVSDK::QVImage;
using QVSDK::QVSound;

namespace {

// Leading / trailing zero samples of one half of a buffer.
template <typename T>
void count_silent_edges(const uint8_t* p, size_t n, size_t half, size_t& lead, size_t& trail)
{
    auto sample = [p](size_t i) {
        T v;
        std::memcpy(&v, p + i * sizeof(T), sizeof(T));
        return v;
    };
    lead = 0;
    while (lead < half && sample(lead) == 0)
        ++lead;
    trail = 0;
    while (trail < half && sample(n - 1 - trail) == 0)
        ++trail;
}

} // namespace

void PrintAudioInfo(const char* tag, const QVSound& sound)
{
    const unsigned bits = sound.format().m_bit_per_sample;
    if ((bits != 16 && bits != 32) || sound.data() == nullptr)
        return;
    const size_t n = sound.size() / (bits / 8);
    if (n < 2)
        return;
    const size_t half = n / 2;
    size_t lead = 0;
    size_t trail = 0;
    if (bits == 16)
        count_silent_edges<int16_t>(sound.data(), n, half, lead, trail);
    else
        count_silent_edges<int32_t>(sound.data(), n, half, lead, trail);
    if (lead + trail + 10 < 2 * half)
        g_print("%s frame[%d] empty edges %d/%d/%d good=%d\n", tag, static_cast<int>(bits), static_cast<int>(lead),
                static_cast<int>(half), static_cast<int>(trail), static_cast<int>(2 * half - lead - trail));
}

qv_fifo_engine::qv_fifo_engine(qv_renderer_statistics& statistics, qv_alarms_dispatcher& dispatcher)
    : m_statistics(statistics),
      m_video_fifo(statistics.m_video, dispatcher),
      m_teletext_fifo(statistics.m_teletext, &statistics.m_cs),
      m_vbi_fifo(statistics.m_vbi, &statistics.m_cs),
      m_scte104_data(new uint8_t[kScte104DataSize]()),
      // SCTE-104 traffic is shown under the SCTE-35 figures: that is where the operator looks for splices.
      m_scte104_fifo(statistics.m_scte35, &statistics.m_cs)
{
}

int qv_fifo_engine::create_video_stream(float fps, QVSDK::QVEnumFormats format, const QVSDK::QVSize& size,
                                        QVSDK::QVFieldOrder order)
{
    m_video_fifo.init(fps, format, size, order);
    m_nPictureRunningTime = QV_TIME_NONE;
    m_bPictureHasDts = false;
    return 1;
}

int qv_fifo_engine::create_teletext_stream(float fps)
{
    return m_teletext_fifo.init(fps) ? 1 : 0;
}

int qv_fifo_engine::create_scte104_stream(float fps)
{
    m_scte104_fifo.m_bExactFrames = true;
    return m_scte104_fifo.init(fps) ? 1 : 0;
}

int qv_fifo_engine::create_vbi_stream(float fps)
{
    return m_vbi_fifo.init(fps) ? 1 : 0;
}

int qv_fifo_engine::create_sound_stream(unsigned lines, const QVSDK::QVSoundFormat& format)
{
    m_audio_fifo.clear();
    m_statistics.clear_audio_statistics();
    m_audio_fifo.resize(lines);
    m_vParts.resize(lines);
    for (qv_audio_fifo& line : m_audio_fifo) {
        line.set_statistics(m_statistics.create_audio_statistics());
        line.init(m_video_fifo.m_fps, format);
    }
    return 1;
}

int qv_fifo_engine::alloc_fifo(size_t frames)
{
    m_nDepth = frames;
    m_video_fifo.alloc(frames);
    for (qv_audio_fifo& line : m_audio_fifo)
        line.alloc(frames);
    m_teletext_fifo.alloc(frames);
    m_scte104_fifo.alloc(frames);
    m_vbi_fifo.alloc(frames);
    return 1;
}

void qv_fifo_engine::dealloc_fifo()
{
    m_video_fifo.clear();
    m_audio_fifo.clear();
    m_vParts.clear();
    m_teletext_fifo.clear();
    m_scte104_fifo.clear();
    m_vbi_fifo.clear();
    m_out_frame_index = 0;
    m_nDepth = 0;
    std::fill(std::begin(m_nLastTaken), std::end(m_nLastTaken), -1);
    m_pll.clear();
    m_bFirstCall = true;
    set_state(fifo_ok, std::string());
}

void qv_fifo_engine::reset()
{
    std::lock_guard<qv_pi_recursive_mutex> lock(m_csFifo);
    m_video_fifo.reset();
    for (qv_audio_fifo& line : m_audio_fifo)
        line.clear();
    m_teletext_fifo.reset();
    m_scte104_fifo.reset();
    m_vbi_fifo.reset();
    rebase();
}

void qv_fifo_engine::flush_video()
{
    std::lock_guard<qv_pi_recursive_mutex> lock(m_csFifo);
    m_video_fifo.reset();
}

void qv_fifo_engine::flush_audio(unsigned nLine)
{
    std::lock_guard<qv_pi_recursive_mutex> lock(m_csFifo);
    if (nLine < m_audio_fifo.size())
        m_audio_fifo[nLine].clear();
}

void qv_fifo_engine::flush_teletext()
{
    std::lock_guard<qv_pi_recursive_mutex> lock(m_csFifo);
    m_teletext_fifo.reset();
}

void qv_fifo_engine::flush_scte104()
{
    std::lock_guard<qv_pi_recursive_mutex> lock(m_csFifo);
    m_scte104_fifo.reset();
}

void qv_fifo_engine::flush_vbi()
{
    std::lock_guard<qv_pi_recursive_mutex> lock(m_csFifo);
    m_vbi_fifo.reset();
}

void qv_fifo_engine::map_silence(uint64_t nHeld, QVSound& sound)
{
    std::lock_guard<qv_pi_recursive_mutex> lock(m_csFifo);
    if (m_audio_fifo.empty())
        return;
    const qv_audio_fifo& line = m_audio_fifo.front();
    const QVSDK::QVSoundFormat& f = line.m_sound_format;
    const size_t bytes = static_cast<size_t>(line.frame_to_pos(nHeld + 1) - line.frame_to_pos(nHeld));
    const auto channels = static_cast<uint16_t>(m_audio_fifo.size() * f.m_channel);
    if (sound.init(m_audio_fifo.size() * bytes, 0, f.m_frequency, f.m_bit_per_sample, channels))
        sound.silense(sound.capacity());
}

void qv_fifo_engine::clear_state()
{
    std::lock_guard<qv_pi_recursive_mutex> lock(m_csFifo);
    set_state(fifo_ok, std::string());
}

void qv_fifo_engine::rebase()
{
    std::lock_guard<qv_pi_recursive_mutex> lock(m_csFifo);
    m_out_frame_index = 0;
    m_was_start = false;
    std::fill(std::begin(m_nLastTaken), std::end(m_nLastTaken), -1);
    m_pll.clear();
    m_bFirstCall = true;
    set_state(fifo_ok, std::string());
}

bool qv_fifo_engine::audio_line_covers(unsigned nLine, uint64_t nFrame)
{
    std::lock_guard<qv_pi_recursive_mutex> lock(m_csFifo);
    if (nLine >= m_audio_fifo.size())
        return true;
    const qv_audio_fifo& line = m_audio_fifo[nLine];
    return line.m_arrival_pos >= line.frame_to_pos(nFrame);
}

int64_t qv_fifo_engine::first_queued_frame()
{
    std::lock_guard<qv_pi_recursive_mutex> lock(m_csFifo);
    return m_video_fifo.queued() ? m_video_fifo.m_video_fifo.front()->index : -1;
}

bool qv_fifo_engine::shown_frame(int64_t& nFrame)
{
    std::lock_guard<qv_pi_recursive_mutex> lock(m_csFifo);
    if (!m_video_fifo.m_pItem)
        return false;
    nFrame = m_video_fifo.m_pItem->index;
    return true;
}

int64_t qv_fifo_engine::last_frame_number()
{
    std::lock_guard<qv_pi_recursive_mutex> lock(m_csFifo);
    return m_video_fifo.m_nLastFrameNumber;
}

uint32_t qv_fifo_engine::buffered_ms() const
{
    // The two indices are atomic and the rate is set before play-out: no lock.
    const qv_video_fifo& vf = m_video_fifo;
    return static_cast<uint32_t>((vf.m_nStopIndex - vf.m_nStartIndex) * 1000 / vf.m_fps);
}

int64_t qv_fifo_engine::start()
{
    std::lock_guard<qv_pi_recursive_mutex> lock(m_csFifo);
    int64_t result = -1;
    if (!m_video_fifo.m_video_fifo.empty()) {
        const int64_t first = m_video_fifo.m_video_fifo.front()->index;
        result = first < 0 ? 0 : first;
        m_out_frame_index = static_cast<uint64_t>(result);
    } else {
        m_out_frame_index = 0;
    }
    m_was_start = true;
    return result;
}

void qv_fifo_engine::add_target(const target_fn& target)
{
    m_listTargets.push_back(target);
}

int qv_fifo_engine::add_video_frame(uint64_t ptsStart, uint64_t ptsStop, uint64_t ptsReal, uint64_t ptsSystemTime,
                                    const QVImage& image, unsigned long hw_time, uint64_t runningTime)
{
    // Declared first so that held pictures given back by the render thread
    // are let go of here, on the pad thread, after the lock.
    std::vector<QVImage> released;
    qv_video_fifo::slot_loan loan;
    {
        std::lock_guard<qv_pi_recursive_mutex> lock(m_csFifo);
        released = m_video_fifo.take_released();
        if (ptsStart == QV_TIME_NONE) {
            g_print("qvjtrenderer: add_video_frame GST_CLOCK_TIME_NONE == ptsStart!\n");
            return 1;
        }
        if (m_was_start) {
            if (m_ePLLStream == pll_video_stream)
                update_pll_time(ptsStart, ptsStop, ptsSystemTime);
            else
                update_time(ptsStart, ptsStop);
        }
        if (!in_window(window_video, ptsStart))
            return 1;
        m_bPictureHasDts = ptsReal != QV_TIME_NONE;
        m_nPictureRunningTime = runningTime;
        loan = m_video_fifo.lend_slot();
    }
    // The copy or conversion runs without the lock: the render thread takes
    // its pictures meanwhile.
    if (loan.item)
        m_video_fifo.fill_slot(image, *loan.item);
    qv_video_fifo::give_back(loan);
    std::lock_guard<qv_pi_recursive_mutex> lock(m_csFifo);
    if (!m_video_fifo.add_image(ptsStart, ptsStop, ptsReal, std::move(loan), hw_time)) {
        set_state(fifo_overflow, "video fifo overflow");
        return 0;
    }
    return 1;
}

bool qv_fifo_engine::add_audio_frame(unsigned nIndex, uint64_t ptsStart, uint64_t ptsStop, uint64_t ptsSystemTime,
                                     const QVSound& frame)
{
    std::lock_guard<qv_pi_recursive_mutex> lock(m_csFifo);
    if (ptsStart == QV_TIME_NONE) {
        g_print("qvjtrenderer: add_audio_frame[%d] GST_CLOCK_TIME_NONE == ptsStart!\n", static_cast<int>(nIndex));
        return true;
    }
    if (nIndex >= m_audio_fifo.size())
        return true;
    if (m_was_start) {
        if (m_ePLLStream == pll_audio_stream) {
            // Only line 0 drives the loop; the other lines keep their stamps in this mode.
            if (nIndex == 0)
                update_pll_time(ptsStart, ptsStop, ptsSystemTime);
        } else {
            update_time(ptsStart, ptsStop);
        }
    }
    if (!in_window(window_audio, ptsStart))
        return true;
    if (!m_audio_fifo[nIndex].add_audio_frame(ptsStart, ptsStop, frame)) {
        set_state(fifo_overflow, "audio fifo overflow");
        return false;
    }
    return true;
}

int qv_fifo_engine::add_teletext_frame(uint64_t ptsStart, uint64_t ptsStop, const uint8_t* pData, size_t size)
{
    std::lock_guard<qv_pi_recursive_mutex> lock(m_csFifo);
    if (ptsStart != 0 && ptsStart != QV_TIME_NONE) {
        if (m_was_start)
            update_time(ptsStart, ptsStop);
        if (!in_window(window_teletext, ptsStart))
            return 1;
    }
    return m_teletext_fifo.add_data(ptsStart, ptsStop, pData, size, nullptr) ? 1 : 0;
}

int qv_fifo_engine::add_vbi_frame(uint64_t ptsStart, uint64_t ptsStop, const uint8_t* pData, size_t size,
                                  const qv_input_timecode* pTimeCode)
{
    if (pData == nullptr || size == 0)
        return 0;
    std::lock_guard<qv_pi_recursive_mutex> lock(m_csFifo);
    if (ptsStart != 0 && ptsStart != QV_TIME_NONE) {
        if (m_was_start)
            update_time(ptsStart, ptsStop);
        if (!in_window(window_vbi, ptsStart))
            return 1;
    }
    return m_vbi_fifo.add_data(ptsStart, ptsStop, pData, size, pTimeCode) ? 1 : 0;
}

int qv_fifo_engine::add_subtitle_frame(uint64_t /*pts*/, const uint8_t* /*pData*/, size_t /*size*/)
{
    // Subtitles are accepted and discarded.
    std::lock_guard<qv_pi_recursive_mutex> lock(m_csFifo);
    return 1;
}

int qv_fifo_engine::add_scte104_frame(const uint8_t* pData, size_t size)
{
    if (pData == nullptr || size == 0)
        return 0;
    std::lock_guard<qv_pi_recursive_mutex> lock(m_csFifo);
    long nowPts = 0;
    if (!scte_now_pts(nowPts))
        return 1;
    // Stamped with the most recently queued picture's times, not its own.
    return m_scte104_fifo.add_data(m_video_fifo.m_nStartTime, m_video_fifo.m_nStopTime, pData, size, nullptr) ? 1 : 0;
}

int qv_fifo_engine::add_scte35_frame(const uint8_t* pData, size_t size)
{
    if (pData == nullptr || size == 0)
        return 0;
    const size_t pointer = pData[0];
    if (size < pointer)
        return 0;
    std::lock_guard<qv_pi_recursive_mutex> lock(m_csFifo);
    // A section that ends at its pointer field has nothing to parse: malformed, dropped.
    if (size < pointer + 1)
        return 1;
    return queue_scte35_as_scte104(pData + pointer + 1, size - (pointer + 1));
}

// Parses one section and queues its SCTE-104 form (caller holds m_csFifo).
// A section that does not parse, or converts to nothing, is dropped and
// reported as accepted, so that the pad does not error out on bad splices.
int qv_fifo_engine::add_scte35_section(const uint8_t* pSection, size_t size, uint64_t nSpliceRunningTime,
                                       uint32_t nEventId)
{
    if (pSection == nullptr || size == 0)
        return 0;
    std::lock_guard<qv_pi_recursive_mutex> lock(m_csFifo);
    if (nEventId != 0 && nEventId == m_nLastScte35Event)
        return 1;
    // The same event reaches every pad downstream of the demuxer, in no fixed
    // order. The message goes out with the newest picture, so a copy that
    // comes before any picture cannot be placed, nor one that finds only the
    // stream's first picture (its time, 0, reads as no time in the data FIFO).
    // Such a copy, or one that found no room, must not use the event up, or
    // the video pad's copy, which follows its pictures, would be refused and
    // the splice lost.
    if (m_video_fifo.m_nStartTime == 0)
        return 1;
    const int r = queue_scte35_as_scte104(pSection, size, nSpliceRunningTime);
    if (r != 0)
        m_nLastScte35Event = nEventId;
    return r;
}

// The 90 kHz "now" that pre-rolls count from: the newest picture's DTS when
// it had one; otherwise its running time, so that sources without DTS (most
// decoders) still get their splices through.
bool qv_fifo_engine::scte_now_pts(long& nowPts) const
{
    constexpr uint64_t kPtsMask = (uint64_t(1) << 33) - 1;
    if (!m_bPictureHasDts && m_nPictureRunningTime != QV_TIME_NONE) {
        const auto ticks = static_cast<uint64_t>(static_cast<unsigned __int128>(m_nPictureRunningTime) * 9 / 100000);
        nowPts = static_cast<long>(ticks & kPtsMask);
        return true;
    }
    if (m_video_fifo.m_nRealPTS == QV_TIME_NONE)
        return false;
    nowPts = static_cast<long>(m_video_fifo.m_nRealPTS);
    return true;
}

namespace {

// The splice time the converter counts the pre-roll to, 90 kHz.
uint64_t section_splice_pts(const mpegcore::splice_info_section& section)
{
    if (const auto* insert = section.command<mpegcore::splice_insert_t>())
        return insert->splice_time.pts_time;
    if (const auto* signal = section.command<mpegcore::time_signal_t>())
        return signal->pts_time;
    return 0;
}

} // namespace

int qv_fifo_engine::queue_scte35_as_scte104(const uint8_t* pSection, size_t nLength, uint64_t nSpliceRunningTime)
{
    mpegcore::splice_info_section section(nullptr, 1024);
    if (nLength == 0 || !section.read(const_cast<uint8_t*>(pSection), nLength))
        return 1;
    long nowPts = 0;
    if (!scte_now_pts(nowPts))
        return 1;
    if (nSpliceRunningTime != QV_TIME_NONE && m_nPictureRunningTime != QV_TIME_NONE) {
        // The splice is given in running time: put "now" that many whole
        // milliseconds before the section's own splice time, so that the
        // converter's pre-roll is the running-time distance. A splice already
        // due goes out with no pre-roll.
        constexpr int64_t kWrap = int64_t(1) << 33;
        const int64_t ms = nSpliceRunningTime > m_nPictureRunningTime
                               ? static_cast<int64_t>((nSpliceRunningTime - m_nPictureRunningTime) / 1000000)
                               : 0;
        const auto t = static_cast<int64_t>(section_splice_pts(section) & uint64_t(kWrap - 1));
        nowPts = static_cast<long>((((t - ms * 90) % kWrap) + kWrap) % kWrap);
    }
    const auto message = mpegcore::to_scte104(nowPts, static_cast<double>(m_video_fifo.m_fps), section);
    if (!message || !message->write(m_scte104_data.get(), kScte104DataSize))
        return 1;
    const size_t n = message->messageSize;
    return m_scte104_fifo.add_data(m_video_fifo.m_nStartTime, m_video_fifo.m_nStopTime, m_scte104_data.get(),
                                   n, nullptr)
               ? 1
               : 0;
}

int qv_fifo_engine::map_next_frame(unsigned frame, QVImage& image, QVSound& sound, std::vector<uint8_t>* pTeletext,
                                   std::vector<uint8_t>* pScte104, std::vector<uint8_t>* pVbi, qv_timecode* tc)
{
    std::lock_guard<qv_pi_recursive_mutex> lock(m_csFifo);
    const qv_fifo_state state = m_state;
    if (state != fifo_ok)
        return state;
    if (!map_video_audio(frame, image, sound))
        set_state(fifo_underflow, "video and audio fifo underflow");
    if (pVbi != nullptr) {
        m_vbi_fifo.map_data(frame, *pVbi, tc);
    } else {
        m_teletext_fifo.map_data(frame, *pTeletext, nullptr);
        m_scte104_fifo.map_data(frame, *pScte104, nullptr);
    }
    m_out_frame_index = frame;
    return m_state;
}

int qv_fifo_engine::map_next_data(unsigned frame, QVImage& image, QVSound& sound, std::vector<uint8_t>& teletext,
                                  std::vector<uint8_t>& scte104)
{
    return map_next_frame(frame, image, sound, &teletext, &scte104, nullptr, nullptr);
}

int qv_fifo_engine::map_next_data_vbi(unsigned frame, QVImage& image, QVSound& sound, std::vector<uint8_t>& vbi,
                                      qv_timecode* tc)
{
    return map_next_frame(frame, image, sound, nullptr, nullptr, &vbi, tc);
}

bool qv_fifo_engine::map_video_audio(unsigned frame, QVImage& image, QVSound& sound)
{
    std::lock_guard<qv_pi_recursive_mutex> lock(m_csFifo);
    if (!m_video_fifo.map_image(frame, image))
        return false;
    const size_t lines = m_audio_fifo.size();
    if (lines == 0)
        return true;
    m_vParts.resize(lines);
    for (size_t k = 0; k < lines; ++k) {
        if (!m_audio_fifo[k].map_sound_frame(frame, m_vParts[k]))
            return false;
    }
    // Every line contributes its first two channels, side by side: lines are stereo pairs.
    const QVSDK::QVSoundFormat& f0 = m_vParts[0].format();
    const auto channels = static_cast<uint16_t>(lines * f0.m_channel);
    if (!sound.init(lines * m_vParts[0].size(), 0, f0.m_frequency, f0.m_bit_per_sample, channels))
        return true;
    sound.silense(sound.capacity());
    for (size_t k = 0; k < lines; ++k)
        sound.mux(static_cast<unsigned>(2 * k), 0, 2, m_vParts[k]);
    return true;
}

void qv_fifo_engine::check_audio_fifo_fullness(unsigned latencyMs)
{
    // The render thread calls this during pre-roll while the audio pads are
    // already adding: it moves the same read positions, so it takes the lock too.
    std::lock_guard<qv_pi_recursive_mutex> lock(m_csFifo);
    for (qv_audio_fifo& line : m_audio_fifo)
        line.check_fifo_fullness(static_cast<int>(latencyMs));
}

bool qv_fifo_engine::in_window(e_window_stream stream, uint64_t ptsStart)
{
    if (m_nDepth == 0)
        return true;
    const long double fps = m_video_fifo.m_fps;
    const long double frame = static_cast<long double>(ptsStart) * fps / 1e9L;
    const long double out = static_cast<long double>(m_out_frame_index);
    // The FIFOs hold m_nDepth frames: anything further from the output than
    // that can never be played in its place, and queued in front of good
    // data it would hold that data back until the FIFO overflows.
    const long double depth = static_cast<long double>(m_nDepth);
    auto near = [depth, frame](long double ref) { return frame <= ref + depth && frame + depth >= ref; };
    // The first picture after a reset anchors the streams wherever it lies
    // (its stream may start later than the others); after that a stamp must
    // lie near the output, its own stream or the pictures.
    const int64_t last = m_nLastTaken[stream];
    const int64_t lastVideo = m_nLastTaken[window_video];
    const bool anchor = stream == window_video && lastVideo < 0;
    if (anchor || near(out) || (last >= 0 && near(static_cast<long double>(last))) ||
        (lastVideo >= 0 && near(static_cast<long double>(lastVideo)))) {
        m_bFarReported[stream] = false;
        m_nLastTaken[stream] = static_cast<int64_t>(frame + 0.5L);
        return true;
    }
    if (!m_bFarReported[stream]) {
        static const char* const names[] = {"video", "audio", "teletext", "vbi"};
        const uint64_t outPts = m_video_fifo.number_to_pts(static_cast<int64_t>(m_out_frame_index));
        g_print("qvjtrenderer: %s stamp %s is outside the fifo window (output at %s, %zu frames deep): "
                "dropped, and so are further such stamps\n",
                names[stream], qv_renderer_statistics::format_time(ptsStart).c_str(),
                qv_renderer_statistics::format_time(outPts).c_str(), m_nDepth);
        m_bFarReported[stream] = true;
    }
    return false;
}

void qv_fifo_engine::update_time(uint64_t& ptsStart, uint64_t& ptsStop)
{
    if (!m_bUsePLL || m_bFirstCall)
        return;
    const auto d = static_cast<int64_t>(m_pll.m_dRegulator * 1e9L);
    ptsStart += static_cast<uint64_t>(d);
    ptsStop += static_cast<uint64_t>(d);
}

void qv_fifo_engine::update_pll_time(uint64_t& ptsStart, uint64_t& ptsStop, uint64_t ptsSystemTime)
{
    if (!m_bUsePLL)
        return;
    if (ptsSystemTime == 0) {
        update_time(ptsStart, ptsStop);
        return;
    }
    // The loop runs in 100 ns units.
    const auto s100 = static_cast<long>(ptsStart / 100);
    if (m_bFirstCall) {
        m_pll.ResetPLL(static_cast<long>(ptsSystemTime), s100);
        m_bFirstCall = false;
    }
    const uint64_t duration = ptsStop - ptsStart;
    const long r = m_pll.SetTimeToPLL(static_cast<long>(ptsSystemTime), s100);
    ptsStart = static_cast<uint64_t>(r) * 100;
    ptsStop = ptsStart + duration;
}

void qv_fifo_engine::set_state(const qv_fifo_state& state, const std::string& reason)
{
    switch (state) {
    case fifo_underflow:
        m_state = fifo_underflow;
        g_print("qv_jt_renderer: fifo underflow, %s\n", reason.c_str());
        break;
    case fifo_overflow:
        m_state = fifo_overflow;
        g_print("qv_jt_renderer: fifo overflow, %s\n", reason.c_str());
        break;
    case fifo_ok:
        m_state = fifo_ok;
        break;
    }
}

std::vector<qv_fifo_item_stat> qv_fifo_engine::getHWstat()
{
    std::lock_guard<qv_pi_recursive_mutex> lock(m_csFifo);
    return m_video_fifo.getHWstat();
}

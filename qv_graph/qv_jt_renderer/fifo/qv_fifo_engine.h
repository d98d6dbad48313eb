// The one object through which every input stream reaches the render loop:
// one video FIFO, one audio FIFO per audio line, teletext, SCTE-104 and raw
// VBI FIFOs, and the clock-smoothing loop, all behind one recursive lock.
//
// Producers (the pads' streaming threads) call add_*; the render thread calls
// map_next_data / map_next_data_vbi once per output frame. Set-up calls
// (create_*, alloc_fifo, dealloc_fifo, add_target) take no lock: they run
// while the render thread is stopped.
#pragma once

#include "QVPLL.h"
#include "qv_alarms_dispatcher.h"
#include "qv_audio_fifo.h"
#include "qv_fifo_source.h"
#include "qv_pi_mutex.h"
#include "qv_renderer_statistics.h"
#include "qv_template_fifo.h"
#include "qv_types.h"
#include "qv_video_fifo.h"

#include "qv_sound.h"
#include "qvimage.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

enum e_pll_stream {
    pll_video_stream = 0,
    pll_audio_stream = 1,
};

// Reports silent edges of a sound buffer on the console (diagnostic).
void PrintAudioInfo(const char* tag, const QVSDK::QVSound& sound);

class qv_fifo_engine : public qv_fifo_source {
public:
    using target_fn = std::function<bool(const QVSDK::QVImage&, const QVSDK::QVSound&)>;

    qv_fifo_engine(qv_renderer_statistics& statistics, qv_alarms_dispatcher& dispatcher);
    qv_fifo_engine(const qv_fifo_engine&) = delete;
    qv_fifo_engine& operator=(const qv_fifo_engine&) = delete;

    // Stream set-up, before alloc_fifo.
    int create_video_stream(float fps, QVSDK::QVEnumFormats format, const QVSDK::QVSize& size,
                            QVSDK::QVFieldOrder order);
    int create_teletext_stream(float fps);
    int create_scte104_stream(float fps);
    int create_vbi_stream(float fps);
    int create_sound_stream(unsigned lines, const QVSDK::QVSoundFormat& format);
    // Depth in output frames; all picture, sound and data memory is taken here.
    int alloc_fifo(size_t frames);
    void dealloc_fifo();

    // The render loop's side (qv_fifo_source).
    void reset() override;
    int64_t start() override;
    bool audio_line_covers(unsigned nLine, uint64_t nFrame) override;
    int64_t first_queued_frame() override;
    bool shown_frame(int64_t& nFrame) override;
    uint32_t buffered_ms() const override;
    qv_fifo_state state() const override { return m_state; }
    void clear_state() override;
    void map_silence(uint64_t nHeld, QVSDK::QVSound& sound) override;
    // A flush of one input: its queue is emptied, the rest keep theirs. The
    // picture on air stays, to be held while the new position pre-rolls.
    void flush_video();
    void flush_audio(unsigned nLine);
    void flush_teletext();
    void flush_scte104();
    void flush_vbi();
    // Output frame numbering starts again at the next start(); the queues stay.
    void rebase();
    // The number given to the newest picture added (or, for one dropped, to its
    // predecessor); -1 when none since the reset.
    int64_t last_frame_number();
    void add_target(const target_fn& target);

    // Producers. Dropped input (no stamp, no line, no video yet) counts as success;
    // only lack of room fails, and it also sets fifo_overflow.
    // runningTime: the picture's running time (ns), which stamps SCTE messages
    // when the picture carries no DTS (ptsReal none).
    int add_video_frame(uint64_t ptsStart, uint64_t ptsStop, uint64_t ptsReal, uint64_t ptsSystemTime,
                        const QVSDK::QVImage& image, unsigned long hw_time, uint64_t runningTime = QV_TIME_NONE);
    bool add_audio_frame(unsigned nIndex, uint64_t ptsStart, uint64_t ptsStop, uint64_t ptsSystemTime,
                         const QVSDK::QVSound& frame);
    int add_teletext_frame(uint64_t ptsStart, uint64_t ptsStop, const uint8_t* pData, size_t size);
    int add_vbi_frame(uint64_t ptsStart, uint64_t ptsStop, const uint8_t* pData, size_t size,
                      const qv_input_timecode* pTimeCode);
    int add_subtitle_frame(uint64_t pts, const uint8_t* pData, size_t size);
    int add_scte104_frame(const uint8_t* pData, size_t size);
    int add_scte35_frame(const uint8_t* pData, size_t size);
    // A section without pointer field, as a demuxer hands it on in an event.
    // nSpliceRunningTime (ns, or none) is the running time of the section's
    // splice; with it the pre-roll counts from the running time of the newest
    // picture. The same event reaches every pad: nEventId (non-zero) queues it once.
    int add_scte35_section(const uint8_t* pSection, size_t size, uint64_t nSpliceRunningTime, uint32_t nEventId);

    // Consumers (render thread). Return the resulting qv_fifo_state.
    int map_next_data(unsigned frame, QVSDK::QVImage& image, QVSDK::QVSound& sound, std::vector<uint8_t>& teletext,
                      std::vector<uint8_t>& scte104) override;
    int map_next_data_vbi(unsigned frame, QVSDK::QVImage& image, QVSDK::QVSound& sound, std::vector<uint8_t>& vbi,
                          qv_timecode* tc) override;
    bool map_video_audio(unsigned frame, QVSDK::QVImage& image, QVSDK::QVSound& sound);
    void check_audio_fifo_fullness(unsigned latencyMs) override;

    // Time shifting through the smoothing loop (caller holds m_csFifo).
    void update_time(uint64_t& ptsStart, uint64_t& ptsStop);
    void update_pll_time(uint64_t& ptsStart, uint64_t& ptsStop, uint64_t ptsSystemTime);
    void set_state(const qv_fifo_state& state, const std::string& reason);

    // Locked snapshot of the video FIFO's hardware-time rows.
    std::vector<qv_fifo_item_stat> getHWstat() override;

    std::list<target_fn> m_listTargets;

    qv_pi_recursive_mutex m_csFifo; // shared with the real-time render thread: inherits its priority
    // Everything below guarded by m_csFifo. m_state is atomic because the
    // render thread also polls it without the lock.
    qv_renderer_statistics& m_statistics;
    qv_video_fifo m_video_fifo;
    qv_template_fifo m_teletext_fifo;
    qv_template_fifo m_vbi_fifo;
    std::unique_ptr<uint8_t[]> m_scte104_data; // converted SCTE-104 message, kScte104DataSize bytes
    qv_template_fifo m_scte104_fifo;
    std::vector<qv_audio_fifo> m_audio_fifo; // index = audio line
    uint64_t m_out_frame_index = 0;
    bool m_was_start = false;
    CQVPLL m_pll;
    bool m_bUsePLL = true;
    bool m_bFirstCall = true;
    e_pll_stream m_ePLLStream = pll_video_stream;
    std::atomic<qv_fifo_state> m_state{fifo_ok};
    size_t m_nDepth = 0;                          // frames, as allocated
    uint64_t m_nPictureRunningTime = QV_TIME_NONE; // of the newest picture
    bool m_bPictureHasDts = false;                // the newest picture carried a DTS
    uint32_t m_nLastScte35Event = 0;
    // Per stream: a far stamp was reported and no stamp in the window came
    // since; the frame of the last stamp taken (-1: none since the reset).
    bool m_bFarReported[4] = {};
    int64_t m_nLastTaken[4] = {-1, -1, -1, -1};

    static constexpr size_t kScte104DataSize = 4096;

    enum e_window_stream { window_video, window_audio, window_teletext, window_vbi };
    // False (with one message per run of them) for a stamp so far from the
    // output position, the stream's previous stamp and the newest picture
    // that it could never be played in order (caller holds m_csFifo).
    bool in_window(e_window_stream stream, uint64_t ptsStart);

private:
    int queue_scte35_as_scte104(const uint8_t* pSection, size_t nLength,
                                uint64_t nSpliceRunningTime = QV_TIME_NONE);
    bool scte_now_pts(long& nowPts) const;
    int map_next_frame(unsigned frame, QVSDK::QVImage& image, QVSDK::QVSound& sound, std::vector<uint8_t>* pTeletext,
                       std::vector<uint8_t>* pScte104, std::vector<uint8_t>* pVbi, qv_timecode* tc);

    // Scratch for the per-line parts of map_video_audio; kept so that a frame allocates nothing.
    std::vector<QVSDK::QVSound> m_vParts;
};

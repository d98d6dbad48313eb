// The play-out core: the body of the render loop (one pass per output frame,
// paced by the board's buffer queue), reopening the board after a failure,
// the end-of-stream drain, the hardware-time lock and the writing of the
// ancillary lines. It knows no GStreamer: the element drives it through
// calls and hears back through the callbacks below, so that the loop runs
// just as well under a unit test with the stepped board simulator.
//
// The parts it works on (devices, FIFO engine, encoders, statistics,
// settings) belong to the renderer, whose data model fixes their names and
// places; the core borrows them for its life under the same names.
#pragma once

#include "qv_alarms_dispatcher.h"
#include "qv_alsa_output_device.h"
#include "qv_cc_queue.h"
#include "qv_fifo_source.h"
#include "qv_frame_ancillary.h"
#include "qv_input_pacer.h"
#include "qv_line_map.h"
#include "qv_mpln_output_device.h"
#include "qv_renderer_statistics.h"
#include "qv_time_starter.h"
#include "qv_types.h"
#include "qv_v4l2_output_device.h"
#include "qv_vanc_scte104_encoder.h"
#include "qv_vanc_teletext_encoder.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <vector>

// The board values in force from NULL -> READY to READY -> NULL: writes to
// the properties meanwhile wait for the next open, so that an internal reset
// never reopens the board differently from what went on air.
struct qv_board_config {
    std::string strV4l2Name;
    std::string strAlsaName;
    uint32_t nMode = 0;
    uint32_t nHWBuffers = 3;
    uint32_t nAudioLines = 0;
    v4l2_jutvane_timecode_type eTimeCodeType = V4L2_JUTVANE_TIMECODE_DISABLED;
    bool bUseWatchdog = false;
    bool bFullColorRange = true;
    bool bUseVBI = false;
    bool bMultiPlane = false;    // the kind of node found at open
    std::string strTimingReport; // why the board does not run the mode's timing; empty when it does
};

// What the core borrows. Each member is named as the owner names it.
struct qv_playout_parts {
    // Guards open, close, the reopening in reset, the add calls and the end of the render thread.
    std::recursive_mutex& m_cs;
    qv_renderer_statistics& m_statistics;
    qv_alarms_dispatcher& m_alarmDispatcher;
    qv_v4l2_output_device& m_video_device;
    qv_alsa_output_device& m_audio_device;
    qv_mpln_output_device& m_mpln_device;
    qv_fifo_source& m_fifo;
    std::atomic<qv_renderer_state>& m_state; // written by the render thread
    const qv_board_config& m_cfg;
    // Settings read by the loop; written by the application while it runs.
    const uint32_t& m_nLatency;
    const uint32_t& m_nBufferCapacity;
    const bool& m_bUseHWLock;
    const int32_t& m_nHWFrameStep;
    const float& m_fFps;
    int32_t& m_nDebugDiffHW;
    const std::vector<uint32_t>& m_linesSCTE104;
    qv_vanc_scte104_encoder& m_scte104_encoder;
    qv_vanc_teletext_encoder& m_teletext_encoder;
    qv_time_starter& m_time_starter;
    qv_input_pacer& m_pacer;
    // Captions and AFD: rows, queue and scratch line are set at open and then
    // used by the render thread alone; the ancillary queue locks for itself.
    qv_frame_ancillary_queue& m_ancillary;
    qv_cc_queue& m_cc_queue;
    qv_cc_counters& m_ccReported; // the queue's counters last added to the statistics
    const uint32_t& m_nCaptionRow;
    const uint32_t& m_nAfdRow;
    const bool& m_bAncSD;
    std::vector<uint8_t>& m_ancLine; // 8-bit line a packet is laid into
    // Set by the element's pad threads, read by the loop.
    std::atomic<bool>& m_bOutputDown;
    std::atomic<bool>& m_bEos;        // every linked pad is at its end
    std::atomic<bool>& m_bEosPosted;  // EOS went to the element's bus
    std::atomic<bool>& m_bFlush;      // a new stream after an end asks the loop for a clean restart
    std::atomic<bool>& m_bFlushing;   // some pad is between flush start and stop: nothing pre-rolls
    std::atomic<bool>& m_bRebase;     // the pictures were flushed: hold the picture on air, pre-roll afresh
    std::atomic<bool>& m_bPacedInput; // some input is not live: it is paced and pre-rolls all streams
};

// What the core tells its owner. Every callback is called from the render
// thread; any left empty is skipped.
struct qv_playout_callbacks {
    // Every frame queued before the end of the stream has gone out.
    std::function<void()> end_of_stream;
    // Malformed caption metadata was dropped (once per run of it).
    std::function<void(const std::string& strWhy)> caption_warning;
    // Play-out restarts, for the reason given.
    std::function<void(const char* pReason)> restarted;
    // The audio lines whose sound input that is not live must pre-roll: the
    // linked ones that have not ended.
    std::function<std::vector<unsigned>()> awaited_audio_lines;
};

class qv_playout_core : private qv_playout_parts {
public:
    static constexpr uint32_t k_no_row = ~uint32_t(0);

    qv_playout_core(const qv_playout_parts& parts, qv_playout_callbacks callbacks);
    qv_playout_core(const qv_playout_core&) = delete;
    qv_playout_core& operator=(const qv_playout_core&) = delete;

    // The render thread's body until the exit signal: complex for the
    // multi-plane board, otherwise the single-plane board with ALSA beside it.
    void render_loop(std::future<void>& exit, bool bComplex);

    // Opens the board (and ALSA beside a single-plane board) as m_cfg says; on
    // failure closes what it opened and says why in strError.
    bool open_devices(std::string& strError);
    void close_devices();
    // After a FIFO or device failure: closes the devices, drops what is queued
    // and reopens them as configured at open. False when they could not be reopened.
    bool reset();

    // Output frame index correction towards the input hardware time.
    bool tryHWLock(uint32_t index, int32_t& correction);
    void PrintStat(uint32_t index, int32_t correction, uint32_t hw, uint32_t lastFrameHW,
                   const std::vector<qv_fifo_item_stat>& stat);
    void write_teletext_to_vbi(const std::vector<uint8_t>& data, qv_vbi_data& vbi);
    void write_scte104_to_vbi(const std::vector<uint8_t>& data, qv_vbi_data& vbi);
    static void write_vbi_to_vbi(const std::vector<uint8_t>& data, qv_vbi_data& vbi);
    // The frame's cdp (once captions have been seen) and AFD packet.
    void write_metadata_to_vbi(const qv_frame_ancillary& current, qv_vbi_data& vbi);

private:
    struct loop_state; // the render thread's working state, one per thread
    void restart_playout(loop_state& loop, const char* pReason, bool bDeviceFault);
    void enter_down(loop_state& loop, const std::string& strWhy);
    void try_recover(loop_state& loop);
    void account_idle_slots(loop_state& loop);
    bool preroll_done(loop_state& loop);
    void hold_frame(loop_state& loop);
    // Numbers the frame of device buffer nSeq and maps it; false when the
    // pass ends here (underflow).
    bool next_frame(loop_state& loop, uint32_t nSeq);
    bool sound_prerolled(loop_state& loop);
    bool hwlock_due(loop_state& loop, uint32_t nSeq) const; // just over a second of output since the last attempt
    bool acquire_buffer(loop_state& loop, uint32_t& nSeq);
    int fetch_frame(loop_state& loop, uint32_t nIndex);
    // The teletext, SCTE-104, caption and AFD lines of the frame, whatever the board kind.
    void write_data_lines(loop_state& loop);
    bool output_frame(loop_state& loop);
    void start_device_when_primed(loop_state& loop);
    void finish_eos(loop_state& loop);
    void take_metadata(loop_state& loop); // the shown picture's metadata
    const qv_timecode* frame_timecode(loop_state& loop); // null when the frame has none
    uint32_t ring_frames(bool bComplex) const;

    const qv_playout_callbacks m_callbacks;
};

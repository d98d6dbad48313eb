// qv_renderer: the one object behind each element instance. Owns the devices,
// the FIFO engine, the encoders, the statistics and the alarm dispatcher,
// makes the sink pads, and turns state changes into open/start/stop/close.
// The render loop itself is the play-out core's (qv_playout_core), which
// borrows these parts and reports back through callbacks.
#pragma once

#include "qv_alarms_dispatcher.h"
#include "qv_alsa_output_device.h"
#include "qv_board_clock.h"
#include "qv_cc_queue.h"
#include "qv_fifo_engine.h"
#include "qv_frame_ancillary.h"
#include "qv_input_pacer.h"
#include "qv_line_map.h"
#include "qv_mpln_output_device.h"
#include "qv_pads.h"
#include "qv_playout_core.h"
#include "qv_renderer_statistics.h"
#include "qv_stats_reporter.h"
#include "qv_time_starter.h"
#include "qv_types.h"
#include "qv_v4l2_output_device.h"
#include "qv_vanc_scte104_encoder.h"
#include "qv_vanc_teletext_encoder.h"

#include <gst/gst.h>
#include <gst/video/video.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <future>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct _Gstqvjtrenderer;

class qv_renderer {
public:
    qv_renderer(_Gstqvjtrenderer* pElement, GstElementClass* pParentClass);
    virtual ~qv_renderer();
    qv_renderer(const qv_renderer&) = delete;
    qv_renderer& operator=(const qv_renderer&) = delete;

    // Render thread bodies; start() picks one.
    virtual void work_thread_separate(std::future<void>&& exit);
    virtual void work_thread_complex(std::future<void>&& exit);

    void set_property(guint id, const GValue* value, GParamSpec* pspec);
    void get_property(guint id, GValue* value, GParamSpec* pspec);
    // The line map, "stats" and "stats-interval"; false for any other id.
    bool set_app_property(guint id, const GValue* value);
    bool get_app_property(guint id, GValue* value);
    GstStateChangeReturn change_state(GstStateChange transition);

    bool open();
    bool start();
    void stop();
    void close();
    // Render thread only, after a FIFO or device failure: closes the devices and
    // reopens them as configured at open. False when they could not be reopened.
    bool reset();

    // End of stream, flushes and new segments, seen on any sink pad (the event
    // is only looked at; the pad keeps its own handling).
    void pad_event(GstPad* pPad, GstEvent* pEvent);
    // True while the output device is lost and the render loop retries it.
    bool output_down() const { return m_bOutputDown; }

    // Pads.
    bool create_video_pad();
    bool create_teletext_pad();
    bool create_scte104_pad();
    bool create_scte35_pad();
    bool create_vbi_pad(bool bAdd);
    bool create_audio_pad(unsigned long n);
    void delete_audio_pad();
    bool update_audio_pad(unsigned long n);
    bool update_vbi_pad(bool bUse);
    static bool isConnect(GstPad* pPad);
    // An upstream event sent to the element (a seek): up a linked sink pad.
    bool send_upstream(GstEvent* pEvent);
    // The board's frame count and rate while it streams (the clock's source).
    bool board_frames(uint32_t& nFrames, double& fFps);
    // A new reference to the board's clock.
    GstClock* board_clock() const { return m_boardClock.clock(); }
    bool isAudioConnect() const;
    size_t audio_pad_count() const { return m_list_audio_pad.size(); }

    // Called from the pads' streaming threads.
    bool set_video_cap(GstCaps* pCaps);
    // runningTime (ns): the picture's running time, used for SCTE when there is no DTS.
    // pAncillary: what the picture's metadata asks to go out with it; taken over.
    int add_video_frame(uint64_t ptsStart, uint64_t ptsEnd, uint64_t dts, const QVSDK::QVImage& image,
                        uint64_t hwTime, uint64_t runningTime = ~uint64_t(0),
                        qv_frame_ancillary* pAncillary = nullptr);
    int add_audio_frame(GstPad* pPad, uint64_t ptsStart, uint64_t ptsEnd, uint64_t dts,
                        const QVSDK::QVSound& sound);
    int add_teletext_frame(uint64_t ptsStart, uint64_t ptsEnd, const uint8_t* pData, size_t nSize);
    int add_vbi_frame(uint64_t ptsStart, uint64_t ptsEnd, const uint8_t* pData, size_t nSize,
                      const GstVideoTimeCode* pTimecode);
    int add_scte104_frame(const uint8_t* pData, size_t nSize);
    // A splice section from a demuxer's event (no pointer field); see qv_fifo_engine.
    int add_scte35_section(const uint8_t* pSection, size_t nSize, uint64_t nSpliceRunningTime, uint32_t nEventId);
    int add_scte35_frame(const uint8_t* pData, size_t nSize);
    int add_subtitle_frame(uint64_t pts, const uint8_t* pData, size_t nSize);
    // A producer that is not live waits here until its stamp (running time)
    // is within reach of the output; the pad's flush lets it go at once.
    void pace_input(GstPad* pPad, uint64_t ptsStart);

    // Read-outs for the application and for tests.
    qv_renderer_statistics& statistics() { return m_statistics; }
    qv_alarms_dispatcher& alarms() { return m_alarmDispatcher; }
    int32_t hw_frame_step() const { return m_nHWFrameStep; }
    const std::vector<uint32_t>& scte104_lines() const { return m_linesSCTE104; }
    uint32_t teletext_line_mask() const { return m_nTeletextMask; }
    qv_renderer_state state() const { return m_state; }

    // The same six templates the element class carries.
    static GstStaticPadTemplate* pad_template(int nIndex);

protected:
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
    GstPad* make_pad(int nTemplate, const char* pName);
    bool add_pad(GstPad* pPad);
    bool remove_pad(GstPad* pPad);
    qv_playout_parts playout_parts();
    qv_playout_callbacks playout_callbacks();
    void post_eos();
    std::vector<unsigned> awaited_audio_lines();
    uint64_t device_time_locked() const; // m_cs held
    // m_cs held: a board is open to take the input (the sound's device when bAudio).
    bool board_open_locked(bool bAudio) const;
    // m_cs held: the preamble of every stamped input. False when there is no
    // board to play to or the time starter refuses the stamp.
    bool admit_locked(bool bAudio, uint64_t ptsStart, uint64_t ptsEnd, uint64_t& start, uint64_t& stop);
    void flush_begins(GstPad* pPad);
    void flush_ends(GstPad* pPad);
    // Opens the board (and ALSA beside a single-plane board) as m_cfg says; on
    // failure closes what it opened and says why in strError.
    bool open_devices(std::string& strError);
    void close_devices();
    bool open_checked(std::string& strError);
    void report_timing();
    void report_lines_outside_area();
    void resolve_anc_lines(); // caption and AFD rows for the open board, clashes reported
    size_t fifo_depth(float fps);
    void warn_configuration(const std::string& strText); // console and bus
    void apply_line_map(); // the "line-map" text, again for the mode in force

    // Guards open, close, the reopening in reset, the add calls and the end of the render thread.
    std::recursive_mutex m_cs;
    // Declared before the devices and the FIFO engine that keep references to
    // them, so that they are built first and destroyed last.
    qv_renderer_statistics m_statistics;
    qv_alarms_dispatcher m_alarmDispatcher;
    qv_v4l2_output_device m_video_device;
    qv_alsa_output_device m_audio_device;
    qv_mpln_output_device m_mpln_device;
    std::thread m_thread;                     // joinable only while a play-out runs
    std::shared_ptr<std::promise<void>> m_fExit; // exit signal; null when no thread runs
    _Gstqvjtrenderer* m_pElement;
    GstElementClass* m_pParentClass;
    std::atomic<qv_renderer_state> m_state{qv_stop_state}; // written by the render thread
    std::string m_strV4l2Name;
    std::string m_strAlsaName;
    uint32_t m_nBufferCapacity = 5000;
    uint32_t m_nLatency = 2000;
    uint32_t m_nMode = 0;
    uint8_t m_nVBILines[64] = {};
    bool m_bUseVBI = false;
    v4l2_jutvane_timecode_type m_eTimeCodeType = V4L2_JUTVANE_TIMECODE_DISABLED;
    bool m_bUsePLL = true;
    bool m_bUseHWLock = true;     // locks from the first open even if no one sets the property
    int32_t m_nHWFrameStep = 0;
    int32_t m_nDebugDiffHW = 0;
    bool m_bUseWatchdog = false;  // a board left unattended is not reset until someone asks for it
    uint32_t m_nHWBuffers = 3;
    bool m_bFullColorRange = true;
    qv_fifo_engine m_fifo;
    std::vector<uint32_t> m_linesSCTE104; // rebuilt from "vbi_lines" on every open
    uint32_t m_nTeletextMask = 0;
    qv_vanc_scte104_encoder m_scte104_encoder;
    qv_vanc_teletext_encoder m_teletext_encoder;
    // Captions and AFD from the pictures' metadata. The lines come from the
    // line map; the rows, the queue and the scratch line are set at open and
    // then used by the render thread alone.
    qv_anc_lines m_ancLines;
    static constexpr uint32_t k_no_row = qv_playout_core::k_no_row;
    uint32_t m_nCaptionRow = k_no_row;
    uint32_t m_nAfdRow = k_no_row;
    bool m_bAncSD = true;
    std::vector<uint8_t> m_ancLine; // 8-bit line a packet is laid into
    qv_cc_queue m_cc_queue;
    qv_cc_counters m_ccReported; // the queue's counters last added to the statistics
    qv_frame_ancillary_queue m_ancillary; // pad thread to render thread, locks for itself
    qv_video_pad m_video_pad;
    std::list<std::shared_ptr<_qv_audio_pad>> m_list_audio_pad; // creation order; changed on the application thread
    qv_teletext_pad m_teletext_pad;
    qv_scte104_pad m_scte104_pad;
    qv_scte35_pad m_scte35_pad;
    qv_vbi_pad m_vbi_pad;
    qv_time_starter m_time_starter;
    qv_input_pacer m_pacer;

    using board_config = qv_board_config;
    board_config m_cfg;
    bool m_bOpened = false;            // between NULL -> READY and READY -> NULL
    long m_nPendingAudioLines = -1;    // "number_of_audio_lines" written while opened; -1: none
    int m_nPendingUseVBI = -1;         // "use_vbi" written while opened; -1: none
    float m_fFps = 25.0f;              // output frame rate of the open board
    std::atomic<bool> m_bOutputDown{false};

    // End of stream: the pads that saw EOS since the last flush or new stream,
    // guarded by m_csEos; the render loop reads the atomics.
    std::mutex m_csEos;
    std::vector<GstPad*> m_eosPads;
    uint32_t m_nEosSeqnum = 0;
    std::atomic<bool> m_bEos{false};       // every linked pad is at its end
    std::atomic<bool> m_bEosPosted{false}; // EOS went to the bus
    std::atomic<bool> m_bFlush{false};     // a new stream after an end asks the loop for a clean restart
    // Flushes (a seek): the pads between flush start and stop, guarded by
    // m_csEos. A flush of the pictures holds the picture on air, the board
    // running on, until the new position has pre-rolled.
    std::vector<GstPad*> m_flushingPads;
    bool m_bVideoFlushed = false;           // the pictures are among the pads flushing
    std::atomic<bool> m_bFlushing{false};   // some pad is flushing: nothing pre-rolls
    std::atomic<bool> m_bRebase{false};     // the loop is to hold the picture and pre-roll afresh
    std::atomic<bool> m_bPacedInput{false}; // some input is not live (a file): it is paced and pre-rolls all streams
    std::string m_strLineMap; // "line-map" as set; empty when the table came from "vbi_lines"
    qv_stats_reporter m_reporter;
    std::atomic<double> m_fBoardFps{25.0}; // m_fFps, for the clock's callers on any thread
    // The board's frame clock, offered to the pipeline; reads the frame count
    // the devices report to the statistics.
    qv_board_clock m_boardClock;
    // Last: it borrows the members above.
    qv_playout_core m_core;
};

// The play-out statistics record. The FIFOs, the devices and the render loop
// write it; the application reads it through the "statistics" property.
#pragma once

#include "qv_base_statistics.h"
#include "qv_device_reporter.h"

#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>

struct qv_video_statistics {
    uint64_t nFrameArrivalTime = 0;  // ns of running time
    uint64_t nFrameRendererTime = 0; // ns of running time
    uint64_t nRepeatedFrame = 0;
    uint64_t nSkipFrame = 0;
    uint64_t nFifoFullness = 0;
    uint64_t nSeqFromDevice = 0;
    std::string strLastError;
};

struct qv_audio_statistics {
    uint64_t nSampleArrivalTime = 0;
    uint64_t nSampleRenderTime = 0;
    int64_t nFifoFullness = 0;
    uint64_t nSamplsFromStrat = 0; // samples since start
    uint64_t nDroppedSampls = 0;
    uint64_t nLastSampleTime = 0;
    std::string strLastError;
};

struct qv_template_statistics {
    uint64_t nSampleArrivalTime = 0;
    uint64_t nSampleRenderTime = 0;
    int64_t nFifoFullness = 0;
    uint64_t nSkippedSample = 0;
    std::string strLastError;
    std::string strTimecode; // text of the last time code received
};

// Captions and AFD taken from the pictures' metadata (render thread).
struct qv_caption_statistics {
    uint64_t nCaptionFrames = 0;   // frames whose cdp carried caption data
    uint64_t nTripletsSent = 0;    // cc_data triplets of caption data sent (padding not counted)
    uint64_t nTripletsQueued = 0;  // waiting for the next frames
    uint64_t nTripletsDropped = 0; // lost to a full queue
    uint64_t nBadBlocks = 0;       // caption metadata refused as malformed
    uint64_t nAfdFrames = 0;       // frames that carried an AFD packet
};

class qv_renderer_statistics : public qv_base_statistics, public qv_device_reporter {
public:
    // Guards the whole record. Writers that update single fields from the
    // thread owning the figure take it too when they touch strings.
    std::mutex m_cs;

    uint64_t m_nSystemTime = 0;   // ns since the render thread started
    uint64_t m_nDeviceTime = 0;   // ns of device output: frame counter / mode rate
    uint64_t m_nDeviceDroppedFrame = 0;
    uint32_t nSeqFromDevice = 0;  // last device sequence; 0 after a play-out reset
    int32_t m_nGenlockState = 0;  // v4l2_jutvane_genlock_state
    int32_t m_nGenlockSource = 0; // v4l2_jutvane_genlock_source
    uint64_t m_nFifoResetCount = 0;

    qv_video_statistics m_video;
    std::list<std::shared_ptr<qv_audio_statistics>> m_audio; // one per audio line, in line order
    qv_template_statistics m_teletext;
    qv_template_statistics m_scte35; // SCTE-104 FIFO: SCTE-104 input and converted SCTE-35
    qv_template_statistics m_vbi;
    qv_caption_statistics m_captions;

    ~qv_renderer_statistics() override = default;

    // Zeroes every figure (existing audio records stay, zeroed) except the genlock state and source.
    void reset();
    std::shared_ptr<qv_audio_statistics> create_audio_statistics();
    void clear_audio_statistics();
    items get_items() override;
    // The devices' report of each frame sent; locks m_cs.
    void frame_sent(uint32_t nSeq, uint64_t nDeviceTime, int32_t nGenlockState, int32_t nGenlockSource,
                    bool bNewCount) override;

    // "hh:mm:ss.ccc" for a time in nanoseconds.
    static std::string format_time(uint64_t nNanoseconds);
    static const char* genlock_state_text(int32_t nState);
    static std::string genlock_source_text(int32_t nSource);
};

// Common base of the board's two V4L2 video output devices: probing a node,
// taking over its descriptor, choosing the SDI mode through the DV-timings
// interface, genlock, the per-frame report and the output watchdog.
#pragma once

#include "qv_device_reporter.h"
#include "qv_types.h"
#include "v4l2_jutvane.h"

#include "qvformats.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>


// The SDI modes of the board family; the value indexes qv_board_formats.
enum qv_v4l2_enum_sdi_mode {
    qv_720x576_25i = 0,
    qv_720x576_30i = 1, // 576 lines at 30 frames a second: the board offers it so
    qv_1920x1080_25i = 2,
    qv_1920x1080_30i = 3,
    qv_1920x1080_50p = 4,
    qv_1920x1080_60p = 5,
    qv_1280x720_50p = 6,
    qv_1280x720_5994p = 7,
    qv_1280x720_60p = 8,
    qv_1920x1080_2398p = 9,
    qv_1920x1080_24p = 10,
    qv_1920x1080_25p = 11,
    qv_1920x1080_2997p = 12,
    qv_1920x1080_5994p = 13,
    qv_3840x2160_25p = 14,
    qv_3840x2160_2997p = 15,
    qv_3840x2160_30p = 16,
    qv_3840x2160_50p = 17,
    qv_3840x2160_5994p = 18,
    qv_3840x2160_60p = 19,
};

struct qv_v4l2_video_format {
    int32_t width;
    int32_t height;
    float fps; // frame rate, also for interlaced modes
    bool isProgressive;
    bool isHD;
};

constexpr size_t qv_board_formats_count = 20;
extern const qv_v4l2_video_format qv_board_formats[qv_board_formats_count];

// The row of a mode; out-of-range values fall back to row 0 so that a bad
// property value can never index past the table.
const qv_v4l2_video_format& qv_board_format(qv_v4l2_enum_sdi_mode mode);

// ioctl, repeated while it is interrupted by a signal. Returns the last
// result; errno is that of the last attempt.
int xioctl(int fd, unsigned long request, void* arg);

// STREAMON or STREAMOFF of one buffer queue; a refusal is printed with the
// node's name after `prefix`. True on success.
bool qv_set_streaming(int fd, int type, bool bOn, const char* prefix, const std::string& name);
// Prints how long starting the queues took, from `start`; the figure is
// start minus end (it wraps), and log watchers match the line as it stands.
void qv_print_start_time(const char* label, std::chrono::steady_clock::time_point start);

// Maps one buffer (or plane) of fd read/write and writes every page of it
// once, each byte back as it was: MAP_POPULATE alone still leaves a costly
// first write per page on some hosts (a virtual machine backs guest memory
// lazily), which at 2160p is tens of milliseconds in the render thread's first
// passes. MAP_FAILED when the mapping is refused.
void* qv_map_device_buffer(int fd, size_t length, uint32_t offset);

// The board's pixel format codes as the image library knows them.
QVSDK::QVEnumFormats qv_format_from_fourcc(uint32_t fourcc);
QVSDK::QVFieldOrder qv_field_order_from_v4l2(uint32_t field);

class qv_v4l2_base_output_device {
public:
    enum eDeviceType {
        eDTNone = 0,       // cannot be used
        eDTSepare = 1,     // single-plane output node (plus a VBI node)
        eDTMultiPlane = 2, // multi-plane output node
        eDTUnknown = 3,    // not an output node
    };

    explicit qv_v4l2_base_output_device(qv_device_reporter& reporter);
    virtual ~qv_v4l2_base_output_device();
    qv_v4l2_base_output_device(const qv_v4l2_base_output_device&) = delete;
    qv_v4l2_base_output_device& operator=(const qv_v4l2_base_output_device&) = delete;

    // Opens and classifies a node. For eDTSepare and eDTMultiPlane the opened
    // descriptor is left in fd for init_device; otherwise fd is -1.
    static eDeviceType CheckDevice(int& fd, const std::string& name);

    // Watchdog armed or disarmed, then streaming on.
    bool start_device();
    // Streaming off, watchdog released, sequence back to 0.
    void stop_device();

    bool is_open() const { return m_hDevice != -1; }
    const std::string& get_name() const { return m_strName; }
    qv_v4l2_enum_sdi_mode get_sdi_mode() const { return m_format; }
    // The qv_board_formats row of the configured mode (size, rate, scan).
    const qv_v4l2_video_format& get_board_format() const { return qv_board_format(m_format); }
    // Pixel format of the frames the device takes.
    QVSDK::QVEnumFormats get_video_format() const { return m_videoFormat; }
    uint32_t get_seq_frame() const { return m_seq_frame.load(); }

    // True once the device met a fault it cannot work past by itself (the node
    // vanished, or the driver kept refusing buffers): the owner closes and
    // reopens it. Cleared when the device is opened again.
    bool needs_restart() const { return m_bNeedsRestart; }
    // True when the last frame request gave up only because the board handed
    // back no buffer within one bounded wait: nothing is wrong, ask again.
    bool timed_out() const { return m_bTimedOut; }
    // While playing: re-arms the board's output watchdog if it has expired
    // (a stall longer than its time-out disarms it). True when it re-armed it.
    bool check_watchdog();

    // Longest single wait for the board to hand a buffer back.
    static constexpr int kBufferWaitMs = 100;
    // Failed buffer calls in a row after which the device gives up.
    static constexpr unsigned kMaxFailuresInRow = 8;

    // Why the board does not run the configured mode's timing (none fits, or
    // it reports another after setting); empty when it does. Set when the
    // device is opened.
    const std::string& timing_report() const { return m_strTimingReport; }

    // 0 when no device is open; otherwise the control as read (-1 if the read failed).
    int get_genlock_state() const;
    int get_genlock_source() const;

protected:
    // Takes over fd (the caller's variable becomes -1) and switches on VANC and time code.
    bool init(int& fd, const std::string& name, bool bUseWatchdog, qv_v4l2_enum_sdi_mode mode,
              v4l2_jutvane_timecode_type timecode_type);
    void releaseHandle();
    bool set_v4l2_video_format(unsigned buffer_type);

    // Once per frame whose completion the driver reported, with its sequence number.
    void update_statisitcs(unsigned seq);

    void init_watchdog();
    void notify_watchdog(int timeout_ms);
    void deinit_watchdog();

    // Waits, at most kBufferWaitMs, until a DQBUF on fd would not block. 1:
    // ready; 0: timed out (m_bTimedOut set); -1: the node failed.
    int wait_for_buffer(int fd);
    // Bookkeeping of buffer calls: a success clears the failure run; a failure
    // with errno err counts, and a vanished node or a long run ends the device.
    void note_success();
    void note_failure(int err);

    virtual bool start_renderer() = 0;
    virtual bool stop_renderer() = 0;

    bool set_control(uint32_t id, int32_t value) const;

    int m_hDevice = -1;
    std::string m_strName;
    qv_device_reporter& m_reporter;
    qv_v4l2_enum_sdi_mode m_format = qv_720x576_25i;
    QVSDK::QVEnumFormats m_videoFormat = QVSDK::FORMAT_UYVY;
    uint32_t m_timecodeType = V4L2_TC_TYPE_25FPS;
    std::vector<std::pair<uint8_t, uint8_t>> m_lineTeletext;
    std::atomic<uint32_t> m_seq_frame{0};
    std::mutex m_csTimeStamp; // goes with the time-stamp pair below
    std::atomic<uint64_t> m_nTimeStamp{0};
    std::atomic<uint32_t> m_nLastTimeStamp{0};
    std::string m_strTimingReport;
    int32_t m_genlock_state = 0;
    int32_t m_genlock_source = 0;
    bool m_bUseWatchdog = false;
    // Render thread only.
    bool m_bStreaming = false;
    bool m_bNeedsRestart = false;
    bool m_bTimedOut = false;
    bool m_bSeqRestarted = false; // the device was stopped since the last frame's statistics
    unsigned m_nFailuresInRow = 0;
};

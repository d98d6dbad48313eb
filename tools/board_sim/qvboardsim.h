// Public C++ interface of the board simulator.
//
// The simulator stands in for the SDI board's V4L2 output driver underneath the
// plain C library calls (open, ioctl, mmap, poll, close). It is either
// preloaded (libqvboardsim.so) or linked into a test binary
// (qvboardsim_static); in both cases this API drives it from the test side:
// configuration, stepping the frame clock, fault injection, genlock, the
// watchdog record and the capture of what went out on SDI.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "capture_format.h"

namespace qvboardsim {

enum class NodeKind {
    single_plane, // a video node (UYVY) with a companion raw VBI node
    multi_plane,  // one node, three planes: VBI + picture, embedded audio, status
};

enum class Pacing {
    realtime, // frame clock at the mode's true rate (optionally ppm off)
    freerun,  // a frame goes out as soon as a buffer is queued (benchmarks)
    stepped,  // the clock only moves when the test calls step()
};

struct CaptureConfig {
    std::string file;          // capture file; empty = none
    bool memory = false;       // keep frames in memory for captured()
    size_t memory_limit = 512; // frames kept in memory, oldest dropped first
    unsigned every = 1;        // keep every Nth frame (1 = all)
    uint64_t first = 0;        // first frame index kept
    uint64_t last = UINT64_MAX; // last frame index kept
    bool summary = false;      // headers, checksums and peaks only, no payload
};

// A fault that fires by itself once the board has sent `at_frame` frames
// (for runs where no test code is at hand, e.g. a preloaded pipeline).
struct ScheduledFault {
    enum Kind {
        genlock,    // a = state, b = source
        stall,      // the frame clock loses a frames (nothing goes out meanwhile)
        disconnect, // the nodes vanish; they come back after a ms (0: never)
        watchdog,   // the watchdog expires
    } kind = genlock;
    uint64_t at_frame = 0;
    int a = 0, b = 0;
};

struct BoardConfig {
    NodeKind kind = NodeKind::single_plane;
    std::string video_path;   // video node (single plane) or the multi-plane node
    std::string vbi_path;     // single plane only; default: video path with "video" -> "vbi"
    int mode = 0;             // initial SDI mode, index of the mode table
    Pacing pacing = Pacing::realtime;
    double ppm = 0.0;         // output clock offset from real time
    double input_ppm = 0.0;   // input frame clock offset from the output clock
    double input_offset_ms = 0.0; // input frame phase against the output clock
    bool input_valid = true;  // an input is present (RX time stamp valid)
    int genlock_state = 0;
    int genlock_source = 0;
    int seq_base = -1;        // first sequence number; -1 = the board's default
    CaptureConfig capture;
    std::vector<ScheduledFault> scheduled;
};

// Fails the next `count` calls after letting `after` calls through.
struct CallFault {
    int err = 5; // EIO
    unsigned count = 0;
    unsigned after = 0;
};

struct WatchdogRecord {
    bool armed = false;
    uint32_t timeout_ms = 0;
    uint32_t notifications = 0;
    uint32_t expiries = 0;
    int32_t stop_state = 0;
};

class Simulator {
public:
    static Simulator& instance();

    // Replaces every board. Descriptors still open on old nodes go stale (ENODEV).
    void configure(const std::vector<BoardConfig>& boards);
    // Parses the configuration text format (see docs/board-simulator.md).
    static std::vector<BoardConfig> parse_config(const std::string& text);

    // Stepped pacing: let `slots` frame slots (fields for interlaced
    // multi-plane) go by on the board that owns `path`.
    void step(const std::string& path, unsigned slots = 1);

    // Fault knobs; `path` names any node of the board.
    void fail_qbuf(const std::string& path, CallFault f);
    void fail_dqbuf(const std::string& path, CallFault f);
    void fail_streamon(const std::string& path, CallFault f);
    void error_buffers(const std::string& path, unsigned every, unsigned count);
    void drop_frames(const std::string& path, unsigned every, unsigned count);
    void stall_clock(const std::string& path, bool stalled);
    void set_genlock(const std::string& path, int state, int source);
    void set_input(const std::string& path, bool valid, double ppm, double offset_ms);
    void disconnect(const std::string& path);
    void reconnect(const std::string& path);
    void expire_watchdog(const std::string& path);

    // Observation.
    WatchdogRecord watchdog(const std::string& path);
    bool control(const std::string& path, uint32_t id, int32_t& value);
    std::vector<CapturedFrame> captured(const std::string& path);
    void clear_captured(const std::string& path);
    uint64_t frames_sent(const std::string& path);
    uint64_t underruns(const std::string& path);
    // Buffers of the video (or multi-plane) node waiting for their slot.
    size_t queued(const std::string& path);
    // The video (or multi-plane) node is streaming: its slots consume buffers.
    bool streaming(const std::string& path);
    // How long before its slot each buffer sent since the last call was
    // queued (ns, in sending order), and forgets them.
    std::vector<int64_t> take_margins(const std::string& path);

private:
    Simulator() = default;
};

} // namespace qvboardsim

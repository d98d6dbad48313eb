// Simulator internals shared by its files: the board model (nodes, queues,
// frame clock, faults, controls) and the registry that maps descriptors and
// paths onto it.
#pragma once

#include <linux/videodev2.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "capture_format.h"
#include "qvboardsim.h"
#include "sim_dispatch.h"
#include "v4l2_jutvane.h"

namespace qvboardsim {

// ---- real C library entry points (sim_interpose.c) ----
namespace real {
inline int close(int fd) { return qvbs_real_close(fd); }
inline void* mmap(void* addr, size_t len, int prot, int flags, int fd, off_t off)
{
    return qvbs_real_mmap(addr, len, prot, flags, fd, off);
}
inline int munmap(void* addr, size_t len) { return qvbs_real_munmap(addr, len); }
inline int poll(struct pollfd* fds, unsigned long n, int timeout_ms)
{
    return qvbs_real_poll(fds, n, timeout_ms);
}
} // namespace real

int64_t now_ns(); // steady clock

// ---- timings (sim_timings.cpp) ----
struct SdiMode {
    int width;
    int height;
    float fps;
    bool progressive;
};
constexpr int kModeCount = 20;
const SdiMode& sdi_mode(int mode);
const std::vector<v4l2_dv_timings>& board_timings();
// Timing the board starts in for a table mode; for modes the board cannot
// produce (720x576 at 30) the nearest one of the same raster is used.
v4l2_dv_timings timing_for_mode(int mode);
bool is_interlaced(const v4l2_dv_timings& t);
uint32_t total_width(const v4l2_bt_timings& bt);
uint32_t total_lines(const v4l2_bt_timings& bt); // whole frame, both fields
// Exact frame rate as a fraction.
void frame_rate(const v4l2_bt_timings& bt, uint64_t& num, uint64_t& den);
void reduce_fraction(uint64_t& num, uint64_t& den); // lowest terms, within 32 bits
uint32_t vbi_lines(const v4l2_bt_timings& bt, int field); // lines before active video
bool timings_equal(const v4l2_dv_timings& a, const v4l2_dv_timings& b);

// ---- frame clock (sim_clock.cpp) ----
// Slot k of a running stream is due at start + k / rate, computed from the
// count each time (never by adding up periods), so it cannot drift.
class FrameClock {
public:
    void start(int64_t t_ns, uint64_t num, uint64_t den, double ppm);
    int64_t slot_time(uint64_t k) const;
    uint64_t slots_due(int64_t t_ns) const; // largest k with slot_time(k) <= t (0 if none)
    void stall(int64_t t_ns, bool stalled); // a stalled clock sends nothing; restart shifts the origin
    bool stalled() const { return m_bStalled; }
    int64_t origin() const { return m_nStart; }
    double slots_per_second() const;

private:
    int64_t m_nStart = 0;
    uint64_t m_nNum = 25, m_nDen = 1;
    long double m_fFactor = 1.0L;
    bool m_bStalled = false;
    int64_t m_nStallStart = 0;
};

// Board's 148.5 MHz counter: hw ticks since the board powered up, at the
// output clock's rate.
uint32_t hw_ticks(int64_t boot_ns, double ppm, int64_t t_ns);

// ---- faults (sim_faults.cpp) ----
struct CallFaultState {
    CallFault plan;
    unsigned seen = 0;
    // True when this call is to fail; errno to use in `err`.
    bool trigger(int& err);
};
struct Faults {
    CallFaultState qbuf, dqbuf, streamon;
    unsigned error_every = 0, error_count = 0, error_seen = 0;
    unsigned drop_every = 0, drop_count = 0, drop_seen = 0;
    uint64_t lost_slots = 0; // a scheduled stall: this many slots send nothing
    bool take_error(); // per sent buffer
    bool take_drop();  // per slot
};

// ---- controls (sim_controls.cpp) ----
struct ControlDef {
    uint32_t id;
    const char* name;
    uint32_t type;
    int32_t min, max, step, def;
    uint32_t flags;
    bool multi_plane_only;
};
const std::vector<ControlDef>& control_defs();
const ControlDef* find_control(uint32_t id);

struct Board;
struct Handle;
struct Node;

// ---- buffers and queues (sim_buffers.cpp) ----
struct SimBuffer {
    v4l2_buffer info{};      // as the client last saw it (single plane) / header (multi plane)
    v4l2_plane planes[3]{};  // multi plane
    uint64_t offset[3]{};    // mmap offsets of the planes
    uint32_t length[3]{};
    uint32_t mapped = 0;     // live client mappings
    enum State { dequeued, queued, done } state = dequeued;
    int64_t queued_at = 0;   // steady ns (or step count in stepped mode)
};

struct Queue {
    uint32_t type = 0;
    int owner = -1; // handle id that allocated the buffers
    std::vector<SimBuffer> bufs;
    std::deque<int> queued; // indices waiting for the board
    std::deque<int> done;   // indices the client may dequeue
    int memfd = -1;
    uint8_t* mem = nullptr; // simulator's own view of all buffers
    size_t mem_size = 0;
    bool streaming = false;
    bool first_slot_set = false;
    uint64_t first_slot = 0;
    uint64_t first_parity = 0; // field buffers: 1 when the first one sent was a bottom field
    uint64_t sent = 0, underruns = 0;
    // Slot time minus QBUF time of every buffer sent (ns), for the client's
    // margin read-out; recording stops at kMaxMargins until it is taken.
    std::vector<int64_t> margins;
    static constexpr size_t kMaxMargins = size_t(1) << 21;
};

struct Node {
    enum Kind { video, vbi, mplane } kind = video;
    std::string path;
    Board* board = nullptr;
    Queue q;
    uint32_t quantization = V4L2_QUANTIZATION_LIM_RANGE;
    int32_t priority = V4L2_PRIORITY_DEFAULT;
    uint32_t buf_type() const;
    bool is_output_video() const { return kind != vbi; }
};

struct Mapping {
    Node* node;
    int buffer;
    int plane;
    size_t len;
    uint64_t alloc; // identifies the allocation mapped (the queue's memory address then)
};

struct Board {
    BoardConfig cfg;
    std::vector<std::unique_ptr<Node>> nodes; // video [+ vbi] or mplane
    v4l2_dv_timings timing{};
    std::map<uint32_t, int32_t> ctrl;
    FrameClock clock;
    bool clock_running = false;
    uint64_t slots_done = 0;   // last slot processed
    uint64_t stepped = 0;      // slots released by step() since stream on
    int64_t vnow = 0;          // stepped pacing: the board's own notion of now
    uint64_t generation = 1;   // bumped on disconnect
    bool present = true;
    int64_t boot_ns = 0;
    Faults faults;
    size_t scheduled_fired = 0; // cfg.scheduled is kept sorted by frame
    int64_t reconnect_at = 0;   // steady ns at which vanished nodes return (0: never)
    // watchdog
    WatchdogRecord wd;
    int64_t wd_deadline = 0;
    // capture
    CaptureWriter writer;
    bool writer_tried = false;
    std::deque<CapturedFrame> memory;
    // Waiters on this board's nodes alone: a change on one board must not
    // wake the clients of every other board (a real driver does not either).
    std::condition_variable cv;

    bool interlaced() const { return is_interlaced(timing); }
    Node* node_of(Node::Kind k) const;
    uint32_t audio_channels() const;
};

// ---- format helpers (sim_formats.cpp) ----
void fill_format(const Node& n, v4l2_format& f);
size_t plane_size(const Node& n, int plane); // buffer plane length (page aligned)
uint32_t mplane_vbi_bytes(const Board& b, int field);
uint32_t mplane_picture_lines(const Board& b, int field);
uint32_t mplane_audio_capacity(const Board& b); // samples a buffer can carry
int handle_format_ioctl(Node& n, unsigned long req, void* arg, int& err);
int handle_timing_ioctl(Node& n, unsigned long req, void* arg, int& err);
int handle_control_ioctl(Node& n, unsigned long req, void* arg, int& err, int64_t now,
                         const Handle* writer = nullptr);
int handle_buffer_ioctl(Node& n, int handle, bool nonblock, unsigned long req, void* arg, int& err,
                        std::unique_lock<std::mutex>& lock);

// The board's now: real time, or in stepped pacing the time of the last
// released slot, so that stepped runs are deterministic.
int64_t board_time(const Board& b, int64_t now);

// Board activity, called with the registry lock held.
void board_advance(Board& b, int64_t now);       // processes every slot due by `now`
void board_process_slot(Board& b, uint64_t k, int64_t slot_ns);
void queue_release(Node& n);                      // stream off + free buffers
void queue_streamoff(Node& n);
void watchdog_check(Board& b, int64_t now);
int64_t board_next_event(const Board& b, int64_t now); // when something next may become ready
bool node_ready(Node& n);                          // a DQBUF would not block
void capture_frame(Board& b, Node& video, SimBuffer& vb, Node* vbi, SimBuffer* vbib, uint64_t k,
                   int64_t slot_ns, uint32_t hw);

// ---- registry (sim_registry.cpp) ----
struct Handle {
    int id;
    Node* node;
    uint64_t generation;
    int refs;
    int32_t priority = V4L2_PRIORITY_DEFAULT;
    // Control events (V4L2_EVENT_CTRL): subscribed ids with their flags, pending events.
    std::map<uint32_t, uint32_t> subs;
    std::deque<v4l2_event> events;
    uint32_t event_seq = 0;
};

// Queues a control-change event for every handle subscribed to `id` on the
// board (the writer itself only with ALLOW_FEEDBACK).
void notify_control(Board& b, uint32_t id, int32_t value, const Handle* writer);
int handle_event_ioctl(Handle& h, unsigned long req, void* arg, int& err);

class Registry {
public:
    static Registry& get();
    std::mutex mu;
    std::condition_variable cv; // waiters on more than one board, or on none
    int wide_waiters = 0;       // how many wait on cv (lock held)
    std::vector<std::unique_ptr<Board>> boards;
    std::map<int, std::shared_ptr<Handle>> fds; // fake descriptor -> handle
    std::map<uintptr_t, Mapping> maps;         // client mapping address -> buffer plane
    int next_handle = 1;

    void ensure_loaded(); // reads the configuration once (lock held)
    Node* find_node(const std::string& path);
    std::shared_ptr<Handle> handle(int fd); // nullptr when fd is not simulated (lock held)
    Board* find_board(const std::string& path);
    void configure(const std::vector<BoardConfig>& cfgs);

    // Lock-free check used by every interposed call on a descriptor.
    static bool maybe_fake(int fd);
    static void mark_fake(int fd, bool fake);

private:
    bool m_bLoaded = false;
};

void apply_config_faults(Board& b); // faults named in the configuration text
void run_scheduled_faults(Board& b, uint64_t frames_sent, int64_t slot_ns);
void board_vanish(Board& b);             // nodes disappear (open descriptors: ENODEV)
void board_maybe_return(Board& b, int64_t now);
// Notify waiters after a state change (lock held): of one board, or of all.
void wake_board(Board& b);
void wake_all();

} // namespace qvboardsim

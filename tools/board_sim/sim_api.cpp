// The test-side C++ API: every call takes the registry lock, brings the board
// up to date and then acts on it.
#include "sim_internal.h"

namespace qvboardsim {

namespace {

template <typename F>
void with_board(const std::string& path, F f)
{
    Registry& r = Registry::get();
    std::lock_guard<std::mutex> lock(r.mu);
    (void)qvbs_interpose_anchor;
    Board* b = r.find_board(path);
    if (!b)
        return;
    board_advance(*b, now_ns());
    f(*b);
    wake_board(*b);
}

} // namespace

Simulator& Simulator::instance()
{
    static Simulator s;
    return s;
}

void Simulator::configure(const std::vector<BoardConfig>& boards)
{
    Registry& r = Registry::get();
    std::lock_guard<std::mutex> lock(r.mu);
    r.configure(boards);
}

void Simulator::step(const std::string& path, unsigned slots)
{
    with_board(path, [&](Board& b) {
        if (b.cfg.pacing != Pacing::stepped)
            return;
        for (unsigned i = 0; i < slots; ++i) {
            if (b.clock_running) {
                ++b.stepped;
                b.vnow = b.clock.slot_time(b.stepped);
            } else {
                uint64_t num = 0, den = 1;
                frame_rate(b.timing.bt, num, den);
                b.vnow += static_cast<int64_t>(1000000000ull * den / num);
            }
            board_advance(b, b.vnow);
        }
    });
}

void Simulator::fail_qbuf(const std::string& path, CallFault f)
{
    with_board(path, [&](Board& b) { b.faults.qbuf = CallFaultState{f, 0}; });
}

void Simulator::fail_dqbuf(const std::string& path, CallFault f)
{
    with_board(path, [&](Board& b) { b.faults.dqbuf = CallFaultState{f, 0}; });
}

void Simulator::fail_streamon(const std::string& path, CallFault f)
{
    with_board(path, [&](Board& b) { b.faults.streamon = CallFaultState{f, 0}; });
}

void Simulator::error_buffers(const std::string& path, unsigned every, unsigned count)
{
    with_board(path, [&](Board& b) {
        b.faults.error_every = every;
        b.faults.error_count = count;
        b.faults.error_seen = 0;
    });
}

void Simulator::drop_frames(const std::string& path, unsigned every, unsigned count)
{
    with_board(path, [&](Board& b) {
        b.faults.drop_every = every;
        b.faults.drop_count = count;
        b.faults.drop_seen = 0;
    });
}

void Simulator::stall_clock(const std::string& path, bool stalled)
{
    with_board(path, [&](Board& b) { b.clock.stall(board_time(b, now_ns()), stalled); });
}

void Simulator::set_genlock(const std::string& path, int state, int source)
{
    with_board(path, [&](Board& b) {
        b.ctrl[V4L2_CID_JUTVANE_GENLOCK_STATE] = state;
        b.ctrl[V4L2_CID_JUTVANE_GENLOCK_SOURCE] = source;
    });
}

void Simulator::set_input(const std::string& path, bool valid, double ppm, double offset_ms)
{
    with_board(path, [&](Board& b) {
        b.cfg.input_valid = valid;
        b.cfg.input_ppm = ppm;
        b.cfg.input_offset_ms = offset_ms;
    });
}

void Simulator::disconnect(const std::string& path)
{
    with_board(path, [&](Board& b) {
        board_vanish(b);
        b.reconnect_at = 0;
    });
}

void Simulator::reconnect(const std::string& path)
{
    with_board(path, [&](Board& b) {
        b.reconnect_at = 1; // due at once
        board_maybe_return(b, now_ns());
    });
}

void Simulator::expire_watchdog(const std::string& path)
{
    with_board(path, [&](Board& b) {
        ++b.wd.expiries;
        b.wd.armed = false;
        b.wd_deadline = 0;
        b.ctrl[V4L2_CID_JUTVANE_WATCHDOG_ENABLE] = 0;
    });
}

WatchdogRecord Simulator::watchdog(const std::string& path)
{
    WatchdogRecord w;
    with_board(path, [&](Board& b) { w = b.wd; });
    return w;
}

bool Simulator::control(const std::string& path, uint32_t id, int32_t& value)
{
    bool found = false;
    with_board(path, [&](Board& b) {
        auto it = b.ctrl.find(id);
        if (it != b.ctrl.end()) {
            value = it->second;
            found = true;
        }
    });
    return found;
}

std::vector<CapturedFrame> Simulator::captured(const std::string& path)
{
    std::vector<CapturedFrame> v;
    with_board(path, [&](Board& b) { v.assign(b.memory.begin(), b.memory.end()); });
    return v;
}

void Simulator::clear_captured(const std::string& path)
{
    with_board(path, [&](Board& b) { b.memory.clear(); });
}

uint64_t Simulator::frames_sent(const std::string& path)
{
    uint64_t n = 0;
    with_board(path, [&](Board& b) {
        Node* v = b.node_of(b.cfg.kind == NodeKind::multi_plane ? Node::mplane : Node::video);
        n = v ? v->q.sent : 0;
    });
    return n;
}

uint64_t Simulator::underruns(const std::string& path)
{
    uint64_t n = 0;
    with_board(path, [&](Board& b) {
        Node* v = b.node_of(b.cfg.kind == NodeKind::multi_plane ? Node::mplane : Node::video);
        n = v ? v->q.underruns : 0;
    });
    return n;
}

size_t Simulator::queued(const std::string& path)
{
    size_t n = 0;
    with_board(path, [&](Board& b) {
        Node* v = b.node_of(b.cfg.kind == NodeKind::multi_plane ? Node::mplane : Node::video);
        n = v ? v->q.queued.size() : 0;
    });
    return n;
}

bool Simulator::streaming(const std::string& path)
{
    bool on = false;
    with_board(path, [&](Board& b) {
        Node* v = b.node_of(b.cfg.kind == NodeKind::multi_plane ? Node::mplane : Node::video);
        on = v && v->q.streaming;
    });
    return on;
}

std::vector<int64_t> Simulator::take_margins(const std::string& path)
{
    std::vector<int64_t> v;
    with_board(path, [&](Board& b) {
        Node* n = b.node_of(b.cfg.kind == NodeKind::multi_plane ? Node::mplane : Node::video);
        if (n)
            v.swap(n->q.margins);
    });
    return v;
}

} // namespace qvboardsim

// The board's output side: at every slot of the frame clock it takes the
// oldest queued buffer of each streaming node, sends it, writes the status
// record and hands the buffer back. Slots are processed lazily, whenever a
// client or the test API looks at the board, each at its own due time.
#include <cstring>

#include "sim_internal.h"

namespace qvboardsim {

namespace {

// Beyond this many overdue slots (a process stopped in a debugger, say) the
// board does not replay them one by one: it skips ahead, as the hardware
// would simply have shown the last picture again.
constexpr uint64_t kMaxCatchUp = 100000;

uint32_t seq_base(const Board& b, const Node& n)
{
    if (b.cfg.seq_base >= 0)
        return static_cast<uint32_t>(b.cfg.seq_base);
    // Progressive multi-plane buffers count frames from 0. Field buffers and
    // the single-plane nodes count from 1: the board numbers a frame when it
    // starts it, and the first started frame is number 1.
    if (n.kind == Node::mplane && !b.interlaced())
        return 0;
    return 1;
}

void write_status(Node& n, SimBuffer& sb, uint32_t frame, int64_t slot_ns, uint32_t hw)
{
    Queue& q = n.q;
    if (!q.mem || sb.length[2] < JUTVANE_STATUS_SIZE)
        return;
    uint8_t* p = q.mem + sb.offset[2];
    std::memset(p, 0, JUTVANE_STATUS_SIZE);
    std::memcpy(p + JUTVANE_STATUS_OFF_MAGIC, JUTVANE_STATUS_MAGIC, 4);
    int32_t fr = static_cast<int32_t>(frame);
    uint64_t sys = static_cast<uint64_t>(slot_ns);
    std::memcpy(p + JUTVANE_STATUS_OFF_FRAME, &fr, 4);
    std::memcpy(p + JUTVANE_STATUS_OFF_SYSTIME, &sys, 8);
    std::memcpy(p + JUTVANE_STATUS_OFF_HWCOUNTER, &hw, 4);
    sb.planes[2].bytesused = JUTVANE_STATUS_SIZE;
}

// Sends the head buffer of `n` in slot k; returns its index or -1.
int send_head(Board& b, Node& n, uint64_t k, int64_t slot_ns, uint32_t hw)
{
    Queue& q = n.q;
    if (q.queued.empty() || q.bufs[q.queued.front()].queued_at > slot_ns) {
        ++q.underruns;
        return -1;
    }
    const bool fields = n.kind == Node::mplane && b.interlaced();
    uint64_t f = k - q.first_slot + (fields ? q.first_parity : 0);
    if (fields) {
        // A field buffer goes out in a slot of its own parity; one marked
        // for the other field waits for the next slot.
        uint32_t want = q.bufs[q.queued.front()].info.field;
        uint32_t slot = (f % 2) ? V4L2_FIELD_BOTTOM : V4L2_FIELD_TOP;
        if ((want == V4L2_FIELD_TOP || want == V4L2_FIELD_BOTTOM) && want != slot) {
            ++q.underruns;
            return -1;
        }
    }
    int idx = q.queued.front();
    q.queued.pop_front();
    SimBuffer& sb = q.bufs[idx];
    uint32_t base = seq_base(b, n);
    if (fields) {
        sb.info.sequence = base + static_cast<uint32_t>(f / 2);
        sb.info.field = (f % 2) ? V4L2_FIELD_BOTTOM : V4L2_FIELD_TOP;
    } else {
        sb.info.sequence = base + static_cast<uint32_t>(f);
        sb.info.field = b.interlaced() ? V4L2_FIELD_INTERLACED : V4L2_FIELD_NONE;
    }
    sb.info.flags &= ~(V4L2_BUF_FLAG_QUEUED | V4L2_BUF_FLAG_ERROR);
    sb.info.flags |= V4L2_BUF_FLAG_DONE;
    if (n.kind != Node::vbi && b.faults.take_error())
        sb.info.flags |= V4L2_BUF_FLAG_ERROR;
    if (n.kind == Node::mplane)
        write_status(n, sb, sb.info.sequence, slot_ns, hw);
    if (q.margins.size() < Queue::kMaxMargins)
        q.margins.push_back(slot_ns - sb.queued_at);
    sb.state = SimBuffer::done;
    q.done.push_back(idx);
    ++q.sent;
    return idx;
}

} // namespace

int64_t board_time(const Board& b, int64_t now)
{
    return b.cfg.pacing == Pacing::stepped ? b.vnow : now;
}

Node* Board::node_of(Node::Kind k) const
{
    for (auto& n : nodes)
        if (n->kind == k)
            return n.get();
    return nullptr;
}

uint32_t Board::audio_channels() const
{
    auto it = ctrl.find(V4L2_CID_JUTVANE_AUDIO_GROUPS);
    int groups = it == ctrl.end() ? 1 : it->second;
    return static_cast<uint32_t>(groups < 1 ? 4 : groups * 4);
}

void board_process_slot(Board& b, uint64_t k, int64_t slot_ns)
{
    bool any_ready = false;
    for (auto& np : b.nodes) {
        Queue& q = np->q;
        if (!q.streaming)
            continue;
        if (!q.first_slot_set) {
            if (q.queued.empty() || q.bufs[q.queued.front()].queued_at > slot_ns)
                continue;
            q.first_slot_set = true;
            q.first_slot = k;
            q.first_parity = q.bufs[q.queued.front()].info.field == V4L2_FIELD_BOTTOM ? 1 : 0;
        }
        any_ready = true;
    }
    if (!any_ready)
        return;
    // A dropped slot: nothing leaves the board, the next buffer's sequence
    // number shows the gap.
    if (b.faults.lost_slots > 0) {
        --b.faults.lost_slots;
        return;
    }
    if (b.faults.take_drop())
        return;
    uint32_t hw = hw_ticks(b.boot_ns, b.cfg.ppm, slot_ns);
    Node* video = b.node_of(b.cfg.kind == NodeKind::multi_plane ? Node::mplane : Node::video);
    Node* vbi = b.node_of(Node::vbi);
    int vi = -1, bi = -1;
    if (video && video->q.streaming && video->q.first_slot_set)
        vi = send_head(b, *video, k, slot_ns, hw);
    if (vbi && vbi->q.streaming && vbi->q.first_slot_set)
        bi = send_head(b, *vbi, k, slot_ns, hw);
    if (vi >= 0) {
        capture_frame(b, *video, video->q.bufs[vi], bi >= 0 ? vbi : nullptr,
                      bi >= 0 ? &vbi->q.bufs[bi] : nullptr, k - video->q.first_slot + video->q.first_parity, slot_ns, hw);
        run_scheduled_faults(b, video->q.sent, slot_ns);
    }
    wake_board(b);
}

void board_advance(Board& b, int64_t now)
{
    int64_t t = board_time(b, now);
    watchdog_check(b, t);
    if (!b.clock_running || b.cfg.pacing == Pacing::freerun)
        return;
    uint64_t due = b.clock.slots_due(t);
    if (due > b.slots_done + kMaxCatchUp)
        b.slots_done = due - kMaxCatchUp;
    while (b.slots_done < due && b.clock_running) {
        ++b.slots_done;
        board_process_slot(b, b.slots_done, b.clock.slot_time(b.slots_done));
    }
}

bool node_ready(Node& n)
{
    Board& b = *n.board;
    if (!n.q.done.empty())
        return true;
    if (b.cfg.pacing == Pacing::freerun && b.clock_running && n.q.streaming && !n.q.queued.empty()) {
        // Free-running: the board sends as soon as there is something to send.
        ++b.slots_done;
        board_process_slot(b, b.slots_done, now_ns());
        return !n.q.done.empty();
    }
    return false;
}

int64_t board_next_event(const Board& b, int64_t now)
{
    if (b.clock_running && b.cfg.pacing == Pacing::realtime && !b.clock.stalled())
        return b.clock.slot_time(b.slots_done + 1);
    return now + 20000000; // state changes from other threads wake waiters directly
}

} // namespace qvboardsim

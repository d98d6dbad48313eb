// Error injection, in the manner of the kernel's virtual test drivers: fail a
// call with a chosen errno, return buffers flagged as errored, drop frames.
#include "sim_internal.h"

namespace qvboardsim {

bool CallFaultState::trigger(int& err)
{
    if (plan.count == 0)
        return false;
    if (seen < plan.after) {
        ++seen;
        return false;
    }
    --plan.count;
    err = plan.err;
    return true;
}

namespace {
// every = N: one in N events is hit (count limits how many; 0 = unlimited).
bool periodic(unsigned every, unsigned& count, unsigned& seen)
{
    if (every == 0)
        return false;
    if (++seen < every)
        return false;
    seen = 0;
    if (count == 0)
        return true;
    --count;
    return true;
}
} // namespace

bool Faults::take_error()
{
    bool last = error_count == 1;
    bool hit = periodic(error_every, error_count, error_seen);
    if (hit && last)
        error_every = 0;
    return hit;
}

bool Faults::take_drop()
{
    bool last = drop_count == 1;
    bool hit = periodic(drop_every, drop_count, drop_seen);
    if (hit && last)
        drop_every = 0;
    return hit;
}

} // namespace qvboardsim

namespace qvboardsim {

void board_vanish(Board& b)
{
    for (auto& n : b.nodes) {
        queue_streamoff(*n);
        n->q.owner = -1;
    }
    b.present = false;
    ++b.generation; // every open descriptor now gets ENODEV
}

void board_maybe_return(Board& b, int64_t now)
{
    if (b.present || b.reconnect_at == 0 || now < b.reconnect_at)
        return;
    for (auto& n : b.nodes)
        if (n->q.owner == -1 && !n->q.bufs.empty())
            queue_release(*n);
    b.present = true;
    b.reconnect_at = 0;
}

void run_scheduled_faults(Board& b, uint64_t frames_sent, int64_t slot_ns)
{
    auto& list = b.cfg.scheduled;
    while (b.scheduled_fired < list.size() && list[b.scheduled_fired].at_frame <= frames_sent) {
        const ScheduledFault f = list[b.scheduled_fired++];
        switch (f.kind) {
        case ScheduledFault::genlock:
            b.ctrl[V4L2_CID_JUTVANE_GENLOCK_STATE] = f.a;
            b.ctrl[V4L2_CID_JUTVANE_GENLOCK_SOURCE] = f.b;
            notify_control(b, V4L2_CID_JUTVANE_GENLOCK_STATE, f.a, nullptr);
            notify_control(b, V4L2_CID_JUTVANE_GENLOCK_SOURCE, f.b, nullptr);
            break;
        case ScheduledFault::stall:
            // The next a slots go by without a frame: seen from the client
            // exactly like a clock that stopped for a frames.
            b.faults.lost_slots += static_cast<uint64_t>(f.a > 0 ? f.a : 0);
            break;
        case ScheduledFault::disconnect:
            board_vanish(b);
            b.reconnect_at = f.a > 0 ? slot_ns + int64_t(f.a) * 1000000 : 0;
            return;
        case ScheduledFault::watchdog:
            ++b.wd.expiries;
            b.wd.armed = false;
            b.wd_deadline = 0;
            b.ctrl[V4L2_CID_JUTVANE_WATCHDOG_ENABLE] = 0;
            break;
        }
    }
}

} // namespace qvboardsim

// Control-change events (V4L2_EVENT_CTRL): clients that watch the genlock
// state or the watchdog controls subscribe instead of polling them.
#include <cerrno>
#include <cstring>
#include <set>

#include "sim_internal.h"

namespace qvboardsim {

namespace {

constexpr size_t kMaxPending = 64;

v4l2_event make_event(const ControlDef& d, int32_t value, uint32_t changes)
{
    v4l2_event e;
    std::memset(&e, 0, sizeof e);
    e.type = V4L2_EVENT_CTRL;
    e.id = d.id;
    e.u.ctrl.changes = changes;
    e.u.ctrl.type = d.type;
    e.u.ctrl.value = value;
    e.u.ctrl.flags = d.flags;
    e.u.ctrl.minimum = d.min;
    e.u.ctrl.maximum = d.max;
    e.u.ctrl.step = d.step;
    e.u.ctrl.default_value = d.def;
    return e;
}

void push(Handle& h, const v4l2_event& e)
{
    // A newer change of the same control replaces an undelivered one.
    for (v4l2_event& q : h.events)
        if (q.id == e.id) {
            uint32_t changes = q.u.ctrl.changes | e.u.ctrl.changes;
            q = e;
            q.u.ctrl.changes = changes;
            return;
        }
    if (h.events.size() >= kMaxPending)
        h.events.pop_front();
    h.events.push_back(e);
}

bool visible_on(const ControlDef& d, const Node& n)
{
    return n.kind != Node::vbi && (!d.multi_plane_only || n.kind == Node::mplane);
}

} // namespace

void notify_control(Board& b, uint32_t id, int32_t value, const Handle* writer)
{
    const ControlDef* d = find_control(id);
    if (!d)
        return;
    std::set<Handle*> seen;
    for (auto& kv : Registry::get().fds) {
        Handle* h = kv.second.get();
        if (!seen.insert(h).second || h->node->board != &b || h->generation != b.generation)
            continue;
        auto it = h->subs.find(id);
        if (it == h->subs.end())
            continue;
        if (h == writer && !(it->second & V4L2_EVENT_SUB_FL_ALLOW_FEEDBACK))
            continue;
        push(*h, make_event(*d, value, V4L2_EVENT_CTRL_CH_VALUE));
    }
    wake_board(b);
}

int handle_event_ioctl(Handle& h, unsigned long req, void* arg, int& err)
{
    Node& n = *h.node;
    switch (req) {
    case VIDIOC_SUBSCRIBE_EVENT: {
        auto* s = static_cast<v4l2_event_subscription*>(arg);
        const ControlDef* d = s->type == V4L2_EVENT_CTRL ? find_control(s->id) : nullptr;
        if (!d || !visible_on(*d, n)) {
            err = EINVAL;
            return -1;
        }
        bool fresh = h.subs.find(s->id) == h.subs.end();
        h.subs[s->id] = s->flags;
        if (fresh && (s->flags & V4L2_EVENT_SUB_FL_SEND_INITIAL) &&
            d->type != V4L2_CTRL_TYPE_CTRL_CLASS) {
            int32_t v = n.board->ctrl[d->id];
            push(h, make_event(*d, v, V4L2_EVENT_CTRL_CH_VALUE | V4L2_EVENT_CTRL_CH_FLAGS));
        }
        return 0;
    }
    case VIDIOC_UNSUBSCRIBE_EVENT: {
        auto* s = static_cast<v4l2_event_subscription*>(arg);
        if (s->type == V4L2_EVENT_ALL) {
            h.subs.clear();
            h.events.clear();
            return 0;
        }
        if (s->type == V4L2_EVENT_CTRL) {
            h.subs.erase(s->id);
            for (auto it = h.events.begin(); it != h.events.end();)
                it = it->id == s->id ? h.events.erase(it) : it + 1;
        }
        return 0;
    }
    case VIDIOC_DQEVENT: {
        if (h.events.empty()) {
            err = ENOENT;
            return -1;
        }
        auto* e = static_cast<v4l2_event*>(arg);
        *e = h.events.front();
        h.events.pop_front();
        e->pending = static_cast<uint32_t>(h.events.size());
        e->sequence = h.event_seq++;
        int64_t t = now_ns();
        e->timestamp.tv_sec = t / 1000000000;
        e->timestamp.tv_nsec = t % 1000000000;
        return 0;
    }
    default:
        err = ENOTTY;
        return -1;
    }
}

} // namespace qvboardsim

// The board driver's controls: the private ones with their fixed ids, the
// control-class markers V4L2 clients expect, and the input time stamp
// extended control fed by a simulated input frame clock.
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

#include "sim_internal.h"

namespace qvboardsim {

namespace {

constexpr uint32_t kClassFlags = V4L2_CTRL_FLAG_READ_ONLY | V4L2_CTRL_FLAG_WRITE_ONLY;
constexpr uint32_t kRxTimestampSize = sizeof(v4l2_jutvane_analog_rx_timestamp);

const char* const kTimecodeMenu[] = {"Disabled", "LTC", "VITC", "Any"};
const char* const kGenlockStateMenu[] = {"Master", "No Input Signal", "Locking", "Locked",
                                         "Holdover"};
const char* const kGenlockSourceMenu[] = {"Master", "Analog", "SDI In 0", "SDI In 1",
                                          "SDI In 2", "SDI In 3", "SDI In 4", "SDI In 5",
                                          "SDI In 6", "SDI In 7"};

bool visible(const ControlDef& d, const Node& n)
{
    if (n.kind == Node::vbi)
        return false;
    return !d.multi_plane_only || n.kind == Node::mplane;
}

bool is_private_user(const ControlDef& d)
{
    return V4L2_CTRL_ID2WHICH(d.id) == V4L2_CTRL_CLASS_USER && d.id >= V4L2_CID_USER_BASE + 0x1000 &&
           d.type < V4L2_CTRL_COMPOUND_TYPES;
}

// Old-style enumeration (V4L2_CID_PRIVATE_BASE + k) of the driver-private user controls.
const ControlDef* private_control(const Node& n, uint32_t k)
{
    for (const ControlDef& c : control_defs())
        if (visible(c, n) && is_private_user(c) && k-- == 0)
            return &c;
    return nullptr;
}

const char* menu_name(uint32_t id, int32_t index)
{
    switch (id) {
    case V4L2_CID_JUTVANE_TIMECODE_TYPE:
        return index >= 0 && index < 4 ? kTimecodeMenu[index] : nullptr;
    case V4L2_CID_JUTVANE_GENLOCK_STATE:
        return index >= 0 && index < 5 ? kGenlockStateMenu[index] : nullptr;
    case V4L2_CID_JUTVANE_GENLOCK_SOURCE:
        return index >= 0 && index < 10 ? kGenlockSourceMenu[index] : nullptr;
    default:
        return nullptr;
    }
}

void fill_rx_timestamp(const Board& b, int64_t now, v4l2_jutvane_analog_rx_timestamp& ts)
{
    int64_t t = board_time(b, now);
    uint64_t num = 0, den = 1;
    frame_rate(b.timing.bt, num, den);
    long double in_rate = static_cast<long double>(num) / static_cast<long double>(den) *
                          (1.0L + static_cast<long double>(b.cfg.ppm) * 1e-6L) *
                          (1.0L + static_cast<long double>(b.cfg.input_ppm) * 1e-6L);
    int64_t origin = b.boot_ns + static_cast<int64_t>(b.cfg.input_offset_ms * 1e6);
    std::memset(&ts, 0, sizeof ts);
    ts.valid = b.cfg.input_valid ? 1 : 0;
    if (t >= origin && ts.valid) {
        long double s = static_cast<long double>(t - origin) * 1e-9L;
        uint64_t j = static_cast<uint64_t>(std::floor(s * in_rate));
        int64_t tin = origin + static_cast<int64_t>(std::ceil(static_cast<long double>(j) /
                                                              in_rate * 1e9L));
        ts.timestamp = hw_ticks(b.boot_ns, b.cfg.ppm, std::min(tin, t));
    }
    ts.cur_hw_time = hw_ticks(b.boot_ns, b.cfg.ppm, t);
    ts.cur_sys_time = static_cast<uint64_t>(t);
}

void watchdog_write(Board& b, uint32_t id, int32_t v, int64_t now)
{
    switch (id) {
    case V4L2_CID_JUTVANE_WATCHDOG_ENABLE:
        b.wd.armed = v != 0;
        b.wd_deadline = 0; // counts from the first feed after arming
        break;
    case V4L2_CID_JUTVANE_WATCHDOG_NOTIFY:
        b.wd.timeout_ms = static_cast<uint32_t>(v);
        ++b.wd.notifications;
        b.wd_deadline = now + int64_t(v) * 1000000;
        break;
    case V4L2_CID_JUTVANE_STOP_STATE:
        b.wd.stop_state = v;
        break;
    default:
        break;
    }
}

int set_value(Node& n, const ControlDef& d, int32_t v, int64_t now, int& err, const Handle* writer)
{
    if (d.flags & V4L2_CTRL_FLAG_READ_ONLY) {
        err = EACCES;
        return -1;
    }
    if (d.type != V4L2_CTRL_TYPE_BUTTON && (v < d.min || v > d.max)) {
        err = ERANGE;
        return -1;
    }
    if (d.id == V4L2_CID_JUTVANE_AUDIO_GROUPS && v == 3) {
        err = ERANGE; // 1, 2 or 4 groups of four channels
        return -1;
    }
    if (d.id == V4L2_CID_JUTVANE_AUDIO_GROUPS) {
        // The audio plane is sized by the groups: not while buffers exist.
        for (auto& node : n.board->nodes)
            if (!node->q.bufs.empty() && n.board->ctrl[d.id] != v) {
                err = EBUSY;
                return -1;
            }
    }
    bool changed = n.board->ctrl[d.id] != v;
    n.board->ctrl[d.id] = v;
    watchdog_write(*n.board, d.id, v, now);
    if (changed && d.type != V4L2_CTRL_TYPE_BUTTON)
        notify_control(*n.board, d.id, v, writer);
    return 0;
}

int get_value(Node& n, const ControlDef& d, int32_t& v, int& err)
{
    if (d.flags & V4L2_CTRL_FLAG_WRITE_ONLY) {
        err = EACCES;
        return -1;
    }
    v = n.board->ctrl[d.id];
    return 0;
}

const ControlDef* next_control(const Node& n, uint32_t id, bool compound)
{
    const ControlDef* best = nullptr;
    for (const ControlDef& d : control_defs()) {
        if (!visible(d, n) || d.id <= id)
            continue;
        if (!compound && d.type >= V4L2_CTRL_COMPOUND_TYPES)
            continue;
        if (!best || d.id < best->id)
            best = &d;
    }
    return best;
}

const ControlDef* lookup(const Node& n, uint32_t id)
{
    const ControlDef* d = find_control(id);
    return d && visible(*d, n) ? d : nullptr;
}

// The control a QUERYCTRL / QUERY_EXT_CTRL id names: the next one for the
// NEXT_CTRL / NEXT_COMPOUND flags, an old-style private index, or the id itself.
const ControlDef* find_queried(const Node& n, uint32_t id)
{
    const uint32_t mask = V4L2_CTRL_FLAG_NEXT_CTRL | V4L2_CTRL_FLAG_NEXT_COMPOUND;
    if (id & mask) {
        const ControlDef* d = next_control(n, id & ~mask, (id & V4L2_CTRL_FLAG_NEXT_COMPOUND) != 0);
        // NEXT_COMPOUND alone asks for compound controls only.
        while (d && (id & mask) == V4L2_CTRL_FLAG_NEXT_COMPOUND && d->type < V4L2_CTRL_COMPOUND_TYPES)
            d = next_control(n, d->id, true);
        return d;
    }
    if (id >= V4L2_CID_PRIVATE_BASE)
        return private_control(n, id - V4L2_CID_PRIVATE_BASE);
    return lookup(n, id);
}

void fill_query(const ControlDef& d, v4l2_query_ext_ctrl& q)
{
    std::memset(&q, 0, sizeof q);
    q.id = d.id;
    q.type = d.type;
    std::snprintf(q.name, sizeof q.name, "%s", d.name);
    q.minimum = d.min;
    q.maximum = d.max;
    q.step = static_cast<uint64_t>(d.step);
    q.default_value = d.def;
    q.flags = d.flags;
    q.elem_size = 4;
    q.elems = 1;
    if (d.type == V4L2_CTRL_TYPE_U8) {
        q.elem_size = 1;
        q.elems = kRxTimestampSize;
        q.nr_of_dims = 1;
        q.dims[0] = kRxTimestampSize;
    }
    if (d.type == V4L2_CTRL_TYPE_CTRL_CLASS || d.type == V4L2_CTRL_TYPE_BUTTON)
        q.elem_size = 0;
}

int ext_ctrls(Node& n, unsigned long req, v4l2_ext_controls& c, int& err, int64_t now,
              const Handle* writer)
{
    const bool get = req == VIDIOC_G_EXT_CTRLS;
    const bool set = req == VIDIOC_S_EXT_CTRLS;
    if (c.which == V4L2_CTRL_WHICH_REQUEST_VAL) {
        err = EINVAL; // no request support
        return -1;
    }
    if (c.count == 0)
        return 0;
    if (!c.controls) {
        err = EFAULT;
        return -1;
    }
    // Validate everything first so that a failing set changes nothing. As
    // in V4L2, a validation error points at the control for TRY and at
    // `count` (nothing applied) for G and S.
    const bool try_ = req == VIDIOC_TRY_EXT_CTRLS;
    for (uint32_t i = 0; i < c.count; ++i) {
        v4l2_ext_control& e = c.controls[i];
        const ControlDef* d = lookup(n, e.id);
        const uint32_t idx = try_ ? i : c.count;
        bool class_ok = c.which == V4L2_CTRL_WHICH_CUR_VAL || c.which == V4L2_CTRL_WHICH_DEF_VAL ||
                        V4L2_CTRL_ID2WHICH(e.id) == c.which;
        if (!d || !class_ok) {
            c.error_idx = idx;
            err = EINVAL;
            return -1;
        }
        if ((get && (d->flags & V4L2_CTRL_FLAG_WRITE_ONLY)) ||
            (!get && (d->flags & V4L2_CTRL_FLAG_READ_ONLY)) ||
            (!get && c.which == V4L2_CTRL_WHICH_DEF_VAL)) {
            c.error_idx = idx;
            err = EACCES;
            return -1;
        }
        if (d->type == V4L2_CTRL_TYPE_CTRL_CLASS) {
            c.error_idx = idx;
            err = EINVAL;
            return -1;
        }
        if (d->type == V4L2_CTRL_TYPE_U8) {
            if (e.size < kRxTimestampSize) {
                e.size = kRxTimestampSize;
                c.error_idx = i;
                err = ENOSPC;
                return -1;
            }
            if (!e.ptr) {
                c.error_idx = idx;
                err = EFAULT;
                return -1;
            }
        } else if (!get && d->type != V4L2_CTRL_TYPE_BUTTON && (e.value < d->min || e.value > d->max)) {
            c.error_idx = idx;
            err = ERANGE;
            return -1;
        }
    }
    for (uint32_t i = 0; i < c.count; ++i) {
        v4l2_ext_control& e = c.controls[i];
        const ControlDef* d = lookup(n, e.id);
        if (d->type == V4L2_CTRL_TYPE_U8) {
            v4l2_jutvane_analog_rx_timestamp ts;
            fill_rx_timestamp(*n.board, now, ts);
            if (c.which == V4L2_CTRL_WHICH_DEF_VAL)
                std::memset(&ts, 0, sizeof ts);
            if (get)
                std::memcpy(e.ptr, &ts, sizeof ts);
            e.size = kRxTimestampSize;
            continue;
        }
        if (get) {
            int32_t v = c.which == V4L2_CTRL_WHICH_DEF_VAL ? d->def : n.board->ctrl[d->id];
            e.value = v;
        } else if (set) {
            if (set_value(n, *d, e.value, now, err, writer) < 0) {
                c.error_idx = i;
                return -1;
            }
        }
    }
    return 0;
}

} // namespace

const std::vector<ControlDef>& control_defs()
{
    static const std::vector<ControlDef> defs = {
        {V4L2_CID_USER_CLASS, "User Controls", V4L2_CTRL_TYPE_CTRL_CLASS, 0, 0, 0, 0, kClassFlags,
         false},
        {V4L2_CID_JUTVANE_ANALOG_RX_TIMESTAMP, "Analog RX Timestamp", V4L2_CTRL_TYPE_U8, 0, 255, 1,
         0,
         V4L2_CTRL_FLAG_READ_ONLY | V4L2_CTRL_FLAG_VOLATILE | V4L2_CTRL_FLAG_HAS_PAYLOAD,
         false},
        {V4L2_CID_JUTVANE_WATCHDOG_ENABLE, "Watchdog Enable", V4L2_CTRL_TYPE_BOOLEAN, 0, 1, 1, 0, 0,
         false},
        {V4L2_CID_JUTVANE_WATCHDOG_NOTIFY, "Watchdog Notify (ms)", V4L2_CTRL_TYPE_INTEGER, 0,
         600000, 1, 0, 0, false},
        {V4L2_CID_JUTVANE_AUDIO_GROUPS, "Audio Groups", V4L2_CTRL_TYPE_INTEGER, 1, 4, 1, 1, 0,
         true},
        {V4L2_CID_IMAGE_SOURCE_CLASS, "Image Source Controls", V4L2_CTRL_TYPE_CTRL_CLASS, 0, 0, 0,
         0, kClassFlags, false},
        {V4L2_CID_JUTVANE_VANC_ENABLE, "VANC Enable", V4L2_CTRL_TYPE_BOOLEAN, 0, 1, 1, 0, 0, false},
        {V4L2_CID_DV_CLASS, "Digital Video Controls", V4L2_CTRL_TYPE_CTRL_CLASS, 0, 0, 0, 0,
         kClassFlags, false},
        {V4L2_CID_JUTVANE_FORMAT_COMMIT, "Format Commit", V4L2_CTRL_TYPE_BUTTON, 0, 0, 0, 0,
         V4L2_CTRL_FLAG_WRITE_ONLY | V4L2_CTRL_FLAG_EXECUTE_ON_WRITE, false},
        {V4L2_CID_JUTVANE_TIMECODE_TYPE, "Timecode Type", V4L2_CTRL_TYPE_MENU, 0, 3, 1, 0, 0,
         false},
        {V4L2_CID_JUTVANE_GENLOCK_SOURCE, "Genlock Source", V4L2_CTRL_TYPE_MENU, 0, 9, 1, 0, 0,
         false},
        {V4L2_CID_JUTVANE_GENLOCK_STATE, "Genlock State", V4L2_CTRL_TYPE_MENU, 0, 4, 1, 0,
         V4L2_CTRL_FLAG_READ_ONLY | V4L2_CTRL_FLAG_VOLATILE, false},
        {V4L2_CID_JUTVANE_STOP_STATE, "Stop State", V4L2_CTRL_TYPE_BOOLEAN, 0, 1, 1, 0, 0, false},
    };
    return defs;
}

const ControlDef* find_control(uint32_t id)
{
    for (const ControlDef& d : control_defs())
        if (d.id == id)
            return &d;
    return nullptr;
}

int handle_control_ioctl(Node& n, unsigned long req, void* arg, int& err, int64_t now,
                         const Handle* writer)
{
    switch (req) {
    case VIDIOC_QUERYCTRL: {
        auto* q = static_cast<v4l2_queryctrl*>(arg);
        uint32_t id = q->id;
        const uint32_t mask = V4L2_CTRL_FLAG_NEXT_CTRL | V4L2_CTRL_FLAG_NEXT_COMPOUND;
        const ControlDef* d = find_queried(n, id);
        if (!d) {
            err = EINVAL;
            return -1;
        }
        v4l2_query_ext_ctrl e;
        fill_query(*d, e);
        std::memset(q, 0, sizeof *q);
        q->id = id >= V4L2_CID_PRIVATE_BASE && !(id & mask) ? id : e.id; // old-style private ids echo
        q->type = e.type;
        std::memcpy(q->name, e.name, sizeof q->name);
        q->minimum = static_cast<int32_t>(e.minimum);
        q->maximum = static_cast<int32_t>(e.maximum);
        q->step = static_cast<int32_t>(e.step);
        q->default_value = static_cast<int32_t>(e.default_value);
        q->flags = e.flags;
        if (d->type >= V4L2_CTRL_COMPOUND_TYPES)
            q->minimum = q->maximum = q->step = q->default_value = 0;
        return 0;
    }
    case VIDIOC_QUERY_EXT_CTRL: {
        auto* q = static_cast<v4l2_query_ext_ctrl*>(arg);
        uint32_t id = q->id;
        const uint32_t mask = V4L2_CTRL_FLAG_NEXT_CTRL | V4L2_CTRL_FLAG_NEXT_COMPOUND;
        const ControlDef* d = find_queried(n, id);
        if (!d) {
            err = EINVAL;
            return -1;
        }
        fill_query(*d, *q);
        if (id >= V4L2_CID_PRIVATE_BASE && !(id & mask))
            q->id = id; // old-style private enumeration keeps the asked id
        return 0;
    }
    case VIDIOC_QUERYMENU: {
        auto* m = static_cast<v4l2_querymenu*>(arg);
        const ControlDef* d = lookup(n, m->id);
        const char* name = d && d->type == V4L2_CTRL_TYPE_MENU ? menu_name(d->id, int32_t(m->index))
                                                                : nullptr;
        if (!name || int32_t(m->index) < d->min || int32_t(m->index) > d->max) {
            err = EINVAL;
            return -1;
        }
        std::memset(m->name, 0, sizeof m->name);
        std::snprintf(reinterpret_cast<char*>(m->name), sizeof m->name, "%s", name);
        m->reserved = 0;
        return 0;
    }
    case VIDIOC_G_CTRL:
    case VIDIOC_S_CTRL: {
        auto* c = static_cast<v4l2_control*>(arg);
        const ControlDef* d = lookup(n, c->id);
        if (!d || d->type == V4L2_CTRL_TYPE_CTRL_CLASS || d->type >= V4L2_CTRL_COMPOUND_TYPES) {
            err = EINVAL;
            return -1;
        }
        if (req == VIDIOC_G_CTRL)
            return get_value(n, *d, c->value, err);
        return set_value(n, *d, c->value, now, err, writer);
    }
    case VIDIOC_G_EXT_CTRLS:
    case VIDIOC_S_EXT_CTRLS:
    case VIDIOC_TRY_EXT_CTRLS:
        return ext_ctrls(n, req, *static_cast<v4l2_ext_controls*>(arg), err, now, writer);
    default:
        err = ENOTTY;
        return -1;
    }
}

void watchdog_check(Board& b, int64_t now)
{
    if (b.wd.armed && b.wd_deadline != 0 && now > b.wd_deadline) {
        ++b.wd.expiries;
        b.wd.armed = false; // fires once; the board falls back to its stop state
        b.wd_deadline = 0;
        b.ctrl[V4L2_CID_JUTVANE_WATCHDOG_ENABLE] = 0;
    }
}

} // namespace qvboardsim

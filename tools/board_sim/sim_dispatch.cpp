// Dispatch of ioctl, mmap/munmap and poll on simulated descriptors: the
// requests a V4L2 driver answers, routed to the board's formats, timings,
// controls, events and buffer queues.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cerrno>
#include <cstring>

#include "sim_internal.h"

namespace qvboardsim {

namespace {

std::atomic<size_t> g_maps{0}; // live client mappings, lets munmap skip the lock

void fill_querycap(const Node& n, v4l2_capability& c, size_t board_index)
{
    std::memset(&c, 0, sizeof c);
    std::snprintf(reinterpret_cast<char*>(c.driver), sizeof c.driver, "jutvane");
    std::snprintf(reinterpret_cast<char*>(c.card), sizeof c.card, "JT300 SDI output (simulated)");
    std::snprintf(reinterpret_cast<char*>(c.bus_info), sizeof c.bus_info, "platform:qvboardsim-%zu",
                  board_index);
    c.version = (6u << 16) | (1u << 8);
    uint32_t all = 0;
    for (auto& node : n.board->nodes) {
        switch (node->kind) {
        case Node::video:
            all |= V4L2_CAP_VIDEO_OUTPUT;
            break;
        case Node::vbi:
            all |= V4L2_CAP_VBI_OUTPUT;
            break;
        case Node::mplane:
            all |= V4L2_CAP_VIDEO_OUTPUT_MPLANE;
            break;
        }
    }
    switch (n.kind) {
    case Node::video:
        c.device_caps = V4L2_CAP_VIDEO_OUTPUT;
        break;
    case Node::vbi:
        c.device_caps = V4L2_CAP_VBI_OUTPUT;
        break;
    case Node::mplane:
        c.device_caps = V4L2_CAP_VIDEO_OUTPUT_MPLANE;
        break;
    }
    c.device_caps |= V4L2_CAP_STREAMING | V4L2_CAP_EXT_PIX_FORMAT;
    c.capabilities = all | V4L2_CAP_STREAMING | V4L2_CAP_EXT_PIX_FORMAT | V4L2_CAP_DEVICE_CAPS;
}

int32_t max_priority(const Node& n)
{
    int32_t best = V4L2_PRIORITY_UNSET;
    for (auto& kv : Registry::get().fds)
        if (kv.second->node == &n && kv.second->priority > best)
            best = kv.second->priority;
    return best;
}

bool known_request(unsigned long req)
{
    static const unsigned long known[] = {
        VIDIOC_QUERYCAP, VIDIOC_ENUM_FMT, VIDIOC_G_FMT, VIDIOC_S_FMT, VIDIOC_TRY_FMT,
        VIDIOC_ENUM_FRAMESIZES, VIDIOC_ENUM_FRAMEINTERVALS, VIDIOC_G_PARM, VIDIOC_S_PARM,
        VIDIOC_ENUMOUTPUT, VIDIOC_G_OUTPUT, VIDIOC_S_OUTPUT, VIDIOC_ENUM_DV_TIMINGS,
        VIDIOC_G_DV_TIMINGS, VIDIOC_S_DV_TIMINGS, VIDIOC_DV_TIMINGS_CAP, VIDIOC_QUERYCTRL,
        VIDIOC_QUERY_EXT_CTRL, VIDIOC_QUERYMENU, VIDIOC_G_CTRL, VIDIOC_S_CTRL, VIDIOC_G_EXT_CTRLS,
        VIDIOC_S_EXT_CTRLS, VIDIOC_TRY_EXT_CTRLS, VIDIOC_REQBUFS, VIDIOC_QUERYBUF, VIDIOC_QBUF,
        VIDIOC_DQBUF, VIDIOC_STREAMON, VIDIOC_STREAMOFF, VIDIOC_G_PRIORITY, VIDIOC_S_PRIORITY,
        VIDIOC_SUBSCRIBE_EVENT, VIDIOC_UNSUBSCRIBE_EVENT, VIDIOC_DQEVENT};
    for (unsigned long k : known)
        if (k == req)
            return true;
    return false;
}

// Requests that change the device: refused while another handle holds a
// higher priority.
bool needs_priority(unsigned long req)
{
    switch (req) {
    case VIDIOC_S_FMT:
    case VIDIOC_S_OUTPUT:
    case VIDIOC_S_CTRL:
    case VIDIOC_S_EXT_CTRLS:
    case VIDIOC_S_DV_TIMINGS:
    case VIDIOC_S_PARM:
        return true;
    default:
        return false;
    }
}

// The one board whose nodes all the simulated descriptors of a poll are on,
// or null when they span several (lock held).
Board* single_board(Registry& r, const struct pollfd* fds, unsigned long n)
{
    Board* one = nullptr;
    for (unsigned long i = 0; i < n; ++i) {
        if (fds[i].fd < 0 || !Registry::maybe_fake(fds[i].fd))
            continue;
        auto h = r.handle(fds[i].fd);
        if (!h)
            continue;
        if (one != nullptr && h->node->board != one)
            return nullptr;
        one = h->node->board;
    }
    return one;
}

} // namespace

} // namespace qvboardsim

using namespace qvboardsim;

extern "C" {

int qvbs_ioctl(int fd, unsigned long req, void* arg)
{
    Registry& r = Registry::get();
    std::unique_lock<std::mutex> lock(r.mu);
    auto h = r.handle(fd);
    if (!h) {
        errno = EBADF;
        return -1;
    }
    Node& n = *h->node;
    Board& b = *n.board;
    if (h->generation != b.generation || !b.present) {
        errno = ENODEV;
        return -1;
    }
    int64_t now = now_ns();
    board_advance(b, now);
    int err = 0;
    int res = -1;
    if (req == VIDIOC_LOG_STATUS)
        return 0;
    if (!arg) {
        // Every request the driver knows takes an argument.
        errno = known_request(req) ? EFAULT : ENOTTY;
        return -1;
    }
    if (needs_priority(req) && h->priority < max_priority(n)) {
        errno = EBUSY;
        return -1;
    }
    switch (req) {
    case VIDIOC_QUERYCAP: {
        size_t index = 0;
        for (size_t i = 0; i < r.boards.size(); ++i)
            if (r.boards[i].get() == &b)
                index = i;
        fill_querycap(n, *static_cast<v4l2_capability*>(arg), index);
        res = 0;
        break;
    }
    case VIDIOC_ENUM_FMT:
    case VIDIOC_G_FMT:
    case VIDIOC_S_FMT:
    case VIDIOC_TRY_FMT:
    case VIDIOC_ENUM_FRAMESIZES:
    case VIDIOC_ENUM_FRAMEINTERVALS:
    case VIDIOC_G_PARM:
    case VIDIOC_S_PARM:
    case VIDIOC_ENUMOUTPUT:
    case VIDIOC_G_OUTPUT:
    case VIDIOC_S_OUTPUT:
        res = handle_format_ioctl(n, req, arg, err);
        break;
    case VIDIOC_ENUM_DV_TIMINGS:
    case VIDIOC_G_DV_TIMINGS:
    case VIDIOC_S_DV_TIMINGS:
    case VIDIOC_DV_TIMINGS_CAP:
        res = handle_timing_ioctl(n, req, arg, err);
        break;
    case VIDIOC_QUERYCTRL:
    case VIDIOC_QUERY_EXT_CTRL:
    case VIDIOC_QUERYMENU:
    case VIDIOC_G_CTRL:
    case VIDIOC_S_CTRL:
    case VIDIOC_G_EXT_CTRLS:
    case VIDIOC_S_EXT_CTRLS:
    case VIDIOC_TRY_EXT_CTRLS:
        res = handle_control_ioctl(n, req, arg, err, board_time(b, now), h.get());
        break;
    case VIDIOC_REQBUFS:
    case VIDIOC_QUERYBUF:
    case VIDIOC_QBUF:
    case VIDIOC_DQBUF:
    case VIDIOC_STREAMON:
    case VIDIOC_STREAMOFF: {
        bool nonblock = (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0;
        res = handle_buffer_ioctl(n, h->id, nonblock, req, arg, err, lock);
        break;
    }
    case VIDIOC_G_PRIORITY:
        *static_cast<uint32_t*>(arg) = static_cast<uint32_t>(max_priority(n));
        res = 0;
        break;
    case VIDIOC_S_PRIORITY: {
        uint32_t p = *static_cast<uint32_t*>(arg);
        if (p == V4L2_PRIORITY_UNSET)
            p = V4L2_PRIORITY_DEFAULT;
        if (p > V4L2_PRIORITY_RECORD) {
            err = EINVAL;
        } else if (h->priority < max_priority(n)) {
            err = EBUSY;
        } else {
            h->priority = static_cast<int32_t>(p);
            res = 0;
        }
        break;
    }
    case VIDIOC_SUBSCRIBE_EVENT:
    case VIDIOC_UNSUBSCRIBE_EVENT:
    case VIDIOC_DQEVENT:
        res = handle_event_ioctl(*h, req, arg, err);
        break;
    default:
        err = ENOTTY;
        break;
    }
    if (res < 0)
        errno = err ? err : EINVAL;
    return res;
}

void* qvbs_mmap(void* addr, size_t len, int prot, int flags, int fd, off_t off)
{
    Registry& r = Registry::get();
    std::lock_guard<std::mutex> lock(r.mu);
    auto h = r.handle(fd);
    if (!h) {
        errno = EBADF;
        return MAP_FAILED;
    }
    Node& n = *h->node;
    if (h->generation != n.board->generation || !n.board->present) {
        errno = ENODEV;
        return MAP_FAILED;
    }
    if (!(flags & MAP_SHARED) || n.q.memfd < 0) {
        errno = EINVAL;
        return MAP_FAILED;
    }
    for (size_t i = 0; i < n.q.bufs.size(); ++i) {
        SimBuffer& sb = n.q.bufs[i];
        for (int p = 0; p < 3; ++p) {
            if (sb.length[p] == 0 || sb.offset[p] != static_cast<uint64_t>(off))
                continue;
            if (len == 0 || len > sb.length[p]) {
                errno = EINVAL;
                return MAP_FAILED;
            }
            void* m = real::mmap(addr, len, prot, flags, n.q.memfd, off);
            if (m == MAP_FAILED)
                return m;
            ++sb.mapped;
            ++g_maps;
            r.maps[reinterpret_cast<uintptr_t>(m)] =
                Mapping{&n, static_cast<int>(i), p, len, reinterpret_cast<uint64_t>(n.q.mem)};
            return m;
        }
    }
    errno = EINVAL;
    return MAP_FAILED;
}

void qvbs_munmap_notify(void* addr, size_t len)
{
    (void)len;
    Registry& r = Registry::get();
    if (g_maps.load(std::memory_order_acquire) == 0)
        return;
    std::lock_guard<std::mutex> lock(r.mu);
    auto it = r.maps.find(reinterpret_cast<uintptr_t>(addr));
    if (it == r.maps.end())
        return;
    Mapping m = it->second;
    r.maps.erase(it);
    --g_maps;
    Queue& q = m.node->q;
    // Only count it back when the buffers are still the ones that were mapped.
    if (reinterpret_cast<uint64_t>(q.mem) == m.alloc && m.buffer < int(q.bufs.size()) &&
        q.bufs[m.buffer].mapped > 0)
        --q.bufs[m.buffer].mapped;
}

int qvbs_poll(struct pollfd* fds, unsigned long n, long long timeout_ns)
{
    Registry& r = Registry::get();
    const int64_t start = now_ns();
    std::vector<struct pollfd> real_fds(fds, fds + n);
    for (;;) {
        int ready = 0;
        int64_t next = -1;
        {
            std::lock_guard<std::mutex> lock(r.mu);
            int64_t now = now_ns();
            for (unsigned long i = 0; i < n; ++i) {
                real_fds[i] = fds[i];
                fds[i].revents = 0;
                if (fds[i].fd < 0 || !Registry::maybe_fake(fds[i].fd))
                    continue;
                real_fds[i].fd = -1; // the simulator answers for this one
                auto h = r.handle(fds[i].fd);
                if (!h) {
                    fds[i].revents = POLLNVAL;
                    ++ready;
                    continue;
                }
                Node& node = *h->node;
                Board& b = *node.board;
                if (h->generation != b.generation || !b.present) {
                    fds[i].revents = POLLERR | POLLHUP;
                    ++ready;
                    continue;
                }
                board_advance(b, now);
                short pri = (fds[i].events & POLLPRI) && !h->events.empty() ? POLLPRI : 0;
                short want = fds[i].events & (POLLOUT | POLLWRNORM);
                if (pri) {
                    fds[i].revents = pri;
                    ++ready;
                }
                if (!want)
                    continue;
                if (!node.q.streaming) {
                    fds[i].revents |= POLLERR;
                    ready += pri ? 0 : 1;
                    continue;
                }
                if (node_ready(node)) {
                    fds[i].revents |= want;
                    ready += pri ? 0 : 1;
                    continue;
                }
                int64_t e = board_next_event(b, now);
                if (next < 0 || e < next)
                    next = e;
            }
        }
        int64_t now = now_ns();
        int64_t left = timeout_ns < 0 ? INT64_MAX : start + timeout_ns - now;
        int wait_ms = 0;
        if (!ready && left > 0) {
            int64_t slice = next < 0 ? 20000000 : next - now;
            if (slice > 20000000)
                slice = 20000000;
            if (slice > left)
                slice = left;
            wait_ms = slice <= 0 ? 0 : int((slice + 999999) / 1000000);
        }
        bool any_real = false;
        for (unsigned long i = 0; i < n; ++i)
            any_real = any_real || real_fds[i].fd >= 0;
        if (!any_real) {
            // Only simulated nodes: wait on the board's own signal, so that a
            // step or a queued buffer wakes the caller at once. Nodes of
            // several boards wait on the registry's signal, which every
            // board's change reaches.
            if (wait_ms > 0) {
                std::unique_lock<std::mutex> lock(r.mu);
                if (Board* b = single_board(r, fds, n)) {
                    b->cv.wait_for(lock, std::chrono::milliseconds(wait_ms));
                } else {
                    ++r.wide_waiters;
                    r.cv.wait_for(lock, std::chrono::milliseconds(wait_ms));
                    --r.wide_waiters;
                }
            }
            if (ready || left <= 0)
                return ready;
            continue;
        }
        int res = real::poll(real_fds.data(), n, wait_ms);
        if (res < 0)
            return res;
        for (unsigned long i = 0; i < n; ++i)
            if (real_fds[i].fd >= 0 && real_fds[i].revents) {
                fds[i].revents = real_fds[i].revents;
                ++ready;
            }
        if (ready || left <= 0)
            return ready;
    }
}

} // extern "C"

// Buffer ioctls with memory-mapped buffers, following the videobuf2 rules a
// real driver inherits: one owner per queue, buffers backed by one memfd per
// allocation, QBUF/DQBUF in order, STREAMON before or after the first QBUF.
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "sim_internal.h"

namespace qvboardsim {

namespace {

constexpr uint32_t kMinBuffers = 2;
constexpr uint32_t kMaxBuffers = 32;

void free_buffers(Queue& q)
{
    if (q.mem)
        real::munmap(q.mem, q.mem_size);
    if (q.memfd >= 0)
        real::close(q.memfd);
    q.mem = nullptr;
    q.mem_size = 0;
    q.memfd = -1;
    q.bufs.clear();
    q.queued.clear();
    q.done.clear();
    // Client mappings of the old buffers stay valid (orphaned) until unmapped.
}

bool alloc_buffers(Node& n, uint32_t count)
{
    Queue& q = n.q;
    Board& b = *n.board;
    const int planes = n.kind == Node::mplane ? 3 : 1;
    size_t len[3] = {plane_size(n, 0), plane_size(n, 1), plane_size(n, 2)};
    size_t total = 0;
    for (int p = 0; p < planes; ++p)
        total += len[p];
    total *= count;
    std::string name = "qvboardsim:" + n.path;
    int fd = memfd_create(name.c_str(), MFD_CLOEXEC);
    if (fd < 0)
        return false;
    if (ftruncate(fd, static_cast<off_t>(total)) != 0) {
        real::close(fd);
        return false;
    }
    void* mem = real::mmap(nullptr, total, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (mem == MAP_FAILED) {
        real::close(fd);
        return false;
    }
    q.memfd = fd;
    q.mem = static_cast<uint8_t*>(mem);
    q.mem_size = total;
    q.bufs.resize(count);
    uint64_t off = 0;
    for (uint32_t i = 0; i < count; ++i) {
        SimBuffer& sb = q.bufs[i];
        sb = SimBuffer{};
        sb.info.index = i;
        sb.info.type = n.buf_type();
        sb.info.memory = V4L2_MEMORY_MMAP;
        sb.info.flags = V4L2_BUF_FLAG_TIMESTAMP_COPY;
        if (n.kind == Node::mplane && b.interlaced())
            sb.info.field = (i % 2) ? V4L2_FIELD_BOTTOM : V4L2_FIELD_TOP; // even buffers carry field 1
        else if (n.kind == Node::video && b.interlaced())
            sb.info.field = V4L2_FIELD_INTERLACED;
        else
            sb.info.field = V4L2_FIELD_NONE;
        for (int p = 0; p < planes; ++p) {
            sb.offset[p] = off;
            sb.length[p] = static_cast<uint32_t>(len[p]);
            sb.planes[p].length = sb.length[p];
            sb.planes[p].m.mem_offset = static_cast<uint32_t>(off);
            off += len[p];
        }
        if (n.kind != Node::mplane) {
            sb.info.length = sb.length[0];
            sb.info.m.offset = static_cast<uint32_t>(sb.offset[0]);
        }
    }
    return true;
}

// Copies the buffer's state out to the client's v4l2_buffer.
int export_buffer(const Node& n, const SimBuffer& sb, v4l2_buffer& out, int& err)
{
    v4l2_plane* user_planes = out.m.planes;
    uint32_t user_len = out.length;
    uint32_t flags = sb.info.flags & ~(V4L2_BUF_FLAG_QUEUED | V4L2_BUF_FLAG_DONE | V4L2_BUF_FLAG_MAPPED);
    if (sb.state == SimBuffer::queued)
        flags |= V4L2_BUF_FLAG_QUEUED;
    if (sb.state == SimBuffer::done)
        flags |= V4L2_BUF_FLAG_DONE;
    if (sb.mapped)
        flags |= V4L2_BUF_FLAG_MAPPED;
    if (n.kind == Node::mplane) {
        if (!user_planes || user_len < 3) {
            err = EINVAL;
            return -1;
        }
        out = sb.info;
        out.flags = flags;
        out.m.planes = user_planes;
        out.length = 3;
        for (int p = 0; p < 3; ++p) {
            user_planes[p] = sb.planes[p];
            user_planes[p].length = sb.length[p];
            user_planes[p].m.mem_offset = static_cast<uint32_t>(sb.offset[p]);
        }
        return 0;
    }
    out = sb.info;
    out.flags = flags;
    out.length = sb.length[0];
    out.m.offset = static_cast<uint32_t>(sb.offset[0]);
    return 0;
}

int check_common(const Node& n, int handle, uint32_t type, uint32_t memory, int& err)
{
    if (type != n.buf_type() || memory != V4L2_MEMORY_MMAP) {
        err = EINVAL;
        return -1;
    }
    if (n.q.owner != -1 && n.q.owner != handle) {
        err = EBUSY;
        return -1;
    }
    return 0;
}

int do_reqbufs(Node& n, int handle, v4l2_requestbuffers& r, int& err)
{
    Queue& q = n.q;
    if (r.type != n.buf_type()) {
        err = EINVAL;
        return -1;
    }
    r.capabilities = V4L2_BUF_CAP_SUPPORTS_MMAP | V4L2_BUF_CAP_SUPPORTS_ORPHANED_BUFS;
    std::memset(r.reserved, 0, sizeof r.reserved);
    r.flags = 0;
    if (r.memory != V4L2_MEMORY_MMAP) {
        err = EINVAL;
        return -1;
    }
    if (q.owner != -1 && q.owner != handle) {
        err = EBUSY;
        return -1;
    }
    if (q.streaming) {
        err = EBUSY;
        return -1;
    }
    free_buffers(q);
    if (r.count == 0) {
        q.owner = -1;
        return 0;
    }
    uint32_t count = r.count < kMinBuffers ? kMinBuffers : r.count;
    if (count > kMaxBuffers)
        count = kMaxBuffers;
    if (!alloc_buffers(n, count)) {
        err = ENOMEM;
        return -1;
    }
    r.count = count;
    q.owner = handle;
    return 0;
}

int do_qbuf(Node& n, int handle, v4l2_buffer& vb, int& err, int64_t now)
{
    Queue& q = n.q;
    Board& b = *n.board;
    if (check_common(n, handle, vb.type, vb.memory, err) < 0)
        return -1;
    if (vb.flags & V4L2_BUF_FLAG_REQUEST_FD) {
        err = EBADR; // no request support
        return -1;
    }
    if (b.faults.qbuf.trigger(err))
        return -1;
    if (vb.index >= q.bufs.size()) {
        err = EINVAL;
        return -1;
    }
    SimBuffer& sb = q.bufs[vb.index];
    if (sb.state != SimBuffer::dequeued) {
        err = EINVAL;
        return -1;
    }
    if (n.kind == Node::mplane) {
        if (!vb.m.planes || vb.length < 3) {
            err = EINVAL;
            return -1;
        }
        for (int p = 0; p < 3; ++p) {
            uint32_t used = vb.m.planes[p].bytesused;
            uint32_t off = vb.m.planes[p].data_offset;
            if (used > sb.length[p] || (off > 0 && off >= used)) {
                err = EINVAL;
                return -1;
            }
        }
        for (int p = 0; p < 3; ++p) {
            uint32_t used = vb.m.planes[p].bytesused;
            sb.planes[p].bytesused = used;
            sb.planes[p].data_offset = vb.m.planes[p].data_offset;
        }
    } else {
        if (vb.bytesused > sb.length[0]) {
            err = EINVAL;
            return -1;
        }
        sb.info.bytesused = vb.bytesused ? vb.bytesused : sb.length[0];
    }
    const uint32_t client_flags = V4L2_BUF_FLAG_TIMECODE | V4L2_BUF_FLAG_KEYFRAME |
                                  V4L2_BUF_FLAG_PFRAME | V4L2_BUF_FLAG_BFRAME;
    sb.info.flags = (sb.info.flags & ~client_flags) | (vb.flags & client_flags);
    sb.info.timecode = vb.timecode;
    sb.info.timestamp = vb.timestamp;
    if (vb.field == V4L2_FIELD_TOP || vb.field == V4L2_FIELD_BOTTOM)
        sb.info.field = vb.field;
    sb.state = SimBuffer::queued;
    sb.queued_at = board_time(b, now);
    q.queued.push_back(static_cast<int>(vb.index));
    wake_board(b);
    return export_buffer(n, sb, vb, err);
}

void start_clock(Board& b, int64_t now)
{
    if (b.clock_running)
        return;
    uint64_t num = 0, den = 1;
    frame_rate(b.timing.bt, num, den);
    if (b.cfg.kind == NodeKind::multi_plane && b.interlaced())
        num *= 2; // one buffer per field
    b.clock.start(board_time(b, now), num, den, b.cfg.ppm);
    b.clock_running = true;
    b.slots_done = 0;
    b.stepped = 0;
}

int do_dqbuf(Node& n, int handle, bool nonblock, v4l2_buffer& vb, int& err,
             std::unique_lock<std::mutex>& lock)
{
    Queue& q = n.q;
    Board& b = *n.board;
    if (check_common(n, handle, vb.type, vb.memory, err) < 0)
        return -1;
    if (n.kind == Node::mplane && (!vb.m.planes || vb.length < 3)) {
        err = EINVAL;
        return -1;
    }
    if (b.faults.dqbuf.trigger(err))
        return -1;
    const uint64_t gen = b.generation;
    for (;;) {
        if (b.generation != gen || !b.present) {
            err = ENODEV;
            return -1;
        }
        if (!q.streaming) {
            err = EINVAL;
            return -1;
        }
        int64_t now = now_ns();
        board_advance(b, now);
        if (node_ready(n))
            break;
        if (nonblock) {
            err = EAGAIN;
            return -1;
        }
        // Bounded wait: wakes at the next slot or on any state change.
        int64_t until = board_next_event(b, now);
        if (until > now + 50000000)
            until = now + 50000000;
        b.cv.wait_for(lock, std::chrono::nanoseconds(until > now ? until - now : 0));
    }
    int idx = q.done.front();
    q.done.pop_front();
    SimBuffer& sb = q.bufs[idx];
    sb.state = SimBuffer::dequeued;
    int res = export_buffer(n, sb, vb, err);
    sb.info.flags &= ~V4L2_BUF_FLAG_ERROR;
    return res;
}

} // namespace

void queue_streamoff(Node& n)
{
    Queue& q = n.q;
    Board& b = *n.board;
    if (q.streaming)
        board_advance(b, now_ns()); // frames already due still go out
    for (SimBuffer& sb : q.bufs) {
        sb.state = SimBuffer::dequeued;
        sb.info.flags &= ~(V4L2_BUF_FLAG_QUEUED | V4L2_BUF_FLAG_DONE | V4L2_BUF_FLAG_ERROR);
    }
    q.queued.clear();
    q.done.clear();
    q.streaming = false;
    q.first_slot_set = false;
    b.writer.flush();
    bool any = false;
    for (auto& node : b.nodes)
        any = any || node->q.streaming;
    if (!any)
        b.clock_running = false;
    wake_board(b);
}

void queue_release(Node& n)
{
    queue_streamoff(n);
    free_buffers(n.q);
    n.q.owner = -1;
}

int handle_buffer_ioctl(Node& n, int handle, bool nonblock, unsigned long req, void* arg, int& err,
                        std::unique_lock<std::mutex>& lock)
{
    Queue& q = n.q;
    Board& b = *n.board;
    int64_t now = now_ns();
    switch (req) {
    case VIDIOC_REQBUFS:
        return do_reqbufs(n, handle, *static_cast<v4l2_requestbuffers*>(arg), err);
    case VIDIOC_QUERYBUF: {
        auto* vb = static_cast<v4l2_buffer*>(arg);
        if (vb->type != n.buf_type() || vb->index >= q.bufs.size()) {
            err = EINVAL;
            return -1;
        }
        return export_buffer(n, q.bufs[vb->index], *vb, err);
    }
    case VIDIOC_QBUF:
        return do_qbuf(n, handle, *static_cast<v4l2_buffer*>(arg), err, now);
    case VIDIOC_DQBUF:
        return do_dqbuf(n, handle, nonblock, *static_cast<v4l2_buffer*>(arg), err, lock);
    case VIDIOC_STREAMON:
    case VIDIOC_STREAMOFF: {
        int type = *static_cast<int*>(arg);
        if (static_cast<uint32_t>(type) != n.buf_type()) {
            err = EINVAL;
            return -1;
        }
        if (q.owner != -1 && q.owner != handle) {
            err = EBUSY;
            return -1;
        }
        if (req == VIDIOC_STREAMOFF) {
            queue_streamoff(n);
            return 0;
        }
        if (b.faults.streamon.trigger(err))
            return -1;
        if (q.bufs.empty()) {
            err = EINVAL;
            return -1;
        }
        if (q.streaming)
            return 0;
        q.streaming = true;
        q.first_slot_set = false;
        start_clock(b, now);
        wake_board(b);
        return 0;
    }
    default:
        err = ENOTTY;
        return -1;
    }
}

} // namespace qvboardsim

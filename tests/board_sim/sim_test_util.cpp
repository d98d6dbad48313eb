#include "sim_test_util.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace qvbs_test {

using namespace qvboardsim;

BoardConfig board(NodeKind kind, int mode, Pacing pacing, const std::string& tag)
{
    BoardConfig c;
    c.kind = kind;
    c.mode = mode;
    c.pacing = pacing;
    c.video_path = "/dev/qvbs-test-" + tag + "-video0";
    c.capture.memory = true;
    return c;
}

Client::Client(const std::string& path, bool nonblock)
{
    m_fd = ::open(path.c_str(), O_RDWR | (nonblock ? O_NONBLOCK : 0));
}

Client::~Client()
{
    for (size_t i = 0; i < m_maps.size(); ++i)
        if (m_maps[i])
            ::munmap(m_maps[i], m_lens[i]);
    if (m_fd >= 0)
        ::close(m_fd);
}

int Client::setup(uint32_t type, uint32_t count)
{
    m_type = type;
    v4l2_requestbuffers r{};
    r.count = count;
    r.type = type;
    r.memory = V4L2_MEMORY_MMAP;
    if (ioctl(m_fd, VIDIOC_REQBUFS, &r) < 0)
        return -1;
    m_maps.assign(r.count * 3, nullptr);
    m_lens.assign(r.count * 3, 0);
    for (uint32_t i = 0; i < r.count; ++i) {
        v4l2_buffer b{};
        v4l2_plane pl[3]{};
        b.index = i;
        b.type = type;
        b.memory = V4L2_MEMORY_MMAP;
        if (mplane()) {
            b.m.planes = pl;
            b.length = 3;
        }
        if (ioctl(m_fd, VIDIOC_QUERYBUF, &b) < 0)
            return -1;
        for (int p = 0; p < (mplane() ? 3 : 1); ++p) {
            size_t len = mplane() ? pl[p].length : b.length;
            off_t off = mplane() ? pl[p].m.mem_offset : b.m.offset;
            void* m = ::mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_SHARED, m_fd, off);
            if (m == MAP_FAILED)
                return -1;
            m_maps[i * 3 + p] = static_cast<uint8_t*>(m);
            m_lens[i * 3 + p] = len;
        }
    }
    return static_cast<int>(r.count);
}

int Client::streamon()
{
    int t = static_cast<int>(m_type);
    return ioctl(m_fd, VIDIOC_STREAMON, &t);
}

int Client::streamoff()
{
    int t = static_cast<int>(m_type);
    return ioctl(m_fd, VIDIOC_STREAMOFF, &t);
}

int Client::qbuf(uint32_t index, uint32_t used0, uint32_t used1, uint32_t flags,
                 const v4l2_timecode* tc)
{
    v4l2_buffer b{};
    v4l2_plane pl[3]{};
    b.index = index;
    b.type = m_type;
    b.memory = V4L2_MEMORY_MMAP;
    b.flags = flags;
    if (tc)
        b.timecode = *tc;
    if (mplane()) {
        pl[0].bytesused = used0;
        pl[1].bytesused = used1;
        b.m.planes = pl;
        b.length = 3;
    } else {
        b.bytesused = used0;
    }
    return ioctl(m_fd, VIDIOC_QBUF, &b);
}

int Client::dqbuf(v4l2_buffer& out, int& err)
{
    out = v4l2_buffer{};
    out.type = m_type;
    out.memory = V4L2_MEMORY_MMAP;
    if (mplane()) {
        std::memset(planes, 0, sizeof planes);
        out.m.planes = planes;
        out.length = 3;
    }
    int res = ioctl(m_fd, VIDIOC_DQBUF, &out);
    err = res < 0 ? errno : 0;
    return res;
}

} // namespace qvbs_test
